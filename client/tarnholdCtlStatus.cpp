// tarnholdctl status: pid file and process, the service's state in systemd,
// request FIFO, a round trip, the platform text, slot 4 against the firmware
// file, the CPLD record, fan mode.
#include "tarnholdCtlStatus.h"

#include "qxLoader.h"
#include "tarnholdCtlFirmware.h"
#include "tarnholdCtlHistory.h"
#include "tarnholdCtlText.h"
#include "tarnholdCtlUpgrade.h"
#include "viaI2c.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <grp.h>
#include <limits>
#include <pwd.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr const char *STATUS_PID_FILE = "/var/run/tarnhold.pid";
constexpr const char *STATUS_PROCESS_NAME = "tarnhold";
constexpr uint8_t STATUS_PROBE_CODE = 200;       // no handler: answered with 8 and nothing sent to the device
constexpr size_t STATUS_DAEMON_FILE_NAME_MAX = 294; // longest --file name the daemon takes
// Present only when systemd is the running init: otherwise nothing is said about it.
constexpr const char *STATUS_SYSTEMD_RUNNING = "/run/systemd/system";
constexpr const char *STATUS_SYSTEMD_SHOW =
    "systemctl show -p ActiveState,SubState,StatusText tarnhold.service 2>/dev/null";

enum class statusState { OK, UNAVAILABLE, FAILED };

struct statusCheck {
    const char *name;
    statusState state;
    std::string text;
};

struct {
    std::vector<statusCheck> checks;
    tarnholdClientParams params;
    bool denied = false; // the request FIFO refused us
    std::string next;    // the one thing to do before anything else, or empty
} tarnholdCtlStatusPrivateMembers;

void __statusAdd(const char *name, statusState state, std::string text)
{
    tarnholdCtlStatusPrivateMembers.checks.push_back({name, state, std::move(text)});
}

std::string __statusReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The daemon's pid, or 0 after the check has said what is wrong.
pid_t __statusDaemon()
{
    const std::string text = __statusReadFile(STATUS_PID_FILE);
    // A number and at most a newline: anything else (a number out of range, text after it) is no pid.
    char *end = nullptr;
    errno = 0;
    const long number = strtol(text.c_str(), &end, 10);
    const bool whole = errno == 0 && end != text.c_str() && (*end == '\0' || std::strcmp(end, "\n") == 0);
    const bool inRange = number > 0 && number <= std::numeric_limits<pid_t>::max();
    const pid_t pid = whole && inRange ? static_cast<pid_t>(number) : 0;
    if (pid <= 0) {
        __statusAdd("daemon", statusState::FAILED, std::string("no pid in ") + STATUS_PID_FILE);
        return 0;
    }
    std::string name = __statusReadFile("/proc/" + std::to_string(pid) + "/comm");
    if (!name.empty() && name.back() == '\n') {
        name.pop_back();
    }
    if (kill(pid, 0) != 0 && errno == ESRCH) {
        __statusAdd("daemon", statusState::FAILED, "pid " + std::to_string(pid) + " is not running (stale pid file)");
        return 0;
    }
    if (name != STATUS_PROCESS_NAME) {
        __statusAdd("daemon", statusState::FAILED, "pid " + std::to_string(pid) + " is " + name + ", not tarnhold");
        return 0;
    }
    __statusAdd("daemon", statusState::OK, "pid " + std::to_string(pid));
    return pid;
}

