// tarnholdctl history, and the unfinished flash for status.
#include "tarnholdCtlHistory.h"

#include "tarnholdCtlText.h"
#include "uniqueFd.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>

namespace {

constexpr size_t HISTORY_PATH_MAX = 4096;
constexpr const char *HISTORY_SERVICE = "tarnhold";

struct historyRead {
    std::vector<flashHistoryEntry> entries;
    int damaged = 0;
    std::string path;
    int err = 0; // errno of a failed open; ENOENT: nothing flashed yet
};

historyRead __historyLoad()
{
    historyRead out;
    std::array<char, HISTORY_PATH_MAX> path;
    if (!flashHistoryPath(path)) {
        out.err = ENAMETOOLONG;
        return out;
    }
    out.path = path.data();
    uniqueFd fd(open(path.data(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        out.err = errno;
        return out;
    }
    const int damaged = flashHistoryRead(
        fd.get(),
        [](const flashHistoryEntry &e, void *ctx) { static_cast<historyRead *>(ctx)->entries.push_back(e); }, &out);
    out.damaged = damaged < 0 ? 0 : damaged;
    if (damaged < 0) {
        out.err = -damaged;
    }
    return out;
}

// A path as the terminal shows it: anything but printable ASCII as \xHH.
std::string __historyText(const char *text)
{
    std::string out;
    for (const char *c = text; *c != '\0'; ++c) {
        const auto b = static_cast<unsigned char>(*c);
        if (b >= 0x20 && b < 0x7F && b != '\\') {
            out += *c;
        } else {
            char hex[5];
            snprintf(hex, sizeof hex, "\\x%02X", b);
            out += hex;
        }
    }
    return out;
}

std::string __historyTime(int64_t sec)
{
    if (sec <= 0) {
        return "-";
    }
    const auto t = static_cast<time_t>(sec);
    struct tm local = {};
    char text[32] = "-";
    // No date that fits: the seconds as they are.
    if (localtime_r(&t, &local) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0) {
        return std::to_string(sec);
    }
    return text;
}

std::string __historyDigest(const flashHistoryEntry &e)
{
    std::string hex;
    for (uint8_t b : e.digest) {
        char two[3];
        snprintf(two, sizeof two, "%02x", b);
        hex += two;
    }
    return hex;
}

// The text of one entry on one line.
std::string __historyLine(const flashHistoryEntry &e)
{
    const flashResult state = tarnholdCtlHistoryState(e);
    char line[1024];
    snprintf(line, sizeof line, "%s  %-15s %-11s %u/%u %s  %s  %llu bytes  md5 %s", __historyTime(e.startSec).c_str(),
             flashHistoryWhatName(e.what),
             state == flashResult::RUNNING ? "under way" : flashHistoryResultName(state),
             static_cast<unsigned>(e.done), static_cast<unsigned>(e.total), flashHistoryUnit(e.what),
             __historyText(e.file.data()).c_str(), static_cast<unsigned long long>(e.size),
             __historyDigest(e).c_str());
    std::string out = line;
    if (e.endSec > 0) {
        out += "  ended " + __historyTime(e.endSec);
    }
    if (state == flashResult::FAILED && e.why[0] != '\0') {
        out += std::string(": ") + e.why.data() + " (status " + std::to_string(e.rc) + ")";
    }
    return out;
}

std::string __historyJson(const flashHistoryEntry &e)
{
    const flashResult state = tarnholdCtlHistoryState(e);
    std::string out = "{\"seq\":" + std::to_string(e.seq);
    out += ",\"what\":" + tarnholdCtlJsonString(flashHistoryWhatName(e.what));
    out += ",\"result\":" + tarnholdCtlJsonString(state == flashResult::RUNNING ? "under way" : flashHistoryResultName(state));
    out += ",\"status\":" + std::to_string(e.rc);
    out += ",\"started\":" + std::to_string(e.startSec) + ",\"ended\":" + (e.endSec > 0 ? std::to_string(e.endSec) : "null");
    out += ",\"done\":" + std::to_string(e.done) + ",\"total\":" + std::to_string(e.total);
    out += ",\"unit\":" + tarnholdCtlJsonString(flashHistoryUnit(e.what));
    out += ",\"file\":" + tarnholdCtlJsonString(e.file.data()) + ",\"size\":" + std::to_string(e.size);
    out += ",\"md5\":" + tarnholdCtlJsonString(__historyDigest(e));
    out += ",\"why\":" + tarnholdCtlJsonString(e.why.data()) + ",\"pid\":" + std::to_string(e.pid) + "}";
    return out;
}

} // namespace

flashResult tarnholdCtlHistoryState(const flashHistoryEntry &e)
{
    if (e.result != flashResult::RUNNING) {
        return e.result;
    }
    // Under way only while the service that wrote it still runs.
    std::ifstream comm("/proc/" + std::to_string(e.pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    const bool alive = e.pid > 0 && (kill(e.pid, 0) == 0 || errno == EPERM) && name == HISTORY_SERVICE;
    return alive ? flashResult::RUNNING : flashResult::INTERRUPTED;
}

tarnholdCtlHistoryOutcome tarnholdCtlHistory(bool json)
{
    const historyRead h = __historyLoad();
    if (h.err != 0 && h.err != ENOENT) {
        fprintf(stderr, "tarnholdctl: %s: %s\n", h.path.empty() ? "$STATE_DIRECTORY" : h.path.c_str(), strerror(h.err));
        return tarnholdCtlHistoryOutcome::UNREADABLE;
    }
    if (json) {
        std::string out = "{\"file\":" + tarnholdCtlJsonString(h.path) + ",\"damaged\":" + std::to_string(h.damaged) +
                          ",\"entries\":[";
        for (size_t i = 0; i < h.entries.size(); ++i) {
            out += (i > 0 ? "," : "") + __historyJson(h.entries[i]);
        }
        printf("%s]}\n", out.c_str());
        return tarnholdCtlHistoryOutcome::PRINTED;
    }
    if (h.entries.empty()) {
        printf("no flash recorded in %s\n", h.path.c_str());
    }
    for (const flashHistoryEntry &e : h.entries) {
        printf("%s\n", __historyLine(e).c_str());
    }
    if (h.damaged > 0) {
        printf("(%d damaged lines skipped)\n", h.damaged);
    }
    return tarnholdCtlHistoryOutcome::PRINTED;
}

std::vector<std::string> tarnholdCtlHistoryUnfinished()
{
    const historyRead h = __historyLoad();
    std::vector<std::string> out;
    for (flashWhat what : {flashWhat::FPGA, flashWhat::CPLD}) {
        const flashHistoryEntry *newest = nullptr;
        for (const flashHistoryEntry &e : h.entries) {
            newest = e.what == what ? &e : newest;
        }
        if (newest == nullptr) {
            continue;
        }
        const flashResult state = tarnholdCtlHistoryState(*newest);
        if (state != flashResult::INTERRUPTED && state != flashResult::FAILED) {
            continue;
        }
        const char *command = what == flashWhat::FPGA ? "fpga-upgrade" : "cpld-upgrade";
        char text[1024];
        snprintf(text, sizeof text, "the %s flash from %s started %s %s at %u of %u %s: write it again (tarnholdctl %s %s)",
                 flashHistoryWhatName(what), __historyText(newest->file.data()).c_str(),
                 __historyTime(newest->startSec).c_str(), state == flashResult::FAILED ? "failed" : "never finished",
                 static_cast<unsigned>(newest->done), static_cast<unsigned>(newest->total), flashHistoryUnit(what),
                 command, __historyText(newest->file.data()).c_str());
        out.push_back(text);
    }
    return out;
}
