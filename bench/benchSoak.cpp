// The soak: the daemon's request loop on the in-process simulated appliance, on virtual time, for N requests of
// every kind (relayed, host-held, slow relays, file transfers, fans, FPGA, CPLD and microcontroller upgrades),
// with seeded random faults of every kind the appliance can inject. Each answer must be the one the rules give
// for the fault injected; after each fault a plain request must be served; an upgrade a fault ended must be
// completed by the next attempt with the part's memory equal to the file; descriptors and heap must stay flat
// from the first thousand requests to the last, and once warm the service must not allocate at all while it
// serves (a counting allocator around each pass of the loop; the simulated appliance's own bookkeeping, inside
// the seam's calls, is not the service's). A failure prints the seed and the request number, and the same
// seed gives the same run. Not a timed test: it reports requests, faults by kind, virtual and wall time and
// peak RSS. Needs no root.
//
//     benchSoak [--requests N] [--seed S]
#include "evmLog.h"
#include "main.h"
#include "qxFile.h"
#include "qxLoader.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simI2c.h"
#include "simInProcess.h"
#include "simUpgrade.h"
#include "sysSeam.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <malloc.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes(); // the sanitizer's runtime; its header is not installed
#endif

namespace {

struct {
    bool armed = false;
    int paused = 0;
    uint64_t allocations = 0;
} soakCounting;

void __soakCountAllocation()
{
    if (soakCounting.armed && soakCounting.paused == 0) {
        ++soakCounting.allocations;
    }
}

} // namespace

// Every C and C++ allocation goes through malloc, calloc or realloc (operator new calls malloc); a sanitizer
// brings its own allocator, which calls this hook on each allocation instead.
extern "C" {
#ifdef __SANITIZE_ADDRESS__
void __sanitizer_malloc_hook(const volatile void *, size_t) { __soakCountAllocation(); }
#else
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *malloc(size_t n)
{
    __soakCountAllocation();
    return __libc_malloc(n);
}
void *calloc(size_t n, size_t size)
{
    __soakCountAllocation();
    return __libc_calloc(n, size);
}
void *realloc(void *p, size_t n)
{
    __soakCountAllocation();
    return __libc_realloc(p, n);
}
#endif
}

