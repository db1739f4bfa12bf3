// FPGA upgrade on the in-process simulated appliance: file bounds and the
// upgrade size, the chunks, every wait and its bound, and each failing step.
#include "fpgaUpgrade.h"
#include "upgradeFixture.h"

namespace {

const std::string ERASE_FAILED = "QX_TRACE_FILE-Error erasing FPGA!!!!!";
const std::string PROGRAM_FAILED = "QX_TRACE_FILE-Error programming the configurator!!!!!";
const std::string ERASE_DONE = "QX_TRACE_FILE-*****FPGA ERASE DONE*****";

class fpgaUpgradeTest : public upgradeTest {
protected:
    int32_t upgrade(const std::vector<uint8_t> &bytes)
    {
        qxUsbBlock cmd = cmdFor(QX_HID_CMD_FPGA_UPGRADE, write(bytes));
        resp.fill(0xEE);
        const int32_t rc = usbMgmtCmd(cmd, resp);
        EXPECT_TRUE(allAre(resp, 0xEE)) << "resp comes back as sent";
        return rc;
    }
    // The module's lines after the first three (name, size, upgrade size).
    std::vector<std::string> stepLines() const
    {
        auto lines = log.textsFrom("fpgaUpgrade");
        return {lines.begin() + std::min<size_t>(3, lines.size()), lines.end()};
    }
};

TEST_F(fpgaUpgradeTest, fileSizeBoundsAndUpgradeSizeWalk)
{
    const struct {
        size_t size;
        int blankBlock; // the first all-0xFF 1 KiB block; -1: none
        int32_t upgradeSize; // 0: the load fails
    } cases[] = {{1048575, -1, 0},        {16777217, -1, 0},       {1048576, -1, 1048576}, {16777216, -1, 16777216},
                 {1048577, -1, 1049600}, {1048576, 0, 1024}, {2000000, 10, 11264}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.size);
        std::vector<uint8_t> bytes = bytesOf(c.size);
        std::fill_n(bytes.begin() + 1024 * std::max(c.blankBlock, 0), c.blankBlock >= 0 ? 1024 : 0, 0xFF);
        log.clear();
        EXPECT_EQ(fpgaUpgradeFileInit(write(bytes).c_str()), c.upgradeSize != 0 ? 0 : -1);
        const std::string second = c.upgradeSize == 0
            ? "QX_TRACE_FILE-error wrong file size: " + std::to_string(c.size) + " [min: 1048576], [max: 16777216]"
            : "QX_TRACE_FILE-st.st_size: " + std::to_string(c.size);
        EXPECT_THAT(log.textsFrom("fpgaUpgrade"),
                    ElementsAre("QX_TRACE_FILE-fpgaUpgradeFileInit:: fileName: " + file_, second));
        const fpgaUpgradeView v = fpgaUpgradeGetView();
        if (c.upgradeSize != 0) {
            EXPECT_EQ(v.upgradeSize, c.upgradeSize);
            EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), v.data));
            EXPECT_TRUE(std::all_of(v.data + c.size, v.data + FPGA_DATA_SIZE, [](uint8_t b) { return b == 0xFF; }));
        }
    }
    EXPECT_EQ(fpgaUpgradeFileInit("/nonexistent/f.bin"), -1);
    EXPECT_EQ(log.textsFrom("fpgaUpgrade").back(), "QX_TRACE_FILE-error finding file: /nonexistent/f.bin");
}

TEST_F(fpgaUpgradeTest, unendedPathsAndShortReadsFailBeforeAnythingIsSent)
{
    qxUsbBlock cmd{};
    cmd.fill('a');
    cmd[QX_REPORT_CODE] = QX_HID_CMD_FPGA_UPGRADE;
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_THAT(log.textsFrom("fpgaUpgrade"), ElementsAre("QX_TRACE_FILE-error file name does not end within the "
                                                          "command block (at most 65 characters)"));
    platformSys.read = [](int fd, void *buf, size_t len) { return PLATFORM_SYS_LIBC.read(fd, buf, len / 2); };
    EXPECT_EQ(upgrade(bytesOf(1048576)), -1);
    EXPECT_EQ(log.textsFrom("fpgaUpgrade").back(), "QX_TRACE_FILE-fread error rc: 1048575");
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(fpgaUpgradeTest, fullUpgradeLeavesTheFileAndItsFillInFpgaMemoryAfterTheFixedWaits)
{
    std::vector<uint8_t> bytes = bytesOf(1048577);
    EXPECT_EQ(upgrade(bytes), 0);
    EXPECT_THAT(log.textsFrom("fpgaUpgrade"),
                ElementsAre("QX_TRACE_FILE-fpgaUpgradeFileInit:: fileName: " + file_,
                            "QX_TRACE_FILE-st.st_size: 1048577", "QX_TRACE_FILE-_this->upgradeSize: 1025k", ERASE_DONE,
                            "QX_TRACE_FILE-*****FPGA PROGRAM DONE*****",
                            "QX_TRACE_FILE-*****FPGA PROGRAM SUCCEFUL!!!!!!!!!!!!*****"));
    EXPECT_THAT(simSleeps(), ElementsAre(55 * S, 20 * MS, 2 * S, 20 * MS));
    bytes.resize(1049600, 0xFF);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), simFpgaMemory().begin()));
    EXPECT_EQ(simGetUpgradeState().fpgaPages, 4100u);
}

