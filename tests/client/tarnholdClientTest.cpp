// The client exchange against a stand-in daemon that answers from inside the
// client's own wait, so that every case runs in one process on virtual time.
#include "tarnholdClient.h"
#include "uniqueFd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

struct {
    std::vector<int> pollTimeouts;
    std::function<void()> onWait; // what the stand-in daemon does while the client waits
    bool timeOut = false;         // every wait ends without an event
    uint64_t nowMs = 1000;
} fake;

int __fakePoll(pollfd *fds, nfds_t count, int timeoutMs)
{
    fake.pollTimeouts.push_back(timeoutMs);
    if (fake.onWait) {
        auto once = std::move(fake.onWait);
        fake.onWait = nullptr;
        once();
    }
    if (fake.timeOut) {
        fake.nowMs += uint64_t(timeoutMs);
        return 0;
    }
    return ::poll(fds, count, 0);
}

uint64_t __fakeMonotonicMs() { return fake.nowMs; }

class tarnholdClientTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake = {};
        fake.nowMs = 1000;
        tarnholdClientSys = {__fakePoll, __fakeMonotonicMs};
        char dir[] = "/tmp/tarnholdClientTest.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        requestPath_ = dir_ + "/request";
        replyDir_ = dir_ + "/replies";
        ASSERT_EQ(mkdir(replyDir_.c_str(), 0700), 0);
        params_.requestFifo = requestPath_.c_str();
        params_.tmpDir = replyDir_.c_str();
        params_.timeoutMs = 2500;
    }
    void TearDown() override
    {
        tarnholdClientSys = TARNHOLD_CLIENT_SYS_LIBC;
        EXPECT_TRUE(replyDirEmpty()) << "the reply FIFO and its directory are removed on every path";
        rmdir(replyDir_.c_str());
        unlink(requestPath_.c_str());
        rmdir(dir_.c_str());
    }
    void makeRequestFifo()
    {
        ASSERT_EQ(mkfifo(requestPath_.c_str(), 0600), 0);
        daemonEnd_.reset(open(requestPath_.c_str(), O_RDONLY | O_NONBLOCK));
        ASSERT_TRUE(daemonEnd_.valid());
    }
    // The stand-in daemon: takes one record, lets `edit` change it, and writes
    // `replyLen` bytes of it back.
    void answerWith(std::function<void(usbDaemonRequest &)> edit, size_t replyLen = sizeof(usbDaemonRequest))
    {
        fake.onWait = [this, edit, replyLen] {
            char bytes[sizeof(usbDaemonRequest) + 1];
            ASSERT_EQ(read(daemonEnd_.get(), bytes, sizeof bytes), ssize_t(sizeof(usbDaemonRequest)))
                << "one record in one write";
            usbDaemonRequest r;
            memcpy(&r, bytes, sizeof r);
            received_ = r;
            edit(r);
            uniqueFd reply(open(r.clientFifo, O_WRONLY | O_NONBLOCK));
            ASSERT_TRUE(reply.valid()) << "the client reads its FIFO before it asks";
            ASSERT_EQ(write(reply.get(), &r, replyLen), ssize_t(replyLen));
        };
    }
    bool replyDirEmpty() const
    {
        DIR *d = opendir(replyDir_.c_str());
        if (d == nullptr) {
            return false;
        }
        int entries = 0;
        while (dirent *e = readdir(d)) {
            entries += strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0 ? 1 : 0;
        }
        closedir(d);
        return entries == 0;
    }

    std::string dir_;
    std::string requestPath_;
    std::string replyDir_;
    tarnholdClientParams params_;
    uniqueFd daemonEnd_;
    usbDaemonRequest received_ = {};
};

TEST_F(tarnholdClientTest, ExchangeSendsOneRecordAndReturnsTheReply)
{
    makeRequestFifo();
    answerWith([](usbDaemonRequest &r) {
        r.result = 8;
        r.resp[5] = 0x55;
    });
    usbDaemonRequest record = {};
    memset(record.clientFifo, 'z', sizeof record.clientFifo); // the library's own path replaces it
    record.result = 99;
    record.cmd[0] = 200;
    record.cmd[68] = 0x68;
    record.padding[1] = 0x77;
    ASSERT_EQ(tarnholdClientExchange(record, params_), 0) << tarnholdClientLastError();

    std::string sentPath(received_.clientFifo, strnlen(received_.clientFifo, sizeof received_.clientFifo));
    EXPECT_EQ(sentPath.rfind(replyDir_ + "/tarnhold-client.", 0), 0u) << sentPath;
    EXPECT_EQ(std::count(received_.clientFifo, received_.clientFifo + sizeof received_.clientFifo, '\0'),
              ssize_t(sizeof received_.clientFifo - sentPath.size()))
        << "the field is NUL-padded";
    EXPECT_EQ(received_.result, 0);
    EXPECT_EQ(received_.cmd[0], 200);
    EXPECT_EQ(received_.cmd[68], 0x68);
    EXPECT_EQ(received_.padding[1], 0x77);

    EXPECT_EQ(record.result, 8);
    EXPECT_EQ(record.resp[5], 0x55);
    EXPECT_EQ(record.cmd[68], 0x68);
    EXPECT_STREQ(tarnholdClientLastError(), "");
}

