// The request loop driven one pass at a time: heartbeat timing on virtual
// time, and what happens to each record and its reply.
#include "logCapture.h"
#include "main.h"
#include "sysSeam.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// ---- Virtual time ---------------------------------------------------------------

struct {
    uint64_t nowUs = 0;
    bool readable = false;       // the request descriptor reports readable
    uint64_t readableStepUs = 0; // how long a readable wait takes
    std::vector<std::optional<timeval>> waits;
    std::vector<int> nfds;
    int clockReads = 0;
    std::vector<uint32_t> intervals; // what the heartbeat answers, pass by pass (last one repeats)
    size_t intervalAsked = 0;
    std::vector<uint64_t> beepsAtUs;
    int replyFd = -1;            // when set, each beep notes how much reply was written by then
    std::vector<int> replyBytesAtBeep;
} vt;

int __fakeSelect(int nfds, fd_set *readSet, fd_set *, fd_set *, timeval *timeout)
{
    vt.nfds.push_back(nfds);
    vt.waits.push_back(timeout != nullptr ? std::optional<timeval>(*timeout) : std::nullopt);
    if (vt.readable) {
        vt.nowUs += vt.readableStepUs;
        return 1; // the set is left as given: the descriptor is ready
    }
    FD_ZERO(readSet);
    if (timeout == nullptr) {
        errno = EINTR; // a wait without a timeout can only end by a signal here
        return -1;
    }
    vt.nowUs += static_cast<uint64_t>(timeout->tv_sec) * 1000000u + static_cast<uint64_t>(timeout->tv_usec);
    return 0;
}

uint64_t __fakeMs()
{
    ++vt.clockReads;
    return vt.nowUs / 1000;
}

uint32_t __fakeInterval()
{
    uint32_t value = vt.intervals.empty() ? 0 : vt.intervals[std::min(vt.intervalAsked, vt.intervals.size() - 1)];
    ++vt.intervalAsked;
    return value;
}

void __fakeBeep()
{
    vt.beepsAtUs.push_back(vt.nowUs);
    if (vt.replyFd >= 0) {
        int pending = 0;
        ioctl(vt.replyFd, FIONREAD, &pending);
        vt.replyBytesAtBeep.push_back(pending);
    }
}

// A zero-timeout real select, so serving tests never block.
int __selectNow(int nfds, fd_set *readSet, fd_set *writeSet, fd_set *exceptSet, timeval *)
{
    timeval zero = {};
    return ::select(nfds, readSet, writeSet, exceptSet, &zero);
}

constexpr timeval ONE_SECOND_AND_TEN_US = {.tv_sec = 1, .tv_usec = 10};

bool sameTimeval(const std::optional<timeval> &a, const timeval &b)
{
    return a.has_value() && a->tv_sec == b.tv_sec && a->tv_usec == b.tv_usec;
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
        mainLoopSetRequestFd(requestRead_.get());
        platformSys.select = __fakeSelect;
        platformSys.msSince1970 = __fakeMs;
        mainHeartbeat = {__fakeInterval, __fakeBeep};

        char dir[] = "/tmp/mainLoopTest.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override
    {
        platformSys = PLATFORM_SYS_LIBC;
        mainHeartbeat = MAIN_HEARTBEAT_NONE;
        mainLoopSetRequestFd(-1);
        for (const auto &p : made_) {
            unlink(p.c_str());
        }
        rmdir(dir_.c_str());
    }

    std::string path(const std::string &name)
    {
        made_.push_back(dir_ + "/" + name);
        return made_.back();
    }
    std::string makeFifo(const std::string &name)
    {
        std::string p = path(name);
        EXPECT_EQ(mkfifo(p.c_str(), 0600), 0);
        return p;
    }
    static usbDaemonRequest record(const std::string &clientFifo, uint8_t code)
    {
        usbDaemonRequest r = {};
        strncpy(r.clientFifo, clientFifo.c_str(), sizeof r.clientFifo - 1);
        r.cmd[0] = code;
        return r;
    }
    void send(const void *bytes, size_t len) { ASSERT_EQ(write(requestWrite_.get(), bytes, len), ssize_t(len)); }
    void send(const usbDaemonRequest &r) { send(&r, sizeof r); }
    // Serving passes: no heartbeat, a real select that never blocks.
    void serveOnePass()
    {
        mainHeartbeat = MAIN_HEARTBEAT_NONE;
        platformSys.select = __selectNow;
        mainLoopPass();
    }
    static std::string readAll(int fd)
    {
        std::string out;
        char buf[512];
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0) {
            out.append(buf, size_t(n));
        }
        return out;
    }

    uniqueFd requestRead_;
    uniqueFd requestWrite_;
    std::string dir_;
    std::vector<std::string> made_;
};

