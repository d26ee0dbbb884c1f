// The handshake with the PC on the real serial line: the offer once a second,
// the answer that ends it, the charger switched off through the platform
// library loaded for real, and the two 20-second time-outs.
#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

#include "phone_test.hpp"

namespace e2e {
namespace {

using sandbox::Daemon;


using Handshake = PhoneTest;

TEST_F(Handshake, AnswerEndsTheOffersSwitchesTheChargerOffAndFramesFollow) {
    Daemon* d = launch_with_pc();
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(d->wait_for_log("call amt_usb_charge_ctrl. return:0,  usb_charge_mode:0.", kWait));
    EXPECT_EQ(phone_->charger_calls(), std::vector<std::string>{"amt_usb_charger_enable(0)"});
    EXPECT_EQ(d->count_log("amt_usb_charger_enable return OK."), 1u);
    EXPECT_EQ(d->count_log("pthread_create() amt_handle_load_image_for_handshake success."), 1u);
    EXPECT_TRUE(d->wait_for_log("screen_init return error, not update screen.", kWait));
    EXPECT_TRUE(pc_->quiet_for(1500ms)) << "an offer after the answer";

    // The answer and everything after it go to the frame reader as usual.
    pc_sends(kFrame100);
    expect_pc_gets(kPreResponse);
    EXPECT_EQ(d->count_log("): handshake success."), 1u);
    EXPECT_EQ(phone_->charger_calls().size(), 1u);

    ASSERT_TRUE(d->signal(SIGTERM));
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_EQ(phone_->property(kVerdict), "2");
}

// Takes twenty seconds. A kernel DISCONNECTED changes nothing here: with the
// state file saying CONFIGURED no monitoring thread runs.
TEST_F(Handshake, OfferedOnceASecondUntilTheTimeOutEndsASilentRun) {
    Daemon* d = launch_running({"-m", "1"});
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->count_log("amt_handle_monitor_usb_loop get usb CONFIGURED event"), 1u);
    EXPECT_EQ(d->count_log("listening for uevents"), 0u);
    pc_ = std::make_unique<sandbox::PcLine>(phone_->pc_master());
    size_t offers = 0;
    while (auto offer = pc_->read_exact(kHandshakeOffer.size(), 3s)) {
        EXPECT_EQ(*offer, kHandshakeOffer);
        if (++offers == 1) {
            std::string why;
            EXPECT_TRUE(sandbox::send_kernel_uevent(sandbox::usb_state_uevent("DISCONNECTED"), &why)) << why;
        }
    }
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_GE(offers, 15u);
    EXPECT_LE(offers, 20u);
    EXPECT_EQ(d->count_log("timeout. time:20 seconds."), 1u);
    EXPECT_EQ(d->count_log("get usb disconnect event"), 0u);
    EXPECT_EQ(phone_->property(kVerdict), "2");
    EXPECT_EQ(d->count_log("set property(sys.tq.amt.failure.handshake) to 2."), 1u);
    EXPECT_EQ(phone_->charger_calls().size(), 0u);
}

// Takes twenty seconds: the gadget never reaches CONFIGURED and nothing
// comes from the PC.
TEST_F(Handshake, EnumerationTimeOutEndsARunThatNeverSeesConfigured) {
    sandbox::PhoneSetup setup;
    setup.usb_state = "CONNECTED\n";
    ASSERT_NE(make_phone(setup), nullptr);
    Daemon* d = launch_running({"-m", "1"});
    ASSERT_NE(d, nullptr);
    pc_ = std::make_unique<sandbox::PcLine>(phone_->pc_master());
    EXPECT_TRUE(pc_->quiet_for(25s)) << "an offer before CONFIGURED";
    ASSERT_EQ(d->wait_exit(kWait), 0);
    EXPECT_EQ(d->count_log("usb enum timeout. time:20 seconds."), 1u);
    EXPECT_EQ(phone_->property(kVerdict), "2");
    EXPECT_EQ(d->count_log("set property(sys.tq.amt.failure.handshake) to 2."), 1u);
}

// How the charger call goes on phones of other kinds; the agent serves on
// whatever the platform library does.
struct ChargerCase {
    const char* name;
    sandbox::PhoneSetup setup;
    const char* waited_for;
    std::vector<std::string> logged;      // once each
    std::vector<std::string> not_logged;
};

void PrintTo(const ChargerCase& c, std::ostream* os) { *os << c.name; }

class Charger : public PhoneTest, public ::testing::WithParamInterface<ChargerCase> {};

TEST_P(Charger, IsCalledThroughThePlatformsLibraryAndTheAgentServesOn) {
    const ChargerCase& c = GetParam();
    ASSERT_NE(make_phone(c.setup), nullptr);
    Daemon* d = launch_with_pc();
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(d->wait_for_log(c.waited_for, kWait));
    for (const std::string& line : c.logged) EXPECT_EQ(d->count_log(line), 1u) << line;
    for (const std::string& line : c.not_logged) EXPECT_EQ(d->count_log(line), 0u) << line;
    EXPECT_EQ(phone_->charger_calls().size(), c.setup.charger_library ? 1u : 0u);
    pc_sends(kFrame100);
    expect_pc_gets(kPreResponse);
}

sandbox::PhoneSetup with(void (*change)(sandbox::PhoneSetup&)) {
    sandbox::PhoneSetup setup;
    change(setup);
    return setup;
}

const ChargerCase kChargerCases[] = {
    {"NonZeroResult", with([](sandbox::PhoneSetup& s) { s.charger_behaviour = "5"; }),
     "call amt_usb_charge_ctrl. return:5,  usb_charge_mode:0.",
     {"stop call amt_usb_charger_enable. return value:5."},
     {"amt_usb_charger_enable return OK."}},
    {"PlatformNamesTheLibrary", with([](sandbox::PhoneSetup& s) { s.board_platform = "zelqa-tq7101-evb"; }),
     "amt_usb_charger_enable return OK.",
     {"property-ro.board.platform value: zelqa-tq7101-evb",
      "audio lib path-name: /system/lib64/hw/audio.primary.tq7101.amt.so",
      "misc lib path-name: /system/lib64/hw/amt.tq7101.misc.so"},
     {}},
    {"MissingLibrary", with([](sandbox::PhoneSetup& s) { s.charger_library = false; }),
     "call amt_usb_charge_ctrl. return:-118,  usb_charge_mode:0.",
     {"call dlopen fail: - /system/lib64/hw/amt.tq7100.misc.so"},
     {"will call amt_usb_charger_enable."}},
};

std::string charger_case_name(const ::testing::TestParamInfo<ChargerCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Phones, Charger, ::testing::ValuesIn(kChargerCases), charger_case_name);

}  // namespace
}  // namespace e2e
