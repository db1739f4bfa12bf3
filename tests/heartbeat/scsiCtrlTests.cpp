// The controller heartbeat against PCI devices in a umockdev testbed (this binary runs under umockdev's
// preload, so libudev and the configuration file see the testbed's sysfs), with the request loop on virtual
// time.
#include "main.h"
#include "scsiCtrl.h"
#include "simInProcess.h"
#include "simPci.h"
#include "sysSeam.h"
#include "uniqueFd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

// Under the sanitizers the preload comes before their runtime; that order is
// what this binary is run with.
extern "C" const char *__asan_default_options()
{
    return "verify_asan_link_order=0";
}

namespace {

using ::testing::ElementsAre;
using beat = std::array<uint8_t, 2>;

std::vector<long> waitsUs; // -1: without a timeout
decltype(platformSys.select) simSelect = nullptr;

// The simulated wait on virtual time, with each timeout recorded.
int __recordingSelect(int nfds, fd_set *readSet, fd_set *writeSet, fd_set *exceptSet, timeval *timeout)
{
    waitsUs.push_back(timeout != nullptr ? timeout->tv_sec * 1'000'000L + timeout->tv_usec : -1);
    return simSelect(nfds, readSet, writeSet, exceptSet, timeout);
}

class scsiCtrlTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        testbed_ = umockdev_testbed_new();
        const char *preload = getenv("LD_PRELOAD");
        ASSERT_TRUE(preload != nullptr && strstr(preload, "libumockdev-preload") != nullptr)
            << "runs under libumockdev-preload";
        gchar *root = umockdev_testbed_get_root_dir(testbed_);
        root_ = root;
        g_free(root);
        simInProcessInstall();
        simSelect = platformSys.select;
        platformSys.select = __recordingSelect;
        waitsUs.clear();
        mainLoopSetRequestFd(idle_.get());
        mainHeartbeat = MAIN_HEARTBEAT_SCSI_CTRL;
    }
    void TearDown() override
    {
        mainHeartbeat = MAIN_HEARTBEAT_NONE;
        simInProcessUninstall();
        g_object_unref(testbed_);
    }
    std::string add(const std::string &wanted, unsigned index)
    {
        simPciDevice parsed;
        std::string error;
        EXPECT_TRUE(simPciParse(wanted, parsed, error)) << error;
        const std::string path = simPciAdd(testbed_, parsed, index);
        EXPECT_FALSE(path.empty());
        return path;
    }
    // Looks the controller up; what it printed.
    std::string init()
    {
        testing::internal::CaptureStdout();
        EXPECT_EQ(scsiCtrlInit(), 0);
        return testing::internal::GetCapturedStdout();
    }
    beat bytesAt0x300(const std::string &sysPath)
    {
        beat b{};
        EXPECT_TRUE(simPciConfigRead(simPciConfigFile(root_, sysPath), SIM_PCI_HEARTBEAT_OFFSET, b));
        return b;
    }
    void setBytesAt0x300(const std::string &sysPath, beat b)
    {
        EXPECT_TRUE(simPciConfigWrite(simPciConfigFile(root_, sysPath), SIM_PCI_HEARTBEAT_OFFSET, b));
    }

    UMockdevTestbed *testbed_ = nullptr;
    std::string root_;
    uniqueFd idle_{eventfd(0, EFD_CLOEXEC)}; // a request descriptor that never becomes readable
};

TEST_F(scsiCtrlTest, onlyExactLowerCaseTextsMatchAndWithoutAMatchTheLoopWaitsWithoutATimeoutAndNeverBeats)
{
    const std::string upper = add("0x12D8:0xe130", 3);
    const std::string other = add("0x12d8:0xe131", 5);
    EXPECT_EQ(init(), "");
    EXPECT_EQ(scsiCtrlConfigPath(), nullptr);
    EXPECT_EQ(scsiCtrlGetHeartBeepIntervalSec(), 0);
    EXPECT_EQ(scsiCtrlHeartBeep(), -1);
    for (int i = 0; i < 3; ++i) {
        mainLoopPass();
    }
    EXPECT_THAT(waitsUs, ElementsAre(-1, -1, -1));
    EXPECT_EQ(bytesAt0x300(upper), (beat{0, 0}));
    EXPECT_EQ(bytesAt0x300(other), (beat{0, 0}));
}

