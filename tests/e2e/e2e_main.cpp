// Entry of the end-to-end tests. The private network is entered once, in the
// environment's set-up, so that listing the tests needs no privileges; the
// process has a single thread at that point, as unshare requires.
#include <cstdlib>
#include <gtest/gtest.h>

#include "phone_test.hpp"
#include "sandbox_netns.hpp"

namespace e2e {
namespace {

bool g_network_ready = false;
std::string g_network_problem = "the private network was never set up";

class PrivateNetwork : public ::testing::Environment {
public:
    void SetUp() override {
        std::string why;
        g_network_ready = sandbox::enter_private_network(&why);
        if (g_network_ready) return;
        g_network_problem = why;
        if (getenv("CI") != nullptr) {
            FAIL() << "CI needs network namespaces for the end-to-end tests: " << why;
        }
    }
};

}  // namespace

bool network_ready() { return g_network_ready; }
const std::string& network_problem() { return g_network_problem; }

}  // namespace e2e

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new e2e::PrivateNetwork);
    return RUN_ALL_TESTS();
}
