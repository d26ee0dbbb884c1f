#include "scratch_dir.hpp"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace results_test {

ScratchDir::ScratchDir() {
    char name[] = "/tmp/ovta-results-XXXXXX";
    if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = name;
}

ScratchDir::~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace results_test
