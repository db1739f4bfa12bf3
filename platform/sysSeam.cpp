#include "sysSeam.h"

#include "daemonNotify.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libudev.h>
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

int __sysStat(const char *path, struct stat *st) { return ::stat(path, st); }
int __sysFstat(int fd, struct stat *st) { return ::fstat(fd, st); }

// Substring tests on the texts as sysfs gives them: "0x12D8" is not "12d8".
int __sysFindPciDevice(const char *vendor, const char *device, char *sysPath, size_t size)
{
    udev *context = udev_new();
    if (context == nullptr) {
        printf("Cannot create udev\n");
        fflush(stdout);
        return -2;
    }
    int rc = -1;
    udev_enumerate *enumerate = udev_enumerate_new(context);
    if (enumerate != nullptr) {
        udev_enumerate_add_match_subsystem(enumerate, "pci");
        udev_enumerate_scan_devices(enumerate);
        // Every match is printed; the last one in enumeration order stays.
        for (udev_list_entry *entry = udev_enumerate_get_list_entry(enumerate); entry != nullptr;
             entry = udev_list_entry_get_next(entry)) {
            const char *path = udev_list_entry_get_name(entry);
            udev_device *dev = udev_device_new_from_syspath(context, path);
            if (dev == nullptr) {
                continue;
            }
            const char *v = udev_device_get_sysattr_value(dev, "vendor");
            const char *d = udev_device_get_sysattr_value(dev, "device");
            if (v != nullptr && d != nullptr && strstr(v, vendor) != nullptr && strstr(d, device) != nullptr) {
                snprintf(sysPath, size, "%s", path);
                printf("VID/PID[%s %s] path: %s\n", v, d, path);
                rc = 0;
            }
            udev_device_unref(dev);
        }
        udev_enumerate_unref(enumerate);
    }
    udev_unref(context);
    fflush(stdout);
    return rc;
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
    .stat = __sysStat,
    .fstat = __sysFstat,
    .usleep = ::usleep,
    .system = __sysSystem,
    .select = ::select,
    .msSince1970 = __sysMsSince1970,
    .monotonicUs = __sysMonotonicUs,
    .findPciDevice = __sysFindPciDevice,
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
