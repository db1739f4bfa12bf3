// A firmware file loaded the way the service loads it, and the service's test
// of it against the record in slot 4; shared by firmware-check and status.
#pragma once

#include "tarnholdCtlText.h"

#include <array>
#include <cstdint>

constexpr size_t TARNHOLD_CTL_FIRMWARE_MD5_SIZE = 16;

struct tarnholdCtlFirmwareFile {
    int32_t len = 0;
    std::array<uint8_t, TARNHOLD_CTL_FIRMWARE_MD5_SIZE> md5 = {};
};

// 0 with `file` filled, else the loader's result. The loader's own lines go
// to standard error with `verbose`, nowhere without; standard output is kept
// for the caller's output.
int32_t tarnholdCtlLoadFirmware(const char *path, bool verbose, tarnholdCtlFirmwareFile &file);

// The service's test: the stored length and the 16 MD5 bytes.
bool tarnholdCtlFirmwareCurrent(const tarnholdCtlSlot &stored, const tarnholdCtlFirmwareFile &file);
