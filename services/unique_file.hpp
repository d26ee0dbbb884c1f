// A stdio stream that closes itself on every path.
#pragma once

#include <cstdio>
#include <memory>

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;
