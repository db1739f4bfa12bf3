#include "evmLog.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr size_t EVM_LOG_LINE_MAX = 1024;

struct {
    evmLogSinkFn sink = nullptr;
    bool echo = true;
    bool syslogOpen = false;
    char escaped[EVM_LOG_ESCAPE_SLOTS][EVM_LOG_ESCAPED_MAX + 1] = {};
    size_t nextSlot = 0;
} evmLogPrivateMembers;

// One byte as it goes into a line: itself, or its escape (at most 4 characters).
size_t __evmLogEscapeByte(unsigned char c, char *out)
{
    constexpr char HEX[] = "0123456789abcdef";
    const char named = c == '\n' ? 'n' : c == '\r' ? 'r' : c == '\t' ? 't' : c == '\\' ? '\\' : '\0';
    if (named != '\0') {
        out[0] = '\\';
        out[1] = named;
        return 2;
    }
    if (c >= 0x20 && c < 0x7f) {
        out[0] = static_cast<char>(c);
        return 1;
    }
    out[0] = '\\';
    out[1] = 'x';
    out[2] = HEX[c >> 4];
    out[3] = HEX[c & 0xf];
    return 4;
}

// The formatted line itself: whatever control character an argument brought
// in (a tab in the trace names' padding is the line's own) is escaped, so one
// call is one line whoever forgot to escape.
void __evmLogOneLine(char (&text)[EVM_LOG_LINE_MAX])
{
    char line[EVM_LOG_LINE_MAX]; // on the stack: the exit handler logs too
    size_t out = 0;
    bool changed = false;
    for (const char *p = text; *p != '\0' && out + 4 < sizeof line; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (c < 0x20 && c != '\t') {
            out += __evmLogEscapeByte(c, &line[out]);
            changed = true;
        } else {
            line[out++] = static_cast<char>(c);
        }
    }
    if (changed) {
        line[out] = '\0';
        memcpy(text, line, out + 1);
    }
}

// Whether standard error is the journal's stream, as systemd tells a service
// it starts (JOURNAL_STREAM="DEVICE:INODE" of that stream). Checked on every
// line: after --daemon, or in a child, standard error is something else.
bool __evmLogStderrIsJournal()
{
    const char *stream = getenv("JOURNAL_STREAM");
    if (stream == nullptr) {
        return false;
    }
    // Two numbers in range and nothing else; the caller's errno is left as it was.
    const int saved = errno;
    errno = 0;
    char *end = nullptr;
    const uintmax_t dev = strtoumax(stream, &end, 10);
    const bool devOk = errno == 0 && end != stream && *end == ':';
    const char *inoText = devOk ? end + 1 : stream;
    const uintmax_t ino = devOk ? strtoumax(inoText, &end, 10) : 0;
    const bool inoOk = devOk && errno == 0 && end != inoText && *end == '\0';
    struct stat st = {};
    const bool journal = inoOk && fstat(STDERR_FILENO, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
    errno = saved;
    return journal;
}

// The exit signals that only ever come from outside (kill, a terminal, abort in another frame).
constexpr int EVM_LOG_HELD_SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGTERM};

} // namespace

const char *evmLogEscape(const char *text)
{
    auto &m = evmLogPrivateMembers;
    char *out = m.escaped[m.nextSlot];
    m.nextSlot = (m.nextSlot + 1) % EVM_LOG_ESCAPE_SLOTS;
    constexpr char CUT[] = "...";
    size_t len = 0;
    for (const char *p = text != nullptr ? text : ""; *p != '\0'; ++p) {
        char one[4];
        const size_t n = __evmLogEscapeByte(static_cast<unsigned char>(*p), one);
        if (len + n > EVM_LOG_ESCAPED_MAX - (sizeof CUT - 1)) {
            memcpy(&out[len], CUT, sizeof CUT);
            return out;
        }
        memcpy(&out[len], one, n);
        len += n;
    }
    out[len] = '\0';
    return out;
}

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
    __evmLogOneLine(text);
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
