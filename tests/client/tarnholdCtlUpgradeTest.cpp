// tarnholdctl's upgrade checks: nothing leaves for a file the service would refuse, and the client's JBC check
// says what the service's own says about every header it may meet.
#include "cpldUpgrade.h"
#include "tarnholdCtlUpgrade.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

const std::string IDCODE_JBC = std::string(TARNHOLD_TESTDATA) + "/jbc/idcode.jbc";

TEST(tarnholdCtlUpgrade, filesAreMadeAbsoluteAndCheckedAsTheServiceChecksThemBeforeAnythingIsSent)
{
    const std::string dir = "/tmp/ctlUpgrade." + std::to_string(getpid());
    std::filesystem::create_directory(dir);
    const std::string oldCwd = std::filesystem::current_path();
    std::filesystem::current_path(dir);
    using enum tarnholdCtlUpgradeKind;
    std::string absolute, error;
    auto check = [&](tarnholdCtlUpgradeKind kind, const std::string &path) {
        absolute.clear();
        error.clear();
        return tarnholdCtlUpgradeCheckFile(kind, path, absolute, error);
    };
    for (const auto &[size, ok] : std::vector<std::pair<uintmax_t, bool>>{
             {1048575, false}, {1048576, true}, {16777216, true}, {16777217, false}}) {
        std::ofstream("fpga.bin");
        std::filesystem::resize_file("fpga.bin", size);
        EXPECT_EQ(check(FPGA, "fpga.bin"), ok) << size << error;
    }
    std::filesystem::resize_file("fpga.bin", 1048576);
    EXPECT_TRUE(check(FPGA, "./fpga.bin") && absolute == dir + "/./fpga.bin");
    std::filesystem::copy_file(IDCODE_JBC, "idcode.jbc");
    EXPECT_TRUE(check(CPLD, "idcode.jbc")) << error;
    std::ifstream in(IDCODE_JBC, std::ios::binary);
    std::vector<char> damaged{std::istreambuf_iterator<char>(in), {}};
    damaged[100] ^= 1;
    std::ofstream("damaged.jbc", std::ios::binary).write(damaged.data(), std::ssize(damaged));
    EXPECT_FALSE(check(CPLD, "damaged.jbc"));
    char computed[8];
    const uint16_t crc = cpldUpgradeCrc(reinterpret_cast<const uint8_t *>(damaged.data()), damaged.size() - 2);
    std::snprintf(computed, sizeof computed, "0x%04x)", crc);
    EXPECT_EQ(error, dir + "/damaged.jbc: not a JAM byte-code file the service accepts: header or CRC (stored 0x7ae6, "
                           "computed " + computed);
    EXPECT_FALSE(check(CPLD, "fpga.bin")) << "too large for a CPLD";
    EXPECT_FALSE(check(CPLD, "missing.jbc"));
    EXPECT_EQ(error, dir + "/missing.jbc: No such file or directory");
    ASSERT_EQ(mkfifo("fifo.jbc", 0600), 0);
    EXPECT_FALSE(check(CPLD, "fifo.jbc")) << "never blocks on a FIFO";
    EXPECT_EQ(error, dir + "/fifo.jbc: not a regular file");
    const std::string longest(64 - dir.size(), 'n'); // 65 characters with the slash: the most the request holds
    std::filesystem::copy_file("fpga.bin", longest);
    EXPECT_TRUE(check(FPGA, longest) && absolute.size() == 65) << error;
    EXPECT_FALSE(check(FPGA, longest + "n"));
    EXPECT_EQ(error, dir + "/" + longest + "n: path of 66 characters; the request carries at most 65");
    std::filesystem::current_path(oldCwd);
    std::filesystem::remove_all(dir);
}

TEST(tarnholdCtlUpgrade, cpldRecordReadsAsClearedWrittenOrRun)
{
    qxUsbBlock resp{56, 9, 0, 9, 0x6F, 0xB9, 0xE6, 0x7A, 0xFF, 0xFF, 0xFF, 0xFF, 4, 't', 'i', 'm', 'e'};
    tarnholdCtlCpldInfo info = tarnholdCtlUpgradeDecodeCpldInfo(resp);
    EXPECT_EQ(info.size, 47471);
    EXPECT_EQ(info.crc, 0x7AE6);
    EXPECT_STREQ(info.stateText, "written");
    EXPECT_EQ(info.stamp, "time");
    resp[8] = resp[9] = resp[10] = resp[11] = 0;
    EXPECT_STREQ(tarnholdCtlUpgradeDecodeCpldInfo(resp).stateText, "run");
    resp = qxUsbBlock{56, 9, 0, 9, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 60};
    info = tarnholdCtlUpgradeDecodeCpldInfo(resp);
    EXPECT_STREQ(info.stateText, "cleared");
    EXPECT_EQ(info.stamp, "") << "a length past the report is no text";
    resp.fill(0xFF);
    EXPECT_STREQ(tarnholdCtlUpgradeDecodeCpldInfo(resp).stateText, "erased");
}

} // namespace
