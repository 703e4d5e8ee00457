#pragma once

#include <string>
#include <string_view>

#include "zeltocom.h"

namespace zeltocom {

struct s_CommPort;

constexpr std::size_t kErrorTextSize = ZELTOCOM_ERROR_TEXT_SIZE;

// Stores `text` as the last error of `port` (when given) and of the library.
// Error texts are read and written under one lock, so any thread may set or
// read them at any time.
void SetError(s_CommPort* port, std::string_view text);
// The library-wide text of the last error.
std::string GetErrorDescription();
// The last text this thread stored, whatever other threads stored since:
// how a call that ran workers learns why one of them failed.
std::string ThreadLastError();
// Forgets this thread's last text: a thread that runs one port after another
// starts each with none.
void ClearThreadLastError();
// The last error of `port`.
std::string GetPortErrorText(const s_CommPort& port);

}  // namespace zeltocom
