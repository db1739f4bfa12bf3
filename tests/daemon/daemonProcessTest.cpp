// The real tarnhold binary, each test in a mount namespace of its own: start-up,
// options, the request FIFO as clients see it, signals and the crash log.
#include "daemonHarness.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <regex>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *PID_FILE = "/var/run/tarnhold.pid";
constexpr const char *APP_HEX = "/tmp/app.hex";
constexpr const char *APP_INPUT_LINE = "platform input: /tmp/app.hex";

bool exists(const std::string &path)
{
    struct stat st = {};
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> listDir(const std::string &dir)
{
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
                names.push_back(e->d_name);
            }
        }
        closedir(d);
    }
    return names;
}

bool contains(const std::vector<std::string> &texts, const std::string &text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string usageOf(const std::string &argv0)
{
    return "Usage: " + argv0 + " --daemon \n\t " + argv0 + " --help \n\t " + argv0 +
           " --file /usr/sbin/briska-pic-client.hex\n";
}

bool endsWith(const std::string &text, const std::string &tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// A reply FIFO of the test's own, open for reading.
struct replyFifo {
    explicit replyFifo(const std::string &p) : path(p)
    {
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        fd.reset(open(path.c_str(), O_RDONLY | O_NONBLOCK));
    }
    // Waits for exactly one reply; the bytes that came, all of them.
    std::string readReply(int timeoutMs = 10000) const
    {
        pollfd p = {.fd = fd.get(), .events = POLLIN, .revents = 0};
        if (poll(&p, 1, timeoutMs) <= 0) {
            return "";
        }
        std::string got;
        char buf[1024];
        ssize_t n;
        while ((n = read(fd.get(), buf, sizeof buf)) > 0) {
            got.append(buf, size_t(n));
        }
        return got;
    }
    std::string path;
    uniqueFd fd;
};

usbDaemonRequest recordFor(const std::string &fifo, uint8_t code)
{
    usbDaemonRequest r = daemonHarnessRecord(code);
    strncpy(r.clientFifo, fifo.c_str(), sizeof r.clientFifo - 1);
    return r;
}

// Writes raw bytes into the request FIFO in one write, and waits until the
// daemon has taken them all out.
void writeRequestFifo(const void *bytes, size_t len)
{
    uniqueFd fd(open(USB_DAEMON_FIFO, O_WRONLY | O_NONBLOCK));
    ASSERT_TRUE(fd.valid());
    ASSERT_EQ(write(fd.get(), bytes, len), ssize_t(len));
    int pending = 1;
    for (int i = 0; i < 5000 && pending > 0; ++i) {
        ASSERT_EQ(ioctl(fd.get(), FIONREAD, &pending), 0);
        if (pending > 0) {
            usleep(1000);
        }
    }
    ASSERT_EQ(pending, 0) << "the daemon never read the request FIFO";
}

class daemonProcessTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(daemonHarnessIsolate(), "");
        ASSERT_TRUE(daemonHarnessWriteImage(APP_HEX));
    }

    // Starts a daemon on the simulated appliance, whose firmware is current,
    // and waits until its request FIFO is open; requests written from then
    // on are served once device start-up is done.
    void startServing(daemonHarness &daemon, std::vector<std::string> args = {"--file", APP_HEX})
    {
        ASSERT_TRUE(daemon.start(daemonHarnessOnAppliance(APP_HEX, std::move(args))));
        ASSERT_TRUE(daemon.waitReady()) << daemon.stderrText();
    }
    // One request of code 200 through the client library: served or not.
    static bool serves(const daemonHarness &daemon)
    {
        usbDaemonRequest r = daemonHarnessRecord(200);
        return daemon.exchange(r) == 0 && r.result == USB_DAEMON_RESULT_UNKNOWN_FUNCTION;
    }
    // Runs the daemon to its end: true with its wait status.
    static bool runToEnd(daemonHarness &daemon, std::vector<std::string> args, int &status)
    {
        return daemon.start(daemonHarnessDaemon(std::move(args))) && daemon.waitExit(status);
    }
};