// ---- Heartbeat timing -----------------------------------------------------------

TEST_F(mainLoopTest, IntervalZeroWaitsWithoutTimeoutAndNeverBeeps)
{
    vt.intervals = {0};
    vt.nowUs = 5'000'000;
    for (int i = 0; i < 3; ++i) {
        mainLoopPass();
    }
    ASSERT_EQ(vt.waits.size(), 3u);
    for (const auto &w : vt.waits) {
        EXPECT_FALSE(w.has_value());
    }
    for (int n : vt.nfds) {
        EXPECT_EQ(n, requestRead_.get() + 1);
    }
    EXPECT_TRUE(vt.beepsAtUs.empty());
    EXPECT_EQ(vt.clockReads, 0) << "no heartbeat is considered without an interval";
}

TEST_F(mainLoopTest, IdleLoopWaitsOneSecondAndTenMicrosecondsAndBeepsEverySecond)
{
    vt.intervals = {1};
    vt.nowUs = 1'700'000'000'000'000; // a wall clock of today
    for (int i = 0; i < 5; ++i) {
        mainLoopPass();
    }
    ASSERT_EQ(vt.waits.size(), 5u);
    for (const auto &w : vt.waits) {
        EXPECT_TRUE(sameTimeval(w, ONE_SECOND_AND_TEN_US));
    }
    // Every wait crosses into the next second, and the first timed pass always beats.
    EXPECT_EQ(vt.beepsAtUs.size(), 5u);
    EXPECT_EQ(vt.intervalAsked, 5u);
}

