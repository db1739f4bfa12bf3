// The requests the service answers from its own tables: force-shutdown
// indicators and XML-daemon-detect bytes, per drive bay.
#include "logCapture.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "usbMgmt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

using ::testing::IsEmpty;

namespace {

constexpr std::array<int, 18> VALID_BAYS = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 18, 19, 20, 21, 22};

class usbMgmtHostHeldTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        ASSERT_EQ(qxUsbInit(), 0);
        simClearEvents();
        log.clear();
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
    }

    // Runs one request through the dispatcher with a response full of junk.
    int32_t request(uint8_t code, int bay = 0)
    {
        cmd.fill(0);
        cmd[QX_REPORT_CODE] = code;
        cmd[QX_REPORT_PAYLOAD] = static_cast<uint8_t>(bay);
        resp.fill(0xEE);
        return usbMgmtCmd(cmd, resp);
    }

    // The indicator of a bay, read back through code 32.
    int indicator(int bay)
    {
        EXPECT_EQ(request(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, bay), 0);
        return resp[QX_REPORT_PAYLOAD + 1];
    }

    // Header filled, status as given, every other byte zero from `from` on.
    void expectAnswer(uint8_t code, uint8_t status, size_t from = 3)
    {
        EXPECT_EQ(resp[QX_REPORT_CODE], code);
        EXPECT_EQ(resp[QX_REPORT_SEQ], cmd[QX_REPORT_SEQ]);
        EXPECT_EQ(resp[QX_REPORT_STATUS], status);
        for (size_t i = from; i < QX_BLOCK_SIZE; ++i) {
            EXPECT_EQ(resp[i], 0) << "byte " << i;
        }
    }

    logCapture log;
    qxUsbBlock cmd{};
    qxUsbBlock resp{};
};

TEST_F(usbMgmtHostHeldTest, ForceShutDownIsSetReadAndClearedPerBay)
{
    EXPECT_EQ(request(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, 3), 0);
    expectAnswer(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, 0);

    EXPECT_EQ(request(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, 3), 0);
    expectAnswer(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, 0, 5);
    EXPECT_EQ(resp[3], 3);
    EXPECT_EQ(resp[4], 1);
    EXPECT_EQ(indicator(4), 0);

    EXPECT_EQ(request(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, 3), 0);
    expectAnswer(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, 0);
    EXPECT_EQ(indicator(3), 0);

    // Bay 19 is never forced by these tests: its indicator is the start value.
    EXPECT_EQ(request(QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND, 19), 0);
    EXPECT_EQ(resp[3], 19);
    EXPECT_EQ(resp[4], 0);

    // The edges of both ranges are bays.
    for (int bay : {0, 9, 15, 22}) {
        EXPECT_EQ(request(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, bay), 0) << bay;
        EXPECT_EQ(indicator(bay), 1) << bay;
        EXPECT_EQ(request(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, bay), 0) << bay;
        EXPECT_EQ(indicator(bay), 0) << bay;
    }
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_THAT(simEvents(), IsEmpty());
}

