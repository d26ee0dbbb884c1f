// The RF table list that wfmgr announces: up to 30 rows of 72 bytes, each the
// wire form of the announcement (table_type u16 at 0, six unused bytes, the
// file name, zero-terminated, in the 64 bytes from offset 8).
//
// The wfmgr transfer thread replaces the rows while the PC transfer thread looks
// them up, so both go through these functions, which hold one lock: a lookup
// sees the old list or the new one whole, never a half-replaced row.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kRftabRowSize = 72;
constexpr size_t kRftabMaxRows = 30;
constexpr size_t kRftabListSize = kRftabRowSize * kRftabMaxRows;  // 2160
constexpr size_t kRftabNameOffset = 8;
constexpr size_t kRftabNameSize = 64;

// Sets the count to 0 (the rows keep their bytes but are out of use).
void rftab_list_clear();

// Copies len bytes of rows over the start of the list and sets the count to
// len / 72. Rows behind the copied ones keep their old bytes. The caller has
// already refused a len above the list's 2160 bytes. Returns the new count.
uint32_t rftab_list_replace(const uint8_t* rows, uint32_t len);

// The number of valid rows (for log lines: a refill may change it at once).
uint32_t rftab_list_count();

// Finds the first valid row whose 16-bit table_type equals table_type and
// copies its name (at most 63 characters, terminated) into name. False when
// no row matches; name is then untouched.
bool rftab_list_find(uint32_t table_type, char (&name)[kRftabNameSize]);