// The unit's state and the status line the service last sent, as systemctl
// status shows them: "active (running): Serving requests".
void __statusSystemd()
{
    struct stat st = {};
    if (stat(STATUS_SYSTEMD_RUNNING, &st) != 0) {
        return;
    }
    std::string active, sub, text;
    FILE *show = popen(STATUS_SYSTEMD_SHOW, "r"); // NOLINT(cert-env33-c): a fixed systemctl command, no input in it
    if (show == nullptr) {
        __statusAdd("systemd", statusState::FAILED, std::string("systemctl: ") + strerror(errno));
        return;
    }
    std::array<char, 512> line = {};
    while (fgets(line.data(), static_cast<int>(line.size()), show) != nullptr) {
        std::string_view l(line.data());
        if (l.ends_with('\n')) {
            l.remove_suffix(1);
        }
        const size_t eq = l.find('=');
        if (eq == std::string_view::npos) {
            continue;
        }
        const std::string_view key = l.substr(0, eq);
        std::string *field = key == "ActiveState" ? &active : key == "SubState" ? &sub
                             : key == "StatusText"  ? &text
                                                    : nullptr;
        if (field != nullptr) {
            *field = l.substr(eq + 1);
        }
    }
    pclose(show);
    if (active.empty()) {
        // An unknown unit still has an ActiveState: nothing at all means systemctl
        // could not ask, as an account other than root without the system D-Bus.
        __statusAdd("systemd", statusState::UNAVAILABLE, "not available: systemctl gave no answer");
        return;
    }
    // Starting counts as well: the status line says how far the start-up upgrade is.
    const bool well = active == "active" || active == "activating";
    __statusAdd("systemd", well ? statusState::OK : statusState::FAILED,
                active + " (" + sub + ")" + (text.empty() ? "" : ": " + text));
}

// The daemon's --file (the last one it takes) and --fifo-group from its
// command line, read as its option parse reads them: an abbreviation shared
// by both options ("--fi") is --file.
void __statusDaemonOptions(pid_t pid, std::string &file, std::string &group)
{
    std::string cmdline = __statusReadFile("/proc/" + std::to_string(pid) + "/cmdline");
    std::vector<std::string> words;
    for (size_t at = 0, end; at < cmdline.size(); at = end + 1) {
        end = cmdline.find('\0', at);
        end = end == std::string::npos ? cmdline.size() : end;
        words.push_back(cmdline.substr(at, end - at));
    }
    for (size_t i = 1; i < words.size(); ++i) {
        std::string_view word = words[i];
        if (word == "--") {
            break;
        }
        size_t eq = word.find('=');
        std::string_view option = word.substr(0, eq);
        bool isFile = std::string_view("--file").starts_with(option);
        if (option.size() < 3 || !option.starts_with("--") ||
            !(isFile || std::string_view("--fifo-group").starts_with(option))) {
            continue;
        }
        std::string value = eq != std::string_view::npos ? std::string(word.substr(eq + 1))
                            : i + 1 < words.size()      ? words[++i]
                                                        : "";
        if (!isFile) {
            group = value;
        } else if (!value.empty() && value.size() <= STATUS_DAEMON_FILE_NAME_MAX) {
            file = value;
        }
    }
}

// An account's or a group's name from its number (getpwuid_r, getgrgid_r),
// the number itself when the database has none.
template <typename Entry, typename Id>
std::string __statusName(Id id, int (*lookup)(Id, Entry *, char *, size_t, Entry **), char *Entry::*name)
{
    char buf[4096];
    Entry entry = {};
    Entry *found = nullptr;
    return lookup(id, &entry, buf, sizeof buf, &found) == 0 && found != nullptr ? found->*name : std::to_string(id);
}

std::string __statusUserName(uid_t uid)
{
    return __statusName(uid, getpwuid_r, &passwd::pw_name);
}

std::string __statusGroupName(gid_t gid)
{
    return __statusName(gid, getgrgid_r, &group::gr_name);
}

