// The dispatcher, the relays and the host-held tables against the simulated appliance: the relay's waits,
// matching rules and results, the codes without a handler, and the per-bay tables.
#include "simFixture.h"
#include "usbMgmt.h"

#include <numeric>
#include <span>

namespace {

const std::vector<uint64_t> RELAY_WAITS = {2000, 500, 1000, 2000, 4000, 8000, 16000};
const std::string BAD_SEQ = "0 QX_TRACE_USB-*** usb cmd failed: Bad Sequence Number ***";
const std::string READ_EIO = "6 qxUsbGetReport: ioctl(PIC_HID_GET_REPORT) failed - 'Input/output error'";

class usbMgmtTest : public simLinkTest {
protected:
    void SetUp() override
    {
        simLinkTest::SetUp();
        while (qxUsbGetState().seqNum >= 250) {
            qxUsbGetNextSeqNumber(); // keep 0 away: a zero report would match it
        }
    }
    // Dispatches code (bay in byte 3) with a response full of junk.
    int32_t request(uint8_t code, uint8_t bay = 0)
    {
        cmd.fill(0);
        cmd[QX_REPORT_CODE] = code;
        cmd[QX_REPORT_PAYLOAD] = bay;
        resp.fill(0xEE);
        return usbMgmtCmd(cmd, resp);
    }
    int indicator(uint8_t bay)
    {
        EXPECT_EQ(request(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, bay), 0);
        return resp[4];
    }
    qxUsbBlock cmd{};
    qxUsbBlock resp{};
};

TEST_F(usbMgmtTest, relayPollsAfterGrowingWaitsAndMatchesTheNumberThenTheCode)
{
    struct {
        const char *name;
        void (*arrange)();
        int32_t rc;
        size_t reads;
        char resp; // M: the reply, S: same code under another number, O: another code, Z: zeros, U: untouched
        std::vector<std::string> lines;
    } cases[] = {
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
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        c.arrange();
        forget();
        const uint8_t seq = static_cast<uint8_t>(qxUsbGetState().seqNum + 1);
        EXPECT_EQ(request(QX_HID_CMD_GET_STEALTH), c.rc);
        EXPECT_EQ(cmd[QX_REPORT_SEQ], seq);
        EXPECT_EQ(simSleeps(), std::vector(RELAY_WAITS.begin(), RELAY_WAITS.begin() + c.reads));
        EXPECT_EQ(leveled(), c.lines);
        if (c.resp == 'Z' || c.resp == 'U') {
            EXPECT_TRUE(allAre(resp, c.resp == 'Z' ? 0 : 0xEE));
        } else {
            EXPECT_EQ(resp[QX_REPORT_CODE], QX_HID_CMD_GET_STEALTH ^ (c.resp == 'O' ? 0x80 : 0));
            EXPECT_EQ(resp[QX_REPORT_SEQ], seq ^ (c.resp == 'M' ? 0 : 0x80)); // the last report read
            EXPECT_TRUE(allAre(std::span(resp).subspan(QX_REPORT_SIZE), 0));
        }
    }
}

TEST_F(usbMgmtTest, codesWithoutHandlerGive8AndLeaveTheRecordAsItWas)
{
    const std::string unknown = "0 QX_TRACE_USB-ERROR: UNKNOWN USB FUNCTION!";
    for (uint8_t code : {0, 1, 8, 15, 64, 200, 255}) {
        log.clear();
        EXPECT_EQ(request(code), 8) << int(code);
        EXPECT_EQ(cmd, (qxUsbBlock{code})) << int(code); // no sequence number drawn
        EXPECT_TRUE(allAre(resp, 0xEE)) << int(code);
        EXPECT_EQ(leveled("usbMgmt"), code < 64 ? std::vector{unknown} : std::vector<std::string>{}) << int(code);
    }
    EXPECT_THAT(simEvents(), IsEmpty());
}

TEST_F(usbMgmtTest, forceShutDownIndicatorIsKeptForValidBaysOnly)
{
    for (uint8_t bay : {3, 0, 9, 15, 22}) {
        SCOPED_TRACE(bay);
        EXPECT_EQ(request(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, bay), 0);
        EXPECT_EQ(resp, (qxUsbBlock{QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, cmd[QX_REPORT_SEQ]})); // status 0, no payload
        EXPECT_EQ(request(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, bay), 0);
        EXPECT_EQ(resp, (qxUsbBlock{QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, cmd[QX_REPORT_SEQ], 0, bay, 1}));
        EXPECT_EQ(request(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, bay), 0);
        EXPECT_EQ(resp, (qxUsbBlock{QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, cmd[QX_REPORT_SEQ]}));
        EXPECT_EQ(indicator(bay), 0);
    }
    // Refused: -1 and status 0xFF behind the header; the table stays as it was.
    EXPECT_EQ(request(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, 5), 0);
    for (uint8_t bay : {10, 12, 14, 23, 255}) {
        for (uint8_t code : {QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION,
                             QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND}) {
            EXPECT_EQ(request(code, bay), -1) << int(code) << " bay " << int(bay);
            EXPECT_EQ(resp, (qxUsbBlock{code, cmd[QX_REPORT_SEQ], 0xFF})) << int(code) << " bay " << int(bay);
        }
    }
    EXPECT_EQ(indicator(5), 1);
    EXPECT_EQ(indicator(9), 0);
    EXPECT_EQ(request(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, 5), 0);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(usbMgmtTest, daemonDetectBytesAreKeptForTheValidBaysOnly)
{
    cmd[QX_REPORT_CODE] = QX_HID_CMD_SET_XML_DAEMON_DETECT;
    std::iota(cmd.begin() + 3, cmd.begin() + 27, uint8_t{0x40}); // byte 26 is past the last bay
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    EXPECT_TRUE(allAre(std::span(resp).subspan(QX_REPORT_STATUS), 0));
    EXPECT_EQ(indicator(3), 0); // the two tables are apart, both ways
    EXPECT_EQ(request(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, 3), 0);
    EXPECT_EQ(request(QX_HID_CMD_GET_XML_DAEMON_DETECT), 0);
    EXPECT_EQ(resp[QX_REPORT_STATUS], 0);
    for (size_t i = 3; i < QX_BLOCK_SIZE; ++i) {
        const bool bay = i <= 12 || (i >= 18 && i <= 25);
        EXPECT_EQ(resp[i], bay ? static_cast<uint8_t>(0x40 + i - 3) : 0) << "byte " << i;
    }
}

TEST_F(usbMgmtTest, hostHeldAnswersUseUpASequenceNumberAlthoughNothingIsSent)
{
    uint8_t seq = qxUsbGetState().seqNum;
    for (uint8_t code : {QX_HID_CMD_SET_XML_DAEMON_DETECT, QX_HID_CMD_GET_XML_DAEMON_DETECT,
                         QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION,
                         QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND}) {
        EXPECT_EQ(request(code, 7), 0) << int(code);
        EXPECT_EQ(cmd[QX_REPORT_SEQ], ++seq);
        EXPECT_EQ(resp[QX_REPORT_SEQ], seq);
    }
    EXPECT_EQ(request(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, 12), -1);
    EXPECT_EQ(cmd[QX_REPORT_SEQ], ++seq); // a refused bay draws one too
    EXPECT_THAT(simEvents(), IsEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(request(QX_HID_CMD_GET_STEALTH), 0);
    EXPECT_EQ(simEvents()[0].seq, ++seq); // the next relayed request carries the number after them
}

} // namespace