namespace {

platformSysOps soakSimulated;

// Each seam call into the simulated appliance runs with counting paused.
template <auto MEMBER> struct soakPausedCall;
template <typename R, typename... A, R (*platformSysOps::*MEMBER)(A...)> struct soakPausedCall<MEMBER> {
    static R call(A... args)
    {
        ++soakCounting.paused;
        R r = (soakSimulated.*MEMBER)(args...);
        --soakCounting.paused;
        return r;
    }
};
template <auto... MEMBERS> void __soakPauseIn()
{
    ((platformSys.*MEMBERS = soakPausedCall<MEMBERS>::call), ...);
}

// What a request asks for; each fault is injected into one kind.
// STEALTH and TRAY_TEST go with faults only: a lost reply leaves the driver's last report, which must never be
// of the same code, or the rules take it for the answer.
enum class soakKind : uint8_t {
    RELAY,
    STEALTH,
    HOST_HELD,
    SHUTDOWN,
    TRAY_TEST,
    FILE_TRANSFER,
    FAN_GET,
    FAN_SET,
    FPGA,
    CPLD,
    PIC32
};

struct soakRequestKind {
    soakKind kind;
    const char *name;
    unsigned weight; // share of the plain requests
};

constexpr std::array<soakRequestKind, 9> SOAK_REQUESTS = {{
    {soakKind::RELAY, "relayed", 400},
    {soakKind::HOST_HELD, "host-held", 200},
    {soakKind::SHUTDOWN, "shutdown", 100},
    {soakKind::FILE_TRANSFER, "file transfer", 30},
    {soakKind::FAN_GET, "fan get", 100},
    {soakKind::FAN_SET, "fan set", 100},
    {soakKind::FPGA, "FPGA upgrade", 6},
    {soakKind::CPLD, "CPLD upgrade", 20},
    {soakKind::PIC32, "microcontroller upgrade", 1},
}};

constexpr int32_t SOAK_SETTLES = -2; // the request's own result is not fixed, only that a plain one follows
constexpr int32_t SOAK_AS_ABOVE = INT32_MIN;

// A fault: what it arms in the model, the request it goes with, the result the rules give, whether the upgrade
// it ends must be completed by the next attempt, and how many plain requests may fail before one is served.
struct soakFault {
    const char *name;
    soakKind kind;
    void (*arm)();
    int32_t result;
    bool again = false;
    int settle = 0;
    // The result when the request draws sequence number 0, which a cleared response already carries.
    int32_t underZero = SOAK_AS_ABOVE;
    // The board away for this long (virtual time) from the fault's arming; the plain request waits for its return.
    uint64_t awayUs = 0;
};

// The board off the bus for 1.5 s: descriptors opened before fail with ENODEV for good.
constexpr uint64_t SOAK_AWAY_US = 1'500'000;

const std::array<soakFault, 28> SOAK_FAULTS = {{
    {"lost reply", soakKind::STEALTH, [] { simSetReplyFault(simReplyFault::NO_REPLY, 1); }, 1},
    {"late reply", soakKind::STEALTH, [] { simSetReplyDelayReads(2); }, 0},
    {"reply under another number", soakKind::STEALTH, [] { simSetReplyFault(simReplyFault::WRONG_SEQ, 1); }, 0},
    {"reply to another code", soakKind::STEALTH, [] { simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1); }, 1},
    {"failed send", soakKind::STEALTH, [] { simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1); }, -1},
    {"busy driver", soakKind::STEALTH, [] { simFailIoctl(PIC_HID_SEND_REPORT, EAGAIN, 2); }, 0},
    {"driver reload", soakKind::RELAY, [] { simModuleUnload(), simModuleLoad(); }, SOAK_SETTLES, false, 15},
    {"slow relay's first read fails", soakKind::SHUTDOWN, [] { simFailIoctl(PIC_HID_GET_REPORT, EIO, 1); }, 0, false,
     0, -1},
    {"slow relay answered late", soakKind::SHUTDOWN, [] { simSetReplyDelayUs(QX_HID_CMD_SHUTDOWN, 5000000); }, 0},
    {"slow relay unanswered", soakKind::TRAY_TEST, [] { simSetReplyFault(simReplyFault::NO_REPLY, 1); }, 1},
    {"short transfer", soakKind::FILE_TRANSFER, [] { simSetUpgradeFault(simUpgradeFault::TRANSFER_UNREADABLE, 1); },
     -1},
    {"I2C read error", soakKind::FAN_GET, [] { simI2cFailReads(1); }, -1},
    {"I2C write error", soakKind::FAN_SET, [] { simI2cFailWrites(1); }, 0},
    {"busy capacity", soakKind::FPGA, [] { simSetUpgradeFault(simUpgradeFault::CAPACITY_STATUS_BUSY, 3); }, 0},
    {"capacity under its own number", soakKind::CPLD,
     [] { simSetUpgradeFault(simUpgradeFault::CAPACITY_OWN_SEQ, 2); }, 0},
    {"capacity full", soakKind::FPGA, [] { simSetUpgradeFault(simUpgradeFault::CAPACITY_NEVER_FREE, 5); }, 0},
    {"failed erase", soakKind::FPGA, [] { simFailIoctl(PIC_HID_ERASE_FPGA, EIO, 1); }, -1, true},
    {"erase never confirmed", soakKind::FPGA,
     [] { simSetUpgradeFault(simUpgradeFault::ERASE_NEVER_CONFIRMED, 80); }, -1, true},
    {"clean-up status 1", soakKind::FPGA, [] { simSetUpgradeFault(simUpgradeFault::CLEANUP_STATUS_1, 3); }, -1, true},
    {"clean-up state 2 once", soakKind::FPGA, [] { simSetUpgradeFault(simUpgradeFault::CLEANUP_STATE_2, 1); }, 0},
    {"failed CPLD erase", soakKind::CPLD, [] { simFailIoctl(PIC_HID_ERASE_CPLD, EIO, 1); }, 0},
    {"CPLD size read back wrong twice", soakKind::CPLD,
     [] { simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_SIZE, 2); }, -1, true},
    {"CPLD run never completes", soakKind::CPLD, [] { simSetUpgradeFault(simUpgradeFault::RUN_NEVER_COMPLETES, 1); },
     0},
    {"bootloader busy", soakKind::PIC32, [] { simSetDriverBusyPolls(5); }, 0},
    // Asked while away: the ENODEV re-opens at once, the node is missing and the link closes; the first request
    // after the return heals it and is served.
    {"off the bus, asked while away", soakKind::RELAY, [] { simDropOffBus(SOAK_AWAY_US); }, -1, false, 0,
     SOAK_AS_ABOVE, SOAK_AWAY_US},
    // Nothing asked while away: the first request after the return finds the old descriptor dead and re-opens, the
    // second is served.
    {"off the bus, back before asked", soakKind::RELAY,
     [] { simDropOffBus(SOAK_AWAY_US), simAdvanceUs(SOAK_AWAY_US); }, -1},
    // 20 blocks of the application's 74 refused from its 30th: the bootloader stays, the pass programs again.
    {"programming blocks refused", soakKind::PIC32, [] { simFailIoctl(PIC_HID_PIC32_PROGRAM, EIO, 20, 29); }, 0},
    // Power lost after the erase and 40 blocks; the bootloader then starts what is written, and the next pass
    // finds the flash unlike the image and programs it again.
    {"power loss, app-starting bootloader", soakKind::PIC32, [] {
         simSetBootloaderStartsWrittenApp(true);
         simPowerLossAfter(41);
     }, 0},
}};

