// In-process front end: the seam's device node, I2C bus, module commands,
// libusb, sleeps, select and clock go to the model and to virtual time; everything
// else goes to the real system.
#include "simInProcess.h"

#include "qxUsb.h"
#include "simAppliance.h"
#include "simI2c.h"
#include "sysSeam.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/select.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr int SIM_FD_BASE = 1000;
constexpr int SIM_FD_COUNT = 16; // stays below FD_SETSIZE so select can name them

constexpr uint16_t SIM_OTHER_VENDOR = 0x1D6B; // a root hub, to be walked past
constexpr uint16_t SIM_OTHER_PRODUCT = 0x0002;

struct {
    uint64_t nowUs = 0;
    std::vector<uint64_t> sleeps;
    std::vector<std::string> commands;
    std::array<int, SIM_FD_COUNT> handles{}; // model handle per fd, -1 when free

    bool usbListed = true;
    bool usbOpenable = true;
    int usbResetError = 0;
    struct usb_bus bus {};
    std::array<struct usb_device, 2> devices{};
    char usbHandle = 0; // its address is the fake usb_dev_handle
} simInProcessPrivateMembers;

auto &inProcess = simInProcessPrivateMembers;

uint64_t __simInProcessNowUs()
{
    return inProcess.nowUs;
}

// The daemon is our own process: its addresses are ours. Read them the way
// the kernel would, so that a bad address fails (EFAULT) instead of crashing.
bool __simInProcessReadMemory(void *, uint64_t address, void *dst, size_t len)
{
    if (len == 0) {
        return true;
    }
    if (address == 0) {
        return false;
    }
    struct iovec local = {dst, len};
    struct iovec remote = {reinterpret_cast<void *>(static_cast<uintptr_t>(address)), len};
    const ssize_t n = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    if (n == static_cast<ssize_t>(len)) {
        return true;
    }
    if (n < 0 && (errno == ENOSYS || errno == EPERM)) {
        // Not allowed here (seccomp): trust the address as the driver's caller does.
        std::memcpy(dst, remote.iov_base, len);
        return true;
    }
    return false;
}

constexpr simMemReader SIM_IN_PROCESS_MEM = {__simInProcessReadMemory, nullptr};

bool __simInProcessIsSimFd(int fd)
{
    return fd >= SIM_FD_BASE && fd < SIM_FD_BASE + SIM_FD_COUNT;
}

int __simInProcessHandleOf(int fd)
{
    return __simInProcessIsSimFd(fd) ? inProcess.handles[static_cast<size_t>(fd - SIM_FD_BASE)] : -1;
}

int __simInProcessAccess(const char *path, int mode)
{
    if (std::strcmp(path, QX_USB_DEVICE_PATH) != 0) {
        return PLATFORM_SYS_LIBC.access(path, mode);
    }
    if (!simNodePresent()) {
        errno = ENOENT;
        return -1;
    }
    return 0;
}

int __simInProcessOpen(const char *path, int flags, mode_t mode)
{
    if (std::strcmp(path, SIM_I2C_BUS_PATH) == 0) {
        return simI2cInProcessOpen();
    }
    if (std::strcmp(path, QX_USB_DEVICE_PATH) != 0) {
        return PLATFORM_SYS_LIBC.open(path, flags, mode);
    }
    for (size_t i = 0; i < inProcess.handles.size(); ++i) {
        if (inProcess.handles[i] >= 0) {
            continue;
        }
        const int handle = simDriverOpenHandle();
        if (handle < 0) {
            errno = -handle;
            return -1;
        }
        inProcess.handles[i] = handle;
        return SIM_FD_BASE + static_cast<int>(i);
    }
    errno = EMFILE;
    return -1;
}

int __simInProcessClose(int fd)
{
    if (simI2cInProcessIsFd(fd)) {
        return simI2cInProcessClose(fd);
    }
    if (!__simInProcessIsSimFd(fd)) {
        return PLATFORM_SYS_LIBC.close(fd);
    }
    const int handle = __simInProcessHandleOf(fd);
    if (handle < 0) {
        errno = EBADF;
        return -1;
    }
    simDriverCloseHandle(handle);
    inProcess.handles[static_cast<size_t>(fd - SIM_FD_BASE)] = -1;
    return 0;
}

