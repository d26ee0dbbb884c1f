// What the fuzz targets change of the platform under the agent, and why.
//
// The log: every record is read to its end and dropped. The host's log
// writer (standard error in logcat's form) stands in for the Android log and
// is no part of what the targets look for, while its two system calls per
// record would be most of an input's time: the PC head search logs one record
// for every byte that is no head.
//
// The largest block: a request block (`new (std::nothrow)`, the read blocks
// of len + 100 bytes for wfmgr and the PC) of more than 1 MiB is refused, as a
// phone short of memory refuses it, and the agent takes its own path for a
// block it cannot have. A request may ask for up to 2 GiB, and under
// AddressSanitizer a block that large costs half a second to free: the
// fuzzer, which learns the agent's bound from its comparison, would spend
// most of its time there. Blocks up to 1 MiB are allocated as usual, so both
// paths are fuzzed. The link routes the agent's calls here (--wrap).
//
// Linked ahead of the agent's library, these definitions take the place of
// the host writer.
#include <cstddef>
#include <cstring>
#include <new>

#include "platform/platform.hpp"

namespace platform {

namespace {

// Reads the whole text, so that AddressSanitizer still sees a record that is
// not terminated within its buffer.
void drop(const char* tag, const char* text) {
    volatile size_t sink = 0;
    if (tag != nullptr) sink = sink + strlen(tag);
    if (text != nullptr) sink = sink + strlen(text);
}

}  // namespace

void log_write(int, const char* tag, const char* text) { drop(tag, text); }

void log_write_async_safe(int, const char* tag, const char* text) { drop(tag, text); }

}  // namespace platform

constexpr size_t kLargestBlock = size_t{1} << 20;

// operator new[](size_t, const std::nothrow_t&), as the linker names it.
extern "C" void* __real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);

extern "C" void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
    if (size > kLargestBlock) return nullptr;
    return __real__ZnamRKSt9nothrow_t(size, tag);
}
