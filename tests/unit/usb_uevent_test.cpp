// The uevent walk of the USB monitor and the rule that turns texts into USB
// states. The flag file's first character is checked end to end by the USB
// gate tests.
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "usb/usb_monitor.hpp"

namespace {

using namespace std::string_view_literals;

std::string_view walk(std::string_view bytes) { return uevent_usb_state_string({bytes.data(), bytes.size()}); }

TEST(UeventWalk, FindsTheFirstUsbStateStringWithinTheReceivedBytesAndNothingInOtherMessages) {
    EXPECT_EQ(walk("change@/devices/virtual/android_usb/android0\0ACTION=change\0SUBSYSTEM=android_usb\0"
                   "USB_STATE=CONFIGURED\0SEQNUM=1234"sv),
              "USB_STATE=CONFIGURED");
    EXPECT_EQ(walk("\0\0ACTION=change\0\0USB_STATE=DISCONNECTED\0USB_STATE=CONFIGURED\0"sv), "USB_STATE=DISCONNECTED");
    EXPECT_EQ(walk("add@/devices/virtual/block/loop0\0ACTION=add\0SUBSYSTEM=block\0"sv), "");
    EXPECT_EQ(walk(""sv), "");
    EXPECT_EQ(walk("\0\0\0"sv), "");

    // A string that the received length cuts is taken as far as it was
    // received, never with the bytes that lie behind it in the buffer.
    std::string_view buffer = "ACTION=change\0USB_STATE=CONFIGURED\0"sv;
    EXPECT_EQ(walk(buffer.substr(0, 28)), "USB_STATE=CONF");
    EXPECT_EQ(usb_state_event_of(walk(buffer.substr(0, 28))), UsbStateEvent::kOther);
    EXPECT_EQ(walk(buffer.substr(0, 20)), "");  // "USB_ST"
}

// The whole buffer is received, with no terminator anywhere in it; the
// vector's end is the end of its allocation, so a read past it is caught
// under AddressSanitizer.
TEST(UeventWalk, AFullBufferWithoutTerminatorIsReadWithinItsBytes) {
    std::string_view state = "USB_STATE=DISCONNECTED";
    std::vector<char> buf(kUeventBufSize, 'x');
    buf[100] = '\0';
    std::copy(state.begin(), state.end(), buf.end() - static_cast<long>(state.size()));
    std::string_view found = uevent_usb_state_string(buf);
    EXPECT_EQ(found.size(), kUeventBufSize - 101);
    EXPECT_EQ(found.data(), buf.data() + 101);
    EXPECT_EQ(found.substr(found.size() - state.size()), state);

    std::vector<char> plain(kUeventBufSize, 'x');
    EXPECT_EQ(uevent_usb_state_string(plain), "");
}

TEST(UsbStateText, DisconnectedWinsOverConnectedAndAnythingElseIsAnotherState) {
    EXPECT_EQ(usb_state_event_of("USB_STATE=DISCONNECTED"), UsbStateEvent::kDisconnected);
    EXPECT_EQ(usb_state_event_of("USB_STATE=CONFIGURED"), UsbStateEvent::kConfigured);
    EXPECT_EQ(usb_state_event_of("USB_STATE=CONNECTED"), UsbStateEvent::kOther);
    EXPECT_EQ(usb_state_event_of("USB_STATE="), UsbStateEvent::kOther);
    EXPECT_EQ(usb_state_event_of("DISCONNECTED\n"), UsbStateEvent::kDisconnected);  // as the state file says it
    EXPECT_EQ(usb_state_event_of("configured"), UsbStateEvent::kOther);              // case counts
}

}  // namespace
