// Device management start-up on the simulated appliance: the firmware file from the command line or from the
// platform text, its tries and waits, and the hand-over to the loader's start-up upgrade.
#include "qxFile.h"
#include "qxLoader.h"
#include "simFixture.h"
#include "usbMgmt.h"

#include <cstring>
#include <fstream>
#include <unistd.h>

namespace {

const std::string CHECKING = "0 QX_TRACE_USBMGMT-Checking for client file name (retries=";

// The device node can be made to stay away, whatever the model does.
platformSysOps simOps;
bool nodeMissing = false;

class usbMgmtInitTest : public simLinkTest {
protected:
    void SetUp() override
    {
        simLinkTest::SetUp();
        qxUsbCleanUp(); // start-up opens the link itself
        simOps = platformSys;
        nodeMissing = false;
        platformSys.open = [](const char *path, int flags, mode_t mode) {
            if (nodeMissing && strcmp(path, QX_USB_DEVICE_PATH) == 0) {
                errno = ENOENT;
                return -1;
            }
            return simOps.open(path, flags, mode);
        };
        qxFileReset();
        forget();
    }
};

TEST_F(usbMgmtInitTest, withoutFileThePlatformTextGetsFiveTries500usApart)
{
    // The first try's exchange fails, the second finds "HW=BRISKA".
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(usbMgmtInit(nullptr), QX_FILE_ERROR);
    EXPECT_THAT(leveled("usbMgmt"),
                ElementsAre("1 usbMgmtInit: filename='none'", CHECKING + "5)", CHECKING + "4)",
                            "1 usbMgmtInit: found filename='/usr/sbin/briska-pic-client.hex'",
                            "0 QX_TRACE_USBMGMT-/usr/sbin/briska-pic-client.hex file Error"));
    EXPECT_THAT(simSleeps(), ElementsAre(500u));
    EXPECT_EQ(std::ranges::count(simKinds(), simEventKind::OPEN), 1);
    EXPECT_EQ(simOpenNodeFds(), 0); // closed before the file is loaded

    simInProcessInstall();
    simSetPlatformText("HW=NOWHERE");
    log.clear();
    EXPECT_EQ(usbMgmtInit(nullptr), -1);
    EXPECT_THAT(leveled("usbMgmt"),
                ElementsAre("1 usbMgmtInit: filename='none'", CHECKING + "5)", CHECKING + "4)", CHECKING + "3)",
                            CHECKING + "2)", CHECKING + "1)", "0 QX_TRACE_USBMGMT-Error getting client file name"));
    EXPECT_THAT(simSleeps(), ElementsAre(500u, 500u, 500u, 500u, 500u)); // after the fifth failure too
    EXPECT_EQ(simOpenNodeFds(), 0);
}

// That a named file skips the platform text and the loader's start-up follows at once is pinned by the system
// test of a whole start's log.
TEST_F(usbMgmtInitTest, namedFileWithoutDeviceNodeEndsAfterTheLoadersSearch)
{
    // An Intel HEX file of the 16 bytes 0, 1, 2 ... at the start of the flash range.
    const std::string hexPath = testing::TempDir() + "usbMgmtInit-" + std::to_string(getpid()) + ".hex";
    std::ofstream(hexPath) << ":020000041D01DC\n:10000000000102030405060708090A0B0C0D0E0F78\n:00000001FF\n";
    nodeMissing = true;
    EXPECT_EQ(usbMgmtInit(hexPath.c_str()), 1);
    unlink(hexPath.c_str());
    EXPECT_THAT(leveled("usbMgmt"),
                ElementsAre("1 usbMgmtInit: filename='" + hexPath + "'", "0 QX_TRACE_USBMGMT-qxUsb Device Error"));
    EXPECT_EQ(leveled("qxLoader").back(),
              "0 QX_TRACE_PRINTF-qxLoaderInit():: Error Finding QX_HID_DEVICE *****************");
    EXPECT_EQ(simOpenNodeFds(), 0);
}

} // namespace
