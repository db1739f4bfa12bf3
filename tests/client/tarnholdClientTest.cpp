// The client exchange's failures on virtual time (the daemon tests run whole exchanges), and tarnholdctl's texts.
#include "tarnholdClient.h"
#include "tarnholdCtlText.h"
#include "uniqueFd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct {
    std::vector<int> pollTimeouts;
    int daemonEnd = -1; // the stand-in daemon's end of the request FIFO; -1: it never answers
    uint64_t nowMs = 1000;
} fake;

int __fakePoll(pollfd *fds, nfds_t count, int timeoutMs)
{
    fake.pollTimeouts.push_back(timeoutMs);
    if (fake.daemonEnd < 0) {
        fake.nowMs += uint64_t(timeoutMs);
        return 0;
    }
    usbDaemonRequest r;
    if (read(fake.daemonEnd, &r, sizeof r) == ssize_t(sizeof r)) { // the record came in one write; 100 bytes back
        uniqueFd reply(open(r.clientFifo, O_WRONLY | O_NONBLOCK));
        EXPECT_EQ(write(reply.get(), &r, 100), 100);
    }
    return ::poll(fds, count, 0);
}

TEST(tarnholdClient, failuresLeaveTheRecordAndNoReplyFifoBehindAndSayWhy)
{
    std::string dir = "/tmp/tarnholdClientTest.XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    std::string request = dir + "/request", replies = dir + "/replies", deep = dir + "/" + std::string(90, 'd');
    ASSERT_TRUE(std::filesystem::create_directory(replies) && std::filesystem::create_directory(deep));
    tarnholdClientSys = {__fakePoll, [] { return fake.nowMs; }};
    usbDaemonRequest record, before;
    memset(&record, 0x77, sizeof record), before = record;
    auto fails = [&](int rc, const std::string &text, const std::string &tmpDir) {
        fake.pollTimeouts.clear();
        EXPECT_EQ(tarnholdClientExchange(record, {2500, request.c_str(), tmpDir.c_str()}), rc) << text;
        EXPECT_EQ(std::string(tarnholdClientLastError()).rfind(text, 0), 0u) << tarnholdClientLastError();
        EXPECT_EQ(tarnholdClientIsNoDaemon(rc), rc == -ENOENT || rc == -ENXIO);
        EXPECT_EQ(memcmp(&record, &before, sizeof record), 0) << text;
        EXPECT_TRUE(std::filesystem::is_empty(tmpDir)) << "the reply FIFO and its folder are removed on every path";
    };
    fails(-ENOENT, "no daemon: " + request + " does not exist", replies);
    fails(-ENAMETOOLONG, "reply FIFO path longer than 99 bytes: ", deep);
    std::ofstream{request};
    fails(-EINVAL, request + " is not a FIFO", replies);
    EXPECT_EQ(std::filesystem::file_size(request), 0u) << "nothing is written into a non-FIFO";
    std::filesystem::remove(request);
    ASSERT_EQ(mkfifo(request.c_str(), 0600), 0);
    fails(-ENXIO, "no daemon reads " + request, replies);
    uniqueFd daemonEnd(fake.daemonEnd = open(request.c_str(), O_RDONLY | O_NONBLOCK));
    fails(-EPROTO, "the reply FIFO closed after 100 of 244 bytes", replies);
    fake.daemonEnd = -1;
    fails(-ETIMEDOUT, "timed out waiting for the reply", replies);
    EXPECT_EQ(fake.pollTimeouts, std::vector<int>{2500}) << "the wait gets the whole timeout";
    // With a progress call the wait is cut into seconds, and each says how long it has been.
    std::vector<uint64_t> elapsed;
    tarnholdClientParams withProgress{2500, request.c_str(), replies.c_str()};
    withProgress.progress = [](void *ctx, uint64_t ms) { static_cast<std::vector<uint64_t> *>(ctx)->push_back(ms); };
    withProgress.progressCtx = &elapsed;
    fake.pollTimeouts.clear();
    EXPECT_EQ(tarnholdClientExchange(record, withProgress), -ETIMEDOUT);
    EXPECT_EQ(fake.pollTimeouts, (std::vector<int>{1000, 1000, 500}));
    EXPECT_EQ(elapsed, (std::vector<uint64_t>{1000, 2000}));
    tarnholdClientSys = TARNHOLD_CLIENT_SYS_LIBC;
    std::filesystem::remove_all(dir);
}

TEST(tarnholdCtlText, bytesAreDecimalOr0xHexUpTo255AndCommandsGoByNumberNameOrAlias)
{
    EXPECT_TRUE(tarnholdCtlParseByte("255") == 255 && tarnholdCtlParseByte("0XfF") == 255 &&
                tarnholdCtlParseByte("010") == 10) << "a leading zero is not octal";
    for (const char *bad : {"", "256", "0x100", "-1", "+1", "0x", "1a", "ff", " 1", "1 ", "0x0g"}) {
        EXPECT_FALSE(tarnholdCtlParseByte(bad).has_value()) << "'" << bad << "'";
    }
    for (const char *set : {"QX_HID_CMD_SET_LEDS", "qx_hid_cmd_set_leds", "set-leds", "0x18", "24"}) {
        EXPECT_EQ(tarnholdCtlLookupCode(set), 24) << set;
    }
    EXPECT_FALSE(tarnholdCtlLookupCode("set_leds").has_value() || tarnholdCtlLookupCode("leds").has_value());
}

TEST(tarnholdCtlText, repliesShowTheCodeNameAll69BytesAndTheSlotValuesUpTo48Bytes)
{
    qxUsbBlock block = {24, 7, 0xFF};
    block[68] = 0xAB;
    std::string text = tarnholdCtlBlockText("resp", block);
    EXPECT_EQ(text.substr(0, text.find('\n')), "resp QX_HID_CMD_SET_LEDS (24) seq 7 status 255");
    EXPECT_NE(text.find("\n  00: 18 07 ff 00"), std::string::npos);
    EXPECT_TRUE(text.ends_with("\n  40: 00 00 00 00 ab\n")) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);

    // A slot read: words 0x53000 and 2 from byte 4, the length 3 at byte 12, the data after it.
    qxUsbBlock resp = {0, 0, 0, 0, 0, 0x30, 0x05, 0, 0x02, 0, 0, 0, 3, 'a', '"', 0x01};
    tarnholdCtlSlot slot = tarnholdCtlDecodeSlot(resp);
    EXPECT_TRUE(slot.valid && slot.word0 == 0x53000u && slot.word1 == 2u && slot.len == 3);
    EXPECT_EQ(tarnholdCtlSlotText(10, slot), "platform: a\"\\x01\n");
    EXPECT_EQ(tarnholdCtlSlotText(4, slot), "firmware length: 339968 (0x53000)\nmd5: 612201\n");
    EXPECT_EQ(tarnholdCtlSlotText(7, slot), "word0: 0x00053000\nword1: 0x00000002\nlength: 3\ndata: 612201\n");
    resp[12] = 48;
    EXPECT_TRUE(tarnholdCtlDecodeSlot(resp).valid);
    resp[12] = 49; // more than a slot holds: nothing in it is trusted
    EXPECT_EQ(tarnholdCtlSlotText(4, tarnholdCtlDecodeSlot(resp)), "slot 4: empty (length byte 49)\n");
}

} // namespace
