#include "sysSeam.h"

#include "daemonNotify.h"
#include "flashGuard.h"
#include "uniqueFd.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libudev.h>
#include <algorithm>
#include <array>
#include <climits>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/ioctl.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace {

int __sysOpen(const char *path, int flags, mode_t mode) { return ::open(path, flags, mode); }

// Links followed on the way, as the kernel allows.
constexpr int SYS_OPEN_LINKS_MAX = 40;

bool __sysOnProc(int dirFd)
{
    struct statfs fs = {};
    return ::fstatfs(dirFd, &fs) != 0 || fs.f_type == PROC_SUPER_MAGIC;
}

// A link only root could have placed: root's, in a folder of root's that no
// one else may write.
bool __sysLinkIsRoots(int dirFd, const struct stat &link)
{
    struct stat dir = {};
    return link.st_uid == 0 && ::fstat(dirFd, &dir) == 0 && dir.st_uid == 0 && (dir.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

int __sysRefuse(int err)
{
    errno = err;
    return -1;
}

int __sysOpenat2(const char *path, int flags, mode_t mode)
{
    open_how how = {};
    how.flags = static_cast<uint64_t>(flags) | O_NOFOLLOW | O_CLOEXEC;
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how));
}

// A path without any link: the kernel resolves it in one call each for the
// look and the open. Anything else (-1 with ELOOP, or ENOSYS on an older
// kernel) goes the long way.
int __sysOpenWithoutLinks(const char *path, int flags, mode_t mode)
{
    uniqueFd node(__sysOpenat2(path, O_PATH, 0));
    struct stat st = {};
    if (!node.valid() || ::fstat(node.get(), &st) != 0) {
        return -1;
    }
    // No /proc check here: without links resolved, nothing in /proc is
    // reached but its own files, and they are neither FIFOs nor upgrade files.
    if (S_ISLNK(st.st_mode)) {
        return __sysRefuse(ELOOP);
    }
    if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
        return __sysRefuse(ENOTSUP);
    }
    return __sysOpenat2(path, flags, mode);
}

int __sysOpenNoLinks(const char *path, int flags, mode_t mode)
{
    const int fd = __sysOpenWithoutLinks(path, flags, mode);
    if (fd >= 0 || (errno != ELOOP && errno != ENOSYS)) {
        return fd;
    }
    // What is still to be resolved, relative to `dir`.
    char rest[PATH_MAX];
    const size_t len = strnlen(path, sizeof rest);
    if (len == 0 || len == sizeof rest) {
        return __sysRefuse(len == 0 ? ENOENT : ENAMETOOLONG);
    }
    memcpy(rest, path, len + 1);
    uniqueFd dir(::open(rest[0] == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    size_t pos = 0;
    int links = 0;
    while (dir.valid()) {
        if (__sysOnProc(dir.get())) {
            return __sysRefuse(EXDEV);
        }
        while (rest[pos] == '/') {
            ++pos;
        }
        size_t end = pos;
        while (rest[end] != '\0' && rest[end] != '/') {
            ++end;
        }
        if (end == pos || end - pos > NAME_MAX) {
            return __sysRefuse(end == pos ? EISDIR : ENAMETOOLONG);
        }
        char name[NAME_MAX + 1];
        memcpy(name, &rest[pos], end - pos);
        name[end - pos] = '\0';
        size_t next = end;
        while (rest[next] == '/') {
            ++next;
        }
        // The node itself, not yet opened for use: a link or a device is
        // refused before anything with side effects happens.
        uniqueFd node(::openat(dir.get(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat st = {};
        if (!node.valid() || ::fstat(node.get(), &st) != 0) {
            return -1;
        }
        if (S_ISLNK(st.st_mode)) {
            if (rest[next] == '\0' || !__sysLinkIsRoots(dir.get(), st) || ++links > SYS_OPEN_LINKS_MAX) {
                return __sysRefuse(ELOOP);
            }
            // The link's text in front of what is left, resolved the same way.
            char target[PATH_MAX];
            const ssize_t n = ::readlinkat(node.get(), "", target, sizeof target);
            const size_t tail = strlen(&rest[next]) + 1;
            if (n <= 0 || static_cast<size_t>(n) + 1 + tail > sizeof rest) {
                return __sysRefuse(n <= 0 ? ELOOP : ENAMETOOLONG);
            }
            memmove(&rest[n + 1], &rest[next], tail);
            memcpy(rest, target, static_cast<size_t>(n));
            rest[n] = '/';
            pos = 0;
            if (target[0] == '/') {
                dir.reset(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
            }
            continue;
        }
        if (rest[next] == '\0') {
            if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
                return __sysRefuse(ENOTSUP);
            }
            return ::openat(dir.get(), name, flags | O_NOFOLLOW, mode);
        }
        if (!S_ISDIR(st.st_mode)) {
            return __sysRefuse(ENOTDIR);
        }
        dir = std::move(node);
        pos = next;
    }
    return -1;
}
int __sysIoctl(int fd, unsigned long request, void *arg) { return ::ioctl(fd, request, arg); }
// NOLINTNEXTLINE(cert-env33-c): the seam's own; the service's fixed module and reset commands, no client text
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

// The whole wait, whatever signals come meanwhile: a stop held back while a
// flash is written must not cut the flash's fixed waits short. A signal that
// is not held back ends the process in its handler.
int __sysUsleep(useconds_t us)
{
    struct timespec left = {.tv_sec = static_cast<time_t>(us / 1000000u),
                            .tv_nsec = static_cast<long>(us % 1000000u) * 1000};
    while (nanosleep(&left, &left) != 0) {
        if (errno != EINTR) {
            return -1;
        }
        flashGuardPoll();
    }
    return 0;
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
    .openNoLinks = __sysOpenNoLinks,
    .access = ::access,
    .close = ::close,
    .ioctl = __sysIoctl,
    .read = ::read,
    .write = ::write,
    .lseek = ::lseek,
    .stat = __sysStat,
    .fstat = __sysFstat,
    .usleep = __sysUsleep,
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

namespace {

// Few buffers are ever handed over, each from a fixed place.
constexpr size_t PLATFORM_SYS_HAND_OVERS = 8;

struct {
    std::array<std::pair<uintptr_t, size_t>, PLATFORM_SYS_HAND_OVERS> handOvers = {};
    size_t next = 0;
} platformSysPrivateMembers;

} // namespace

void platformSysHandOver(const void *base, size_t len)
{
    auto &m = platformSysPrivateMembers;
    const auto at = reinterpret_cast<uintptr_t>(base);
    for (auto &[b, l] : m.handOvers) {
        if (b == at) {
            l = std::max(l, len);
            return;
        }
    }
    m.handOvers[m.next] = {at, len};
    m.next = (m.next + 1) % m.handOvers.size();
}

bool platformSysHandedOver(uint64_t address, uint64_t len)
{
    for (const auto &[b, l] : platformSysPrivateMembers.handOvers) {
        if (l != 0 && address >= b && len <= l && address - b <= l - len) {
            return true;
        }
    }
    return false;
}

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
    flashGuardPoll();
    return rc;
}
