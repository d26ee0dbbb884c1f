// USB state events from the kernel drive the wait for CONFIGURED, and the
// pulled cable ends the service. The uevents go through the kernel of the
// test's network namespace; a uevent that a process sends is not trusted.
#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

#include "phone_test.hpp"

namespace e2e {
namespace {

using sandbox::Daemon;

constexpr const char* kListening = "amt_handle_monitor_usb_loop listening for uevents.";

class UsbMonitor : public PhoneTest {
protected:
    // Starts the agent in USB mode on a phone whose state file says `state`,
    // with the monitoring thread listening.
    Daemon* launch_waiting_for_usb(const std::string& state = "CONNECTED\n") {
        sandbox::PhoneSetup setup;
        setup.usb_state = state;
        if (!make_phone(setup)) return nullptr;
        Daemon* d = launch_running({"-m", "1"});
        if (!d) return nullptr;
        EXPECT_TRUE(d->wait_for_log(kListening, kWait));
        pc_ = std::make_unique<sandbox::PcLine>(phone_->pc_master());
        return d;
    }
    static void kernel_sends(const std::string& state) {
        std::string why;
        ASSERT_TRUE(sandbox::send_kernel_uevent(sandbox::usb_state_uevent(state), &why)) << why;
    }
};

// Bytes from the PC before CONFIGURED prove the enumeration but are no
// answer; the handshake starts with the kernel's CONFIGURED.
TEST_F(UsbMonitor, ConfiguredFromTheKernelStartsTheHandshake) {
    Daemon* d = launch_waiting_for_usb();
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(pc_->send(sandbox::Bytes{0x00}));
    EXPECT_TRUE(d->wait_for_log("delete timer.timerId:", kWait));
    EXPECT_TRUE(pc_->quiet_for(1500ms)) << "an offer before CONFIGURED";
    EXPECT_EQ(d->count_log("): handshake success."), 0u);

    kernel_sends("CONFIGURED");
    EXPECT_TRUE(d->wait_for_log("amt_handle_monitor_usb_loop get usb CONFIGURED event", kWait));
    EXPECT_EQ(d->count_log("amt_handle_monitor_usb_loop usb_status:[USB_STATE=CONFIGURED]"), 1u);
    ASSERT_TRUE(complete_handshake(d));

    // Pulling the cable after the success ends the service as well.
    kernel_sends("DISCONNECTED");
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_EQ(phone_->property(kVerdict), "2");
}

TEST_F(UsbMonitor, DisconnectedEndsTheServiceWithOneTeardownAndTheVerdict) {
    Daemon* d = launch_waiting_for_usb();
    ASSERT_NE(d, nullptr);
    kernel_sends("DISCONNECTED");
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_EQ(phone_->property(kVerdict), "2");
    expect_in_order(*d, {"amt_handle_monitor_usb_loop get usb disconnect event",
                         "amt_handle_monitor_usb_loop get usb disconnect event, will exit amt service",
                         "will call close_ovta_amt.i:0. ", "set property(sys.tq.amt.failure.handshake) to 2.",
                         "receive signal: 15", "will exit"});
    EXPECT_EQ(d->count_log("will call close_ovta_amt.i:0."), 1u);
    EXPECT_EQ(d->count_log("set property(sys.tq.amt.failure.handshake)"), 1u);
    const std::vector<std::string> log = messages(*d);
    EXPECT_EQ(std::count(log.begin(), log.end(), "will exit"), 1);
}

// Other states, uevents of other subsystems and a DISCONNECTED sent by a
// process leave the agent waiting; the kernel's DISCONNECTED ends it.
TEST_F(UsbMonitor, OnlyTheKernelsUsbStateCounts) {
    Daemon* d = launch_waiting_for_usb();
    ASSERT_NE(d, nullptr);
    kernel_sends("CONNECTED");
    EXPECT_TRUE(d->wait_for_log("amt_handle_monitor_usb_loop get usb other status event", kWait));
    EXPECT_EQ(d->count_log("amt_handle_monitor_usb_loop usb_status:[USB_STATE=CONNECTED]"), 1u);

    std::string why;
    ASSERT_TRUE(sandbox::send_kernel_uevent(std::string("add@/devices/virtual/block/loop7\0ACTION=add\0SUBSYSTEM=block\0", 58),
                                            &why))
        << why;
    ASSERT_TRUE(sandbox::send_user_uevent(sandbox::usb_state_uevent("DISCONNECTED"), &why)) << why;
    EXPECT_TRUE(d->wait_for_log("amt_handle_monitor_usb_loop dropped a uevent of port ", kWait));
    EXPECT_TRUE(pc_->quiet_for(300ms));
    EXPECT_TRUE(d->running());
    EXPECT_EQ(d->count_log("usb_status:["), 1u);

    kernel_sends("DISCONNECTED");
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_EQ(d->count_log("amt_handle_monitor_usb_loop usb_status:[USB_STATE=DISCONNECTED]"), 1u);
}

// The socket's buffer is small: a burst of large uevents overflows it (the
// agent is held stopped meanwhile, so the overflow does not hang on how fast
// it reads). The DISCONNECTED that the lost ones may have carried is read from
// the state file instead.
TEST_F(UsbMonitor, UeventsLostToAFullBufferAreMadeUpForByTheStateFile) {
    Daemon* d = launch_waiting_for_usb("DISCONNECTED\n");
    ASSERT_NE(d, nullptr);
    std::string large = sandbox::usb_state_uevent("CONNECTED");
    large.insert(0, std::string(1800, 'x') + '\0');  // the kernel takes 2048 bytes at most
    std::string why;
    ASSERT_TRUE(d->signal(SIGSTOP));
    bool sent = sandbox::send_kernel_uevents(large, 200, &why);
    ASSERT_TRUE(d->signal(SIGCONT));
    ASSERT_TRUE(sent) << why;
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_GE(d->count_log("lost uevents (socket buffer full), reading /sys/class/android_usb/android0/state again."), 1u);
    EXPECT_EQ(d->count_log("amt_handle_monitor_usb_loop get usb disconnect event, will exit amt service"), 1u);
    EXPECT_EQ(phone_->property(kVerdict), "2");
}

// After an overflow the state file is read again; one that still says
// CONFIGURED once the handshake is done starts nothing again: no offer on the
// PC line, no new 20 s time-out for a handshake already accepted.
TEST_F(UsbMonitor, OverflowAfterTheHandshakeWithTheStateStillConfiguredStartsNothing) {
    Daemon* d = launch_waiting_for_usb();
    ASSERT_NE(d, nullptr);
    kernel_sends("CONFIGURED");
    ASSERT_TRUE(complete_handshake(d));
    ASSERT_TRUE(phone_->set_usb_state("CONFIGURED\n"));
    // Large uevents of another subsystem: only the overflow itself counts.
    std::string large = std::string(1800, 'x') + std::string("\0ACTION=add\0SUBSYSTEM=block\0", 28);
    std::string why;
    ASSERT_TRUE(d->signal(SIGSTOP));
    bool sent = sandbox::send_kernel_uevents(large, 200, &why);
    ASSERT_TRUE(d->signal(SIGCONT));
    ASSERT_TRUE(sent) << why;
    EXPECT_TRUE(d->wait_for_log("lost uevents (socket buffer full), reading /sys/class/android_usb/android0/state again.",
                                kWait));
    EXPECT_TRUE(pc_->quiet_for(2500ms)) << "the handshake was offered again";
    EXPECT_EQ(d->count_log("amt_handle_monitor_usb_loop get usb CONFIGURED event"), 1u);
    EXPECT_TRUE(d->running());
}

}  // namespace
}  // namespace e2e
