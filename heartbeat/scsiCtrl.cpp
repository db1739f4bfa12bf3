// SCSI controller heartbeat: the controller takes the host for dead unless a
// two-byte write reaches offset 0x300 of its PCI configuration space.
#include "scsiCtrl.h"

#include "seamFd.h"
#include "sysSeam.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

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

} // namespace

int32_t scsiCtrlInit()
{
    auto &m = scsiCtrlPrivateMembers;
    m.configPath = nullptr;
    memset(m.configPathBuf, 0, sizeof m.configPathBuf);
    m.shortReadReported = false;

    char sysPath[SCSI_CTRL_PATH_BUF_SIZE] = {};
    const int rc = platformSys.findPciDevice(SCSI_CTRL_VENDOR, SCSI_CTRL_DEVICE, sysPath, sizeof sysPath);
    // A longer path is cut at the limit, terminator included.
    if (rc == 0 && snprintf(m.configPathBuf, SCSI_CTRL_PATH_LIMIT, "%s/%s", sysPath, "config") >= 0) {
        m.configPath = m.configPathBuf;
    }
    return rc == -2 ? -1 : 0;
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
