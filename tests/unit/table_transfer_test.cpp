// RF table transfers cut into slices, against a phone on a socket pair that
// answers each slice as the agent does: the slices' offsets and lengths at
// the edges (the largest slice, a range that ends at 4 GiB), and a slice that
// the phone refuses, which counts as neither read nor written.
#include <gtest/gtest.h>
#include <mutex>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "pc/lib/pc_requests.hpp"
#include "pc/lib/table_transfer.hpp"
#include "process/bytes.hpp"
#include "process/unique_fd.hpp"
#include "protocol/pc_frame.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

const Bytes kPreResponse = {0xAA, 0xBB, 0xCC, 0xDD, 0x08, 0x00, 0x00, 0x00,
                            0x02, 0x02, 0x00, 0x00, 0x76, 0x4A, 0xEE, 0x1D};

struct Request {
    uint32_t cmd = 0;
    uint32_t table = 0;
    uint32_t offset = 0;
    uint32_t len = 0;
    size_t frame_size = 0;
    Bytes data;  // behind the three words
};

bool read_all(int fd, uint8_t* out, size_t n) {
    while (n > 0) {
        const ssize_t r = read(fd, out, n);
        if (r <= 0) return false;
        out += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

// The phone's side: takes the requests one by one; `answer` gives the body
// of each answer (result word first), which goes out behind the pre-response
// in a frame with the agent's CRC.
class SlicePhone {
public:
    using Answerer = std::function<Bytes(const Request&)>;

    explicit SlicePhone(Answerer answer) : answer_(std::move(answer)) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        pc_.reset(fds[0]);
        phone_.reset(fds[1]);
        thread_ = std::thread([this] { serve(); });
    }
    ~SlicePhone() {
        shutdown(pc_.get(), SHUT_RDWR);
        thread_.join();
    }
    int pc_end() const { return pc_.get(); }
    // The requests so far, in order.
    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> hold(mu_);
        return requests_;
    }

private:
    void serve() {
        for (;;) {
            uint8_t head[8];
            if (!read_all(phone_.get(), head, sizeof(head))) return;
            const uint32_t frame_len = bytes::get_le32(head, 4);
            Bytes rest(frame_len);
            if (!read_all(phone_.get(), rest.data(), rest.size())) return;
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
            Bytes frame = {0xAA, 0xBB, 0xCC, 0xDD, 0, 0, 0, 0, 0x02, 0x00, 0x00, 0x00, 0, 0, 0, 0};
            bytes::put_le32(frame, 4, static_cast<uint32_t>(12 + body.size()));
            bytes::put_le32(frame, 12, r.cmd + 1);
            frame.insert(frame.end(), body.begin(), body.end());
            frame.resize(frame.size() + 4);
            add_amt_crc(frame.data(), static_cast<int32_t>(frame.size() - 4));
            Bytes out = kPreResponse;
            out.insert(out.end(), frame.begin(), frame.end());
            if (write(phone_.get(), out.data(), out.size()) != static_cast<ssize_t>(out.size())) return;
        }
    }

    Answerer answer_;
    mutable std::mutex mu_;
    std::vector<Request> requests_;  // guarded by mu_
    UniqueFd pc_;
    UniqueFd phone_;
    std::thread thread_;
};

// Result 0 and, for a read, the bytes asked for: each the low byte of its offset.
Bytes agent_answer(const Request& r) {
    Bytes body(4, 0);
    if (r.cmd == tools::kCmdReadTable) {
        for (uint32_t i = 0; i < r.len; ++i) body.push_back(static_cast<uint8_t>(r.offset + i));
    }
    return body;
}

tools::TransferEnd read_range(SlicePhone& phone, const tools::TableRange& range, Bytes* data) {
    tools::PcLink link(phone.pc_end());
    return tools::read_table(
        link, range, 5000ms,
        [&](std::span<const uint8_t> b) {
            data->insert(data->end(), b.begin(), b.end());
            return true;
        },
        [](const tools::Exchange&, size_t) {});
}

tools::TransferEnd write_range(SlicePhone& phone, const tools::TableRange& range, const Bytes& data) {
    tools::PcLink link(phone.pc_end());
    return tools::write_table(link, range, data, 5000ms, [](const tools::Exchange&, size_t) {});
}

