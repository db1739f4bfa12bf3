// Device management against the simulated appliance: start-up (the firmware file from the command line or from
// the platform text, its tries and waits), the dispatcher, the relay's waits, matching rules and results, the codes
// without a handler, the per-bay tables, the slow relays (shutdown and tray test), the file-transfer test, and the
// CPLD handler's second attempt.
#include "../fpga/upgradeFixture.h"
#include "main.h"
#include "qxFile.h"
#include "qxLoader.h"

#include <cstring>
#include <fstream>
#include <numeric>
#include <span>
#include <tuple>
#include <unistd.h>

namespace {

const std::string CHECKING = "0 QX_TRACE_USBMGMT-Checking for client file name (retries=";

// The device node can be made to stay away, whatever the model does.
platformSysOps simOps;
bool nodeMissing = false;

class usbMgmtInitTest : public simLinkTest {
protected:
    void SetUp() override
    {
        simLinkTest::SetUp();
        qxUsbCleanUp(); // start-up opens the link itself
        simOps = platformSys;
        nodeMissing = false;
        platformSys.open = [](const char *path, int flags, mode_t mode) {
            if (nodeMissing && strcmp(path, QX_USB_DEVICE_PATH) == 0) {
                errno = ENOENT;
                return -1;
            }
            return simOps.open(path, flags, mode);
        };
        qxFileReset();
        forget();
    }
};

TEST_F(usbMgmtInitTest, withoutFileThePlatformTextGetsFiveTries500usApart)
{
    // The first try's exchange fails, the second finds "HW=BRISKA".
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(usbMgmtInit(nullptr), QX_FILE_ERROR);
    EXPECT_THAT(log.leveled("usbMgmt"),
                ElementsAre("1 usbMgmtInit: filename='none'", CHECKING + "5)", CHECKING + "4)",
                            "1 usbMgmtInit: found filename='/usr/sbin/briska-pic-client.hex'",
                            "0 QX_TRACE_USBMGMT-/usr/sbin/briska-pic-client.hex file Error"));
    EXPECT_THAT(simSleeps(), ElementsAre(500u));
    EXPECT_EQ(std::ranges::count(simKinds(), simEventKind::OPEN), 1);
    EXPECT_EQ(simOpenNodeFds(), 0); // closed before the file is loaded

    simInProcessInstall();
    simSetPlatformText("HW=NOWHERE");
    log.clear();
    EXPECT_EQ(usbMgmtInit(nullptr), -1);
    EXPECT_THAT(log.leveled("usbMgmt"),
                ElementsAre("1 usbMgmtInit: filename='none'", CHECKING + "5)", CHECKING + "4)", CHECKING + "3)",
                            CHECKING + "2)", CHECKING + "1)", "0 QX_TRACE_USBMGMT-Error getting client file name"));
    EXPECT_THAT(simSleeps(), ElementsAre(500u, 500u, 500u, 500u, 500u)); // after the fifth failure too
    EXPECT_EQ(simOpenNodeFds(), 0);
}

// That a named file skips the platform text and the loader's start-up follows at once is pinned by the system
// test of a whole start's log.
TEST_F(usbMgmtInitTest, namedFileIsLoadedBeforeTheDeviceIsTouchedAndWithoutDeviceNodeEndsAfterTheLoadersSearch)
{
    EXPECT_EQ(usbMgmtInit("/nonexistent/app.hex"), QX_FILE_ERROR);
    EXPECT_THAT(log.leveled("usbMgmt"), ElementsAre("1 usbMgmtInit: filename='/nonexistent/app.hex'",
                                                "0 QX_TRACE_USBMGMT-/nonexistent/app.hex file Error"));
    EXPECT_THAT(simEvents(), IsEmpty()); // not one open of the node
    forget();
    // An Intel HEX file of the 16 bytes 0, 1, 2 ... at the start of the flash range.
    const std::string hexPath = testing::TempDir() + "usbMgmtInit-" + std::to_string(getpid()) + ".hex";
    std::ofstream(hexPath) << ":020000041D01DC\n:10000000000102030405060708090A0B0C0D0E0F78\n:00000001FF\n";
    nodeMissing = true;
    EXPECT_EQ(usbMgmtInit(hexPath.c_str()), 1);
    unlink(hexPath.c_str());
    EXPECT_THAT(log.leveled("usbMgmt"),
                ElementsAre("1 usbMgmtInit: filename='" + hexPath + "'", "0 QX_TRACE_USBMGMT-qxUsb Device Error"));
    EXPECT_EQ(log.leveled("qxLoader").back(),
              "0 QX_TRACE_PRINTF-qxLoaderInit():: Error Finding QX_HID_DEVICE *****************");
    EXPECT_EQ(simOpenNodeFds(), 0);
}

const std::vector<uint64_t> RELAY_WAITS = {2000, 500, 1000, 2000, 4000, 8000, 16000};
const std::string BAD_SEQ = "0 QX_TRACE_USB-*** usb cmd failed: Bad Sequence Number ***";
const std::string READ_EIO = "6 qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Input/output error'";

class usbMgmtTest : public upgradeTest {
protected:
    void SetUp() override
    {
        upgradeTest::SetUp();
        while (qxUsbGetState().seqNum >= 250) {
            qxUsbGetNextSeqNumber(); // keep 0 away: a zero report would match it
        }
    }
    // Dispatches code (bay in byte 3) with a response full of junk.
    int32_t request(uint8_t code, uint8_t bay = 0)
    {
        cmd = {code, 0, 0, bay};
        resp.fill(0xEE);
        return usbMgmtCmd(cmd, resp);
    }
    qxUsbBlock cmd{};
};

TEST_F(usbMgmtTest, relayPollsAfterGrowingWaitsAndMatchesTheNumberThenTheCode)
{
    // what, the fault, result, reads, lines, and the response: M the reply, S the same code under another number,
    // O another code, Z zeros, U untouched
    const std::tuple<const char *, void (*)(), int32_t, size_t, char, std::vector<std::string>> cases[] = {
        {"no reply yet", [] { simSetReplyFault(simReplyFault::NO_REPLY, 1); }, 1, 7, 'Z', {BAD_SEQ}},
        {"reply at once", [] {}, 0, 1, 'M', {}},
        {"two failed reads, the old report, the reply",
         [] { simSetReplyDelayReads(1); simFailIoctl(PIC_HID_GET_REPORT, EIO, 2); }, 0, 4, 'M', {READ_EIO, READ_EIO}},
        {"another number", [] { simSetReplyFault(simReplyFault::WRONG_SEQ, 1); }, 0, 7, 'S', {}},
        {"another code and number", [] { simSetReplyFault(simReplyFault::WRONG_CODE_SEQ, 1); }, 1, 7, 'O', {BAD_SEQ}},
        {"read fails under number 0",
         [] {
             while (qxUsbGetState().seqNum != 255) {
                 qxUsbGetNextSeqNumber();
             }
             simFailIoctl(PIC_HID_GET_REPORT, EIO, 1);
         },
         -1, 1, 'Z', {READ_EIO}},
        {"send fails", [] { simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1); }, -1, 0, 'U',
         {"6 qxUsbCmd: ioctl(1079527424) failed - 'Input/output error'",
          "0 QX_TRACE_USB-*** usb cmd (48) failed ***(-1)"}},
    };
    for (const auto &[what, arrange, rc, reads, kind, lines] : cases) {
        SCOPED_TRACE(what);
        arrange();
        forget();
        const uint8_t seq = static_cast<uint8_t>(qxUsbGetState().seqNum + 1);
        EXPECT_EQ(request(QX_HID_CMD_GET_STEALTH), rc);
        EXPECT_EQ(cmd[QX_REPORT_SEQ], seq);
        EXPECT_EQ(simSleeps(), std::vector(RELAY_WAITS.begin(), RELAY_WAITS.begin() + reads));
        EXPECT_EQ(log.leveled(), lines);
        if (kind == 'Z' || kind == 'U') {
            EXPECT_TRUE(allAre(resp, kind == 'Z' ? 0 : 0xEE));
        } else {
            EXPECT_EQ(resp[QX_REPORT_CODE], QX_HID_CMD_GET_STEALTH ^ (kind == 'O' ? 0x80 : 0));
            EXPECT_EQ(resp[QX_REPORT_SEQ], seq ^ (kind == 'M' ? 0 : 0x80)); // the last report read
            EXPECT_TRUE(allAre(std::span(resp).subspan(QX_REPORT_SIZE), 0));
        }
    }
}

