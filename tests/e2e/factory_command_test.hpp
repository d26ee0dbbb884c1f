// Base fixture of the end-to-end tests of the agent's own factory commands:
// a phone whose amt_relate_path is /amt/, the agent in USB mode with the PC
// line ready, and the exchange of one request frame for the pre-response and
// one answer. Frames are written as literal hex text.
#pragma once

#include <string>

#include "phone_test.hpp"

namespace e2e {

class FactoryCommandTest : public PhoneTest {
protected:
    static sandbox::PhoneSetup amt_phone() {
        sandbox::PhoneSetup setup;
        setup.config = "amt_relate_path = /amt/\n";
        return setup;
    }

    // Makes the phone (amt_phone() unless the test made one) and starts the
    // agent; false after a failed expectation.
    bool start() {
        if (!phone_ && !make_phone(amt_phone())) return false;
        daemon_ = launch_with_pc();
        return daemon_ != nullptr;
    }

    // Sends `request` and checks that the PC gets the pre-response and then
    // exactly `answer`, and nothing behind it.
    void exchange(const std::string& request, const std::string& answer) {
        pc_sends(hex(request));
        expect_pc_gets(concat({kPreResponse, hex(answer)}));
        EXPECT_TRUE(pc_->quiet_for(std::chrono::milliseconds(100)));
    }

    sandbox::Daemon* daemon_ = nullptr;
};

}  // namespace e2e
