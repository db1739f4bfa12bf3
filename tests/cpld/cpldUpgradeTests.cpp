// CPLD upgrade on the in-process simulated appliance: the byte-code header and
// CRC, the real JBC files, chunk layout, the record writes and read-backs with
// their waits, and the lines and results of each failing step.
#include "../fpga/upgradeFixture.h"
#include "cpldUpgrade.h"
#include "usbMgmt.h"

#include <ctime>

namespace {

constexpr uint64_t S = 1000000;
constexpr uint64_t MS = 1000;
const std::string CPLD_VERIFY_FAILED = "QX_TRACE_FILE-Error verifying cpld executable binary file!!!!!";

// A byte-code image of `size` bytes: format word v, CRC offset `offset`
// (size - 2 when 0), and a stored CRC that matches unless `crc` is given.
std::vector<uint8_t> jbc(size_t size, uint8_t v = 1, uint32_t offset = 0, int crc = -1)
{
    std::vector<uint8_t> b(size);
    for (size_t i = 0; i < size; ++i) {
        b[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    offset = offset != 0 ? offset : static_cast<uint32_t>(size - 2);
    const uint8_t head[] = {'J', 'A', 'M', v};
    std::copy(std::begin(head), std::end(head), b.begin());
    const size_t at = 32 + 8 * (v & 1);
    for (int i = 0; i < 4; ++i) {
        b[at + i] = static_cast<uint8_t>(offset >> (24 - 8 * i));
    }
    const auto stored = static_cast<uint16_t>(crc >= 0 ? crc : cpldUpgradeCrc(b.data(), offset));
    b[offset] = static_cast<uint8_t>(stored >> 8);
    if (offset + 1 < size) {
        b[offset + 1] = static_cast<uint8_t>(stored);
    }
    return b;
}

std::string stampAt(uint64_t virtualUs)
{
    const time_t t = static_cast<time_t>((SIM_WALL_CLOCK_START_MS + virtualUs / 1000) / 1000);
    struct tm l = {};
    localtime_r(&t, &l);
    char text[64];
    std::snprintf(text, sizeof text, "time : %d-%d-%d %d:%d:%d", l.tm_year + 1900, l.tm_mon + 1, l.tm_mday,
                  l.tm_hour, l.tm_min, l.tm_sec);
    return text;
}

class cpldUpgradeTest : public upgradeTest {
protected:
    int32_t upgrade(const std::string &path)
    {
        qxUsbBlock cmd = pathCommand(QX_HID_CMD_CPLD_UPGRADE, path);
        qxUsbBlock resp{};
        return cpldUpgradeStart(cmd, resp);
    }
    std::vector<std::array<uint8_t, QX_REPORT_SIZE>> recordWrites() const
    {
        std::vector<std::array<uint8_t, QX_REPORT_SIZE>> out;
        for (const sentRequest &r : sent()) {
            if (r.request == PIC_HID_SEND_REPORT && r.report[0] == QX_HID_CMD_SET_FLASH_VAL) {
                out.push_back(r.report);
            }
        }
        return out;
    }
    std::vector<std::string> lines() const { return log.textsFrom("cpldUpgrade"); }
    static bool cleared()
    {
        const simSlot s = simGetSlot(9);
        return s.word0 == 0 && s.word1 == 0xFFFFFFFF;
    }
};

TEST(cpldUpgradeCrcTest, checkValueHeaderRulesAndBothFormats)
{
    const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(cpldUpgradeCrc(digits, sizeof digits), 0x906E);

    struct {
        const char *name;
        std::vector<uint8_t> image;
        int64_t size; // -1: the image's
        int32_t rc;
        int expected; // -1: not written
    } cases[] = {
        {"version 1, offset at 32", jbc(1024, 0), -1, 0, cpldUpgradeCrc(jbc(1024, 0).data(), 1022)},
        {"version 2, offset at 40", jbc(1024, 1, 100, 0x1234), -1, -1, 0x1234},
        {"53 bytes are enough", jbc(53, 1, 50), -1, 0, cpldUpgradeCrc(jbc(53, 1, 50).data(), 50)},
        {"52 bytes are not", jbc(53, 1, 50), 52, -1, -1},
        {"format word JAM 2", jbc(1024, 2), -1, -1, -1},
        {"offset equals the size", jbc(1024, 1, 1000), 1000, -1, -1},
        {"offset at size - 1: the fill is the low byte", jbc(1024, 1, 1023, 0x12FF), -1, -1, 0x12FF},
        {"offset at size - 1 of a full buffer", jbc(51200, 1, 51199), -1, -1, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        uint16_t expected = 0xABCD;
        uint16_t actual = 0xABCD;
        const int64_t size = c.size >= 0 ? c.size : static_cast<int64_t>(c.image.size());
        EXPECT_EQ(cpldUpgradeCheckCrc(c.image.data(), size, &expected, &actual), c.rc);
        EXPECT_EQ(expected, c.expected >= 0 ? c.expected : 0xABCD);
        EXPECT_EQ(actual != 0xABCD, c.expected >= 0);
    }
}

TEST_F(cpldUpgradeTest, fileBoundsFillAndTheRealJbcFiles)
{
    for (size_t size : {size_t{1023}, size_t{51201}}) {
        log.clear();
        EXPECT_EQ(cpldUpgradeFileInit(write("f.jbc", size).c_str()), -1);
        EXPECT_EQ(lines().back(),
                  "QX_TRACE_FILE-error wrong file size: " + std::to_string(size) + " [min: 1024], [max: 51200]");
    }
    for (size_t size : {size_t{1024}, size_t{1500}, size_t{51200}}) {
        const std::vector<uint8_t> bytes = jbc(size);
        ASSERT_EQ(cpldUpgradeFileInit(write("f.jbc", bytes).c_str()), 0);
        const cpldUpgradeView v = cpldUpgradeGetView();
        EXPECT_EQ(v.upgradeSize, static_cast<int32_t>(size));
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), v.data));
        EXPECT_TRUE(std::all_of(v.data + size, v.data + CPLD_DATA_SIZE, [](uint8_t b) { return b == 0xFF; }));
    }
    log.clear();
    EXPECT_EQ(cpldUpgradeFileInit(dir_.c_str()), -1); // a folder's size passes the bounds
    EXPECT_EQ(lines().back(), "QX_TRACE_FILE-error opening file: " + dir_.string() + " - 'Is a directory'");

    for (auto [name, crc] : {std::pair{"idcode.jbc", 0x7AE6}, std::pair{"PIXEL8x4.jbc", 0x1D3C}}) {
        const std::string path = std::string(TARNHOLD_TESTDATA) + "/jbc/" + name;
        ASSERT_EQ(cpldUpgradeFileInit(path.c_str()), 0) << name;
        uint16_t expected = 0;
        uint16_t actual = 0;
        const cpldUpgradeView v = cpldUpgradeGetView();
        EXPECT_EQ(cpldUpgradeCheckCrc(v.data, v.upgradeSize, &expected, &actual), 0) << name;
        EXPECT_EQ(expected, crc) << name;
        EXPECT_EQ(actual, crc) << name;
    }
}

TEST_F(cpldUpgradeTest, fullUpgradeLeavesSizeCrcStampAndRunStateInSlot9)
{
    const std::string path = std::string(TARNHOLD_TESTDATA) + "/jbc/idcode.jbc";
    const uint64_t start = simVirtualNowUs();
    qxUsbBlock cmd = pathCommand(QX_HID_CMD_CPLD_UPGRADE, path);
    qxUsbBlock resp{};
    resp.fill(0xEE);
    EXPECT_EQ(usbMgmtCmd(cmd, resp), 0);
    EXPECT_TRUE(allAre(resp, 0xEE));
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
    const std::string stamp = stampAt(start + 1 * S); // the second write follows the first's 1 s wait
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(slot.data), slot.len), stamp);
    const std::vector<uint8_t> file = read(path);
    EXPECT_TRUE(std::equal(file.begin(), file.end(), simCpldImage().begin()));
    EXPECT_TRUE(std::all_of(simCpldImage().begin() + 47616, simCpldImage().end(), [](uint8_t b) { return b == 0xFF; }));

    const auto writes = recordWrites();
    ASSERT_EQ(writes.size(), 2u);
    for (const auto &w : writes) {
        EXPECT_EQ(w[2], 0xFF);
        EXPECT_EQ(w[3], 9);
        EXPECT_EQ(leGet32(&w[8]), 0xFFFFFFFFu);
        EXPECT_EQ(w[12], stamp.size());
        EXPECT_EQ(w[13 + stamp.size()], 0);
        EXPECT_TRUE(std::all_of(w.begin() + 14 + static_cast<long>(stamp.size()), w.end(), [](uint8_t b) { return b == 0xFF; }));
    }
    EXPECT_EQ(leGet32(&writes[0][4]), 0u);
    EXPECT_EQ(leGet32(&writes[1][4]), 47471u | 0x7AE6u << 16);
}

