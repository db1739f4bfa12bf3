// A stop that comes while a flash is written waits for it: the FPGA and CPLD
// upgrades through the request loop and the start-up programming, on the
// in-process appliance, with the daemon's own exit handler receiving real
// signals; and the history, the events and the lock around every flash.
#include "../fpga/upgradeFixture.h"
#include "daemonHarness.h"
#include "flashGuard.h"
#include "main.h"
#include "qxFile.h"
#include "qxLoader.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

void signal_exit_handler(int sig);

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

int unread(int fd)
{
    int bytes = -1;
    return ioctl(fd, FIONREAD, &bytes) == 0 ? bytes : -1;
}

// What the tests see of one carried-out stop, taken at the moment it is carried out.
struct stopSeen {
    int sig;
    int replyBytes;  // already in the client's FIFO
    int queuedBytes; // still unread in the request pipe
    bool flashWhole; // the flash equals the file
    bool lockHeld;
};

struct flashWatch {
    std::vector<stopSeen> stops;
    std::vector<std::pair<flashEvent, int>> events;
    std::vector<std::string> lockWhys;
    uniqueFd lockPeer; // the other end of the last lock handed out: EOF once released
    // Raise `sig` when driver request `request` goes out for the `at`-th time (0 first).
    uint32_t request = 0;
    int at = -1;
    int seen = 0;
    int sig = SIGTERM;
    bool (*whole)() = nullptr;
    std::vector<bool> lockHeldAtSignal;
    int replyFd = -1;
    int requestFd = -1;
    int (*sim)(int, unsigned long, void *) = nullptr;
} watch;

bool lockHeld()
{
    char c;
    return watch.lockPeer.valid() && read(watch.lockPeer.get(), &c, 1) < 0 && errno == EAGAIN;
}

const flashGuardOps WATCHED = {
    .event = [](flashEvent e, const flashHistoryEntry &, int sig) { watch.events.push_back({e, sig}); },
    .inhibit =
        [](const char *why) {
            watch.lockWhys.push_back(why);
            int fds[2];
            EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
            watch.lockPeer.reset(fds[0]);
            return fds[1];
        },
    .nowSec = [] { return int64_t(1'790'000'000) + int64_t(simVirtualNowUs() / 1'000'000); },
};

struct historyRows {
    std::vector<flashHistoryEntry> rows;
    int damaged = 0;
};

historyRows historyIn(const std::string &dir)
{
    historyRows out;
    uniqueFd fd(open((dir + "/" + FLASH_HISTORY_FILE).c_str(), O_RDONLY | O_CLOEXEC));
    out.damaged = flashHistoryRead(
        fd.get(), [](const flashHistoryEntry &e, void *ctx) { static_cast<historyRows *>(ctx)->rows.push_back(e); },
        &out);
    return out;
}

class flashStopTest : public upgradeTest {
protected:
    void SetUp() override
    {
        upgradeTest::SetUp();
        watch = {};
        ASSERT_NE(mkdtemp(dir_.data()), nullptr);
        flashGuardInit(WATCHED, dir_.c_str(), [](int sig) { mainCarryOutStop(sig); });
        carryOut_ = mainCarryOutStop;
        mainCarryOutStop = [](int sig) {
            watch.stops.push_back({sig, unread(watch.replyFd), unread(watch.requestFd),
                                   watch.whole != nullptr && watch.whole(), lockHeld()});
        };
        struct sigaction action = {};
        action.sa_handler = signal_exit_handler;
        action.sa_flags = SA_RESTART;
        sigfillset(&action.sa_mask);
        for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
            sigaction(sig, &action, nullptr);
        }
        // Raises the signal as the chosen driver request goes out, as a stop from outside would come.
        watch.sim = platformSys.ioctl;
        platformSys.ioctl = [](int fd, unsigned long rq, void *arg) {
            const auto *report = static_cast<const uint8_t *>(arg);
            const uint32_t carried = report[0] == QX_HID_CMD_IO_CMD ? leGet32(&report[3]) : uint32_t(rq);
            if (carried == watch.request && watch.seen++ == watch.at) {
                watch.lockHeldAtSignal.push_back(lockHeld());
                raise(watch.sig);
            }
            return watch.sim(fd, rq, arg);
        };
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
        requestRead_.reset(fds[0]);
        requestWrite_.reset(fds[1]);
        mainLoopSetRequestFd(watch.requestFd = requestRead_.get());
        ASSERT_EQ(mkfifo(reply_.c_str(), 0600), 0);
        replyRead_.reset(open(reply_.c_str(), O_RDONLY | O_NONBLOCK));
        watch.replyFd = replyRead_.get();
    }
    void TearDown() override
    {
        for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
            signal(sig, SIG_DFL);
        }
        platformSys.ioctl = watch.sim;
        mainCarryOutStop = carryOut_;
        flashGuardReset();
        watch.lockPeer.reset();
        fs::remove_all(dir_);
        upgradeTest::TearDown();
    }
    void send(uint8_t code, const std::string &path)
    {
        usbDaemonRequest r = {};
        memcpy(r.clientFifo, reply_.c_str(), reply_.size() + 1);
        r.cmd[0] = code;
        memcpy(&r.cmd[3], path.c_str(), path.size() + 1);
        ASSERT_EQ(::write(requestWrite_.get(), &r, sizeof r), ssize_t(sizeof r));
    }
    int32_t reply()
    {
        usbDaemonRequest r = {};
        EXPECT_EQ(read(replyRead_.get(), &r, sizeof r), ssize_t(sizeof r));
        return r.result;
    }
    // One upgrade request served by the loop with another queued behind it, a signal raised at the `at`-th
    // chunk; what the carried-out stop saw.
    void upgradeWithStop(uint8_t code, const std::string &path, uint32_t chunkRequest, int at, int sig)
    {
        watch.stops.clear();
        watch.request = chunkRequest;
        watch.at = at;
        watch.seen = 0;
        watch.sig = sig;
        send(code, path);
        send(QX_HID_CMD_GET_INFO, path);
        mainLoopPass();
        EXPECT_EQ(reply(), 0) << "the flash ran to its end";
        // The queued request is left alone (a real stop ends the process); the next test reads it now.
        mainLoopPass();
        EXPECT_EQ(reply(), 0);
    }
    std::string dir_ = "/tmp/flashStop.XXXXXX";
    std::string reply_ = testing::TempDir() + "flashStopReply-" + std::to_string(getpid());
    uniqueFd requestRead_, requestWrite_, replyRead_;
    void (*carryOut_)(int) = nullptr;

public:
    ~flashStopTest() override { std::remove(reply_.c_str()); }
};