int __simInProcessIoctl(int fd, unsigned long request, void *arg)
{
    if (simI2cInProcessIsFd(fd)) {
        return simI2cInProcessIoctl(fd, request, arg);
    }
    if (!__simInProcessIsSimFd(fd)) {
        return PLATFORM_SYS_LIBC.ioctl(fd, request, arg);
    }
    const int handle = __simInProcessHandleOf(fd);
    if (handle < 0) {
        errno = EBADF;
        return -1;
    }
    const int rc = simDriverIoctlHandle(handle, static_cast<uint32_t>(request), arg, SIM_IN_PROCESS_MEM);
    if (rc < 0) {
        errno = -rc;
        return -1;
    }
    return 0;
}

// The driver offers no read or write on its node.
ssize_t __simInProcessNoTransfer(int fd)
{
    errno = __simInProcessHandleOf(fd) < 0 ? EBADF : EINVAL;
    return -1;
}

ssize_t __simInProcessRead(int fd, void *buf, size_t len)
{
    return __simInProcessIsSimFd(fd) ? __simInProcessNoTransfer(fd) : PLATFORM_SYS_LIBC.read(fd, buf, len);
}

ssize_t __simInProcessWrite(int fd, const void *buf, size_t len)
{
    return __simInProcessIsSimFd(fd) ? __simInProcessNoTransfer(fd) : PLATFORM_SYS_LIBC.write(fd, buf, len);
}

int __simInProcessUsleep(useconds_t usec)
{
    inProcess.sleeps.push_back(usec);
    inProcess.nowUs += usec;
    return 0;
}

int __simInProcessSystem(const char *command)
{
    inProcess.commands.emplace_back(command != nullptr ? command : "");
    if (inProcess.commands.back() == "rmmod picdev") {
        simModuleUnload();
    } else if (inProcess.commands.back() == "modprobe picdev") {
        simModuleLoad();
    }
    return 0;
}

// Real descriptors are polled without waiting; when none is ready the wait
// passes in virtual time. The node's own descriptors are never readable.
int __simInProcessSelect(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout)
{
    fd_set *sets[3] = {readfds, writefds, exceptfds};
    fd_set copies[3];
    int realNfds = 0;
    for (int s = 0; s < 3; ++s) {
        FD_ZERO(&copies[s]);
        if (sets[s] == nullptr) {
            continue;
        }
        for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd) {
            if (FD_ISSET(fd, sets[s]) && !__simInProcessIsSimFd(fd)) {
                FD_SET(fd, &copies[s]);
                realNfds = fd + 1 > realNfds ? fd + 1 : realNfds;
            }
        }
    }
    struct timeval zero = {0, 0};
    const int ready = PLATFORM_SYS_LIBC.select(realNfds, &copies[0], &copies[1], &copies[2], &zero);
    if (ready != 0) {
        if (ready > 0) {
            for (int s = 0; s < 3; ++s) {
                if (sets[s] != nullptr) {
                    *sets[s] = copies[s];
                }
            }
        }
        return ready;
    }
    for (fd_set *set : sets) {
        if (set != nullptr) {
            FD_ZERO(set);
        }
    }
    if (timeout == nullptr) {
        // Nothing will ever come: never block a test.
        errno = EINTR;
        return -1;
    }
    inProcess.nowUs += static_cast<uint64_t>(timeout->tv_sec) * 1000000u + static_cast<uint64_t>(timeout->tv_usec);
    *timeout = {0, 0};
    return 0;
}

uint64_t __simInProcessMsSince1970()
{
    return SIM_WALL_CLOCK_START_MS + inProcess.nowUs / 1000u;
}

void __simInProcessUsbInit() {}

int __simInProcessUsbFindBusses()
{
    return 1;
}

int __simInProcessUsbFindDevices()
{
    return inProcess.usbListed ? static_cast<int>(inProcess.devices.size()) : 0;
}

struct usb_bus *__simInProcessUsbGetBusses()
{
    return inProcess.usbListed ? &inProcess.bus : nullptr;
}

usb_dev_handle *__simInProcessUsbOpen(struct usb_device *dev)
{
    if (dev != &inProcess.devices[0] || !inProcess.usbOpenable) {
        return nullptr;
    }
    return reinterpret_cast<usb_dev_handle *>(&inProcess.usbHandle);
}

int __simInProcessUsbReset(usb_dev_handle *handle)
{
    if (handle != reinterpret_cast<usb_dev_handle *>(&inProcess.usbHandle)) {
        return -EINVAL;
    }
    if (inProcess.usbResetError != 0) {
        return -inProcess.usbResetError;
    }
    simUsbReset();
    return 0;
}

int __simInProcessUsbClose(usb_dev_handle *)
{
    return 0;
}