// The FIFO against the daemon's policy: its own user as owner, and with
// --fifo-group that group and mode 0620 (root and members write, nobody else
// opens it), else its own group and 0666, open to every local account.
void __statusFifo(pid_t pid, const std::string &fifoGroup)
{
    const char *path = tarnholdCtlStatusPrivateMembers.params.requestFifo;
    struct stat st = {};
    char text[256];
    if (lstat(path, &st) != 0) {
        snprintf(text, sizeof text, "%s: %s", path, strerror(errno));
        __statusAdd("fifo", statusState::FAILED, text);
        return;
    }
    unsigned mode = st.st_mode & 07777;
    bool fifo = S_ISFIFO(st.st_mode);
    std::string owner = __statusUserName(st.st_uid) + ":" + __statusGroupName(st.st_gid);
    snprintf(text, sizeof text, "%s: %s, owner %s, mode %04o", path, fifo ? "FIFO" : "not a FIFO", owner.c_str(), mode);
    struct stat daemon = {};
    if (pid <= 0 || stat(("/proc/" + std::to_string(pid)).c_str(), &daemon) != 0) {
        __statusAdd("fifo", fifo ? statusState::OK : statusState::FAILED, text); // no daemon to hold it against
        return;
    }
    gid_t gid = daemon.st_gid;
    if (!fifoGroup.empty()) {
        char buf[4096];
        group entry = {};
        group *found = nullptr;
        if (getgrnam_r(fifoGroup.c_str(), &entry, buf, sizeof buf, &found) != 0 || found == nullptr) {
            __statusAdd("fifo", statusState::FAILED, std::string(text) + " (group " + fifoGroup + " unknown)");
            return;
        }
        gid = found->gr_gid;
    }
    unsigned wanted = fifoGroup.empty() ? 0666 : 0620;
    if (fifo && st.st_uid == daemon.st_uid && st.st_gid == gid && mode == wanted) {
        __statusAdd("fifo", statusState::OK, text);
        return;
    }
    snprintf(text + strlen(text), sizeof text - strlen(text), " (FIFO, owner %s:%s, mode %04o expected)",
             __statusUserName(daemon.st_uid).c_str(), __statusGroupName(gid).c_str(), wanted);
    __statusAdd("fifo", statusState::FAILED, text);
}

// The whole record back, or false with `why`.
bool __statusExchange(usbDaemonRequest &record, std::string &why)
{
    int rc = tarnholdClientExchange(record, tarnholdCtlStatusPrivateMembers.params);
    if (rc != 0) {
        tarnholdCtlStatusPrivateMembers.denied = rc == -EACCES;
        why = tarnholdClientLastError();
        return false;
    }
    return true;
}

bool __statusRoundTrip()
{
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = STATUS_PROBE_CODE;
    std::string why;
    auto start = std::chrono::steady_clock::now();
    if (!__statusExchange(record, why)) {
        __statusAdd("round trip", statusState::FAILED, why);
        return false;
    }
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    char text[96];
    snprintf(text, sizeof text, "%.2f ms (code %u answered with %d)", ms, STATUS_PROBE_CODE, record.result);
    __statusAdd("round trip", record.result == USB_DAEMON_RESULT_UNKNOWN_FUNCTION ? statusState::OK : statusState::FAILED,
                text);
    return true;
}

// A stored value slot, or false after the check has said what is wrong.
bool __statusSlot(const char *check, uint8_t slot, tarnholdCtlSlot &value)
{
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_FLASH_VAL;
    record.cmd[QX_SLOT_BYTE_SLOT] = slot;
    std::string why;
    if (!__statusExchange(record, why)) {
        __statusAdd(check, statusState::FAILED, why);
        return false;
    }
    if (record.result == -1) {
        // The link's own failure: in words, with the lines the journal holds.
        __statusAdd(check, statusState::FAILED,
                    "the service cannot reach the microcontroller (slot " + std::to_string(slot) +
                        " read gave result -1). Look in the journal (journalctl -u tarnhold) for \"qxUsbCmd: device "
                        "not open\", \"qxUsbInit: Failed to open '" + QX_USB_DEVICE_PATH +
                        "'\" (the board is off the bus: the service tries the node about once a second and serves "
                        "again once it is back) or \"ioctl(...) failed\" lines (the board answers with errors)");
        return false;
    }
    if (record.result != USB_DAEMON_RESULT_OK) {
        __statusAdd(check, statusState::FAILED, "slot " + std::to_string(slot) + " read gave result " +
                                                    std::to_string(record.result) + " (" +
                                                    tarnholdCtlResultText(record.result) + ")");
        return false;
    }
    value = tarnholdCtlDecodeSlot(record.resp);
    if (!value.valid) {
        __statusAdd(check, statusState::FAILED, "slot " + std::to_string(slot) + " is empty");
        return false;
    }
    return true;
}