TEST_F(tarnholdClientTest, NoDaemonIsAClearErrorAndLeavesTheRecordAlone)
{
    usbDaemonRequest record = {};
    record.cmd[0] = 24;
    usbDaemonRequest before = record;

    int rc = tarnholdClientExchange(record, params_);
    EXPECT_EQ(rc, -ENOENT);
    EXPECT_TRUE(tarnholdClientIsNoDaemon(rc));
    EXPECT_EQ(std::string(tarnholdClientLastError()), "no daemon: " + requestPath_ + " does not exist");
    EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);
    EXPECT_TRUE(replyDirEmpty());

    ASSERT_EQ(mkfifo(requestPath_.c_str(), 0600), 0); // there, but nobody reads it
    rc = tarnholdClientExchange(record, params_);
    EXPECT_EQ(rc, -ENXIO);
    EXPECT_TRUE(tarnholdClientIsNoDaemon(rc));
    EXPECT_EQ(std::string(tarnholdClientLastError()), "no daemon reads " + requestPath_);
    EXPECT_TRUE(replyDirEmpty());

    unlink(requestPath_.c_str());
    { uniqueFd f(open(requestPath_.c_str(), O_WRONLY | O_CREAT, 0600)); }
    rc = tarnholdClientExchange(record, params_);
    EXPECT_EQ(rc, -EINVAL);
    EXPECT_FALSE(tarnholdClientIsNoDaemon(rc));
    EXPECT_EQ(std::string(tarnholdClientLastError()), requestPath_ + " is not a FIFO");
    struct stat st = {};
    ASSERT_EQ(stat(requestPath_.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0) << "nothing is written into a non-FIFO";
}

TEST_F(tarnholdClientTest, NoReplyWithinTheTimeoutEndsTheWait)
{
    makeRequestFifo();
    fake.timeOut = true;
    usbDaemonRequest record = {};
    int rc = tarnholdClientExchange(record, params_);
    EXPECT_EQ(rc, -ETIMEDOUT);
    EXPECT_FALSE(tarnholdClientIsNoDaemon(rc));
    EXPECT_STREQ(tarnholdClientLastError(), "timed out waiting for the reply");
    EXPECT_EQ(fake.pollTimeouts, std::vector<int>{2500});

    // The time spent before the wait counts against the same deadline.
    fake.pollTimeouts.clear();
    params_.timeoutMs = 0;
    EXPECT_EQ(tarnholdClientExchange(record, params_), -ETIMEDOUT);
    EXPECT_EQ(fake.pollTimeouts, std::vector<int>{0});
}

TEST_F(tarnholdClientTest, AReplyShorterThanARecordIsRefused)
{
    makeRequestFifo();
    answerWith([](usbDaemonRequest &r) { r.result = 0; }, 100);
    usbDaemonRequest record = {};
    record.cmd[0] = 200;
    usbDaemonRequest before = record;
    EXPECT_EQ(tarnholdClientExchange(record, params_), -EPROTO);
    EXPECT_STREQ(tarnholdClientLastError(), "the reply FIFO closed after 100 of 244 bytes");
    EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);
}

TEST_F(tarnholdClientTest, AReplyPathThatDoesNotFitTheRecordIsRefused)
{
    std::string deep = replyDir_ + "/" + std::string(90, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    params_.tmpDir = deep.c_str();
    makeRequestFifo();
    usbDaemonRequest record = {};
    EXPECT_EQ(tarnholdClientExchange(record, params_), -ENAMETOOLONG);
    char pending[8];
    EXPECT_EQ(read(daemonEnd_.get(), pending, sizeof pending), 0) << "nothing was sent";
    rmdir(deep.c_str());
}

} // namespace
