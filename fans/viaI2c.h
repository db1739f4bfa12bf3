// Option-bay fans: the fan controller on the host's own I2C bus, read and set
// for request codes 57 and 58. Works on platform 1 only.
#pragma once

#include "qxUsb.h"

#include <array>
#include <cstdint>

constexpr const char *VIA_I2C_BUS_PATH = "/dev/i2c-0";
constexpr uint8_t VIA_I2C_FAN_ADDRESS = 0x1B;
constexpr uint8_t VIA_I2C_REG_CONTROL = 4;
constexpr uint8_t VIA_I2C_REG_LEVEL = 6;
constexpr uint8_t VIA_I2C_CONTROL_AUTO = 0x21;     // what a set with mode byte 0 writes
constexpr uint8_t VIA_I2C_CONTROL_AUTO_BIT = 0x01; // set: automatic; clear: the level of register 6
constexpr uint8_t VIA_I2C_CONTROL_ON_BIT = 0x20;
constexpr uint8_t VIA_I2C_LEVEL_MAX = 15;
constexpr int32_t VIA_I2C_PLATFORM = 1; // the only platform with the fan controller

// Response bytes from byte 3 on.
constexpr size_t VIA_I2C_RESP_FIXED = 3; // get: 1 when the level of register 6 applies
constexpr size_t VIA_I2C_RESP_LEVEL = 4; // get: register 6
constexpr size_t VIA_I2C_CMD_MODE = 3;   // set: 0 automatic, else the level in byte 4
constexpr size_t VIA_I2C_CMD_LEVEL = 4;

// Duty cycle in per cent of each level (30 + 14k/3), as shown to people.
constexpr std::array<const char *, VIA_I2C_LEVEL_MAX + 1> dutyCycleTable = {
    "30", "34.67", "39.33", "44", "48.67", "53.33", "58", "62.67",
    "67.33", "72", "76.67", "81.33", "86", "90.67", "95.33", "100",
};

// Code 57: mode and level into resp bytes 0-4. -1 on another platform (resp
// untouched) or when the bus or a register read fails.
int32_t viaI2cGetFanSpeed(const uint8_t *cmd, uint8_t *resp);
// Code 58: automatic mode or a level; a failed register transfer shows in
// resp byte 2 only, the result stays 0.
int32_t viaI2cSetFanSpeed(const uint8_t *cmd, uint8_t *resp);
// On an open bus whose slave address is set: duty-cycle mode, then the level
// (above 15 written as 15).
int32_t i2cFanSetOptionBayDutyCycle(int32_t fd, uint32_t level);
