// The history file of flashes: fixed-size text lines, two copies per entry,
// each line with its own checksum.
#include "flashHistory.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <unistd.h>

namespace {

constexpr const char *FLASH_HISTORY_MAGIC = "TFH1";
// The line's last bytes: " sum=" and 8 hex digits of the checksum, then '\n'.
constexpr size_t FLASH_HISTORY_SUM_SIZE = 14;
constexpr size_t FLASH_HISTORY_BODY = FLASH_HISTORY_LINE - FLASH_HISTORY_SUM_SIZE;
// Escaped text may take up to three bytes a character; these are the room the
// line gives each (a longer path is cut).
constexpr size_t FLASH_HISTORY_FILE_ROOM = 250;
constexpr size_t FLASH_HISTORY_WHY_ROOM = 96;
// The fixed fields at their widest.
constexpr size_t FLASH_HISTORY_FIXED_MAX =
    sizeof "TFH1 seq=18446744073709551615 upd=4294967295 pid=-2147483648 what=microcontroller res=interrupted "
           "rc=-2147483648 start=-9223372036854775808 end=-9223372036854775808 done=4294967295 total=4294967295 "
           "size=18446744073709551615 md5=00112233445566778899aabbccddeeff file= why=";
static_assert(FLASH_HISTORY_FIXED_MAX + FLASH_HISTORY_FILE_ROOM + FLASH_HISTORY_WHY_ROOM <= FLASH_HISTORY_BODY,
              "every field fits a line at its widest");

constexpr std::array<const char *, FLASH_WHAT_COUNT> FLASH_WHAT_NAMES = {"microcontroller", "FPGA", "CPLD"};
constexpr std::array<const char *, FLASH_WHAT_COUNT> FLASH_WHAT_UNITS = {"blocks", "pages", "pages"};
constexpr std::array<const char *, FLASH_RESULT_COUNT> FLASH_RESULT_NAMES = {"running", "ok", "failed", "interrupted"};

// FNV-1a, 32 bits: enough to tell a torn or foreign line from a whole one.
uint32_t __flashHistorySum(const char *bytes, size_t len)
{
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < len; ++i) {
        h = (h ^ static_cast<uint8_t>(bytes[i])) * 16777619u;
    }
    return h;
}

// Text as a value without blanks: anything outside printable ASCII, '%' and
// '=' as %XX. Stops before `room` would be passed.
size_t __flashHistoryEscape(const char *text, char *out, size_t room)
{
    size_t n = 0;
    for (const char *c = text; *c != '\0'; ++c) {
        const auto b = static_cast<uint8_t>(*c);
        const bool plain = b > 0x20 && b < 0x7F && b != '%' && b != '=';
        if (n + (plain ? 1 : 3) > room) {
            break;
        }
        if (plain) {
            out[n++] = *c;
        } else {
            snprintf(&out[n], 4, "%%%02X", b);
            n += 3;
        }
    }
    out[n] = '\0';
    return n;
}