void __simInProcessBuildBus()
{
    inProcess.bus = {};
    inProcess.devices = {};
    std::strcpy(inProcess.bus.dirname, "001");
    for (size_t i = 0; i < inProcess.devices.size(); ++i) {
        struct usb_device &d = inProcess.devices[i];
        d.bus = &inProcess.bus;
        d.devnum = static_cast<uint8_t>(i + 2);
        std::snprintf(d.filename, sizeof(d.filename), "%03u", static_cast<unsigned>(d.devnum));
        d.prev = i > 0 ? &inProcess.devices[i - 1] : nullptr;
        d.next = i + 1 < inProcess.devices.size() ? &inProcess.devices[i + 1] : nullptr;
    }
    // The unrelated device shares a field with ours: only both together match.
    inProcess.devices[0].descriptor.idVendor = QX_USB_VENDOR_ID;
    inProcess.devices[0].descriptor.idProduct = QX_USB_PRODUCT_ID;
    inProcess.devices[1].descriptor.idVendor = SIM_OTHER_VENDOR;
    inProcess.devices[1].descriptor.idProduct = SIM_OTHER_PRODUCT;
    inProcess.bus.devices = &inProcess.devices[0];
}

// Paths clients name are the host's, never the model's nodes.
int __simInProcessOpenNoLinks(const char *path, int flags, mode_t mode)
{
    return PLATFORM_SYS_LIBC.openNoLinks(path, flags, mode);
}

// The controller's search is udev's (a umockdev testbed's under the tests).
int __simInProcessFindPci(const char *vendor, const char *device, char *sysPath, size_t size)
{
    return PLATFORM_SYS_LIBC.findPciDevice(vendor, device, sysPath, size);
}

constexpr platformSysOps SIM_IN_PROCESS_OPS = {
    .open = __simInProcessOpen,
    .openNoLinks = __simInProcessOpenNoLinks,
    .access = __simInProcessAccess,
    .close = __simInProcessClose,
    .ioctl = __simInProcessIoctl,
    .read = __simInProcessRead,
    .write = __simInProcessWrite,
    .lseek = ::lseek, // the controller's configuration file is a real file (a umockdev testbed's sysfs)
    .stat = ::stat,
    .fstat = ::fstat,
    .usleep = __simInProcessUsleep,
    .system = __simInProcessSystem,
    .select = __simInProcessSelect,
    .msSince1970 = __simInProcessMsSince1970,
    .monotonicUs = __simInProcessNowUs,
    .findPciDevice = __simInProcessFindPci,
    .usbInit = __simInProcessUsbInit,
    .usbFindBusses = __simInProcessUsbFindBusses,
    .usbFindDevices = __simInProcessUsbFindDevices,
    .usbGetBusses = __simInProcessUsbGetBusses,
    .usbOpen = __simInProcessUsbOpen,
    .usbReset = __simInProcessUsbReset,
    .usbClose = __simInProcessUsbClose,
};

} // namespace

void simInProcessInstall()
{
    inProcess.nowUs = 0;
    inProcess.sleeps.clear();
    inProcess.commands.clear();
    inProcess.handles.fill(-1);
    inProcess.usbListed = true;
    inProcess.usbOpenable = true;
    inProcess.usbResetError = 0;
    __simInProcessBuildBus();
    simSetClock(__simInProcessNowUs);
    simReset();
    simI2cReset();
    platformSys = SIM_IN_PROCESS_OPS;
}

void simInProcessUninstall()
{
    platformSys = PLATFORM_SYS_LIBC;
    simSetClock(nullptr);
}

uint64_t simVirtualNowUs()
{
    return inProcess.nowUs;
}

void simAdvanceUs(uint64_t us)
{
    inProcess.nowUs += us;
}

const std::vector<uint64_t> &simSleeps()
{
    return inProcess.sleeps;
}

void simClearSleeps()
{
    inProcess.sleeps.clear();
}

void simClearCommands()
{
    inProcess.commands.clear();
}

const std::vector<std::string> &simCommands()
{
    return inProcess.commands;
}

void simSetUsbDevice(bool listed, bool openable)
{
    inProcess.usbListed = listed;
    inProcess.usbOpenable = openable;
}

void simSetUsbResetError(int err)
{
    inProcess.usbResetError = err;
}

int simOpenNodeFds()
{
    int n = 0;
    for (int h : inProcess.handles) {
        n += h >= 0 ? 1 : 0;
    }
    return n;
}
