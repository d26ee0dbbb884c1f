// The wfmgr byte stream, cut at any points, through assembly and dispatch_msg:
// confirms for the PC, the indications, the load confirm and the file requests.
#include <cstdint>

#include "stream_rig.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::run_stream(0, data, size);
    return 0;
}
