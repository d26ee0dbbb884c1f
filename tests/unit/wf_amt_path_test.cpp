// The AMT directory of a wf_name, as the enter-AMT command in mode 4 applies
// it to m_amt_relate_path.
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "log_capture.hpp"
#include "process/config.hpp"
#include "services/wf_amt_path.hpp"

namespace {

std::string rewrite(const std::string& path, const char* name, int want_result = kAmtPathRewritten) {
    char field[kCfgPathSize] = {};
    strncpy(field, path.c_str(), kCfgPathSize - 1);
    EXPECT_EQ(amt_path_rewrite_for_wf(field, name), want_result) << path;
    return field;
}

TEST(AmtPathRewrite, WhatFollowsTheFourthSlashIsReplacedByTheNameAndWithoutOneNothingChanges) {
    LogCapture log;
    EXPECT_EQ(rewrite("/a/b/c/d/e/", "w"), "/a/b/c/w/");
    EXPECT_TRUE(log.contains("m_amt_relate_path is (/a/b/c/d/e/).\n"));
    EXPECT_TRUE(log.contains("m_amt_relate_path is (/a/b/c/).\n"));
    EXPECT_TRUE(log.contains("m_amt_relate_path is (/a/b/c/w/).\n"));
    EXPECT_EQ(rewrite("/a/b/c/", "w"), "/a/b/c/w/");    // ends in its fourth slash
    EXPECT_EQ(rewrite("/a/b/c/w/", "v"), "/a/b/c/v/");  // a second name replaces the first
    EXPECT_EQ(rewrite("a/b/c/d/", "w"), "a/b/c/d/w/");  // no leading slash: the fourth is the last
    // Cut to the 159 characters of the field.
    std::string base = "/" + std::string(150, 'x') + "/b/c/";
    EXPECT_EQ(rewrite(base, std::string(64, 'n').c_str()), base + "nnn");
    // Fewer than four slashes: unchanged, answered with 1. The e2e enter-AMT
    // tests run the rewrite through the configuration.
    EXPECT_EQ(rewrite("", "w", kAmtPathNoFourthSlash), "");
    EXPECT_EQ(log.count("count is not 4"), 1u);
}

// The files of the AMT directory are written by root: a name must not lead
// out of the cut path's directory, and a refused one changes nothing.
TEST(AmtPathRewrite, NameThatWouldLeaveItsParentIsRefusedWith1AndThePathStays) {
    LogCapture log;
    for (const char* name : {"../../system", "..", ".", "a/b", "/etc", "w/"}) {
        EXPECT_EQ(rewrite("/a/b/c/d/", name, kAmtPathNameRefused), "/a/b/c/d/") << name;
    }
    EXPECT_EQ(log.count("is not one directory of its own: m_amt_relate_path stays (/a/b/c/d/)."), 6u);
    EXPECT_TRUE(log.contains("wf_name (../../system) is not one directory of its own"));
    EXPECT_EQ(log.count("m_amt_relate_path is ("), 0u);
    // Dots inside a name are only characters.
    EXPECT_EQ(rewrite("/a/b/c/d/", "..."), "/a/b/c/.../");
    EXPECT_EQ(rewrite("/a/b/c/d/", ".w"), "/a/b/c/.w/");
}

}  // namespace
