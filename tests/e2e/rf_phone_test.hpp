// Fixture of the tests of the factory file commands: the agent in USB mode
// with verbose log, wfmgr_ and pc_ connected, and wfmgr's announcements:
//
//   m_rf_relate_path   /amt/rf/
//   table_type 7       cal.bin      1000 bytes, byte i holds i % 251 (cal_bytes())
//   table_type 9       missing.bin  no such file
//   table_type 11      small.bin    10 bytes, 0x00 to 0x09
#pragma once

#include <string>

#include "phone_test.hpp"
#include "tools/lib/wf_messages.hpp"

namespace e2e {

using sandbox::Bytes;

inline Bytes cal_bytes() {
    Bytes b(1000);
    for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<uint8_t>(i % 251);
    return b;
}

inline Bytes slice(const Bytes& b, size_t from, size_t n) { return Bytes(b.begin() + from, b.begin() + from + n); }

class RfPhoneTest : public PhoneTest {
protected:
    // Makes the phone with `amt_relate_path` in its configuration, launches
    // the agent and announces the RF files. Check HasFatalFailure() after.
    void start_agent(const std::string& amt_relate_path = "/amt/a/b/c/d/") {
        sandbox::PhoneSetup setup;
        setup.config = "amt_relate_path = " + amt_relate_path + "\noutput_more_log = 1\n";
        ASSERT_NE(make_phone(setup), nullptr);
        Bytes cal = cal_bytes();
        ASSERT_TRUE(phone_->write_file("/amt/rf/cal.bin", std::string(cal.begin(), cal.end())));
        ASSERT_TRUE(phone_->write_file("/amt/rf/small.bin", std::string("\0\1\2\3\4\5\6\7\10\11", 10)));
        daemon_ = launch_with_pc();
        ASSERT_NE(daemon_, nullptr);
        tools::RelateInfo info;
        info.rf_code_file_path = "/amt/rf/";
        ASSERT_TRUE(wfmgr_->send(tools::build_relate_info_ind(info)));
        const tools::RftabRow rows[] = {{7, "cal.bin"}, {9, "missing.bin"}, {11, "small.bin"}};
        ASSERT_TRUE(wfmgr_->send(tools::build_res_info_ind(rows)));
        // wfmgr's messages are handled in order: once the list is in, so is the directory.
        ASSERT_TRUE(daemon_->wait_for_log("g_wfmgr_rftab_info_count:3.", kWait));
    }

    Bytes file(const std::string& phone_path) {
        auto text = phone_->read_file(phone_path);
        return text ? Bytes(text->begin(), text->end()) : Bytes{};
    }

    // A sync that records its run and then takes 20 s, holding no pipe of
    // the agent's, so that a stop during the ritual can be seen.
    void make_sync_slow() {
        ASSERT_TRUE(phone_->write_file("/system/bin/sync",
                                       "#!/bin/sh\necho sync >> /test-record/sync-runs\n"
                                       "exec sleep 20 </dev/null >/dev/null 2>&1\n"));
    }

    sandbox::Daemon* daemon_ = nullptr;
};

}  // namespace e2e
