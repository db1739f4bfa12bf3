// FPGA upgrade on the in-process simulated appliance: file bounds and the
// upgrade size, chunk layout, every wait and its bound, and the lines and
// results of each failing step.
#include "fpgaUpgrade.h"
#include "upgradeFixture.h"
#include "usbMgmt.h"

namespace {

constexpr uint64_t S = 1000000;
constexpr uint64_t MS = 1000;
const std::string FPGA_ERASE_FAILED = "QX_TRACE_FILE-Error erasing FPGA!!!!!";
const std::string FPGA_PROGRAM_FAILED = "QX_TRACE_FILE-Error programming the configurator!!!!!";

class fpgaUpgradeTest : public upgradeTest {
protected:
    int32_t upgrade(const std::string &path)
    {
        qxUsbBlock cmd = pathCommand(QX_HID_CMD_FPGA_UPGRADE, path);
        qxUsbBlock resp{};
        resp.fill(0xEE);
        const int32_t rc = usbMgmtCmd(cmd, resp);
        EXPECT_TRUE(allAre(resp, 0xEE)) << "resp comes back as sent";
        return rc;
    }
    // The module's lines after the size line (all when there is none).
    std::vector<std::string> linesAfterSize() const
    {
        auto lines = log.textsFrom("fpgaUpgrade");
        auto at = std::ranges::find_if(lines, [](const std::string &l) { return l.find("upgradeSize") != l.npos; });
        return {at == lines.end() ? lines.begin() : at + 1, lines.end()};
    }
};

TEST_F(fpgaUpgradeTest, fileSizeBoundsAndUpgradeSizeWalk)
{
    struct {
        size_t size;
        int blankBlock; // -1: none
        int32_t rc;
        int32_t upgradeSize;
    } cases[] = {
        {1048575, -1, -1, 0},       {16777217, -1, -1, 0},    {1048576, -1, 0, 1048576},
        {16777216, -1, 0, 16777216}, {1048577, -1, 0, 1049600}, {1048576, 0, 0, 1024},
        {2000000, 10, 0, 11264},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + " blank " + std::to_string(c.blankBlock));
        std::vector<uint8_t> bytes = read(write("f", c.size));
        if (c.blankBlock >= 0) {
            std::fill_n(bytes.begin() + 1024 * c.blankBlock, 1024, 0xFF);
        }
        const std::string path = write("f", bytes);
        log.clear();
        ASSERT_EQ(fpgaUpgradeFileInit(path.c_str()), c.rc);
        const auto lines = log.textsFrom("fpgaUpgrade");
        ASSERT_EQ(lines.front(), "QX_TRACE_FILE-fpgaUpgradeFileInit:: fileName: " + path);
        if (c.rc != 0) {
            EXPECT_THAT(lines, ElementsAre(lines.front(), "QX_TRACE_FILE-error wrong file size: " + std::to_string(c.size)
                                                              + " [min: 1048576], [max: 16777216]"));
            continue;
        }
        const fpgaUpgradeView v = fpgaUpgradeGetView();
        EXPECT_EQ(v.upgradeSize, c.upgradeSize);
        EXPECT_THAT(lines, ElementsAre(lines.front(), "QX_TRACE_FILE-st.st_size: " + std::to_string(c.size)));
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), v.data));
        EXPECT_TRUE(std::all_of(v.data + c.size, v.data + FPGA_DATA_SIZE, [](uint8_t b) { return b == 0xFF; }));
    }
    log.clear();
    EXPECT_EQ(fpgaUpgradeFileInit("/nonexistent/f.bin"), -1);
    EXPECT_EQ(log.textsFrom("fpgaUpgrade").back(), "QX_TRACE_FILE-error finding file: /nonexistent/f.bin");
}

