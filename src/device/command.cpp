#include "device/command.hpp"

#include "frame/registry.hpp"

namespace zeltocom {

WaitOutcome OutcomeOf(const t_comresponse& response, long timeoutMs) {
  if (response.elapsedMs >= timeoutMs) return WaitOutcome::Late;
  if (response.syntaxError) return WaitOutcome::SyntaxError;
  return WaitOutcome::Answered;
}

int CMD_SendCommand(s_CommPort* port, std::string_view command, unsigned long timeoutMs,
                    t_comresponse* response) {
  if (RS232SendCommand(port->fd, command) != 1) return -1;
  const long timeout = static_cast<long>(timeoutMs);
  RS232WaitForData(port->fd, response, timeout, port->eotFormat.view(), true);
  return OutcomeOf(*response, timeout) == WaitOutcome::Answered ? 1 : 0;
}

}  // namespace zeltocom