TEST_F(cpldUpgradeTest, chunksOfThirtyPagesAtMostWithCapacityPolledEverySecondUpTo30Times)
{
    struct {
        size_t size;
        std::vector<uint32_t> counts;
    } cases[] = {{1024, {4}}, {1500, {6}}, {51200, {30, 30, 30, 30, 30, 30, 20}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.size);
        sent().clear();
        simSetUrbBusyUs(1500 * MS);
        forget();
        ASSERT_EQ(upgrade(write("f.jbc", jbc(c.size))), 0);
        const auto chunks = ioCommands(PIC_HID_PROGRAM_CPLD);
        ASSERT_EQ(chunks.size(), c.counts.size());
        const auto *data = cpldUpgradeGetView().data;
        for (size_t i = 0; i < chunks.size(); ++i) {
            EXPECT_EQ(leGet24(&chunks[i][7]), 30 * i);
            EXPECT_EQ(chunks[i][11], c.counts[i]);
            EXPECT_EQ(leGet64(&chunks[i][12]), reinterpret_cast<uintptr_t>(data + 256 * 30 * i));
        }
        // Two 1 s polls between chunks while the driver is busy 1.5 s after each.
        EXPECT_EQ(std::ranges::count(simSleeps(), 1 * S), 2 + 2 * static_cast<long>(chunks.size() - 1));
        EXPECT_TRUE(std::equal(data, data + CPLD_DATA_SIZE, simCpldImage().begin()));
    }
    simSetUrbBusyUs(0);
    simSetUpgradeFault(simUpgradeFault::CAPACITY_NEVER_FREE, -1);
    forget();
    EXPECT_EQ(upgrade(write("f.jbc", jbc(1500))), -1);
    EXPECT_TRUE(sleepsRepeat(1, {1 * S}, 30));
    EXPECT_EQ(simSleeps().size(), 31u);
    EXPECT_EQ(lines().end()[-2], "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE: driver still busy after 30 polls, giving up");
    EXPECT_EQ(lines().back(), "QX_TRACE_FILE-Error programming the cpld executable!!!!!");
}

