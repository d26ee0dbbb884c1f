// The words of ovta-pc's command line made into one request: a command of
// the agent's by name, any frame (send), or an RF read or write in slices.
// Every usage error is found here, before the line is opened.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pc/lib/pc_exchange.hpp"
#include "pc/lib/table_transfer.hpp"
#include "pc/ovta_pc/options.hpp"
#include "pc/ovta_pc/session.hpp"

namespace ovta_pc {

class Command {
public:
    explicit Command(const Options& opt) : opt_(opt), w_(opt.words) {}

    // Checks the command line. False, with the reason on stderr, when it is wrong.
    bool parse();

    // Runs the request on the session and gives the exit status.
    int run(Session& session) const;

private:
    enum class Kind { kSingle, kSend, kRead, kWrite };
    bool usage_error(const char* why);
    bool arity(size_t least, size_t most);
    bool set_single(std::string name, uint32_t cmd, std::vector<uint8_t> body, tools::AnswerReader read);
    bool parse_send();
    bool parse_version();
    bool parse_text(bool date);
    bool parse_result();
    bool parse_enter_amt();
    bool parse_rf();

    const Options& opt_;
    const std::vector<std::string>& w_;
    Kind kind_ = Kind::kSingle;
    std::string name_;
    uint32_t cmd_ = 0;
    std::vector<uint8_t> body_;
    tools::AnswerReader read_;
    tools::TableRange range_;
};


}  // namespace ovta_pc
