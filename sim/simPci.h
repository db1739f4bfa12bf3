// SCSI controllers (and other PCI devices) in a umockdev testbed's sysfs, each
// with the 4,096-byte configuration file the heartbeat writes into. Used by
// tarnhold-sim and by tests that run under umockdev's preload.
#pragma once

#include <umockdev.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

constexpr const char *SIM_PCI_VENDOR = "0x12d8";
constexpr const char *SIM_PCI_DEVICE = "0xe130";
constexpr size_t SIM_PCI_CONFIG_SIZE = 4096;
constexpr size_t SIM_PCI_HEARTBEAT_OFFSET = 0x300;

struct simPciDevice {
    std::string vendor = SIM_PCI_VENDOR;
    std::string device = SIM_PCI_DEVICE;
    bool longPath = false; // under a bridge, so that path, "/" and "config" pass 494 characters
};

// Parses "[VENDOR:DEVICE][:long]" (empty: the SCSI controller); false with a reason.
bool simPciParse(const std::string &text, simPciDevice &wanted, std::string &error);

// Adds device number `index` (its bus number: devices sort by it) and returns
// its sysfs path as the system under test sees it, or "" on failure.
std::string simPciAdd(UMockdevTestbed *testbed, const simPciDevice &wanted, unsigned index);

// The configuration file of `sysPath` inside the testbed's root directory.
std::string simPciConfigFile(const std::string &root, const std::string &sysPath);
bool simPciConfigRead(const std::string &file, size_t offset, std::span<uint8_t> out);
bool simPciConfigWrite(const std::string &file, size_t offset, std::span<const uint8_t> bytes);
