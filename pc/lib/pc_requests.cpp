#include "pc/lib/pc_requests.hpp"

#include "wire/bytes.hpp"

namespace tools {

namespace {

std::vector<uint8_t> words(std::initializer_list<uint32_t> values) {
    std::vector<uint8_t> body(values.size() * 4);
    size_t off = 0;
    for (uint32_t v : values) {
        bytes::put_le32(body, off, v);
        off += 4;
    }
    return body;
}

void append_text(std::vector<uint8_t>* body, std::string_view text) {
    body->insert(body->end(), text.begin(), text.end());
    body->push_back(0);
}

}  // namespace

std::optional<std::vector<uint8_t>> enter_amt_body(uint32_t amt_mode, std::string_view wf_name) {
    if (wf_name.empty() || wf_name.size() > kWfNameMax) return std::nullopt;
    std::vector<uint8_t> body = words({amt_mode});
    append_text(&body, wf_name);
    return body;
}

std::vector<uint8_t> version_body(uint32_t module) { return words({module}); }

std::vector<uint8_t> read_table_body(uint32_t table_type, uint32_t offset, uint32_t len) {
    return words({table_type, offset, len});
}

std::vector<uint8_t> write_table_body(uint32_t table_type, uint32_t offset, std::span<const uint8_t> data) {
    std::vector<uint8_t> body = words({table_type, offset, static_cast<uint32_t>(data.size())});
    body.insert(body.end(), data.begin(), data.end());
    return body;
}

std::vector<uint8_t> text_body(std::string_view text) {
    std::vector<uint8_t> body;
    append_text(&body, text);
    return body;
}

std::vector<uint8_t> read_result_body(uint32_t site_no) { return words({site_no}); }

std::vector<uint8_t> write_result_body(uint32_t site_no, uint32_t result, std::string_view description) {
    std::vector<uint8_t> body = words({site_no, result});
    append_text(&body, description);
    return body;
}

}  // namespace tools
