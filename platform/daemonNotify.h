// Telling the service manager what the service does: ready, a one-line
// status, and the watchdog's keep-alive (sd_notify). Every notification goes
// through here. Until daemonNotifyInit has found NOTIFY_SOCKET (started by
// hand, in tests) every call does nothing.
#pragma once

#include <cstdint>

// Reads NOTIFY_SOCKET and the watchdog interval from the environment and
// starts afresh: not ready, no status sent, no keep-alive sent.
void daemonNotifyInit();

// Starts afresh telling nobody, as under a watchdog with this keep-alive
// slice (0: none): a replay waits in the slices the recorded service did.
void daemonNotifyInitSlice(uint64_t sliceUs);

// A status line of its own: the device search, the firmware file chosen, the
// start-up decision, an upgrade under way. printf-like.
void daemonNotifyStatus(const char *format, ...) __attribute__((format(printf, 1, 2)));

// "<what>: <done> of <total> <unit> written", at most a few lines a second;
// the first and the last always go out.
void daemonNotifyProgress(const char *what, const char *unit, uint32_t done, uint32_t total);

// The request loop can serve: the first call reports ready; any call puts the
// serving line back when another status has replaced it.
void daemonNotifyServing();

// Whether the link to the microcontroller is closed; the serving line says so
// for as long as it lasts (the link or the loop calls this when it finds out).
void daemonNotifySetLinkClosed(bool closed);

// The watchdog's keep-alive, sent at most once per daemonNotifyWatchdogSliceUs;
// call it as often as is convenient from anything that makes progress.
void daemonNotifyWatchdog();

// How long the service may go between keep-alives: an eighth of the
// watchdog interval; 0 when no watchdog watches the process.
uint64_t daemonNotifyWatchdogSliceUs();

// While set, every status line ends with "; <note>" (a stop that waits for a
// flash to end); nullptr clears it. The current line is sent again with it.
void daemonNotifySetStopNote(const char *note);

// Asks the service manager for `us` more before it gives up on the stop
// (EXTEND_TIMEOUT_USEC), at most once per `gapUs` of the monotonic clock.
void daemonNotifyExtendStop(uint64_t us, uint64_t gapUs);
