// The system-call seam: every touch of the device node, the I2C bus (open,
// ioctl, close), the SCSI controller (its search and its sysfs configuration
// file), the request FIFO's reads and the replies, the files the service
// reads, shell commands, sleeps and the clock goes through this one table. The
// product binds it to libc and libusb; tests bind it to the simulated
// appliance and to virtual time.
#pragma once

#include <cstdint>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <usb.h>

struct platformSysOps {
    int (*open)(const char *path, int flags, mode_t mode);
    // open() for a path someone else named (a client's reply FIFO, an upgrade
    // file): resolved one component at a time, never through /proc, never
    // through a symbolic link as the last component, and through one on the
    // way only where root placed it in a folder only root writes (/var/run ->
    // /run); never opens a device node. Refusals: ELOOP for a link, EXDEV for
    // /proc, ENOTSUP for a device node.
    int (*openNoLinks)(const char *path, int flags, mode_t mode);
    // Whether the device node is there at all, without opening it.
    int (*access)(const char *path, int mode);
    int (*close)(int fd);
    int (*ioctl)(int fd, unsigned long request, void *arg);
    ssize_t (*read)(int fd, void *buf, size_t len);
    ssize_t (*write)(int fd, const void *buf, size_t len);
    off_t (*lseek)(int fd, off_t offset, int whence);
    int (*stat)(const char *path, struct stat *st);
    int (*fstat)(int fd, struct stat *st);
    int (*usleep)(useconds_t usec);
    int (*system)(const char *command);
    int (*select)(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout);
    uint64_t (*msSince1970)();
    uint64_t (*monotonicUs)(); // never jumps: rate limits and keep-alives
    // The sysfs folder of the last PCI device whose vendor and device texts
    // hold these (udev's enumeration order), each match printed: 0 when one
    // was found, -1 when none, -2 without a udev context.
    int (*findPciDevice)(const char *vendor, const char *device, char *sysPath, size_t size);

    // libusb 0.1, for the microcontroller's USB port reset.
    void (*usbInit)();
    int (*usbFindBusses)();
    int (*usbFindDevices)();
    struct usb_bus *(*usbGetBusses)();
    usb_dev_handle *(*usbOpen)(struct usb_device *dev);
    int (*usbReset)(usb_dev_handle *handle);
    int (*usbClose)(usb_dev_handle *handle);
};

// The live table; starts bound to the real system.
extern platformSysOps platformSys;

// The real bindings, for restoring the table or delegating to it.
extern const platformSysOps PLATFORM_SYS_LIBC;

// Memory the service hands the driver by its address (the file-transfer
// pattern, programming blocks, FPGA and CPLD pages): said before the address
// goes out. Only such memory is ever read by the service on the driver's
// behalf (a recording's copy); an address a client names is not.
void platformSysHandOver(const void *base, size_t len);
bool platformSysHandedOver(uint64_t address, uint64_t len);

// Every wait of the service: platformSys.usleep, with the watchdog's
// keep-alive before and after. While a watchdog watches the process, a wait
// longer than its slice is made of slices with a keep-alive between them, so
// that only a call that does not return (a hung driver) stops the keep-alives.
int platformSysSleep(useconds_t us);
