// SCSI controller heartbeat: the controller takes the host for dead unless a
// two-byte write reaches offset 0x300 of its PCI configuration space.
#include "scsiCtrl.h"

#include "seamFd.h"
#include "sysSeam.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <libudev.h>
#include <unistd.h>

namespace {

constexpr const char *SCSI_CTRL_SUBSYSTEM = "pci";
constexpr const char *SCSI_CTRL_VENDOR = "12d8";
constexpr const char *SCSI_CTRL_DEVICE = "e130";
constexpr size_t SCSI_CTRL_BEAT_SIZE = 2;
constexpr uint8_t SCSI_CTRL_STATE_BIT = 0x40; // bit 6 of the byte at 0x301
constexpr uint8_t SCSI_CTRL_BEAT_SET = 0x04;
constexpr uint8_t SCSI_CTRL_BEAT_CLEAR = 0x20;
constexpr uint8_t SCSI_CTRL_BEAT_HIGH = 0x08;

struct {
    char *configPath = nullptr;
    char configPathBuf[SCSI_CTRL_PATH_BUF_SIZE] = {};
    bool shortReadReported = false; // said once until a read succeeds again
} scsiCtrlPrivateMembers;

// Substring tests on the texts as sysfs gives them: "0x12D8" is not ours.
void __scsiCtrlConsider(udev *context, const char *sysPath)
{
    auto &m = scsiCtrlPrivateMembers;
    udev_device *dev = udev_device_new_from_syspath(context, sysPath);
    if (dev == nullptr) {
        return;
    }
    const char *vendor = udev_device_get_sysattr_value(dev, "vendor");
    const char *device = udev_device_get_sysattr_value(dev, "device");
    if (vendor != nullptr && device != nullptr && strstr(vendor, SCSI_CTRL_VENDOR) != nullptr &&
        strstr(device, SCSI_CTRL_DEVICE) != nullptr) {
        snprintf(m.configPathBuf, SCSI_CTRL_PATH_LIMIT, "%s/%s", sysPath, "config");
        m.configPath = m.configPathBuf;
        printf("VID/PID[%s %s] path: %s\n", vendor, device, sysPath);
    }
    udev_device_unref(dev);
}

} // namespace

int32_t scsiCtrlInit()
{
    auto &m = scsiCtrlPrivateMembers;
    m.configPath = nullptr;
    memset(m.configPathBuf, 0, sizeof m.configPathBuf);
    m.shortReadReported = false;

    udev *context = udev_new();
    if (context == nullptr) {
        printf("Cannot create udev\n");
        fflush(stdout);
        return -1;
    }
    udev_enumerate *enumerate = udev_enumerate_new(context);
    if (enumerate != nullptr) {
        udev_enumerate_add_match_subsystem(enumerate, SCSI_CTRL_SUBSYSTEM);
        udev_enumerate_scan_devices(enumerate);
        // Every match is printed; the last one in enumeration order stays.
        for (udev_list_entry *entry = udev_enumerate_get_list_entry(enumerate); entry != nullptr;
             entry = udev_list_entry_get_next(entry)) {
            __scsiCtrlConsider(context, udev_list_entry_get_name(entry));
        }
        udev_enumerate_unref(enumerate);
    }
    udev_unref(context);
    fflush(stdout);
    return 0;
}

int32_t scsiCtrlGetHeartBeepIntervalSec()
{
    return scsiCtrlPrivateMembers.configPath != nullptr ? 1 : 0;
}

const char *scsiCtrlConfigPath()
{
    return scsiCtrlPrivateMembers.configPath;
}

int32_t scsiCtrlHeartBeep()
{
    auto &m = scsiCtrlPrivateMembers;
    if (m.configPath == nullptr) {
        return -1;
    }
    seamFd config(m.configPath, O_RDWR | O_CLOEXEC);
    if (!config.valid()) {
        printf("Error: cannot open %s\n", m.configPath);
        fflush(stdout);
        return -1;
    }
    std::array<uint8_t, SCSI_CTRL_BEAT_SIZE> beat = {};
    platformSys.lseek(config.get(), SCSI_CTRL_HEARTBEAT_OFFSET, SEEK_SET);
    const ssize_t got = platformSys.read(config.get(), beat.data(), beat.size());
    if (got != static_cast<ssize_t>(beat.size())) {
        // Without both bytes the state bit is unknown, so nothing is written
        // this time rather than a guess; said once until a read works again.
        if (!m.shortReadReported) {
            printf("Error: cannot read 2 bytes at 0x%x of %s, no heartbeat\n", SCSI_CTRL_HEARTBEAT_OFFSET,
                   m.configPath);
            fflush(stdout);
            m.shortReadReported = true;
        }
        return -1;
    }
    m.shortReadReported = false;
    beat[0] = (beat[1] & SCSI_CTRL_STATE_BIT) != 0 ? SCSI_CTRL_BEAT_SET : SCSI_CTRL_BEAT_CLEAR;
    beat[1] = SCSI_CTRL_BEAT_HIGH;
    // Nothing looks at the seek's or the write's result: the next second tries again.
    platformSys.lseek(config.get(), SCSI_CTRL_HEARTBEAT_OFFSET, SEEK_SET);
    (void)platformSys.write(config.get(), beat.data(), beat.size());
    return 0;
}
