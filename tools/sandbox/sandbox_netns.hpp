// A network of the test's own. The daemon runs in bubblewrap without a network
// namespace of its own, so it shares this one with the test: a listener on
// port 8030 here is "wfmgr" to it, and the netlink uevents that later tests
// send reach it without reaching the host's daemons.
#pragma once

#include <string>

namespace sandbox {

// Moves the calling process into a new network namespace with only the
// loopback interface, and brings that up. Call it while the process has one
// thread: the namespace belongs to the calling thread and is inherited by the
// threads and processes it starts afterwards. As root a plain network
// namespace is made; otherwise a user namespace that maps the caller to root
// comes with it. On failure returns false and says why in `why`.
bool enter_private_network(std::string* why);

}  // namespace sandbox
