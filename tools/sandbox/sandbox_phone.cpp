#include "sandbox_phone.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pty.h>
#include <sstream>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace sandbox {
namespace {

namespace fs = std::filesystem;

// Phone prefixes that are plain directories of the phone's tree on the host.
struct Mapping {
    const char* phone;
    const char* host;  // relative to the root
};
constexpr Mapping kMappings[] = {
    {"/system", "system"},
    {"/amt", "amt"},
    {"/tmp", "tmp"},
    {"/test-record", "record"},
    {"/run/ovta-amt/properties", "properties"},
    {"/sys/class/android_usb/android0", "android0"},
};

constexpr const char* kSyncScript =
    "#!/bin/sh\n"
    "# Stand-in for the phone's sync: records each run, one line.\n"
    "echo sync >> /test-record/sync-runs\n";

bool write_whole(const std::string& path, std::string_view content) {
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    return static_cast<bool>(out.flush());
}

std::optional<std::string> read_whole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Name of the misc library for the platform that ro.board.platform gives.
std::string charger_library_name(const std::string& board_platform) {
    bool alt = board_platform.find("tq7101") != std::string::npos;
    return std::string("amt.") + (alt ? "tq7101" : "tq7100") + ".misc.so";
}

}  // namespace

std::string test_charger_library_path() {
#ifdef OVTA_BINARY_DIR
    return OVTA_BINARY_DIR "/libamt_test_charger.so";
#else
    std::error_code ec;
    auto self = fs::read_symlink("/proc/self/exe", ec);
    return (self.parent_path() / "libamt_test_charger.so").string();
#endif
}

std::unique_ptr<Phone> Phone::create(const PhoneSetup& setup, std::string* why) {
    std::string scratch;
    if (why == nullptr) why = &scratch;
    std::unique_ptr<Phone> phone(new Phone());

    if (!setup.root.empty()) {
        std::error_code made;
        fs::create_directories(fs::path(setup.root).parent_path(), made);
        if (mkdir(setup.root.c_str(), 0755) != 0) {
            *why = "mkdir " + setup.root + ": " + strerror(errno);
            return nullptr;
        }
        phone->root_ = setup.root;
        phone->keep_root_ = true;
    } else {
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ovta-phone-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            *why = std::string("mkdtemp: ") + strerror(errno);
            return nullptr;
        }
        phone->root_ = pattern;
    }
    phone->sdcard_bytes_ = setup.sdcard_bytes;
    phone->host_dirs_ = setup.host_dirs;
    phone->env_ = setup.env;

    std::error_code ec;
    for (const Mapping& m : kMappings) fs::create_directories(phone->root_ + "/" + m.host, ec);
    fs::create_directories(phone->root_ + "/system/etc", ec);
    fs::create_directories(phone->root_ + "/system/lib64/hw", ec);
    if (ec) {
        *why = "creating the phone's directories: " + ec.message();
        return nullptr;
    }
    std::string sync = phone->root_ + "/system/bin/sync";
    if (!write_whole(sync, kSyncScript) || chmod(sync.c_str(), 0755) != 0) {
        *why = "writing " + sync;
        return nullptr;
    }
    if (setup.config && !phone->write_file("/system/etc/ovta_amt.ini", *setup.config)) {
        *why = "writing the configuration file";
        return nullptr;
    }
    if (!phone->set_usb_state(setup.usb_state)) {
        *why = "writing the USB state file";
        return nullptr;
    }
    if (!setup.board_platform.empty() &&
        !write_whole(phone->root_ + "/properties/ro.board.platform", setup.board_platform)) {
        *why = "writing ro.board.platform";
        return nullptr;
    }
    if (setup.charger_library) {
        std::string lib = phone->root_ + "/system/lib64/hw/" + charger_library_name(setup.board_platform);
        fs::copy_file(test_charger_library_path(), lib, ec);
        if (ec) {
            *why = "placing the test charger library " + test_charger_library_path() + ": " + ec.message();
            return nullptr;
        }
        if (!phone->write_file("/system/etc/test-charger", setup.charger_behaviour)) {
            *why = "writing /system/etc/test-charger";
            return nullptr;
        }
    }

    if (setup.serial_port) {
        termios raw{};
        cfmakeraw(&raw);
        if (openpty(&phone->master_fd_, &phone->slave_fd_, nullptr, &raw, nullptr) != 0) {
            *why = std::string("openpty: ") + strerror(errno);
            return nullptr;
        }
        fcntl(phone->master_fd_, F_SETFD, FD_CLOEXEC);
        fcntl(phone->slave_fd_, F_SETFD, FD_CLOEXEC);
        fcntl(phone->master_fd_, F_SETFL, fcntl(phone->master_fd_, F_GETFL) | O_NONBLOCK);
        char name[64] = {};
        if (ttyname_r(phone->slave_fd_, name, sizeof(name)) != 0) {
            *why = "ttyname of the pseudo-terminal";
            return nullptr;
        }
        phone->slave_path_ = name;
    }
    return phone;
}

