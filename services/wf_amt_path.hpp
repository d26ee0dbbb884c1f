// The AMT directory of a wf_name, for the enter-AMT command in mode 4: the
// factory keeps the files of each wf_name in a directory of its own at the
// fourth level of m_amt_relate_path, e.g. /data/amt/wf/<wf_name>/.
#pragma once

#include "process/config.hpp"

constexpr int kAmtPathRewritten = 0;
constexpr int kAmtPathNoFourthSlash = 1;
constexpr int kAmtPathNameRefused = 1;

// Cuts `path` right behind its fourth slash (a leading slash is the first)
// and appends wf_name and one slash, "%s%s/", cut to the 159 characters the
// field holds. So /a/b/c/d/e/ with w becomes /a/b/c/w/, and a second name
// replaces the first instead of nesting. Logs "m_amt_relate_path is (%s)."
// before, after the cut and after the append. A path with fewer than four
// slashes stays as it is and logs "count is not 4".
//
// The identity files and the test result store are written by root into the
// directory this gives, so the name must be one directory below the cut
// path: a name that holds a slash, or is "." or "..", would lead elsewhere
// ("../../system"). It is refused with a log line and the path stays.
//
// Returns kAmtPathRewritten, kAmtPathNoFourthSlash or kAmtPathNameRefused,
// the result_code of response 18. Fits cfg_edit_amt_relate_path, which runs
// it under the lock.
// Whether wf_name names one directory of its own: no slash, not "." nor "..".
bool wf_name_stays_in_parent(const char* wf_name);

int amt_path_rewrite_for_wf(char (&path)[kCfgPathSize], const char* wf_name);