// The platform text; its firmware file in `file` (when found in the table).
bool __statusPlatform(std::string &file)
{
    tarnholdCtlSlot value;
    if (!__statusSlot("platform", QX_SLOT_PLATFORM, value)) {
        return false;
    }
    std::string text(reinterpret_cast<const char *>(value.data.data()), value.len);
    text = text.c_str(); // up to the first NUL, as the service reads it
    std::array<char, QX_LOADER_FILE_NAME_MIN> name = {};
    bool known = __qxLoaderGetPicClientFileNameFromPlatform(text.c_str(), name.data()) == 0;
    file = name.data();
    // The service falls back to the table's first row; an operator wants to know.
    __statusAdd("platform", known ? statusState::OK : statusState::FAILED,
                tarnholdCtlJsonString(text) + (known ? "" : " (not in the platform table)"));
    return known;
}

void __statusFirmware(const std::string &file)
{
    tarnholdCtlFirmwareFile loaded;
    int32_t rc = tarnholdCtlLoadFirmware(file.c_str(), false, loaded);
    if (rc != 0) {
        __statusAdd("firmware", statusState::FAILED, file + " does not load (result " + std::to_string(rc) + ")");
        return;
    }
    tarnholdCtlSlot stored;
    if (!__statusSlot("firmware", QX_SLOT_FIRMWARE, stored)) {
        return;
    }
    std::string md5 = tarnholdCtlHex(loaded.md5.data(), loaded.md5.size());
    if (tarnholdCtlFirmwareCurrent(stored, loaded)) {
        __statusAdd("firmware", statusState::OK, "slot 4 matches " + file + " (length " + std::to_string(loaded.len) +
                                                     ", md5 " + md5 + ")");
        return;
    }
    size_t storedMd5Len = std::min<size_t>(stored.len, loaded.md5.size());
    __statusAdd("firmware", statusState::FAILED,
                "slot 4 differs from " + file + ": stored length " + std::to_string(stored.word0) + " md5 " +
                    tarnholdCtlHex(stored.data.data(), storedMd5Len) + ", file length " + std::to_string(loaded.len) +
                    " md5 " + md5);
}

// A request whose code this daemon may not serve: result 8 is "not available".
bool __statusOptional(const char *check, uint8_t code, usbDaemonRequest &record)
{
    record = {};
    record.cmd[QX_REPORT_CODE] = code;
    std::string why;
    if (!__statusExchange(record, why)) {
        __statusAdd(check, statusState::FAILED, why);
        return false;
    }
    if (record.result == USB_DAEMON_RESULT_UNKNOWN_FUNCTION) {
        __statusAdd(check, statusState::UNAVAILABLE, "not available: code " + std::to_string(code) + " answered with 8");
        return false;
    }
    return true;
}

void __statusCpld()
{
    usbDaemonRequest record;
    if (!__statusOptional("cpld", QX_HID_CMD_CPLD_INFO, record)) {
        return;
    }
    if (record.result != USB_DAEMON_RESULT_OK) {
        __statusAdd("cpld", statusState::FAILED, "CPLD info gave result " + std::to_string(record.result));
        return;
    }
    const tarnholdCtlCpldInfo info = tarnholdCtlUpgradeDecodeCpldInfo(record.resp);
    char text[128];
    snprintf(text, sizeof text, "size %u, CRC 0x%04x, %s", info.size, info.crc, info.stateText);
    __statusAdd("cpld", statusState::OK, text);
}

// `daemonFile`: the daemon was started with --file, so it never looked its
// platform up and refuses fan requests whatever the appliance has.
void __statusFans(bool daemonFile)
{
    usbDaemonRequest record;
    if (!__statusOptional("fan mode", QX_HID_CMD_GET_OPTION_BAY_FAN_SPEED, record)) {
        return;
    }
    // The daemon leaves the response as sent (code 0) when its platform has
    // no fan controller; it answers code 25 once it has tried the bus.
    if (record.result != USB_DAEMON_RESULT_OK && record.resp[QX_REPORT_CODE] == 0) {
        __statusAdd("fan mode", statusState::UNAVAILABLE,
                    daemonFile ? "not available: fan requests are refused because the daemon was started with "
                                 "--file (no platform lookup)"
                               : "not available: no option-bay fan controller on this platform");
        return;
    }
    if (record.result != USB_DAEMON_RESULT_OK || record.resp[QX_REPORT_STATUS] != 0) {
        __statusAdd("fan mode", statusState::FAILED, "the fan controller cannot be read (result " +
                                                         std::to_string(record.result) + ")");
        return;
    }
    const uint8_t level = record.resp[VIA_I2C_RESP_LEVEL];
    __statusAdd("fan mode", statusState::OK,
                record.resp[VIA_I2C_RESP_FIXED] == 0 ? std::string("automatic")
                : level < dutyCycleTable.size()
                    ? "fixed level " + std::to_string(level) + " (duty cycle " + dutyCycleTable[level] + " %)"
                    : "fixed level " + std::to_string(level));
}