// The driver carries out code 38's request itself: the block goes out as sent and nothing is read back.
TEST_F(usbMgmtTest, code38ReachesTheDriverUntouchedAndAnUnknownRequestNumberFailsThere)
{
    cmd = cmdFor(QX_HID_CMD_IO_CMD, "");
    cmd[QX_REPORT_SEQ] = 0x5A;
    lePut32(&cmd[3], PIC_HID_FPGA_UPGRADE_SETUP);
    cmd[20] = 0x77;
    const qxUsbBlock sent = cmd;
    resp.fill(0xEE);
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    EXPECT_EQ(cmd, sent); // no sequence number of the service's own
    EXPECT_TRUE(allAre(resp, 0xEE));
    const std::vector<report64> issued = reports(PIC_HID_FPGA_UPGRADE_SETUP);
    ASSERT_EQ(issued.size(), 1u);
    EXPECT_TRUE(std::equal(issued[0].begin(), issued[0].end(), sent.begin()));
    lePut32(&cmd[3], 0x7F);
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
}

TEST_F(usbMgmtTest, codesWithoutHandlerGive8AndLeaveTheRecordAsItWas)
{
    const std::string unknown = "0 QX_TRACE_USB-ERROR: UNKNOWN USB FUNCTION!";
    for (uint8_t code : {0, 1, 8, 15, 64, 200, 255}) {
        log.clear();
        EXPECT_EQ(request(code), 8) << int(code);
        EXPECT_EQ(cmd, (qxUsbBlock{code})) << int(code); // no sequence number drawn
        EXPECT_TRUE(allAre(resp, 0xEE)) << int(code);
        EXPECT_EQ(log.leveled("usbMgmt"), code < 64 ? std::vector{unknown} : std::vector<std::string>{}) << int(code);
    }
    EXPECT_THAT(simEvents(), IsEmpty());
}

