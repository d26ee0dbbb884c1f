// A file that is replaced whole or not at all. The bytes go to a temporary
// file beside it, which takes the file's name on commit(); a writer that ends
// without commit() leaves the old file as it was and removes the temporary.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

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
    int fd_ = -1;
    bool committed_ = false;
};

}  // namespace tools
