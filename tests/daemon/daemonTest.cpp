// The daemon core: the request loop driven pass by pass on virtual time, what the service manager hears on virtual
// time, then the real tarnhold binary (and tarnholdctl against it), each of those tests in a mount namespace of its
// own.
#include "../fpga/upgradeFixture.h"
#include "daemonHarness.h"
#include "daemonNotify.h"
#include "logCapture.h"
#include "main.h"
#include "qxFile.h"
#include "qxLoader.h"
#include "recordFormat.h"
#include "scsiCtrl.h"
#include "simFixture.h"
#include "sysRecord.h"
#include "sysSeam.h"
#include "usbMgmt.h"
#include "uniqueFd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <grp.h>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <ranges>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tuple>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;
using ::testing::Contains;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

struct {
    uint64_t nowUs = 0;
    uint64_t readableStepUs = 1; // a wait ends readable after this long; 0: it times out
    std::vector<long> waitsUs; // -1: without a timeout
    std::vector<uint32_t> intervals = {0}; // the heartbeat's answers, pass by pass (the last one repeats)
    size_t intervalAsked = 0;
    std::vector<uint64_t> beepsAtUs;
    int requestFd = -1;
    std::vector<int> requestBytesAtBeep; // still unread in the request pipe when the heartbeat went
} vt;

int pending(int fd)
{
    int bytes = -1;
    return ioctl(fd, FIONREAD, &bytes) == 0 ? bytes : -1;
}

int __fakeSelect(int nfds, fd_set *readSet, fd_set *, fd_set *, timeval *timeout)
{
    EXPECT_TRUE(nfds > 0 && FD_ISSET(nfds - 1, readSet)) << "the set holds the request descriptor, nfds is it + 1";
    long us = timeout != nullptr ? timeout->tv_sec * 1'000'000L + timeout->tv_usec : -1;
    vt.waitsUs.push_back(us);
    if (vt.readableStepUs == 0) {
        FD_ZERO(readSet); // timed out, or without a timeout interrupted by a signal
    }
    vt.nowUs += vt.readableStepUs > 0 ? vt.readableStepUs : uint64_t(std::max(us, 0L));
    return vt.readableStepUs > 0 ? 1 : 0;
}

// The loop's request pipe, and a folder for reply FIFOs removed with it.
struct loopRequests {
    loopRequests()
    {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
        requestRead_.reset(fds[0]);
        requestWrite_.reset(fds[1]);
        EXPECT_NE(mkdtemp(dir_.data()), nullptr);
    }
    ~loopRequests() { fs::remove_all(dir_); }
    // A FIFO in the test's folder, open for reading.
    uniqueFd fifoReader(const std::string &name)
    {
        EXPECT_EQ(mkfifo((dir_ + "/" + name).c_str(), 0600), 0);
        return uniqueFd(open((dir_ + "/" + name).c_str(), O_RDONLY | O_NONBLOCK));
    }
    // Sends a record of `code` whose clientFifo holds `path`, NUL-terminated only when shorter than the field.
    void send(const std::string &path, uint8_t code = 200, size_t len = sizeof(usbDaemonRequest))
    {
        usbDaemonRequest r = {};
        memcpy(r.clientFifo, path.data(), std::min(path.size(), sizeof r.clientFifo));
        r.cmd[0] = code;
        ASSERT_EQ(write(requestWrite_.get(), &r, len), ssize_t(len));
    }
    uniqueFd requestRead_, requestWrite_;
    std::string dir_ = "/tmp/loopRequests.XXXXXX";
};

class mainLoopTest : public ::testing::Test, protected loopRequests {
protected:
    void SetUp() override
    {
        vt = {};
        mainLoopSetRequestFd(vt.requestFd = requestRead_.get());
        platformSys.select = __fakeSelect;
        platformSys.msSince1970 = [] { return vt.nowUs / 1000; };
        mainHeartbeat.intervalSec = [] { return vt.intervals[std::min(vt.intervalAsked++, vt.intervals.size() - 1)]; };
        mainHeartbeat.beep = [] {
            vt.beepsAtUs.push_back(vt.nowUs);
            vt.requestBytesAtBeep.push_back(pending(vt.requestFd));
        };
    }
    void TearDown() override
    {
        platformSys = PLATFORM_SYS_LIBC;
        mainHeartbeat = MAIN_HEARTBEAT_NONE;
    }
};

TEST_F(mainLoopTest, theWaitTimeoutIsTheIntervalAskedOnEveryPassPlus10Microseconds)
{
    vt.intervals = {0, 1, 3, 0, 1, 1};
    vt.nowUs = 42'000'000;
    vt.readableStepUs = 0; // idle
    for (int i = 0; i < 6; ++i) {
        mainLoopPass();
    }
    EXPECT_EQ(vt.waitsUs, (std::vector<long>{-1, 1'000'010, 3'000'010, -1, 1'000'010, 1'000'010}));
    EXPECT_EQ(vt.beepsAtUs, (std::vector<uint64_t>{43'000'010, 46'000'020, 47'000'030, 48'000'040}));
}

TEST_F(mainLoopTest, beepsAtMostOncePerWallClockSecondFromSecondZeroAndBeforeTheRequest)
{
    logCapture log; // the replies have no reader
    vt.intervals = {1};
    vt.readableStepUs = 300'000; // requests keep coming: each wait ends after 0.3 s
    for (int i = 0; i < 7; ++i) {
        if (i == 3) {
            send(dir_ + "/reply"); // read in the pass that beats at 1.2 s
        }
        mainLoopPass();
    }
    // Passes end at 0.3, 0.6, 0.9, 1.2, 1.5, 1.8, 2.1 s; second 0 counts as beaten already.
    EXPECT_EQ(vt.beepsAtUs, (std::vector<uint64_t>{1'200'000, 2'100'000}));
    EXPECT_EQ(vt.requestBytesAtBeep, (std::vector<int>{sizeof(usbDaemonRequest), 0}));
}

