// In-process front end of the simulated appliance: binds the system-call seam
// to the model, with virtual time (a sleep advances the clock and returns at
// once). Only the device node, the I2C bus, module commands, libusb, sleeps, select and
// the clock are simulated; every other path goes to the real system.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

void simInProcessInstall(); // resets the model too
void simInProcessUninstall();

uint64_t simVirtualNowUs();
void simAdvanceUs(uint64_t us);

// Every usleep the code under test made, in microseconds, in order.
const std::vector<uint64_t> &simSleeps();
void simClearSleeps();

// Every shell command the code under test ran, in order.
const std::vector<std::string> &simCommands();
// Empties it, keeping its room, so a long run stays flat.
void simClearCommands();

// The wall clock the seam reports at virtual time 0, in ms since 1970.
constexpr uint64_t SIM_WALL_CLOCK_START_MS = 1700000000000ull;

// The microcontroller's USB device as libusb sees it: listed on the bus at
// all, and whether opening it for the port reset succeeds. Both on by default.
void simSetUsbDevice(bool listed, bool openable);
// The kernel refuses the port reset with `err` (0: it resets), as it does with
// EPERM on a device file that libusb could open only for reading.
void simSetUsbResetError(int err);

// How many descriptors of the device node are open right now.
int simOpenNodeFds();