// The drive-bay tables are answered in the service, for bays 0-9 and 15-22 only (refused: -1 and status 0xFF
// behind the header, the table as it was); each request draws a sequence number though nothing is sent or logged.
TEST_F(usbMgmtTest, hostHeldTablesKeepValidBaysApartAndDrawASequenceNumberWithoutSendingAnything)
{
    uint8_t seq = qxUsbGetState().seqNum;
    auto held = [&](uint8_t code, uint8_t bay = 0) {
        const int32_t rc = request(code, bay);
        EXPECT_EQ(cmd[QX_REPORT_SEQ], ++seq) << int(code) << " bay " << int(bay);
        return rc;
    };
    for (uint8_t bay : {3, 0, 9, 15, 22}) {
        EXPECT_EQ(held(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, bay), 0);
        EXPECT_EQ(resp, (qxUsbBlock{QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, seq})); // status 0, no payload
        EXPECT_EQ(held(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, bay), 0);
        EXPECT_EQ(resp, (qxUsbBlock{QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, seq, 0, bay, 1}));
        EXPECT_EQ(held(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, bay), 0);
        EXPECT_EQ(resp, (qxUsbBlock{QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, seq}));
    }
    EXPECT_EQ(held(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, 5), 0);
    for (uint8_t bay : {10, 12, 14, 23, 255}) {
        for (uint8_t code : {QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION,
                             QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND}) {
            EXPECT_EQ(held(code, bay), -1);
            EXPECT_EQ(resp, (qxUsbBlock{code, seq, 0xFF})) << int(code) << " bay " << int(bay);
        }
    }
    for (auto [bay, on] : {std::pair{5, 1}, {9, 0}}) {
        EXPECT_EQ(held(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, static_cast<uint8_t>(bay)), 0);
        EXPECT_EQ(resp[4], on) << bay;
    }
    cmd = {QX_HID_CMD_SET_XML_DAEMON_DETECT};
    std::iota(cmd.begin() + 3, cmd.begin() + 27, uint8_t{0x40}); // byte 26 is past the last bay
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    EXPECT_EQ(cmd[QX_REPORT_SEQ], ++seq);
    EXPECT_EQ(held(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, 3), 0);
    EXPECT_EQ(resp[4], 0); // the two tables are apart, both ways
    EXPECT_EQ(held(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, 3), 0);
    EXPECT_EQ(held(QX_HID_CMD_GET_XML_DAEMON_DETECT), 0);
    EXPECT_EQ(resp[QX_REPORT_STATUS], 0);
    for (size_t i = 3; i < QX_BLOCK_SIZE; ++i) {
        const bool bay = i <= 12 || (i >= 18 && i <= 25);
        EXPECT_EQ(resp[i], bay ? static_cast<uint8_t>(0x40 + i - 3) : 0) << "byte " << i;
    }
    EXPECT_THAT(simEvents(), IsEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(request(QX_HID_CMD_GET_STEALTH), 0);
    EXPECT_EQ(simEvents()[0].seq, ++seq); // the next relayed request carries the number after them
}

// The slow relays and the CPLD info wait 2 s, then read again while the number differs: shutdown 21 more times
// 500 ms apart, tray test 30 times 200 ms apart, CPLD info 6 times after 200 ms doubling. Another number under the
// same code answers; a failed read does not end the wait, but the last read's failure is its result.
TEST_F(usbMgmtTest, reportWaitsOfTheSlowRelaysAndTheCpldInfoReadAgainAndKeepEachReadsResult)
{
    static int failRead, reads;
    static int (*model)(int, unsigned long, void *) = nullptr;
    model = platformSys.ioctl;
    platformSys.ioctl = [](int fd, unsigned long request, void *arg) {
        if (request == PIC_HID_GET_REPORT && ++reads == failRead) {
            errno = EIO;
            return -1;
        }
        return model(fd, request, arg);
    };
    const std::tuple<uint8_t, size_t, uint64_t, bool, const char *> waits[] = {
        {QX_HID_CMD_SHUTDOWN, 21, 500 * MS, false, "usbMgmt"},
        {QX_HID_CMD_TRAY_TEST, 30, 200 * MS, false, "usbMgmt"},
        {QX_HID_CMD_CPLD_INFO, 6, 200 * MS, true, "cpldUpgrade"}};
    for (const auto &[code, most, pause, doubling, source] : waits) {
        // the reply's fault, the read that fails (0: none), the result, further reads
        const std::tuple<simReplyFault, size_t, int32_t, size_t> cases[] = {
            {simReplyFault::WRONG_SEQ, 0, 0, most}, {simReplyFault::WRONG_CODE_SEQ, 0, 1, most},
            {simReplyFault::NONE, 1, 0, 1}, {simReplyFault::WRONG_SEQ, most + 1, -1, most}};
        for (const auto &[fault, failing, rc, further] : cases) {
            SCOPED_TRACE(testing::Message() << int(code) << " " << int(fault) << " " << failing);
            simSetReplyFault(fault, 1);
            reads = 0, failRead = static_cast<int>(failing);
            forget();
            EXPECT_EQ(request(code), rc);
            std::vector<uint64_t> sleeps = {2 * S};
            for (size_t i = 0; i < further; ++i) {
                sleeps.push_back(doubling ? pause << i : pause);
            }
            EXPECT_EQ(simSleeps(), sleeps);
            EXPECT_THAT(log.textsFrom(source), IsEmpty());
        }
        simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
        forget();
        EXPECT_EQ(request(code), -1);
        EXPECT_TRUE(allAre(resp, 0xEE));
        EXPECT_THAT(log.textsFrom(source), ElementsAre("QX_TRACE_USB-***usb cmd failed***"));
    }
    simSetReplyDelayUs(QX_HID_CMD_SHUTDOWN, 3 * S); // answered by the third read
    forget();
    EXPECT_EQ(request(QX_HID_CMD_SHUTDOWN), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(2 * S, 500 * MS, 500 * MS));
}

// What the driver reads from the buffer is pinned by the system test of the start-up pattern.
TEST_F(usbMgmtTest, fileTransferCapsTheUnsignedLengthAt8MiBAndHandsTheTestBufferByAddress)
{
    const std::pair<uint32_t, uint32_t> lengths[] = {
        {0x900000, 0x800000}, {0xFFFFFFFF, 0x800000}, {0x80000000, 0x800000}, {0x800000, 0x800000}, {4096, 4096}};
    for (auto [asked, len] : lengths) {
        cmd = cmdFor(QX_HID_CMD_FILE_TRANSFER_TEST, "");
        lePut32(&cmd[3], asked);
        resp.fill(0xEE);
        const auto seq = static_cast<uint8_t>(qxUsbGetState().seqNum + 1);
        EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
        EXPECT_TRUE(allAre(resp, 0xEE));
        const report64 sentReport = reports(PIC_HID_FILE_TRANSFER_TEST, QX_HID_CMD_FILE_TRANSFER_TEST).back();
        EXPECT_EQ(sentReport[QX_REPORT_SEQ], seq) << "a fresh number";
        EXPECT_EQ(leGet32(&sentReport[3]), len);
        EXPECT_EQ(leGet64(&sentReport[7]), reinterpret_cast<uintptr_t>(__testingTmmmmpBuf));
        EXPECT_TRUE(simLastFileTransfer().readOk && simLastFileTransfer().len == len);
    }
    simFailIoctl(PIC_HID_FILE_TRANSFER_TEST, EIO, 1);
    EXPECT_EQ(request(QX_HID_CMD_FILE_TRANSFER_TEST), -1);
    EXPECT_THAT(log.leveled("usbMgmt"), ElementsAre("0 QX_TRACE_USB-netUsbFuncFileTransfer: usb cmd failed!"));
}

TEST_F(usbMgmtTest, cpldUpgradeRunsASecondAttempt1sAfterAFailedFirst)
{
    EXPECT_EQ(upgradeFrom(QX_HID_CMD_CPLD_UPGRADE, "/nonexistent/cpld.jbc"), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S));
    EXPECT_EQ(log.count("QX_TRACE_FILE-error finding file: /nonexistent/cpld.jbc"), 2u);

    simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_CRC, 1);
    forget();
    EXPECT_EQ(upgradeFrom(QX_HID_CMD_CPLD_UPGRADE, std::string(TARNHOLD_TESTDATA) + "/jbc/PIXEL8x4.jbc"), 0);
    // Clear, write, read-back, clear again; the pause; then a whole attempt.
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S, 1 * S, 2 * S, 1 * S, 1 * S, 1 * S, 1 * S, 2 * S, 20 * S, 2 * S));
    EXPECT_EQ(simGetSlot(9).word0, 43273u | 0x1D3Cu << 16);
}

} // namespace