TEST(TableTransfer, RangeThatEndsAt4GiBAsksEachSliceAtItsOwnOffset) {
    SlicePhone phone(agent_answer);
    Bytes data;
    tools::TransferEnd end = read_range(phone, {7, 0xFFFFFFF0u, 16, 8}, &data);
    const std::vector<Request> asked = phone.requests();
    EXPECT_EQ(end.outcome, tools::Outcome::kAccepted) << end.last_text;
    EXPECT_EQ(end.done, 16u);
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[0].table, 7u);
    EXPECT_EQ(asked[0].offset, 0xFFFFFFF0u);
    EXPECT_EQ(asked[1].offset, 0xFFFFFFF8u);
    EXPECT_EQ(asked[1].len, 8u);
    EXPECT_EQ(data, (Bytes{0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE,
                           0xFF}));
}

TEST(TableTransfer, LargestSlicesFitOneFrameAndTheRestFollows) {
    const uint32_t max = tools::kTableSliceMax;
    {
        SlicePhone phone(agent_answer);
        Bytes data;
        tools::TransferEnd end = read_range(phone, {1, 100, max + 1, max}, &data);
        const std::vector<Request> asked = phone.requests();
        EXPECT_EQ(end.outcome, tools::Outcome::kAccepted) << end.last_text;
        EXPECT_EQ(end.done, max + 1u);
        ASSERT_EQ(asked.size(), 2u);
        EXPECT_EQ(asked[0].offset, 100u);
        EXPECT_EQ(asked[0].len, 40928u);
        EXPECT_EQ(asked[1].offset, 100u + 40928u);
        EXPECT_EQ(asked[1].len, 1u);
        ASSERT_EQ(data.size(), max + 1u);
        EXPECT_EQ(data.back(), static_cast<uint8_t>(100 + max));
    }
    {
        SlicePhone phone(agent_answer);
        Bytes data(max + 1);
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
        tools::TransferEnd end = write_range(phone, {1, 0, max + 1, max}, data);
        const std::vector<Request> asked = phone.requests();
        EXPECT_EQ(end.outcome, tools::Outcome::kAccepted) << end.last_text;
        EXPECT_EQ(end.done, max + 1u);
        ASSERT_EQ(asked.size(), 2u);
        // The largest write frame is the agent's whole 40960-byte buffer.
        EXPECT_EQ(asked[0].frame_size, 40960u);
        EXPECT_EQ(asked[0].len, 40928u);
        EXPECT_EQ(asked[1].offset, 40928u);
        Bytes sent = asked[0].data;
        sent.insert(sent.end(), asked[1].data.begin(), asked[1].data.end());
        EXPECT_EQ(sent, data);
    }
}

TEST(TableTransfer, RefusedSliceIsNeitherWrittenNorReadAndEndsTheTransfer) {
    // The second slice is refused with result 10; a read hands on the bytes
    // that were there.
    auto refuse_second = [](const Request& r) {
        if (r.offset == 0) return agent_answer(r);
        Bytes body = {0x0A, 0x00, 0x00, 0x00};
        if (r.cmd == tools::kCmdReadTable) body.push_back(0xEE);
        return body;
    };
    {
        SlicePhone phone(refuse_second);
        tools::TransferEnd end = write_range(phone, {1, 0, 12, 4}, Bytes(12, 0x55));
        const std::vector<Request> asked = phone.requests();
        EXPECT_EQ(end.outcome, tools::Outcome::kRefused);
        EXPECT_EQ(end.done, 4u);
        EXPECT_EQ(asked.size(), 2u);
    }
    {
        SlicePhone phone(refuse_second);
        Bytes data;
        tools::TransferEnd end = read_range(phone, {1, 0, 12, 4}, &data);
        const std::vector<Request> asked = phone.requests();
        EXPECT_EQ(end.outcome, tools::Outcome::kRefused);
        EXPECT_EQ(end.done, 5u);
        EXPECT_EQ(data, (Bytes{0, 1, 2, 3, 0xEE}));
        EXPECT_EQ(asked.size(), 2u);
    }
}

}  // namespace
