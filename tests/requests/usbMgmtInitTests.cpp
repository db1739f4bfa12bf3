// Device management start-up on the simulated appliance: the firmware file
// from the command line or from the platform text, its tries and waits, and
// the hand-over to the loader's start-up upgrade.
#include "logCapture.h"
#include "qxFile.h"
#include "qxLoader.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "sysSeam.h"
#include "usbMgmt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

using ::testing::ElementsAre;

namespace {

// The device node can be made to stay away, whatever the model does.
platformSysOps simOps;
bool nodeMissing = false;

int openUnlessMissing(const char *path, int flags, mode_t mode)
{
    if (nodeMissing && strcmp(path, QX_USB_DEVICE_PATH) == 0) {
        errno = ENOENT;
        return -1;
    }
    return simOps.open(path, flags, mode);
}

// An Intel HEX file with `len` bytes at the start of the flash range.
std::string writeHexFile(size_t len)
{
    const std::string path = testing::TempDir() + "usbMgmtInit-" + std::to_string(getpid()) + ".hex";
    FILE *f = fopen(path.c_str(), "w");
    EXPECT_NE(f, nullptr);
    fprintf(f, ":020000041D01DC\n");
    for (size_t off = 0; off < len; off += 16) {
        uint32_t sum = 16 + ((off >> 8) & 0xFF) + (off & 0xFF);
        fprintf(f, ":10%04X00", static_cast<unsigned>(off));
        for (size_t i = 0; i < 16; ++i) {
            const uint8_t b = static_cast<uint8_t>(off + i * 3);
            fprintf(f, "%02X", b);
            sum += b;
        }
        fprintf(f, "%02X\n", static_cast<unsigned>(-sum & 0xFF));
    }
    fprintf(f, ":00000001FF\n");
    fclose(f);
    return path;
}

class usbMgmtInitTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        simOps = platformSys;
        platformSys.open = openUnlessMissing;
        nodeMissing = false;
        qxFileReset();
        log.clear();
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
        if (!hexPath.empty()) {
            unlink(hexPath.c_str());
        }
    }

    std::vector<std::string> mgmtLines() const
    {
        std::vector<std::string> out;
        for (const auto &l : logCapture::lines()) {
            if (l.source == "usbMgmt") {
                out.push_back(l.text);
            }
        }
        return out;
    }

    int levelOf(const std::string &text) const
    {
        for (const auto &l : logCapture::lines()) {
            if (l.text == text) {
                return l.level;
            }
        }
        return -1;
    }

    static size_t countEvents(simEventKind kind)
    {
        size_t n = 0;
        for (const simEvent &e : simEvents()) {
            n += e.kind == kind ? 1 : 0;
        }
        return n;
    }

    std::string hexPath;
    logCapture log;
};

TEST_F(usbMgmtInitTest, namedFileIsLoadedWithoutAskingThePlatform)
{
    hexPath = writeHexFile(256);
    // The microcontroller already runs that image.
    std::vector<uint8_t> image(256);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<uint8_t>((i & ~size_t{15}) + (i & 15) * 3);
    }
    simInstallApplication(image, 256);
    simSetPlatformText("HW=TORVA_2X");

    EXPECT_EQ(usbMgmtInit(hexPath.c_str()), 0);
    EXPECT_THAT(mgmtLines(), ElementsAre("usbMgmtInit: filename='" + hexPath + "'"));
    EXPECT_EQ(levelOf("usbMgmtInit: filename='" + hexPath + "'"), 1);
    // The loader's start-up follows directly: its pass opens the link first.
    ASSERT_FALSE(logCapture::lines().empty());
    size_t firstLoader = 0;
    while (logCapture::lines()[firstLoader].source != "qxLoader") {
        ++firstLoader;
    }
    EXPECT_EQ(logCapture::lines()[firstLoader].text, "qxLoaderInit: forceUpgrade=0");
    EXPECT_EQ(countEvents(simEventKind::OPEN), 1u);
    // Left open for the request loop.
    EXPECT_GE(qxUsbGetState().fd, 0);
    EXPECT_EQ(simOpenNodeFds(), 1);
}

