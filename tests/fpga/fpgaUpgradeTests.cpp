// FPGA upgrade on the in-process simulated appliance: file bounds and the
// upgrade size, the chunks, every wait and its bound, and each failing step.
#include "fpgaUpgrade.h"
#include "upgradeFixture.h"

#include <sys/mman.h>
#include <tuple>

namespace {

const std::string ERASE_FAILED = "QX_TRACE_FILE-Error erasing FPGA!!!!!";
const std::string PROGRAM_FAILED = "QX_TRACE_FILE-Error programming the configurator!!!!!";
const std::string ERASE_DONE = "QX_TRACE_FILE-*****FPGA ERASE DONE*****";
const std::string PROGRAM_DONE = "QX_TRACE_FILE-*****FPGA PROGRAM DONE*****";
const std::string CLEAN_UP_FAILED = "QX_TRACE_FILE-Error GPGA Upgrade Clean Up!!!!!";

// Pages of [p, p + len) resident in memory (whole pages only).
size_t residentPages(const uint8_t *p, size_t len)
{
    const auto begin = (reinterpret_cast<uintptr_t>(p) + 4095) & ~uintptr_t{4095};
    const auto end = (reinterpret_cast<uintptr_t>(p) + len) & ~uintptr_t{4095};
    std::vector<unsigned char> in((end - begin) / 4096);
    EXPECT_EQ(mincore(reinterpret_cast<void *>(begin), end - begin, in.data()), 0);
    return static_cast<size_t>(std::ranges::count_if(in, [](unsigned char b) { return (b & 1) != 0; }));
}

class fpgaUpgradeTest : public upgradeTest {
protected:
    int32_t upgrade(const std::vector<uint8_t> &bytes) { return upgradeFrom(QX_HID_CMD_FPGA_UPGRADE, write(bytes)); }
    // The module's lines after the first three (name, size, upgrade size).
    std::vector<std::string> stepLines() const
    {
        auto lines = log.textsFrom("fpgaUpgrade");
        return {lines.begin() + std::min<size_t>(3, lines.size()), lines.end()};
    }
};

TEST_F(fpgaUpgradeTest, fileSizeBoundsAndUpgradeSizeWalk)
{
    // the size, the first all-0xFF 1 KiB block (-1: none), the upgrade size (0: the load fails)
    for (const auto &[size, blankBlock, upgradeSize] :
         {std::array{1048575, -1, 0}, {16777217, -1, 0}, {1048576, -1, 1048576}, {16777216, -1, 16777216},
          {1048577, -1, 1049600}, {1048576, 0, 1024}, {2000000, 10, 11264}}) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> bytes = bytesOf(size);
        std::fill_n(bytes.begin() + 1024 * std::max(blankBlock, 0), blankBlock >= 0 ? 1024 : 0, 0xFF);
        EXPECT_EQ(upgradeFrom(QX_HID_CMD_FPGA_UPGRADE, "/nonexistent/f.bin"), -1); // hands the buffer back
        EXPECT_EQ(fpgaUpgradeFileInit(write(bytes).c_str()), upgradeSize != 0 ? 0 : -1);
        if (upgradeSize == 0) {
            EXPECT_EQ(log.textsFrom("fpgaUpgrade").back(), "QX_TRACE_FILE-error wrong file size: "
                          + std::to_string(size) + " [min: 1048576], [max: 16777216]");
        } else {
            const fpgaUpgradeView v = fpgaUpgradeGetView();
            EXPECT_EQ(v.upgradeSize, upgradeSize);
            // 0xFF as far as the walk and the driver read, the 1 KiB-rounded size; not to the buffer's end.
            const size_t rounded = (size + 1023) / 1024 * 1024;
            EXPECT_TRUE(std::all_of(v.data + size, v.data + rounded, [](uint8_t b) { return b == 0xFF; }));
            EXPECT_EQ(residentPages(v.data + rounded, FPGA_DATA_SIZE - rounded), 0u);
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
    EXPECT_THAT(upgradeSent, IsEmpty());
}

// Each chunk waits for room for 30 pages; the last carries what is left of the 1 KiB-rounded size.
TEST_F(fpgaUpgradeTest, upgradeSendsThirtyPageChunksAfterTheFixedWaitsAndHandsTheBufferBackAtTheEnd)
{
    // the size, the full chunks, the last chunk's pages, the upgrade size's line
    const std::tuple<size_t, size_t, size_t, const char *> cases[] = {{1048577, 136, 20, "1025k"},
                                                                      {16777216, 2184, 16, "16384k"}};
    for (const auto &[size, fullChunks, lastPages, sizeLine] : cases) {
        upgradeSent.clear();
        forget();
        std::vector<uint8_t> bytes = bytesOf(size);
        ASSERT_EQ(upgrade(bytes), 0);
        EXPECT_THAT(log.textsFrom("fpgaUpgrade"),
                    ElementsAre("QX_TRACE_FILE-fpgaUpgradeFileInit:: fileName: " + file_,
                                "QX_TRACE_FILE-st.st_size: " + std::to_string(size),
                                std::string("QX_TRACE_FILE-_this->upgradeSize: ") + sizeLine, ERASE_DONE,
                                PROGRAM_DONE, "QX_TRACE_FILE-*****FPGA PROGRAM SUCCEFUL!!!!!!!!!!!!*****"));
        EXPECT_THAT(simSleeps(), ElementsAre(55 * S, 20 * MS, 2 * S, 20 * MS));
        EXPECT_EQ(chunkPages(PIC_HID_PROGRAM_FPGA, fpgaUpgradeGetView().data),
                  repeat<size_t>({}, {30}, fullChunks, {lastPages}));
        const auto queries = reports(PIC_HID_IS_URB_AVAILABLE);
        ASSERT_EQ(queries.size(), fullChunks + 1);
        EXPECT_TRUE(std::ranges::all_of(queries, [](const report64 &q) { return q[11] == 30; }));
        const size_t pages = 30 * fullChunks + lastPages;
        bytes.resize(256 * pages, 0xFF);
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), simFpgaMemory().begin()));
        EXPECT_EQ(simGetUpgradeState().fpgaPages, pages);
        EXPECT_EQ(reports(PIC_HID_PROGRAM_CLEAN_UP).size(), 1u) << "a success ends with one clean-up";
        EXPECT_EQ(residentPages(fpgaUpgradeGetView().data, FPGA_DATA_SIZE), 0u) << "the pages handed back";
    }
}