TEST_F(daemonProcessTest, CodesWithoutHandlerComeBackWithResult8AndTheRecordAsSent)
{
    daemonHarness daemon;
    startServing(daemon);
    EXPECT_TRUE(std::regex_match(daemon.stdoutText(), std::regex("fdDaemon: \\d+, fdDummy: \\d+\n")))
        << daemon.stdoutText();

    replyFifo reply("/tmp/client-a");
    for (uint8_t code : {uint8_t{200}, uint8_t{64}, uint8_t{255}}) {
        usbDaemonRequest r = recordFor(reply.path, code);
        r.result = -77;
        for (size_t i = 1; i < r.cmd.size(); ++i) {
            r.cmd[i] = uint8_t(0x30 + i);
            r.resp[i] = uint8_t(0xC0 ^ i);
        }
        r.padding[0] = 0xEE;
        r.padding[1] = 0x11;
        writeRequestFifo(&r, sizeof r);
        std::string got = reply.readReply();
        ASSERT_EQ(got.size(), sizeof r) << "code " << int(code);
        usbDaemonRequest back;
        memcpy(&back, got.data(), sizeof back);
        EXPECT_EQ(back.result, USB_DAEMON_RESULT_UNKNOWN_FUNCTION);
        EXPECT_EQ(back.cmd, r.cmd);
        EXPECT_EQ(back.resp, r.resp);
        EXPECT_EQ(memcmp(back.clientFifo, r.clientFifo, sizeof r.clientFifo), 0);
        EXPECT_EQ(back.padding[0], 0xEE);
        EXPECT_EQ(back.padding[1], 0x11);
    }
    EXPECT_EQ(daemon.logTexts("main"), std::vector<std::string>{APP_INPUT_LINE}) << daemon.stderrText();
}

TEST_F(daemonProcessTest, TwoClientsWritingAtOnceAreBothServed)
{
    daemonHarness daemon;
    startServing(daemon);
    replyFifo first("/tmp/client-1");
    replyFifo second("/tmp/client-2");
    usbDaemonRequest both[2] = {recordFor(first.path, 200), recordFor(second.path, 201)};
    both[0].cmd[3] = 1;
    both[1].cmd[3] = 2;
    // Both records are in the FIFO before the daemon reads either.
    writeRequestFifo(both, sizeof both);
    for (auto [fifo, index] : {std::pair{&first, 0}, std::pair{&second, 1}}) {
        std::string got = fifo->readReply();
        ASSERT_EQ(got.size(), sizeof(usbDaemonRequest));
        usbDaemonRequest back;
        memcpy(&back, got.data(), sizeof back);
        EXPECT_EQ(back.cmd, both[index].cmd);
        EXPECT_EQ(back.result, USB_DAEMON_RESULT_UNKNOWN_FUNCTION);
    }
}

TEST_F(daemonProcessTest, AClientWithoutReaderLosesItsReplyAndTheNextIsServed)
{
    daemonHarness daemon;
    startServing(daemon);
    ASSERT_EQ(mkfifo("/tmp/nobody-reads", 0600), 0);
    usbDaemonRequest r = recordFor("/tmp/nobody-reads", 200);
    writeRequestFifo(&r, sizeof r);
    EXPECT_TRUE(daemon.waitForLog("fdClient: -1 - 'No such device or address'")) << daemon.stderrText();
    EXPECT_TRUE(serves(daemon));
}

TEST_F(daemonProcessTest, ShortRecordsAreDroppedWithoutReply)
{
    daemonHarness daemon;
    startServing(daemon);
    replyFifo reply("/tmp/client-short");
    usbDaemonRequest r = recordFor(reply.path, 200);
    writeRequestFifo(&r, 100);
    writeRequestFifo(&r, sizeof r - 1);
    writeRequestFifo(&r, sizeof r);
    // The daemon works in order: the one whole record gives the one reply.
    EXPECT_EQ(reply.readReply().size(), sizeof r);
    EXPECT_EQ(daemon.logTexts("main"), std::vector<std::string>{APP_INPUT_LINE}) << daemon.stderrText();
}