TEST_F(cpldUpgradeTest, recordWriteWaits1sThen10msAndCarriesSizeAndCrc)
{
    // A header whose CRC does not match still sets expectedCrc: 0x1234.
    const std::string path = write("f.jbc", jbc(1500, 1, 1498, 0x1234));
    EXPECT_EQ(upgrade(path), -1);
    EXPECT_EQ(lines().back(), "QX_TRACE_FILE-***CRC ERROR*** expected_crc: 0x1234, actual_crc: 0x" + [] {
        char hex[8];
        std::snprintf(hex, sizeof hex, "%04x", cpldUpgradeCrc(cpldUpgradeGetView().data, 1498));
        return std::string(hex);
    }());
    forget();
    sent().clear();
    EXPECT_EQ(cpldProgramInfo(0), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S));
    const auto writes = recordWrites();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_THAT(std::vector(writes[0].begin() + 2, writes[0].begin() + 12),
                ElementsAre(0xFF, 9, 0xDC, 0x05, 0x34, 0x12, 0xFF, 0xFF, 0xFF, 0xFF));

    simSetUpgradeFault(simUpgradeFault::RECORD_WRITE_UNCONFIRMED, 1);
    forget();
    EXPECT_EQ(cpldProgramInfo(1), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(1 * S, 10 * MS, 10 * MS, 10 * MS));

    // After a rejected header the line shows expectedCrc as it stood and 0x0000.
    std::vector<uint8_t> bad = jbc(1024);
    bad[3] = 2;
    log.clear();
    EXPECT_EQ(upgrade(write("f.jbc", bad)), -1);
    EXPECT_EQ(lines().back(), "QX_TRACE_FILE-***CRC ERROR*** expected_crc: 0x1234, actual_crc: 0x0000");
}

