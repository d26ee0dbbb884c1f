// The text of a Win32 error code, for messages: "TEXT (error N)".
#pragma once

#include <string>

namespace pcos {

std::string win32_error_text(unsigned long code);

}  // namespace pcos
