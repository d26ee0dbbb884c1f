// The Windows half of WholeFile: a new file beside the target, flushed, then
// moved over it (MoveFileEx replaces the old one in one step).
#include <windows.h>

#include <algorithm>
#include <string>

#include "pc/lib/whole_file.hpp"
#include "pc/os/win32/win32_text.hpp"

namespace tools {

std::unique_ptr<WholeFile> WholeFile::open(const std::string& path, std::string* error) {
    std::unique_ptr<WholeFile> f(new WholeFile());
    f->path_ = path;
    const unsigned long seed = GetCurrentProcessId() * 2654435761u ^ GetTickCount();
    for (unsigned long i = 0; i < 100; ++i) {
        std::string temp = path + ".part" + std::to_string((seed + i * 7919u) % 1000000u);
        HANDLE h = CreateFileW(pcos::widen(temp).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL,
                               nullptr);
        if (h != INVALID_HANDLE_VALUE) {
            f->fd_ = h;
            f->temp_path_ = temp;
            return f;
        }
        if (GetLastError() != ERROR_FILE_EXISTS) {
            *error = "cannot create a file beside " + path + ": " + pcos::win32_error_text(GetLastError());
            return nullptr;
        }
    }
    *error = "cannot create a file beside " + path + ": every name is taken";
    return nullptr;
}

WholeFile::~WholeFile() {
    if (fd_ != nullptr) CloseHandle(fd_);
    if (!committed_ && !temp_path_.empty()) DeleteFileW(pcos::widen(temp_path_).c_str());
}

bool WholeFile::write(std::span<const uint8_t> bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const DWORD n = static_cast<DWORD>(std::min<size_t>(bytes.size() - done, 1u << 20));
        DWORD put = 0;
        if (!WriteFile(fd_, bytes.data() + done, n, &put, nullptr) || put == 0) return false;
        done += put;
    }
    return true;
}

bool WholeFile::commit(std::string* error) {
    if (!FlushFileBuffers(fd_)) {
        *error = "cannot finish " + temp_path_ + ": " + pcos::win32_error_text(GetLastError());
        return false;
    }
    CloseHandle(fd_);
    fd_ = nullptr;
    if (!MoveFileExW(pcos::widen(temp_path_).c_str(), pcos::widen(path_).c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        *error = "cannot rename " + temp_path_ + " to " + path_ + ": " + pcos::win32_error_text(GetLastError());
        return false;
    }
    committed_ = true;
    return true;
}

}  // namespace tools
