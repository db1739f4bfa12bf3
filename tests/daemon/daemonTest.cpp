// The daemon core: the request loop driven pass by pass on virtual time, then the real tarnhold binary (and
// tarnholdctl against it), each of those tests in a mount namespace of its own.
#include "daemonHarness.h"
#include "logCapture.h"
#include "main.h"
#include "sysSeam.h"
#include "uniqueFd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;
using ::testing::Contains;
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

class mainLoopTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        vt = {};
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
        requestRead_.reset(fds[0]);
        requestWrite_.reset(fds[1]);
        mainLoopSetRequestFd(vt.requestFd = requestRead_.get());
        platformSys.select = __fakeSelect;
        platformSys.msSince1970 = [] { return vt.nowUs / 1000; };
        mainHeartbeat.intervalSec = [] { return vt.intervals[std::min(vt.intervalAsked++, vt.intervals.size() - 1)]; };
        mainHeartbeat.beep = [] {
            vt.beepsAtUs.push_back(vt.nowUs);
            vt.requestBytesAtBeep.push_back(pending(vt.requestFd));
        };
        ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    }
    void TearDown() override
    {
        platformSys = PLATFORM_SYS_LIBC;
        mainHeartbeat = MAIN_HEARTBEAT_NONE;
        fs::remove_all(dir_);
    }
    // A FIFO in the test's folder, open for reading.
    uniqueFd fifoReader(const std::string &name)
    {
        EXPECT_EQ(mkfifo((dir_ + "/" + name).c_str(), 0600), 0);
        return uniqueFd(open((dir_ + "/" + name).c_str(), O_RDONLY | O_NONBLOCK));
    }
    // Sends a record whose clientFifo holds `path`, NUL-terminated only when shorter than the field.
    void send(const std::string &path, size_t len = sizeof(usbDaemonRequest))
    {
        usbDaemonRequest r = {};
        memcpy(r.clientFifo, path.data(), std::min(path.size(), sizeof r.clientFifo));
        r.cmd[0] = 200;
        ASSERT_EQ(write(requestWrite_.get(), &r, len), ssize_t(len));
    }

    uniqueFd requestRead_, requestWrite_;
    std::string dir_ = "/tmp/mainLoopTest.XXXXXX";
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
        send(dir_ + "/reply", shortLen);
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
        strings lines;
        for (const capturedLogLine &l : log.lines()) {
            lines.push_back(std::to_string(l.level) + " " + l.source + " " + l.text);
        }
        EXPECT_EQ(lines, *line ? strings{std::string("0 main ") + line} : strings{}) << path;
    }
    EXPECT_EQ(pending(reply.get()), int(2 * sizeof(usbDaemonRequest)));
    EXPECT_EQ(fs::file_size(dir_ + "/regular"), 0u) << "a regular file is never written";
}

constexpr const char *PID_FILE = "/var/run/tarnhold.pid";
constexpr const char *APP_HEX = "/tmp/app.hex";
constexpr const char *APP_INPUT_LINE = "platform input: /tmp/app.hex";

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
};

