// tarnholdctl: sends one request to the tarnhold daemon and prints the reply.
#include "leBytes.h"
#include "qxLoader.h"
#include "tarnholdClient.h"
#include "tarnholdCtlFirmware.h"
#include "tarnholdCtlHistory.h"
#include "tarnholdCtlStatus.h"
#include "tarnholdCtlText.h"
#include "tarnholdCtlTrace.h"
#include "tarnholdCtlUpgrade.h"
#include "uniqueFd.h"
#include "viaI2c.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

// Exit statuses; the usage text lists them.
enum tarnholdCtlExit : int {
    CTL_EXIT_OK = 0,            // result 0 (firmware-check: the stored firmware is the file's)
    CTL_EXIT_RESULT = 1,        // the daemon answered with a non-zero result
    CTL_EXIT_USAGE = 2,         // bad command line
    CTL_EXIT_TRANSPORT = 3,     // no daemon, no reply in time, or a failed system call
    CTL_EXIT_FIRMWARE_FILE = 4, // firmware-check: the file does not load; an upgrade file or a recording is refused
    CTL_EXIT_DIFFERS = 5,       // firmware-check: the stored firmware differs from the file
    CTL_EXIT_DENIED = 6,        // not allowed to send requests (not root, not in the FIFO's group)
    CTL_EXIT_FOREIGN = 7,       // the FIFO at the request path is not the service's: nothing sent
};

constexpr size_t CTL_FIRST_ARG_BYTE = QX_REPORT_PAYLOAD;
constexpr size_t CTL_XML_DETECT_BAYS = 23;
constexpr uint32_t CTL_FILE_TRANSFER_MAX = 0x800000; // the daemon's test buffer

struct tarnholdCtlContext {
    bool json = false;
    bool verbose = false;
    tarnholdClientParams params;
};

using tarnholdCtlHandler = int (*)(tarnholdCtlContext &ctx, int argc, char **argv);

struct tarnholdCtlCommand {
    const char *name;
    tarnholdCtlHandler handler;
    const char *args;
    const char *help;
};

// What a subcommand adds to the printed reply.
struct tarnholdCtlDecoded {
    std::string text;
    std::string json; // a JSON value, or empty
};

bool __ctlValidBay(uint8_t bay) { return bay <= 9 || (bay >= 15 && bay <= 22); }

int __ctlUsageError(const std::string &message)
{
    fprintf(stderr, "tarnholdctl: %s (tarnholdctl --help)\n", message.c_str());
    return CTL_EXIT_USAGE;
}

// Bytes from the command line into cmd from byte 3 on.
bool __ctlFillBytes(usbDaemonRequest &record, int argc, char **argv, size_t maxBytes)
{
    if (static_cast<size_t>(argc) > maxBytes) {
        __ctlUsageError(std::to_string(argc) + " bytes given, at most " + std::to_string(maxBytes) +
                        " fit from byte " + std::to_string(CTL_FIRST_ARG_BYTE));
        return false;
    }
    for (int i = 0; i < argc; ++i) {
        auto value = tarnholdCtlParseByte(argv[i]);
        if (!value) {
            __ctlUsageError(std::string("not a byte: ") + argv[i]);
            return false;
        }
        record.cmd[CTL_FIRST_ARG_BYTE + static_cast<size_t>(i)] = *value;
    }
    return true;
}

// 0, or CTL_EXIT_TRANSPORT (CTL_EXIT_DENIED, CTL_EXIT_FOREIGN) after saying why.
int __ctlExchange(const tarnholdCtlContext &ctx, usbDaemonRequest &record)
{
    int rc = tarnholdClientExchange(record, ctx.params);
    if (rc == 0) {
        return 0;
    }
    fprintf(stderr, "tarnholdctl: %s\n", tarnholdClientLastError());
    if (ctx.json) {
        printf("{\"error\":%s,\"errno\":%d,\"noDaemon\":%s}\n", tarnholdCtlJsonString(tarnholdClientLastError()).c_str(),
               -rc, tarnholdClientIsNoDaemon(rc) ? "true" : "false");
    }
    return rc == -EACCES ? CTL_EXIT_DENIED : rc == -EPERM ? CTL_EXIT_FOREIGN : CTL_EXIT_TRANSPORT;
}

