// Option-bay fans over I2C: each request opens the bus, addresses the fan
// controller, does its SMBus byte-data transfers and closes the bus again.
#include "viaI2c.h"

#include "evmLog.h"
#include "qxLoader.h"
#include "seamFd.h"
#include "sysSeam.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

namespace {

constexpr const char *VIA_I2C_LOG_SOURCE = "via-i2c";
constexpr uint8_t VIA_I2C_GET_REPLY_CODE = QX_HID_CMD_GET_FAN_SPEED; // what a get answers with, not 57
constexpr uint8_t VIA_I2C_SET_REPLY_CODE = QX_HID_CMD_SET_OPTION_BAY_FAN_SPEED;
constexpr uint8_t VIA_I2C_STATUS_OK = 0;
constexpr uint8_t VIA_I2C_STATUS_FAILED = 1;

static_assert(I2C_SLAVE == 0x0703 && I2C_SMBUS == 0x0720 && I2C_SMBUS_BYTE_DATA == 2);
static_assert(I2C_SMBUS_READ == 1 && I2C_SMBUS_WRITE == 0);
// The kernel's transfer record: flag, register, size, then the data pointer.
static_assert(offsetof(i2c_smbus_ioctl_data, read_write) == 0 && offsetof(i2c_smbus_ioctl_data, command) == 1 &&
              offsetof(i2c_smbus_ioctl_data, size) == 4 && offsetof(i2c_smbus_ioctl_data, data) == 8);

bool __viaI2cPlatformOk(int line)
{
    if (qxLoaderGetPlatform() == VIA_I2C_PLATFORM) {
        return true;
    }
    printf("%s==>%d\n", VIA_I2C_LOG_SOURCE, line);
    fflush(stdout);
    return false;
}

int32_t __viaI2cSetSlave(int fd)
{
    // I2C_SLAVE takes the address itself, not a pointer to it.
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the seam's ioctl carries the number in its pointer argument
    return platformSys.ioctl(fd, I2C_SLAVE, reinterpret_cast<void *>(uintptr_t{VIA_I2C_FAN_ADDRESS})) < 0 ? -1 : 0;
}

int32_t __viaI2cTransfer(int fd, uint8_t readWrite, uint8_t reg, i2c_smbus_data &data)
{
    i2c_smbus_ioctl_data args = {};
    args.read_write = readWrite;
    args.command = reg;
    args.size = I2C_SMBUS_BYTE_DATA;
    args.data = &data;
    return platformSys.ioctl(fd, I2C_SMBUS, &args) < 0 ? -1 : 0;
}

// A failed read logs errno; the callers decide what the failure means.
int32_t __viaI2cReadReg(int fd, uint8_t reg, uint8_t &value)
{
    i2c_smbus_data data = {};
    if (__viaI2cTransfer(fd, I2C_SMBUS_READ, reg, data) != 0) {
        int err = errno;
        evm_log(0, VIA_I2C_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-errno: %d [ %s ]\n", err, strerror(err));
        return -1;
    }
    value = data.byte;
    return 0;
}

int32_t __viaI2cWriteReg(int fd, uint8_t reg, uint8_t value)
{
    i2c_smbus_data data = {};
    data.byte = value;
    return __viaI2cTransfer(fd, I2C_SMBUS_WRITE, reg, data);
}

} // namespace

int32_t viaI2cGetFanSpeed(const uint8_t *cmd, uint8_t *resp)
{
    if (!__viaI2cPlatformOk(__LINE__)) {
        return -1;
    }
    resp[QX_REPORT_CODE] = VIA_I2C_GET_REPLY_CODE;
    resp[QX_REPORT_STATUS] = VIA_I2C_STATUS_FAILED;
    resp[QX_REPORT_SEQ] = cmd[QX_REPORT_SEQ];

    seamFd bus(VIA_I2C_BUS_PATH, O_RDWR | O_CLOEXEC);
    if (!bus.valid()) {
        evm_log(0, VIA_I2C_LOG_SOURCE, __LINE__,
                "QX_TRACE_FILE-__briskaPicGetOptionBayFanSpeed():: *****Error***** opening device node\n");
        return -1;
    }
    uint8_t control = 0;
    uint8_t level = 0;
    if (__viaI2cSetSlave(bus.get()) != 0 || __viaI2cReadReg(bus.get(), VIA_I2C_REG_CONTROL, control) != 0 ||
        __viaI2cReadReg(bus.get(), VIA_I2C_REG_LEVEL, level) != 0) {
        return -1;
    }
    resp[QX_REPORT_STATUS] = VIA_I2C_STATUS_OK;
    resp[VIA_I2C_RESP_FIXED] = (control & VIA_I2C_CONTROL_AUTO_BIT) == 0 ? 1 : 0;
    resp[VIA_I2C_RESP_LEVEL] = level;
    return 0;
}

int32_t viaI2cSetFanSpeed(const uint8_t *cmd, uint8_t *resp)
{
    if (!__viaI2cPlatformOk(__LINE__)) {
        return -1;
    }
    seamFd bus(VIA_I2C_BUS_PATH, O_RDWR | O_CLOEXEC);
    if (!bus.valid()) {
        evm_log(0, VIA_I2C_LOG_SOURCE, __LINE__, "QX_TRACE_FILE-%s():: *****Error***** opening device node\n",
                "__briskaPicSetOptionBayFanSpeed");
        return -1;
    }
    if (__viaI2cSetSlave(bus.get()) != 0) {
        return -1;
    }
    resp[QX_REPORT_CODE] = VIA_I2C_SET_REPLY_CODE;
    resp[QX_REPORT_SEQ] = cmd[QX_REPORT_SEQ];
    int32_t rc = cmd[VIA_I2C_CMD_MODE] == 0 ? __viaI2cWriteReg(bus.get(), VIA_I2C_REG_CONTROL, VIA_I2C_CONTROL_AUTO)
                                             : i2cFanSetOptionBayDutyCycle(bus.get(), cmd[VIA_I2C_CMD_LEVEL]);
    // The client learns of a failed transfer from the status byte alone.
    resp[QX_REPORT_STATUS] = rc != 0 ? VIA_I2C_STATUS_FAILED : VIA_I2C_STATUS_OK;
    return 0;
}

int32_t i2cFanSetOptionBayDutyCycle(int32_t fd, uint32_t level)
{
    uint8_t control = 0;
    if (__viaI2cReadReg(fd, VIA_I2C_REG_CONTROL, control) != 0) {
        return -1;
    }
    control = static_cast<uint8_t>((control | VIA_I2C_CONTROL_ON_BIT) & ~VIA_I2C_CONTROL_AUTO_BIT);
    if (__viaI2cWriteReg(fd, VIA_I2C_REG_CONTROL, control) != 0) {
        return -1;
    }
    uint8_t capped = static_cast<uint8_t>(level > VIA_I2C_LEVEL_MAX ? VIA_I2C_LEVEL_MAX : level);
    return __viaI2cWriteReg(fd, VIA_I2C_REG_LEVEL, capped);
}
