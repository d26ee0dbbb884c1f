// What the fuzz targets of the file stores share: a scratch directory that
// stands as amt_relate_path, and a calling thread whose waits end at once.
#pragma once

#include <string>

namespace fuzz {

// Creates the scratch directory once and makes it the AMT directory (with its
// trailing slash). Returns its path with the slash.
const std::string& amt_directory();

// Marks the calling thread as asked to stop, once: every stoppable wait of the
// agent (the 50 ms steps of the sync ritual, the two seconds of a fresh store)
// then returns at once, so an input costs no sleeping. The file operations
// have done their writing before those waits.
void skip_waits();

// Replaces a file of the scratch directory by `size` bytes.
void write_file(const std::string& name, const void* data, size_t size);
std::string read_file(const std::string& name);

}  // namespace fuzz
