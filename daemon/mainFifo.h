// The request FIFO and the replies: who may send requests, what the service
// finds at the FIFO's path when it starts, and where it writes a reply.
#pragma once

#include "usbDaemonRequest.h"

#include <cstdint>

// The group that may send requests (--fifo-group): `name` nullptr for none,
// then every local account may (the protocol's mode 0666). With one, the FIFO
// is root's and the group's (0620) and replies go only into FIFOs of root or
// of the group's members. `refused` when the option's value was not a name.
// Looks the group and its members up: at start-up only, it may allocate.
int32_t mainFifoSetGroup(const char *name, bool refused);

// Makes the request FIFO ready at its fixed path, whatever was there (moved
// aside, said in the log), and opens its read end and the service's own write
// end. 0, or -1 after the line that says why.
int32_t mainFifoOpen(int &fdDaemon, int &fdDummy);

// The descriptor requests are read from: a reply is never written into it.
void mainFifoSetRequest(int fd);

// Writes the record into the FIFO its clientFifo names, if that passes the
// rules; otherwise one log line says why and there is no reply. `fdClient`
// holds the reply's descriptor while it is written (for the exit handler).
void mainFifoReply(const usbDaemonRequest &record, int &fdClient);
