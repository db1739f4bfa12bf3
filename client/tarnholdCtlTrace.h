// tarnholdctl trace: a recording of the service printed one exchange a line.
#pragma once

enum class tarnholdCtlTraceOutcome {
    PRINTED,    // every record printed
    UNREADABLE, // the file cannot be opened or read
    REFUSED,    // not a recording, another format version, or a damaged record (what came before it printed)
};

// Prints the header and every record of the file at `path` on standard
// output, as text or JSON Lines; the reason for a failure on standard error.
tarnholdCtlTraceOutcome tarnholdCtlTrace(const char *path, bool json);
