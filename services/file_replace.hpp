// A new version of a factory file, written beside it under a temporary name
// and put in its place by one rename once its bytes are on stable storage.
// A stop or a power cut at any instant leaves the old content or the new one,
// never none and never a mix: the file is never removed or emptied in place.
//
// Used on the PC transfer thread, one write at a time; the object owns its
// stream and, until it is committed, its temporary file.
#pragma once

#include <cstdio>

#include "services/factory_files.hpp"
#include "services/unique_file.hpp"

class FileReplacement {
public:
    // `who` starts the log lines of a failed step (the name of the operation).
    FileReplacement(const char* who, const char* target_path, const char* temp_path);
    // A replacement that was not committed closes and removes its temporary
    // file; the target stays as it was.
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    // Creates or empties the temporary file for writing. False with errno set;
    // the caller logs the failure in its own words, naming the target.
    bool open();
    // The temporary file's stream; null before a successful open().
    FILE* stream() const { return file_.get(); }

    // Flushes and fsyncs the temporary file, closes it, renames it over the
    // target and fsyncs the directory. False, with a log line, when a step
    // failed: the target is then untouched and the temporary file removed.
    // The log line names the target, the file the phone knows, not the
    // temporary one.
    bool commit();

    // Closes and removes the temporary file now; the target stays as it was.
    void abandon();

private:

    const char* who_;
    char target_path_[kAmtPathSize];
    char temp_path_[kAmtPathSize];
    UniqueFile file_;  // the temporary file while it is written
};
