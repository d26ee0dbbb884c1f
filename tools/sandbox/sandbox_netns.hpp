// A network of the test's own. The daemon runs in bubblewrap without a network
// namespace of its own, so it shares this one with the test: a listener on
// port 8030 here is "wfmgr" to it, and the netlink uevents that later tests
// send reach it without reaching the host's daemons.
#pragma once

#include <csignal>
#include <string>

namespace sandbox {

// Moves the calling process into a new network namespace with only the
// loopback interface, and brings that up. Call it while the process has one
// thread: the namespace belongs to the calling thread and is inherited by the
// threads and processes it starts afterwards. As root a plain network
// namespace is made; otherwise a user namespace that maps the caller to root
// comes with it. On failure returns false and says why in `why`.
bool enter_private_network(std::string* why);

// The start of a program that lays out phones (the demonstration, the
// fixture): enter_private_network, then SIGINT and SIGTERM blocked in this
// and every later thread, so that the program takes them where it chooses
// (`stop_set` gets the two). On failure says so on stderr under `program`'s
// name and returns false.
bool start_phone_program(const char* program, sigset_t* stop_set);

}  // namespace sandbox