int __ctlPrintReply(const tarnholdCtlContext &ctx, const usbDaemonRequest &reply, const tarnholdCtlDecoded &decoded,
                    bool blocks)
{
    if (ctx.json) {
        std::string out = "{\"result\":" + std::to_string(reply.result) +
                          ",\"resultText\":" + tarnholdCtlJsonString(tarnholdCtlResultText(reply.result)) +
                          ",\"cmd\":" + tarnholdCtlBlockJson(reply.cmd) + ",\"resp\":" + tarnholdCtlBlockJson(reply.resp);
        if (!decoded.json.empty()) {
            out += ",\"decoded\":" + decoded.json;
        }
        printf("%s}\n", out.c_str());
    } else {
        printf("result: %d (%s)\n", reply.result, tarnholdCtlResultText(reply.result));
        if (reply.result == USB_DAEMON_RESULT_OK) {
            printf("%s", decoded.text.c_str());
        }
        if (blocks || ctx.verbose) {
            printf("%s%s", tarnholdCtlBlockText("cmd ", reply.cmd).c_str(),
                   tarnholdCtlBlockText("resp", reply.resp).c_str());
        }
    }
    return reply.result == USB_DAEMON_RESULT_OK ? CTL_EXIT_OK : CTL_EXIT_RESULT;
}

// One request of `code` with the given bytes; prints both blocks.
int __ctlSendBlocks(tarnholdCtlContext &ctx, uint8_t code, int argc, char **argv)
{
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = code;
    // Only the report's 64 bytes reach the microcontroller: the block's last 5 are never sent.
    if (!__ctlFillBytes(record, argc, argv, QX_REPORT_SIZE - CTL_FIRST_ARG_BYTE)) {
        return CTL_EXIT_USAGE;
    }
    int rc = __ctlExchange(ctx, record);
    return rc != 0 ? rc : __ctlPrintReply(ctx, record, {}, true);
}

int __ctlRaw(tarnholdCtlContext &ctx, int argc, char **argv)
{
    if (argc < 1) {
        return __ctlUsageError("raw needs a CODE");
    }
    auto code = tarnholdCtlParseByte(argv[0]);
    if (!code) {
        return __ctlUsageError(std::string("not a code: ") + argv[0]);
    }
    return __ctlSendBlocks(ctx, *code, argc - 1, argv + 1);
}

int __ctlCmd(tarnholdCtlContext &ctx, int argc, char **argv)
{
    if (argc < 1) {
        return __ctlUsageError("cmd needs a command name or number");
    }
    auto code = tarnholdCtlLookupCode(argv[0]);
    if (!code) {
        return __ctlUsageError(std::string("no such command: ") + argv[0]);
    }
    return __ctlSendBlocks(ctx, *code, argc - 1, argv + 1);
}

// Codes 30, 31, 32: one bay number in byte 3.
int __ctlBayRequest(tarnholdCtlContext &ctx, int argc, char **argv, uint8_t code)
{
    if (argc != 1) {
        return __ctlUsageError("one BAY is needed");
    }
    auto bay = tarnholdCtlParseByte(argv[0]);
    if (!bay) {
        return __ctlUsageError(std::string("not a bay number: ") + argv[0]);
    }
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = code;
    record.cmd[CTL_FIRST_ARG_BYTE] = *bay;
    int rc = __ctlExchange(ctx, record);
    if (rc != 0) {
        return rc;
    }
    tarnholdCtlDecoded decoded;
    if (code == QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND) {
        uint8_t bayBack = record.resp[CTL_FIRST_ARG_BYTE];
        uint8_t indicator = record.resp[CTL_FIRST_ARG_BYTE + 1];
        decoded.text = "bay " + std::to_string(bayBack) + ": force-shutdown indicator " + std::to_string(indicator) + "\n";
        decoded.json = "{\"bay\":" + std::to_string(bayBack) + ",\"indicator\":" + std::to_string(indicator) + "}";
    } else {
        const char *done = code == QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN ? "shut down" : "resumed";
        decoded.text = "bay " + std::to_string(*bay) + ": " + done + "\n";
        decoded.json = "{\"bay\":" + std::to_string(*bay) + "}";
    }
    return __ctlPrintReply(ctx, record, decoded, false);
}

