#include "sysSeam.h"

#include "daemonNotify.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <time.h>
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

uint64_t __sysMonotonicUs()
{
    struct timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
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
    .monotonicUs = __sysMonotonicUs,
    .usbInit = ::usb_init,
    .usbFindBusses = ::usb_find_busses,
    .usbFindDevices = ::usb_find_devices,
    .usbGetBusses = ::usb_get_busses,
    .usbOpen = ::usb_open,
    .usbReset = ::usb_reset,
    .usbClose = ::usb_close,
};

platformSysOps platformSys = PLATFORM_SYS_LIBC;

int platformSysSleep(useconds_t us)
{
    daemonNotifyWatchdog();
    const uint64_t slice = daemonNotifyWatchdogSliceUs();
    while (slice != 0 && us > slice) {
        platformSys.usleep(static_cast<useconds_t>(slice));
        us -= static_cast<useconds_t>(slice);
        daemonNotifyWatchdog();
    }
    const int rc = platformSys.usleep(us);
    daemonNotifyWatchdog();
    return rc;
}