int __flashHistoryHex(char c)
{
    return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool __flashHistoryUnescape(std::string_view value, std::span<char> out)
{
    size_t n = 0;
    for (size_t i = 0; i < value.size(); ++i) {
        if (n + 1 >= out.size()) {
            return false;
        }
        if (value[i] != '%') {
            out[n++] = value[i];
            continue;
        }
        if (i + 2 >= value.size() + 0 || __flashHistoryHex(value[i + 1]) < 0 || __flashHistoryHex(value[i + 2]) < 0) {
            return false;
        }
        out[n++] = static_cast<char>(__flashHistoryHex(value[i + 1]) << 4 | __flashHistoryHex(value[i + 2]));
        i += 2;
    }
    out[n] = '\0';
    return true;
}

template <typename T> bool __flashHistoryNumber(std::string_view value, T &out)
{
    if (value.empty() || value.size() > 20) {
        return false;
    }
    char buf[24];
    memcpy(buf, value.data(), value.size());
    buf[value.size()] = '\0';
    char *end = nullptr;
    errno = 0;
    if constexpr (std::is_signed_v<T>) {
        const long long v = strtoll(buf, &end, 10);
        out = static_cast<T>(v);
        return errno == 0 && *end == '\0' && static_cast<long long>(out) == v;
    } else {
        if (buf[0] == '-') {
            return false;
        }
        const unsigned long long v = strtoull(buf, &end, 10);
        out = static_cast<T>(v);
        return errno == 0 && *end == '\0' && static_cast<unsigned long long>(out) == v;
    }
}

template <size_t N> bool __flashHistoryName(std::string_view value, const std::array<const char *, N> &names, uint8_t &out)
{
    for (size_t i = 0; i < N; ++i) {
        if (value == names[i]) {
            out = static_cast<uint8_t>(i);
            return true;
        }
    }
    return false;
}

bool __flashHistoryField(std::string_view key, std::string_view value, flashHistoryEntry &e, unsigned &seen)
{
    uint8_t index = 0;
    constexpr std::array<std::string_view, 14> KEYS = {"seq", "upd", "pid", "what", "res", "rc", "start",
                                                      "end", "done", "total", "size", "md5", "file", "why"};
    size_t k = 0;
    while (k < KEYS.size() && KEYS[k] != key) {
        ++k;
    }
    if (k == KEYS.size() || (seen & (1u << k)) != 0) {
        return false;
    }
    seen |= 1u << k;
    switch (k) {
    case 0: return __flashHistoryNumber(value, e.seq) && e.seq != 0;
    case 1: return __flashHistoryNumber(value, e.update);
    case 2: return __flashHistoryNumber(value, e.pid);
    case 3: return __flashHistoryName(value, FLASH_WHAT_NAMES, index) && ((e.what = flashWhat(index)), true);
    case 4: return __flashHistoryName(value, FLASH_RESULT_NAMES, index) && ((e.result = flashResult(index)), true);
    case 5: return __flashHistoryNumber(value, e.rc);
    case 6: return __flashHistoryNumber(value, e.startSec);
    case 7: return __flashHistoryNumber(value, e.endSec);
    case 8: return __flashHistoryNumber(value, e.done);
    case 9: return __flashHistoryNumber(value, e.total);
    case 10: return __flashHistoryNumber(value, e.size);
    case 11:
        if (value.size() != 2 * FLASH_HISTORY_DIGEST_SIZE) {
            return false;
        }
        for (size_t i = 0; i < FLASH_HISTORY_DIGEST_SIZE; ++i) {
            const int hi = __flashHistoryHex(value[2 * i]);
            const int lo = __flashHistoryHex(value[2 * i + 1]);
            if (hi < 0 || lo < 0) {
                return false;
            }
            e.digest[i] = static_cast<uint8_t>(hi << 4 | lo);
        }
        return true;
    case 12: return __flashHistoryUnescape(value, e.file);
    default: return __flashHistoryUnescape(value, e.why);
    }
}

off_t __flashHistoryOffset(uint64_t seq, uint32_t copy)
{
    const uint64_t place = (seq - 1) % FLASH_HISTORY_ENTRIES;
    return static_cast<off_t>((place * FLASH_HISTORY_COPIES + copy) * FLASH_HISTORY_LINE);
}

// The newer whole copy of one ring place; false when neither is whole.
// `damaged` counts the copies that were there but did not read.
bool __flashHistoryReadPlace(int fd, size_t place, flashHistoryEntry &best, int &damaged)
{
    bool found = false;
    for (uint32_t copy = 0; copy < FLASH_HISTORY_COPIES; ++copy) {
        std::array<char, FLASH_HISTORY_LINE> line;
        const off_t at = static_cast<off_t>((place * FLASH_HISTORY_COPIES + copy) * FLASH_HISTORY_LINE);
        const ssize_t n = pread(fd, line.data(), line.size(), at);
        if (n <= 0) {
            continue;
        }
        flashHistoryEntry e;
        if (!flashHistoryParse(std::span<const char>(line.data(), static_cast<size_t>(n)), e)) {
            // A place never written reads as nothing (or as the zeros of a hole).
            damaged += std::any_of(line.begin(), line.begin() + n, [](char c) { return c != '\0'; }) ? 1 : 0;
            continue;
        }
        if ((e.seq - 1) % FLASH_HISTORY_ENTRIES != place) {
            ++damaged;
            continue;
        }
        if (!found || e.seq > best.seq || (e.seq == best.seq && e.update > best.update)) {
            best = e;
            found = true;
        }
    }
    return found;
}

} // namespace

const char *flashHistoryWhatName(flashWhat what) { return FLASH_WHAT_NAMES[static_cast<size_t>(what) % FLASH_WHAT_COUNT]; }

const char *flashHistoryUnit(flashWhat what) { return FLASH_WHAT_UNITS[static_cast<size_t>(what) % FLASH_WHAT_COUNT]; }

const char *flashHistoryResultName(flashResult r)
{
    return FLASH_RESULT_NAMES[static_cast<size_t>(r) % FLASH_RESULT_COUNT];
}

bool flashHistoryPath(std::span<char> out)
{
    const char *env = getenv("STATE_DIRECTORY");
    std::string_view dir = env != nullptr && env[0] != '\0' ? std::string_view(env) : FLASH_HISTORY_DEFAULT_DIR;
    // systemd lists one path per StateDirectory= entry, separated by colons.
    dir = dir.substr(0, dir.find(':'));
    const int n = snprintf(out.data(), out.size(), "%.*s/%s", static_cast<int>(dir.size()), dir.data(), FLASH_HISTORY_FILE);
    return n > 0 && static_cast<size_t>(n) < out.size() && dir.starts_with('/');
}