TEST_F(daemonProcessTest, RepliesGoOnlyIntoFifos)
{
    daemonHarness daemon;
    startServing(daemon);
    { uniqueFd f(open("/tmp/plain-file", O_WRONLY | O_CREAT, 0600)); }
    ASSERT_EQ(symlink("/tmp/plain-file", "/tmp/link-to-file"), 0);
    for (const char *path : {"/tmp/plain-file", "/tmp/link-to-file"}) {
        usbDaemonRequest r = recordFor(path, 200);
        writeRequestFifo(&r, sizeof r);
    }
    EXPECT_TRUE(serves(daemon)); // served after both: they are done
    struct stat st = {};
    ASSERT_EQ(stat("/tmp/plain-file", &st), 0);
    EXPECT_EQ(st.st_size, 0);
    auto texts = daemon.logTexts("main");
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "fdClient: -1 - 'not a FIFO'"), 2) << daemon.stderrText();
}

TEST_F(daemonProcessTest, FileNamesOf1To294CharactersAreTakenOthersRefused)
{
    // A real file at a path of exactly 294 characters: served, so the name
    // reached device start-up whole.
    std::string dir = "/tmp/" + std::string(200, 'd');
    std::string ok294 = dir + "/" + std::string(88, 'f');
    ASSERT_EQ(ok294.size(), 294u);
    std::string long295 = ok294 + "g";
    struct {
        std::vector<std::string> args;
        std::vector<std::string> mainLines;
    } cases[] = {
        {{"--file", ok294}, {"platform input: " + ok294}},
        // A refused name leaves the earlier valid one selected.
        {{"--file", APP_HEX, "--file", long295},
         {APP_INPUT_LINE, "platform input: " + long295, "INVALID FILE NAME INPUT"}},
        {{"--file", APP_HEX, "--file="}, {APP_INPUT_LINE, "platform input: ", "INVALID FILE NAME INPUT"}},
        {{"--fi=/tmp/app.hex"}, {APP_INPUT_LINE}}, // unambiguous abbreviations are options too
        {{"--file", APP_HEX, "stray", "words"}, {APP_INPUT_LINE}}, // non-option words are passed over
    };
    for (const auto &c : cases) {
        ASSERT_EQ(daemonHarnessIsolate(), ""); // each start as the first one
        ASSERT_TRUE(daemonHarnessWriteImage(APP_HEX));
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
        ASSERT_TRUE(daemonHarnessWriteImage(ok294));
        daemonHarness daemon;
        startServing(daemon, c.args);
        EXPECT_TRUE(serves(daemon)) << c.args.back().size();
        EXPECT_EQ(daemon.logTexts("main"), c.mainLines) << daemon.stderrText();
    }
}

