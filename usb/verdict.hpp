// The flag file's rule and the verdict property.
#pragma once

// Only the first character of the flag file's first line counts: a digit 1 to
// 9 permits entry into AMT mode; 0, a blank, a line end or anything else
// refuses. (This is what atoi gives for that one character alone.)
constexpr bool amt_flag_permits(char first) { return first >= '1' && first <= '9'; }

// Judges the flag file anew: a file that is missing, unreadable or empty
// permits. Logs what it read.
bool amt_entry_permitted();

// Publishes the verdict in USB mode: "2" while the flag file permits, "1"
// while it refuses. In plain mode it only logs. Callers set g_blnPropertySet.
void amt_set_handshake_property();

// The same from a signal handler on a thread that faulted: only
// async-signal-safe calls (open/read of the flag file, the platform's
// async-safe property write and log). Publishes only in USB mode and only if
// nobody has yet (takes g_blnPropertySet itself).
void amt_publish_verdict_async_safe();
