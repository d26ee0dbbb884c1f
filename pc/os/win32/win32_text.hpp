// Text at the edge of the Win32 API: error codes for messages, and UTF-8
// names as the wide strings that the API takes.
#pragma once

#include <string>

namespace pcos {

// "TEXT (error N)".
std::string win32_error_text(unsigned long code);
std::wstring widen(const std::string& text);

}  // namespace pcos
