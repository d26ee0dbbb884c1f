// Signal handling. The handler of the five exit signals does nothing but hand
// the signal number to the signal thread through a pipe (a write is safe in a
// handler); the signal thread does the logging, the teardown and the exit,
// where that work is safe. The exit signals are blocked on every other thread,
// so they normally reach the signal thread directly.
//
// A SIGSEGV or SIGBUS raised by a fault arrives on the faulting thread and
// cannot be handed on: returning would fault again. Its handler writes the
// exit lines with async-signal-safe calls and ends the process with code 0,
// without a teardown of state that may be corrupt. The same signals sent by
// another process take the ordinary road.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "platform/platform.hpp"
#include "process/lifecycle.hpp"
#include "process/pub_util.hpp"

namespace {

constexpr int kExitSignals[] = {SIGINT, SIGTERM, SIGSEGV, SIGBUS, SIGQUIT};
int g_signal_pipe[2] = {-1, -1};

void format_signal_line(char* out, size_t cap, const char* text, int sig) {
    size_t pos = 0;
    for (const char* p = text; *p && pos + 1 < cap; ++p) out[pos++] = *p;
    char digits[12];
    size_t n = 0;
    unsigned v = static_cast<unsigned>(sig);
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v && n < sizeof(digits));
    while (n && pos + 1 < cap) out[pos++] = digits[--n];
    out[pos] = '\0';
}

void exit_signal_handler(int sig, siginfo_t* info, void*) {
    int saved = errno;
    bool fault = (sig == SIGSEGV || sig == SIGBUS) && info != nullptr && info->si_code > 0;
    if (fault) {
        char line[64];
        format_signal_line(line, sizeof(line), "receive signal: ", sig);
        platform::log_write_async_safe(platform::kLogDebug, kLogTag, line);
        platform::log_write_async_safe(platform::kLogDebug, kLogTag, "receive signal to exit\n");
        platform::log_write_async_safe(platform::kLogDebug, kLogTag, "will exit\r\n");
        _exit(0);
    }
    auto b = static_cast<unsigned char>(sig);
    ssize_t n = write(g_signal_pipe[1], &b, 1);
    (void)n;
    errno = saved;
}

void handle_exit_signal(int sig) {
    log_dbg("receive signal: %d", sig);
    if (g_blnExitSignal.exchange(1) == 1) return;
    for (int s : kExitSignals) signal(s, SIG_IGN);
    log_dbg("receive signal to exit\n");
    main_handle_stop();
    exit(0);
}

void* signal_thread_proc(void*) {
    sigset_t set;
    sigemptyset(&set);
    for (int s : kExitSignals) sigaddset(&set, s);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    for (;;) {
        unsigned char b = 0;
        ssize_t n = read(g_signal_pipe[0], &b, 1);
        if (n == 1) {
            handle_exit_signal(b);
        } else if (n < 0 && errno != EINTR) {
            log_err("signal pipe read failed: %d - %s", errno, strerror(errno));
            return nullptr;
        }
    }
}

}  // namespace

void install_exit_signals() {
    signal(SIGPIPE, SIG_IGN);
    if (pipe2(g_signal_pipe, O_CLOEXEC) != 0) {
        log_err("signal pipe: %d - %s", errno, strerror(errno));
        return;
    }
    struct sigaction sa {};
    sa.sa_sigaction = exit_signal_handler;
    sa.sa_flags = SA_SIGINFO | SA_RESTART;
    sigfillset(&sa.sa_mask);
    for (int s : kExitSignals) sigaction(s, &sa, nullptr);

    // Every thread started from here on inherits the blocked exit signals;
    // only the signal thread takes them.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGQUIT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    pthread_t tid{};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    int err = pthread_create(&tid, &attr, signal_thread_proc, nullptr);
    pthread_attr_destroy(&attr);
    if (err != 0) {
        // Without the thread the signals are taken where they arrive.
        log_err("signal thread: %d - %s", err, strerror(err));
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    }
}