int __ctlBayShutdown(tarnholdCtlContext &ctx, int argc, char **argv)
{
    return __ctlBayRequest(ctx, argc, argv, QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN);
}

int __ctlBayResume(tarnholdCtlContext &ctx, int argc, char **argv)
{
    return __ctlBayRequest(ctx, argc, argv, QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION);
}

int __ctlBayIndicator(tarnholdCtlContext &ctx, int argc, char **argv)
{
    return __ctlBayRequest(ctx, argc, argv, QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND);
}

int __ctlXmlDetectSet(tarnholdCtlContext &ctx, int argc, char **argv)
{
    if (argc < 1) {
        return __ctlUsageError("xml-detect-set needs bytes for bay 0 on");
    }
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = QX_HID_CMD_SET_XML_DAEMON_DETECT;
    if (!__ctlFillBytes(record, argc, argv, CTL_XML_DETECT_BAYS)) {
        return CTL_EXIT_USAGE;
    }
    int rc = __ctlExchange(ctx, record);
    return rc != 0 ? rc : __ctlPrintReply(ctx, record, {}, false);
}

int __ctlXmlDetectGet(tarnholdCtlContext &ctx, int argc, char **)
{
    if (argc != 0) {
        return __ctlUsageError("xml-detect-get takes no arguments");
    }
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_XML_DAEMON_DETECT;
    int rc = __ctlExchange(ctx, record);
    if (rc != 0) {
        return rc;
    }
    tarnholdCtlDecoded decoded;
    decoded.json = "{";
    for (uint8_t bay = 0; bay < CTL_XML_DETECT_BAYS; ++bay) {
        if (!__ctlValidBay(bay)) {
            continue;
        }
        uint8_t value = record.resp[CTL_FIRST_ARG_BYTE + bay];
        char line[32];
        snprintf(line, sizeof line, "bay %2u: 0x%02x\n", bay, value);
        decoded.text += line;
        decoded.json += (decoded.json.size() > 1 ? ",\"" : "\"") + std::to_string(bay) + "\":" + std::to_string(value);
    }
    decoded.json += "}";
    return __ctlPrintReply(ctx, record, decoded, false);
}

// 0 with `slot` read, else the exit status to end with.
int __ctlReadSlot(tarnholdCtlContext &ctx, uint8_t slotNumber, usbDaemonRequest &record)
{
    record = {};
    record.cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_FLASH_VAL;
    record.cmd[QX_SLOT_BYTE_SLOT] = slotNumber;
    return __ctlExchange(ctx, record);
}

int __ctlSlotRead(tarnholdCtlContext &ctx, int argc, char **argv)
{
    if (argc != 1) {
        return __ctlUsageError("one SLOT is needed");
    }
    auto slot = tarnholdCtlParseByte(argv[0]);
    if (!slot) {
        return __ctlUsageError(std::string("not a slot number: ") + argv[0]);
    }
    usbDaemonRequest record;
    int rc = __ctlReadSlot(ctx, *slot, record);
    if (rc != 0) {
        return rc;
    }
    tarnholdCtlSlot value = tarnholdCtlDecodeSlot(record.resp);
    return __ctlPrintReply(ctx, record, {tarnholdCtlSlotText(*slot, value), tarnholdCtlSlotJson(*slot, value)}, false);
}