TEST_F(mainLoopTest, wholeRecordsAreServedOnePerPassAndRepliesGoOnlyIntoAFifoThatSomeoneReads)
{
    logCapture log;
    uniqueFd reply = fifoReader("reply");
    uniqueFd second = fifoReader("second");
    // Short records get no reply and no line; whole ones that wait together are served one per pass, in order.
    for (size_t shortLen : {size_t{100}, sizeof(usbDaemonRequest) - 1}) {
        send(dir_ + "/reply", 200, shortLen);
        mainLoopPass();
    }
    send(dir_ + "/reply");
    send(dir_ + "/second");
    mainLoopPass();
    EXPECT_EQ(pending(reply.get()), int(sizeof(usbDaemonRequest)));
    EXPECT_EQ(pending(second.get()), 0);
    mainLoopPass();
    EXPECT_EQ(pending(second.get()), int(sizeof(usbDaemonRequest)));
    EXPECT_TRUE(log.texts().empty());

    uniqueFd fullReader = fifoReader("full");
    uniqueFd filler(open((dir_ + "/full").c_str(), O_WRONLY | O_NONBLOCK));
    char junk[4096] = {};
    while (write(filler.get(), junk, sizeof junk) > 0 || write(filler.get(), junk, 1) > 0) {
    }
    ASSERT_EQ(mkfifo((dir_ + "/unread").c_str(), 0600), 0);
    std::ofstream{dir_ + "/regular"};
    // Each failure is one line at level 0 from main, and the loop goes on.
    for (const auto &[path, line] : {std::pair{std::string(sizeof(usbDaemonRequest::clientFifo), 'a'),
                                               "fdClient: -1 - 'File name too long'"},
                                     {dir_ + "/missing", "fdClient: -1 - 'No such file or directory'"},
                                     {dir_ + "/unread", "fdClient: -1 - 'No such device or address'"},
                                     {dir_ + "/regular", "fdClient: -1 - 'not a FIFO'"},
                                     {dir_ + "/full", "tarnhold:main: write - 'Resource temporarily unavailable'"},
                                     {dir_ + "/reply", ""}}) {
        log.clear();
        send(path);
        mainLoopPass();
        EXPECT_EQ(log.leveled("main"), *line ? strings{std::string("0 ") + line} : strings{}) << path;
        EXPECT_EQ(log.lines().size(), *line ? 1u : 0u) << "nothing from elsewhere";
    }
    EXPECT_EQ(pending(reply.get()), int(2 * sizeof(usbDaemonRequest)));
    EXPECT_EQ(fs::file_size(dir_ + "/regular"), 0u) << "a regular file is never written";
}

constexpr uint64_t WATCHDOG_US = 30 * S; // the unit's WatchdogSec=30
using stamped = std::vector<std::pair<uint64_t, std::string>>;

// The service manager's end of NOTIFY_SOCKET, in the abstract namespace; with the process's own watchdog when asked.
uniqueFd managerSocket(bool watchdog)
{
    const std::string name = "@tarnhold-notify-" + std::to_string(getpid());
    sockaddr_un addr = {.sun_family = AF_UNIX, .sun_path = {}};
    std::copy(name.begin() + 1, name.end(), addr.sun_path + 1);
    uniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), socklen_t(sizeof(sa_family_t) + name.size())), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    setenv("WATCHDOG_USEC", watchdog ? std::to_string(WATCHDOG_US).c_str() : "0", 1);
    return fd;
}

// Every datagram waiting, stamped with `now`, into `got`; the texts but keep-alives of all got so far.
strings managerDrain(int fd, uint64_t now, stamped &got)
{
    char text[512];
    for (ssize_t n; (n = recv(fd, text, sizeof text, MSG_DONTWAIT)) > 0;) {
        got.emplace_back(now, std::string(text, size_t(n)));
    }
    strings notices;
    std::ranges::copy_if(got | std::views::values, std::back_inserter(notices),
                         [](const std::string &t) { return t != "WATCHDOG=1"; });
    return notices;
}

// The service manager's view of start-up, upgrades and the loop on the in-process appliance: the socket is drained
// at every virtual sleep, wait and driver call (a full socket would block the sender), so each datagram carries the
// virtual time it was sent at.
struct {
    uniqueFd fd;
    platformSysOps sim;
    stamped got;
} manager;

class notifyTest : public upgradeTest {
protected:
    void SetUp() override
    {
        upgradeTest::SetUp();
        qxUsbCleanUp(); // start-up opens the link itself
        ASSERT_TRUE(daemonHarnessWriteImage(file_)); // not what the appliance runs: a whole upgrade at start-up
        manager.fd = managerSocket(true);
        manager.got.clear();
        daemonNotifyInit();
        manager.sim = platformSys;
        platformSys.usleep = [](useconds_t us) { return drain(), manager.sim.usleep(us); };
        platformSys.select = [](int n, fd_set *r, fd_set *w, fd_set *e, timeval *t) {
            return drain(), manager.sim.select(n, r, w, e, t);
        };
        platformSys.ioctl = [](int fd, unsigned long rq, void *arg) { return drain(), manager.sim.ioctl(fd, rq, arg); };
        mainLoopSetRequestFd(idle_.get());
    }
    void TearDown() override
    {
        unsetenv("NOTIFY_SOCKET");
        daemonNotifyInit();
        manager.fd.reset();
        upgradeTest::TearDown();
    }
    static strings drain() { return managerDrain(manager.fd.get(), simVirtualNowUs(), manager.got); }
    // The longest stretch of `operation` without a keep-alive; it must last longer than half the interval.
    static uint64_t longestSilence(const std::function<int32_t()> &operation)
    {
        drain();
        manager.got.clear();
        const uint64_t from = simVirtualNowUs();
        EXPECT_EQ(operation(), 0);
        drain();
        EXPECT_GT(simVirtualNowUs() - from, WATCHDOG_US / 2) << "long enough to need a keep-alive";
        uint64_t last = from, longest = 0;
        for (const auto &[at, text] : manager.got) {
            longest = text == "WATCHDOG=1" ? std::max(longest, at - std::exchange(last, at)) : longest;
        }
        return std::max(longest, simVirtualNowUs() - last);
    }
    const std::string jbc_ = std::string(TARNHOLD_TESTDATA) + "/jbc/PIXEL8x4.jbc";
    uniqueFd idle_{eventfd(0, EFD_CLOEXEC)}; // a request descriptor that never becomes readable
};

TEST_F(notifyTest, startUpSaysEachStepInOrderAndOnlyTheLoopReportsReady)
{
    ASSERT_EQ(usbMgmtInit(file_.c_str()), 0);
    const std::string searching = "STATUS=Searching for the microcontroller";
    const std::string upgrading = "STATUS=Upgrading the microcontroller's firmware: ";
    const std::string blocks = std::to_string((QX_FLASH_SIZE + QX_PACKET_DATA_SIZE - 1) / QX_PACKET_DATA_SIZE);
    // Programming takes no virtual time here: the rate limit lets only the first and the last progress line out.
    strings expected = {"STATUS=Firmware file " + file_, searching,
                        "STATUS=Firmware differs: sending the microcontroller to its bootloader", searching,
                        upgrading + "erasing", upgrading + "0 of " + blocks + " blocks written",
                        upgrading + blocks + " of " + blocks + " blocks written", searching,
                        "STATUS=Firmware up to date"};
    EXPECT_EQ(drain(), expected);
    // Ready from the loop's first pass, once; an upgrade request's line gives way to the serving line after it.
    mainLoopPass();
    mainLoopPass();
    EXPECT_EQ(upgradeFrom(QX_HID_CMD_CPLD_UPGRADE, jbc_), 0);
    mainLoopPass();
    qxUsbCleanUp(); // said while it lasts
    mainLoopPass();
    EXPECT_EQ(qxUsbInit(), 0);
    const std::string cpld = "STATUS=CPLD upgrade in progress";
    expected.insert(expected.end(), {"READY=1\nSTATUS=Serving requests", cpld, cpld + ": 0 of 170 pages written",
                                     cpld + ": 170 of 170 pages written", "STATUS=Serving requests",
                                     "STATUS=Serving requests; link to the microcontroller closed",
                                     "STATUS=Serving requests"});
    EXPECT_EQ(drain(), expected);
}

