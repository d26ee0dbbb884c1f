// One step of a transfer thread, over a stream cut at every point: the thread
// may wait without end only where nothing of a message is held, and each
// message is dispatched once, whatever the cut.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "channel/amt_channel.hpp"
#include "log_capture.hpp"

namespace {

std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size(); i += 3) {
        out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// A row as the opening leaves it, its sends dropped as not connected.
class RowWithRing {
public:
    explicit RowWithRing(uint32_t index) : row_(listAmtSrv[index]) {
        row_.m_socket_conn_status = kConnNotYet;
        EXPECT_EQ(initializeRingBuf(&row_.ring_buf, kRingCapacity), 0);
    }
    ~RowWithRing() { releaseRingBuf(&row_.ring_buf); }
    void start_over() {
        while (getRingBufDataLen(&row_.ring_buf) > 0) {
            uint8_t drop[64];
            readRingBuf(&row_.ring_buf, drop, sizeof(drop));
        }
        row_.assembly_phase = AssemblyPhase::kStart;
        row_.temp_msg_process_len = 0;
    }
    void add(const std::vector<uint8_t>& bytes, size_t from, size_t to) {
        if (to > from) writeRingBuf(&row_.ring_buf, bytes.data() + from, static_cast<uint32_t>(to - from));
    }

private:
    AmtChannel& row_;
};

// Steps until the thread would wait; counts the messages dispatched.
TransferStep steps(uint32_t index, int* dispatched) {
    for (;;) {
        TransferStep s = transfer_step(index);
        if (s != TransferStep::kDispatched) return s;
        ++*dispatched;
    }
}

const char* name(TransferStep s) {
    switch (s) {
        case TransferStep::kDispatched: return "dispatched";
        case TransferStep::kIdle: return "idle";
        case TransferStep::kMoreBytes: return "more bytes";
        case TransferStep::kOutOfStep: return "out of step";
    }
    return "?";
}

TEST(TransferStep, PcStreamWaitsWithoutEndOnlyOutsideHeadsAndFramesAtEveryCut) {
    LogCapture log;
    RowWithRing ring(kChannelPc);
    // Garbage, a head broken by 22, then the version request.
    const auto stream = hex("11 AA 22 AA BB CC DD 10 00 00 00 02 00 00 00 2D 00 00 00 01 00 00 00 98 2B 36 6E");
    for (size_t cut = 1; cut < stream.size(); ++cut) {
        ring.start_over();
        int dispatched = 0;
        ring.add(stream, 0, cut);
        const TransferStep at_cut = steps(kChannelPc, &dispatched);
        const bool outside = cut == 1 || cut == 3;  // behind 11, and behind the broken head
        EXPECT_STREQ(name(at_cut), outside ? "idle" : "more bytes") << "cut " << cut;
        ring.add(stream, cut, stream.size());
        EXPECT_STREQ(name(steps(kChannelPc, &dispatched)), "idle") << "cut " << cut;
        EXPECT_EQ(dispatched, 1) << "cut " << cut;
        EXPECT_EQ(listAmtSrv[kChannelPc].m_msg_cmd, 45u);
        EXPECT_EQ(getRingBufDataLen(&listAmtSrv[kChannelPc].ring_buf), 0);
    }
}

TEST(TransferStep, WfmgrStreamWaitsWithoutEndOnlyBetweenMessagesAtEveryCut) {
    LogCapture log;
    RowWithRing ring(kChannelWfmgr);
    // Two messages of an id nobody handles: 24 bytes, then 20 (header only).
    const auto stream = hex("18 00 00 00 07 00 00 00 FF FF FF FF 09 00 04 00 04 00 00 00 01 02 03 04 "
                            "14 00 00 00 07 00 00 00 FF FF FF FF 0A 00 04 00 00 00 00 00");
    for (size_t cut = 1; cut < stream.size(); ++cut) {
        ring.start_over();
        int dispatched = 0;
        ring.add(stream, 0, cut);
        const TransferStep at_cut = steps(kChannelWfmgr, &dispatched);
        EXPECT_STREQ(name(at_cut), cut == 24 ? "idle" : "more bytes") << "cut " << cut;
        EXPECT_EQ(dispatched, cut < 24 ? 0 : 1) << "cut " << cut;
        ring.add(stream, cut, stream.size());
        EXPECT_STREQ(name(steps(kChannelWfmgr, &dispatched)), "idle") << "cut " << cut;
        EXPECT_EQ(dispatched, 2) << "cut " << cut;
        EXPECT_EQ(listAmtSrv[kChannelWfmgr].m_msg_cmd, 0x4000Au);
    }
}

}  // namespace