int __ctlFirmwareCheck(tarnholdCtlContext &ctx, int argc, char **argv)
{
    if (argc != 1) {
        return __ctlUsageError("firmware-check needs one FILE");
    }
    tarnholdCtlFirmwareFile file;
    int32_t loaded = tarnholdCtlLoadFirmware(argv[0], ctx.verbose, file);
    if (loaded != 0) {
        fprintf(stderr, "tarnholdctl: %s does not load as firmware (result %d)\n", argv[0], loaded);
        if (ctx.json) {
            printf("{\"error\":%s,\"loadResult\":%d}\n", tarnholdCtlJsonString("firmware file does not load").c_str(),
                   loaded);
        }
        return CTL_EXIT_FIRMWARE_FILE;
    }

    usbDaemonRequest record;
    int rc = __ctlReadSlot(ctx, QX_SLOT_FIRMWARE, record);
    if (rc != 0) {
        return rc;
    }
    if (record.result != USB_DAEMON_RESULT_OK) {
        return __ctlPrintReply(ctx, record, {}, false);
    }
    tarnholdCtlSlot stored = tarnholdCtlDecodeSlot(record.resp);
    bool current = tarnholdCtlFirmwareCurrent(stored, file);
    const char *verdict = current ? "current" : "differs";
    std::string fileMd5 = tarnholdCtlHex(file.md5.data(), file.md5.size());
    if (ctx.json) {
        printf("{\"verdict\":\"%s\",\"file\":{\"path\":%s,\"length\":%d,\"md5\":\"%s\"},\"stored\":%s}\n", verdict,
               tarnholdCtlJsonString(argv[0]).c_str(), file.len, fileMd5.c_str(),
               tarnholdCtlSlotJson(QX_SLOT_FIRMWARE, stored).c_str());
    } else {
        printf("file: length %d (0x%x)\nfile md5: %s\nstored %s%s\n", file.len, static_cast<unsigned>(file.len),
               fileMd5.c_str(), tarnholdCtlSlotText(QX_SLOT_FIRMWARE, stored).c_str(), verdict);
    }
    return current ? CTL_EXIT_OK : CTL_EXIT_DIFFERS;
}

// The fan reply in words. A response the daemon left as sent (byte 0 still
// 0) means the fans are not on this platform, or for a set also that the bus
// could not be opened; a non-zero status byte means a register transfer failed.
tarnholdCtlDecoded __ctlFanDecode(const usbDaemonRequest &reply, bool isSet)
{
    tarnholdCtlDecoded decoded;
    const uint8_t status = reply.resp[QX_REPORT_STATUS];
    if (reply.resp[QX_REPORT_CODE] == 0) {
        const char *why = isSet ? "no option-bay fans on this platform, or their I2C bus cannot be opened"
                                : "no option-bay fans on this platform";
        decoded.text = std::string(why) + "\n";
        decoded.json = "{\"error\":" + tarnholdCtlJsonString(why) + "}";
    } else if (status != 0) {
        decoded.text = "transfer failed\n";
        decoded.json = "{\"status\":" + std::to_string(status) + ",\"error\":\"transfer failed\"}";
    } else if (isSet) {
        decoded.text = "fan set\n";
        decoded.json = "{\"status\":0}";
    } else {
        const bool fixed = reply.resp[VIA_I2C_RESP_FIXED] != 0;
        const uint8_t level = reply.resp[VIA_I2C_RESP_LEVEL];
        const char *duty = level < dutyCycleTable.size() ? dutyCycleTable[level] : "?";
        decoded.text = std::string("mode: ") + (fixed ? "fixed level" : "automatic") + "\nlevel: " +
                       std::to_string(level) + " (duty cycle " + duty + " %)\n";
        decoded.json = std::string("{\"status\":0,\"mode\":\"") + (fixed ? "fixed" : "automatic") +
                       "\",\"level\":" + std::to_string(level) + ",\"dutyCycle\":" +
                       (level < dutyCycleTable.size() ? duty : "null") + "}";
    }
    return decoded;
}

