// The out-of-process front ends of the simulated appliance.
// tarnhold-sim: the model around a real process. A umockdev testbed carries
// the picdev device node, whose ioctls go to the model, and the
// microcontroller's USB device for libusb's port reset; rmmod and modprobe
// on the child's PATH unload and load the driver.
// tarnhold-sim-cuse: the model behind a real character device (CUSE) that
// follows a real picdev module. Modules:
//   tarnholdSim         tarnhold-sim's options, the child process, exit status
//   tarnholdSimBed      the testbed, its device nodes and ioctl handlers
//   tarnholdSimControl  control commands, faults, the module commands' client
//                       side, the event log text (shared)
//   tarnholdSimControlSocket  tarnhold-sim's control sockets (GLib)
//   tarnholdSimOptions  the model's options, set-up and finish (shared)
//   tarnholdSimMemory   the caller's memory, read by address (shared)
//   tarnholdSimImage    Intel HEX or binary flash images (shared)
//   tarnholdSimCuse     tarnhold-sim-cuse
#pragma once

#include "qxUsb.h"
#include "simAppliance.h"

#include <array>
#include <cstdint>
#include <getopt.h>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <sys/un.h>
#include <vector>

// Every model call from any thread goes through this lock: ioctls arrive on
// umockdev's worker thread, control commands on the main loop.
std::mutex &tarnholdSimModelLock();

// ---- Front end ----------------------------------------------------------------

// A modelled part's faults and control commands: 1 done, 0 refused (error
// set), -1 not one of its own. Either may be null. Model lock held.
struct tarnholdSimPart {
    int (*fault)(const std::vector<std::string> &fields, std::string &error);
    int (*command)(const std::vector<std::string> &words, std::string &out, std::string &error);
};

// What the control commands need of the front end that serves the model:
// `sweep` closes the model handles of clients that are gone, `sync` makes
// the nodes follow the model (both with the model lock held), `part` its
// own parts beyond the model's.
struct tarnholdSimFrontEnd {
    void (*sweep)();
    void (*sync)();
    tarnholdSimPart part;
};
void tarnholdSimControlSetFrontEnd(const tarnholdSimFrontEnd &frontEnd);

// ---- Options shared by the front ends ---------------------------------------

struct tarnholdSimModelOptions {
    std::string stateFile;
    std::string platform;
    std::string mode;
    std::string flashImage;
    std::string logFile;
    std::string control;
    bool noNode = false;
    std::vector<std::string> faults;
};

// getopt_long entries of the model's options, their values from
// TARNHOLD_SIM_MODEL_OPTION_FIRST on; a front end's own options take values
// below it.
constexpr int TARNHOLD_SIM_MODEL_OPTION_FIRST = 0x100;
extern const std::array<option, 8> TARNHOLD_SIM_MODEL_OPTIONS;
// True when `opt` was one of them (and is now in `o`).
bool tarnholdSimModelOption(int opt, const char *arg, tarnholdSimModelOptions &o);
const char *tarnholdSimModelOptionUsage();
// The appliance as it stands when the front end starts serving: the saved
// state (a power-on), platform, mode, flash image, cable and faults; the
// event list empty. False after a message on standard error.
bool tarnholdSimModelSetUp(const char *program, const tarnholdSimModelOptions &o);
// At the end: the state saved, the event log written. False after a message.
bool tarnholdSimModelFinish(const char *program, const tarnholdSimModelOptions &o);

// Reads `len` bytes at `address` in process `pid`'s memory, as the driver
// reads its caller's memory; false when it cannot (nothing mapped there,
// the process gone).
bool tarnholdSimReadProcessMemory(pid_t pid, uint64_t address, void *dst, size_t len);

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

// Control connections: the bytes read from one go to `pending`; each
// whole line is run and its answer ("ok" after any output, or "error:
// REASON") appended to `replies`. False when a line grows too long (the
// answer says so): drop the connection then.
bool tarnholdSimControlFeed(std::string &pending, std::string_view data, std::string &replies);
bool tarnholdSimControlWriteAll(int fd, const std::string &text);
bool tarnholdSimControlSocketAddress(const std::string &path, sockaddr_un &addr, std::string &error);
// A listening UNIX socket at `path` (a stale one there replaced), or -1 with a reason.
int tarnholdSimControlListenSocket(const std::string &path, std::string &error);

// tarnhold-sim: listens for control connections at `path` on the default main context.
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
