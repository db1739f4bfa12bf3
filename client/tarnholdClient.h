// Client side of the request FIFO: one request record out, one reply back,
// through a reply FIFO of the client's own that lives only for the exchange.
#pragma once

#include <sys/types.h>

#include "usbDaemonRequest.h"

#include <cstdint>
#include <poll.h>

// The daemon serves one request at a time, so a request may wait behind the
// longest upgrade and then take its own time. The longest upgrade, with
// every wait it has used to its end:
//   FPGA: 55 s erase wait + 80 status queries x (20 ms + 1 s) = 136.6 s,
//         one capacity wait to its bound (600 x 50 ms) = 30 s,
//         3 clean-up tries x (2 s + 20 ms) = 6.06 s;          172.66 s
//   CPLD, one attempt: 3 record writes x (1 s + 3 x 10 ms) = 3.09 s,
//         2 read-backs x (2 s + 12.6 s) = 29.2 s, 20 s after the run,
//         one capacity wait to its bound (30 x 1 s) = 30 s;     82.29 s
//         two attempts and the 1 s pause between them:        165.58 s
// The FPGA upgrade is the longest, 173 s rounded up. Behind it the request
// takes its own time, at most another FPGA upgrade: 2 x 173 s = 346 s, and
// the link's own retries (up to 200 ms per send or read) round it to 360 s.
constexpr int TARNHOLD_CLIENT_LONGEST_UPGRADE_MS = 173000;
constexpr int TARNHOLD_CLIENT_TIMEOUT_MS = 360000;
static_assert(TARNHOLD_CLIENT_TIMEOUT_MS >= 2 * TARNHOLD_CLIENT_LONGEST_UPGRADE_MS);
constexpr const char *TARNHOLD_CLIENT_TMP_DIR = "/tmp";
// The account the service runs as: a request FIFO of any other account at the
// path is not the service's (another account's FIFO would collect requests).
constexpr uid_t TARNHOLD_CLIENT_SERVICE_UID = 0;
constexpr int TARNHOLD_CLIENT_PROGRESS_MS = 1000;

struct tarnholdClientParams {
    int timeoutMs = TARNHOLD_CLIENT_TIMEOUT_MS; // whole exchange, from the first system call
    const char *requestFifo = USB_DAEMON_FIFO;
    const char *tmpDir = TARNHOLD_CLIENT_TMP_DIR; // where the private reply directory is made
    // Called about every TARNHOLD_CLIENT_PROGRESS_MS while the reply is
    // awaited, with the time since the exchange began.
    void (*progress)(void *ctx, uint64_t elapsedMs) = nullptr;
    void *progressCtx = nullptr;
};

// Sends `record` (cmd, resp and padding as given; clientFifo and result are
// filled in here) and waits for the reply. 0 with `record` holding the
// reply, or a negative errno with `record` untouched:
//   -ENOENT / -ENXIO  no daemon (no request FIFO / nobody reads it)
//   -EACCES           not allowed to write requests (not in the FIFO's group)
//   -ETIMEDOUT        no reply within the timeout
//   -EPROTO           the reply FIFO closed without a whole record
//   other             a system call failed
// tarnholdClientLastError() says what happened in words.
int tarnholdClientExchange(usbDaemonRequest &record, const tarnholdClientParams &params = {});

// The text of the last failure ("" after a success).
const char *tarnholdClientLastError();

// True for the results that mean no daemon serves the request FIFO.
bool tarnholdClientIsNoDaemon(int rc);

// The waits go through this table so that tests control time.
struct tarnholdClientSysOps {
    int (*poll)(pollfd *fds, nfds_t count, int timeoutMs);
    uint64_t (*monotonicMs)();
};
extern const tarnholdClientSysOps TARNHOLD_CLIENT_SYS_LIBC;
extern tarnholdClientSysOps tarnholdClientSys;
