// The configuration as the running daemon reads it from the phone's file
// system and reports it: "config file = ", "amt_relate_path = " and
// "output_more_log= ". The line rules in detail are unit-tested; here the
// file, its path and the rules that span several lines.
#include <algorithm>
#include <gtest/gtest.h>

#include "phone_test.hpp"

namespace e2e {
namespace {

using sandbox::Daemon;

class ConfigFile : public PhoneTest {
protected:
    // Starts the daemon on a phone with `config` as its configuration file
    // (none when empty) and returns the messages once the record is printed.
    std::vector<std::string> read_by_daemon(std::optional<std::string> config,
                                            const std::vector<std::string>& args = {}) {
        sandbox::PhoneSetup setup;
        setup.config = std::move(config);
        if (!make_phone(setup)) return {};
        Daemon* d = launch(args);
        if (d == nullptr) return {};
        EXPECT_TRUE(d->wait_for_log("output_more_log= ", kWait));
        return messages(*d);
    }

    static bool has(const std::vector<std::string>& log, const std::string& text) {
        return std::find(log.begin(), log.end(), text) != log.end();
    }
    static size_t count_containing(const std::vector<std::string>& log, const std::string& text) {
        return static_cast<size_t>(std::count_if(
            log.begin(), log.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; }));
    }
};

// Comments, sections and keys in other case are passed over; an empty value
// leaves the path to a later line.
TEST_F(ConfigFile, FirstAmtRelatePathAndLastOutputMoreLogWin) {
    auto log = read_by_daemon(
        "# amt_relate_path = /commented/\r\n"
        "AMT_RELATE_PATH = /capitals/\r\n"
        "[main]\r\n"
        "amt_relate_path =   \r\n"
        "   amt_relate_path   =   /first/  \r\n"
        "output_more_log = 1\n"
        "amt_relate_path = /second/\n"
        "amt_relate_path = /third/\n"
        "output_more_log = 0");  // the last line has no line end and still counts
    EXPECT_TRUE(has(log, "config file = /system/etc/ovta_amt.ini"));
    EXPECT_TRUE(has(log, "amt_relate_path = /first/"));
    EXPECT_TRUE(has(log, "output_more_log= 0"));
    EXPECT_EQ(count_containing(log, "command-line parameter has setted amt-relate path(/first/), it is priority."),
              2u);
    EXPECT_EQ(count_containing(log, "it is priority"), 2u);
}

TEST_F(ConfigFile, MissingFileIsReportedAndDefaultsStay) {
    auto log = read_by_daemon(std::nullopt);
    expect_in_order(*daemons_.back(), {" open config file(/system/etc/ovta_amt.ini) fail. error:2-No such file or "
                                       "directory.",
                                       "end read config file."});
    EXPECT_TRUE(has(log, "config file = /system/etc/ovta_amt.ini"));
    EXPECT_TRUE(has(log, "amt_relate_path = "));
    EXPECT_TRUE(has(log, "output_more_log= 0"));
}

TEST_F(ConfigFile, DashCReadsTheNamedFileInstead) {
    sandbox::PhoneSetup setup;
    setup.config = "amt_relate_path = /default/\n";
    ASSERT_NE(make_phone(setup), nullptr);
    ASSERT_TRUE(phone_->write_file("/amt/factory.ini", "amt_relate_path = /named/\noutput_more_log = 3\n"));
    Daemon* d = launch({"-c", "/amt/factory.ini"});
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(d->wait_for_log("output_more_log= ", kWait));
    auto log = messages(*d);
    EXPECT_TRUE(has(log, "set config path(/amt/factory.ini)."));
    EXPECT_TRUE(has(log, "config file = /amt/factory.ini"));
    EXPECT_TRUE(has(log, "amt_relate_path = /named/"));
    EXPECT_TRUE(has(log, "output_more_log= 3"));
}

TEST_F(ConfigFile, DashCWithAnEmptyPathFallsBackToTheDefault) {
    auto log = read_by_daemon("amt_relate_path = /default/\n", {"-c", ""});
    EXPECT_TRUE(has(log, "config_file_ptr is NULL, will use default path."));
    EXPECT_TRUE(has(log, "config file = /system/etc/ovta_amt.ini"));
    EXPECT_TRUE(has(log, "amt_relate_path = /default/"));
}

}  // namespace
}  // namespace e2e
