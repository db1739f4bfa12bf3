// The guard around every flash: history entry, journal events, inhibitor
// lock, and the stop that waits for the flash to end.
#include "flashGuard.h"

#include "daemonNotify.h"
#include "evmLog.h"
#include "uniqueFd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-journal.h>

namespace {

constexpr const char *FLASH_GUARD_SOURCE = "main";
// The history is rewritten this many times over a flash, besides its start
// and end: a cut-short flash shows how far it got within an eighth.
constexpr uint32_t FLASH_GUARD_PROGRESS_WRITES = 8;
constexpr size_t FLASH_GUARD_WHY_MAX = 512;
constexpr size_t FLASH_GUARD_PATH_MAX = 4096;
// While a deferred stop waits, systemd's stop timeout is pushed this far
// ahead at every progress or wait, at most once per FLASH_GUARD_EXTEND_GAP_US.
constexpr uint64_t FLASH_GUARD_EXTEND_US = 60000000;
constexpr uint64_t FLASH_GUARD_EXTEND_GAP_US = 10000000;

// Fixed ids of the journal events (journalctl MESSAGE_ID=...), explained by
// the catalog the package installs.
constexpr const char *FLASH_GUARD_ID_STARTED = "7c289e562ad142c5a6bc1db8ab5ab5ab";
constexpr const char *FLASH_GUARD_ID_FINISHED = "f5af6997ecea46e4820dfe44735be2a3";
constexpr const char *FLASH_GUARD_ID_FAILED = "e62cf328d7bc4f56aab08908f3ee1f05";
constexpr const char *FLASH_GUARD_ID_STOP_DEFERRED = "991f8bd4baba41ecb991a755baee317e";

struct {
    flashGuardOps ops = FLASH_GUARD_QUIET;
    void (*carryOut)(int sig) = nullptr;
    uniqueFd history;
    uint64_t lastSeq = 0;
    flashHistoryEntry entry;
    bool entryOpen = false;
    uint32_t nextWriteAt = 0;
    uniqueFd lock;
    // Read and written by the signal handler.
    volatile sig_atomic_t window = 0;
    volatile sig_atomic_t pendingSig = 0;
    bool noted = false;
    bool lockRefusalSaid = false; // no bus or no logind: said once
} flashGuardPrivateMembers;

auto &guard = flashGuardPrivateMembers;

void __flashGuardCopy(std::span<char> field, const char *text)
{
    snprintf(field.data(), field.size(), "%s", text != nullptr ? text : "");
}

void __flashGuardWrite(bool sync)
{
    if (!guard.history.valid()) {
        return;
    }
    const int err = flashHistoryWrite(guard.history.get(), guard.entry, sync);
    if (err != 0) {
        evm_log(0, FLASH_GUARD_SOURCE, __LINE__, "flash history: write failed: %s", strerror(err));
    }
    ++guard.entry.update;
}

// Entries a former run left running were cut short: said, and marked so.
void __flashGuardSettle(const flashHistoryEntry &e, void *)
{
    auto &m = guard;
    m.lastSeq = std::max(m.lastSeq, e.seq);
    if (e.result != flashResult::RUNNING) {
        return;
    }
    flashHistoryEntry settled = e;
    settled.result = flashResult::INTERRUPTED;
    settled.update = e.update + 1;
    evm_log(0, FLASH_GUARD_SOURCE, __LINE__, "flash history: the %s flash from %s never ended (%u of %u %s written)",
            flashHistoryWhatName(e.what), e.file.data(), static_cast<unsigned>(e.done), static_cast<unsigned>(e.total),
            flashHistoryUnit(e.what));
    flashHistoryWrite(m.history.get(), settled, true);
}

void __flashGuardJournal(flashEvent event, const flashHistoryEntry &e, int sig)
{
    char digest[2 * FLASH_HISTORY_DIGEST_SIZE + 1];
    for (size_t i = 0; i < FLASH_HISTORY_DIGEST_SIZE; ++i) {
        snprintf(&digest[2 * i], 3, "%02x", e.digest[i]);
    }
    const char *what = flashHistoryWhatName(e.what);
    const char *unit = flashHistoryUnit(e.what);
    switch (event) {
    case flashEvent::STARTED:
        sd_journal_send("MESSAGE_ID=%s", FLASH_GUARD_ID_STARTED, "MESSAGE=%s flash started from %s (%u %s to write)",
                        what, e.file.data(), e.total, unit, "PRIORITY=%d", LOG_NOTICE, "TARNHOLD_FLASH=%s", what,
                        "FILE=%s", e.file.data(), "SIZE=%llu", static_cast<unsigned long long>(e.size), "DIGEST=%s",
                        digest, "BLOCKS_TOTAL=%u", e.total, nullptr);
        break;
    case flashEvent::FINISHED:
    case flashEvent::FAILED: {
        const bool ok = event == flashEvent::FINISHED;
        sd_journal_send("MESSAGE_ID=%s", ok ? FLASH_GUARD_ID_FINISHED : FLASH_GUARD_ID_FAILED,
                        "MESSAGE=%s flash from %s %s (%u of %u %s written%s%s)", what, e.file.data(),
                        ok ? "finished" : "failed", e.done, e.total, unit, ok ? "" : ": ", ok ? "" : e.why.data(),
                        "PRIORITY=%d", ok ? LOG_NOTICE : LOG_ERR, "TARNHOLD_FLASH=%s", what, "FILE=%s", e.file.data(),
                        "SIZE=%llu", static_cast<unsigned long long>(e.size), "DIGEST=%s", digest, "RESULT=%s",
                        flashHistoryResultName(e.result), "RC=%d", e.rc, "REASON=%s", e.why.data(), "BLOCKS=%u", e.done,
                        "BLOCKS_TOTAL=%u", e.total, nullptr);
        break;
    }
    case flashEvent::STOP_DEFERRED:
        sd_journal_send("MESSAGE_ID=%s", FLASH_GUARD_ID_STOP_DEFERRED,
                        "MESSAGE=Stop (signal %d) deferred until the %s flash from %s has ended", sig, what,
                        e.file.data(), "PRIORITY=%d", LOG_NOTICE, "TARNHOLD_FLASH=%s", what, "FILE=%s", e.file.data(),
                        "SIGNAL=%d", sig, "BLOCKS=%u", e.done, "BLOCKS_TOTAL=%u", e.total, nullptr);
        break;
    }
}

// Says once why no lock is taken; the flash goes on without it.
int __flashGuardLockRefused(const char *what, int err)
{
    if (!guard.lockRefusalSaid) {
        guard.lockRefusalSaid = true;
        evm_log(0, FLASH_GUARD_SOURCE, __LINE__,
                "no inhibitor lock against shutdown and sleep (%s: %s); flashing without it", what, strerror(err));
    }
    return -1;
}

int __flashGuardLogind(const char *why)
{
    sd_bus *bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r < 0) {
        return __flashGuardLockRefused("no system bus", -r);
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message *reply = nullptr;
    r = sd_bus_call_method(bus, "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                           "Inhibit", &error, &reply, "ssss", "shutdown:sleep", "tarnhold", why, "block");
    int fd = -1;
    if (r < 0) {
        __flashGuardLockRefused(error.message != nullptr ? error.message : "logind", -r);
    } else if (int held = -1; (r = sd_bus_message_read(reply, "h", &held)) < 0) {
        __flashGuardLockRefused("logind's answer", -r);
    } else {
        // The message owns its descriptor: ours is a copy that outlives it.
        fd = fcntl(held, F_DUPFD_CLOEXEC, 3);
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return fd;
}

int64_t __flashGuardNow() { return static_cast<int64_t>(time(nullptr)); }

// MD5 (RFC 1321) on the stack: the upgrades run in the service's steady state,
// where nothing may be allocated (OpenSSL's digest contexts are).
constexpr std::array<uint32_t, 64> FLASH_GUARD_MD5_K = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
constexpr std::array<uint8_t, 16> FLASH_GUARD_MD5_SHIFT = {7, 12, 17, 22, 5, 9, 14, 20, 4, 11, 16, 23, 6, 10, 15, 21};
constexpr size_t FLASH_GUARD_MD5_BLOCK = 64;

void __flashGuardMd5Block(std::array<uint32_t, 4> &h, const uint8_t *block)
{
    uint32_t w[16];
    for (size_t i = 0; i < 16; ++i) {
        w[i] = uint32_t(block[4 * i]) | uint32_t(block[4 * i + 1]) << 8 | uint32_t(block[4 * i + 2]) << 16 |
               uint32_t(block[4 * i + 3]) << 24;
    }
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
    for (uint32_t i = 0; i < 64; ++i) {
        uint32_t f = 0, g = 0;
        switch (i / 16) {
        case 0: f = (b & c) | (~b & d); g = i; break;
        case 1: f = (d & b) | (~d & c); g = (5 * i + 1) % 16; break;
        case 2: f = b ^ c ^ d; g = (3 * i + 5) % 16; break;
        default: f = c ^ (b | ~d); g = (7 * i) % 16; break;
        }
        const uint32_t sum = a + f + FLASH_GUARD_MD5_K[i] + w[g];
        const uint32_t shift = FLASH_GUARD_MD5_SHIFT[(i / 16) * 4 + i % 4];
        a = d;
        d = c;
        c = b;
        b += (sum << shift) | (sum >> (32 - shift));
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
}

} // namespace

const flashGuardOps FLASH_GUARD_SYSTEM = {
    .event = __flashGuardJournal,
    .inhibit = __flashGuardLogind,
    .nowSec = __flashGuardNow,
};

const flashGuardOps FLASH_GUARD_QUIET = {
    .event = [](flashEvent, const flashHistoryEntry &, int) {},
    .inhibit = [](const char *) { return -1; },
    .nowSec = __flashGuardNow,
};

void flashGuardInit(const flashGuardOps &ops, const char *stateDir, void (*carryOut)(int sig))
{
    auto &m = guard;
    flashGuardReset();
    m.ops = ops;
    m.carryOut = carryOut;
    if (stateDir == nullptr) {
        return;
    }
    std::array<char, FLASH_GUARD_PATH_MAX> path;
    snprintf(path.data(), path.size(), "%s/%s", stateDir, FLASH_HISTORY_FILE);
    // The folder systemd makes for the unit; by hand it may be missing.
    if (mkdir(stateDir, 0755) != 0 && errno != EEXIST) {
        evm_log(0, FLASH_GUARD_SOURCE, __LINE__, "flash history: cannot make %s: %s", stateDir, strerror(errno));
        return;
    }
    m.history.reset(open(path.data(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!m.history.valid()) {
        evm_log(0, FLASH_GUARD_SOURCE, __LINE__, "flash history: cannot open %s: %s", path.data(), strerror(errno));
        return;
    }
    const int damaged = flashHistoryRead(m.history.get(), __flashGuardSettle, nullptr);
    if (damaged > 0) {
        evm_log(0, FLASH_GUARD_SOURCE, __LINE__, "flash history: %d damaged lines in %s skipped", damaged, path.data());
    }
}

void flashGuardReset()
{
    auto &m = guard;
    m.history.reset();
    m.lock.reset();
    m.ops = FLASH_GUARD_QUIET;
    m.carryOut = nullptr;
    m.lastSeq = 0;
    m.entryOpen = false;
    m.window = 0;
    m.pendingSig = 0;
    m.noted = false;
    m.lockRefusalSaid = false;
}

void flashGuardBegin(flashWhat what, const char *path, uint64_t size, const uint8_t *digest, uint32_t total)
{
    auto &m = guard;
    m.window = 1;
    m.entry = {};
    m.entry.seq = ++m.lastSeq;
    m.entry.pid = static_cast<int32_t>(getpid());
    m.entry.what = what;
    m.entry.startSec = m.ops.nowSec();
    m.entry.total = total;
    m.entry.size = size;
    std::copy_n(digest, FLASH_HISTORY_DIGEST_SIZE, m.entry.digest.begin());
    __flashGuardCopy(m.entry.file, path);
    m.entryOpen = true;
    m.nextWriteAt = std::max<uint32_t>(total / FLASH_GUARD_PROGRESS_WRITES, 1);
    if (!m.lock.valid()) {
        char why[FLASH_GUARD_WHY_MAX];
        snprintf(why, sizeof why, "Writing the %s from %s (%u %s); cut short it leaves the appliance unusable",
                 flashHistoryWhatName(what), m.entry.file.data(), static_cast<unsigned>(total), flashHistoryUnit(what));
        m.lock.reset(m.ops.inhibit(why));
    }
    __flashGuardWrite(true);
    m.ops.event(flashEvent::STARTED, m.entry, 0);
    flashGuardPoll();
}

void flashGuardProgress(uint32_t done)
{
    auto &m = guard;
    if (!m.entryOpen) {
        return;
    }
    m.entry.done = done;
    if (done >= m.nextWriteAt && done < m.entry.total) {
        const uint32_t step = std::max<uint32_t>(m.entry.total / FLASH_GUARD_PROGRESS_WRITES, 1);
        while (m.nextWriteAt <= done) {
            m.nextWriteAt += step;
        }
        __flashGuardWrite(false);
    }
    flashGuardPoll();
}

void flashGuardEnd(int32_t rc, const char *why)
{
    auto &m = guard;
    if (!m.entryOpen) {
        return;
    }
    m.entry.rc = rc;
    m.entry.result = rc == 0 ? flashResult::OK : flashResult::FAILED;
    m.entry.endSec = m.ops.nowSec();
    __flashGuardCopy(m.entry.why, rc == 0 ? "" : why);
    __flashGuardWrite(true);
    m.ops.event(rc == 0 ? flashEvent::FINISHED : flashEvent::FAILED, m.entry, 0);
    m.entryOpen = false;
}

void flashGuardLeave(bool clientWaits)
{
    auto &m = guard;
    if (m.window == 0) {
        return;
    }
    m.lock.reset();
    flashGuardPoll();
    m.window = 0;
    if (!clientWaits) {
        if (const int sig = flashGuardStopDue(); sig != 0 && m.carryOut != nullptr) {
            m.carryOut(sig);
        }
    }
}

bool flashGuardDefer(int sig)
{
    auto &m = guard;
    if (m.window == 0 && m.pendingSig == 0) {
        return false;
    }
    if (m.pendingSig == 0) {
        m.pendingSig = sig;
    }
    return true;
}

void flashGuardPoll()
{
    auto &m = guard;
    if (m.pendingSig == 0) {
        return;
    }
    if (!m.noted) {
        m.noted = true;
        const int sig = m.pendingSig;
        const char *what = flashHistoryWhatName(m.entry.what);
        evm_log(0, FLASH_GUARD_SOURCE, __LINE__, "signal %d: stop deferred until the %s flash has ended (%u of %u %s written)",
                sig, what, static_cast<unsigned>(m.entry.done), static_cast<unsigned>(m.entry.total),
                flashHistoryUnit(m.entry.what));
        char note[FLASH_GUARD_WHY_MAX];
        snprintf(note, sizeof note, "stopping once the %s flash has ended (signal %d)", what, sig);
        daemonNotifySetStopNote(note);
        m.ops.event(flashEvent::STOP_DEFERRED, m.entry, sig);
    }
    if (m.window != 0) {
        daemonNotifyExtendStop(FLASH_GUARD_EXTEND_US, FLASH_GUARD_EXTEND_GAP_US);
    }
}

int flashGuardStopDue()
{
    auto &m = guard;
    if (m.window != 0 || m.pendingSig == 0) {
        return 0;
    }
    const int sig = m.pendingSig;
    m.pendingSig = 0;
    m.noted = false;
    daemonNotifySetStopNote(nullptr);
    return sig;
}

bool flashGuardActive() { return guard.window != 0; }

void flashGuardMd5(const uint8_t *bytes, size_t len, uint8_t *digest)
{
    std::array<uint32_t, 4> h = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    size_t done = 0;
    for (; len - done >= FLASH_GUARD_MD5_BLOCK; done += FLASH_GUARD_MD5_BLOCK) {
        __flashGuardMd5Block(h, &bytes[done]);
    }
    // The tail, 0x80, zeros and the length in bits: one or two blocks more.
    std::array<uint8_t, 2 * FLASH_GUARD_MD5_BLOCK> tail = {};
    const size_t rest = len - done;
    std::copy_n(&bytes[done], rest, tail.begin());
    tail[rest] = 0x80;
    const size_t tailLen = rest < FLASH_GUARD_MD5_BLOCK - 8 ? FLASH_GUARD_MD5_BLOCK : 2 * FLASH_GUARD_MD5_BLOCK;
    const uint64_t bits = static_cast<uint64_t>(len) * 8;
    for (size_t i = 0; i < 8; ++i) {
        tail[tailLen - 8 + i] = static_cast<uint8_t>(bits >> (8 * i));
    }
    for (size_t at = 0; at < tailLen; at += FLASH_GUARD_MD5_BLOCK) {
        __flashGuardMd5Block(h, &tail[at]);
    }
    for (size_t i = 0; i < FLASH_HISTORY_DIGEST_SIZE; ++i) {
        digest[i] = static_cast<uint8_t>(h[i / 4] >> (8 * (i % 4)));
    }
}
