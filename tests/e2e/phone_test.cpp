#include "phone_test.hpp"

#include <algorithm>
#include <csignal>

#include <cstdlib>
#include <iostream>

namespace e2e {

std::string message_of(const std::string& line) {
    auto p = line.find("): ");
    return p == std::string::npos ? line : line.substr(p + 3);
}

std::vector<std::string> messages(const sandbox::Daemon& d) {
    std::vector<std::string> out;
    for (const std::string& l : d.log_lines()) out.push_back(message_of(l));
    return out;
}

void expect_in_order(const sandbox::Daemon& d, const std::vector<std::string>& lines) {
    const std::vector<std::string> log = messages(d);
    long last = -1;
    for (const std::string& line : lines) {
        const long at = std::find(log.begin(), log.end(), line) - log.begin();
        EXPECT_LT(at, static_cast<long>(log.size())) << "no line " << line;
        EXPECT_GT(at, last) << line << " out of order";
        last = at;
    }
}

void PhoneTest::SetUp() {
    if (network_ready()) return;
    if (getenv("CI") != nullptr) FAIL() << "no private network: " << network_problem();
    GTEST_SKIP() << "network namespaces are not available here (" << network_problem()
                 << "); the end-to-end tests need them";
}

// A sanitizer report of the daemon fails the test, also when the test did not
// look at the exit code. A daemon still running is stopped the ordinary way
// first, so that what the sanitizers find at exit is reported too.
void PhoneTest::TearDown() {
    for (auto& d : daemons_) {
        if (d->running() && d->signal(SIGTERM)) d->wait_exit(kWait);
        for (const std::string& l : d->log_lines()) {
            if (l.find("WARNING: ThreadSanitizer") != std::string::npos ||
                l.find("ERROR: AddressSanitizer") != std::string::npos ||
                l.find("ERROR: LeakSanitizer") != std::string::npos || l.find("runtime error:") != std::string::npos) {
                ADD_FAILURE() << "sanitizer report in the daemon's log: " << l;
            }
        }
    }
    if (!HasFailure()) return;
    for (size_t i = 0; i < daemons_.size(); ++i) {
        std::cerr << "---- log of daemon " << i << " ----\n";
        for (const std::string& l : daemons_[i]->log_lines()) std::cerr << l << "\n";
        std::string out = daemons_[i]->stdout_text();
        if (!out.empty()) std::cerr << "---- stdout of daemon " << i << " ----\n" << out;
    }
}

sandbox::Phone* PhoneTest::make_phone(sandbox::PhoneSetup setup) {
    setup.host_dirs.push_back(OVTA_BINARY_DIR);
    setup.host_dirs.push_back(OVTA_SOURCE_DIR);
    std::string why;
    phone_ = sandbox::Phone::create(setup, &why);
    EXPECT_NE(phone_, nullptr) << why;
    return phone_.get();
}

sandbox::WfmgrPeer* PhoneTest::listen_wfmgr() {
    std::string why;
    wfmgr_ = sandbox::WfmgrPeer::listen(sandbox::WfmgrPeer::kPort, &why);
    EXPECT_NE(wfmgr_, nullptr) << why;
    return wfmgr_.get();
}

sandbox::Daemon* PhoneTest::launch(const std::vector<std::string>& args) {
    if (!phone_ && !make_phone()) return nullptr;
    std::string why;
    auto d = sandbox::Daemon::start(*phone_, args, &why);
    EXPECT_NE(d, nullptr) << why;
    if (!d) return nullptr;
    daemons_.push_back(std::move(d));
    return daemons_.back().get();
}

sandbox::Daemon* PhoneTest::launch_running(const std::vector<std::string>& args) {
    if (!wfmgr_ && !listen_wfmgr()) return nullptr;
    sandbox::Daemon* d = launch(args);
    if (!d) return nullptr;
    EXPECT_TRUE(wfmgr_->accept(kWait)) << "the daemon did not connect to wfmgr";
    EXPECT_TRUE(d->wait_for_log("handle_start success", kWait));
    return ::testing::Test::HasFailure() ? nullptr : d;
}

sandbox::Daemon* PhoneTest::launch_with_pc(const std::vector<std::string>& extra_args) {
    std::vector<std::string> args = {"-m", "1"};
    args.insert(args.end(), extra_args.begin(), extra_args.end());
    sandbox::Daemon* d = launch_running(args);
    if (!d) return nullptr;
    pc_ = std::make_unique<sandbox::PcLine>(phone_->pc_master());
    return complete_handshake(d) ? d : nullptr;
}

bool PhoneTest::complete_handshake(sandbox::Daemon* d) {
    if (!pc_) pc_ = std::make_unique<sandbox::PcLine>(phone_->pc_master());
    auto offer = pc_->read_exact(kHandshakeOffer.size(), kWait);
    EXPECT_EQ(offer, kHandshakeOffer) << "no handshake offer on the PC line";
    if (!offer) return false;
    EXPECT_TRUE(pc_->send(sandbox::Bytes{0x00}));
    EXPECT_TRUE(d->wait_for_log("): handshake success.", kWait));
    // No offer goes out once the success is logged; one sent just before it
    // may still be on the line.
    while (!::testing::Test::HasFailure() && !pc_->quiet_for(0ms)) {
        EXPECT_EQ(pc_->read_exact(kHandshakeOffer.size(), kWait), kHandshakeOffer);
    }
    return !::testing::Test::HasFailure();
}

}  // namespace e2e
