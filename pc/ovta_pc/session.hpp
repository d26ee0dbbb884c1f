// One session of ovta-pc on the line: it runs a request (one command, any
// frame, or an RF transfer in slices), prints what came, and gives the exit
// status. Runs on the main thread; a raised stop (Ctrl-C) ends the wait.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "pc/lib/pc_exchange.hpp"
#include "pc/lib/table_transfer.hpp"
#include "pc/os/line.hpp"
#include "pc/ovta_pc/options.hpp"

namespace ovta_pc {

class Session {
public:
    Session(const Options& opt, pcos::Line& line, const pcos::Stop* stop) : opt_(opt), link_(line, stop) {}

    // One command whose answer `read` decodes.
    int single(const char* name, uint32_t cmd, const std::vector<uint8_t>& body, const tools::AnswerReader& read);

    // Any command, the answer shown frame-wise.
    int send(uint32_t cmd, const std::vector<uint8_t>& body);
    int read_table(const tools::TableRange& range);
    int write_table(const tools::TableRange& range, const std::vector<uint8_t>& data);

private:
    std::chrono::milliseconds timeout() const;

    // The text of an exchange that brought no answer, with where or how long.
    std::string why_none(tools::Outcome outcome, const std::string& text) const;

    void report_transfer(const char* name, const tools::TableRange& range, const tools::TransferEnd& end,
                         const std::vector<uint8_t>* data = nullptr);
    void dump(const std::vector<uint8_t>& shown, size_t total);

    // Frames that came beside the answer, and with --raw everything. With
    // --json they are kept for the JSON object instead.
    void show(const tools::Exchange& ex);
    void print_json(nlohmann::json j);
    int send_json(uint32_t cmd, const tools::Exchange& ex, const std::optional<tools::DecodedPcFrame>& answer);
    static void print_indented(const std::string& text);
    int finish(tools::Outcome outcome);
    int finish_code(int code);

    const Options& opt_;
    tools::PcLink link_;
    std::vector<std::string> other_frames_;  // --json: frames that were not the answers, in hex
};

}  // namespace ovta_pc
