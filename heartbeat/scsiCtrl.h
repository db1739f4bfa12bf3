// SCSI controller heartbeat: the controller (PCI 12d8:e130) is looked up once
// with libudev; the request loop then writes two bytes at offset 0x300 of its
// sysfs configuration file at most once per wall-clock second.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t SCSI_CTRL_PATH_BUF_SIZE = 500;
constexpr size_t SCSI_CTRL_PATH_LIMIT = 495; // terminator included: at most 494 characters stored
constexpr uint32_t SCSI_CTRL_HEARTBEAT_OFFSET = 0x300;

// 0 when the lookup ran (controller found or not), -1 without a udev context.
int32_t scsiCtrlInit();
// 1 with a controller, 0 without one.
int32_t scsiCtrlGetHeartBeepIntervalSec();
// One heartbeat write; -1 without a controller, when its file cannot be
// opened, or when the two bytes at 0x300 cannot be read (nothing written).
int32_t scsiCtrlHeartBeep();
// The configuration file's path, or null without a controller.
const char *scsiCtrlConfigPath();
