#include "sandbox_netns.hpp"

#include <cerrno>
#include <cstdio>
#include <pthread.h>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sandbox {
namespace {

std::string error_text(const char* what, int err) {
    return std::string(what) + ": " + strerror(err);
}

bool write_proc_file(const char* path, const std::string& text, std::string* why) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        *why = error_text(path, errno);
        return false;
    }
    ssize_t n = write(fd, text.data(), text.size());
    int err = errno;
    close(fd);
    if (n != static_cast<ssize_t>(text.size())) {
        *why = error_text(path, err);
        return false;
    }
    return true;
}

// Without CAP_SYS_ADMIN the network namespace needs a user namespace in which
// the caller is root; setgroups must be denied before an unprivileged gid map.
bool enter_as_mapped_root(std::string* why) {
    uid_t uid = getuid();
    gid_t gid = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        *why = error_text("unshare(CLONE_NEWUSER|CLONE_NEWNET)", errno);
        return false;
    }
    return write_proc_file("/proc/self/setgroups", "deny", why) &&
           write_proc_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1", why) &&
           write_proc_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1", why);
}

bool bring_loopback_up(std::string* why) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        *why = error_text("socket for ioctl", errno);
        return false;
    }
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        ok = ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    if (!ok) *why = error_text("bringing lo up", errno);
    close(s);
    return ok;
}

}  // namespace

bool enter_private_network(std::string* why) {
    std::string scratch;
    if (why == nullptr) why = &scratch;
    if (unshare(CLONE_NEWNET) != 0) {
        std::string first = error_text("unshare(CLONE_NEWNET)", errno);
        if (!enter_as_mapped_root(why)) {
            *why = first + "; " + *why;
            return false;
        }
    }
    return bring_loopback_up(why);
}

bool start_phone_program(const char* program, sigset_t* stop_set) {
    std::string why;
    if (!enter_private_network(&why)) {
        fprintf(stderr, "%s: no private network: %s\n", program, why.c_str());
        return false;
    }
    sigemptyset(stop_set);
    sigaddset(stop_set, SIGINT);
    sigaddset(stop_set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, stop_set, nullptr);
    return true;
}

}  // namespace sandbox