TEST_F(fpgaUpgradeTest, chunksCarryFirstPageCountAndAddressOfThirtyPagesAtMost)
{
    for (size_t size : {size_t{1048576}, size_t{16777216}}) {
        sent().clear();
        ASSERT_EQ(upgrade(bytesOf(size)), 0);
        const auto chunks = reports(PIC_HID_PROGRAM_FPGA);
        const auto queries = reports(PIC_HID_IS_URB_AVAILABLE);
        ASSERT_EQ(chunks.size(), size / 256 / 30 + 1); // 137 and 2,185
        ASSERT_EQ(queries.size(), chunks.size());
        const uint8_t *data = fpgaUpgradeGetView().data;
        size_t wrong = 0;
        for (size_t i = 0; i < chunks.size(); ++i) {
            const auto &c = chunks[i];
            wrong += leGet24(&c[7]) != 30 * i || c[10] != 0 || c[11] != (i + 1 < chunks.size() ? 30 : 16)
                || leGet64(&c[12]) != reinterpret_cast<uintptr_t>(data + 256 * 30 * i) || queries[i][11] != 30;
        }
        EXPECT_EQ(wrong, 0u) << size;
        EXPECT_EQ(leGet24(&chunks.back()[7]), size / 256 - 16); // 4,080 and 65,520
        EXPECT_TRUE(std::equal(data, data + size, simFpgaMemory().begin())) << size;
    }
}

TEST_F(fpgaUpgradeTest, eraseWaits55sThenQueries80Times1sApart)
{
    simSetUpgradeFault(simUpgradeFault::ERASE_NEVER_CONFIRMED, -1);
    EXPECT_EQ(upgrade(bytesOf(1048576)), -1);
    EXPECT_EQ(simSleeps(), repeat({55 * S}, {20 * MS, 1 * S}, 80));
    std::vector<std::string> lines(80, "QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: 0");
    lines.push_back(ERASE_FAILED);
    EXPECT_EQ(stepLines(), lines);
}

TEST_F(fpgaUpgradeTest, capacityPolledEvery50msAndGivenUpAfter600Polls)
{
    simSetUpgradeFault(simUpgradeFault::CAPACITY_NEVER_FREE, -1);
    EXPECT_EQ(upgrade(bytesOf(1048576)), -1);
    EXPECT_EQ(simSleeps(), repeat({55 * S, 20 * MS}, {50 * MS}, 600));
    EXPECT_THAT(stepLines(),
                ElementsAre(ERASE_DONE,
                            "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE: driver still busy after 600 polls, giving up",
                            PROGRAM_FAILED));
    EXPECT_THAT(reports(PIC_HID_PROGRAM_FPGA), IsEmpty());
}

TEST_F(fpgaUpgradeTest, cleanUpTriesThreeTimes2sApart)
{
    simSetUpgradeFault(simUpgradeFault::CLEANUP_STATE_2, -1);
    EXPECT_EQ(upgrade(bytesOf(1048576)), -1);
    EXPECT_EQ(simSleeps(), repeat({55 * S, 20 * MS}, {2 * S, 20 * MS}, 3));
    EXPECT_EQ(stepLines().back(), "QX_TRACE_FILE-Error GPGA Upgrade Clean Up!!!!!");
    EXPECT_EQ(stepLines().size(), 3u);
}

TEST_F(fpgaUpgradeTest, aFailingSendEndsTheUpgradeWithItsLines)
{
    const std::pair<uint32_t, std::vector<std::string>> cases[] = {
        {PIC_HID_FPGA_UPGRADE_SETUP, {"QX_TRACE_FILE-PIC_HID_FPGA_UPGRADE_SETUP rc: -1", ERASE_FAILED}},
        {PIC_HID_ERASE_FPGA_STATUS, {"QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: -1", ERASE_FAILED}},
        {PIC_HID_IS_URB_AVAILABLE, {ERASE_DONE, "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE rc: -1", PROGRAM_FAILED}},
        {PIC_HID_PROGRAM_FPGA, {ERASE_DONE, PROGRAM_FAILED}},
        {PIC_HID_PROGRAM_CLEAN_UP,
         {ERASE_DONE, "QX_TRACE_FILE-*****FPGA PROGRAM DONE*****", "QX_TRACE_FILE-PIC_HID_PROGRAM_CLEAN_UP rc: -1",
          "QX_TRACE_FILE-Error GPGA Upgrade Clean Up!!!!!"}},
    };
    for (const auto &[request, lines] : cases) {
        forget();
        simFailIoctl(request, EIO, 1);
        EXPECT_EQ(upgrade(bytesOf(1048576)), -1);
        EXPECT_EQ(stepLines(), lines) << request;
    }
}

} // namespace
