#include "device/command.hpp"

#include "frame/registry.hpp"

namespace zeltocom {

int CMD_SendCommand(s_CommPort* port, std::string_view command, unsigned long timeoutMs,
                    t_comresponse* response) {
  if (RS232SendCommand(port->fd, command) != 1) return -1;
  const long timeout = static_cast<long>(timeoutMs);
  RS232WaitForData(port->fd, response, timeout, port->eotFormat.view(), true);
  return response->elapsedMs < timeout && !response->syntaxError ? 1 : 0;
}

}  // namespace zeltocom
