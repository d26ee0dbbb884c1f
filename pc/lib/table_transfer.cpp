#include "pc/lib/table_transfer.hpp"

#include <algorithm>

#include "pc/lib/pc_requests.hpp"

namespace tools {

bool range_fits(uint32_t offset, uint32_t len) { return static_cast<uint64_t>(offset) + len <= 0x100000000ull; }

TransferEnd read_table(PcLink& link, const TableRange& range, std::chrono::milliseconds timeout,
                       const DataSink& sink, const SliceSeen& seen) {
    TransferEnd end;
    size_t done = 0;
    do {
        const auto n = static_cast<uint32_t>(std::min<size_t>(range.slice, range.len - done));
        const auto at = static_cast<uint32_t>(range.offset + done);
        Exchange ex = link.exchange(kCmdReadTable, read_table_body(range.table_type, at, n), timeout);
        Judged j = judge(ex, [n](std::span<const uint8_t> body) { return read_table_answer(body, n); });
        end.outcome = j.outcome;
        end.last_text = j.answer.text;
        if (!j.answer.data.empty() && !sink(j.answer.data)) {
            end.outcome = Outcome::kLineFailed;
            end.last_text = "the data could not be kept";
        } else {
            done += j.answer.data.size();
        }
        end.done = done;
        seen(ex, done);
        if (end.outcome != Outcome::kAccepted) break;
    } while (done < range.len);
    return end;
}

TransferEnd write_table(PcLink& link, const TableRange& range, std::span<const uint8_t> data,
                        std::chrono::milliseconds timeout, const SliceSeen& seen) {
    TransferEnd end;
    const size_t total = std::min<size_t>(range.len, data.size());
    size_t done = 0;
    do {
        const size_t n = std::min<size_t>(range.slice, total - done);
        const auto at = static_cast<uint32_t>(range.offset + done);
        Exchange ex =
            link.exchange(kCmdWriteTable, write_table_body(range.table_type, at, data.subspan(done, n)), timeout);
        Judged j = judge(ex, write_table_answer);
        end.outcome = j.outcome;
        end.last_text = j.answer.text;
        if (end.outcome == Outcome::kAccepted) done += n;
        end.done = done;
        seen(ex, done);
        if (end.outcome != Outcome::kAccepted) break;
    } while (done < total);
    return end;
}

}  // namespace tools
