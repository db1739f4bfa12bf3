// tarnhold-sim: the simulated appliance around a real process. A umockdev
// testbed carries the picdev device node, whose ioctls go to the model, and
// the microcontroller's USB device for libusb's port reset; rmmod and
// modprobe on the child's PATH unload and load the driver. Modules:
//   tarnholdSim         options, the child process, exit status
//   tarnholdSimBed      the testbed, its device nodes and ioctl handlers
//   tarnholdSimControl  control commands, faults, the control socket, the
//                       module commands' client side, the event log text
//   tarnholdSimImage    Intel HEX or binary flash images
#pragma once

#include "qxUsb.h"
#include "simAppliance.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

// Every model call from any thread goes through this lock: ioctls arrive on
// umockdev's worker thread, control commands on the main loop.
std::mutex &tarnholdSimModelLock();

// ---- Testbed ----------------------------------------------------------------

// Builds the testbed and its nodes; the model must be set up before.
bool tarnholdSimBedStart(std::string &error);
// Removes the testbed and its directory.
void tarnholdSimBedStop();
// The testbed's root directory (UMOCKDEV_DIR of the child).
const std::string &tarnholdSimBedRoot();
// Makes the node files follow the model and the cable: the HID node exists
// while the driver offers it, the USB device while the cable is in. Call
// with the model lock held.
void tarnholdSimBedSync();
// Closes the model handles of clients whose descriptor is gone. Model lock held.
void tarnholdSimBedSweep();
// Waits until umockdev has noticed every closed descriptor of a child that
// has ended (its worker sees the sockets close a moment later), so the
// event list is complete.
void tarnholdSimBedDrain(int timeoutMs);
// The process that loses power with the appliance (host power loss fault).
void tarnholdSimBedSetHostPid(pid_t pid);
bool tarnholdSimBedHostPowerLost();

// ---- Control ------------------------------------------------------------------

// The microcontroller's cable: unplugged, neither the HID node nor the USB
// device exists, and loading the driver does not bring them back.
void tarnholdSimControlSetUnplugged(bool unplugged);
bool tarnholdSimControlUnplugged();

// One fault as --fault takes it (see tarnholdSimControlUsage); false with a reason.
bool tarnholdSimControlApplyFault(const std::string &fault, std::string &error);
// True when a host power loss is armed: the whole appliance goes down.
bool tarnholdSimControlHostPowerLossArmed();

// Runs one control command line. Output lines (if any) go to `out`; false
// with a reason when the command is refused.
bool tarnholdSimControlRun(const std::string &line, std::string &out, std::string &error);

// Listens for control connections at `path` on the default main context.
bool tarnholdSimControlListen(const std::string &path, std::string &error);
void tarnholdSimControlStop();

// The module commands as the child runs them (argv[0] "rmmod" or
// "modprobe"): they ask the running tarnhold-sim over its control socket.
int tarnholdSimControlModuleCommand(int argc, char **argv);

// The event list as text, one line per event.
std::string tarnholdSimControlEventText();

// Help text of the control commands and fault descriptions.
const char *tarnholdSimControlUsage();

// A whole word as a number, decimal or 0x hex, as control commands and
// faults take their arguments; false when it is not one.
bool tarnholdSimControlNumber(const std::string &text, long long &value);

// ---- FPGA and CPLD ------------------------------------------------------------

// One of the FPGA and CPLD faults or timings, split at ':': 1 armed, 0 refused
// with a reason, -1 when the name is not one of them.
int tarnholdSimUpgradeFault(const std::vector<std::string> &fault, std::string &error);
// One of the FPGA and CPLD control commands: 1 done, 0 refused, -1 not one of them.
int tarnholdSimUpgradeCommand(const std::vector<std::string> &words, std::string &out, std::string &error);
const char *tarnholdSimUpgradeUsage();

// ---- Flash images -------------------------------------------------------------

// Loads an Intel HEX file (first character ':') or a raw binary image into
// the application flash and records it in slot 4 as the service stores it.
bool tarnholdSimImageInstall(const std::string &path, std::string &error);

// ---- Environment --------------------------------------------------------------

constexpr const char *TARNHOLD_SIM_CONTROL_ENV = "TARNHOLD_SIM_CONTROL";
constexpr const char *TARNHOLD_SIM_NODE_NAME = QX_USB_DEVICE_NAME; // the node the driver makes
constexpr const char *TARNHOLD_SIM_USB_BUS = "001";
constexpr const char *TARNHOLD_SIM_USB_DEVICE = "002";
constexpr unsigned TARNHOLD_SIM_USB_DEVNUM = 2;
