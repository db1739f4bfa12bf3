// CPLD upgrade on the in-process simulated appliance: header and CRC, the real
// JBC files, the chunks, the record writes and read-backs with their waits,
// and each failing step.
#include "../fpga/upgradeFixture.h"
#include "cpldUpgrade.h"

#include <ctime>
#include <numeric>
#include <tuple>

namespace {

// A byte-code image: format word JAM v, CRC offset `offset` (size - 2 when 0),
// a stored CRC that matches unless `crc` is given.
std::vector<uint8_t> jbc(size_t size, uint8_t v = 1, uint32_t offset = 0, int crc = -1)
{
    std::vector<uint8_t> b(size);
    std::iota(b.begin(), b.end(), uint8_t{3});
    offset = offset != 0 ? offset : static_cast<uint32_t>(size - 2);
    b[0] = 'J', b[1] = 'A', b[2] = 'M', b[3] = v;
    for (int i = 0; i < 4; ++i) {
        b[32 + 8 * (v & 1) + i] = static_cast<uint8_t>(offset >> (24 - 8 * i));
    }
    const auto stored = static_cast<uint16_t>(crc >= 0 ? crc : cpldUpgradeCrc(b.data(), offset));
    b[offset] = static_cast<uint8_t>(stored >> 8);
    if (offset + 1 < size) {
        b[offset + 1] = static_cast<uint8_t>(stored);
    }
    return b;
}

class cpldUpgradeTest : public upgradeTest {
protected:
    // One attempt, without the dispatch table's second.
    int32_t upgrade(const std::string &path)
    {
        qxUsbBlock cmd = cmdFor(QX_HID_CMD_CPLD_UPGRADE, path);
        return cpldUpgradeStart(cmd, resp);
    }
    std::vector<std::string> lines() const { return log.textsFrom("cpldUpgrade"); }
};

TEST(cpldUpgradeCrcTest, checkValueHeaderRulesAndBothFormats)
{
    const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(cpldUpgradeCrc(digits, sizeof digits), 0x906E);
    // what, the image, its size (0: the image's), the result, the expected value (-1: neither value written)
    const std::tuple<const char *, std::vector<uint8_t>, int64_t, int32_t, int> cases[] = {
        {"version 1: offset from bytes 32-35", jbc(1024, 0), 0, 0, cpldUpgradeCrc(jbc(1024, 0).data(), 1022)},
        {"version 2: offset from bytes 40-43, stored big-endian", jbc(1024, 1, 100, 0x1234), 0, -1, 0x1234},
        {"53 bytes are enough", jbc(53, 1, 50), 0, 0, cpldUpgradeCrc(jbc(53, 1, 50).data(), 50)},
        {"52 bytes are not", jbc(53, 1, 50), 52, -1, -1},
        {"format word JAM 2", jbc(1024, 2), 0, -1, -1},
        {"offset equal to the size", jbc(1024, 1, 1000), 1000, -1, -1},
        {"offset at size - 1: the 0xFF fill is the low byte", jbc(1024, 1, 1023, 0x12FF), 0, -1, 0x12FF},
        {"offset at size - 1 of a full buffer", jbc(51200, 1, 51199), 0, -1, -1},
    };
    for (const auto &[name, image, size, rc, value] : cases) {
        uint16_t expected = 0xABCD, actual = 0xABCD;
        const int64_t len = size != 0 ? size : std::ssize(image);
        EXPECT_EQ(cpldUpgradeCheckCrc(image.data(), len, &expected, &actual), rc) << name;
        EXPECT_EQ(expected, value >= 0 ? value : 0xABCD) << name;
        EXPECT_EQ(actual != 0xABCD, value >= 0) << name;
    }
}

TEST_F(cpldUpgradeTest, fileBoundsFillAndTheRealJbcFiles)
{
    for (size_t size : {1023, 1024, 1500, 51200, 51201}) {
        const std::vector<uint8_t> bytes = jbc(size);
        const bool fits = size >= 1024 && size <= 51200;
        ASSERT_EQ(cpldUpgradeFileInit(write(bytes).c_str()), fits ? 0 : -1);
        const cpldUpgradeView v = cpldUpgradeGetView();
        if (!fits) {
            EXPECT_EQ(lines().back(),
                      "QX_TRACE_FILE-error wrong file size: " + std::to_string(size) + " [min: 1024], [max: 51200]");
        } else {
            EXPECT_EQ(v.upgradeSize, static_cast<int32_t>(size));
            EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), v.data));
            EXPECT_TRUE(std::all_of(v.data + size, v.data + CPLD_DATA_SIZE, [](uint8_t b) { return b == 0xFF; }));
        }
    }
    const std::string dir = testing::TempDir(); // a folder's size passes the bounds
    EXPECT_EQ(cpldUpgradeFileInit(dir.c_str()), -1);
    EXPECT_EQ(lines().back(), "QX_TRACE_FILE-error opening file: " + dir + " - 'Is a directory'");
    for (auto [name, crc] : {std::pair{"idcode.jbc", 0x7AE6}, std::pair{"PIXEL8x4.jbc", 0x1D3C}}) {
        ASSERT_EQ(cpldUpgradeFileInit((std::string(TARNHOLD_TESTDATA) + "/jbc/" + name).c_str()), 0);
        uint16_t values[2] = {};
        const cpldUpgradeView v = cpldUpgradeGetView();
        EXPECT_EQ(cpldUpgradeCheckCrc(v.data, v.upgradeSize, &values[0], &values[1]), 0) << name;
        EXPECT_THAT(values, ElementsAre(crc, crc)) << name;
    }
}

