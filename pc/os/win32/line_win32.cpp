// The Windows half of the line: a COM port opened for overlapped I/O. The
// port's own read timeout is only a gap between bytes (the interval timeout,
// with no total), which ends a read shortly after the bytes stop; the
// deadline and the stop live in this program's WaitForMultipleObjects, and a
// wait that ends early cancels the I/O (CancelIoEx) and collects what it
// brought, so no byte is lost. The same holds on Windows and under Wine:
//   - a read that the gap ends completes with fewer bytes (Windows) or fails
//     with ERROR_TIMEOUT (Wine); both mean "no more for now";
//   - a line that goes away fails a read with ERROR_BROKEN_PIPE, a write with
//     ERROR_NOT_READY, a reopen with ERROR_FILE_NOT_FOUND: each is a failed
//     line, like every other error; a read that ends with no bytes at all
//     asks ClearCommError, which fails on a line that is gone.
#include <windows.h>

#include <algorithm>
#include <utility>

#include "pc/os/line.hpp"
#include "pc/os/win32/win32_text.hpp"

namespace pcos {

namespace {

constexpr DWORD kGapMs = 20;  // a pause this long ends a read that brought bytes
constexpr size_t kIoMax = 1u << 20;  // one ReadFile or WriteFile at most

DWORD wait_ms(Deadline deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return 0;
    return static_cast<DWORD>(std::min<long long>(left.count(), INFINITE - 1));
}

// COM3 becomes \\.\COM3, the form that also reaches COM10 and above.
std::string device_path(const std::string& name) {
    if (name.rfind("\\\\.\\", 0) == 0) return name;
    return "\\\\.\\" + name;
}

// ClearCommError fails (ERROR_NOT_READY) once the device is gone.
bool line_alive(HANDLE line) {
    DWORD errors = 0;
    COMSTAT state{};
    return ClearCommError(line, &errors, &state) != 0;
}

enum class Waited { kDone, kTimeout, kStopped, kFailed };

// Waits for the overlapped I/O until the deadline or the stop. On a timeout
// or a stop the I/O is cancelled and its end collected, so that `ov` is free
// again; *moved then holds what it moved before it was cancelled.
Waited finish_io(HANDLE line, OVERLAPPED* ov, Deadline deadline, const Stop* stop, DWORD* moved) {
    HANDLE handles[2] = {ov->hEvent, stop != nullptr ? stop->native() : nullptr};
    const DWORD count = handles[1] != nullptr ? 2 : 1;
    const DWORD r = WaitForMultipleObjects(count, handles, FALSE, wait_ms(deadline));
    if (r == WAIT_OBJECT_0) {
        if (GetOverlappedResult(line, ov, moved, FALSE)) return Waited::kDone;
        return GetLastError() == ERROR_TIMEOUT ? Waited::kTimeout : Waited::kFailed;
    }
    CancelIoEx(line, ov);
    const BOOL ok = GetOverlappedResult(line, ov, moved, TRUE);
    if (ok && *moved > 0) return Waited::kDone;  // bytes came as the wait ended
    if (!ok && GetLastError() != ERROR_OPERATION_ABORTED && GetLastError() != ERROR_TIMEOUT) return Waited::kFailed;
    if (r == WAIT_OBJECT_0 + 1) return Waited::kStopped;
    return r == WAIT_TIMEOUT ? Waited::kTimeout : Waited::kFailed;
}

}  // namespace

Line::Line(NativeHandle handle, bool owned)
    : handle_(handle),
      read_done_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      write_done_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      owned_(owned) {}

Line::~Line() { release(); }

Line::Line(Line&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)),
      read_done_(std::exchange(other.read_done_, nullptr)),
      write_done_(std::exchange(other.write_done_, nullptr)),
      owned_(std::exchange(other.owned_, false)) {}

Line& Line::operator=(Line&& other) noexcept {
    if (this != &other) {
        release();
        handle_ = std::exchange(other.handle_, nullptr);
        read_done_ = std::exchange(other.read_done_, nullptr);
        write_done_ = std::exchange(other.write_done_, nullptr);
        owned_ = std::exchange(other.owned_, false);
    }
    return *this;
}

void Line::release() {
    if (owned_ && handle_ != nullptr) CloseHandle(handle_);
    if (read_done_ != nullptr) CloseHandle(read_done_);
    if (write_done_ != nullptr) CloseHandle(write_done_);
    handle_ = read_done_ = write_done_ = nullptr;
    owned_ = false;
}

