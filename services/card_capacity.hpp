// PC command 137: the size of the memory card mounted at /storage/sdcard1.
#pragma once

#include <cstdint>
#include <cstdio>
#include <sys/vfs.h>

#include "channel/amt_channel.hpp"

constexpr const char* kSdcardPath = "/storage/sdcard1";
constexpr const char* kMountsPath = "/proc/mounts";

// Indexes of the figures of get_mount_capacity, in KiB.
constexpr int kCapacityTotal = 0;
constexpr int kCapacityUsed = 1;
constexpr int kCapacityAvailable = 2;

// Fills capacity_kb with total, used and available KiB of the mount point
// `path`. Returns 0; -101 for a null or empty path or a null array; -104 when
// the path is in no line of /proc/mounts; -118 when statfs failed. The array
// is written only on 0.
int get_mount_capacity(const char* path, uint32_t capacity_kb[3]);

// Whether `path` stands anywhere in a line of the mount table `mounts`: a
// plain substring test, in pieces of at most 198 bytes of a line.
bool mount_table_lists(FILE* mounts, const char* path);

// The three figures of a statfs record: blocks times block size in 64 bits,
// shifted down to KiB, low 32 bits kept. Blocks free to ordinary users serve
// for "available", so that blocks reserved for the superuser count as used.
void capacity_from_statfs(const struct statfs& st, uint32_t capacity_kb[3]);

int treat_readcapability_card_cmd(AmtChannel* row);
