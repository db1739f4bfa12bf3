// tarnholdctl as its users run it: against the real daemon, and against a
// scripted stand-in that answers what the appliance would.
#include "daemonHarness.h"
#include "uniqueFd.h"
#include "usbDaemonRequest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <openssl/evp.h>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct ctlRun {
    int exitStatus = -1;
    std::string out;
    std::string err;
};

ctlRun runCtl(const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {TARNHOLDCTL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    ctlRun run;
    int status = 0;
    if (daemonHarnessRun(argv, status, run.out, run.err) && WIFEXITED(status)) {
        run.exitStatus = WEXITSTATUS(status);
    }
    return run;
}

// Runs tarnholdctl against a stand-in on the request FIFO that answers one
// request through `answer`; `seen` receives the request as it came.
ctlRun runCtlAnswered(const std::vector<std::string> &args, const std::function<void(usbDaemonRequest &)> &answer,
                      usbDaemonRequest *seen = nullptr)
{
    ctlRun run;
    unlink(USB_DAEMON_FIFO);
    EXPECT_EQ(mkfifo(USB_DAEMON_FIFO, 0666), 0);
    uniqueFd request(open(USB_DAEMON_FIFO, O_RDONLY | O_NONBLOCK));
    daemonHarness ctl;
    EXPECT_TRUE(ctl.start(daemonHarnessProgram(TARNHOLDCTL_BINARY, args)));
    pollfd p = {.fd = request.get(), .events = POLLIN, .revents = 0};
    usbDaemonRequest record = {};
    if (poll(&p, 1, 10000) == 1 && read(request.get(), &record, sizeof record) == ssize_t(sizeof record)) {
        if (seen != nullptr) {
            *seen = record;
        }
        answer(record);
        uniqueFd reply(open(record.clientFifo, O_WRONLY | O_NONBLOCK));
        EXPECT_EQ(write(reply.get(), &record, sizeof record), ssize_t(sizeof record));
    }
    int status = 0;
    if (ctl.waitExit(status) && WIFEXITED(status)) {
        run.exitStatus = WEXITSTATUS(status);
    }
    run.out = ctl.stdoutText();
    run.err = ctl.stderrText();
    return run;
}

// A GET_FLASH_VAL reply as the application gives it.
void slotReply(usbDaemonRequest &r, uint32_t word0, uint32_t word1, const std::vector<uint8_t> &data)
{
    r.result = 0;
    r.resp = {};
    r.resp[0] = r.cmd[0];
    r.resp[1] = r.cmd[1];
    memcpy(&r.resp[4], &word0, 4);
    memcpy(&r.resp[8], &word1, 4);
    r.resp[12] = uint8_t(data.size());
    std::copy(data.begin(), data.end(), r.resp.begin() + 13);
}

class tarnholdctlTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(daemonHarnessIsolate(), ""); }
};

TEST_F(tarnholdctlTest, RawRequestsPrintResultAndBothBlocksWithDistinctExitStatus)
{
    ctlRun none = runCtl({"raw", "200"});
    EXPECT_EQ(none.exitStatus, 3) << "no daemon is a transport failure";
    EXPECT_NE(none.err.find("no daemon"), std::string::npos) << none.err;

    ASSERT_TRUE(daemonHarnessWriteImage("/tmp/app.hex"));
    daemonHarness daemon;
    ASSERT_TRUE(daemon.start(daemonHarnessOnAppliance("/tmp/app.hex", {"--file", "/tmp/app.hex"})));
    ASSERT_TRUE(daemon.waitReady());

    // Through the relay to the simulated microcontroller and back.
    ctlRun platform = runCtl({"slot-read", "10"});
    EXPECT_EQ(platform.exitStatus, 0) << platform.err;
    EXPECT_EQ(platform.out, "result: 0 (ok)\nplatform: HW=BRISKA\n");

    ctlRun raw = runCtl({"raw", "200", "1", "0x02", "0XfF"});
    EXPECT_EQ(raw.exitStatus, 1) << raw.err;
    EXPECT_NE(raw.out.find("result: 8 (unknown function code)\n"), std::string::npos) << raw.out;
    EXPECT_NE(raw.out.find("cmd  UNKNOWN_QX_HID_CMD (200) seq 0 status 0\n  00: c8 00 00 01 02 ff 00"),
              std::string::npos)
        << raw.out;
    EXPECT_NE(raw.out.find("\n  40: 00 00 00 00 00\n"), std::string::npos) << "69 bytes in rows of 16";

    ctlRun json = runCtl({"--json", "raw", "0xc8", "7"});
    EXPECT_EQ(json.exitStatus, 1);
    EXPECT_EQ(json.out.find("{\"result\":8,\"resultText\":\"unknown function code\",\"cmd\":{\"code\":200,"
                            "\"name\":\"UNKNOWN_QX_HID_CMD\",\"seq\":0,\"status\":0,\"hex\":\"c8000007"),
              0u)
        << json.out;

    for (const std::vector<std::string> &bad : {std::vector<std::string>{"raw"}, {"raw", "256"}, {"raw", "1", "x"},
                                               {"cmd", "NO_SUCH"}, {"bay-shutdown"}, {"frobnicate"}}) {
        EXPECT_EQ(runCtl(bad).exitStatus, 2) << bad.back();
    }
}

