// The Windows half of the port names: COM3 or \\.\COM12, and patterns such
// as COM* matched against the DOS device names that the system reports.
#include <windows.h>

#include <algorithm>
#include <cwctype>

#include "pc/os/line.hpp"
#include "pc/os/win32/win32_text.hpp"

namespace pcos {

namespace {

// Matches * and ? without regard to case.
bool matches(const char* pattern, const char* name) {
    if (*pattern == '\0') return *name == '\0';
    if (*pattern == '*') return matches(pattern + 1, name) || (*name != '\0' && matches(pattern, name + 1));
    if (*name == '\0') return false;
    if (*pattern != '?' && std::towupper(static_cast<unsigned char>(*pattern)) !=
                               std::towupper(static_cast<unsigned char>(*name))) {
        return false;
    }
    return matches(pattern + 1, name + 1);
}

}  // namespace

bool is_line_pattern(const std::string& name) { return name.find_first_of("*?") != std::string::npos; }

std::vector<std::string> list_lines(const std::string& pattern) {
    // \\.\COM* asks for the same ports as COM*.
    const std::string bare = pattern.rfind("\\\\.\\", 0) == 0 ? pattern.substr(4) : pattern;
    std::vector<char> all(1u << 16);
    DWORD n = 0;
    for (;;) {
        n = QueryDosDeviceA(nullptr, all.data(), static_cast<DWORD>(all.size()));
        if (n != 0 || GetLastError() != ERROR_INSUFFICIENT_BUFFER || all.size() >= (1u << 24)) break;
        all.resize(all.size() * 4);
    }
    std::vector<std::string> names;
    for (size_t at = 0; at < n && all[at] != '\0';) {
        const std::string name(all.data() + at);
        if (matches(bare.c_str(), name.c_str())) names.push_back(name);
        at += name.size() + 1;
    }
    // Ports that the list leaves out but that open by name (Wine lists only
    // the ports of its registry, not those linked in the prefix). Opening
    // for no access moves no byte; a port that another program holds is
    // there too.
    for (int i = 1; i <= 256; ++i) {
        const std::string name = "COM" + std::to_string(i);
        if (!matches(bare.c_str(), name.c_str())) continue;
        if (std::find(names.begin(), names.end(), name) != names.end()) continue;
        HANDLE h = CreateFileA(("\\\\.\\" + name).c_str(), 0, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (h != INVALID_HANDLE_VALUE) {
            CloseHandle(h);
            names.push_back(name);
        } else if (GetLastError() == ERROR_ACCESS_DENIED || GetLastError() == ERROR_SHARING_VIOLATION) {
            names.push_back(name);
        }
    }
    // COM2 before COM10.
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    return names;
}

std::wstring widen(const std::string& text) {
    std::wstring wide(text.size(), L'\0');
    const int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                                      static_cast<int>(wide.size()));
    wide.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return wide;
}

std::string win32_error_text(unsigned long code) {
    char text[512] = {};
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, text,
                             sizeof(text), nullptr);
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r' || text[n - 1] == ' ' || text[n - 1] == '.')) --n;
    std::string out(text, n);
    if (!out.empty()) out += " ";
    return out + "(error " + std::to_string(code) + ")";
}

}  // namespace pcos
