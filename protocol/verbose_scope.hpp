// "name start." and "name end." around an operation, in verbose mode only.
#pragma once

#include "process/pub_util.hpp"

class VerboseScope {
public:
    explicit VerboseScope(const char* name) : name_(name) {
        if (verbose_log()) log_dbg("%s start.", name_);
    }
    ~VerboseScope() {
        if (verbose_log()) log_dbg("%s end.", name_);
    }
    VerboseScope(const VerboseScope&) = delete;
    VerboseScope& operator=(const VerboseScope&) = delete;

private:
    const char* name_;
};