TEST_F(usbMgmtHostHeldTest, BaysOutsideTheTwoRangesAreRefusedAndChangeNothing)
{
    EXPECT_EQ(request(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, 5), 0);
    std::vector<int> before;
    for (int bay : VALID_BAYS) {
        before.push_back(indicator(bay));
    }

    for (int bay : {10, 11, 12, 13, 14, 23, 24, 255}) {
        for (uint8_t code : {QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION,
                             QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND}) {
            EXPECT_EQ(request(code, bay), -1) << int(code) << " bay " << bay;
            expectAnswer(code, 0xFF);
        }
    }
    std::vector<int> after;
    for (int bay : VALID_BAYS) {
        after.push_back(indicator(bay));
    }
    EXPECT_EQ(after, before);
    EXPECT_EQ(indicator(5), 1);
    EXPECT_EQ(request(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, 5), 0);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(usbMgmtHostHeldTest, DaemonDetectBytesAreKeptForTheValidBaysOnly)
{
    cmd.fill(0);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_SET_XML_DAEMON_DETECT;
    for (size_t i = 3; i <= 25; ++i) {
        cmd[i] = 0xAB;
    }
    cmd[26] = 0xCD; // beyond the last bay
    resp.fill(0xEE);
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    expectAnswer(QX_HID_CMD_SET_XML_DAEMON_DETECT, 0);

    EXPECT_EQ(request(QX_HID_CMD_GET_XML_DAEMON_DETECT), 0);
    EXPECT_EQ(resp[QX_REPORT_CODE], QX_HID_CMD_GET_XML_DAEMON_DETECT);
    EXPECT_EQ(resp[QX_REPORT_SEQ], cmd[QX_REPORT_SEQ]);
    EXPECT_EQ(resp[QX_REPORT_STATUS], 0);
    for (size_t i = 3; i < QX_BLOCK_SIZE; ++i) {
        const bool bay = (i >= 3 && i <= 12) || (i >= 18 && i <= 25);
        EXPECT_EQ(resp[i], bay ? 0xAB : 0) << "byte " << i;
    }

    // Each bay keeps its own byte.
    cmd.fill(0);
    cmd[QX_REPORT_CODE] = QX_HID_CMD_SET_XML_DAEMON_DETECT;
    for (size_t i = 0; i < USB_MGMT_BAY_COUNT; ++i) {
        cmd[3 + i] = static_cast<uint8_t>(0x40 + i);
    }
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    EXPECT_EQ(request(QX_HID_CMD_GET_XML_DAEMON_DETECT), 0);
    for (int bay : VALID_BAYS) {
        EXPECT_EQ(resp[3 + static_cast<size_t>(bay)], 0x40 + bay) << "bay " << bay;
    }
    for (size_t i = 13; i <= 17; ++i) {
        EXPECT_EQ(resp[i], 0) << "byte " << i;
    }
    // The force-shutdown indicators are a table of their own.
    EXPECT_EQ(indicator(3), 0);
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_THAT(simEvents(), IsEmpty());
}

TEST_F(usbMgmtHostHeldTest, EachAnswerUsesUpOneSequenceNumber)
{
    for (uint8_t code : {QX_HID_CMD_SET_XML_DAEMON_DETECT, QX_HID_CMD_GET_XML_DAEMON_DETECT,
                         QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION,
                         QX_HID_CMD_GET_FORCE_SHUT_DOWN_IND}) {
        const uint8_t expected = static_cast<uint8_t>(qxUsbGetState().seqNum + 1);
        request(code, 12); // a refused bay draws a number too
        EXPECT_EQ(cmd[QX_REPORT_SEQ], expected) << int(code);
        EXPECT_EQ(resp[QX_REPORT_SEQ], expected) << int(code);
    }
    // The next relayed request carries the number after them.
    const uint8_t expected = static_cast<uint8_t>(qxUsbGetState().seqNum + 1);
    EXPECT_EQ(request(QX_HID_CMD_GET_STEALTH), 0);
    ASSERT_FALSE(simEvents().empty());
    EXPECT_EQ(simEvents()[0].kind, simEventKind::SEND);
    EXPECT_EQ(simEvents()[0].seq, expected);
}

TEST_F(usbMgmtHostHeldTest, AnsweredWhileTheMicrocontrollerIsAbsent)
{
    qxUsbCleanUp();
    simSetNodePresent(false);
    simSetMode(simMode::DEAD);
    simClearEvents();
    EXPECT_EQ(request(QX_HID_CMD_FORCE_DRIVE_BAY_SHUT_DOWN, 7), 0);
    EXPECT_EQ(indicator(7), 1);
    EXPECT_EQ(request(QX_HID_CMD_RESUME_DRIVE_BAY_OPERATION, 7), 0);
    EXPECT_EQ(indicator(7), 0);
    EXPECT_EQ(request(QX_HID_CMD_SET_XML_DAEMON_DETECT), 0);
    EXPECT_EQ(request(QX_HID_CMD_GET_XML_DAEMON_DETECT), 0);
    EXPECT_THAT(simEvents(), IsEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
}

} // namespace
