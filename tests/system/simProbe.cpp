// The probe: this test binary, run inside tarnhold-sim with SYSTEM_PROBE_ARG, plays a client of the emulated node
// for what the daemon does not reach: the driver reading a large buffer by its address, and the node dying with
// its module. It runs before main and ends the process.
#include "systemSupport.h"

#include "qxUsb.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/ioctl.h>
#include <sys/wait.h>

namespace {

std::string __simProbeOpen(uniqueFd &fd)
{
    fd = uniqueFd(::open(QX_USB_DEVICE_PATH, O_RDWR | O_CLOEXEC));
    return std::string("open ") + (fd.valid() ? "0" : strerrorname_np(errno));
}

// The file-transfer test request: the driver reads xferLen bytes at xferBuf.
std::string __simProbeTransfer(const uniqueFd &fd, std::vector<uint8_t> &&buffer)
{
    picHidIoctlArg arg{};
    arg.report[QX_REPORT_CODE] = QX_HID_CMD_FILE_TRANSFER_TEST;
    arg.param = PIC_HID_PARAM;
    arg.xferLen = static_cast<uint32_t>(buffer.size());
    arg.xferBuf = reinterpret_cast<uintptr_t>(buffer.data());
    const int rc = ::ioctl(fd.get(), PIC_HID_FILE_TRANSFER_TEST, &arg);
    return std::string("xfer ") + (rc == 0 ? "0" : strerrorname_np(errno));
}

std::string __simProbeRun(const std::string &command)
{
    const int status = std::system(command.c_str());
    return command + " " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

// glibc hands constructors the program's arguments.
__attribute__((constructor)) void __simProbeMain(int argc, char **argv)
{
    if (argc < 2 || std::strcmp(argv[1], SYSTEM_PROBE_ARG) != 0) {
        return;
    }
    uniqueFd before;
    uniqueFd after;
    std::string steps = "probe:";
    for (const std::string &step :
         {__simProbeOpen(before), __simProbeTransfer(before, std::vector<uint8_t>(100000, 0x5A)),
          __simProbeRun("rmmod picdev"), __simProbeTransfer(before, std::vector<uint8_t>(8)), __simProbeOpen(after),
          __simProbeRun("modprobe picdev"), __simProbeOpen(after), __simProbeTransfer(after, {0})}) {
        steps += " " + step + ";";
    }
    std::fprintf(stderr, "%s\n", steps.c_str());
    std::_Exit(0);
}

TEST(tarnholdSimNode, driverReadsTheCallersBufferAndTheNodeDiesWithItsModule)
{
    ASSERT_EQ(daemonHarnessIsolate(), "");
    daemonHarnessCommand command = systemOnSim({}, {SYSTEM_PROBE_ARG});
    command.binary = std::filesystem::read_symlink("/proc/self/exe");
    daemonHarness probe;
    EXPECT_EQ(probe.runToEnd(command, 60000), 0);
    // rmmod kills the open descriptor and the node; modprobe brings the node back. What the driver reads from a
    // caller's buffer is pinned by the file-transfer system test.
    EXPECT_NE(probe.stderrText().find("probe: open 0; xfer 0; rmmod picdev 0; xfer ENODEV; open ENOENT; "
                                      "modprobe picdev 0; open 0; xfer 0;\n"),
              std::string::npos)
        << probe.stderrText();
}

} // namespace
