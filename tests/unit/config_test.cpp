#include <cstring>
#include <fstream>
#include <gtest/gtest.h>

#include "log_capture.hpp"
#include "process/config.hpp"
#include "process/pub_util.hpp"

namespace {

void treat(const char* text) {
    char line[256] = {};
    strncpy(line, text, sizeof(line) - 1);
    cfg_treat_line(line);
}

class ConfigLines : public ::testing::Test {
protected:
    void SetUp() override { cfg_init(); }
};

// Blanks around key and value and the line end go, tabs stay; later '=' and
// '#' are part of the value.
TEST_F(ConfigLines, ValuesComeBareAndCommentsKeylessAndUnknownLinesAreDropped) {
    treat("  # amt_relate_path = /commented/");
    treat("[section]");
    treat(" = /no/key/");
    treat("AMT_RELATE_PATH = /capitals/");
    treat("amt relate path = /inner/blanks/");
    EXPECT_STREQ(config_file_st.m_amt_relate_path, "");
    treat("   amt_relate_path   =   /amt/dir/  \r\n");
    EXPECT_STREQ(config_file_st.m_amt_relate_path, "/amt/dir/");
    cfg_init();
    treat("amt_relate_path=/a/b\t\n");
    EXPECT_STREQ(config_file_st.m_amt_relate_path, "/a/b\t");
    cfg_init();
    treat("amt_relate_path = /x=y#z");
    EXPECT_STREQ(config_file_st.m_amt_relate_path, "/x=y#z");
}

// The first non-empty amt_relate_path wins and later lines log the priority;
// the last output_more_log wins, and letters give zero.
TEST_F(ConfigLines, FirstNonEmptyAmtPathAndLastOutputMoreLogWin) {
    LogCapture log;
    treat("amt_relate_path =");
    treat("amt_relate_path = /first/");
    treat("amt_relate_path = /second/");
    EXPECT_STREQ(config_file_st.m_amt_relate_path, "/first/");
    EXPECT_EQ(log.count("command-line parameter has setted amt-relate path(/first/), it is priority."), 1u);
    treat("output_more_log = 1");
    treat("output_more_log = 0");
    EXPECT_EQ(config_file_st.output_more_log, 0u);
    treat("output_more_log = 7");
    EXPECT_EQ(config_file_st.output_more_log, 7u);
    treat("output_more_log = yes");
    EXPECT_EQ(config_file_st.output_more_log, 0u);
}

TEST_F(ConfigLines, LongValueKeepsTheFirst159Characters) {
    std::string line = "amt_relate_path=" + std::string(200, 'p');
    treat(line.c_str());
    EXPECT_EQ(strlen(config_file_st.m_amt_relate_path), kCfgPathSize - 1);
}

TEST(ConfigFileRead, ReadsAFileWithoutFinalLineEndAndSetsVerbose) {
    cfg_init();
    const char* path = "/tmp/ovta-cfg-test.ini";
    std::ofstream(path) << "# factory\r\namt_relate_path = /amt/a/\r\n" << std::string(300, 'x') << "\r\n"
                        << "output_more_log = 1";
    strncpy(config_file_st.config_file_path, path, kCfgPathSize - 1);
    LogCapture log;
    EXPECT_EQ(cfg_read(config_file_st.config_file_path), 0);
    EXPECT_STREQ(config_file_st.m_amt_relate_path, "/amt/a/");
    EXPECT_EQ(OUTPUT_MORE_LOG.load(), 1u);
    EXPECT_TRUE(log.contains("end read config file."));
    unlink(path);
    OUTPUT_MORE_LOG = 0;
}

TEST(ConfigFileRead, MissingFileIsNoErrorAndEmptyPathTakesTheDefault) {
    cfg_init();
    LogCapture log;
    EXPECT_EQ(cfg_read(""), 0);
    EXPECT_STREQ(config_file_st.config_file_path, kDefaultConfigPath);
    EXPECT_TRUE(log.contains("config_file_ptr is NULL, will use default path."));
    EXPECT_TRUE(log.contains("end read config file."));
    EXPECT_EQ(OUTPUT_MORE_LOG.load(), 0u);
}

TEST(ConfigPaths, RunTimeReplacementLeavesExactlyTheNewPath) {
    cfg_init();
    cfg_set_rf_relate_path("/data/rf/long/path/");
    cfg_set_rf_relate_path("/rf/");
    char out[kCfgPathSize];
    cfg_get_rf_relate_path(out);
    EXPECT_STREQ(out, "/rf/");
    EXPECT_EQ(out[5], '\0');  // nothing of the longer path behind it
}

}  // namespace
