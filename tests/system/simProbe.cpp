// The probe: this test binary, started by tarnhold-sim with the probe
// variable set, plays a scripted client of the emulated node instead of
// running tests, so the front end can be checked without the daemon. It
// runs before main and ends the process itself.
#include "systemSupport.h"

#include "qxUsb.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <usb.h>
#include <vector>

namespace {

struct {
    int fd = -1;
    // The blocks the driver reads by address stay here for the whole run.
    std::array<uint8_t, QX_BLOCK_SIZE> programBlock{};
    std::array<uint8_t, QX_BLOCK_SIZE> completeBlock{};
    std::vector<uint8_t> transfer;
} simProbePrivateMembers;

auto &P = simProbePrivateMembers;

std::string __simProbeErr(int err)
{
    switch (err) {
    case EBADF: return "EBADF";
    case ENODEV: return "ENODEV";
    case ENOENT: return "ENOENT";
    case EIO: return "EIO";
    case EAGAIN: return "EAGAIN";
    case EINVAL: return "EINVAL";
    case EFAULT: return "EFAULT";
    case ENOTTY: return "ENOTTY";
    default: return std::to_string(err);
    }
}

std::string __simProbeResult(int rc)
{
    return rc == 0 ? "0" : __simProbeErr(errno);
}

uint32_t __simProbeNumber(std::istringstream &in)
{
    std::string word;
    in >> word;
    return static_cast<uint32_t>(std::strtoul(word.c_str(), nullptr, 0));
}

void __simProbePutLe(uint8_t *p, uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        p[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

int __simProbeIoctl(uint32_t request, picHidIoctlArg &arg)
{
    arg.param = PIC_HID_PARAM;
    return ::ioctl(P.fd, request, &arg);
}

// A code-38 request naming a block by its address, as the loader hands
// the driver its PROGRAM_DEVICE and PROGRAM_COMPLETE packets.
int __simProbeHandOver(uint32_t request, const std::array<uint8_t, QX_BLOCK_SIZE> &block)
{
    picHidIoctlArg arg{};
    arg.report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
    __simProbePutLe(&arg.report[3], request, 4);
    __simProbePutLe(&arg.report[12], reinterpret_cast<uintptr_t>(block.data()), 8);
    return __simProbeIoctl(request, arg);
}

std::string __simProbeUsbReset()
{
    usb_init();
    usb_find_busses();
    usb_find_devices();
    int found = 0;
    std::string last = "-";
    for (usb_bus *bus = usb_get_busses(); bus != nullptr; bus = bus->next) {
        for (struct usb_device *dev = bus->devices; dev != nullptr; dev = dev->next) {
            if (dev->descriptor.idVendor != QX_USB_VENDOR_ID || dev->descriptor.idProduct != QX_USB_PRODUCT_ID) {
                continue;
            }
            ++found;
            usb_dev_handle *handle = usb_open(dev);
            if (handle != nullptr) {
                last = std::to_string(usb_reset(handle));
                usb_close(handle);
            }
        }
    }
    return std::to_string(found) + " " + last;
}

std::string __simProbeControl(const std::string &line)
{
    const char *path = std::getenv("TARNHOLD_SIM_CONTROL");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path == nullptr || std::strlen(path) >= sizeof(addr.sun_path)) {
        return "no control socket";
    }
    std::strcpy(addr.sun_path, path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    std::string reply;
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0) {
        const std::string request = line + "\n";
        if (::write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
            char buffer[512];
            ssize_t n;
            while (reply.find('\n') == std::string::npos && (n = ::read(fd, buffer, sizeof(buffer))) > 0) {
                reply.append(buffer, static_cast<size_t>(n));
            }
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return reply.substr(0, reply.find('\n'));
}

std::string __simProbeStep(const std::string &step)
{
    std::istringstream in(step);
    std::string verb;
    in >> verb;
    if (verb == "open") {
        P.fd = ::open(QX_USB_DEVICE_PATH, O_RDWR);
        return "open " + (P.fd >= 0 ? std::string("ok") : __simProbeErr(errno));
    }
    if (verb == "close") {
        ::close(P.fd);
        P.fd = -1;
        return "close";
    }
    if (verb == "send") {
        picHidIoctlArg arg{};
        arg.report[QX_REPORT_CODE] = static_cast<uint8_t>(__simProbeNumber(in));
        arg.report[QX_REPORT_SEQ] = static_cast<uint8_t>(__simProbeNumber(in));
        return "send " + __simProbeResult(__simProbeIoctl(PIC_HID_SEND_REPORT, arg));
    }
    if (verb == "get") {
        picHidIoctlArg arg{};
        const int rc = __simProbeIoctl(PIC_HID_GET_REPORT, arg);
        if (rc != 0) {
            return "get " + __simProbeErr(errno);
        }
        return "get 0 " + std::to_string(arg.report[0]) + " " + std::to_string(arg.report[1]) + " " +
               std::to_string(arg.report[2]) + " " + std::to_string(arg.report[3]);
    }
    if (verb == "raw") {
        picHidIoctlArg arg{};
        const uint32_t request = __simProbeNumber(in);
        arg.report[QX_REPORT_CODE] = QX_HID_CMD_IO_CMD;
        arg.report[QX_REPORT_SEQ] = static_cast<uint8_t>(__simProbeNumber(in));
        __simProbePutLe(&arg.report[3], request, 4);
        const int rc = ::ioctl(P.fd, request, &arg);
        if (rc != 0) {
            return "raw " + __simProbeErr(errno);
        }
        return "raw 0 " + std::to_string(arg.report[0]) + " " + std::to_string(arg.report[1]) + " " +
               std::to_string(arg.report[2]);
    }
    if (verb == "program") {
        const uint32_t address = __simProbeNumber(in);
        const auto fill = static_cast<uint8_t>(__simProbeNumber(in));
        constexpr uint8_t count = 56;
        P.programBlock.fill(0);
        P.programBlock[0] = PROGRAM_DEVICE;
        __simProbePutLe(&P.programBlock[1], address, 4);
        P.programBlock[5] = count;
        std::fill(P.programBlock.begin() + QX_REPORT_SIZE - count, P.programBlock.begin() + QX_REPORT_SIZE, fill);
        return "program " + __simProbeResult(__simProbeHandOver(PIC_HID_PIC32_PROGRAM, P.programBlock));
    }
    if (verb == "complete") {
        P.completeBlock.fill(0);
        P.completeBlock[0] = PROGRAM_COMPLETE;
        return "complete " + __simProbeResult(__simProbeHandOver(PIC_HID_PIC32_PROGRAM_DONE, P.completeBlock));
    }
    if (verb == "xfer") {
        const uint32_t len = __simProbeNumber(in);
        P.transfer.resize(len);
        for (uint32_t i = 0; i < len; ++i) {
            P.transfer[i] = static_cast<uint8_t>(i * 7);
        }
        picHidIoctlArg arg{};
        arg.report[QX_REPORT_CODE] = QX_HID_CMD_FILE_TRANSFER_TEST;
        arg.xferLen = len;
        arg.xferBuf = reinterpret_cast<uintptr_t>(P.transfer.data());
        return "xfer " + __simProbeResult(__simProbeIoctl(PIC_HID_FILE_TRANSFER_TEST, arg));
    }
    if (verb == "usb-reset") {
        return "usb " + __simProbeUsbReset();
    }
    if (verb == "system") {
        const int status = std::system(step.substr(step.find(' ') + 1).c_str());
        return "system " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    }
    if (verb == "ctl") {
        return "ctl " + __simProbeControl(step.substr(step.find(' ') + 1));
    }
    return "unknown step " + verb;
}

__attribute__((constructor)) void __simProbeMain()
{
    const char *script = std::getenv(SYSTEM_PROBE_ENV);
    if (script == nullptr) {
        return;
    }
    std::istringstream steps(script);
    std::string step;
    while (std::getline(steps, step, ';')) {
        while (!step.empty() && step.front() == ' ') {
            step.erase(0, 1);
        }
        if (!step.empty()) {
            std::printf("%s\n", __simProbeStep(step).c_str());
            std::fflush(stdout);
        }
    }
    std::_Exit(0);
}

} // namespace
