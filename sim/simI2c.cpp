// The simulated fan controller on the host's I2C bus and the bus device's
// ioctls as the kernel's i2c-dev offers them.
#include "simI2c.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

namespace {

constexpr int SIM_I2C_FD_BASE = 1100; // apart from the HID node's descriptors
constexpr int SIM_I2C_FD_COUNT = 4;
constexpr unsigned long SIM_I2C_NO_ADDRESS = ~0ul;
constexpr unsigned long SIM_I2C_ADDRESS_MAX = 0x7F;

using simI2cRegisters = std::array<uint8_t, 256>;

constexpr simI2cRegisters __simI2cPowerOn()
{
    simI2cRegisters r{};
    r[SIM_I2C_REG_CONTROL] = SIM_I2C_RESET_CONTROL;
    r[SIM_I2C_REG_LEVEL] = SIM_I2C_RESET_LEVEL;
    return r;
}

struct {
    simI2cRegisters registers = __simI2cPowerOn();
    bool busPresent = true;
    bool controllerPresent = true;
    int slaveFailures = 0;
    int readFailures = 0;
    int writeFailures = 0;
    std::vector<simI2cTransfer> transfers;
    std::array<unsigned long, SIM_I2C_FD_COUNT> fdAddress{}; // per in-process descriptor
    std::array<bool, SIM_I2C_FD_COUNT> fdOpen{};
} simI2cPrivateMembers;

auto &fanBus = simI2cPrivateMembers;

// A count of -1 fails for ever.
bool __simI2cTakeFailure(int &count)
{
    if (count == 0) {
        return false;
    }
    if (count > 0) {
        --count;
    }
    return true;
}

} // namespace

void simI2cReset()
{
    fanBus.registers = __simI2cPowerOn();
    fanBus.busPresent = true;
    fanBus.controllerPresent = true;
    fanBus.slaveFailures = 0;
    fanBus.readFailures = 0;
    fanBus.writeFailures = 0;
    fanBus.transfers.clear();
    fanBus.fdOpen.fill(false);
}

void simI2cSetBusPresent(bool present) { fanBus.busPresent = present; }
bool simI2cBusPresent() { return fanBus.busPresent; }
void simI2cSetControllerPresent(bool present) { fanBus.controllerPresent = present; }
void simI2cSetRegister(uint8_t reg, uint8_t value) { fanBus.registers[reg] = value; }
uint8_t simI2cGetRegister(uint8_t reg) { return fanBus.registers[reg]; }
void simI2cFailSlave(int count) { fanBus.slaveFailures = count; }
void simI2cFailReads(int count) { fanBus.readFailures = count; }
void simI2cFailWrites(int count) { fanBus.writeFailures = count; }
const std::vector<simI2cTransfer> &simI2cTransfers() { return fanBus.transfers; }
void simI2cClearTransfers() { fanBus.transfers.clear(); }

int simI2cOpen()
{
    return fanBus.busPresent ? 0 : -ENOENT;
}

// The kernel only checks the address here; whether anything answers there
// shows at the first transfer.
int simI2cSetSlave(unsigned long address)
{
    if (address > SIM_I2C_ADDRESS_MAX) {
        return -EINVAL;
    }
    return __simI2cTakeFailure(fanBus.slaveFailures) ? -EBUSY : 0;
}

int simI2cSmbus(unsigned long address, uint8_t readWrite, uint8_t reg, uint32_t size, uint8_t &byte)
{
    if (size != I2C_SMBUS_BYTE_DATA || (readWrite != I2C_SMBUS_READ && readWrite != I2C_SMBUS_WRITE)) {
        return -EINVAL;
    }
    if (address != SIM_I2C_FAN_ADDRESS || !fanBus.controllerPresent) {
        return -ENXIO;
    }
    const bool write = readWrite == I2C_SMBUS_WRITE;
    if (__simI2cTakeFailure(write ? fanBus.writeFailures : fanBus.readFailures)) {
        return -EIO;
    }
    if (write) {
        fanBus.registers[reg] = byte;
    } else {
        byte = fanBus.registers[reg];
    }
    fanBus.transfers.push_back({write, reg, byte});
    return 0;
}

bool simI2cInProcessIsFd(int fd)
{
    return fd >= SIM_I2C_FD_BASE && fd < SIM_I2C_FD_BASE + SIM_I2C_FD_COUNT;
}

int simI2cInProcessOpen()
{
    const int rc = simI2cOpen();
    if (rc < 0) {
        errno = -rc;
        return -1;
    }
    for (std::size_t i = 0; i < fanBus.fdOpen.size(); ++i) {
        if (!fanBus.fdOpen[i]) {
            fanBus.fdOpen[i] = true;
            fanBus.fdAddress[i] = SIM_I2C_NO_ADDRESS;
            return SIM_I2C_FD_BASE + static_cast<int>(i);
        }
    }
    errno = EMFILE;
    return -1;
}

int simI2cInProcessClose(int fd)
{
    const std::size_t i = static_cast<std::size_t>(fd - SIM_I2C_FD_BASE);
    if (!fanBus.fdOpen[i]) {
        errno = EBADF;
        return -1;
    }
    fanBus.fdOpen[i] = false;
    return 0;
}

int simI2cInProcessIoctl(int fd, unsigned long request, void *arg)
{
    const std::size_t i = static_cast<std::size_t>(fd - SIM_I2C_FD_BASE);
    int rc = -ENOTTY;
    if (!fanBus.fdOpen[i]) {
        rc = -EBADF;
    } else if (request == I2C_SLAVE) {
        const auto address = reinterpret_cast<unsigned long>(arg);
        rc = simI2cSetSlave(address);
        if (rc == 0) {
            fanBus.fdAddress[i] = address;
        }
    } else if (request == I2C_SMBUS) {
        auto *args = static_cast<i2c_smbus_ioctl_data *>(arg);
        if (args == nullptr || args->data == nullptr) {
            rc = -EFAULT;
        } else {
            rc = simI2cSmbus(fanBus.fdAddress[i], args->read_write, args->command, args->size, args->data->byte);
        }
    }
    if (rc < 0) {
        errno = -rc;
        return -1;
    }
    return 0;
}

int simI2cOpenBusFds()
{
    int n = 0;
    for (bool open : fanBus.fdOpen) {
        n += open ? 1 : 0;
    }
    return n;
}
