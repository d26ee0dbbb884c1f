// The phone: a temporary directory on the host that holds the phone's state,
// and the bubblewrap arguments that lay it out where the daemon expects it.
//
//   /usr, /etc               the host's, read-only; /bin /lib /lib64 /sbin link into /usr
//   /proc, /dev              fresh, from bubblewrap
//   /system                  <root>/system, read-only to the phone:
//     etc/ovta_amt.ini       the configuration file, when the setup gives one
//     bin/sync               a stand-in that appends one line to /test-record/sync-runs
//     etc/test-charger       what the test charger library does (see below)
//     lib64/hw/amt.<platform>.misc.so   the test charger library, named after
//                            the platform that ro.board.platform gives
//   /amt                     <root>/amt, writable
//   /tmp                     <root>/tmp: daemons on one phone share the lock file
//   /run/ovta-amt/properties <root>/properties, one file per system property
//                            (ro.board.platform when the setup gives one)
//   /sys/class/android_usb/android0/state   <root>/android0/state
//   /storage/sdcard1         a tmpfs of the chosen size (a mount of its own)
//   /dev/ttyGS3              the slave of a pseudo-terminal; the test holds the master
//   /test-record             <root>/record: what stand-in programs report
//   host_dirs                read-only at their host paths (build and source trees)
//   env                      set for every program run in the phone (e.g. LD_PRELOAD)
//
// The test charger library records each call of amt_usb_charger_enable in
// /test-record/charger-calls. The flag file /amt/power_usb_amt.txt is absent
// until a test writes it. Uevents for the USB monitor come from the test's
// network namespace, which the phone shares (sandbox_uevent.hpp).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sandbox {

struct PhoneSetup {
    // Content of /system/etc/ovta_amt.ini; no file when empty.
    std::optional<std::string> config;
    // Content of the USB state file.
    std::string usb_state = "CONFIGURED\n";
    // Size of the memory card in bytes; no card mounted when empty.
    std::optional<uint64_t> sdcard_bytes = 16u << 20;
    // Whether /dev/ttyGS3 exists.
    bool serial_port = true;
    // Value of ro.board.platform; unset when empty. The charger library is
    // placed under the name that the platform gives (tq7101 when the value
    // contains it, else tq7100).
    std::string board_platform;
    // Whether the test charger library is there.
    bool charger_library = true;
    // What amt_usb_charger_enable does after recording the call: return this
    // number, or crash for real with "fault".
    std::string charger_behaviour = "0";
    // Host directories visible read-only at the same path, e.g. the build tree.
    std::vector<std::string> host_dirs;
    // Environment variables set for every program run in the phone, e.g.
    // LD_PRELOAD of a stand-in library from the build tree.
    std::vector<std::pair<std::string, std::string>> env;
    // Where the phone's tree goes on the host: a directory that must not
    // exist yet, created, and kept after the phone (a fixture keeps every
    // phone it took off). Empty: a fresh temporary directory, removed with
    // the phone.
    std::string root;
};

// The test charger library as built, on the host.
std::string test_charger_library_path();

class Phone {
public:
    // Builds the phone's tree; null, with the reason in `why`, on failure.
    static std::unique_ptr<Phone> create(const PhoneSetup& setup, std::string* why = nullptr);
    ~Phone();
    Phone(const Phone&) = delete;
    Phone& operator=(const Phone&) = delete;

    // Bubblewrap options that build the phone; the program and its arguments go after.
    std::vector<std::string> bwrap_args() const;

    // Where a phone path under /system, /amt, /tmp, /test-record,
    // /run/ovta-amt/properties or /sys/class/android_usb/android0 lies on the
    // host; empty for other paths.
    std::string host_path(std::string_view phone_path) const;

    // Writes a file of the phone from the host side, creating its directories.
    bool write_file(std::string_view phone_path, std::string_view content);
    // Reads a file of the phone; nothing when it is missing.
    std::optional<std::string> read_file(std::string_view phone_path) const;
    bool exists(std::string_view phone_path) const;

    // Value of a system property the daemon set; nothing when it is unset.
    std::optional<std::string> property(const std::string& key) const;
    // Number of runs of /system/bin/sync so far.
    int sync_runs() const;
    // The calls of the charger library so far, one line each, e.g.
    // "amt_usb_charger_enable(0)".
    std::vector<std::string> charger_calls() const;
    // Rewrites the USB state file in place.
    bool set_usb_state(std::string_view content);

    // Master side of /dev/ttyGS3, raw and non-blocking; -1 without a serial port.
    int pc_master() const { return master_fd_; }
    const std::string& root() const { return root_; }

private:
    Phone() = default;

    std::string root_;
    bool keep_root_ = false;
    std::string slave_path_;
    int master_fd_ = -1;
    int slave_fd_ = -1;  // kept open so the master sees no hang-up between daemons
    std::optional<uint64_t> sdcard_bytes_;
    std::vector<std::string> host_dirs_;
    std::vector<std::pair<std::string, std::string>> env_;
};

}  // namespace sandbox