TEST_F(notifyTest, keepAlivesAreNeverFurtherApartThanHalfTheWatchdogIntervalDuringTheLongestOperations)
{
    const std::pair<const char *, std::function<int32_t()>> operations[] = {
        {"start-up: two resets for slot 4, then a whole upgrade", [this] {
             simSetSlotUnreadable(QX_SLOT_FIRMWARE, 12);
             return usbMgmtInit(file_.c_str());
         }},
        {"FPGA", [this] { return upgradeFrom(QX_HID_CMD_FPGA_UPGRADE, write(bytesOf(1 << 20))); }},
        {"CPLD, two attempts", [this] {
             simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_CRC, 1);
             return upgradeFrom(QX_HID_CMD_CPLD_UPGRADE, jbc_);
         }},
        {"the loop idle without a heartbeat", [] {
             for (int pass = 0; pass < 32; ++pass) {
                 mainLoopPass();
             }
             return 0;
         }},
    };
    for (const auto &[what, operation] : operations) {
        EXPECT_LE(longestSilence(operation), WATCHDOG_US / 2) << what;
    }
}

constexpr const char *PID_FILE = "/var/run/tarnhold.pid";
constexpr const char *APP_HEX = "/tmp/app.hex";
constexpr const char *APP_INPUT_LINE = "platform input: /tmp/app.hex";

