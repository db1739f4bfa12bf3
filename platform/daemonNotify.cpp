// Notifications to the service manager through libsystemd's sd_notify.
#include "daemonNotify.h"

#include "sysSeam.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <systemd/sd-daemon.h>

namespace {

constexpr const char *DAEMON_NOTIFY_SERVING = "Serving requests";
constexpr const char *DAEMON_NOTIFY_SERVING_LINK_CLOSED = "Serving requests; link to the microcontroller closed";
// A keep-alive at least this many times per watchdog interval: even a ping
// skipped by the rate limit just before a sleep slice leaves a gap of at most
// two eighths, so a busy stretch between pings has three quarters left.
constexpr uint64_t DAEMON_NOTIFY_PINGS_PER_INTERVAL = 8;
// Progress lines at most four times a second.
constexpr uint64_t DAEMON_NOTIFY_PROGRESS_GAP_US = 250000;
constexpr size_t DAEMON_NOTIFY_LINE_MAX = 256;

struct {
    bool enabled = false;
    bool ready = false;
    bool servingShown = false;
    bool linkClosed = false;
    uint64_t sliceUs = 0;
    bool pinged = false;
    uint64_t lastPingUs = 0;
    uint64_t lastProgressUs = 0;
    char stopNote[DAEMON_NOTIFY_LINE_MAX] = {};
    char lastStatus[DAEMON_NOTIFY_LINE_MAX] = {}; // without the note
    bool extended = false;
    uint64_t lastExtendUs = 0;
} daemonNotifyPrivateMembers;

// One datagram; the text is formatted on the stack (the loop must not allocate).
void __daemonNotifySend(const char *text)
{
    // 0: no socket; negative: the manager went away. Neither is the service's
    // business, which goes on serving either way.
    (void)sd_notify(0, text);
}

void __daemonNotifyServingLine(bool withReady)
{
    auto &m = daemonNotifyPrivateMembers;
    char line[DAEMON_NOTIFY_LINE_MAX];
    snprintf(line, sizeof line, "%sSTATUS=%s", withReady ? "READY=1\n" : "",
             m.linkClosed ? DAEMON_NOTIFY_SERVING_LINK_CLOSED : DAEMON_NOTIFY_SERVING);
    __daemonNotifySend(line);
    m.servingShown = true;
}

} // namespace

void daemonNotifyInit()
{
    auto &m = daemonNotifyPrivateMembers;
    m = {};
    const char *socket = getenv("NOTIFY_SOCKET");
    m.enabled = socket != nullptr && socket[0] != '\0';
    uint64_t watchdogUs = 0;
    // Checks WATCHDOG_PID too: a watchdog meant for another process is not ours.
    if (m.enabled && sd_watchdog_enabled(0, &watchdogUs) > 0) {
        m.sliceUs = watchdogUs / DAEMON_NOTIFY_PINGS_PER_INTERVAL;
    }
}

void daemonNotifyInitSlice(uint64_t sliceUs)
{
    auto &m = daemonNotifyPrivateMembers;
    m = {};
    m.sliceUs = sliceUs;
}

// NOLINTNEXTLINE(cert-dcl50-cpp): printf-like so that the compiler checks every format; a pack would not be
void daemonNotifyStatus(const char *format, ...)
{
    auto &m = daemonNotifyPrivateMembers;
    if (!m.enabled) {
        return;
    }
    va_list args;
    va_start(args, format);
    vsnprintf(m.lastStatus, sizeof m.lastStatus, format, args);
    va_end(args);
    char line[DAEMON_NOTIFY_LINE_MAX * 4];
    snprintf(line, sizeof line, "STATUS=%s%s%s", m.lastStatus, m.stopNote[0] != '\0' ? "; " : "", m.stopNote);
    // One line: a newline would start another assignment of the protocol.
    for (char *c = line; *c != '\0'; ++c) {
        if (*c == '\n') {
            *c = ' ';
        }
    }
    __daemonNotifySend(line);
    m.servingShown = false;
}

void daemonNotifyProgress(const char *what, const char *unit, uint32_t done, uint32_t total)
{
    auto &m = daemonNotifyPrivateMembers;
    if (!m.enabled) {
        return;
    }
    const uint64_t now = platformSys.monotonicUs();
    if (done != 0 && done != total && now - m.lastProgressUs < DAEMON_NOTIFY_PROGRESS_GAP_US) {
        return;
    }
    m.lastProgressUs = now;
    daemonNotifyStatus("%s: %u of %u %s written", what, static_cast<unsigned>(done), static_cast<unsigned>(total),
                       unit);
}

void daemonNotifyServing()
{
    auto &m = daemonNotifyPrivateMembers;
    if (!m.enabled || (m.ready && m.servingShown)) {
        return;
    }
    __daemonNotifyServingLine(!m.ready);
    m.ready = true;
}

void daemonNotifySetLinkClosed(bool closed)
{
    auto &m = daemonNotifyPrivateMembers;
    if (!m.enabled || m.linkClosed == closed) {
        return;
    }
    m.linkClosed = closed;
    // Before ready the start-up's own lines say what happens.
    if (m.ready) {
        __daemonNotifyServingLine(false);
    }
}

void daemonNotifyWatchdog()
{
    auto &m = daemonNotifyPrivateMembers;
    if (m.sliceUs == 0) {
        return;
    }
    const uint64_t now = platformSys.monotonicUs();
    if (m.pinged && now - m.lastPingUs < m.sliceUs) {
        return;
    }
    m.pinged = true;
    m.lastPingUs = now;
    __daemonNotifySend("WATCHDOG=1");
}

uint64_t daemonNotifyWatchdogSliceUs() { return daemonNotifyPrivateMembers.sliceUs; }

void daemonNotifySetStopNote(const char *note)
{
    auto &m = daemonNotifyPrivateMembers;
    snprintf(m.stopNote, sizeof m.stopNote, "%s", note != nullptr ? note : "");
    if (m.enabled && note != nullptr) {
        char current[sizeof m.lastStatus];
        memcpy(current, m.lastStatus, sizeof current);
        daemonNotifyStatus("%s", current);
    }
}

void daemonNotifyExtendStop(uint64_t us, uint64_t gapUs)
{
    auto &m = daemonNotifyPrivateMembers;
    if (!m.enabled) {
        return;
    }
    const uint64_t now = platformSys.monotonicUs();
    if (m.extended && now - m.lastExtendUs < gapUs) {
        return;
    }
    m.extended = true;
    m.lastExtendUs = now;
    char line[64];
    snprintf(line, sizeof line, "EXTEND_TIMEOUT_USEC=%llu", static_cast<unsigned long long>(us));
    __daemonNotifySend(line);
}