void flashHistoryFormat(const flashHistoryEntry &e, std::span<char, FLASH_HISTORY_LINE> line)
{
    char file[FLASH_HISTORY_FILE_ROOM + 1];
    char why[FLASH_HISTORY_WHY_ROOM + 1];
    __flashHistoryEscape(e.file.data(), file, FLASH_HISTORY_FILE_ROOM);
    __flashHistoryEscape(e.why.data(), why, FLASH_HISTORY_WHY_ROOM);
    char md5[2 * FLASH_HISTORY_DIGEST_SIZE + 1];
    for (size_t i = 0; i < FLASH_HISTORY_DIGEST_SIZE; ++i) {
        snprintf(&md5[2 * i], 3, "%02x", e.digest[i]);
    }
    std::fill(line.begin(), line.end(), ' ');
    const int n = snprintf(line.data(), FLASH_HISTORY_BODY + 1,
                           "%s seq=%" PRIu64 " upd=%" PRIu32 " pid=%" PRId32 " what=%s res=%s rc=%" PRId32
                           " start=%" PRId64 " end=%" PRId64 " done=%" PRIu32 " total=%" PRIu32 " size=%" PRIu64
                           " md5=%s file=%s why=%s",
                           FLASH_HISTORY_MAGIC, e.seq, e.update, e.pid, flashHistoryWhatName(e.what),
                           flashHistoryResultName(e.result), e.rc, e.startSec, e.endSec, e.done, e.total, e.size, md5,
                           file, why);
    // snprintf's NUL becomes padding again.
    line[std::min(static_cast<size_t>(std::max(n, 0)), FLASH_HISTORY_BODY)] = ' ';
    char sum[FLASH_HISTORY_SUM_SIZE + 1];
    snprintf(sum, sizeof sum, " sum=%08x\n", __flashHistorySum(line.data(), FLASH_HISTORY_BODY));
    memcpy(&line[FLASH_HISTORY_BODY], sum, FLASH_HISTORY_SUM_SIZE);
}

bool flashHistoryParse(std::span<const char> line, flashHistoryEntry &e)
{
    if (line.size() != FLASH_HISTORY_LINE || line.back() != '\n') {
        return false;
    }
    char sum[FLASH_HISTORY_SUM_SIZE + 1];
    snprintf(sum, sizeof sum, " sum=%08x\n", __flashHistorySum(line.data(), FLASH_HISTORY_BODY));
    if (memcmp(sum, &line[FLASH_HISTORY_BODY], FLASH_HISTORY_SUM_SIZE) != 0) {
        return false;
    }
    std::string_view body(line.data(), FLASH_HISTORY_BODY);
    body = body.substr(0, body.find_last_not_of(' ') + 1);
    if (!body.starts_with(FLASH_HISTORY_MAGIC) || body.size() <= 4 || body[4] != ' ') {
        return false;
    }
    body.remove_prefix(5);
    e = {};
    unsigned seen = 0;
    while (!body.empty()) {
        const size_t space = body.find(' ');
        const std::string_view field = body.substr(0, space);
        body = space == std::string_view::npos ? std::string_view() : body.substr(space + 1);
        const size_t eq = field.find('=');
        if (eq == std::string_view::npos || !__flashHistoryField(field.substr(0, eq), field.substr(eq + 1), e, seen)) {
            return false;
        }
    }
    // Every field there: a line of another layout is not guessed at.
    return seen == (1u << 14) - 1;
}

int flashHistoryWrite(int fd, const flashHistoryEntry &e, bool sync)
{
    std::array<char, FLASH_HISTORY_LINE> line;
    flashHistoryFormat(e, line);
    const off_t at = __flashHistoryOffset(e.seq, e.update % FLASH_HISTORY_COPIES);
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = pwrite(fd, &line[done], line.size() - done, at + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n < 0 ? errno : EIO;
        }
        done += static_cast<size_t>(n);
    }
    if (sync && fdatasync(fd) != 0) {
        return errno;
    }
    return 0;
}

int flashHistoryRead(int fd, void (*visit)(const flashHistoryEntry &e, void *ctx), void *ctx)
{
    // The newest entry's place first: the ring is visited from the place after it.
    uint64_t newest = 0;
    size_t newestPlace = 0;
    int damaged = 0;
    for (size_t place = 0; place < FLASH_HISTORY_ENTRIES; ++place) {
        flashHistoryEntry e;
        if (__flashHistoryReadPlace(fd, place, e, damaged) && e.seq > newest) {
            newest = e.seq;
            newestPlace = place;
        }
    }
    if (newest == 0) {
        return damaged;
    }
    damaged = 0;
    for (size_t i = 1; i <= FLASH_HISTORY_ENTRIES; ++i) {
        flashHistoryEntry e;
        if (__flashHistoryReadPlace(fd, (newestPlace + i) % FLASH_HISTORY_ENTRIES, e, damaged)) {
            visit(e, ctx);
        }
    }
    return damaged;
}