const char *__statusStateText(statusState state)
{
    return state == statusState::OK ? "OK" : state == statusState::UNAVAILABLE ? "not available" : "FAILED";
}

// An FPGA or CPLD flash that never finished (or failed) leaves that part
// without a whole image: writing it again comes before anything else. Read
// from the service's history, so it is said without the service too; said
// only when there is one.
void __statusFlash()
{
    const std::vector<std::string> unfinished = tarnholdCtlHistoryUnfinished();
    for (const std::string &text : unfinished) {
        __statusAdd("flash", statusState::FAILED, text);
    }
    if (!unfinished.empty()) {
        tarnholdCtlStatusPrivateMembers.next = unfinished.front();
    }
}

void __statusPrint(bool json, bool allWell)
{
    const auto &checks = tarnholdCtlStatusPrivateMembers.checks;
    const std::string &next = tarnholdCtlStatusPrivateMembers.next;
    if (!json) {
        for (const auto &c : checks) {
            // "not available" texts say so themselves.
            std::string line = c.state == statusState::UNAVAILABLE ? c.text
                                                                   : std::string(__statusStateText(c.state)) + ": " + c.text;
            printf("%-11s %s\n", (std::string(c.name) + ":").c_str(), line.c_str());
        }
        if (!next.empty()) {
            printf("%-11s %s\n", "next:", next.c_str());
        }
        return;
    }
    std::string out = std::string("{\"ok\":") + (allWell ? "true" : "false") + ",\"checks\":{";
    for (size_t i = 0; i < checks.size(); ++i) {
        out += i > 0 ? "," : "";
        out += tarnholdCtlJsonString(checks[i].name);
        out += ":{\"state\":" + tarnholdCtlJsonString(__statusStateText(checks[i].state));
        out += ",\"text\":" + tarnholdCtlJsonString(checks[i].text) + "}";
    }
    out += "}";
    if (!next.empty()) {
        out += ",\"next\":" + tarnholdCtlJsonString(next);
    }
    printf("%s}\n", out.c_str());
}

} // namespace

tarnholdCtlStatusOutcome tarnholdCtlStatus(const tarnholdClientParams &params, bool json)
{
    auto &m = tarnholdCtlStatusPrivateMembers;
    m.checks.clear();
    m.params = params;
    m.denied = false;
    m.next.clear();
    pid_t pid = __statusDaemon();
    __statusSystemd();
    __statusFlash();
    std::string daemonFile;
    std::string fifoGroup;
    if (pid > 0) {
        __statusDaemonOptions(pid, daemonFile, fifoGroup);
    }
    __statusFifo(pid, fifoGroup);
    bool answers = __statusRoundTrip();
    if (answers) {
        std::string platformFile;
        __statusPlatform(platformFile);
        // The daemon's own --file wins over the platform's, as in the daemon.
        std::string file = daemonFile.empty() ? platformFile : daemonFile;
        if (!file.empty()) {
            __statusFirmware(file);
        } else {
            __statusAdd("firmware", statusState::FAILED, "no firmware file known: neither --file nor the platform");
        }
        __statusCpld();
        __statusFans(!daemonFile.empty());
    }
    bool allWell = std::ranges::none_of(m.checks, [](const statusCheck &c) { return c.state == statusState::FAILED; });
    __statusPrint(json, allWell);
    return allWell ? tarnholdCtlStatusOutcome::ALL_WELL
           : answers  ? tarnholdCtlStatusOutcome::SOMETHING_WRONG
           : m.denied ? tarnholdCtlStatusOutcome::DENIED
                      : tarnholdCtlStatusOutcome::NO_DAEMON;
}
