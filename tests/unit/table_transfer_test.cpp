// RF table transfers cut into slices, against a phone that answers each
// slice as the agent does: the slices' offsets and lengths at
// the edges (the largest slice, a range that ends at 4 GiB), and a slice that
// the phone refuses, which counts as neither read nor written.
#include <gtest/gtest.h>

#include "agent_stand_in.hpp"
#include "pc/lib/pc_requests.hpp"
#include "pc/lib/table_transfer.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

using stand_in::AgentStandIn;
using stand_in::Request;
using stand_in::table_answer;

tools::TransferEnd read_range(AgentStandIn& phone, const tools::TableRange& range, Bytes* data) {
    pcos::Line line = pcos::Line::borrow(phone.pc_end());
    tools::PcLink link(line);
    return tools::read_table(
        link, range, 5000ms,
        [&](std::span<const uint8_t> b) {
            data->insert(data->end(), b.begin(), b.end());
            return true;
        },
        [](const tools::Exchange&, size_t) {});
}

tools::TransferEnd write_range(AgentStandIn& phone, const tools::TableRange& range, const Bytes& data) {
    pcos::Line line = pcos::Line::borrow(phone.pc_end());
    tools::PcLink link(line);
    return tools::write_table(link, range, data, 5000ms, [](const tools::Exchange&, size_t) {});
}

TEST(TableTransfer, RangeThatEndsAt4GiBAsksEachSliceAtItsOwnOffset) {
    AgentStandIn phone(table_answer);
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
        AgentStandIn phone(table_answer);
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
        AgentStandIn phone(table_answer);
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
        if (r.offset == 0) return table_answer(r);
        Bytes body = {0x0A, 0x00, 0x00, 0x00};
        if (r.cmd == tools::kCmdReadTable) body.push_back(0xEE);
        return body;
    };
    {
        AgentStandIn phone(refuse_second);
        tools::TransferEnd end = write_range(phone, {1, 0, 12, 4}, Bytes(12, 0x55));
        const std::vector<Request> asked = phone.requests();
        EXPECT_EQ(end.outcome, tools::Outcome::kRefused);
        EXPECT_EQ(end.done, 4u);
        EXPECT_EQ(asked.size(), 2u);
    }
    {
        AgentStandIn phone(refuse_second);
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