// Waits that run out and sends that fail end the upgrade with the lines of the step.
TEST_F(fpgaUpgradeTest, eachWaitIsBoundedAndEachFailingStepLogsItsLines)
{
    // Room only with code 39, the query's number XOR 0x57 and byte 2 = 0; confirmed only with byte 2 = 0 too.
    const std::vector<uint64_t> pollSleeps = repeat<uint64_t>({55 * S, 20 * MS}, {50 * MS}, 600);
    const std::vector<std::string> gaveUp = {
        ERASE_DONE, "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE: driver still busy after 600 polls, giving up",
        PROGRAM_FAILED};
    const std::vector<uint64_t> cleanUpSleeps = repeat<uint64_t>({55 * S, 20 * MS}, {2 * S, 20 * MS}, 3);
    // the fault, the one driver request that fails (0: none), the sleeps (empty: not looked at), the lines
    const std::tuple<simUpgradeFault, uint32_t, std::vector<uint64_t>, std::vector<std::string>> cases[] = {
        {simUpgradeFault::ERASE_NEVER_CONFIRMED, 0, repeat<uint64_t>({55 * S}, {20 * MS, 1 * S}, 80),
         repeat<std::string>({}, {"QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: 0"}, 80, {ERASE_FAILED})},
        {simUpgradeFault::CAPACITY_NEVER_FREE, 0, pollSleeps, gaveUp},
        {simUpgradeFault::CAPACITY_OWN_SEQ, 0, pollSleeps, gaveUp},
        {simUpgradeFault::CAPACITY_STATUS_BUSY, 0, pollSleeps, gaveUp},
        {simUpgradeFault::CLEANUP_STATE_2, 0, cleanUpSleeps, {ERASE_DONE, PROGRAM_DONE, CLEAN_UP_FAILED}},
        {simUpgradeFault::CLEANUP_STATUS_1, 0, cleanUpSleeps, {ERASE_DONE, PROGRAM_DONE, CLEAN_UP_FAILED}},
        {simUpgradeFault::NONE, PIC_HID_FPGA_UPGRADE_SETUP, {},
         {"QX_TRACE_FILE-PIC_HID_FPGA_UPGRADE_SETUP rc: -1", ERASE_FAILED}},
        {simUpgradeFault::NONE, PIC_HID_ERASE_FPGA, {}, {"QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: -1", ERASE_FAILED}},
        {simUpgradeFault::NONE, PIC_HID_ERASE_FPGA_STATUS, {},
         {"QX_TRACE_FILE-PIC_HID_ERASE_FPGA rc: -1", ERASE_FAILED}},
        {simUpgradeFault::NONE, PIC_HID_IS_URB_AVAILABLE, {},
         {ERASE_DONE, "QX_TRACE_FILE-PIC_HID_IS_URB_AVAILABLE rc: -1", PROGRAM_FAILED}},
        {simUpgradeFault::NONE, PIC_HID_PROGRAM_FPGA, {}, {ERASE_DONE, PROGRAM_FAILED}},
        {simUpgradeFault::NONE, PIC_HID_PROGRAM_CLEAN_UP, {},
         {ERASE_DONE, PROGRAM_DONE, "QX_TRACE_FILE-PIC_HID_PROGRAM_CLEAN_UP rc: -1", CLEAN_UP_FAILED}},
    };
    for (const auto &[fault, failing, sleeps, lines] : cases) {
        simSetUpgradeFault(simUpgradeFault::NONE, 0);
        simSetUpgradeFault(fault, -1);
        if (failing != 0) {
            simFailIoctl(failing, EIO, 1);
        }
        upgradeSent.clear();
        forget();
        EXPECT_EQ(upgrade(bytesOf(1048576)), -1);
        EXPECT_EQ(stepLines(), lines) << failing;
        if (!sleeps.empty()) {
            EXPECT_EQ(simSleeps(), sleeps) << lines.back();
        }
        if (lines == gaveUp) {
            EXPECT_THAT(reports(PIC_HID_PROGRAM_FPGA), IsEmpty()) << "no chunk without room";
        }
    }
}

} // namespace
