// Runs on the PC transfer thread; the scan and statfs use locals alone.
#include "services/card_capacity.hpp"

#include <cstring>

#include "wire/bytes.hpp"
#include "services/pc_response.hpp"
#include "services/unique_file.hpp"

namespace {

constexpr uint32_t kRspCardCapacity = 138;
constexpr size_t kOffResult = 16;
constexpr size_t kOffTotalSize = 20;
constexpr int kMountLineSize = 200;  // read_line takes at most 198 bytes of it

uint32_t to_kib(uint64_t blocks, uint64_t block_size) { return static_cast<uint32_t>((blocks * block_size) >> 10); }

}  // namespace

bool mount_table_lists(FILE* mounts, const char* path) {
    char line[kMountLineSize];
    for (;;) {
        int32_t len = 0;
        uint8_t end = 0;
        if (read_line(mounts, line, sizeof(line), &len, &end) != 0 || end != 0) return false;
        if (strstr(line, path) != nullptr) return true;
        // A read error never reaches the end of the file: stop here, or the
        // scan would go on for ever.
        if (len == 0 && ferror(mounts) != 0) return false;
    }
}

void capacity_from_statfs(const struct statfs& st, uint32_t capacity_kb[3]) {
    const uint64_t bsize = static_cast<uint64_t>(st.f_bsize);
    const uint64_t blocks = static_cast<uint64_t>(st.f_blocks);
    const uint64_t avail = static_cast<uint64_t>(st.f_bavail);
    capacity_kb[kCapacityTotal] = to_kib(blocks, bsize);
    capacity_kb[kCapacityUsed] = to_kib(blocks - avail, bsize);
    capacity_kb[kCapacityAvailable] = to_kib(avail, bsize);
}

int get_mount_capacity(const char* path, uint32_t capacity_kb[3]) {
    const bool no_path = path == nullptr;
    const bool empty_path = path != nullptr && path[0] == '\0';
    if (no_path || empty_path || capacity_kb == nullptr) {
        log_dbg("%d, %d, %d", no_path ? 1 : 0, empty_path ? 1 : 0, capacity_kb == nullptr ? 1 : 0);
        return kRetInvalidParam;
    }
    bool mounted = false;
    {
        UniqueFile mounts(fopen(kMountsPath, "r"));
        if (mounts == nullptr) {
            log_dbg("fopen");
        } else {
            mounted = mount_table_lists(mounts.get(), path);
        }
    }
    if (!mounted) {
        log_dbg("file system \"%s\" has not been mounted", path);
        return kRetNotMounted;
    }
    struct statfs st {};
    if (statfs(path, &st) != 0) {
        log_dbg("statfs");
        return kRetResource;
    }
    capacity_from_statfs(st, capacity_kb);
    return 0;
}

int treat_readcapability_card_cmd(AmtChannel* row) {
    if (row == nullptr) {
        log_dbg("treat_readcapability_card_cmd Invalid parameter .");
        return kRetNullArg;
    }
    log_dbg("amt_device_tf_card--->external sd card path: %s", kSdcardPath);
    uint8_t frame[28] = {};
    uint32_t capacity_kb[3] = {};
    uint32_t result_code = 10;
    if (get_mount_capacity(kSdcardPath, capacity_kb) == 0) {
        log_dbg("readed success from file(%s). totalsize: %u.\n", kSdcardPath, capacity_kb[kCapacityTotal]);
        result_code = 0;
        bytes::put_le32(frame, kOffTotalSize, capacity_kb[kCapacityTotal]);
    }
    bytes::put_le32(frame, kOffResult, result_code);
    return send_pc_response(frame, sizeof(frame), kRspCardCapacity, 8);
}
