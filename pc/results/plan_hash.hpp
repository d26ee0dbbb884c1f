// The plan's fingerprint for the run's row: SHA-256 of the plan file's text,
// as 64 lowercase hex digits, so that a report can tell two versions of a
// plan with the same file name apart.
#pragma once

#include <string>
#include <string_view>

namespace results {

std::string sha256_hex(std::string_view bytes);

}  // namespace results
