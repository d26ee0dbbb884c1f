#include "bench_rig.hpp"

#include <csignal>
#include <thread>

namespace linebench {
namespace {

std::string peer_path(const char* name) { return std::string(OVTA_BENCH_PEER_DIR) + "/" + name; }

// The TCP echo listens as soon as it logs so.
std::unique_ptr<sandbox::Daemon> start_echo(const sandbox::Phone& phone, const std::vector<std::string>& args,
                                            std::string* why) {
    auto d = sandbox::Daemon::start(phone, peer_path("ovta-bench-tcp-echo"), args, why);
    if (d && !d->wait_for_log("listening on", Millis(10000))) {
        *why = "the TCP echo did not start listening";
        return nullptr;
    }
    return d;
}

}  // namespace

std::unique_ptr<Rig> Rig::create(std::string* why) {
    if (!sandbox::enter_private_network(why)) return nullptr;
    std::unique_ptr<Rig> rig(new Rig());
    rig->peer_phone_ = rig->make_phone(false, why);
    if (!rig->peer_phone_) return nullptr;
    rig->wfmgr_echo_ = start_echo(*rig->peer_phone_,
                                  {"--port", std::to_string(kWfmgrPort), "--format", "wfmgr", "--rf-path", "/amt/rf/",
                                   "--rftab", std::to_string(kRfTableType) + "=" + kRfTableFile},
                                  why);
    if (!rig->wfmgr_echo_) return nullptr;
    rig->pc_echo_ = start_echo(*rig->peer_phone_, {"--port", std::to_string(kPcEchoPort), "--format", "pc"}, why);
    if (!rig->pc_echo_) return nullptr;
    return rig;
}

Rig::~Rig() {
    for (auto* d : {pc_echo_.get(), wfmgr_echo_.get()}) {
        if (d != nullptr && d->signal(SIGTERM)) d->wait_exit(Millis(5000));
    }
}

std::unique_ptr<sandbox::Phone> Rig::make_phone(bool serial_port, std::string* why) {
    sandbox::PhoneSetup setup;
    setup.serial_port = serial_port;
    setup.sdcard_bytes.reset();
    setup.host_dirs.push_back(OVTA_BINARY_DIR);
    auto phone = sandbox::Phone::create(setup, why);
    if (!phone) return nullptr;
    std::string table(kRfTableBytes, '\0');
    for (size_t i = 0; i < table.size(); ++i) table[i] = static_cast<char>(i * 131 + i / 4093);
    if (!phone->write_file(std::string("/amt/rf/") + kRfTableFile, table) ||
        !phone->write_file("/run/ovta-amt/properties/ro.build.display.tq.id", kVersion)) {
        *why = "writing the phone's files";
        return nullptr;
    }
    return phone;
}

std::unique_ptr<OnLine> Rig::start_on_line(const std::string& program, const std::vector<std::string>& args,
                                           std::string* why) {
    auto p = std::make_unique<OnLine>();
    p->phone = make_phone(true, why);
    if (!p->phone) return nullptr;
    // The relay's log goes to a file: reading it line by line would cost the
    // measuring process a wake-up per line, on the same cores as the relay.
    sandbox::DaemonOptions options;
    options.log_through_file = true;
    p->program = sandbox::Daemon::start(*p->phone, program, args, why, options);
    if (!p->program) return nullptr;
    p->pc = std::make_unique<PcSide>(p->phone->pc_master());
    return p;
}

std::unique_ptr<OnLine> Rig::start_agent(const std::vector<std::string>& args, std::string* why) {
    auto p = start_on_line(sandbox::default_daemon_path(), args, why);
    if (!p) return nullptr;
    if (!p->program->wait_for_log("handle_start success", Millis(30000))) {
        *why = "the agent did not start";
        return nullptr;
    }
    bool usb = false;
    for (const std::string& a : args) usb = usb || a == "-m";
    if (usb) p->note = p->pc->open_line(p->program.get(), Millis(2500));
    return p;
}

std::unique_ptr<OnLine> Rig::start_socat(std::string* why) {
    auto p = start_on_line("/usr/bin/socat",
                           {"OPEN:/dev/ttyGS3,rawer", "TCP4:127.0.0.1:" + std::to_string(kPcEchoPort) + ",nodelay"},
                           why);
    if (!p) return nullptr;
    p->note = p->pc->open_line(nullptr, Millis(300));
    return p;
}

std::unique_ptr<OnLine> Rig::start_raw_echo(std::string* why) {
    auto p = start_on_line(peer_path("ovta-bench-pty-echo"),
                           {"--version-len", std::to_string(std::string(kVersion).size())}, why);
    if (!p) return nullptr;
    if (!p->program->wait_for_log("echoing on", Millis(10000))) {
        *why = "the raw echo did not start";
        return nullptr;
    }
    p->note = p->pc->open_line(nullptr, Millis(300));
    return p;
}

void Rig::stop(OnLine& p) {
    if (p.program && p.program->signal(SIGTERM)) p.program->wait_exit(Millis(10000));
}

}  // namespace linebench
