// The real tarnhold inside tarnhold-sim, each test in a mount namespace of its own: relays, the codes answered
// while the microcontroller is gone, and the start-up upgrade, whose long fixed waits run under libfaketime.
#include "systemSupport.h"

#include "simAppliance.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <tuple>

namespace {

using strings = std::vector<std::string>;
using ::testing::Contains;

// Runs a start that upgrades once in `passes` passes up to the application's first answer; flash then holds
// the image and slot 4 its length and MD5 as the service stores them.
void expectUpgradeEnds(daemonHarness &daemon, const strings &simArgs, size_t passes)
{
    ASSERT_TRUE(systemServe(daemon, simArgs));
    EXPECT_EQ(systemRequest(daemon, 9).resp[3], 17);
    EXPECT_EQ(systemExitStatus(daemon, SIGTERM), 0);
    const strings log = daemon.logTexts("qxLoader");
    EXPECT_THAT(log, Contains("qxLoaderInit: forceUpgrade=0").Times(passes));
    EXPECT_THAT(log, Contains("QX_TRACE_PRINTF-Upgrading HID Application.....").Times(1));

    std::vector<uint8_t> image(0x1010, 0xFF);
    std::iota(image.begin(), image.begin() + 16, 0);
    std::iota(image.end() - 16, image.end(), 16);
    simReset();
    simInstallApplication(image, 0x1040);
    auto slot4 = [] {
        const simSlot s = simGetSlot(4);
        return std::tuple(s.word0, s.word1, s.len, std::vector<uint8_t>(s.data, s.data + 16));
    };
    const auto expected = slot4();
    const std::vector<uint8_t> flash(simFlash().begin(), simFlash().end());
    simReset();
    ASSERT_TRUE(simLoadState(SYSTEM_STATE));
    EXPECT_TRUE(std::equal(flash.begin(), flash.end(), simFlash().begin()));
    EXPECT_EQ(slot4(), expected);
}

TEST(tarnholdSystemRelay, relaysCarryTheSequenceNumberUsedCode38ReachesTheDriverUntouchedAndHostHeldCodesNeedNoNode)
{
    daemonHarness daemon;
    ASSERT_TRUE(systemPrepare() && systemServe(daemon, {"--flash-image", SYSTEM_APP_HEX}));
    const usbDaemonRequest info = systemRequest(daemon, 9);
    const usbDaemonRequest leds = systemRequest(daemon, 24);
    for (const usbDaemonRequest &r : {info, leds}) {
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.resp[0], r.cmd[0]);
        EXPECT_EQ(r.resp[1], r.cmd[1]);
        EXPECT_TRUE(std::all_of(r.resp.begin() + 64, r.resp.end(), [](uint8_t b) { return b == 0; }));
    }
    EXPECT_EQ(leds.cmd[1], static_cast<uint8_t>(info.cmd[1] + 1));

    usbDaemonRequest io = daemonHarnessRecord(38);
    io.cmd[1] = 0x5A;
    io.cmd[3] = 0x04; // PIC_HID_FPGA_UPGRADE_SETUP, 0x00004804
    io.cmd[4] = 0x48;
    io.cmd[20] = 0x77;
    io.resp.fill(0xEE);
    const usbDaemonRequest sent = io;
    ASSERT_EQ(daemon.exchange(io), 0);
    EXPECT_EQ(io.result, 0);
    EXPECT_EQ(io.cmd, sent.cmd); // no sequence number of the service's own
    EXPECT_EQ(io.resp, sent.resp);
    io.cmd[3] = 0x7F; // a request number the driver does not know fails there
    ASSERT_EQ(daemon.exchange(io), 0);
    EXPECT_EQ(io.result, -1);

    // Unplugged: relays fail, the codes the host holds still answer.
    ASSERT_TRUE(systemControl("unplug"));
    EXPECT_EQ(systemRequest(daemon, 9).result, -1);
    usbDaemonRequest held{};
    for (uint8_t code : {30, 32}) { // force bay 3 to shut down, read its indicator
        held = daemonHarnessRecord(code);
        held.cmd[3] = 3;
        ASSERT_EQ(daemon.exchange(held), 0);
        EXPECT_EQ(held.result, 0) << int{code};
    }
    EXPECT_EQ(std::vector<uint8_t>(held.resp.begin() + 2, held.resp.begin() + 5), (std::vector<uint8_t>{0, 3, 1}));
    // Back in: the dead descriptor keeps failing until the fifteenth failure in a row (the unknown request
    // number's and the one while unplugged among them) re-opens the node; the request after that goes through.
    ASSERT_TRUE(systemControl("plug"));
    int failures = 0;
    usbDaemonRequest record{};
    while (failures < 20 && (record = systemRequest(daemon, 9)).result != 0) {
        ++failures;
    }
    EXPECT_EQ(failures, 13);
    EXPECT_EQ(record.resp[1], record.cmd[1]);
    EXPECT_THAT(daemon.logTexts("qxUsb"), Contains("qxUsbCmd: re-opening device file (errCnt=15)").Times(1));
    ASSERT_EQ(systemExitStatus(daemon, SIGTERM), 0);

