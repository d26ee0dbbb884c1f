// The card capacity command against the real agent, with the memory card as a
// tmpfs of a chosen size mounted at /storage/sdcard1 in the phone.
#include "factory_command_test.hpp"

namespace e2e {
namespace {

using CardCapacity = FactoryCommandTest;

constexpr const char* kReadCapacity = "AA BB CC DD 0C 00 00 00 02 00 00 00 89 00 00 00 7A 54 3C 34";

TEST_F(CardCapacity, CardOf1GiBIsReportedAs1048576KiB) {
    sandbox::PhoneSetup setup = amt_phone();
    setup.sdcard_bytes = 1ull << 30;
    ASSERT_TRUE(make_phone(setup));
    ASSERT_TRUE(start());
    exchange(kReadCapacity, "AA BB CC DD 14 00 00 00 02 00 00 00 8A 00 00 00 00 00 00 00 00 00 10 00 97 78 0E A7");
    EXPECT_EQ(daemon_->count_log("readed success from file(/storage/sdcard1). totalsize: 1048576."), 1u);
}

TEST_F(CardCapacity, NoCardIsNotMeasured) {
    sandbox::PhoneSetup setup = amt_phone();
    setup.sdcard_bytes.reset();
    ASSERT_TRUE(make_phone(setup));
    ASSERT_TRUE(start());
    exchange(kReadCapacity, "AA BB CC DD 14 00 00 00 02 00 00 00 8A 00 00 00 0A 00 00 00 00 00 00 00 6A F9 AE 91");
    EXPECT_EQ(daemon_->count_log("file system \"/storage/sdcard1\" has not been mounted"), 1u);
}

}  // namespace
}  // namespace e2e
