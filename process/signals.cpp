// Signal handling. SIGINT, SIGTERM and SIGQUIT are blocked on every thread and
// taken by a signal thread with sigwaitinfo; that thread does the logging, the
// one teardown and the exit, where that work is safe.
//
// SIGSEGV and SIGBUS cannot be blocked: a fault delivers them to the faulting
// thread whatever its mask. Their handler tells the two cases apart:
// - sent by another process (si_code <= 0): it is handed to the signal thread
//   with sigqueue on a reserved real-time signal carrying the number, and the
//   service ends by the ordinary road;
// - raised by a fault: returning would fault again and the state may be
//   corrupt, so the handler writes the exit lines with async-signal-safe calls
//   and ends the process with code 0 at once, without a teardown. In USB mode
//   it first publishes the verdict property, also with async-signal-safe
//   calls only, so that a crash never leaves the factory line without one.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

#include "platform/async_safe_text.hpp"
#include "platform/platform.hpp"
#include "process/lifecycle.hpp"
#include "process/pub_util.hpp"
#include "usb/verdict.hpp"

#ifdef OVTA_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace {

constexpr int kExitSignals[] = {SIGINT, SIGTERM, SIGSEGV, SIGBUS, SIGQUIT};

int forward_signal() { return SIGRTMAX - 1; }

void fault_signal_handler(int sig, siginfo_t* info, void*) {
    if (info != nullptr && info->si_code <= 0) {
        int saved = errno;
        union sigval value {};
        value.sival_int = sig;
        sigqueue(getpid(), forward_signal(), value);
        errno = saved;
        return;
    }
    char line[64];
    const char text[] = "receive signal: ";
    size_t len = platform::append_text(line, 0, sizeof(line), text, sizeof(text) - 1);
    line[platform::append_decimal(line, len, sizeof(line), static_cast<unsigned>(sig))] = '\0';
    platform::log_write_async_safe(platform::kLogDebug, kLogTag, line);
    platform::log_write_async_safe(platform::kLogDebug, kLogTag, "receive signal to exit\n");
    amt_publish_verdict_async_safe();
    platform::log_write_async_safe(platform::kLogDebug, kLogTag, "will exit\r\n");
#ifdef OVTA_COVERAGE
    // _exit skips the writing of the counts; a coverage build writes them here.
    __gcov_dump();
#endif
    _exit(0);
}

void handle_exit_signal(int sig) {
    log_dbg("receive signal: %d", sig);
    if (g_blnExitSignal.exchange(1) == 1) return;
    for (int s : kExitSignals) signal(s, SIG_IGN);
    if (!claim_exit_road()) {
        // The start has failed and is ending the process with its own code.
        log_dbg("the failed start ends the process");
        for (;;) pause();
    }
    log_dbg("receive signal to exit\n");
    main_handle_stop();
    await_main_thread_parked();
    exit(0);
}

sigset_t waited_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGQUIT);
    sigaddset(&set, forward_signal());
    return set;
}

void* signal_thread_proc(void*) {
    sigset_t set = waited_signals();
    for (;;) {
        siginfo_t info{};
        int sig = sigwaitinfo(&set, &info);
        if (sig < 0) {
            if (errno == EINTR) continue;
            log_err("sigwaitinfo failed: %d - %s", errno, strerror(errno));
            return nullptr;
        }
        handle_exit_signal(sig == forward_signal() ? info.si_value.sival_int : sig);
    }
}

}  // namespace

int install_exit_signals() {
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa {};
    sa.sa_sigaction = fault_signal_handler;
    sa.sa_flags = SA_SIGINFO;
    sigfillset(&sa.sa_mask);
    sigaction(SIGSEGV, &sa, nullptr);
    sigaction(SIGBUS, &sa, nullptr);

    // Every thread started from here on inherits the blocked signals; only
    // the signal thread takes them.
    sigset_t set = waited_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    pthread_t tid{};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    int err = pthread_create(&tid, &attr, signal_thread_proc, nullptr);
    pthread_attr_destroy(&attr);
    if (err != 0) {
        // Nobody would take the blocked signals: a SIGTERM would be lost.
        log_err("signal thread: %d - %s", err, strerror(err));
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    }
    return err;
}