TEST_F(daemonProcessTest, servesCodesWithoutHandlerWithResult8OnlyReportsSigpipeAndLocksOutASecondInstance)
{
    daemonHarness daemon;
    startServing(daemon, {"--file", APP_HEX}, 077);
    EXPECT_THAT(daemon.stdoutText(), MatchesRegex("fdDaemon: [0-9]+, fdDummy: [0-9]+\n"));
    EXPECT_TRUE(fs::is_fifo(USB_DAEMON_FIFO) && fs::status(USB_DAEMON_FIFO).permissions() == fs::perms(0666));
    // Which codes have no handler, and that those above 63 log nothing, is pinned by the device management tests.
    usbDaemonRequest r = daemonHarnessRecord(64);
    std::fill(r.cmd.begin() + 1, r.cmd.end(), 0x5A);
    r.resp.fill(0xA5);
    r.padding[0] = 0xEE;
    usbDaemonRequest back = r;
    ASSERT_EQ(daemon.exchange(back), 0);
    EXPECT_EQ(back.result, USB_DAEMON_RESULT_UNKNOWN_FUNCTION);
    EXPECT_TRUE(back.cmd == r.cmd && back.resp == r.resp && back.padding[0] == 0xEE) << "as sent";
    EXPECT_EQ(daemon.logTexts("main"), strings{APP_INPUT_LINE});
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

TEST_F(daemonProcessTest, fileNamesOf1To294CharactersAreTakenOthersRefused)
{
    // A real image at a path of exactly 294 characters: served, so the name reached device start-up whole.
    std::string ok294 = "/tmp/" + std::string(200, 'd') + "/" + std::string(88, 'f');
    ASSERT_TRUE(fs::create_directory(fs::path(ok294).parent_path()) && daemonHarnessWriteImage(ok294));
    std::string refused = "INVALID FILE NAME INPUT";
    struct {
        strings args;
        strings mainLines;
    } cases[] = {
        {{"--file", ok294}, {"platform input: " + ok294}},
        // A refused name leaves the earlier valid one selected.
        {{"--file", APP_HEX, "--file", ok294 + "g"}, {APP_INPUT_LINE, "platform input: " + ok294 + "g", refused}},
        {{"--file", APP_HEX, "--file="}, {APP_INPUT_LINE, "platform input: ", refused}},
        {{"--fi=/tmp/app.hex", "stray", "words"}, {APP_INPUT_LINE}}, // abbreviations taken, other words passed over
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args.back().substr(0, 20));
        fs::remove(USB_DAEMON_FIFO); // each start as the first one
        daemonHarness daemon;
        startServing(daemon, c.args);
        EXPECT_TRUE(serves(daemon));
        EXPECT_EQ(daemon.logTexts("main"), c.mainLines) << daemon.stderrText();
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
    struct {
        strings args; // on the appliance when given
        std::string mainLine;
    } cases[] = {
        // Only a refused name: as if none was given, and the platform's firmware file is not there.
        {{"--file", "/" + std::string(294, 'x')}, "usbMgmtInit: failed"},
        {{}, "Error creating USB_DAEMON_FIFO: Read-only file system"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.mainLine);
        fs::remove(USB_DAEMON_FIFO);
        ASSERT_TRUE(!c.args.empty() || mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0);
        daemonHarness daemon;
        EXPECT_EQ(daemon.runToEnd(c.args.empty() ? daemonHarnessCommand{} : daemonHarnessOnAppliance(APP_HEX, c.args)),
                  1);
        EXPECT_THAT(daemon.logTexts("main"), Contains(c.mainLine)) << daemon.stderrText();
        EXPECT_EQ(daemon.logTexts("daemon"), strings{"tarnhold(EXIT) stopped"});
        EXPECT_EQ(fs::is_fifo(USB_DAEMON_FIFO), !c.args.empty()) << "a made FIFO is left in place";
        EXPECT_FALSE(fs::exists(PID_FILE));
    }
    // /tmp is still read-only. One parse decides about detaching: an abbreviation of --daemon detaches (the
    // parent leaves at once with 0 and the child fails on its own), a file named "--daemon" does not.
    for (const auto &[args, status] : {std::pair{strings{"--dae"}, 0}, {strings{"--file", "--daemon"}, 1}}) {
        daemonHarness daemon;
        EXPECT_EQ(daemon.runToEnd({.args = args}), status) << args.back();
    }
}

TEST_F(daemonProcessTest, sigtermKeepsTheFifoOtherExitSignalsLeaveACrashLogAndRemoveIt)
{
    bool fifoLeft = false;
    // All nine: a lost handler would leave the pid file and the FIFO behind.
    for (int sig : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV}) {
        SCOPED_TRACE(sig);
        daemonHarness daemon;
        startServing(daemon);
        ASSERT_TRUE(serves(daemon));
        std::string exists = "/tmp/qx-usb-daemon-fifo already exist, don't have to create it again!";
        EXPECT_THAT(daemon.logTexts("main"), Contains(exists).Times(fifoLeft ? 1 : 0));
        std::string crashLog = "/var/crash/tarnhold-" + std::to_string(daemon.daemonPid()) + "-" +
                               std::to_string(sig) + ".log";
        ASSERT_EQ(daemon.exitStatus(sig), 0);
        EXPECT_EQ(daemon.logTexts("daemon"), strings{"tarnhold(ERROR/TERM) stopped"});
        EXPECT_FALSE(fs::exists(PID_FILE));
        bool fatal = sig != SIGTERM;
        EXPECT_EQ(fifoLeft = fs::exists(USB_DAEMON_FIFO), !fatal);
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
    std::string out;
    auto ctl = [&out](strings args) {
        int status = -1;
        std::tie(status, out) = daemonHarnessCtl(std::move(args));
        return status;
    };
    EXPECT_EQ(ctl({"raw", "200"}), 3);
    EXPECT_NE(out.find("no daemon"), std::string::npos) << out;
    EXPECT_EQ(ctl({"status"}), 3);
    EXPECT_THAT(out, MatchesRegex("daemon: +FAILED: no pid in /var/run/tarnhold.pid\n"
                                  "fifo: +FAILED: /tmp/qx-usb-daemon-fifo: No such file or directory\n"
                                  "round trip: FAILED: .*\n"));
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
                                  "fifo: +OK: /tmp/qx-usb-daemon-fifo: FIFO, mode 0666\n"
                                  "round trip: OK: [0-9.]+ ms \\(code 200 answered with 8\\)\n"
                                  "platform: +OK: \"HW=BRISKA\"\n"
                                  "firmware: +OK: slot 4 matches /tmp/app.hex \\(length [0-9]+, md5 [0-9a-f]{32}\\)\n"
                                  "cpld: +OK: size 65535, CRC 0xffff, erased\n"
                                  "fan mode: +not available: fan requests are refused because the daemon was started "
                                  "with --file \\(no platform lookup\\)\n"));
    // A FIFO other clients cannot write into is wrong, and says so.
    ASSERT_EQ(chmod(USB_DAEMON_FIFO, 0600), 0);
    EXPECT_EQ(ctl({"status"}), 1);
    EXPECT_THAT(out, ::testing::HasSubstr("fifo:       FAILED: /tmp/qx-usb-daemon-fifo: FIFO, mode 0600 (0666 expected)\n"));
    EXPECT_EQ(ctl({"--json", "status"}), 1);
    EXPECT_THAT(out, MatchesRegex("\\{\"ok\":false,\"checks\":\\{\"daemon\":\\{\"state\":\"OK\",.*"
                                  "\"fifo\":\\{\"state\":\"FAILED\",.*"
                                  "\"fan mode\":\\{\"state\":\"not available\",.*\\}\\}\n"));
}

} // namespace
