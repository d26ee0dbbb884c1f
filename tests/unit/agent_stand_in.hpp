// A phone on a pseudo-terminal that answers every request as the agent
// does: the pre-response, then a frame numbered cmd + 1 whose body the
// test's function gives, with the agent's CRC. A station opens device(); a
// PcLink can use pc_end(), the slave end, which the stand-in holds open so
// that its side never sees a hang-up. Its own thread serves the requests
// until the stand-in is destroyed; requests() may be read at any time.
#pragma once

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <pty.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "wire/bytes.hpp"
#include "process/unique_fd.hpp"
#include "protocol/pc_frame.hpp"

namespace stand_in {

using Bytes = std::vector<uint8_t>;

inline const Bytes kPreResponse = {0xAA, 0xBB, 0xCC, 0xDD, 0x08, 0x00, 0x00, 0x00,
                                   0x02, 0x02, 0x00, 0x00, 0x76, 0x4A, 0xEE, 0x1D};

// A request as the phone took it; the three words of a table command.
struct Request {
    uint32_t cmd = 0;
    uint32_t table = 0;
    uint32_t offset = 0;
    uint32_t len = 0;
    size_t frame_size = 0;
    Bytes data;  // the body behind the three words
};

class AgentStandIn {
public:
    // The body of the answer to a request, result word first.
    using Answerer = std::function<Bytes(const Request&)>;

    explicit AgentStandIn(Answerer answer) : answer_(std::move(answer)) {
        int master = -1;
        int slave = -1;
        termios raw{};
        cfmakeraw(&raw);
        EXPECT_EQ(openpty(&master, &slave, nullptr, &raw, nullptr), 0);
        phone_.reset(master);
        fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
        pc_.reset(slave);
        char name[128] = {};
        EXPECT_EQ(ttyname_r(slave, name, sizeof(name)), 0);
        device_ = name;
        int stop[2] = {-1, -1};
        EXPECT_EQ(pipe(stop), 0);
        stop_read_.reset(stop[0]);
        stop_write_.reset(stop[1]);
        thread_ = std::thread([this] { serve(); });
    }
    ~AgentStandIn() {
        const char one = 1;
        (void)!write(stop_write_.get(), &one, 1);
        thread_.join();
    }
    AgentStandIn(const AgentStandIn&) = delete;
    AgentStandIn& operator=(const AgentStandIn&) = delete;

    const std::string& device() const { return device_; }
    int pc_end() const { return pc_.get(); }
    // The requests so far, in order.
    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> hold(mu_);
        return requests_;
    }

private:
    // Reads n bytes; false once the stand-in is to end.
    bool read_all(uint8_t* out, size_t n) {
        while (n > 0) {
            pollfd p[2] = {{phone_.get(), POLLIN, 0}, {stop_read_.get(), POLLIN, 0}};
            if (poll(p, 2, -1) < 0) continue;
            if (p[1].revents != 0) return false;
            const ssize_t r = read(phone_.get(), out, n);
            if (r <= 0) continue;
            out += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    }

    void serve() {
        for (;;) {
            uint8_t head[8];
            if (!read_all(head, sizeof(head))) return;
            const uint32_t frame_len = bytes::get_le32(head, 4);
            Bytes rest(frame_len);
            if (frame_len < 24 || !read_all(rest.data(), rest.size())) return;
            Request r;
            r.cmd = bytes::get_le32(rest, 4);
            r.table = bytes::get_le32(rest, 8);
            r.offset = bytes::get_le32(rest, 12);
            r.len = bytes::get_le32(rest, 16);
            r.frame_size = 8 + frame_len;
            r.data.assign(rest.begin() + 20, rest.end() - 4);
            {
                std::lock_guard<std::mutex> hold(mu_);
                requests_.push_back(r);
            }
            const Bytes body = answer_(r);
            // Head, body and CRC; the CRC covers all before it.
            Bytes frame(16 + body.size() + 4, 0);
            const uint8_t head_bytes[12] = {0xAA, 0xBB, 0xCC, 0xDD, 0, 0, 0, 0, 0x02, 0x00, 0x00, 0x00};
            std::copy(std::begin(head_bytes), std::end(head_bytes), frame.begin());
            bytes::put_le32(frame, 4, static_cast<uint32_t>(12 + body.size()));
            bytes::put_le32(frame, 12, r.cmd + 1);
            std::copy(body.begin(), body.end(), frame.begin() + 16);
            add_amt_crc(frame.data(), static_cast<int32_t>(frame.size() - 4));
            if (!send(kPreResponse) || !send(frame)) return;
        }
    }

    // Writes all of `out`; false once the stand-in is to end.
    bool send(const Bytes& out) {
        for (size_t done = 0; done < out.size();) {
            pollfd p[2] = {{phone_.get(), POLLOUT, 0}, {stop_read_.get(), POLLIN, 0}};
            if (poll(p, 2, -1) < 0) continue;
            if (p[1].revents != 0) return false;
            const ssize_t w = write(phone_.get(), out.data() + done, out.size() - done);
            if (w > 0) done += static_cast<size_t>(w);
        }
        return true;
    }

    Answerer answer_;
    UniqueFd phone_;
    UniqueFd pc_;
    UniqueFd stop_read_;
    UniqueFd stop_write_;
    std::string device_;
    mutable std::mutex mu_;
    std::vector<Request> requests_;  // guarded by mu_
    std::thread thread_;
};

// The agent's answers to table commands: result 0 and, for a read (61), the
// bytes asked for, each the low byte of its offset.
inline Bytes table_answer(const Request& r) {
    Bytes body(4, 0);
    if (r.cmd == 61) {
        for (uint32_t i = 0; i < r.len; ++i) body.push_back(static_cast<uint8_t>(r.offset + i));
    }
    return body;
}

}  // namespace stand_in
