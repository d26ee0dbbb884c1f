// The PC's line to a phone and its waits: the one place on the PC side that
// knows which system it runs on. A line is a serial port (a tty or a
// pseudo-terminal on Linux, a COM port on Windows) in raw mode at 115200 8N1,
// written whole and read against deadlines; a Stop ends every wait at once,
// from another thread or from Ctrl-C. posix/ holds the Linux half, win32/ the
// Windows half, and the build takes one of them. Each object is used by one
// thread at a time; Stop::raise may come from any thread or a signal handler.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace pcos {

// A descriptor on Linux, a HANDLE on Windows.
#ifdef _WIN32
using NativeHandle = void*;
constexpr NativeHandle kNoHandle = nullptr;
#else
using NativeHandle = int;
constexpr NativeHandle kNoHandle = -1;
#endif

using Deadline = std::chrono::steady_clock::time_point;

// A stop that is raised once and stays raised. Every wait that is given it
// ends as soon as it is raised.
class Stop {
public:
    Stop();  // a fresh one, not raised; valid() is false if the system refused
    ~Stop();
    Stop(Stop&& other) noexcept;
    Stop& operator=(Stop&& other) noexcept;
    Stop(const Stop&) = delete;
    Stop& operator=(const Stop&) = delete;

    // Waits on a stop that stays the caller's: an eventfd or a pipe's read
    // end on Linux (readable means raised), an event on Windows.
    static Stop borrow(NativeHandle handle);

    bool valid() const;
    // Async-signal-safe on Linux; on Windows safe from any thread.
    void raise() const;
    bool raised() const;
    NativeHandle native() const { return handle_; }

private:
    Stop(NativeHandle handle, bool owned) : handle_(handle), owned_(owned) {}
    void release();
    NativeHandle handle_;
    bool owned_;
};

// Raises `stop` on Ctrl-C for the rest of the process: SIGINT and SIGTERM on
// Linux, the console's Ctrl-C, Ctrl-Break and close on Windows. The stop must
// live as long as the process. False when the handler could not be set.
bool raise_on_interrupt(const Stop& stop);

// What read_some returns besides a count.
constexpr long kReadTimeout = 0;
constexpr long kReadFailed = -1;   // an error, or the other end is gone
constexpr long kReadStopped = -2;  // the stop was raised

class Line {
public:
    Line() = default;
    ~Line();
    Line(Line&& other) noexcept;
    Line& operator=(Line&& other) noexcept;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    // Opens the port and sets raw 115200 8N1. `name` is a path on Linux,
    // COM3 or \\.\COM12 on Windows. On failure the line is not valid and
    // *error says why.
    static Line open(const std::string& name, std::string* error);
    // A line on a descriptor that stays the caller's (Linux), or a handle
    // opened for overlapped I/O (Windows).
    static Line borrow(NativeHandle handle);

    bool valid() const;
    NativeHandle native() const { return handle_; }

    // Drops what waits unread: bytes from before this program.
    void discard_input();
    // Waits for bytes until the deadline and reads what is there, at most
    // buf.size(): the count, kReadTimeout, kReadFailed or kReadStopped.
    long read_some(std::span<uint8_t> buf, Deadline deadline, const Stop* stop = nullptr);
    // Writes every byte. False on an error, when the line takes no more bytes
    // before the deadline, or when the stop is raised.
    bool write_all(std::span<const uint8_t> bytes, Deadline deadline, const Stop* stop = nullptr);

private:
    Line(NativeHandle handle, bool owned);
    void release();

    NativeHandle handle_ = kNoHandle;
#ifdef _WIN32
    NativeHandle read_done_ = kNoHandle;  // overlapped completion events
    NativeHandle write_done_ = kNoHandle;
#endif
    bool owned_ = false;
};

// True when the name holds a wildcard and stands for several ports.
bool is_line_pattern(const std::string& name);
// The ports that the system reports under a pattern, sorted: a glob such as
// /dev/ttyACM* on Linux, COM* (or COM1?) on Windows. Empty when none.
std::vector<std::string> list_lines(const std::string& pattern);

}  // namespace pcos
