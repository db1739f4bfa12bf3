// Event-log client of the appliance: one line per call to standard error and
// to syslog (facility daemon); no copy on standard error when that is the
// journal's stream (a systemd service), where syslog's line is enough. Stand-in for the appliance's own client, with
// the same entry point so an appliance build links the real one instead.
#pragma once

#include <cstdarg>
#include <cstddef>

extern "C" void evm_log(int level, const char *source, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// Text from outside (a client's path, a file name, a file's or the
// microcontroller's bytes) for a log line: control characters, backslashes and
// bytes beyond ASCII become \n, \r, \t, \\ or \xNN, so that it can neither
// end the line nor pass for another; at most EVM_LOG_ESCAPED_MAX characters,
// "..." where cut. The text stays valid until EVM_LOG_ESCAPE_SLOTS more calls:
// enough for every argument of one line.
constexpr size_t EVM_LOG_ESCAPED_MAX = 1023;
constexpr size_t EVM_LOG_ESCAPE_SLOTS = 4;
const char *evmLogEscape(const char *text);

// A sink sees every line after formatting (trailing newline removed). Tests
// install one to assert exact texts; nullptr restores the default output.
using evmLogSinkFn = void (*)(int level, const char *source, int line, const char *text);
void evmLogSetSink(evmLogSinkFn sink);

// Whether lines also go to standard error and syslog while a sink is set.
void evmLogSetEcho(bool echo);
