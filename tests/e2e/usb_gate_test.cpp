// The gate of USB mode and the verdict property: the flag file decides at the
// start whether the agent enters AMT mode at all, and every end of a USB-mode
// run publishes sys.tq.amt.failure.handshake once, "2" while the flag file
// permits and "1" while it refuses. Plain mode touches no property.
#include <csignal>
#include <gtest/gtest.h>
#include <optional>

#include "phone_test.hpp"

namespace e2e {
namespace {

using sandbox::Daemon;

constexpr const char* kFlagFile = "/amt/power_usb_amt.txt";

struct FlagCase {
    const char* name;
    std::optional<std::string> content;  // no file when empty
    bool permits;
};

void PrintTo(const FlagCase& c, std::ostream* os) { *os << c.name; }

class UsbGate : public PhoneTest, public ::testing::WithParamInterface<FlagCase> {};

// A permitted run waits for USB (the state file does not say CONFIGURED) until
// it is stopped; a refused one ends at once, before any channel is opened.
TEST_P(UsbGate, FirstCharacterOfTheFlagFileDecidesEntryAndTheVerdict) {
    const FlagCase& c = GetParam();
    sandbox::PhoneSetup setup;
    setup.usb_state = "CONNECTED\n";
    ASSERT_NE(make_phone(setup), nullptr);
    if (c.content) {
        ASSERT_TRUE(phone_->write_file(kFlagFile, *c.content));
    }

    if (c.permits) {
        Daemon* d = launch_running({"-m", "1"});
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->count_log("): permit to enter amt by handshake."), 1u);
        EXPECT_EQ(phone_->property(kVerdict), std::nullopt);
        ASSERT_TRUE(d->signal(SIGTERM));
        ASSERT_EQ(d->wait_exit(kWait), 0);
        EXPECT_EQ(phone_->property(kVerdict), "2");
        EXPECT_EQ(d->count_log("set property(sys.tq.amt.failure.handshake) to 2."), 1u);
    } else {
        Daemon* d = launch({"-m", "1"});
        ASSERT_NE(d, nullptr);
        ASSERT_EQ(d->wait_exit(kWait), 0);
        EXPECT_EQ(phone_->property(kVerdict), "1");
        EXPECT_EQ(d->count_log("do not permit to enter amt by handshake. will exit"), 1u);
        EXPECT_EQ(d->count_log("set property(sys.tq.amt.failure.handshake) to 1."), 1u);
        EXPECT_EQ(d->count_log("receive signal: 15"), 1u);
        EXPECT_EQ(d->count_log("try to "), 0u) << "a channel was opened";
        EXPECT_EQ(d->count_log("handle_start success"), 0u);
    }
}

const FlagCase kFlagCases[] = {
    {"Missing", std::nullopt, true},
    {"Empty", "", true},
    {"OneThenZeroCountsItsOne", "10", true},
    {"NineWithLineEnd", "9\n", true},
    {"Zero", "0\n", false},
    {"ZeroThenOne", "01", false},
    {"BlankThenOne", " 1", false},
    {"LineEndThenOne", "\n1\n", false},
};

std::string flag_case_name(const ::testing::TestParamInfo<FlagCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(FlagFile, UsbGate, ::testing::ValuesIn(kFlagCases), flag_case_name);

using UsbVerdict = PhoneTest;

TEST_F(UsbVerdict, PlainModeTouchesNoProperty) {
    Daemon* d = launch_running();
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(d->signal(SIGTERM));
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_EQ(d->count_log("do not set flag. m_usb_activate: 0."), 1u);
    EXPECT_EQ(phone_->property(kVerdict), std::nullopt);
    EXPECT_EQ(d->count_log("send_handshake_info"), 0u);
    EXPECT_EQ(d->count_log("misc lib path-name: /system/lib64/hw/amt.tq7100.misc.so"), 1u);
}

// A SIGSEGV sent by another process is a stop like SIGTERM: the whole
// teardown, which publishes the verdict as the flag file says at that time.
TEST_F(UsbVerdict, SegvSentFromOutsideStopsTheOrdinaryWayAndPublishesWhatTheFlagFileSaysThen) {
    Daemon* d = launch_with_pc();
    ASSERT_NE(d, nullptr);
    // Sent once the threads of the success have started: ThreadSanitizer's
    // runtime cannot take a SIGSEGV from outside while it sets up a thread.
    ASSERT_TRUE(d->wait_for_log("call amt_usb_charge_ctrl. return:", kWait));
    ASSERT_TRUE(d->wait_for_log("screen_init return error, not update screen.", kWait));
    ASSERT_TRUE(phone_->write_file(kFlagFile, "0"));
    ASSERT_TRUE(d->signal(SIGSEGV));
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_EQ(phone_->property(kVerdict), "1");
    EXPECT_EQ(d->count_log("receive signal: 11"), 1u);
    EXPECT_EQ(d->count_log("will call close_ovta_amt.i:1."), 1u);
    EXPECT_EQ(d->count_log("set property(sys.tq.amt.failure.handshake) to"), 1u);
}

// A real fault, inside the platform library at the handshake's success: no
// teardown is possible, but the verdict is still published before the end.
TEST_F(UsbVerdict, ARealCrashStillPublishesTheVerdict) {
    sandbox::PhoneSetup setup;
    setup.charger_behaviour = "fault";
    ASSERT_NE(make_phone(setup), nullptr);
    ASSERT_TRUE(phone_->write_file(kFlagFile, "1\n"));  // read again by the crash handler
    ASSERT_NE(launch_running({"-m", "1"}), nullptr);
    Daemon* d = daemons_.back().get();
    pc_ = std::make_unique<sandbox::PcLine>(phone_->pc_master());
    ASSERT_EQ(pc_->read_exact(kHandshakeOffer.size(), kWait), kHandshakeOffer);
    ASSERT_TRUE(pc_->send(sandbox::Bytes{0x00}));
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_EQ(phone_->property(kVerdict), "2");
    EXPECT_EQ(phone_->charger_calls(), std::vector<std::string>{"amt_usb_charger_enable(0)"});
    expect_in_order(*d, {"will call amt_usb_charger_enable.", "receive signal: 11",
                         "set property(sys.tq.amt.failure.handshake) to 2.", "will exit"});
}

// No serial port: the PC row fails its twenty tries (about twenty seconds),
// and the failed start still publishes the verdict.
TEST_F(UsbVerdict, FailedStartExitsWith21AndPublishes) {
    sandbox::PhoneSetup setup;
    setup.serial_port = false;
    ASSERT_NE(make_phone(setup), nullptr);
    ASSERT_NE(listen_wfmgr(), nullptr);
    Daemon* d = launch({"-m", "1"});
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(d->wait_exit(60s), 21);
    EXPECT_EQ(d->count_log("open_all_device failure: -118"), 1u);
    EXPECT_EQ(phone_->property(kVerdict), "2");
    EXPECT_EQ(d->count_log("set property(sys.tq.amt.failure.handshake) to 2."), 1u);
}

}  // namespace
}  // namespace e2e