TEST_F(cpldUpgradeTest, fullUpgradeLeavesSizeCrcStampAndRunStateInSlot9)
{
    const std::string path = std::string(TARNHOLD_TESTDATA) + "/jbc/idcode.jbc";
    const uint64_t start = simVirtualNowUs();
    EXPECT_EQ(upgradeFrom(QX_HID_CMD_CPLD_UPGRADE, path), 0);
    EXPECT_THAT(lines(), ElementsAre("QX_TRACE_FILE-cpldUpgradeFileInit:: fileName: " + path,
                                     "QX_TRACE_FILE-_this->upgradeSize: 47471",
                                     "QX_TRACE_FILE-expected_crc: 0x7ae6, actual_crc: 0x7ae6",
                                     "QX_TRACE_FILE-*****CPLD ERASE DONE*****",
                                     "QX_TRACE_FILE-*****CPLD INFO CLEAR DONE*****",
                                     "QX_TRACE_FILE-*****CPLD FIRMWARE UPDATE DONE!!!*****",
                                     "QX_TRACE_FILE-***CPLD INFO UPDATE DONE***",
                                     "QX_TRACE_FILE-***CPLD CRC CHECK PASSED!!!***",
                                     "QX_TRACE_FILE-***CPLD UPGRADE RUN PASSED!!!***",
                                     "QX_TRACE_FILE-***CPLD PROGRAM SUCCESSFUL!!!!!!!!!!!!***"));
    // 1 s after each record write, 2 s before each read-back's report, 20 s after the run.
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S, 1 * S, 2 * S, 20 * S, 2 * S));
    const simSlot slot = simGetSlot(9);
    EXPECT_EQ(slot.word0, 47471u | 0x7AE6u << 16);
    EXPECT_EQ(slot.word1, 0u);
    // The second write's stamp: 1 s after the start, behind the clear's wait.
    const time_t second = static_cast<time_t>((SIM_WALL_CLOCK_START_MS + start / 1000) / 1000 + 1);
    struct tm l = {};
    localtime_r(&second, &l);
    char stamp[40];
    std::snprintf(stamp, sizeof stamp, "time : %d-%d-%d %d:%d:%d", l.tm_year + 1900, l.tm_mon + 1, l.tm_mday, l.tm_hour,
                  l.tm_min, l.tm_sec);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(slot.data), slot.len), stamp);
    const auto writes = reports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(leGet64(&writes[0][4]), 0xFFFFFFFF00000000u);
    // Slot 9, the size and the CRC in little-endian order, state word 0xFFFFFFFF, then the stamp's length.
    EXPECT_THAT(std::vector(writes[1].begin() + 2, writes[1].begin() + 13),
                ElementsAre(0xFF, 9, 0x6F, 0xB9, 0xE6, 0x7A, 0xFF, 0xFF, 0xFF, 0xFF, std::strlen(stamp)));
    EXPECT_TRUE(std::all_of(writes[1].begin() + 14 + std::strlen(stamp), writes[1].end(),
                            [](uint8_t b) { return b == 0xFF; }));
}