std::vector<uint8_t> fileBytes;

TEST_F(flashStopTest, aStopDuringAnFpgaOrCpldUpgradeWaitsForTheFlashAndItsReplyAndEndsBeforeTheNextRequest)
{
    fileBytes = bytesOf(1 << 20);
    const std::string fpga = write(fileBytes);
    watch.whole = [] { return std::ranges::equal(simFpgaMemory().first(fileBytes.size()), fileBytes); };
    constexpr int FPGA_CHUNKS = 137; // 4,096 pages, 30 a chunk
    for (const auto &[at, sig] : {std::pair{0, SIGTERM}, {FPGA_CHUNKS / 2, SIGTERM}, {FPGA_CHUNKS - 1, SIGTERM}}) {
        log.clear();
        upgradeWithStop(QX_HID_CMD_FPGA_UPGRADE, fpga, PIC_HID_PROGRAM_FPGA, at, sig);
        ASSERT_EQ(watch.stops.size(), 1u) << "chunk " << at;
        const stopSeen &s = watch.stops[0];
        EXPECT_EQ(s.sig, sig);
        EXPECT_EQ(s.replyBytes, int(sizeof(usbDaemonRequest))) << "the client has its answer first";
        EXPECT_EQ(s.queuedBytes, int(sizeof(usbDaemonRequest))) << "the request behind it is not started";
        EXPECT_TRUE(s.flashWhole) << "chunk " << at;
        EXPECT_FALSE(s.lockHeld) << "the lock goes with the flash";
        EXPECT_TRUE(log.contains("signal 15: stop deferred until the FPGA flash has ended (" +
                                 std::to_string(std::min(30 * (at + 1), 4096)) + " of 4096 pages written)"))
            << "said once, at the progress after it came";
        EXPECT_TRUE(log.contains("QX_TRACE_FILE-*****FPGA PROGRAM SUCCEFUL!!!!!!!!!!!!*****"));
    }

    const std::string jbc = std::string(TARNHOLD_TESTDATA) + "/jbc/PIXEL8x4.jbc";
    const std::string text = daemonHarnessReadFile(jbc);
    fileBytes.assign(text.begin(), text.end());
    watch.whole = [] { return std::ranges::equal(simCpldImage().first(fileBytes.size()), fileBytes); };
    constexpr int CPLD_CHUNKS = 6; // 170 pages
    for (const auto &[at, sig] : {std::pair{0, SIGINT}, {CPLD_CHUNKS / 2, SIGTERM}, {CPLD_CHUNKS - 1, SIGHUP}}) {
        upgradeWithStop(QX_HID_CMD_CPLD_UPGRADE, jbc, PIC_HID_PROGRAM_CPLD, at, sig);
        ASSERT_EQ(watch.stops.size(), 1u) << "chunk " << at;
        EXPECT_EQ(watch.stops[0].sig, sig);
        EXPECT_EQ(watch.stops[0].replyBytes, int(sizeof(usbDaemonRequest)));
        EXPECT_EQ(watch.stops[0].queuedBytes, int(sizeof(usbDaemonRequest)));
        EXPECT_TRUE(watch.stops[0].flashWhole) << "chunk " << at;
    }

    // Every flash left its entry, complete, newest last; each took the lock once and said so in events.
    const historyRows h = historyIn(dir_);
    ASSERT_EQ(h.rows.size(), 6u);
    EXPECT_EQ(h.damaged, 0);
    for (size_t i = 0; i < h.rows.size(); ++i) {
        const flashHistoryEntry &e = h.rows[i];
        EXPECT_EQ(e.seq, i + 1);
        EXPECT_EQ(e.what, i < 3 ? flashWhat::FPGA : flashWhat::CPLD);
        EXPECT_EQ(e.result, flashResult::OK);
        EXPECT_EQ(e.done, e.total);
        EXPECT_EQ(e.total, i < 3 ? 4096u : 170u);
        EXPECT_STREQ(e.file.data(), i < 3 ? fpga.c_str() : jbc.c_str());
        EXPECT_GE(e.endSec, e.startSec + (i < 3 ? 57 : 26));
    }
    EXPECT_EQ(watch.lockHeldAtSignal, std::vector<bool>(6, true)) << "the lock is held while the pages go out";
    EXPECT_EQ(watch.lockWhys.size(), 6u);
    EXPECT_THAT(watch.lockWhys[0], HasSubstr("Writing the FPGA from " + fpga + " (4096 pages)"));
    std::vector<flashEvent> kinds;
    for (const auto &[e, sig] : watch.events) {
        kinds.push_back(e);
    }
    const std::vector<flashEvent> one = {flashEvent::STARTED, flashEvent::STOP_DEFERRED, flashEvent::FINISHED};
    EXPECT_EQ(kinds, repeat<flashEvent>({}, one, 6));
}

