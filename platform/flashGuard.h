// What the service does around every flash it writes (the microcontroller's
// application at start-up, the FPGA, the CPLD): a history entry written when
// it starts and completed when it ends, journal events, a logind inhibitor
// lock against shutdown and sleep, and the stop that waits for it.
//
// A flash opens the guard's window with its first flashGuardBegin; the
// window stays open until flashGuardLeave (a request's handler calls it once
// its attempts are over). A SIGTERM, SIGINT or SIGHUP that arrives while the
// window is open is only remembered (flashGuardDefer, from the signal
// handler); it is said in the log, the status line and the journal at the next
// progress or wait, and carried out once the window has closed: at once for
// the start-up flash, after the reply for a request (flashGuardStopDue).
//
// Until flashGuardInit binds it, nothing is written, sent or locked (tests,
// a replay); the deferral itself always works.
#pragma once

#include "flashHistory.h"

#include <cstddef>
#include <cstdint>

enum class flashEvent : uint8_t { STARTED, FINISHED, FAILED, STOP_DEFERRED };

struct flashGuardOps {
    // A journal entry for `event` about the flash `e` (sig: the deferred
    // signal for STOP_DEFERRED, else 0).
    void (*event)(flashEvent event, const flashHistoryEntry &e, int sig);
    // A descriptor that holds an inhibitor lock while open, or -1 after the
    // reason has been said (once).
    int (*inhibit)(const char *why);
    // Seconds since 1970, for the history's times.
    int64_t (*nowSec)();
};

// The journal, logind on the system bus and the real clock.
extern const flashGuardOps FLASH_GUARD_SYSTEM;
// No events, no lock; the real clock.
extern const flashGuardOps FLASH_GUARD_QUIET;

// Binds the ops, opens the history in `stateDir` (nullptr: none; the folder
// is made if missing), marks entries a former run left running as
// interrupted, and sets what carries out a deferred stop. Start-up only.
void flashGuardInit(const flashGuardOps &ops, const char *stateDir, void (*carryOut)(int sig));

// Unbinds everything (closes the history): the state before flashGuardInit.
void flashGuardReset();

// A flash starts: opens the window, takes the lock, writes the entry (with
// the file's path, size, MD5 of `bytes` and the blocks or pages to write).
void flashGuardBegin(flashWhat what, const char *path, uint64_t size, const uint8_t *digest, uint32_t total);
// `done` of the total written; rewrites the entry now and then.
void flashGuardProgress(uint32_t done);
// The flash ended with `rc` (0: success); `why` says what failed.
void flashGuardEnd(int32_t rc, const char *why);
// The flash's attempts are over: releases the lock, closes the window. With
// `clientWaits` false (the start-up flash) a deferred stop is carried out now.
void flashGuardLeave(bool clientWaits);

// From a signal handler (async-signal-safe): true when `sig` is held back
// because a flash is under way or a stop already waits.
bool flashGuardDefer(int sig);

// Says a newly deferred stop (log, status line, journal) and keeps extending
// systemd's stop timeout while the flash goes on. Cheap when nothing waits.
void flashGuardPoll();

// The deferred signal once no flash is under way, handed out once; 0 when
// none waits.
int flashGuardStopDue();

// Whether a flash is under way.
bool flashGuardActive();

// MD5 of `len` bytes into `digest` (FLASH_HISTORY_DIGEST_SIZE bytes).
void flashGuardMd5(const uint8_t *bytes, size_t len, uint8_t *digest);
