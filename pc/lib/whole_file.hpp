// A file that is replaced whole or not at all. The bytes go to a temporary
// file beside it, which takes the file's name on commit(); a writer that ends
// without commit() leaves the old file as it was and removes the temporary.
// Bytes go out as they are, on every system. Its two halves live in pc/os/.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "pc/os/line.hpp"

namespace tools {

class WholeFile {
public:
    // Opens the temporary file; null, with the reason in `error`, on failure.
    static std::unique_ptr<WholeFile> open(const std::string& path, std::string* error);
    ~WholeFile();
    WholeFile(const WholeFile&) = delete;
    WholeFile& operator=(const WholeFile&) = delete;

    bool write(std::span<const uint8_t> bytes);
    // Flushes the bytes to the disk and puts them in the file's place.
    bool commit(std::string* error);

private:
    WholeFile() = default;
    std::string path_;
    std::string temp_path_;
    pcos::NativeHandle fd_ = pcos::kNoHandle;
    bool committed_ = false;
};

}  // namespace tools