// The beat goes to the later match only: the byte at 0x300 chosen by bit 6 of 0x301, and 8 at 0x301.
TEST_F(scsiCtrlTest, everyMatchIsPrintedAndTheLaterBeatenByBit6Of0x301)
{
    const std::string first = add("", 3);
    const std::string second = add("", 9);
    EXPECT_EQ(init(), "VID/PID[0x12d8 0xe130] path: " + first + "\nVID/PID[0x12d8 0xe130] path: " + second + "\n");
    EXPECT_EQ(std::string(scsiCtrlConfigPath()), second + "/config");
    EXPECT_EQ(scsiCtrlGetHeartBeepIntervalSec(), 1);
    for (const auto &[before, after] : {std::pair<beat, beat>{{0x00, 0x40}, {0x04, 0x08}}, {{0x00, 0x00}, {0x20, 0x08}},
                                        {{0xFF, 0x08}, {0x20, 0x08}}, {{0x55, 0xBF}, {0x20, 0x08}},
                                        {{0x00, 0xC0}, {0x04, 0x08}}}) {
        setBytesAt0x300(first, before);
        setBytesAt0x300(second, before);
        EXPECT_EQ(scsiCtrlHeartBeep(), 0);
        EXPECT_EQ(bytesAt0x300(first), before) << "the earlier match is not beaten";
        EXPECT_EQ(bytesAt0x300(second), after) << int(before[1]);
    }
}

// That the loop waits the interval asked plus 10 us and beats once per wall-clock second between requests is pinned
// on virtual time by the request loop tests, and with this heartbeat end to end by the system test.
TEST_F(scsiCtrlTest, aShortReadSkipsTheWriteAndSaysSoOnceUntilAReadWorksAgain)
{
    const std::string ctrl = add("", 3);
    init();
    const std::string file = simPciConfigFile(root_, ctrl);
    setBytesAt0x300(ctrl, {0x33, 0x40});
    ASSERT_EQ(truncate(file.c_str(), SIM_PCI_HEARTBEAT_OFFSET + 1), 0);
    const std::string line = "Error: cannot read 2 bytes at 0x300 of " + ctrl + "/config, no heartbeat\n";
    testing::internal::CaptureStdout();
    EXPECT_EQ(scsiCtrlHeartBeep(), -1);
    EXPECT_EQ(scsiCtrlHeartBeep(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
    std::array<uint8_t, 1> left{};
    EXPECT_TRUE(simPciConfigRead(file, SIM_PCI_HEARTBEAT_OFFSET, left));
    EXPECT_EQ(left[0], 0x33) << "nothing written";

    ASSERT_EQ(truncate(file.c_str(), SIM_PCI_CONFIG_SIZE), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(scsiCtrlHeartBeep(), 0);
    ASSERT_EQ(truncate(file.c_str(), SIM_PCI_HEARTBEAT_OFFSET), 0);
    EXPECT_EQ(scsiCtrlHeartBeep(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line) << "said again after a good read";
}

TEST_F(scsiCtrlTest, aPathOverTheLimitIsCutAt494CharactersAndItsOpenFailureIsPrinted)
{
    const std::string ctrl = add("long", 3);
    ASSERT_GT(ctrl.size() + std::string("/config").size(), 494u);
    init();
    const std::string kept = scsiCtrlConfigPath();
    EXPECT_EQ(kept, (ctrl + "/config").substr(0, 494));
    EXPECT_EQ(scsiCtrlGetHeartBeepIntervalSec(), 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(scsiCtrlHeartBeep(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: cannot open " + kept + "\n");
}

} // namespace