TEST_F(daemonProcessTest, AFailedDeviceStartUpStopsTheDaemon)
{
    // Only a refused name: start-up goes on as if none was given, and the
    // firmware file of the platform is not there.
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"--file", "/tmp/missing.hex"}, {"--file", "/" + std::string(294, 'x')}}) {
        ASSERT_EQ(daemonHarnessIsolate(), "");
        ASSERT_TRUE(daemonHarnessWriteImage(APP_HEX));
        daemonHarness daemon;
        int status = -1;
        ASSERT_TRUE(daemon.start(daemonHarnessOnAppliance(APP_HEX, args)));
        ASSERT_TRUE(daemon.waitExit(status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << daemon.stderrText();
        auto texts = daemon.logTexts("main");
        ASSERT_FALSE(texts.empty());
        EXPECT_EQ(texts.back(), "usbMgmtInit: failed");
        EXPECT_EQ(daemon.logTexts("daemon"), std::vector<std::string>{"tarnhold(EXIT) stopped"});
        EXPECT_TRUE(exists(USB_DAEMON_FIFO)) << "the FIFO is left in place";
        EXPECT_FALSE(exists(PID_FILE));
    }
}

TEST_F(daemonProcessTest, HelpAndBadOptionsPrintUsageAndExitZeroBeforeDaemonStart)
{
    std::vector<std::string> variants[] = {{"--help"}, {"--daemon", "--bogus"}, {"--file"}, {"--he"}};
    for (const auto &args : variants) {
        daemonHarness daemon;
        int status = -1;
        ASSERT_TRUE(runToEnd(daemon, args, status)) << args[0];
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << args[0];
        EXPECT_TRUE(endsWith(daemon.stderrText(), usageOf(daemon.argv0()))) << daemon.stderrText();
        EXPECT_FALSE(exists(PID_FILE));
        EXPECT_FALSE(exists(USB_DAEMON_FIFO));
    }
    daemonHarness daemon;
    int status = -1;
    ASSERT_TRUE(runToEnd(daemon, {"--daemon", "--bogus"}, status));
    EXPECT_TRUE(contains(daemon.logTexts("main"), daemon.argv0() + " started in daemon mode"));
}

TEST_F(daemonProcessTest, DaemonOptionDetaches)
{
    daemonHarness daemon;
    ASSERT_TRUE(daemon.start(daemonHarnessOnAppliance(APP_HEX, {"--daemon", "--file", APP_HEX})));
    int status = -1;
    ASSERT_TRUE(daemon.waitExit(status)) << "the starting process ends once detached";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(daemon.logTexts("main"), (std::vector<std::string>{daemon.argv0() + " started in daemon mode",
                                                                  APP_INPUT_LINE}));
    // What follows happens in the detached process, whose output is gone
    // (and whose appliance went away with the wrapper).
    ASSERT_TRUE(daemon.waitDaemonPid());
    pid_t pid = daemon.daemonPid();
    EXPECT_NE(pid, daemon.pid());
    EXPECT_EQ(kill(pid, 0), 0);
    EXPECT_TRUE(daemon.waitFifoReader());
}

TEST_F(daemonProcessTest, AnExistingFifoIsTakenOver)
{
    ASSERT_EQ(mkfifo(USB_DAEMON_FIFO, 0600), 0);
    daemonHarness daemon;
    startServing(daemon);
    EXPECT_EQ(daemon.logTexts("main"),
              (std::vector<std::string>{APP_INPUT_LINE,
                                        "/tmp/qx-usb-daemon-fifo already exist, don't have to create it again!"}));
    EXPECT_TRUE(serves(daemon));
}

TEST_F(daemonProcessTest, StartUpStopsWhenTheRequestPathIsNoFifo)
{
    ASSERT_EQ(mkfifo("/tmp/elsewhere", 0666), 0);
    struct {
        const char *what;
        void (*make)();
    } cases[] = {
        {"regular file", [] { uniqueFd f(open(USB_DAEMON_FIFO, O_WRONLY | O_CREAT, 0666)); }},
        {"symbolic link to a FIFO", [] { ASSERT_EQ(symlink("/tmp/elsewhere", USB_DAEMON_FIFO), 0); }},
    };
    for (const auto &c : cases) {
        unlink(USB_DAEMON_FIFO);
        c.make();
        daemonHarness daemon;
        int status = -1;
        ASSERT_TRUE(runToEnd(daemon, {}, status)) << c.what;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << c.what;
        EXPECT_TRUE(contains(daemon.logTexts("main"), "/tmp/qx-usb-daemon-fifo is not a FIFO, giving up"))
            << daemon.stderrText();
        EXPECT_TRUE(contains(daemon.logTexts("daemon"), "tarnhold(EXIT) stopped"));
        EXPECT_EQ(daemon.stdoutText(), "");
        EXPECT_FALSE(exists(PID_FILE));
    }
}

TEST_F(daemonProcessTest, StartUpStopsWhenTheFifoCannotBeMade)
{
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", MS_RDONLY, nullptr), 0);
    daemonHarness daemon;
    int status = -1;
    ASSERT_TRUE(runToEnd(daemon, {}, status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_EQ(daemon.logTexts("main"),
              std::vector<std::string>{"Error creating USB_DAEMON_FIFO: Read-only file system"});
    EXPECT_TRUE(contains(daemon.logTexts("daemon"), "tarnhold(EXIT) stopped"));
}

TEST_F(daemonProcessTest, ASecondInstanceIsRefused)
{
    daemonHarness first;
    startServing(first);
    daemonHarness second;
    int status = -1;
    ASSERT_TRUE(runToEnd(second, {}, status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_EQ(second.stdoutText(), "");
    EXPECT_NE(second.stderrText().find("already running"), std::string::npos) << second.stderrText();
    EXPECT_TRUE(serves(first));
}

TEST_F(daemonProcessTest, SigtermEndsCleanlyWithoutCrashLogAndKeepsTheFifo)
{
    daemonHarness daemon;
    startServing(daemon);
    ASSERT_TRUE(serves(daemon));
    ASSERT_TRUE(daemon.signalDaemon(SIGTERM));
    int status = -1;
    ASSERT_TRUE(daemon.waitExit(status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(listDir("/var/crash").empty());
    EXPECT_TRUE(exists(USB_DAEMON_FIFO));
    EXPECT_FALSE(exists(PID_FILE));
    EXPECT_EQ(daemon.stderrText().find("cleaning up"), std::string::npos);
    EXPECT_TRUE(contains(daemon.logTexts("daemon"), "tarnhold(ERROR/TERM) stopped"));
}

TEST_F(daemonProcessTest, FatalSignalsWriteACrashLogAndRemoveTheFifo)
{
    for (int sig : {SIGSEGV, SIGINT}) {
        ASSERT_EQ(daemonHarnessIsolate(), "");
        ASSERT_TRUE(daemonHarnessWriteImage(APP_HEX));
        daemonHarness daemon;
        startServing(daemon);
        ASSERT_TRUE(serves(daemon));
        pid_t pid = daemon.daemonPid();
        ASSERT_TRUE(daemon.signalDaemon(sig));
        int status = -1;
        ASSERT_TRUE(daemon.waitExit(status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << sig;

        std::string name = "tarnhold-" + std::to_string(pid) + "-" + std::to_string(sig) + ".log";
        EXPECT_EQ(listDir("/var/crash"), std::vector<std::string>{name});
        std::string log = daemonHarnessReadFile("/var/crash/" + name);
        auto lines = std::count(log.begin(), log.end(), '\n');
        EXPECT_GE(lines, 1);
        EXPECT_LE(lines, 10);
        EXPECT_NE(log.find("signal_exit_handler"), std::string::npos) << log;
        struct stat st = {};
        ASSERT_EQ(stat(("/var/crash/" + name).c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0644u);

        EXPECT_NE(daemon.stderrText().find("signal_exit_handler(sig: " + std::to_string(sig) + "):: cleaning up!\n"),
                  std::string::npos);
        EXPECT_FALSE(exists(USB_DAEMON_FIFO));
        EXPECT_FALSE(exists(PID_FILE));
        EXPECT_TRUE(contains(daemon.logTexts("daemon"), "tarnhold(ERROR/TERM) stopped"));
    }
}

TEST_F(daemonProcessTest, TheCrashLogIsNeverWrittenThroughASymbolicLink)
{
    daemonHarness daemon;
    startServing(daemon);
    ASSERT_TRUE(serves(daemon));
    std::string name = "/var/crash/tarnhold-" + std::to_string(daemon.daemonPid()) + "-11.log";
    ASSERT_EQ(symlink("/tmp/victim", name.c_str()), 0);
    ASSERT_TRUE(daemon.signalDaemon(SIGSEGV));
    int status = -1;
    ASSERT_TRUE(daemon.waitExit(status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the handler goes on without its log";
    EXPECT_FALSE(exists("/tmp/victim"));
    EXPECT_FALSE(exists(USB_DAEMON_FIFO));
}

TEST_F(daemonProcessTest, TheFifoIsMode0666WhateverTheUmask)
{
    daemonHarness daemon;
    ASSERT_TRUE(daemon.start(daemonHarnessOnAppliance(APP_HEX, {"--file", APP_HEX}, 077)));
    ASSERT_TRUE(daemon.waitReady());
    struct stat st = {};
    ASSERT_EQ(lstat(USB_DAEMON_FIFO, &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0666u);
}

TEST_F(daemonProcessTest, SigpipeIsOnlyReported)
{
    daemonHarness daemon;
    startServing(daemon);
    ASSERT_TRUE(serves(daemon));
    ASSERT_TRUE(daemon.signalDaemon(SIGPIPE));
    EXPECT_TRUE(daemon.waitForStderr("signal_pipe_handler():: retry!\n"));
    EXPECT_TRUE(serves(daemon));
}

} // namespace
