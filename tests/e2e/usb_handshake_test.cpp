// The handshake with the PC on the real serial line: the offer once a second,
// the answer that ends it, the charger switched off through the platform
// library loaded for real, and the two 20-second time-outs.
#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

#include "phone_test.hpp"

namespace e2e {
namespace {

using sandbox::Bytes;
using sandbox::Daemon;

constexpr const char* kVerdict = "sys.tq.amt.failure.handshake";
const Bytes kPreResponse = {0xAA, 0xBB, 0xCC, 0xDD, 0x08, 0x00, 0x00, 0x00,
                            0x02, 0x02, 0x00, 0x00, 0x76, 0x4A, 0xEE, 0x1D};
// Command 100 with body 01 02 03 04 and its CRC.
const Bytes kFrame100 = {0xAA, 0xBB, 0xCC, 0xDD, 0x10, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
                         0x64, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0xEB, 0xBD, 0xB0, 0xAD};

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
    ASSERT_TRUE(pc_->send(kFrame100));
    EXPECT_EQ(pc_->read_exact(kPreResponse.size(), kWait), kPreResponse);
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

class Charger : public PhoneTest {
protected:
    // The agent in USB mode past the handshake, on a phone made from `setup`.
    Daemon* start(const sandbox::PhoneSetup& setup) {
        EXPECT_NE(make_phone(setup), nullptr);
        return phone_ ? launch_with_pc() : nullptr;
    }
};

TEST_F(Charger, ANonZeroResultIsLoggedAndTheAgentServesOn) {
    sandbox::PhoneSetup setup;
    setup.charger_behaviour = "5";
    Daemon* d = start(setup);
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(d->wait_for_log("call amt_usb_charge_ctrl. return:5,  usb_charge_mode:0.", kWait));
    EXPECT_EQ(d->count_log("stop call amt_usb_charger_enable. return value:5."), 1u);
    EXPECT_EQ(d->count_log("amt_usb_charger_enable return OK."), 0u);
    ASSERT_TRUE(pc_->send(kFrame100));
    EXPECT_EQ(pc_->read_exact(kPreResponse.size(), kWait), kPreResponse);
}

TEST_F(Charger, ThePlatformPropertyNamesTheLibrary) {
    sandbox::PhoneSetup setup;
    setup.board_platform = "zelqa-tq7101-evb";
    Daemon* d = start(setup);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->count_log("property-ro.board.platform value: zelqa-tq7101-evb"), 1u);
    EXPECT_EQ(d->count_log("audio lib path-name: /system/lib64/hw/audio.primary.tq7101.amt.so"), 1u);
    EXPECT_EQ(d->count_log("misc lib path-name: /system/lib64/hw/amt.tq7101.misc.so"), 1u);
    EXPECT_TRUE(d->wait_for_log("amt_usb_charger_enable return OK.", kWait));
    EXPECT_EQ(phone_->charger_calls(), std::vector<std::string>{"amt_usb_charger_enable(0)"});
}

TEST_F(Charger, AMissingLibraryCostsOnlyTheCall) {
    sandbox::PhoneSetup setup;
    setup.charger_library = false;
    Daemon* d = start(setup);
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(d->wait_for_log("call amt_usb_charge_ctrl. return:-118,  usb_charge_mode:0.", kWait));
    EXPECT_EQ(d->count_log("call dlopen fail: - /system/lib64/hw/amt.tq7100.misc.so"), 1u);
    EXPECT_EQ(d->count_log("will call amt_usb_charger_enable."), 0u);
    ASSERT_TRUE(pc_->send(kFrame100));
    EXPECT_EQ(pc_->read_exact(kPreResponse.size(), kWait), kPreResponse);
}

}  // namespace
}  // namespace e2e