constexpr uint8_t SOAK_LEDS = QX_HID_CMD_SET_LEDS;
constexpr uint32_t SOAK_XFER_LENGTHS[] = {4096, 0x800000, 0x900000, 0x80000000, 0xFFFFFFFF};

struct {
    uint64_t seed = 1;
    uint64_t requests = 0; // made so far
    uint64_t limit = 20000;
    std::mt19937_64 rng;
    std::array<uint64_t, SOAK_FAULTS.size()> faults{};
    uniqueFd requestRead, requestWrite, replyRead;
    std::string dir = "/tmp/benchSoak.XXXXXX";
    std::string reply, fpgaFile, cpldFile;
    std::vector<uint8_t> fpgaBytes, cpldBytes;
    std::vector<uint8_t> otherApp; // what the microcontroller runs before its upgrade
    bool counting = false;         // allocations counted while the loop serves
} soak;

[[noreturn]] void __soakFail(const std::string &what)
{
    std::fprintf(stderr, "benchSoak: FAILED at seed %llu request %llu: %s\n",
                 static_cast<unsigned long long>(soak.seed), static_cast<unsigned long long>(soak.requests),
                 what.c_str());
    std::exit(1);
}

uint64_t __soakHeapBytes()
{
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

int __soakOpenFds()
{
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) {
            ++n;
        }
        closedir(d);
    }
    return n;
}

// One record through the loop: the answer, checked to be the reply to this request.
usbDaemonRequest __soakServe(const usbDaemonRequest &r)
{
    ++soak.requests;
    simClearEvents();
    simClearSleeps();
    simClearCommands();
    simI2cClearTransfers();
    if (write(soak.requestWrite.get(), &r, sizeof r) != ssize_t(sizeof r)) {
        __soakFail("request FIFO write");
    }
    soakCounting.armed = soak.counting;
    mainLoopPass();
    soakCounting.armed = false;
    if (soakCounting.allocations != 0) {
        __soakFail("the service allocated while serving code " + std::to_string(r.cmd[0]));
    }
    usbDaemonRequest back = {};
    if (read(soak.replyRead.get(), &back, sizeof back) != ssize_t(sizeof back) || back.cmd[0] != r.cmd[0]) {
        __soakFail("no reply to code " + std::to_string(r.cmd[0]));
    }
    return back;
}

usbDaemonRequest __soakRecord(uint8_t code, const std::string &path = {})
{
    usbDaemonRequest r = {};
    std::memcpy(r.clientFifo, soak.reply.c_str(), soak.reply.size() + 1);
    r.cmd[QX_REPORT_CODE] = code;
    std::memcpy(&r.cmd[QX_REPORT_PAYLOAD], path.c_str(), std::min(path.size() + 1, size_t{65}));
    return r;
}

bool __soakPartHolds(std::span<const uint8_t> memory, const std::vector<uint8_t> &file)
{
    return std::equal(file.begin(), file.end(), memory.begin());
}

