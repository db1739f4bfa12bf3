// tarnhold-sim's devices on the host's own buses: the option-bay fan
// controller behind /dev/i2c-0 and SCSI controllers on the PCI bus, with
// their options, control commands and faults.
#pragma once

#include <umockdev.h>

#include <string>
#include <vector>

// One --scsi-ctrl option (before the testbed starts); false with a reason.
bool tarnholdSimHostBusAddPci(const std::string &wanted, std::string &error);
// Adds the I2C bus and the PCI devices to the testbed.
bool tarnholdSimHostBusStart(UMockdevTestbed *testbed, const std::string &root, std::string &error);
void tarnholdSimHostBusStop();

// A control command or a fault of this module: 1 done, 0 refused (error
// set), -1 not one of ours. Model lock held.
int tarnholdSimHostBusCommand(const std::vector<std::string> &words, std::string &out, std::string &error);
int tarnholdSimHostBusFault(const std::vector<std::string> &fields, std::string &error);

// Help lines: options, control commands, faults.
const char *tarnholdSimHostBusOptionUsage();
const char *tarnholdSimHostBusCommandUsage();
const char *tarnholdSimHostBusFaultUsage();
