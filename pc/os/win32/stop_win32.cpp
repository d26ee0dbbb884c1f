// The Windows half of the stop: a manual-reset event, and the console control
// handler that sets it on Ctrl-C, Ctrl-Break and the close of the console.
// The handler runs on a thread of its own that the system starts.
#include <windows.h>

#include <atomic>
#include <utility>

#include "pc/os/line.hpp"

namespace pcos {

namespace {

std::atomic<HANDLE> g_interrupt_event{nullptr};

BOOL WINAPI on_console_event(DWORD event) {
    switch (event) {
        case CTRL_C_EVENT:
        case CTRL_BREAK_EVENT:
        case CTRL_CLOSE_EVENT: {
            HANDLE stop = g_interrupt_event.load();
            if (stop != nullptr) SetEvent(stop);
            return TRUE;
        }
        default: return FALSE;
    }
}

}  // namespace

Stop::Stop() : Stop(CreateEventW(nullptr, TRUE, FALSE, nullptr), true) {}

Stop::~Stop() { release(); }

Stop::Stop(Stop&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), owned_(std::exchange(other.owned_, false)) {}

Stop& Stop::operator=(Stop&& other) noexcept {
    if (this != &other) {
        release();
        handle_ = std::exchange(other.handle_, nullptr);
        owned_ = std::exchange(other.owned_, false);
    }
    return *this;
}

Stop Stop::borrow(NativeHandle handle) { return Stop(handle, false); }

void Stop::release() {
    if (owned_ && handle_ != nullptr) CloseHandle(handle_);
    handle_ = nullptr;
    owned_ = false;
}

bool Stop::valid() const { return handle_ != nullptr; }

void Stop::raise() const {
    if (handle_ != nullptr) SetEvent(handle_);
}

bool Stop::raised() const { return handle_ != nullptr && WaitForSingleObject(handle_, 0) == WAIT_OBJECT_0; }

bool raise_on_interrupt(const Stop& stop) {
    if (!stop.valid()) return false;
    g_interrupt_event.store(stop.native());
    return SetConsoleCtrlHandler(on_console_event, TRUE) != 0;
}

}  // namespace pcos