Phone::~Phone() {
    if (master_fd_ >= 0) close(master_fd_);
    if (slave_fd_ >= 0) close(slave_fd_);
    if (!root_.empty() && !keep_root_ && getenv("OVTA_E2E_KEEP_PHONE") == nullptr) {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
}

std::vector<std::string> Phone::bwrap_args() const {
    std::vector<std::string> a = {
        "--ro-bind", "/usr", "/usr",
        "--symlink", "usr/bin", "/bin",
        "--symlink", "usr/lib", "/lib",
        "--symlink", "usr/lib64", "/lib64",
        "--symlink", "usr/sbin", "/sbin",
        "--ro-bind", "/etc", "/etc",
        "--proc", "/proc",
        "--dev", "/dev",
        "--ro-bind", root_ + "/system", "/system",
        "--bind", root_ + "/amt", "/amt",
        "--bind", root_ + "/tmp", "/tmp",
        "--bind", root_ + "/record", "/test-record",
        "--bind", root_ + "/properties", "/run/ovta-amt/properties",
        "--ro-bind", root_ + "/android0", "/sys/class/android_usb/android0",
    };
    if (sdcard_bytes_) {
        a.insert(a.end(), {"--size", std::to_string(*sdcard_bytes_), "--tmpfs", "/storage/sdcard1"});
    }
    // After --dev, which would hide it; the source is the host's device node.
    if (!slave_path_.empty()) a.insert(a.end(), {"--dev-bind", slave_path_, "/dev/ttyGS3"});
    // After /tmp, so that a build tree under the host's /tmp is not hidden.
    // Shorter paths first: a build tree inside the source tree is bound after
    // it, so the source tree's bind does not hide it.
    std::vector<std::string> dirs = host_dirs_;
    std::sort(dirs.begin(), dirs.end(), [](const std::string& x, const std::string& y) { return x.size() < y.size(); });
    for (const std::string& d : dirs) {
#ifdef OVTA_WRITABLE_BINARY_DIR
        // A coverage build: its programs add their counts to the build tree.
        const char* bind = d == OVTA_BINARY_DIR ? "--bind" : "--ro-bind";
#else
        const char* bind = "--ro-bind";
#endif
        a.insert(a.end(), {bind, d, d});
    }
    for (const auto& [name, value] : env_) a.insert(a.end(), {"--setenv", name, value});
    a.insert(a.end(), {"--chdir", "/"});
    return a;
}

std::string Phone::host_path(std::string_view phone_path) const {
    for (const Mapping& m : kMappings) {
        std::string_view prefix = m.phone;
        if (phone_path.substr(0, prefix.size()) != prefix) continue;
        std::string_view rest = phone_path.substr(prefix.size());
        if (!rest.empty() && rest.front() != '/') continue;
        return root_ + "/" + m.host + std::string(rest);
    }
    return {};
}

bool Phone::write_file(std::string_view phone_path, std::string_view content) {
    std::string p = host_path(phone_path);
    return !p.empty() && write_whole(p, content);
}

std::optional<std::string> Phone::read_file(std::string_view phone_path) const {
    std::string p = host_path(phone_path);
    if (p.empty()) return std::nullopt;
    return read_whole(p);
}

bool Phone::exists(std::string_view phone_path) const {
    std::string p = host_path(phone_path);
    std::error_code ec;
    return !p.empty() && fs::exists(p, ec);
}

std::optional<std::string> Phone::property(const std::string& key) const {
    return read_whole(root_ + "/properties/" + key);
}

int Phone::sync_runs() const {
    auto text = read_whole(root_ + "/record/sync-runs");
    if (!text) return 0;
    int n = 0;
    for (char c : *text) n += c == '\n';
    return n;
}

std::vector<std::string> Phone::charger_calls() const {
    std::vector<std::string> calls;
    auto text = read_whole(root_ + "/record/charger-calls");
    if (!text) return calls;
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line);) calls.push_back(line);
    return calls;
}

bool Phone::set_usb_state(std::string_view content) {
    // In place (no rename), so an open descriptor and the bind both see it.
    return write_whole(root_ + "/android0/state", content);
}

}  // namespace sandbox
