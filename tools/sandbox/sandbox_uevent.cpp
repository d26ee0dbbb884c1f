#include "sandbox_uevent.hpp"

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "process/unique_fd.hpp"

namespace sandbox {
namespace {

constexpr int kAckWaitMs = 2000;

std::string error_text(const char* what, int err) { return std::string(what) + ": " + strerror(err); }

UniqueFd uevent_socket(std::string* why) {
    UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    if (!fd.valid()) *why = error_text("uevent socket", errno);
    return fd;
}

bool send_to(int fd, const void* data, size_t len, uint32_t groups, std::string* why) {
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_pid = 0;
    to.nl_groups = groups;
    if (sendto(fd, data, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != static_cast<ssize_t>(len)) {
        *why = error_text("uevent sendto", errno);
        return false;
    }
    return true;
}

}  // namespace

std::string usb_state_uevent(std::string_view state) {
    std::string e;
    for (std::string_view part : {"change@/devices/virtual/android_usb/android0", "ACTION=change",
                                  "DEVPATH=/devices/virtual/android_usb/android0", "SUBSYSTEM=android_usb"}) {
        e.append(part);
        e.push_back('\0');
    }
    e.append("USB_STATE=");
    e.append(state);
    e.push_back('\0');
    return e;
}

bool send_kernel_uevent(std::string_view payload, std::string* why) { return send_kernel_uevents(payload, 1, why); }

bool send_kernel_uevents(std::string_view payload, int copies, std::string* why) {
    std::string scratch;
    if (why == nullptr) why = &scratch;
    UniqueFd fd = uevent_socket(why);
    if (!fd.valid()) return false;
    std::vector<char> msg(NLMSG_LENGTH(payload.size()), 0);
    nlmsghdr head{};
    head.nlmsg_len = static_cast<uint32_t>(msg.size());
    head.nlmsg_type = NLMSG_MIN_TYPE;  // below it, the kernel takes a message for control
    memcpy(msg.data() + NLMSG_HDRLEN, payload.data(), payload.size());
    // The kernel handles the requests of one socket in order, so the
    // acknowledgement of the last one means that all have been sent on.
    for (int i = 1; i <= copies; ++i) {
        head.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | (i == copies ? NLM_F_ACK : 0));
        head.nlmsg_seq = static_cast<uint32_t>(i);
        memcpy(msg.data(), &head, sizeof(head));
        if (!send_to(fd.get(), msg.data(), msg.size(), 0, why)) return false;
    }
    for (;;) {
        pollfd p{fd.get(), POLLIN, 0};
        if (poll(&p, 1, kAckWaitMs) != 1) {
            *why = "no acknowledgement from the kernel";
            return false;
        }
        char ack[512];
        ssize_t n = recv(fd.get(), ack, sizeof(ack), 0);
        if (n < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr)))) {
            *why = error_text("uevent acknowledgement", errno);
            return false;
        }
        nlmsghdr reply{};
        nlmsgerr err{};
        memcpy(&reply, ack, sizeof(reply));
        memcpy(&err, ack + NLMSG_HDRLEN, sizeof(err));
        if (reply.nlmsg_type != NLMSG_ERROR || err.error != 0) {
            *why = error_text("the kernel refused the uevent", reply.nlmsg_type == NLMSG_ERROR ? -err.error : EPROTO);
            return false;
        }
        if (reply.nlmsg_seq == static_cast<uint32_t>(copies)) return true;
    }
}

bool send_user_uevent(std::string_view payload, std::string* why) {
    std::string scratch;
    if (why == nullptr) why = &scratch;
    UniqueFd fd = uevent_socket(why);
    if (!fd.valid()) return false;
    // No netlink header: the copy that also reaches the kernel is no request
    // it would act on.
    return send_to(fd.get(), payload.data(), payload.size(), 1, why);
}

}  // namespace sandbox
