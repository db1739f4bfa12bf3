#include "sysSeam.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

int __sysOpen(const char *path, int flags, mode_t mode) { return ::open(path, flags, mode); }
int __sysIoctl(int fd, unsigned long request, void *arg) { return ::ioctl(fd, request, arg); }
int __sysSystem(const char *command) { return ::system(command); }

uint64_t __sysMsSince1970()
{
    struct timeval tv = {};
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

} // namespace

const platformSysOps PLATFORM_SYS_LIBC = {
    .open = __sysOpen,
    .access = ::access,
    .close = ::close,
    .ioctl = __sysIoctl,
    .read = ::read,
    .write = ::write,
    .lseek = ::lseek,
    .usleep = ::usleep,
    .system = __sysSystem,
    .select = ::select,
    .msSince1970 = __sysMsSince1970,
    .usbInit = ::usb_init,
    .usbFindBusses = ::usb_find_busses,
    .usbFindDevices = ::usb_find_devices,
    .usbGetBusses = ::usb_get_busses,
    .usbOpen = ::usb_open,
    .usbReset = ::usb_reset,
    .usbClose = ::usb_close,
};

platformSysOps platformSys = PLATFORM_SYS_LIBC;
