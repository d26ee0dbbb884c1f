// The uevent walk of the USB monitoring thread: any bytes as one received
// message of up to 2048 bytes. The USB state string it finds lies wholly
// inside the received bytes, holds "USB_STATE", and names one state.
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "usb/usb_monitor.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kUeventBufSize) size = kUeventBufSize;
    // An exact copy on the heap: AddressSanitizer sees any read past the
    // received bytes, as the monitor's buffer would not show it.
    std::vector<char> message(data, data + size);
    std::string_view found = uevent_usb_state_string(std::span<const char>(message.data(), message.size()));
    if (found.empty()) return 0;
    const char* begin = message.data();
    if (found.data() < begin || found.data() + found.size() > begin + message.size()) __builtin_trap();
    if (found.find("USB_STATE") == std::string_view::npos) __builtin_trap();
    usb_state_event_of(found);
    return 0;
}
