#include "evmLog.h"

#include <cinttypes>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

struct {
    evmLogSinkFn sink = nullptr;
    bool echo = true;
    bool syslogOpen = false;
} evmLogPrivateMembers;

constexpr size_t EVM_LOG_LINE_MAX = 1024;

// Whether standard error is the journal's stream, as systemd tells a service
// it starts (JOURNAL_STREAM="DEVICE:INODE" of that stream). Checked on every
// line: after --daemon, or in a child, standard error is something else.
bool __evmLogStderrIsJournal()
{
    const char *stream = getenv("JOURNAL_STREAM");
    uintmax_t dev = 0;
    uintmax_t ino = 0;
    struct stat st = {};
    return stream != nullptr && sscanf(stream, "%ju:%ju", &dev, &ino) == 2 && fstat(STDERR_FILENO, &st) == 0 &&
           st.st_dev == dev && st.st_ino == ino;
}

// The exit signals that only ever come from outside (kill, a terminal, abort in another frame).
constexpr int EVM_LOG_HELD_SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGTERM};

} // namespace

void evmLogSetSink(evmLogSinkFn sink)
{
    evmLogPrivateMembers.sink = sink;
    evmLogPrivateMembers.echo = sink == nullptr;
}

void evmLogSetEcho(bool echo) { evmLogPrivateMembers.echo = echo; }

extern "C" void evm_log(int level, const char *source, int line, const char *format, ...)
{
    auto &m = evmLogPrivateMembers;
    char text[EVM_LOG_LINE_MAX];
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    if (n < 0) {
        text[0] = '\0';
        n = 0;
    }
    size_t len = strnlen(text, sizeof text);
    // Callers put their own newline at the end of some messages: never double it.
    if (len > 0 && text[len - 1] == '\n') {
        text[--len] = '\0';
    }
    if (m.sink != nullptr) {
        m.sink(level, source, line, text);
    }
    if (!m.echo) {
        return;
    }
    // The exit handler logs from signal context; syslog() holds a lock, so an exit signal sent while this
    // line goes out would deadlock the handler in it. Only those sent signals are kept out: a fault raised
    // here (SIGSEGV, SIGBUS, SIGILL, SIGFPE) must still reach the handler and its crash log, where a
    // blocked one would kill the process without either.
    sigset_t held;
    sigset_t previous;
    sigemptyset(&held);
    for (int sig : EVM_LOG_HELD_SIGNALS) {
        sigaddset(&held, sig);
    }
    sigprocmask(SIG_BLOCK, &held, &previous);
    // One write per line so lines from a child and its parent never interleave. Under systemd the copy is
    // left out: syslog already puts the line in the journal, with its priority.
    char out[EVM_LOG_LINE_MAX + 128];
    int outLen = snprintf(out, sizeof out, "tarnhold[%d] <%d> %s:%d: %s\n", static_cast<int>(getpid()),
                          level, source, line, text);
    if (outLen > 0 && !__evmLogStderrIsJournal()) {
        size_t w = static_cast<size_t>(outLen) < sizeof out ? static_cast<size_t>(outLen) : sizeof out - 1;
        ssize_t ignored = write(STDERR_FILENO, out, w);
        (void)ignored;
    }
    if (!m.syslogOpen) {
        openlog("tarnhold", LOG_PID | LOG_NDELAY, LOG_DAEMON);
        m.syslogOpen = true;
    }
    int prio = level <= 0 ? LOG_INFO : level >= 6 ? LOG_ERR : level >= 4 ? LOG_WARNING : LOG_NOTICE;
    syslog(prio, "%s:%d: %s", source, line, text);
    sigprocmask(SIG_SETMASK, &previous, nullptr);
}