TEST_F(fpgaUpgradeTest, unendedPathsAndShortReadsFailBeforeAnythingIsSent)
{
    qxUsbBlock cmd{};
    cmd.fill('a');
    cmd[QX_REPORT_CODE] = QX_HID_CMD_FPGA_UPGRADE;
    qxUsbBlock resp{};
    EXPECT_EQ(usbMgmtCmd(cmd, resp), -1);
    EXPECT_THAT(log.textsFrom("fpgaUpgrade"), ElementsAre("QX_TRACE_FILE-error file name does not end within the "
                                                          "command block (at most 65 characters)"));

    const std::string path = write("f", 1048576);
    log.clear();
    platformSys.read = [](int fd, void *buf, size_t len) { return PLATFORM_SYS_LIBC.read(fd, buf, len / 2); };
    EXPECT_EQ(upgrade(path), -1);
    EXPECT_EQ(log.textsFrom("fpgaUpgrade").back(), "QX_TRACE_FILE-fread error rc: 1048575");
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(fpgaUpgradeTest, fullUpgradeLeavesTheFileInFpgaMemoryAfterTheFixedWaits)
{
    const std::string path = write("f.bin", 1048577);
    EXPECT_EQ(upgrade(path), 0);
    EXPECT_THAT(log.textsFrom("fpgaUpgrade"),
                ElementsAre("QX_TRACE_FILE-fpgaUpgradeFileInit:: fileName: " + path,
                            "QX_TRACE_FILE-st.st_size: 1048577", "QX_TRACE_FILE-_this->upgradeSize: 1025k",
                            "QX_TRACE_FILE-*****FPGA ERASE DONE*****", "QX_TRACE_FILE-*****FPGA PROGRAM DONE*****",
                            "QX_TRACE_FILE-*****FPGA PROGRAM SUCCEFUL!!!!!!!!!!!!*****"));
    EXPECT_THAT(simSleeps(), ElementsAre(55 * S, 20 * MS, 2 * S, 20 * MS));
    std::vector<uint8_t> want = read(path);
    want.resize(1049600, 0xFF);
    const auto memory = simFpgaMemory();
    EXPECT_TRUE(std::equal(want.begin(), want.end(), memory.begin()));
    EXPECT_EQ(simGetUpgradeState().fpgaPages, 4100u);
    EXPECT_EQ(simGetUpgradeState().fpgaCleanUps, 1u);
}

TEST_F(fpgaUpgradeTest, chunksCarryFirstPageCountAndAddressOfThirtyPagesAtMost)
{
    for (size_t size : {size_t{1048576}, size_t{16777216}}) {
        SCOPED_TRACE(size);
        sent().clear();
        ASSERT_EQ(upgrade(write("f.bin", size)), 0);
        const auto chunks = ioCommands(PIC_HID_PROGRAM_FPGA);
        const auto queries = ioCommands(PIC_HID_IS_URB_AVAILABLE);
        ASSERT_EQ(chunks.size(), size / 256 / 30 + 1); // 137 and 2,185
        ASSERT_EQ(queries.size(), chunks.size());
        const auto *data = fpgaUpgradeGetView().data;
        size_t wrong = 0;
        for (size_t i = 0; i < chunks.size(); ++i) {
            const auto &c = chunks[i];
            const uint32_t count = i + 1 < chunks.size() ? 30 : 16;
            wrong += leGet24(&c[7]) != 30 * i || c[10] != 0 || c[11] != count
                || leGet64(&c[12]) != reinterpret_cast<uintptr_t>(data + 256 * 30 * i)
                || queries[i][11] != 30 || c[1] == queries[i][1];
        }
        EXPECT_EQ(wrong, 0u);
        EXPECT_EQ(leGet24(&chunks.back()[7]), size / 256 - 16); // 4,080 and 65,520
        EXPECT_TRUE(std::equal(data, data + size, simFpgaMemory().begin()));
    }
}

TEST_F(fpgaUpgradeTest, eraseWaits55sThenPolls80Times)
{
    simSetUpgradeFault(simUpgradeFault::ERASE_NEVER_CONFIRMED, -1);
    EXPECT_EQ(upgrade(write("f.bin", 1048576)), -1);
    EXPECT_EQ(simSleeps().size(), 161u);
    EXPECT_EQ(simSleeps()[0], 55 * S);
    EXPECT_TRUE(sleepsRepeat(1, {20 * MS, 1 * S}, 80));
    std::vector<std::string> want(80, "QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: 0");
    want.push_back(FPGA_ERASE_FAILED);
    EXPECT_EQ(linesAfterSize(), want);
    EXPECT_EQ(ioCommands(PIC_HID_ERASE_FPGA_STATUS).size(), 80u);
    EXPECT_THAT(ioCommands(PIC_HID_PROGRAM_FPGA), IsEmpty());
}

TEST_F(fpgaUpgradeTest, capacityPolledEvery50msAndGivenUpAfter600Polls)
{
    simSetUrbBusyUs(120 * MS);
    EXPECT_EQ(upgrade(write("f.bin", 1048576)), 0);
    const auto &s = simSleeps();
    ASSERT_GT(s.size(), 4u);
    EXPECT_TRUE(std::all_of(s.begin() + 2, s.end() - 2, [](uint64_t us) { return us == 50 * MS; }));
    EXPECT_GT(ioCommands(PIC_HID_IS_URB_AVAILABLE).size(), 2 * ioCommands(PIC_HID_PROGRAM_FPGA).size());

    simSetUrbBusyUs(0);
    simSetUpgradeFault(simUpgradeFault::CAPACITY_NEVER_FREE, -1);
    forget();
    sent().clear();
    EXPECT_EQ(upgrade(write("f.bin", 1048576)), -1);
    EXPECT_TRUE(sleepsRepeat(2, {50 * MS}, 600));
    EXPECT_EQ(simSleeps().size(), 602u);
    EXPECT_THAT(linesAfterSize(),
                ElementsAre("QX_TRACE_FILE-*****FPGA ERASE DONE*****",
                            "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE: driver still busy after 600 polls, giving up",
                            FPGA_PROGRAM_FAILED));
    EXPECT_THAT(ioCommands(PIC_HID_PROGRAM_FPGA), IsEmpty());
}

TEST_F(fpgaUpgradeTest, cleanUpTriesThreeTimes2sApart)
{
    simSetUpgradeFault(simUpgradeFault::CLEANUP_STATE_2, -1);
    EXPECT_EQ(upgrade(write("f.bin", 1048576)), -1);
    EXPECT_THAT(simSleeps(), ElementsAre(55 * S, 20 * MS, 2 * S, 20 * MS, 2 * S, 20 * MS, 2 * S, 20 * MS));
    EXPECT_EQ(ioCommands(PIC_HID_PROGRAM_CLEAN_UP).size(), 3u);
    EXPECT_EQ(linesAfterSize().back(), "QX_TRACE_FILE-Error GPGA Upgrade Clean Up!!!!!");
    EXPECT_EQ(linesAfterSize().size(), 3u);
}

TEST_F(fpgaUpgradeTest, aFailingSendEndsTheUpgradeWithItsLines)
{
    const std::string path = write("f.bin", 1048576);
    struct {
        uint32_t request;
        std::vector<std::string> lines;
    } cases[] = {
        {PIC_HID_FPGA_UPGRADE_SETUP, {"QX_TRACE_FILE-PIC_HID_FPGA_UPGRADE_SETUP rc: -1", FPGA_ERASE_FAILED}},
        {PIC_HID_ERASE_FPGA, {"QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: -1", FPGA_ERASE_FAILED}},
        {PIC_HID_ERASE_FPGA_STATUS, {"QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: -1", FPGA_ERASE_FAILED}},
        {PIC_HID_IS_URB_AVAILABLE,
         {"QX_TRACE_FILE-*****FPGA ERASE DONE*****", "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE rc: -1",
          FPGA_PROGRAM_FAILED}},
        {PIC_HID_PROGRAM_FPGA, {"QX_TRACE_FILE-*****FPGA ERASE DONE*****", FPGA_PROGRAM_FAILED}},
        {PIC_HID_PROGRAM_CLEAN_UP,
         {"QX_TRACE_FILE-*****FPGA ERASE DONE*****", "QX_TRACE_FILE-*****FPGA PROGRAM DONE*****",
          "QX_TRACE_FILE-PIC_HID_PROGRAM_CLEAN_UP rc: -1", "QX_TRACE_FILE-Error GPGA Upgrade Clean Up!!!!!"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.request);
        forget();
        simFailIoctl(c.request, EIO, 1);
        EXPECT_EQ(upgrade(path), -1);
        EXPECT_EQ(linesAfterSize(), c.lines);
    }
}

} // namespace