TEST_F(tarnholdctlTest, CommandsByNameAliasOrNumberSendTheirCodeAndBytes)
{
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"cmd", "QX_HID_CMD_SET_LEDS", "1", "2"}, {"cmd", "set-leds", "1", "2"},
          {"set-leds", "1", "2"}, {"cmd", "24", "1", "2"}}) {
        usbDaemonRequest seen = {};
        ctlRun run = runCtlAnswered(
            args,
            [](usbDaemonRequest &r) {
                r.result = 0;
                r.resp = r.cmd;
            },
            &seen);
        EXPECT_EQ(run.exitStatus, 0) << args[1] << run.err;
        EXPECT_EQ(seen.cmd[0], 24);
        EXPECT_EQ(seen.cmd[3], 1);
        EXPECT_EQ(seen.cmd[4], 2);
        EXPECT_EQ(std::string(seen.clientFifo).rfind("/tmp/tarnhold-client.", 0), 0u);
        EXPECT_NE(run.out.find("resp QX_HID_CMD_SET_LEDS (24)"), std::string::npos) << run.out;
    }
}

TEST_F(tarnholdctlTest, BayAndXmlDetectRequestsAreDecoded)
{
    usbDaemonRequest seen = {};
    ctlRun indicator = runCtlAnswered(
        {"bay-indicator", "3"},
        [](usbDaemonRequest &r) {
            r.result = 0;
            r.resp = {};
            r.resp[0] = 32;
            r.resp[3] = 3;
            r.resp[4] = 1;
        },
        &seen);
    EXPECT_EQ(seen.cmd[0], 32);
    EXPECT_EQ(seen.cmd[3], 3);
    EXPECT_EQ(indicator.exitStatus, 0);
    EXPECT_EQ(indicator.out, "result: 0 (ok)\nbay 3: force-shutdown indicator 1\n");

    ctlRun refused = runCtlAnswered({"--json", "bay-shutdown", "12"}, [](usbDaemonRequest &r) {
        r.result = -1;
        r.resp = {};
        r.resp[0] = 30;
        r.resp[2] = 0xFF;
    });
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_EQ(refused.out.find("{\"result\":-1,"), 0u) << refused.out;

    ctlRun get = runCtlAnswered({"xml-detect-get"}, [](usbDaemonRequest &r) {
        r.result = 0;
        r.resp = {};
        r.resp[0] = 23;
        for (int bay = 0; bay < 23; ++bay) {
            r.resp[3 + bay] = uint8_t(0xA0 + bay);
        }
    });
    EXPECT_EQ(get.exitStatus, 0);
    EXPECT_NE(get.out.find("bay  9: 0xa9\nbay 15: 0xaf\n"), std::string::npos) << "bays 10 to 14 do not exist";
    EXPECT_NE(get.out.find("bay 22: 0xb6\n"), std::string::npos) << get.out;
}