TEST_F(usbMgmtInitTest, platformTextIsTriedAgainAfterHalfAMillisecond)
{
    // The first try's exchange fails, the second finds "HW=BRISKA".
    simFailIoctl(PIC_HID_SEND_REPORT, EIO, 1);
    EXPECT_EQ(usbMgmtInit(nullptr), QX_FILE_ERROR);
    EXPECT_THAT(mgmtLines(), ElementsAre("usbMgmtInit: filename='none'",
                                         "QX_TRACE_USBMGMT-Checking for client file name (retries=5)",
                                         "QX_TRACE_USBMGMT-Checking for client file name (retries=4)",
                                         "usbMgmtInit: found filename='/usr/sbin/briska-pic-client.hex'",
                                         "QX_TRACE_USBMGMT-/usr/sbin/briska-pic-client.hex file Error"));
    EXPECT_EQ(levelOf("QX_TRACE_USBMGMT-Checking for client file name (retries=5)"), 0);
    EXPECT_EQ(levelOf("usbMgmtInit: found filename='/usr/sbin/briska-pic-client.hex'"), 1);
    EXPECT_EQ(levelOf("QX_TRACE_USBMGMT-/usr/sbin/briska-pic-client.hex file Error"), 0);
    EXPECT_THAT(simSleeps(), ElementsAre(500u));
    EXPECT_EQ(qxLoaderGetPlatform(), 1);
    // The link was closed before the file was loaded.
    EXPECT_EQ(simOpenNodeFds(), 0);
    EXPECT_EQ(countEvents(simEventKind::OPEN), 1u);
}

TEST_F(usbMgmtInitTest, unknownPlatformGivesFiveTriesThenFails)
{
    simSetPlatformText("HW=NOWHERE");
    EXPECT_EQ(usbMgmtInit(nullptr), -1);
    EXPECT_THAT(mgmtLines(), ElementsAre("usbMgmtInit: filename='none'",
                                         "QX_TRACE_USBMGMT-Checking for client file name (retries=5)",
                                         "QX_TRACE_USBMGMT-Checking for client file name (retries=4)",
                                         "QX_TRACE_USBMGMT-Checking for client file name (retries=3)",
                                         "QX_TRACE_USBMGMT-Checking for client file name (retries=2)",
                                         "QX_TRACE_USBMGMT-Checking for client file name (retries=1)",
                                         "QX_TRACE_USBMGMT-Error getting client file name"));
    EXPECT_EQ(levelOf("QX_TRACE_USBMGMT-Error getting client file name"), 0);
    // 2.5 ms of waits in all, the fifth failure included.
    EXPECT_THAT(simSleeps(), ElementsAre(500u, 500u, 500u, 500u, 500u));
    EXPECT_EQ(simVirtualNowUs(), 2500u);
    EXPECT_EQ(simOpenNodeFds(), 0);
}

TEST_F(usbMgmtInitTest, missingNamedFileFailsBeforeTheDeviceIsTouched)
{
    EXPECT_EQ(usbMgmtInit("/nonexistent/firmware.hex"), QX_FILE_ERROR);
    EXPECT_THAT(mgmtLines(), ElementsAre("usbMgmtInit: filename='/nonexistent/firmware.hex'",
                                         "QX_TRACE_USBMGMT-/nonexistent/firmware.hex file Error"));
    EXPECT_EQ(countEvents(simEventKind::OPEN), 0u);
    EXPECT_EQ(countEvents(simEventKind::OPEN_FAILED), 0u);
    EXPECT_TRUE(simSleeps().empty());
}

TEST_F(usbMgmtInitTest, missingDeviceFailsEitherWay)
{
    // Without a file: the search gives up, nothing else is tried.
    nodeMissing = true;
    EXPECT_EQ(usbMgmtInit(nullptr), 1);
    EXPECT_THAT(mgmtLines(),
                ElementsAre("usbMgmtInit: filename='none'", "QX_TRACE_USBMGMT-Error finding USB device"));
    EXPECT_EQ(levelOf("QX_TRACE_USBMGMT-Error finding USB device"), 0);

    // With a file: the loader's own search gives up.
    hexPath = writeHexFile(64);
    log.clear();
    EXPECT_EQ(usbMgmtInit(hexPath.c_str()), 1);
    EXPECT_THAT(mgmtLines(), ElementsAre("usbMgmtInit: filename='" + hexPath + "'",
                                         "QX_TRACE_USBMGMT-qxUsb Device Error"));
    EXPECT_EQ(qxUsbGetState().fd, -1);
}

} // namespace