// The microcontroller runs another application; the start-up upgrade brings it back to the file.
int32_t __soakPic32Upgrade()
{
    ++soak.requests;
    soak.otherApp[soak.rng() % soak.otherApp.size()] ^= 0x5A;
    simInstallApplication(soak.otherApp, static_cast<uint32_t>(soak.otherApp.size()));
    qxUsbCleanUp();
    const int32_t rc = qxLoaderInit(0);
    simClearEvents();
    simClearSleeps();
    simClearCommands();
    int32_t len = 0;
    uint8_t md5[QX_FILE_DIGEST_SIZE];
    qxFileGetMd5AndLen(&len, md5);
    if (rc == 0 && !std::equal(qxFileGetData(), qxFileGetData() + len, simFlash().begin())) {
        __soakFail("microcontroller flash differs from the firmware file");
    }
    const simSlot claim = simGetSlot(QX_SLOT_FIRMWARE);
    if (rc == 0 && (claim.word0 != static_cast<uint32_t>(len) || claim.len != 16 ||
                    !std::equal(md5, md5 + 16, claim.data) || simGetMode() != simMode::APPLICATION)) {
        __soakFail("slot 4 does not claim the installed firmware, or the application does not run");
    }
    return rc;
}

// One request of `kind`; returns its result after the checks that hold whatever the result.
int32_t __soakRequest(soakKind kind)
{
    switch (kind) {
    case soakKind::RELAY: {
        usbDaemonRequest r = __soakRecord(SOAK_LEDS);
        for (int i = 3; i < 11; ++i) {
            r.cmd[i] = static_cast<uint8_t>(soak.rng());
        }
        return __soakServe(r).result;
    }
    case soakKind::STEALTH:
        return __soakServe(__soakRecord(QX_HID_CMD_GET_STEALTH)).result;
    case soakKind::HOST_HELD: {
        usbDaemonRequest r = __soakRecord(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND);
        r.cmd[QX_REPORT_PAYLOAD] = static_cast<uint8_t>(soak.rng() % 10);
        return __soakServe(r).result;
    }
    case soakKind::SHUTDOWN:
        return __soakServe(__soakRecord(QX_HID_CMD_SHUTDOWN)).result;
    case soakKind::TRAY_TEST:
        return __soakServe(__soakRecord(QX_HID_CMD_TRAY_TEST)).result;
    case soakKind::FILE_TRANSFER: {
        usbDaemonRequest r = __soakRecord(QX_HID_CMD_FILE_TRANSFER_TEST);
        const uint32_t asked = SOAK_XFER_LENGTHS[soak.rng() % std::size(SOAK_XFER_LENGTHS)];
        std::memcpy(&r.cmd[3], &asked, sizeof asked);
        const int32_t rc = __soakServe(r).result;
        if (rc == 0 && simLastFileTransfer().len != std::min<uint32_t>(asked, 0x800000)) {
            __soakFail("file transfer of " + std::to_string(asked) + " not capped at 8 MiB");
        }
        return rc;
    }
    case soakKind::FAN_GET:
        return __soakServe(__soakRecord(QX_HID_CMD_GET_OPTION_BAY_FAN_SPEED)).result;
    case soakKind::FAN_SET: {
        usbDaemonRequest r = __soakRecord(QX_HID_CMD_SET_OPTION_BAY_FAN_SPEED);
        r.cmd[3] = static_cast<uint8_t>(soak.rng() % 2);
        r.cmd[4] = static_cast<uint8_t>(soak.rng() % 16);
        return __soakServe(r).result;
    }
    case soakKind::FPGA: {
        const int32_t rc = __soakServe(__soakRecord(QX_HID_CMD_FPGA_UPGRADE, soak.fpgaFile)).result;
        if (rc == 0 && !__soakPartHolds(simFpgaMemory(), soak.fpgaBytes)) {
            __soakFail("FPGA memory differs from the file after a successful upgrade");
        }
        return rc;
    }
    case soakKind::CPLD: {
        const int32_t rc = __soakServe(__soakRecord(QX_HID_CMD_CPLD_UPGRADE, soak.cpldFile)).result;
        if (rc == 0 && !__soakPartHolds(simCpldImage(), soak.cpldBytes)) {
            __soakFail("CPLD image differs from the file after a successful upgrade");
        }
        return rc;
    }
    case soakKind::PIC32:
        return __soakPic32Upgrade();
    }
    return 0;
}

// The plain request after a fault: a relay that must be answered, up to `settle` failures allowed first.
void __soakPlain(int settle)
{
    for (int attempt = 0;; ++attempt) {
        usbDaemonRequest r = __soakRecord(SOAK_LEDS);
        const usbDaemonRequest back = __soakServe(r);
        if (back.result == 0 && back.resp[QX_REPORT_CODE] == SOAK_LEDS) {
            return;
        }
        if (attempt >= settle) {
            __soakFail("plain request not served: result " + std::to_string(back.result));
        }
    }
}