Line Line::borrow(NativeHandle handle) { return Line(handle, false); }

bool Line::valid() const { return handle_ != nullptr && read_done_ != nullptr && write_done_ != nullptr; }

Line Line::open(const std::string& name, std::string* error) {
    HANDLE h = CreateFileW(widen(device_path(name)).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        *error = "cannot open " + name + ": " + win32_error_text(GetLastError());
        return Line();
    }
    Line line(h, true);
    DCB dcb{};
    dcb.DCBlength = sizeof(dcb);
    if (!GetCommState(h, &dcb)) {
        *error = name + " is no serial port: " + win32_error_text(GetLastError());
        return Line();
    }
    dcb.BaudRate = CBR_115200;
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fBinary = TRUE;
    dcb.fParity = FALSE;
    dcb.fOutxCtsFlow = FALSE;
    dcb.fOutxDsrFlow = FALSE;
    dcb.fDtrControl = DTR_CONTROL_ENABLE;
    dcb.fDsrSensitivity = FALSE;
    dcb.fOutX = FALSE;
    dcb.fInX = FALSE;
    dcb.fErrorChar = FALSE;
    dcb.fNull = FALSE;
    dcb.fRtsControl = RTS_CONTROL_ENABLE;
    dcb.fAbortOnError = FALSE;
    COMMTIMEOUTS timeouts{};
    timeouts.ReadIntervalTimeout = kGapMs;
    if (!SetCommState(h, &dcb) || !SetCommTimeouts(h, &timeouts)) {
        *error = "cannot set 115200 8N1 on " + name + ": " + win32_error_text(GetLastError());
        return Line();
    }
    if (!line.valid()) {
        *error = "cannot wait on " + name + ": " + win32_error_text(GetLastError());
        return Line();
    }
    return line;
}

void Line::discard_input() { PurgeComm(handle_, PURGE_RXCLEAR); }

long Line::read_some(std::span<uint8_t> buf, Deadline deadline, const Stop* stop) {
    const DWORD want = static_cast<DWORD>(std::min(buf.size(), kIoMax));
    for (;;) {
        if (stop != nullptr && stop->raised()) return kReadStopped;
        if (wait_ms(deadline) == 0) return kReadTimeout;
        OVERLAPPED ov{};
        ov.hEvent = read_done_;
        ResetEvent(read_done_);
        DWORD got = 0;
        Waited w = Waited::kDone;
        if (!ReadFile(handle_, buf.data(), want, &got, &ov)) {
            const DWORD err = GetLastError();
            if (err == ERROR_IO_PENDING) {
                w = finish_io(handle_, &ov, deadline, stop, &got);
            } else {
                w = err == ERROR_TIMEOUT ? Waited::kTimeout : Waited::kFailed;
            }
        }
        switch (w) {
            case Waited::kDone:
            case Waited::kTimeout:
                if (got > 0) return static_cast<long>(got);
                // A read that ends with no bytes is either a gap or a line
                // that went away (which reads like silence): the port's state
                // tells them apart. A gap waits a little before the next read.
                if (!line_alive(handle_)) return kReadFailed;
                if (stop != nullptr) {
                    WaitForSingleObject(stop->native(), std::min(kGapMs, wait_ms(deadline)));
                } else {
                    Sleep(std::min(kGapMs, wait_ms(deadline)));
                }
                continue;
            case Waited::kStopped: return kReadStopped;
            case Waited::kFailed: return kReadFailed;
        }
    }
}

bool Line::write_all(std::span<const uint8_t> bytes, Deadline deadline, const Stop* stop) {
    size_t done = 0;
    while (done < bytes.size()) {
        if (stop != nullptr && stop->raised()) return false;
        const DWORD n = static_cast<DWORD>(std::min(bytes.size() - done, kIoMax));
        OVERLAPPED ov{};
        ov.hEvent = write_done_;
        ResetEvent(write_done_);
        DWORD put = 0;
        if (!WriteFile(handle_, bytes.data() + done, n, &put, &ov)) {
            if (GetLastError() != ERROR_IO_PENDING) return false;
            if (finish_io(handle_, &ov, deadline, stop, &put) != Waited::kDone) return false;
        }
        if (put == 0) return false;
        done += put;
    }
    return true;
}

}  // namespace pcos
