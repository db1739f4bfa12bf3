// The daemon core: process entry, signals and crash log, the request FIFO and
// the request loop. Only what other modules and the tests call.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- File-transfer test pattern -------------------------------------------

constexpr size_t MAIN_TEST_BUF_SIZE = 0x800000; // 8 MiB
constexpr size_t MAIN_TEST_BUF_BLOCK = 200;
constexpr size_t MAIN_TEST_BUF_BLOCKS = 41943; // 8,388,600 bytes; the last 8 stay 0

// Filled before main (block k holds k mod 256); nothing else writes it. The
// file-transfer test hands its address to the driver.
extern uint8_t __testingTmmmmpBuf[MAIN_TEST_BUF_SIZE];

// ---- Heartbeat --------------------------------------------------------------

// What the request loop asks of the controller heartbeat on every pass.
struct mainHeartbeatOps {
    uint32_t (*intervalSec)(); // whole seconds; 0: no heartbeat, wait without a timeout
    void (*beep)();
};

// Interval 0, no beep: the binding until the controller heartbeat is found.
extern const mainHeartbeatOps MAIN_HEARTBEAT_NONE;

// The SCSI controller heartbeat: its interval and its beat.
extern const mainHeartbeatOps MAIN_HEARTBEAT_SCSI_CTRL;

// The live binding (start-up binds the controller heartbeat; tests bind fakes).
extern mainHeartbeatOps mainHeartbeat;

// ---- Process entry and loop ---------------------------------------------------

// The whole start-up and the request loop; returns only on --help, a bad
// option (0) or a start-up failure (1).
int mainRun(int argc, char **argv);

// The same on a replay: options, then start-up from the firmware decision on
// and the loop, reading requests from `requestFd`; no daemon start, signals,
// pid file or FIFO of its own; waits cut in the recorded service's
// keep-alive slices.
int mainReplay(int argc, char **argv, int requestFd, uint64_t watchdogSliceUs);

// One pass of the request loop: wait (through platformSys.select), heartbeat
// check, then at most one 244-byte record served.
void mainLoopPass();

// Points the loop at another request descriptor and resets its heartbeat
// tick, so tests can drive passes without the fixed FIFO path.
void mainLoopSetRequestFd(int fd);

// What carries out an exit signal, at once or (SIGTERM, SIGINT, SIGHUP) once
// the flash that held it back has ended: the exit handler's course, which
// ends the process. Tests bind a recorder.
extern void (*mainCarryOutStop)(int sig);