    // On the wire each went once, with the number the client got back.
    const std::string events = daemonHarnessReadFile(SYSTEM_EVENTS);
    for (const std::string &event : {"SEND code=9 seq=" + std::to_string(info.cmd[1]) + " ",
                                     "SEND code=24 seq=" + std::to_string(leds.cmd[1]) + " ",
                                     std::string("DRIVER code=38 seq=90 request=0x00004804 ")}) {
        EXPECT_EQ(systemCountLines(events, event), 1u) << event << events;
    }
}

TEST(tarnholdSystemUpgrade, anotherImageOrTheBootloaderEndsWithTheImageInstalled)
{
    struct upgradeCase { const char *mode; size_t passes; size_t toBootloader; };
    for (const upgradeCase &c : {upgradeCase{"app", 3, 1}, upgradeCase{"boot", 2, 0}}) {
        SCOPED_TRACE(c.mode);
        ASSERT_TRUE(systemPrepare());
        daemonHarness daemon;
        expectUpgradeEnds(daemon, {"--faketime", SYSTEM_FAST, "--state", SYSTEM_STATE, "--mode", c.mode}, c.passes);
        // Every switch goes through rmmod, the USB port reset through libusb and modprobe.
        const std::string events = daemonHarnessReadFile(SYSTEM_EVENTS);
        const size_t resets = c.toBootloader + 1;
        for (const auto &[kind, n] : std::vector<std::pair<const char *, size_t>>{
                 {"GOTO_BOOTLOADER ", c.toBootloader}, {"RMMOD ", resets}, {"USB_RESET ", resets},
                 {"MODPROBE ", resets}, {"ERASE ", 1}, {"PROGRAM ", 2}, {"GOTO_APPLICATION ", 1}}) {
            EXPECT_EQ(systemCountLines(events, kind), n) << kind;
        }
    }
}

TEST(tarnholdSystemUpgrade, powerLostWhileProgrammingIsRepairedByTheNextStart)
{
    ASSERT_TRUE(systemPrepare());
    {
        // The erase and the first packet get through; then the appliance, host and all, goes dark.
        daemonHarness daemon;
        ASSERT_TRUE(daemon.start(systemOnSim({"--faketime", SYSTEM_FAST, "--state", SYSTEM_STATE, "--mode", "boot",
                                              "--fault", "host-power-loss:2"},
                                             {"--file", SYSTEM_APP_HEX})));
        EXPECT_EQ(systemExitStatus(daemon), 128 + SIGKILL);
        simReset();
        ASSERT_TRUE(simLoadState(SYSTEM_STATE));
        EXPECT_EQ(simFlash()[15], 15);
        EXPECT_TRUE(std::all_of(simFlash().begin() + 16, simFlash().end(), [](uint8_t b) { return b == 0xFF; }));
    }
    // Back in its bootloader: programmed in the first pass, done in the second.
    daemonHarness daemon;
    expectUpgradeEnds(daemon, {"--faketime", SYSTEM_FAST, "--state", SYSTEM_STATE}, 2);
}

TEST(tarnholdSystemStartup, noDeviceNodeOrNoFirmwareFileEndsWithStatusOne)
{
    daemonHarness daemon;
    ASSERT_TRUE(systemPrepare() && daemon.start(systemOnSim({"--faketime", SYSTEM_FAST, "--no-node"}, {})));
    EXPECT_EQ(systemExitStatus(daemon), 1);
    strings log = daemon.logTexts();
    const char *noNode = "qxUsbInit: Failed to open '/dev/corvanta_hid_backdoor' - 'No such file or directory'";
    EXPECT_THAT(log, Contains(noNode).Times(24));
    EXPECT_THAT(log, Contains("__qxLoaderFindUsbDev: resetting USB device").Times(1));
    EXPECT_THAT(log, Contains("usbMgmtInit: failed").Times(1));

    // A missing firmware file fails before the device is touched.
    daemonHarness missing;
    ASSERT_TRUE(systemPrepare() && missing.start(systemOnSim({}, {"--file", "/tmp/missing.hex"})));
    EXPECT_EQ(systemExitStatus(missing), 1);
    log = missing.logTexts();
    EXPECT_THAT(log, Contains("QX_TRACE_USBMGMT-/tmp/missing.hex file Error").Times(1));
    EXPECT_THAT(log, Contains("usbMgmtInit: failed").Times(1));
    EXPECT_EQ(daemonHarnessReadFile(SYSTEM_EVENTS), ""); // not one open of the node
}

} // namespace