// fan | fan set auto | fan set LEVEL (codes 57 and 58).
int __ctlFan(tarnholdCtlContext &ctx, int argc, char **argv)
{
    usbDaemonRequest record = {};
    const bool isSet = argc >= 1;
    if (!isSet) {
        record.cmd[QX_REPORT_CODE] = QX_HID_CMD_GET_OPTION_BAY_FAN_SPEED;
    } else {
        if (argc != 2 || strcmp(argv[0], "set") != 0) {
            return __ctlUsageError("fan, fan set auto or fan set LEVEL expected");
        }
        record.cmd[QX_REPORT_CODE] = QX_HID_CMD_SET_OPTION_BAY_FAN_SPEED;
        if (strcmp(argv[1], "auto") != 0) {
            auto level = tarnholdCtlParseByte(argv[1]);
            if (!level || *level > VIA_I2C_LEVEL_MAX) {
                return __ctlUsageError(std::string("fan level 0 to 15 or auto expected: ") + argv[1]);
            }
            record.cmd[VIA_I2C_CMD_MODE] = 1;
            record.cmd[VIA_I2C_CMD_LEVEL] = *level;
        }
    }
    int rc = __ctlExchange(ctx, record);
    if (rc != 0) {
        return rc;
    }
    tarnholdCtlDecoded decoded = __ctlFanDecode(record, isSet);
    if (record.result != USB_DAEMON_RESULT_OK && !ctx.json) {
        fprintf(stderr, "tarnholdctl: %s", decoded.text.c_str());
    }
    int status = __ctlPrintReply(ctx, record, decoded, false);
    // A set whose transfer failed still answers 0: the status byte tells.
    return status == CTL_EXIT_OK && record.resp[QX_REPORT_STATUS] != 0 ? CTL_EXIT_RESULT : status;
}

// What the terminal shows while an upgrade runs.
struct __ctlProgress {
    const tarnholdCtlUpgradeRules *rules;
};

void __ctlShowProgress(void *ctx, uint64_t elapsedMs)
{
    const auto *p = static_cast<const __ctlProgress *>(ctx);
    fprintf(stderr, "\r%s: %llu s (it takes at least %d s)", p->rules->name,
            static_cast<unsigned long long>(elapsedMs / 1000), p->rules->leastSeconds);
    fflush(stderr);
}

