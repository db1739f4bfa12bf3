// Client side of the request FIFO: one request record out, one reply back,
// through a reply FIFO of the client's own that lives only for the exchange.
#pragma once

#include "usbDaemonRequest.h"

#include <cstdint>
#include <poll.h>

constexpr int TARNHOLD_CLIENT_TIMEOUT_MS = 30000;
constexpr const char *TARNHOLD_CLIENT_TMP_DIR = "/tmp";

struct tarnholdClientParams {
    int timeoutMs = TARNHOLD_CLIENT_TIMEOUT_MS; // whole exchange, from the first system call
    const char *requestFifo = USB_DAEMON_FIFO;
    const char *tmpDir = TARNHOLD_CLIENT_TMP_DIR; // where the private reply directory is made
};

// Sends `record` (cmd, resp and padding as given; clientFifo and result are
// filled in here) and waits for the reply. 0 with `record` holding the
// reply, or a negative errno with `record` untouched:
//   -ENOENT / -ENXIO  no daemon (no request FIFO / nobody reads it)
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