TEST_F(tarnholdctlTest, SlotReadsAreDecodedBySlot)
{
    usbDaemonRequest seen = {};
    ctlRun platform = runCtlAnswered(
        {"slot-read", "10"}, [](usbDaemonRequest &r) { slotReply(r, 0, 0, {'H', 'W', '=', 'B', 'R', 'I', 'S', 'K', 'A'}); },
        &seen);
    EXPECT_EQ(seen.cmd[0], 13);
    EXPECT_EQ(seen.cmd[3], 10);
    EXPECT_EQ(platform.out, "result: 0 (ok)\nplatform: HW=BRISKA\n");

    std::vector<uint8_t> md5(16);
    for (int i = 0; i < 16; ++i) {
        md5[size_t(i)] = uint8_t(0x10 * i + i);
    }
    ctlRun firmware = runCtlAnswered({"slot-read", "4"}, [&](usbDaemonRequest &r) { slotReply(r, 0x53000, 0, md5); });
    EXPECT_EQ(firmware.out,
              "result: 0 (ok)\nfirmware length: 339968 (0x53000)\nmd5: 00112233445566778899aabbccddeeff\n");

    ctlRun other = runCtlAnswered({"--json", "slot-read", "9"},
                                  [](usbDaemonRequest &r) { slotReply(r, 7, 0x01020304, {0xde, 0xad}); });
    EXPECT_NE(other.out.find("\"decoded\":{\"slot\":9,\"valid\":true,\"length\":2,\"word0\":7,\"word1\":16909060,"
                             "\"data\":\"dead\"}}"),
              std::string::npos)
        << other.out;

    ctlRun erased = runCtlAnswered({"slot-read", "5"}, [](usbDaemonRequest &r) {
        r.result = 0;
        std::fill(r.resp.begin() + 4, r.resp.end(), 0xFF);
    });
    EXPECT_EQ(erased.out, "result: 0 (ok)\nslot 5: empty (length byte 255)\n");
}

// The MD5 over the first `len` bytes of a flash image holding `data` at its start.
std::vector<uint8_t> imageMd5(const std::vector<uint8_t> &data, size_t len)
{
    std::vector<uint8_t> image(len, 0xFF);
    std::copy(data.begin(), data.end(), image.begin());
    std::vector<uint8_t> digest(16);
    unsigned out = 0;
    EVP_Digest(image.data(), image.size(), digest.data(), &out, EVP_md5(), nullptr);
    return digest;
}

std::string hexRecord(uint8_t type, uint16_t address, const std::vector<uint8_t> &data)
{
    std::vector<uint8_t> bytes = {uint8_t(data.size()), uint8_t(address >> 8), uint8_t(address), type};
    bytes.insert(bytes.end(), data.begin(), data.end());
    uint8_t sum = 0;
    std::string line = ":";
    char pair[3];
    for (uint8_t b : bytes) {
        sum = uint8_t(sum + b);
        snprintf(pair, sizeof pair, "%02X", b);
        line += pair;
    }
    snprintf(pair, sizeof pair, "%02X", uint8_t(-sum));
    return line + pair + "\n";
}

TEST_F(tarnholdctlTest, FirmwareCheckComparesTheFileWithSlot4)
{
    std::vector<uint8_t> data(16);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = uint8_t(i * 3);
    }
    std::string hex = hexRecord(4, 0, {0x1D, 0x01}) + hexRecord(0, 0, data) + hexRecord(1, 0, {});
    {
        uniqueFd f(open("/tmp/app.hex", O_WRONLY | O_CREAT | O_TRUNC, 0644));
        ASSERT_EQ(write(f.get(), hex.data(), hex.size()), ssize_t(hex.size()));
    }
    std::vector<uint8_t> md5 = imageMd5(data, 64);

    usbDaemonRequest seen = {};
    ctlRun current = runCtlAnswered(
        {"firmware-check", "/tmp/app.hex"}, [&](usbDaemonRequest &r) { slotReply(r, 64, 0, md5); }, &seen);
    EXPECT_EQ(seen.cmd[0], 13);
    EXPECT_EQ(seen.cmd[3], 4);
    EXPECT_EQ(current.exitStatus, 0) << current.out << current.err;
    EXPECT_NE(current.out.find("\ncurrent\n"), std::string::npos) << current.out;
    EXPECT_EQ(current.out.find("Md5 Digest"), std::string::npos) << "stdout carries only the tool's own output";

    std::vector<uint8_t> otherMd5 = md5;
    otherMd5[15] ^= 1;
    struct {
        uint32_t length;
        std::vector<uint8_t> digest;
    } differing[] = {{64, otherMd5}, {128, md5}, {64, std::vector<uint8_t>(md5.begin(), md5.begin() + 15)}};
    for (const auto &d : differing) {
        ctlRun run =
            runCtlAnswered({"--json", "firmware-check", "/tmp/app.hex"}, [&](usbDaemonRequest &r) { slotReply(r, d.length, 0, d.digest); });
        EXPECT_EQ(run.exitStatus, 5) << run.out;
        EXPECT_EQ(run.out.find("{\"verdict\":\"differs\""), 0u) << run.out;
    }

    ctlRun missing = runCtl({"firmware-check", "/tmp/no-such.hex"});
    EXPECT_EQ(missing.exitStatus, 4);
}

} // namespace