uint64_t __ctlNowMs()
{
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// fpga-upgrade / cpld-upgrade FILE: nothing is sent for a file the service would refuse.
int __ctlUpgrade(tarnholdCtlContext &ctx, int argc, char **argv, tarnholdCtlUpgradeKind kind)
{
    const tarnholdCtlUpgradeRules &rules = tarnholdCtlUpgradeGetRules(kind);
    if (argc != 1) {
        return __ctlUsageError(std::string(rules.name) + " needs one FILE");
    }
    std::string path;
    std::string error;
    if (!tarnholdCtlUpgradeCheckFile(kind, argv[0], path, error)) {
        fprintf(stderr, "tarnholdctl: %s: %s; nothing sent\n", rules.name, error.c_str());
        if (ctx.json) {
            printf("{\"error\":%s}\n", tarnholdCtlJsonString(error).c_str());
        }
        return CTL_EXIT_FIRMWARE_FILE;
    }
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = rules.code;
    memcpy(&record.cmd[CTL_FIRST_ARG_BYTE], path.c_str(), path.size() + 1);
    __ctlProgress progress{&rules};
    const bool terminal = isatty(STDERR_FILENO) == 1;
    if (terminal) {
        ctx.params.progress = __ctlShowProgress;
        ctx.params.progressCtx = &progress;
        __ctlShowProgress(&progress, 0);
    }
    const uint64_t start = __ctlNowMs();
    int rc = __ctlExchange(ctx, record);
    const uint64_t elapsedS = (__ctlNowMs() - start) / 1000;
    if (terminal) {
        fprintf(stderr, "\n");
    }
    if (rc != 0) {
        return rc;
    }
    tarnholdCtlDecoded decoded;
    decoded.text = "file: " + path + "\nelapsed: " + std::to_string(elapsedS) + " s\n";
    decoded.json = "{\"file\":" + tarnholdCtlJsonString(path) + ",\"elapsedSeconds\":" + std::to_string(elapsedS) + "}";
    return __ctlPrintReply(ctx, record, decoded, false);
}

int __ctlFpgaUpgrade(tarnholdCtlContext &ctx, int argc, char **argv)
{
    return __ctlUpgrade(ctx, argc, argv, tarnholdCtlUpgradeKind::FPGA);
}

int __ctlCpldUpgrade(tarnholdCtlContext &ctx, int argc, char **argv)
{
    return __ctlUpgrade(ctx, argc, argv, tarnholdCtlUpgradeKind::CPLD);
}

int __ctlCpldInfo(tarnholdCtlContext &ctx, int argc, char **)
{
    if (argc != 0) {
        return __ctlUsageError("cpld-info takes no arguments");
    }
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = QX_HID_CMD_CPLD_INFO;
    int rc = __ctlExchange(ctx, record);
    if (rc != 0) {
        return rc;
    }
    const tarnholdCtlCpldInfo info = tarnholdCtlUpgradeDecodeCpldInfo(record.resp);
    char text[200];
    snprintf(text, sizeof text, "size: %u\ncrc: 0x%04x\nstate: %s (0x%08x)\nstamp: %s\n", info.size, info.crc,
             info.stateText, info.state, info.stamp.c_str());
    char json[200];
    snprintf(json, sizeof json, "{\"size\":%u,\"crc\":%u,\"state\":%s,\"stateWord\":%u,\"stamp\":", info.size,
             info.crc, tarnholdCtlJsonString(info.stateText).c_str(), info.state);
    return __ctlPrintReply(ctx, record, {text, json + tarnholdCtlJsonString(info.stamp) + "}"}, true);
}

// Shutdown and tray test: the daemon waits seconds for their answers.
int __ctlSlowRelay(tarnholdCtlContext &ctx, int argc, char **argv, uint8_t code)
{
    return __ctlSendBlocks(ctx, code, argc, argv);
}

int __ctlShutdown(tarnholdCtlContext &ctx, int argc, char **argv)
{
    return __ctlSlowRelay(ctx, argc, argv, QX_HID_CMD_SHUTDOWN);
}

int __ctlTrayTest(tarnholdCtlContext &ctx, int argc, char **argv)
{
    return __ctlSlowRelay(ctx, argc, argv, QX_HID_CMD_TRAY_TEST);
}

int __ctlFileTransfer(tarnholdCtlContext &ctx, int argc, char **argv)
{
    if (argc > 1) {
        return __ctlUsageError("file-transfer takes at most a LENGTH");
    }
    unsigned long long length = CTL_FILE_TRANSFER_MAX;
    if (argc == 1) {
        char *end = nullptr;
        errno = 0;
        length = strtoull(argv[0], &end, 0);
        if (end == argv[0] || *end != '\0' || errno != 0 || argv[0][0] == '-' || length > UINT32_MAX) {
            return __ctlUsageError(std::string("not a length: ") + argv[0]);
        }
    }
    usbDaemonRequest record = {};
    record.cmd[QX_REPORT_CODE] = QX_HID_CMD_FILE_TRANSFER_TEST;
    // The daemon takes at most its buffer's 8 MiB and says nothing when it cuts.
    lePut32(&record.cmd[CTL_FIRST_ARG_BYTE], static_cast<uint32_t>(length));
    int rc = __ctlExchange(ctx, record);
    if (rc != 0) {
        return rc;
    }
    const unsigned long long sent = length > CTL_FILE_TRANSFER_MAX ? CTL_FILE_TRANSFER_MAX : length;
    return __ctlPrintReply(ctx, record,
                           {"length: " + std::to_string(sent) + "\n", "{\"length\":" + std::to_string(sent) + "}"},
                           false);
}

int __ctlStatus(tarnholdCtlContext &ctx, int argc, char **)
{
    if (argc != 0) {
        return __ctlUsageError("status takes no arguments");
    }
    switch (tarnholdCtlStatus(ctx.params, ctx.json)) {
    case tarnholdCtlStatusOutcome::ALL_WELL:
        return CTL_EXIT_OK;
    case tarnholdCtlStatusOutcome::NO_DAEMON:
        return CTL_EXIT_TRANSPORT;
    case tarnholdCtlStatusOutcome::DENIED:
        return CTL_EXIT_DENIED;
    default:
        return CTL_EXIT_RESULT;
    }
}

// history: the daemon is not asked; an unreadable history counts as a failed system call.
int __ctlHistory(tarnholdCtlContext &ctx, int argc, char **)
{
    if (argc != 0) {
        return __ctlUsageError("history takes no arguments");
    }
    return tarnholdCtlHistory(ctx.json) == tarnholdCtlHistoryOutcome::PRINTED ? CTL_EXIT_OK : CTL_EXIT_TRANSPORT;
}

// trace FILE: the daemon is not asked; an unreadable file counts as a failed system call.
int __ctlTrace(tarnholdCtlContext &ctx, int argc, char **argv)
{
    if (argc != 1) {
        return __ctlUsageError("trace needs one FILE");
    }
    switch (tarnholdCtlTrace(argv[0], ctx.json)) {
    case tarnholdCtlTraceOutcome::PRINTED:
        return CTL_EXIT_OK;
    case tarnholdCtlTraceOutcome::UNREADABLE:
        return CTL_EXIT_TRANSPORT;
    default:
        return CTL_EXIT_FIRMWARE_FILE;
    }
}

constexpr std::array<tarnholdCtlCommand, 20> CTL_COMMANDS = {{
    {"raw", __ctlRaw, "CODE [BYTE...]", "send code CODE with BYTEs from byte 3; print both blocks"},
    {"cmd", __ctlCmd, "NAME|CODE [BYTE...]", "the same by command name (QX_HID_CMD_SET_LEDS or set-leds)"},
    {"bay-shutdown", __ctlBayShutdown, "BAY", "force drive bay BAY to shut down"},
    {"bay-resume", __ctlBayResume, "BAY", "resume drive bay BAY"},
    {"bay-indicator", __ctlBayIndicator, "BAY", "read the force-shutdown indicator of BAY"},
    {"xml-detect-set", __ctlXmlDetectSet, "BYTE...", "set the XML daemon detect bytes of bay 0 on"},
    {"xml-detect-get", __ctlXmlDetectGet, "", "read the XML daemon detect bytes"},
    {"slot-read", __ctlSlotRead, "SLOT", "read stored value slot SLOT (10: platform, 4: firmware)"},
    {"firmware-check", __ctlFirmwareCheck, "FILE", "compare firmware file FILE with the stored firmware"},
    {"fpga-upgrade", __ctlFpgaUpgrade, "FILE", "upgrade the FPGA from FILE (1 to 16 MiB; at least 57 s)"},
    {"cpld-upgrade", __ctlCpldUpgrade, "FILE", "upgrade the CPLD from JBC file FILE (at least 26 s)"},
    {"cpld-info", __ctlCpldInfo, "", "the CPLD record: size, CRC, state (cleared, written, run)"},
    {"shutdown", __ctlShutdown, "[BYTE...]", "shutdown (code 12); the answer takes up to 12.5 s"},
    {"tray-test", __ctlTrayTest, "[BYTE...]", "tray test (code 59); the answer takes up to 8 s"},
    {"file-transfer", __ctlFileTransfer, "[LENGTH]", "file-transfer test over LENGTH bytes (default and most 8 MiB)"},
    {"fan", __ctlFan, "[set auto|LEVEL]", "option-bay fans: mode and level, or set them (LEVEL 0-15)"},
    {"status", __ctlStatus, "", "daemon, FIFO, round trip, platform, firmware, CPLD and fans: OK or what is wrong"},
    {"history", __ctlHistory, "", "every flash of microcontroller, FPGA and CPLD, oldest first (no daemon needed)"},
    {"trace", __ctlTrace, "FILE", "print a recording of the service, one exchange a line (no daemon needed)"},
    {"help", nullptr, "", "this text"},
}};

void __ctlUsage(FILE *out)
{
    fprintf(out, "Usage: tarnholdctl [--json] [--verbose] [--timeout SECONDS] [--fifo PATH] COMMAND [ARGS]\n\n");
    for (const auto &c : CTL_COMMANDS) {
        fprintf(out, "  %-15s %-20s %s\n", c.name, c.args, c.help);
    }
    fprintf(out, "  %-15s %-20s %s\n", "<name>", "[BYTE...]", "a command's short name: cmd <name>");
    fprintf(out, "\nBYTE, CODE, BAY, SLOT: decimal or 0x hex, 0 to 255.\n"
                 "--json prints one JSON object (trace: one a line); --timeout defaults to %d s; --fifo names the\n"
                 "request FIFO (default %s).\n\n"
                 "Exit status: 0 result 0 (firmware-check: current; status: all well), 1 non-zero result\n"
                 "(status: something is wrong), 2 usage, 3 no daemon / no reply / system error,\n"
                 "4 firmware file does not load, upgrade file refused (nothing sent) or recording refused\n"
                 "(trace: what came before a damaged record is printed), 5 firmware differs,\n"
                 "6 not allowed to send requests (only root and the request FIFO's group may).\n",
            TARNHOLD_CLIENT_TIMEOUT_MS / 1000, USB_DAEMON_FIFO);
}

// Global options; the index of the command word, or -1 with `exitStatus` set.
int __ctlParseOptions(tarnholdCtlContext &ctx, int argc, char **argv, int &exitStatus)
{
    int i = 1;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; ++i) {
        std::string_view opt = argv[i];
        if (opt == "--json") {
            ctx.json = true;
        } else if (opt == "--verbose") {
            ctx.verbose = true;
        } else if (opt == "--help") {
            __ctlUsage(stdout);
            exitStatus = CTL_EXIT_OK;
            return -1;
        } else if ((opt == "--timeout" || opt == "--fifo") && i + 1 < argc) {
            const char *value = argv[++i];
            if (opt == "--fifo") {
                ctx.params.requestFifo = value;
                continue;
            }
            char *end = nullptr;
            double seconds = strtod(value, &end);
            if (end == value || *end != '\0' || !(seconds >= 0) || seconds > 86400) {
                exitStatus = __ctlUsageError(std::string("bad timeout: ") + value);
                return -1;
            }
            ctx.params.timeoutMs = static_cast<int>(std::lround(seconds * 1000));
        } else {
            exitStatus = __ctlUsageError(std::string("unknown option: ") + argv[i]);
            return -1;
        }
    }
    if (i >= argc) {
        __ctlUsage(stderr);
        exitStatus = CTL_EXIT_USAGE;
        return -1;
    }
    return i;
}

} // namespace

int main(int argc, char **argv)
{
    tarnholdCtlContext ctx;
    int exitStatus = CTL_EXIT_OK;
    int at = __ctlParseOptions(ctx, argc, argv, exitStatus);
    if (at < 0) {
        return exitStatus;
    }
    // The reply FIFO's folder, as for other programs' temporary files: an
    // operator may keep it in a home folder rather than the shared /tmp.
    if (const char *tmpDir = getenv("TMPDIR"); tmpDir != nullptr && *tmpDir != '\0') {
        ctx.params.tmpDir = tmpDir;
    }
    std::string_view word = argv[at];
    int restArgc = argc - at - 1;
    char **restArgv = argv + at + 1;
    for (const auto &c : CTL_COMMANDS) {
        if (word == c.name) {
            if (c.handler == nullptr) {
                __ctlUsage(stdout);
                return CTL_EXIT_OK;
            }
            return c.handler(ctx, restArgc, restArgv);
        }
    }
    // A command's own name or short alias works without "cmd".
    if (!tarnholdCtlParseByte(word) && tarnholdCtlLookupCode(word)) {
        return __ctlCmd(ctx, argc - at, argv + at);
    }
    return __ctlUsageError(std::string("unknown command: ") + argv[at]);
}