TEST_F(cpldUpgradeTest, chunksOfThirtyPagesAtMostWithCapacityPolledEverySecondUpTo30Times)
{
    const std::pair<size_t, std::vector<size_t>> cases[] = {
        {1024, {4}}, {1500, {6}}, {51200, {30, 30, 30, 30, 30, 30, 20}}};
    simSetUrbBusyUs(1500 * MS); // two 1 s polls before every chunk but the first
    for (const auto &[size, counts] : cases) {
        upgradeSent.clear();
        forget();
        ASSERT_EQ(upgrade(write(jbc(size))), 0);
        const uint8_t *data = cpldUpgradeGetView().data;
        EXPECT_EQ(chunkPages(PIC_HID_PROGRAM_CPLD, data), counts) << size;
        EXPECT_EQ(std::ranges::count(simSleeps(), 1 * S), 2 * std::ssize(counts)); // with the two record writes'
        EXPECT_TRUE(std::equal(data, data + CPLD_DATA_SIZE, simCpldImage().begin()));
    }
    simSetUrbBusyUs(0);
    simSetUpgradeFault(simUpgradeFault::CAPACITY_NEVER_FREE, -1);
    forget();
    EXPECT_EQ(upgrade(write(jbc(1500))), -1);
    EXPECT_EQ(simSleeps(), repeat<uint64_t>({1 * S}, {1 * S}, 30));
    const auto all = lines();
    EXPECT_THAT(std::vector(all.end() - 2, all.end()),
                ElementsAre("QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE: driver still busy after 30 polls, giving up",
                            "QX_TRACE_FILE-Error programming the cpld executable!!!!!"));
}

TEST_F(cpldUpgradeTest, recordWriteWaits1sThenUpTo3Times10msAndCarriesSizeAndCrc)
{
    EXPECT_EQ(upgrade(write(jbc(1500, 1, 1498, 0x1234))), -1); // a mismatch still sets expectedCrc
    char line[96];
    std::snprintf(line, sizeof line, "QX_TRACE_FILE-***CRC ERROR*** expected_crc: 0x1234, actual_crc: 0x%04x",
                  cpldUpgradeCrc(cpldUpgradeGetView().data, 1498));
    EXPECT_EQ(lines().back(), line);
    upgradeSent.clear();
    EXPECT_EQ(cpldProgramInfo(0), 0);
    const auto writes = reports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL);
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(leGet32(&writes[0][4]), 1500u | 0x1234u << 16) << "the stored CRC, not the computed one";
    simSetUpgradeFault(simUpgradeFault::RECORD_WRITE_UNCONFIRMED, 1);
    forget();
    EXPECT_EQ(cpldProgramInfo(1), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S, 10 * MS, 10 * MS, 10 * MS));
    std::vector<uint8_t> bad = jbc(1024, 2); // rejected header: expectedCrc as it stood, 0x0000
    EXPECT_EQ(upgrade(write(bad)), -1);
    EXPECT_EQ(lines().back(), "QX_TRACE_FILE-***CRC ERROR*** expected_crc: 0x1234, actual_crc: 0x0000");
}

// The info request's report wait is pinned with the slow relays' by the device management tests.
TEST_F(cpldUpgradeTest, eachFailingStepEndsWithItsLineAndFromTheReadBackOnClearsTheRecord)
{
    const std::string path = write(jbc(1500));
    const std::string verifying = "Error verifying cpld executable binary file!!!!!";
    // The fault, the step's own line before the last (if any), the last line, the record writes sent: the record
    // is left cleared exactly when one was.
    const std::tuple<void (*)(), std::string, std::string, size_t> cases[] = {
        {[] { simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_CRC, 1); }, "", verifying, 3},
        {[] { simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_SIZE, 1); }, "", verifying, 3},
        {[] { simSetUpgradeFault(simUpgradeFault::RUN_NEVER_COMPLETES, 1); }, "", "Error CPLD Upgrade Clean Up!!!!!",
         3},
        {[] { simFailIoctl(PIC_HID_CPLD_UPGRADE_RUN, EIO, 1); }, "", "Error running CPLD Upgrade!!!!!", 3},
        {[] { simFailIoctl(PIC_HID_ERASE_CPLD, EIO, 1); }, "PIC_HID_ERASE_CPLD rc: -1", "Error erasing CPLD!!!!!", 0},
        {[] { simFailIoctl(PIC_HID_PROGRAM_CPLD, EIO, 1); }, "", "Error programming the cpld executable!!!!!", 1},
        {[] { simSetUpgradeFault(simUpgradeFault::RECORD_WRITE_UNCONFIRMED, 1); }, "",
         "cpldProgramInfo Clear Failed! rc: -1", 1},
    };
    for (const auto &[arrange, before, line, writes] : cases) {
        simSetSlot(9, {0x11, 0x22, 0, {}});
        arrange();
        forget();
        upgradeSent.clear();
        EXPECT_EQ(upgrade(path), -1);
        const auto all = lines();
        EXPECT_EQ(all.back(), "QX_TRACE_FILE-" + line);
        EXPECT_TRUE(before.empty() || all.end()[-2] == "QX_TRACE_FILE-" + before) << all.end()[-2];
        EXPECT_EQ(reports(PIC_HID_SEND_REPORT, QX_HID_CMD_SET_FLASH_VAL).size(), writes) << line;
        EXPECT_EQ(simGetSlot(9).word0 == 0 && simGetSlot(9).word1 == 0xFFFFFFFF, writes > 0) << line;
    }
}

} // namespace
