// Event-log client of the appliance: one line per call to standard error and
// to syslog (facility daemon); no copy on standard error when that is the
// journal's stream (a systemd service), where syslog's line is enough. Stand-in for the appliance's own client, with
// the same entry point so an appliance build links the real one instead.
#pragma once

#include <cstdarg>

extern "C" void evm_log(int level, const char *source, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// A sink sees every line after formatting (trailing newline removed). Tests
// install one to assert exact texts; nullptr restores the default output.
using evmLogSinkFn = void (*)(int level, const char *source, int line, const char *text);
void evmLogSetSink(evmLogSinkFn sink);

// Whether lines also go to standard error and syslog while a sink is set.
void evmLogSetEcho(bool echo);
