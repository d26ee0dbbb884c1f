// The PC byte stream, cut at any points, through head search, assembly and
// dispatch_msg_ex, with every command the agent answers itself.
#include <cstdint>

#include "stream_rig.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::run_stream(1, data, size);
    return 0;
}
