// A recording's exchanges in words: one line of text or one JSON object per
// record, with descriptors named by their paths, driver requests and command
// codes by their names, requests and replies decoded.
#pragma once

#include "recordFormat.h"

#include <map>
#include <string>
#include <string_view>

// Text a recording carries, for a line: bytes outside printable ASCII and
// backslashes as \xNN, so no text can end the line or pass for another.
std::string tracePrintable(std::string_view raw);

// What earlier records told about the descriptors of later ones.
struct traceState {
    int requestFd = -1;
    std::map<int, std::string> paths; // open descriptors and their paths
};

void traceReset(traceState &s);

// Learns from a record (START, OPEN, FILE, CLOSE). Call it after traceLine
// or traceJson for the same record, so that a CLOSE still names its path.
void traceTake(traceState &s, const recordView &v);

// The exchange number, the time since the recording started, the kind and
// what it carried; no newline.
std::string traceLine(const traceState &s, const recordView &v);
std::string traceJson(const traceState &s, const recordView &v);
