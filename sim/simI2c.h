// The simulated option-bay fan controller: an SMBus device at 0x1B on the
// host's I2C bus /dev/i2c-0, with its control register 4 (bit 0: automatic
// mode, bit 5: fan on) and its duty-cycle level in register 6. One model, two
// front ends: in process through the system-call seam (simI2cInProcess*) and
// out of process through umockdev's ioctl emulation (tarnhold-sim).
#pragma once

#include <cstdint>
#include <vector>

constexpr const char *SIM_I2C_BUS_PATH = "/dev/i2c-0";
constexpr uint8_t SIM_I2C_FAN_ADDRESS = 0x1B;
constexpr uint8_t SIM_I2C_REG_CONTROL = 4;
constexpr uint8_t SIM_I2C_REG_LEVEL = 6;
constexpr uint8_t SIM_I2C_RESET_CONTROL = 0x21; // power-on: automatic mode, fan on
constexpr uint8_t SIM_I2C_RESET_LEVEL = 0;

// Bus present, controller answering, registers at their power-on values,
// no faults, no transfers recorded.
void simI2cReset();

void simI2cSetBusPresent(bool present);     // without it the open fails with ENOENT
bool simI2cBusPresent();
void simI2cSetControllerPresent(bool present); // absent: no acknowledge, transfers fail with ENXIO
void simI2cSetRegister(uint8_t reg, uint8_t value);
uint8_t simI2cGetRegister(uint8_t reg);

// The next `count` I2C_SLAVE requests fail with EBUSY (another driver holds the address).
void simI2cFailSlave(int count);
// The next `count` register reads / writes fail with EIO (-1: always).
void simI2cFailReads(int count);
void simI2cFailWrites(int count);

// Every transfer that reached the controller, in order.
struct simI2cTransfer {
    bool write;
    uint8_t reg;
    uint8_t value;
    bool operator==(const simI2cTransfer &) const = default;
};
const std::vector<simI2cTransfer> &simI2cTransfers();
void simI2cClearTransfers();

// ---- Device interface entry points (used by the front ends) ---------------------

// 0 or a negative errno.
int simI2cOpen();
int simI2cSetSlave(unsigned long address);
// One SMBus transfer to `address`; `byte` is read into or written from.
int simI2cSmbus(unsigned long address, uint8_t readWrite, uint8_t reg, uint32_t size, uint8_t &byte);

// ---- In-process front end (bound by simInProcess) --------------------------------

bool simI2cInProcessIsFd(int fd);
int simI2cInProcessOpen();               // a descriptor or -1 with errno
int simI2cInProcessClose(int fd);        // 0 or -1 with errno
int simI2cInProcessIoctl(int fd, unsigned long request, void *arg);
int simI2cOpenBusFds();                  // bus descriptors open right now