TEST_F(flashStopTest, aStopDuringStartUpProgrammingIsCarriedOutOnceTheApplicationIsWhole)
{
    qxUsbCleanUp(); // start-up opens the link itself
    ASSERT_TRUE(daemonHarnessWriteImage(file_)); // not what the appliance runs: a whole upgrade at start-up
    watch.whole = [] {
        return simGetMode() == simMode::APPLICATION &&
               std::equal(simFlash().begin(), simFlash().end(), qxFileGetData());
    };
    // The driver is asked before every block of the range, blank ones included.
    watch.request = PIC_HID_PIC32_IS_URB_AVAILABLE;
    auto startUp = [&](int at) {
        simReset();
        qxFileReset();
        watch.stops.clear();
        watch.seen = 0;
        watch.at = at;
        EXPECT_EQ(usbMgmtInit(file_.c_str()), 0);
        qxUsbCleanUp();
    };
    startUp(-1); // no stop: counts the driver's polls
    const int handedOver = watch.seen;
    ASSERT_GE(handedOver, 6071);
    EXPECT_TRUE(watch.stops.empty());
    for (int at : {0, handedOver / 2, handedOver - 1}) {
        startUp(at);
        ASSERT_EQ(watch.stops.size(), 1u) << at;
        EXPECT_EQ(watch.stops[0].sig, SIGTERM);
        EXPECT_TRUE(watch.stops[0].flashWhole) << "programmed, stored and back in the application";
        EXPECT_FALSE(watch.stops[0].lockHeld);
    }
    const uint32_t blocks = (QX_FLASH_SIZE + QX_PACKET_DATA_SIZE - 1) / QX_PACKET_DATA_SIZE;
    const historyRows h = historyIn(dir_);
    ASSERT_EQ(h.rows.size(), 4u);
    for (const flashHistoryEntry &e : h.rows) {
        EXPECT_EQ(e.what, flashWhat::MICROCONTROLLER);
        EXPECT_EQ(e.result, flashResult::OK);
        EXPECT_EQ(e.done, blocks);
        EXPECT_EQ(e.total, blocks);
        EXPECT_STREQ(e.file.data(), file_.c_str());
    }
}

