// Daemon-support library of the appliance: pid file, detaching, wall clock.
// Stand-in with the appliance library's entry points.
#pragma once

#include <cstdint>

// Writes the pid file and holds an exclusive lock on it for the life of the
// process; a second instance is refused with a message and exit status 1.
// Detaches from the terminal only when argv holds "--daemon".
extern "C" int daemon_start(int argc, char **argv, const char *pidFilePath);

// Logs the tag and removes the pid file.
extern "C" void daemon_stop(const char *tag, const char *pidFilePath);

// Wall clock in milliseconds (through the system-call seam, so tests see virtual time).
extern "C" uint64_t getMsSince1970(void);