TEST_F(cpldUpgradeTest, reportWaitTakes2sThenDoublesFrom200msToSixReads)
{
    struct {
        simReplyFault fault;
        int32_t rc;
    } cases[] = {{simReplyFault::WRONG_SEQ, 0}, {simReplyFault::WRONG_CODE_SEQ, 1}};
    for (const auto &c : cases) {
        simSetReplyFault(c.fault, 1);
        forget();
        qxUsbBlock cmd{};
        cmd[QX_REPORT_CODE] = QX_HID_CMD_CPLD_INFO;
        qxUsbBlock resp{};
        EXPECT_EQ(usbMgmtCmd(cmd, resp), c.rc);
        EXPECT_THAT(simSleeps(), ElementsAre(2 * S, 200 * MS, 400 * MS, 800 * MS, 1600 * MS, 3200 * MS, 6400 * MS));
    }
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    forget();
    qxUsbBlock cmd{};
    cmd[QX_REPORT_CODE] = QX_HID_CMD_CPLD_INFO;
    qxUsbBlock resp{};
    resp.fill(0xEE);
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_TRUE(allAre(resp, 0xEE));
    EXPECT_THAT(lines(), ElementsAre("QX_TRACE_USB-***usb cmd failed***"));
}

TEST_F(cpldUpgradeTest, failuresFromTheCrcCheckOnClearTheRecord)
{
    const std::string path = write("f.jbc", jbc(1500));
    struct {
        const char *name;
        void (*arrange)();
        std::string line;
        size_t writes; // record writes sent
        bool cleared;  // the record cleared at the end
    } cases[] = {
        {"read-back with another CRC", [] { simSetUpgradeFault(simUpgradeFault::READBACK_OTHER_CRC, 1); },
         CPLD_VERIFY_FAILED, 3, true},
        {"run never completes", [] { simSetUpgradeFault(simUpgradeFault::RUN_NEVER_COMPLETES, 1); },
         "QX_TRACE_FILE-Error CPLD Upgrade Clean Up!!!!!", 3, true},
        {"run send fails", [] { simFailIoctl(PIC_HID_CPLD_UPGRADE_RUN, EIO, 1); },
         "QX_TRACE_FILE-Error running CPLD Upgrade!!!!!", 3, true},
        {"setup send fails", [] { simFailIoctl(PIC_HID_CPLD_UPGRADE_SETUP, EIO, 1); },
         "QX_TRACE_FILE-Error erasing CPLD!!!!!", 0, false},
        {"erase send fails", [] { simFailIoctl(PIC_HID_ERASE_CPLD, EIO, 1); },
         "QX_TRACE_FILE-Error erasing CPLD!!!!!", 0, false},
        {"chunk send fails", [] { simFailIoctl(PIC_HID_PROGRAM_CPLD, EIO, 1); },
         "QX_TRACE_FILE-Error programming the cpld executable!!!!!", 1, true},
        {"clear unconfirmed", [] { simSetUpgradeFault(simUpgradeFault::RECORD_WRITE_UNCONFIRMED, 1); },
         "QX_TRACE_FILE-cpldProgramInfo Clear Failed! rc: -1", 1, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        simSetSlot(9, {0x11, 0x22, 0, {}});
        c.arrange();
        forget();
        sent().clear();
        EXPECT_EQ(upgrade(path), -1);
        EXPECT_EQ(lines().back(), c.line);
        EXPECT_EQ(recordWrites().size(), c.writes);
        EXPECT_EQ(cleared(), c.cleared);
    }
}

} // namespace