void __soakFault(size_t index)
{
    const soakFault &f = SOAK_FAULTS[index];
    ++soak.faults[index];
    f.arm();
    const bool zero = static_cast<uint8_t>(qxUsbGetState().seqNum + 1) == 0;
    const int32_t result = zero && f.underZero != SOAK_AS_ABOVE ? f.underZero : f.result;
    const int32_t rc = __soakRequest(f.kind);
    // Delays are settings, not counted faults: they end with the request they were armed for.
    simSetReplyDelayReads(0);
    simSetReplyDelayUs(QX_HID_CMD_SHUTDOWN, 0);
    simSetBootloaderStartsWrittenApp(false);
    if (f.awayUs != 0) {
        if (!simOffBus()) {
            __soakFail(std::string(f.name) + ": the board came back early");
        }
        // More asked while away: relays fail, host-held requests stay answered.
        for (uint64_t n = soak.rng() % 16; n > 0; --n) {
            const bool relayed = soak.rng() % 2 == 0;
            if (__soakRequest(relayed ? soakKind::RELAY : soakKind::HOST_HELD) != (relayed ? -1 : 0)) {
                __soakFail(std::string(f.name) + (relayed ? ": a relay answered" : ": host-held request failed") +
                           " while away");
            }
        }
        simAdvanceUs(f.awayUs);
        if (simOffBus()) {
            __soakFail(std::string(f.name) + ": the board did not come back");
        }
    }
    if (result != SOAK_SETTLES && rc != result) {
        __soakFail(std::string(f.name) + ": result " + std::to_string(rc) + ", the rules give " +
                   std::to_string(result));
    }
    if (f.again && __soakRequest(f.kind) != 0) { // the part's memory is checked with the result
        __soakFail(std::string(f.name) + ": the next attempt did not complete the upgrade");
    }
    __soakPlain(f.settle);
}

void __soakPlainRequest()
{
    unsigned total = 0;
    for (const auto &k : SOAK_REQUESTS) {
        total += k.weight;
    }
    unsigned pick = static_cast<unsigned>(soak.rng() % total);
    for (const auto &k : SOAK_REQUESTS) {
        if (pick < k.weight) {
            if (const int32_t rc = __soakRequest(k.kind); rc != 0) {
                __soakFail(std::string(k.name) + " without a fault: result " + std::to_string(rc));
            }
            return;
        }
        pick -= k.weight;
    }
}

std::vector<uint8_t> __soakReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// An application of 4 KiB from the seed at the start of the flash range, as Intel HEX.
std::string __soakWriteHex(const std::string &path)
{
    std::ofstream out(path);
    out << ":020000041D01DC\n";
    std::mt19937 bytes(static_cast<uint32_t>(soak.seed) + 1);
    for (unsigned offset = 0; offset < 4096; offset += 16) {
        std::array<uint8_t, 20> record = {16, static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset), 0};
        std::generate_n(&record[4], 16, [&bytes] { return static_cast<uint8_t>(bytes()); });
        uint8_t sum = 0;
        out << ':';
        for (uint8_t b : record) {
            char hex[3];
            std::snprintf(hex, sizeof hex, "%02X", b);
            out << hex;
            sum = static_cast<uint8_t>(sum + b);
        }
        char check[4];
        std::snprintf(check, sizeof check, "%02X\n", static_cast<uint8_t>(-sum));
        out << check;
    }
    out << ":00000001FF\n";
    return path;
}