TEST_F(mainLoopTest, BeepsAtMostOncePerWallClockSecondUnderTraffic)
{
    vt.intervals = {1};
    vt.nowUs = 5'000'000'000; // second 5000 exactly
    vt.readable = true;       // records keep arriving, each wait ends after 0.3 s
    vt.readableStepUs = 300'000;
    for (int i = 0; i < 7; ++i) {
        mainLoopPass();
    }
    // Passes end at 5000.3, .6, .9, 5001.2, .5, .8, 5002.1: the check runs after
    // every wait, and beats only when the second has moved on.
    EXPECT_EQ(vt.beepsAtUs, (std::vector<uint64_t>{5'000'300'000, 5'001'200'000, 5'002'100'000}));
    EXPECT_EQ(vt.clockReads, 7);
}

TEST_F(mainLoopTest, IntervalIsAskedAfreshOnEveryPass)
{
    vt.intervals = {0, 1, 3, 0, 1};
    vt.nowUs = 42'000'000;
    for (int i = 0; i < 5; ++i) {
        mainLoopPass();
    }
    ASSERT_EQ(vt.waits.size(), 5u);
    EXPECT_FALSE(vt.waits[0].has_value());
    EXPECT_TRUE(sameTimeval(vt.waits[1], ONE_SECOND_AND_TEN_US));
    EXPECT_TRUE(sameTimeval(vt.waits[2], (timeval{.tv_sec = 3, .tv_usec = 10})));
    EXPECT_FALSE(vt.waits[3].has_value());
    EXPECT_TRUE(sameTimeval(vt.waits[4], ONE_SECOND_AND_TEN_US));
    // Only the timed passes look at the clock: 43.00001, 46.00002, 47.00003.
    EXPECT_EQ(vt.clockReads, 3);
    EXPECT_EQ(vt.beepsAtUs.size(), 3u);
}

TEST_F(mainLoopTest, HeartbeatTickStartsAtSecondZero)
{
    // The last beat is taken to be second 0: a clock still in second 0 gives no beat.
    vt.intervals = {1};
    vt.nowUs = 0;
    vt.readable = true;
    vt.readableStepUs = 500'000;
    mainLoopPass();
    EXPECT_TRUE(vt.beepsAtUs.empty());
    mainLoopPass(); // second 1
    EXPECT_EQ(vt.beepsAtUs.size(), 1u);

    // A new loop starts from second 0 again.
    mainLoopSetRequestFd(requestRead_.get());
    vt.beepsAtUs.clear();
    mainLoopPass(); // still second 1
    EXPECT_EQ(vt.beepsAtUs.size(), 1u);
}

TEST_F(mainLoopTest, HeartbeatComesBeforeTheRequestIsServed)
{
    std::string fifo = makeFifo("reply");
    uniqueFd reply(open(fifo.c_str(), O_RDONLY | O_NONBLOCK));
    ASSERT_TRUE(reply.valid());
    vt.replyFd = reply.get();
    vt.intervals = {1};
    vt.nowUs = 9'000'000;
    vt.readable = true;
    send(record(fifo, 200));
    mainLoopPass();
    EXPECT_EQ(vt.replyBytesAtBeep, std::vector<int>{0});
    EXPECT_EQ(readAll(reply.get()).size(), sizeof(usbDaemonRequest));
}

// ---- Serving --------------------------------------------------------------------

TEST_F(mainLoopTest, ReplyGoesOnlyIntoAFifoThatSomeoneReads)
{
    logCapture log;
    std::string regular = path("regular");
    { uniqueFd f(open(regular.c_str(), O_WRONLY | O_CREAT, 0600)); }
    std::string linkToRegular = path("link-to-regular");
    ASSERT_EQ(symlink(regular.c_str(), linkToRegular.c_str()), 0);
    std::string unread = makeFifo("unread");

    usbDaemonRequest noNul = record("", 200);
    memset(noNul.clientFifo, 'a', sizeof noNul.clientFifo);

    struct {
        usbDaemonRequest r;
        const char *line;
    } cases[] = {
        {noNul, "fdClient: -1 - 'File name too long'"},
        {record(path("missing"), 200), "fdClient: -1 - 'No such file or directory'"},
        {record(unread, 200), "fdClient: -1 - 'No such device or address'"},
        {record(regular, 200), "fdClient: -1 - 'not a FIFO'"},
        {record(linkToRegular, 200), "fdClient: -1 - 'not a FIFO'"},
    };
    for (const auto &c : cases) {
        log.clear();
        send(c.r);
        serveOnePass();
        ASSERT_EQ(log.lines().size(), 1u) << c.line;
        EXPECT_EQ(log.lines()[0].text, c.line);
        EXPECT_EQ(log.lines()[0].level, 0);
        EXPECT_EQ(log.lines()[0].source, "main");
    }
    struct stat st = {};
    ASSERT_EQ(stat(regular.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0) << "a regular file is never written";

    // A symbolic link to a FIFO is as good as the FIFO.
    std::string fifo = makeFifo("reply");
    std::string linkToFifo = path("link-to-fifo");
    ASSERT_EQ(symlink(fifo.c_str(), linkToFifo.c_str()), 0);
    uniqueFd reply(open(fifo.c_str(), O_RDONLY | O_NONBLOCK));
    log.clear();
    send(record(linkToFifo, 200));
    serveOnePass();
    EXPECT_EQ(readAll(reply.get()).size(), sizeof(usbDaemonRequest));
    EXPECT_TRUE(log.texts().empty());
}

TEST_F(mainLoopTest, FailedReplyWriteIsLoggedAndTheLoopGoesOn)
{
    logCapture log;
    std::string fifo = makeFifo("reply");
    uniqueFd reply(open(fifo.c_str(), O_RDONLY | O_NONBLOCK));
    uniqueFd filler(open(fifo.c_str(), O_WRONLY | O_NONBLOCK));
    char junk[4096] = {};
    while (write(filler.get(), junk, sizeof junk) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
    while (write(filler.get(), junk, 1) > 0) {
    }

    send(record(fifo, 200));
    serveOnePass();
    EXPECT_EQ(log.texts(), std::vector<std::string>{"tarnhold:main: write - 'Resource temporarily unavailable'"});

    readAll(reply.get());
    log.clear();
    send(record(fifo, 200));
    serveOnePass();
    EXPECT_EQ(readAll(reply.get()).size(), sizeof(usbDaemonRequest));
    EXPECT_TRUE(log.texts().empty());
}

// ---- Test pattern ---------------------------------------------------------------

TEST(mainTestPattern, BlockKHoldsKMod256AndTheLastEightBytesAreZero)
{
    EXPECT_EQ(sizeof __testingTmmmmpBuf, size_t{8388608});
    EXPECT_EQ(__testingTmmmmpBuf[0], 0x00);
    EXPECT_EQ(__testingTmmmmpBuf[199], 0x00);
    EXPECT_EQ(__testingTmmmmpBuf[200], 0x01);
    EXPECT_EQ(__testingTmmmmpBuf[399], 0x01);
    EXPECT_EQ(__testingTmmmmpBuf[51199], 0xFF);
    EXPECT_EQ(__testingTmmmmpBuf[51200], 0x00); // block 256
    EXPECT_EQ(__testingTmmmmpBuf[51399], 0x00);
    size_t wrong = 0;
    for (size_t i = 0; i < MAIN_TEST_BUF_BLOCKS * MAIN_TEST_BUF_BLOCK; ++i) {
        wrong += __testingTmmmmpBuf[i] != uint8_t((i / 200) % 256) ? 1 : 0;
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(__testingTmmmmpBuf[8388599], uint8_t(41942 % 256));
    for (size_t i = 8388600; i < 8388608; ++i) {
        EXPECT_EQ(__testingTmmmmpBuf[i], 0x00) << i;
    }
}

} // namespace
