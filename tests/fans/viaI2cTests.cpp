// Option-bay fans on the in-process fan controller: register values in, response bytes and register
// transfers out, through the dispatch table's codes 57 and 58.
#include "logCapture.h"
#include "qxLoader.h"
#include "simI2c.h"
#include "simInProcess.h"
#include "usbMgmt.h"
#include "viaI2c.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <tuple>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using strings = std::vector<std::string>;

constexpr uint8_t SEQ = 0x77;
constexpr uint8_t UNTOUCHED = 0xEE;
// evm_log drops the trailing line end of these texts.
const std::string NO_ACK = "QX_TRACE_FILE-errno: 6 [ No such device or address ]";
const std::string IO_ERROR = "QX_TRACE_FILE-errno: 5 [ Input/output error ]";
const std::string GET_OPEN = "QX_TRACE_FILE-__briskaPicGetOptionBayFanSpeed():: *****Error***** opening device node";
const std::string SET_OPEN = "QX_TRACE_FILE-__briskaPicSetOptionBayFanSpeed():: *****Error***** opening device node";

constexpr simI2cTransfer R(uint8_t reg, uint8_t value) { return {false, reg, value}; }
constexpr simI2cTransfer W(uint8_t reg, uint8_t value) { return {true, reg, value}; }

void selectPlatform(const char *text)
{
    char fileName[QX_LOADER_FILE_NAME_MIN] = {};
    ASSERT_EQ(__qxLoaderGetPicClientFileNameFromPlatform(text, fileName), 0);
}

class viaI2cTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        selectPlatform("HW=BRISKA"); // platform 1
    }
    void TearDown() override { simInProcessUninstall(); }

    // One request of `code`; resp starts as UNTOUCHED everywhere.
    int32_t request(uint8_t code, uint8_t mode = 0, uint8_t level = 0)
    {
        cmd = {code, SEQ, 0, mode, level};
        resp.fill(UNTOUCHED);
        simI2cClearTransfers();
        log.clear();
        int32_t rc = usbMgmtCmd(cmd, resp);
        EXPECT_EQ(simI2cOpenBusFds(), 0) << "the bus is closed on every path";
        return rc;
    }
    std::vector<uint8_t> head(size_t n) const { return {resp.begin(), resp.begin() + static_cast<long>(n)}; }
    bool untouchedFrom(size_t first) const
    {
        return std::all_of(resp.begin() + static_cast<long>(first), resp.end(),
                           [](uint8_t b) { return b == UNTOUCHED; });
    }

    qxUsbBlock cmd{};
    qxUsbBlock resp{};
    logCapture log;
};

TEST_F(viaI2cTest, getAnswersCode25WithModeFromBit0OfRegister4AndLevelFromRegister6)
{
    simI2cSetRegister(6, 7);
    for (auto [control, mode] : {std::pair<uint8_t, uint8_t>{0x20, 1}, {0x21, 0}}) {
        simI2cSetRegister(4, control);
        EXPECT_EQ(request(57), 0);
        EXPECT_THAT(head(5), ElementsAre(25, SEQ, 0, mode, 7));
        EXPECT_TRUE(untouchedFrom(5));
        EXPECT_THAT(simI2cTransfers(), ElementsAre(R(4, control), R(6, 7)));
        EXPECT_THAT(log.texts(), IsEmpty());
    }
}

TEST_F(viaI2cTest, setWritesAutomaticModeOrTheLevelCappedAt15)
{
    simI2cSetRegister(4, 0x00);
    EXPECT_EQ(request(58, 0, 9), 0);
    EXPECT_THAT(head(3), ElementsAre(58, SEQ, 0));
    EXPECT_TRUE(untouchedFrom(3));
    EXPECT_THAT(simI2cTransfers(), ElementsAre(W(4, 0x21))) << "register 6 is not written";

    // register 4, the level asked, registers 4 and 6 as written
    for (auto [control, level, control4, level6] : {std::array<uint8_t, 4>{0x21, 200, 0x20, 15}, {0x01, 15, 0x20, 15},
                                                    {0xC3, 0, 0xE2, 0}, {0x20, 16, 0x20, 15}}) {
        simI2cSetRegister(4, control);
        EXPECT_EQ(request(58, 1, level), 0);
        EXPECT_THAT(head(3), ElementsAre(58, SEQ, 0));
        EXPECT_THAT(simI2cTransfers(), ElementsAre(R(4, control), W(4, control4), W(6, level6))) << int(level);
    }
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(viaI2cTest, otherPlatformsFailAtOnceWithoutTouchingTheBusOrTheResponse)
{
    selectPlatform("HW=TORVA"); // platform 3
    simI2cSetBusPresent(false); // an open would log
    for (uint8_t code : {57, 58}) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(request(code, 1, 3), -1);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), ::testing::MatchesRegex("via-i2c==>[0-9]+\n"));
        EXPECT_TRUE(untouchedFrom(0));
        EXPECT_THAT(log.texts(), IsEmpty());
        EXPECT_THAT(simI2cTransfers(), IsEmpty());
    }
}

// One row per line of the failure table; the response and the log of get and of set (duty-cycle path).
TEST_F(viaI2cTest, failuresGiveTheTableResultsStatusesAndLogLines)
{
    // what, the fault, get's result and log, set's result (-1: response untouched; 0: status 1) and log
    const std::tuple<const char *, void (*)(), int32_t, strings, int32_t, strings> rows[] = {
        {"no bus", [] { simI2cSetBusPresent(false); }, -1, {GET_OPEN}, -1, {SET_OPEN}},
        {"slave address refused", [] { simI2cFailSlave(1); }, -1, {}, -1, {}},
        {"controller absent", [] { simI2cSetControllerPresent(false); }, -1, {NO_ACK}, 0, {NO_ACK}},
        {"register read fails", [] { simI2cFailReads(1); }, -1, {IO_ERROR}, 0, {IO_ERROR}},
        {"register write fails", [] { simI2cFailWrites(1); }, 0, {}, 0, {}},
    };
    for (const auto &[name, arm, getResult, getLog, setResult, setLog] : rows) {
        SCOPED_TRACE(name);
        simI2cReset();
        arm();
        EXPECT_EQ(request(57), getResult);
        EXPECT_THAT(head(3), ElementsAre(25, SEQ, getResult == 0 ? 0 : 1));
        EXPECT_EQ(log.texts(), getLog);

        simI2cReset();
        arm();
        EXPECT_EQ(request(58, 1, 5), setResult);
        EXPECT_TRUE(setResult < 0 ? untouchedFrom(0) : (head(3) == std::vector<uint8_t>{58, SEQ, 1}));
        EXPECT_EQ(log.texts(), setLog);
    }
    // The automatic-mode write failing shows in the status byte only.
    simI2cFailWrites(1);
    EXPECT_EQ(request(58, 0), 0);
    EXPECT_THAT(head(3), ElementsAre(58, SEQ, 1));
    EXPECT_THAT(log.texts(), IsEmpty());
}

} // namespace