void __soakSetUp()
{
    evmLogSetSink([](int, const char *, int, const char *) {});
    simInProcessInstall();
    soakSimulated = platformSys;
    __soakPauseIn<&platformSysOps::open, &platformSysOps::close, &platformSysOps::ioctl, &platformSysOps::read,
                  &platformSysOps::write, &platformSysOps::lseek, &platformSysOps::usleep, &platformSysOps::system,
                  &platformSysOps::select, &platformSysOps::msSince1970>();
    simSetPlatformText("HW=BRISKA"); // platform 1: the one with option-bay fans
    char fileName[256] = {};
    __qxLoaderGetPicClientFileNameFromPlatform("HW=BRISKA", fileName);
    if (mkdtemp(soak.dir.data()) == nullptr || qxFileInit(__soakWriteHex(soak.dir + "/app.hex").c_str()) != 0) {
        __soakFail("set-up");
    }
    int32_t len = 0;
    uint8_t md5[QX_FILE_DIGEST_SIZE];
    qxFileGetMd5AndLen(&len, md5);
    soak.otherApp.assign(qxFileGetData(), qxFileGetData() + len);
    simInstallApplication({qxFileGetData(), static_cast<size_t>(len)}, static_cast<uint32_t>(len));
    if (qxUsbInit() != 0) {
        __soakFail("device link");
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        __soakFail("request pipe");
    }
    soak.requestRead.reset(fds[0]);
    soak.requestWrite.reset(fds[1]);
    mainLoopSetRequestFd(soak.requestRead.get());
    soak.reply = soak.dir + "/reply";
    mkfifo(soak.reply.c_str(), 0600);
    soak.replyRead.reset(open(soak.reply.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    // A 1 MiB FPGA file without a blank 1 KiB block, from the seed; the sample CPLD file.
    soak.fpgaFile = soak.dir + "/fpga.bin";
    soak.fpgaBytes.resize(1u << 20);
    std::mt19937 bytes(static_cast<uint32_t>(soak.seed));
    std::generate(soak.fpgaBytes.begin(), soak.fpgaBytes.end(), [&bytes] { return bytes() & 0x7F; });
    std::ofstream(soak.fpgaFile, std::ios::binary)
        .write(reinterpret_cast<const char *>(soak.fpgaBytes.data()), std::ssize(soak.fpgaBytes));
    soak.cpldFile = TARNHOLD_TESTDATA "/jbc/idcode.jbc";
    soak.cpldBytes = __soakReadFile(soak.cpldFile);
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i];
        if (opt != "--seed" && opt != "--requests") {
            std::fprintf(stderr, "usage: benchSoak [--requests N] [--seed S]\n");
            return 2;
        }
        (opt == "--seed" ? soak.seed : soak.limit) = std::strtoull(argv[i + 1], nullptr, 0);
    }
    soak.rng.seed(soak.seed);
    const auto wallStart = std::chrono::steady_clock::now();
    __soakSetUp();
    // Every kind and every fault once first, so the baseline below has seen each of them.
    for (const auto &k : SOAK_REQUESTS) {
        if (__soakRequest(k.kind) != 0) {
            __soakFail(std::string(k.name) + " without a fault failed");
        }
    }
    for (size_t f = 0; f < SOAK_FAULTS.size(); ++f) {
        __soakFault(f);
    }
    soak.counting = true;
    uint64_t baseHeap = 0;
    int baseFds = -1;
    while (soak.requests < soak.limit) {
        if (baseFds < 0 && soak.requests >= std::min<uint64_t>(1000, soak.limit / 2)) {
            baseHeap = __soakHeapBytes();
            baseFds = __soakOpenFds();
        }
        if (soak.rng() % 8 == 0) {
            __soakFault(soak.rng() % SOAK_FAULTS.size());
        } else {
            __soakPlainRequest();
        }
    }
    const uint64_t heap = __soakHeapBytes();
    const int fds = __soakOpenFds();
    if (baseFds >= 0 && fds != baseFds) {
        __soakFail("descriptors " + std::to_string(baseFds) + " then " + std::to_string(fds));
    }
    if (baseFds >= 0 && heap > baseHeap + 65536) {
        __soakFail("heap " + std::to_string(baseHeap) + " then " + std::to_string(heap) + " bytes");
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("benchSoak: seed %llu, %llu requests clean; virtual time %.1f h, wall time %.1f s, peak RSS %ld KiB; "
                "heap %llu then %llu bytes, descriptors %d then %d\nfaults by kind:\n",
                static_cast<unsigned long long>(soak.seed), static_cast<unsigned long long>(soak.requests),
                static_cast<double>(simVirtualNowUs()) / 3.6e9, wall, usage.ru_maxrss,
                static_cast<unsigned long long>(baseHeap), static_cast<unsigned long long>(heap), baseFds, fds);
    for (size_t f = 0; f < SOAK_FAULTS.size(); ++f) {
        std::printf("  %-36s %llu\n", SOAK_FAULTS[f].name, static_cast<unsigned long long>(soak.faults[f]));
    }
    qxUsbCleanUp();
    simInProcessUninstall();
    unlink(soak.fpgaFile.c_str());
    unlink((soak.dir + "/app.hex").c_str());
    unlink(soak.reply.c_str());
    rmdir(soak.dir.c_str());
    return 0;
}