// The loop on the in-process appliance: a client polling every 5 ms while the board drops off the bus.
class mainLoopOnSim : public simLinkTest, protected loopRequests {
protected:
    void SetUp() override
    {
        simLinkTest::SetUp();
        mainLoopSetRequestFd(requestRead_.get());
        replyRead_ = fifoReader("reply");
    }
    int32_t poll(uint8_t code)
    {
        simAdvanceUs(5'000);
        send(dir_ + "/reply", code);
        mainLoopPass();
        usbDaemonRequest r = {};
        EXPECT_EQ(read(replyRead_.get(), &r, sizeof r), ssize_t(sizeof r));
        return r.result;
    }
    std::vector<int32_t> polls(int count)
    {
        std::vector<int32_t> results;
        std::generate_n(std::back_inserter(results), count, [&] { return poll(QX_HID_CMD_GET_ALL_DRV_STATUS); });
        return results;
    }
    uniqueFd replyRead_;
};

TEST_F(mainLoopOnSim, absencesAreServedAgainByTheSecondRequestAfterTheReturnAndHostHeldRequestsStayAnswered)
{
    // Nothing asked while away: the first request finds the old descriptor dead and re-opens, the next is served.
    simDropOffBus(1'000'000);
    simAdvanceUs(1'000'000);
    EXPECT_EQ(polls(2), (std::vector<int32_t>{-1, 0}));
    // Three requests while away: the node, once back, opens before the next one.
    simDropOffBus(1'000'000);
    EXPECT_EQ(polls(3), (std::vector<int32_t>{-1, -1, -1}));
    simAdvanceUs(1'000'000);
    EXPECT_EQ(polls(2), (std::vector<int32_t>{0, 0}));
    // A long absence: the node is tried about once a second, and what the host holds is answered all along.
    simDropOffBus(10'000'000);
    forget();
    std::vector<int32_t> relayed, hostHeld;
    for (int i = 0; i < 1000; ++i) { // 10 s
        relayed.push_back(poll(QX_HID_CMD_GET_ALL_DRV_STATUS));
        hostHeld.push_back(poll(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND));
    }
    EXPECT_EQ(relayed, std::vector<int32_t>(1000, -1));
    EXPECT_EQ(hostHeld, std::vector<int32_t>(1000, 0));
    // The re-open after ENODEV, then one try in each second.
    EXPECT_EQ(std::ranges::count(simKinds(), simEventKind::OPEN_FAILED), 11);
    EXPECT_EQ(polls(2), (std::vector<int32_t>{0, 0}));
    // Host-held requests alone never try the closed link, however long it stays closed (codes without a handler
    // among them).
    simDropOffBus(10'000'000);
    EXPECT_EQ(poll(QX_HID_CMD_GET_ALL_DRV_STATUS), -1);
    forget();
    for (int round = 0; round < 40; ++round) { // 2.4 s
        for (uint8_t code : {0, 8, 15, 22, 23, 30, 31, 32, 57, 58, 64, 255}) {
            poll(code);
        }
    }
    EXPECT_EQ(std::ranges::count(simKinds(), simEventKind::OPEN_FAILED), 0);
}

// The kinds of a recording's records, in order, and its last gap's counts; the file must read to its end.
std::vector<recordKind> recordedKinds(const std::string &path, recordGap *gap = nullptr)
{
    const std::string bytes = daemonHarnessReadFile(path);
    const std::span<const uint8_t> file(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    recordFileHeader header;
    recordError error = {};
    std::vector<recordKind> kinds;
    uint64_t offset = sizeof header, index = 0;
    recordView view;
    if (!recordReadHeader(file, header, error)) {
        ADD_FAILURE() << path << ": " << error.message;
        return kinds;
    }
    while (recordReadNext(file, offset, index, view, error) == 1) {
        kinds.push_back(recordKind(view.head.kind));
        if (gap != nullptr && kinds.back() == recordKind::GAP) {
            memcpy(gap, view.fixed, sizeof *gap);
        }
    }
    EXPECT_EQ(offset, file.size()) << error.message;
    return kinds;
}

// A run of the start-up and the loop recorded on the in-process appliance replays to its end in tarnhold-sim.
TEST_F(mainLoopOnSim, aRecordedRunOfStartUpAndLoopReplaysToItsEnd)
{
    // Outside /tmp, which the replay's run hides behind a fresh one.
    std::string keep = "/var/tmp/tarnhold-record.XXXXXX";
    ASSERT_NE(mkdtemp(keep.data()), nullptr);
    const std::string image = keep + "/app.hex", fpga = keep + "/fpga.bin", rec = keep + "/run.rec";
    ASSERT_TRUE(daemonHarnessWriteImage(image));
    std::ofstream(fpga, std::ios::binary) << std::string(1u << 20, 'F');
    qxUsbCleanUp();
    ASSERT_EQ(setenv("TARNHOLD_RECORD", rec.c_str(), 1), 0);
    std::array<const char *, 3> argv = {"tarnhold", "--file", image.c_str()};
    sysRecordStart(int(argv.size()), const_cast<char **>(argv.data()), requestRead_.get());
    unsetenv("TARNHOLD_RECORD");
    ASSERT_TRUE(sysRecordOn());
    ASSERT_EQ(usbMgmtInit(image.c_str()), 0); // upgrades the other application the model starts with
    scsiCtrlInit();
    mainHeartbeat = MAIN_HEARTBEAT_SCSI_CTRL;
    for (uint8_t code : {QX_HID_CMD_GET_INFO, QX_HID_CMD_FPGA_UPGRADE, QX_HID_CMD_GET_ALL_DRV_STATUS}) {
        usbDaemonRequest r = {};
        memcpy(r.clientFifo, (dir_ + "/reply").c_str(), dir_.size() + 7);
        r.cmd[0] = code;
        memcpy(&r.cmd[3], fpga.c_str(), fpga.size() + 1);
        ASSERT_EQ(write(requestWrite_.get(), &r, sizeof r), ssize_t(sizeof r));
        mainLoopPass();
        ASSERT_EQ(read(replyRead_.get(), &r, sizeof r), ssize_t(sizeof r));
        EXPECT_EQ(r.result, 0) << int(code);
    }
    sysRecordStop();
    mainHeartbeat = MAIN_HEARTBEAT_NONE;

    const size_t count = recordedKinds(rec).size();
    daemonHarness replay;
    EXPECT_EQ(replay.runToEnd({.binary = TARNHOLD_SIM_BINARY, .args = {"--replay", rec}}), 0) << replay.stderrText();
    EXPECT_THAT(replay.stdoutText(), HasSubstr("all " + std::to_string(count) + " exchanges matched"));
    fs::remove_all(keep);
}

// Records wait in a buffer between the service's waits; a crash signal writes them out before its own record.
TEST_F(mainLoopOnSim, aCrashSignalWritesTheRecordsStillBufferedBeforeItsOwn)
{
    const std::string rec = dir_ + "/crash.rec";
    auto crash = [&] {
        setenv("TARNHOLD_RECORD", rec.c_str(), 1);
        std::array<char *, 2> argv = {const_cast<char *>("tarnhold"), nullptr};
        sysRecordStart(1, argv.data(), requestRead_.get());
        for (int i = 0; i < 3; ++i) {
            uint8_t report[QX_REPORT_SIZE] = {QX_HID_CMD_GET_INFO};
            qxUsbCmd(report); // a send and no wait: its record stays in the buffer
        }
        signal(SIGSEGV, [](int sig) {
            sysRecordExit(sig);
            _exit(7);
        });
        raise(SIGSEGV);
    };
    EXPECT_EXIT(crash(), ::testing::ExitedWithCode(7), "");
    EXPECT_EQ(recordedKinds(rec), (std::vector<recordKind>{recordKind::START, recordKind::IOCTL, recordKind::IOCTL,
                                              recordKind::IOCTL, recordKind::EXIT}));

    // The next start keeps that recording as FILE.1; where it cannot, the log says so before the file is reused.
    auto start = [&] {
        setenv("TARNHOLD_RECORD", rec.c_str(), 1);
        std::array<char *, 2> argv = {const_cast<char *>("tarnhold"), nullptr};
        sysRecordStart(1, argv.data(), requestRead_.get());
        unsetenv("TARNHOLD_RECORD");
        sysRecordStop();
    };
    const auto crashed = fs::file_size(rec);
    const std::string notKept = "recording to " + rec + ": the one before is not kept as " + rec + ".1: Is a directory";
    logCapture log;
    start();
    EXPECT_EQ(fs::file_size(rec + ".1"), crashed);
    EXPECT_FALSE(log.contains(notKept));
    fs::remove(rec + ".1");
    fs::create_directories(rec + ".1/in");
    start();
    EXPECT_TRUE(log.contains(notKept)) << testing::PrintToString(log.texts());
}

// The recording file: a link placed at its path, or at the name a cut writes the new file under, is not followed,
// nor is another account's file there written; past its limit the file keeps the start-up part and the newest
// part, and the gap between them counts exactly the exchanges and bytes it left out.
TEST_F(mainLoopOnSim, theRecordingFileTakesNoLinkNorAnotherAccountsFileAndItsGapCountsOnlyWhatWasLeftOut)
{
    const std::string rec = dir_ + "/run.rec", victim = dir_ + "/victim", path = "/nonexistent/recorded";
    constexpr int LOOKS = 20000; // 1 MB: more than one cut
    const auto look = [&](int count) {
        for (int i = 0; i < count; ++i) {
            platformSys.access(path.c_str(), F_OK);
        }
    };
    std::array<char *, 2> argv = {const_cast<char *>("tarnhold"), nullptr};
    const auto start = [&] {
        setenv("TARNHOLD_RECORD", rec.c_str(), 1);
        setenv("TARNHOLD_RECORD_LIMIT", "256K", 1);
        sysRecordStart(1, argv.data(), requestRead_.get());
        unsetenv("TARNHOLD_RECORD");
        unsetenv("TARNHOLD_RECORD_LIMIT");
    };
    // A link to a file of the service's account at either name, and another account's file at the path.
    std::ofstream(victim) << "kept";
    for (const auto &[at, link] : {std::pair{rec, true}, {rec + ".tmp", true}, {rec, false}}) {
        if (link) {
            ASSERT_EQ(symlink(victim.c_str(), at.c_str()), 0);
        } else {
            std::ofstream(at) << "kept";
            ASSERT_EQ(chown(at.c_str(), 65534, 65534), 0);
        }
        start();
        look(LOOKS);
        sysRecordStop();
        EXPECT_EQ(daemonHarnessReadFile(link ? victim : at).substr(0, 16), "kept") << at;
        fs::remove(at);
    }

    start();
    ASSERT_TRUE(sysRecordOn());
    look(10);
    send(dir_ + "/reply"); // the first request read ends the start-up part
    usbDaemonRequest r;
    ASSERT_EQ(platformSys.read(requestRead_.get(), &r, sizeof r), ssize_t(sizeof r));
    look(LOOKS);
    sysRecordStop();

    // Left out: the request's read, which opens the loop's part, and the older looks.
    recordGap gap = {};
    const std::vector<recordKind> kinds = recordedKinds(rec, &gap);
    ASSERT_GT(kinds.size(), 12u);
    EXPECT_EQ(std::vector(kinds.begin(), kinds.begin() + 12),
              repeat<recordKind>({recordKind::START}, {recordKind::ACCESS}, 10, {recordKind::GAP}));
    const auto newest = uint64_t(std::count(kinds.begin() + 12, kinds.end(), recordKind::ACCESS));
    EXPECT_EQ(newest, kinds.size() - 12);
    EXPECT_EQ(gap.records, 1 + LOOKS - newest);
    EXPECT_EQ(gap.bytes, sizeof(recordHead) + sizeof(recordTransfer) + sizeof r +
                             (LOOKS - newest) * (sizeof(recordHead) + sizeof(recordAccess) + path.size()));
}

class daemonProcessTest : public ::testing::Test {
protected:
    // A namespace as on first start, with the image that the appliance's flash holds.
    void SetUp() override
    {
        ASSERT_EQ(daemonHarnessIsolate(), "");
        ASSERT_TRUE(daemonHarnessWriteImage(APP_HEX));
    }
    // Starts a daemon on the simulated appliance and waits until its request FIFO is open.
    static void startServing(daemonHarness &daemon, strings args = {"--file", APP_HEX}, mode_t umask = 022)
    {
        ASSERT_TRUE(daemon.start(daemonHarnessOnAppliance(APP_HEX, std::move(args), umask)));
        ASSERT_TRUE(daemon.waitReady()) << daemon.stderrText();
    }
    // One request of a code without handler through the client library: served or not.
    static bool serves(const daemonHarness &daemon)
    {
        usbDaemonRequest r = daemonHarnessRecord(200);
        return daemon.exchange(r) == 0 && r.result == USB_DAEMON_RESULT_UNKNOWN_FUNCTION;
    }
    // tarnholdctl with `args` (under `wrapper` when given) to its end: its exit status; what it printed in out_.
    int ctl(strings args, strings wrapper = {})
    {
        daemonHarness run;
        const int status =
            run.runToEnd({.wrapper = std::move(wrapper), .binary = TARNHOLDCTL_BINARY, .args = std::move(args)});
        out_ = run.stdoutText() + run.stderrText();
        return status;
    }
    std::string out_;
};

TEST_F(daemonProcessTest, servesCodesWithoutHandlerWithResult8OnlyReportsSigpipeAndLocksOutASecondInstance)
{
    uniqueFd socket = managerSocket(false);
    stamped got;
    daemonHarness daemon;
    startServing(daemon);
    EXPECT_THAT(daemon.stdoutText(), ContainsRegex("^fdDaemon: [0-9]+, fdDummy: [0-9]+\n"));
    // The service manager hears ready once the loop serves, last (the steps before it: the in-process tests).
    EXPECT_TRUE(daemonHarnessPoll(10000, [&] { return managerDrain(socket.get(), 0, got).size() == 4; }));
    EXPECT_EQ(managerDrain(socket.get(), 0, got).back(), "READY=1\nSTATUS=Serving requests");
    unsetenv("NOTIFY_SOCKET");
    // Which codes have no handler, and that those above 63 log nothing, is pinned by the device management tests.
    // The record comes back whole; that its blocks come back as they were is pinned there too.
    usbDaemonRequest r = daemonHarnessRecord(64);
    r.padding[0] = 0xEE;
    ASSERT_EQ(daemon.exchange(r), 0);
    EXPECT_EQ(r.result, USB_DAEMON_RESULT_UNKNOWN_FUNCTION);
    EXPECT_EQ(r.padding[0], 0xEE);
    // SIGPIPE is only reported: its handler has run before the next request is read.
    ASSERT_TRUE(daemon.signalDaemon(SIGPIPE));
    EXPECT_TRUE(serves(daemon));
    EXPECT_NE(daemon.stderrText().find("signal_pipe_handler():: retry!\n"), std::string::npos);
    // The pid file's lock refuses a second instance.
    daemonHarness second;
    EXPECT_EQ(second.runToEnd(daemonHarnessOnAppliance(APP_HEX, {})), 1);
    EXPECT_NE(second.stderrText().find("already running"), std::string::npos) << second.stderrText();
    EXPECT_TRUE(serves(daemon));
}

TEST_F(daemonProcessTest, onlyItsOwnFifoIsServedWhateverWasAtThePathAndItGetsTheGroupAndModeAtEveryStart)
{
    const group *adm = getgrnam("adm");
    ASSERT_NE(adm, nullptr);
    const gid_t admGid = adm->gr_gid;
    // A symbolic link's target that the daemon would take as its own FIFO and give group and mode were the link
    // followed; a regular file seen through a second name; a folder deep enough that removing it would walk it.
    ASSERT_EQ(mkfifo("/tmp/target", 0600), 0);
    std::ofstream("/tmp/regular") << "kept";
    const std::string found = std::string(USB_DAEMON_FIFO) + ": found ";
    const std::string moved = ", not the service's own FIFO; moved to /tmp/qx-usb-daemon-fifo\\.[a-z0-5]{8}";
    // What is at the path before the start, the options (with a group root:adm 0620, else root:root 0666), the line.
    const std::tuple<int (*)(), strings, std::string> cases[] = {
        {[] { return 0; }, {"--fifo-group", "adm"}, ""},
        {[] { return mkfifo(USB_DAEMON_FIFO, 0666); }, {"--fifo-group", "adm"},
         std::string(USB_DAEMON_FIFO) + " already exist, don't have to create it again!"},
        {[] { return mkfifo(USB_DAEMON_FIFO, 0) | chown(USB_DAEMON_FIFO, 65534, 65534) | chmod(USB_DAEMON_FIFO, 0666); },
         {"--fifo-g=adm"}, found + "a FIFO owned by uid 65534 \\(mode 0666\\)" + moved},
        {[] { return symlink("/tmp/target", USB_DAEMON_FIFO); }, {"--fifo-group", "adm"},
         found + "a symbolic link owned by uid 0 \\(mode 0777\\)" + moved},
        {[] { return link("/tmp/regular", USB_DAEMON_FIFO) | chmod("/tmp/regular", 0644); }, {},
         found + "a regular file owned by uid 0 \\(mode 0644\\)" + moved},
        {[] {
             std::error_code ec;
             fs::create_directories(std::string(USB_DAEMON_FIFO) + "/a/b/c/d/e/f/g/h", ec);
             std::ofstream(std::string(USB_DAEMON_FIFO) + "/a/b/c/file") << "x";
             return (ec ? 1 : 0) | symlink("/", (std::string(USB_DAEMON_FIFO) + "/a/root").c_str()) |
                    chown(USB_DAEMON_FIFO, 65534, 65534);
         },
         {}, found + "a directory owned by uid 65534 \\(mode 0755\\)" + moved},
    };
    for (auto [place, args, line] : cases) {
        SCOPED_TRACE(line);
        fs::remove(USB_DAEMON_FIFO);
        ASSERT_EQ(place(), 0);
        const bool grouped = !args.empty();
        args.insert(args.begin(), {"--file", APP_HEX});
        daemonHarness daemon;
        startServing(daemon, args, 077); // the mode does not come from the umask
        EXPECT_TRUE(serves(daemon));
        const strings lines = daemon.logTexts("main");
        ASSERT_EQ(lines.size(), line.empty() ? 1u : 2u);
        EXPECT_EQ(lines[0], APP_INPUT_LINE);
        if (!line.empty()) {
            EXPECT_THAT(lines[1], MatchesRegex(line));
        }
        struct stat st = {};
        ASSERT_EQ(lstat(USB_DAEMON_FIFO, &st), 0);
        EXPECT_TRUE(S_ISFIFO(st.st_mode) && st.st_uid == 0 && st.st_gid == (grouped ? admGid : 0));
        EXPECT_EQ(fs::perms(st.st_mode & 07777), fs::perms(grouped ? 0620 : 0666));
        // What was moved aside is whole where the line says, nothing in it followed.
        if (lines.size() == 2 && lines[1].find("directory") != std::string::npos) {
            const std::string aside = lines[1].substr(lines[1].rfind(' ') + 1);
            EXPECT_TRUE(fs::is_directory(aside + "/a/b/c/d/e/f/g/h") && fs::is_symlink(aside + "/a/root"));
            EXPECT_EQ(daemonHarnessReadFile(aside + "/a/b/c/file"), "x");
        }
    }
    EXPECT_TRUE(fs::is_fifo("/tmp/target") && fs::status("/tmp/target").permissions() == fs::perms(0600));
    EXPECT_EQ(daemonHarnessReadFile("/tmp/regular"), "kept");
    // A group that cannot be given stops start-up: never a FIFO open to everyone instead.
    for (const auto &[group, line] : {std::pair{std::string("no-such-group"), std::string(USB_DAEMON_FIFO) +
                                                                                  ": no group 'no-such-group' to give it to"},
                                      {std::string(33, 'g'), "INVALID GROUP NAME INPUT"}}) {
        daemonHarness daemon;
        EXPECT_EQ(daemon.runToEnd(daemonHarnessOnAppliance(APP_HEX, {"--fifo-group", group})), 1) << line;
        EXPECT_THAT(daemon.logTexts("main"), Contains(line));
    }
}

// Records written straight into the request FIFO, as any program may; each reply path is judged on what it opens.
TEST_F(daemonProcessTest, repliesGoOnlyIntoAClientsFifoAndEachRefusalIsOneLineWithThePathEscaped)
{
    daemonHarness daemon;
    startServing(daemon, {"--file", APP_HEX, "--fifo-group", "adm"});
    auto reader = [](const std::string &path, uid_t uid, gid_t gid) {
        EXPECT_EQ(mkfifo(path.c_str(), 0622) | chown(path.c_str(), uid, gid), 0) << path;
        return uniqueFd(open(path.c_str(), O_RDONLY | O_NONBLOCK));
    };
    const gid_t admGid = getgrnam("adm")->gr_gid;
    uniqueFd root = reader("/tmp/root-fifo", 0, 0);
    uniqueFd outsider = reader("/tmp/outsider-fifo", 65534, 65534);
    uniqueFd member = reader("/tmp/member-fifo", 65534, admGid); // only a member can give its FIFO the group
    ASSERT_EQ(symlink("/tmp/root-fifo", "/tmp/link"), 0);
    ASSERT_EQ(symlink("/tmp/root-fifo", "/tmp/evil\nmain:1: forged"), 0);
    const std::string viaProc = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(root.get());
    // A link on the way is followed only where only root could have placed it (as /var/run -> /run).
    ASSERT_TRUE(fs::create_directories("/tmp/rooted/open") && fs::create_directory("/tmp/fifos"));
    fs::permissions("/tmp/rooted/open", fs::perms::all);
    ASSERT_EQ(symlink("/tmp/fifos", "/tmp/rooted/via") | symlink("/tmp/fifos", "/tmp/rooted/open/via"), 0);
    uniqueFd behindRootsLink = reader("/tmp/fifos/fifo", 0, 0);
    uniqueFd requests(open(USB_DAEMON_FIFO, O_WRONLY | O_NONBLOCK));
    auto send = [&](const std::string &path, uint8_t code = 200) {
        usbDaemonRequest r = daemonHarnessRecord(code);
        memcpy(r.clientFifo, path.data(), std::min(path.size(), sizeof r.clientFifo - 1));
        if (code == QX_HID_CMD_FPGA_UPGRADE) {
            memcpy(&r.cmd[3], "/tmp/evil\nmain:2: forged", 25);
        }
        ASSERT_EQ(write(requests.get(), &r, sizeof r), ssize_t(sizeof r));
    };
    // The request FIFO itself would hand the reply back as the next request, round and round.
    for (const std::string &path : strings{USB_DAEMON_FIFO, "/tmp/link", viaProc, "/tmp/outsider-fifo",
                                   "/tmp/evil\nmain:1: forged", "/tmp/member-fifo", "/tmp/rooted/via/fifo",
                                   "/tmp/rooted/open/via/fifo", "/dev/null"}) {
        send(path);
    }
    send("/tmp/root-fifo", QX_HID_CMD_FPGA_UPGRADE);
    ASSERT_TRUE(serves(daemon)); // served in order: everything before it is done
    EXPECT_EQ(daemon.logTexts("main"),
              (strings{APP_INPUT_LINE, "no reply to '/tmp/qx-usb-daemon-fifo': the request FIFO itself",
                       "no reply to '/tmp/link': a symbolic link in the path",
                       "no reply to '" + viaProc + "': a path under /proc",
                       "no reply to '/tmp/outsider-fifo': a FIFO of uid 65534, who is not in group adm",
                       "no reply to '/tmp/evil\\nmain:1: forged': a symbolic link in the path",
                       "no reply to '/tmp/rooted/open/via/fifo': a symbolic link in the path",
                       "fdClient: -1 - 'not a FIFO'"}));
    EXPECT_THAT(daemon.logTexts("fpgaUpgrade"),
                Contains("QX_TRACE_FILE-fpgaUpgradeFileInit:: fileName: /tmp/evil\\nmain:2: forged"));
    EXPECT_EQ(pending(member.get()), int(sizeof(usbDaemonRequest)));
    EXPECT_EQ(pending(behindRootsLink.get()), int(sizeof(usbDaemonRequest)));
    EXPECT_EQ(pending(outsider.get()), 0);
    EXPECT_EQ(pending(root.get()), int(sizeof(usbDaemonRequest))) << "only the FPGA request's own reply";
    // Nothing of the forged texts began a line of its own.
    EXPECT_EQ(daemon.stderrText().find("\nmain:"), std::string::npos);
}

TEST_F(daemonProcessTest, fileNamesOf1To294CharactersAreTakenOthersRefused)
{
    // A real image at a path of exactly 294 characters: served, so the name reached device start-up whole.
    std::string ok294 = "/tmp/" + std::string(200, 'd') + "/" + std::string(88, 'f');
    ASSERT_TRUE(fs::create_directory(fs::path(ok294).parent_path()) && daemonHarnessWriteImage(ok294));
    std::string refused = "INVALID FILE NAME INPUT";
    const std::pair<strings, strings> cases[] = { // the options, main's lines
        {{"--file", ok294}, {"platform input: " + ok294}},
        // A refused name leaves the earlier valid one selected.
        {{"--file", APP_HEX, "--file", ok294 + "g"}, {APP_INPUT_LINE, "platform input: " + ok294 + "g", refused}},
        {{"--file", APP_HEX, "--file="}, {APP_INPUT_LINE, "platform input: ", refused}},
        {{"--fi=/tmp/app.hex", "stray", "words"}, {APP_INPUT_LINE}}, // abbreviations taken, other words passed over
    };
    for (const auto &[args, mainLines] : cases) {
        SCOPED_TRACE(args.back().substr(0, 20));
        fs::remove(USB_DAEMON_FIFO); // each start as the first one
        daemonHarness daemon;
        startServing(daemon, args);
        EXPECT_TRUE(serves(daemon));
        EXPECT_EQ(daemon.logTexts("main"), mainLines) << daemon.stderrText();
    }
}

TEST_F(daemonProcessTest, helpAndBadOptionsPrintTheUsageAndExitZeroBeforeDaemonStart)
{
    std::string usage = std::string("Usage: ") + TARNHOLD_BINARY + " --daemon \n\t " + TARNHOLD_BINARY +
                        " --help \n\t " + TARNHOLD_BINARY + " --file /usr/sbin/briska-pic-client.hex\n";
    for (const strings &args : {strings{"--help"}, {"--daemon", "--bogus"}, {"--file"}, {"--he"}}) {
        SCOPED_TRACE(args.back());
        daemonHarness daemon;
        EXPECT_EQ(daemon.runToEnd({.args = args}), 0);
        EXPECT_TRUE(daemon.stderrText().ends_with(usage)) << daemon.stderrText();
        std::string started = std::string(TARNHOLD_BINARY) + " started in daemon mode";
        EXPECT_THAT(daemon.logTexts("main"), Contains(started).Times(args[0] == "--daemon" ? 1 : 0));
        EXPECT_FALSE(fs::exists(PID_FILE) || fs::exists(USB_DAEMON_FIFO));
    }
}

TEST_F(daemonProcessTest, startUpFailuresStopWithStatus1)
{
    uniqueFd socket = managerSocket(false); // the service manager never hears ready
    stamped got;
    const std::pair<strings, std::string> cases[] = { // the options (on the appliance when given), main's line
        // Only a refused name: as if none was given, and the platform's firmware file is not there.
        {{"--file", "/" + std::string(294, 'x')}, "usbMgmtInit: failed"},
        {{}, "Error creating USB_DAEMON_FIFO: Read-only file system"},
    };
    for (const auto &[args, mainLine] : cases) {
        SCOPED_TRACE(mainLine);
        fs::remove(USB_DAEMON_FIFO);
        ASSERT_TRUE(!args.empty() || mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0);
        daemonHarness daemon;
        EXPECT_EQ(daemon.runToEnd(args.empty() ? daemonHarnessCommand{} : daemonHarnessOnAppliance(APP_HEX, args)), 1);
        EXPECT_THAT(daemon.logTexts("main"), Contains(mainLine)) << daemon.stderrText();
        EXPECT_EQ(daemon.logTexts("daemon"), strings{"tarnhold(EXIT) stopped"});
        EXPECT_EQ(fs::is_fifo(USB_DAEMON_FIFO), !args.empty()) << "a made FIFO is left in place";
        EXPECT_FALSE(fs::exists(PID_FILE));
        EXPECT_THAT(managerDrain(socket.get(), 0, got),
                    ::testing::Each(::testing::Not(::testing::StartsWith("READY"))));
    }
    unsetenv("NOTIFY_SOCKET");
    // /tmp is still read-only. One parse decides about detaching: an abbreviation of --daemon detaches (the
    // parent leaves at once with 0 and the child fails on its own), a file named "--daemon" does not.
    for (const auto &[args, status] : {std::pair{strings{"--dae"}, 0}, {strings{"--file", "--daemon"}, 1}}) {
        daemonHarness daemon;
        EXPECT_EQ(daemon.runToEnd({.args = args}), status) << args.back();
    }
}

TEST_F(daemonProcessTest, sigtermKeepsTheFifoOtherExitSignalsLeaveACrashLogAndRemoveIt)
{
    // All nine: a lost handler would leave the pid file and the FIFO behind.
    for (int sig : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV}) {
        SCOPED_TRACE(sig);
        daemonHarness daemon;
        startServing(daemon);
        ASSERT_TRUE(serves(daemon));
        std::string crashLog = "/var/crash/tarnhold-" + std::to_string(daemon.daemonPid()) + "-" +
                               std::to_string(sig) + ".log";
        ASSERT_EQ(daemon.exitStatus(sig), 0);
        EXPECT_EQ(daemon.logTexts("daemon"), strings{"tarnhold(ERROR/TERM) stopped"});
        EXPECT_FALSE(fs::exists(PID_FILE));
        bool fatal = sig != SIGTERM;
        EXPECT_EQ(fs::exists(USB_DAEMON_FIFO), !fatal);
        std::string cleaning = "signal_exit_handler(sig: " + std::to_string(sig) + "):: cleaning up!\n";
        EXPECT_EQ(daemon.stderrText().find(cleaning) != std::string::npos, fatal);
        std::string log = daemonHarnessReadFile(crashLog);
        EXPECT_EQ(fs::exists(crashLog), fatal);
        if (fatal) {
            auto frames = std::ranges::count(log, '\n');
            EXPECT_TRUE(frames >= 1 && frames <= 10) << log;
            EXPECT_NE(log.find("signal_exit_handler"), std::string::npos) << "the backtrace: " << log;
            EXPECT_EQ(fs::status(crashLog).permissions(), fs::perms(0644));
        }
    }
}

TEST_F(daemonProcessTest, tarnholdctlExitStatusAndStatusLinesSayWhatHappened)
{
    const std::string &out = out_;
    EXPECT_EQ(ctl({"raw", "200"}), 3); // what the client library says then is pinned by its own tests
    EXPECT_EQ(ctl({"status"}), 3);
    EXPECT_THAT(out, MatchesRegex("daemon: +FAILED: no pid in /var/run/tarnhold.pid\n"
                                  "fifo: +FAILED: /tmp/qx-usb-daemon-fifo: No such file or directory\n"
                                  "round trip: FAILED: .*\n"));
    // A pid file that is not exactly a number holds no pid, not the process its first digits name.
    std::ofstream("/var/run/tarnhold.pid") << "1x\n";
    EXPECT_EQ(ctl({"status"}), 3);
    fs::remove("/var/run/tarnhold.pid");
    EXPECT_THAT(out, MatchesRegex("daemon: +FAILED: no pid in /var/run/tarnhold.pid\n.*"));
    daemonHarness daemon;
    startServing(daemon);
    EXPECT_EQ(ctl({"raw", "200", "1", "0x02", "0XfF"}), 1);
    EXPECT_EQ(out.find("result: 8 (unknown function code)\ncmd  UNKNOWN_QX_HID_CMD (200) seq 0 status 0\n"
                       "  00: c8 00 00 01 02 ff 00"), 0u) << out;
    // The flash holds app.hex: that file is current, another differs, a missing one does not load.
    EXPECT_EQ(ctl({"firmware-check", APP_HEX}), 0);
    EXPECT_TRUE(out.ends_with("\ncurrent\n")) << out;
    std::ofstream("/tmp/other.hex") << ":020000041D01DC\n:0100000055AA\n:00000001FF\n";
    EXPECT_EQ(ctl({"firmware-check", "/tmp/other.hex"}), 5);
    EXPECT_TRUE(out.ends_with("\ndiffers\n")) << out;
    EXPECT_EQ(ctl({"firmware-check", "/tmp/no-such.hex"}), 4);
    for (const strings &bad : {strings{"raw"}, {"raw", "256"}, {"raw", "1", "x"}, {"cmd", "NO_SUCH"}, {"frobnicate"},
                               {"status", "--json"}}) { // options go before the command
        EXPECT_EQ(ctl(bad), 2) << bad.back();
    }
    // A report carries 61 bytes from byte 3: one more is refused, not cut off.
    strings full = {"raw", "200"};
    full.resize(2 + 61, "7");
    EXPECT_EQ(ctl(full), 1) << out;
    full.push_back("7");
    EXPECT_EQ(ctl(full), 2);
    EXPECT_NE(out.find("62 bytes given, at most 61 fit from byte 3"), std::string::npos) << out;

    // The daemon's own --file is the firmware file checked; started with it, the daemon knows no platform and
    // refuses fan requests, which status says as such rather than blaming the platform.
    EXPECT_EQ(ctl({"status"}), 0) << out;
    std::string pid = std::to_string(daemon.daemonPid());
    EXPECT_THAT(out, MatchesRegex("daemon: +OK: pid " + pid + "\n"
                                  "fifo: +OK: /tmp/qx-usb-daemon-fifo: FIFO, owner root:root, mode 0666\n"
                                  "round trip: OK: [0-9.]+ ms \\(code 200 answered with 8\\)\n"
                                  "platform: +OK: \"HW=BRISKA\"\n"
                                  "firmware: +OK: slot 4 matches /tmp/app.hex \\(length [0-9]+, md5 [0-9a-f]{32}\\)\n"
                                  "cpld: +OK: size 65535, CRC 0xffff, erased\n"
                                  "fan mode: +not available: fan requests are refused because the daemon was started "
                                  "with --file \\(no platform lookup\\)\n"));
    // A FIFO other clients cannot write into is wrong, and says so.
    ASSERT_EQ(chmod(USB_DAEMON_FIFO, 0600), 0);
    EXPECT_EQ(ctl({"status"}), 1);
    EXPECT_THAT(out, HasSubstr("fifo:       FAILED: /tmp/qx-usb-daemon-fifo: FIFO, owner root:root, mode 0600 "
                               "(FIFO, owner root:root, mode 0666 expected)\n"));
    // So is one of another account (which no request goes into: 3, no answer), or of another group.
    ASSERT_EQ(chmod(USB_DAEMON_FIFO, 0666), 0);
    for (const auto &[uid, gid, owner, status] :
         {std::tuple{65534u, 0u, "nobody:root", 3}, {0u, 65534u, "root:nogroup", 1}}) {
        ASSERT_EQ(chown(USB_DAEMON_FIFO, uid, gid), 0);
        EXPECT_EQ(ctl({"status"}), status) << out;
        EXPECT_THAT(out, HasSubstr(std::string("fifo:       FAILED: /tmp/qx-usb-daemon-fifo: FIFO, owner ") + owner +
                                   ", mode 0666 (FIFO, owner root:root, mode 0666 expected)\n"));
    }
    EXPECT_EQ(ctl({"--json", "status"}), 1);
    EXPECT_THAT(out, MatchesRegex("\\{\"ok\":false,\"checks\":\\{\"daemon\":\\{\"state\":\"OK\",.*"
                                  "\"fifo\":\\{\"state\":\"FAILED\",.*"
                                  "\"fan mode\":\\{\"state\":\"not available\",.*\\}\\}\n"));
}

TEST_F(daemonProcessTest, withAFifoGroupOnlyRootAndMembersSendRequestsAndOthersAreToldHowToGetIn)
{
    // Another account's FIFO at the path, while no service runs: nothing is sent into it.
    ASSERT_EQ(mkfifo(USB_DAEMON_FIFO, 0666) | chown(USB_DAEMON_FIFO, 65534, 65534), 0);
    uniqueFd catcher(open(USB_DAEMON_FIFO, O_RDONLY | O_NONBLOCK));
    EXPECT_EQ(ctl({"raw", "200"}), 7);
    EXPECT_THAT(out_, HasSubstr("belongs to uid 65534, not to the service's account: nothing sent"));
    EXPECT_EQ(pending(catcher.get()), 0);
    catcher.reset();
    daemonHarness daemon;
    startServing(daemon, {"--file", APP_HEX, "--fifo-group", "adm"});
    auto nobody = [](const char *groups) {
        return strings{"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", groups};
    };
    EXPECT_EQ(ctl({"raw", "200"}, nobody("--groups=adm")), 1) << out_; // a member is served: result 8
    EXPECT_EQ(ctl({"raw", "200"}, nobody("--clear-groups")), 6);
    EXPECT_EQ(out_, "tarnholdctl: permission denied: only root and members of group adm may send requests to "
                   "/tmp/qx-usb-daemon-fifo; an administrator grants it with: usermod -aG adm USER (then log in "
                   "again)\n");
    EXPECT_EQ(ctl({"status"}, nobody("--clear-groups")), 6);
    // status holds the FIFO against the daemon's own --fifo-group (how it words a mismatch: the status test).
    EXPECT_EQ(ctl({"status"}), 0) << out_;
    EXPECT_THAT(out_, HasSubstr("fifo:       OK: /tmp/qx-usb-daemon-fifo: FIFO, owner root:adm, mode 0620\n"));
}

} // namespace