TEST_F(flashStopTest, historySaysInterruptedAfterAKillAndWhyAFailedFlashFailed)
{
    const std::string fpga = write(bytesOf(1 << 20));
    // A kill -9 in the middle: the entry stays as its last write left it.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        watch.request = PIC_HID_PROGRAM_FPGA;
        watch.at = 100;
        watch.sig = SIGKILL;
        upgradeFrom(QX_HID_CMD_FPGA_UPGRADE, fpga);
        _exit(3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    historyRows h = historyIn(dir_);
    ASSERT_EQ(h.rows.size(), 1u);
    EXPECT_EQ(h.rows[0].result, flashResult::RUNNING);
    EXPECT_EQ(h.rows[0].done, 2580u) << "how far: the chunk that passed the last eighth before the kill";

    // The next start settles it as interrupted, and says so.
    flashGuardInit(WATCHED, dir_.c_str(), nullptr);
    EXPECT_TRUE(log.contains("flash history: the FPGA flash from " + fpga + " never ended (2580 of 4096 pages written)"));
    // A failed flash: the clean-up never confirmed.
    simSetUpgradeFault(simUpgradeFault::CLEANUP_STATE_2, 3);
    EXPECT_EQ(upgradeFrom(QX_HID_CMD_FPGA_UPGRADE, fpga), -1);
    flashGuardLeave(true);
    h = historyIn(dir_);
    ASSERT_EQ(h.rows.size(), 2u);
    EXPECT_EQ(h.rows[0].result, flashResult::INTERRUPTED);
    EXPECT_EQ(h.rows[1].seq, 2u);
    EXPECT_EQ(h.rows[1].result, flashResult::FAILED);
    EXPECT_EQ(h.rows[1].rc, -1);
    EXPECT_STREQ(h.rows[1].why.data(), "the clean-up was not confirmed");
    EXPECT_EQ(h.rows[1].done, 4096u);
    EXPECT_EQ(watch.events.back().first, flashEvent::FAILED);
    // A file refused before anything was touched is no flash.
    EXPECT_EQ(upgradeFrom(QX_HID_CMD_FPGA_UPGRADE, fpga + ".missing"), -1);
    EXPECT_EQ(historyIn(dir_).rows.size(), 2u);
}

TEST_F(flashStopTest, withoutASystemBusEveryFlashGoesOnAndTheMissingLockIsSaidOnce)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir_ + "/no-bus").c_str(), 1);
    const flashGuardOps noBus = {.event = WATCHED.event, .inhibit = FLASH_GUARD_SYSTEM.inhibit, .nowSec = WATCHED.nowSec};
    flashGuardInit(noBus, dir_.c_str(), nullptr);
    const std::string fpga = write(bytesOf(1 << 20));
    EXPECT_EQ(upgradeFrom(QX_HID_CMD_FPGA_UPGRADE, fpga), 0);
    flashGuardLeave(true);
    EXPECT_EQ(upgradeFrom(QX_HID_CMD_CPLD_UPGRADE, std::string(TARNHOLD_TESTDATA) + "/jbc/PIXEL8x4.jbc"), 0);
    flashGuardLeave(true);
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    EXPECT_EQ(log.count("no inhibitor lock against shutdown and sleep (no system bus: No such file or directory); "
                        "flashing without it"),
              1u);
    EXPECT_EQ(historyIn(dir_).rows.size(), 2u);
}

} // namespace
