// tarnholdctl status: the checks an operator runs first when something seems
// wrong, each one OK, not available in this build or platform, or what is wrong.
#pragma once

#include "tarnholdClient.h"

enum class tarnholdCtlStatusOutcome {
    ALL_WELL,        // every check OK or not available
    SOMETHING_WRONG, // at least one check failed
    NO_DAEMON,       // no daemon answered the round trip
    DENIED,          // not allowed to write into the request FIFO
};

// Runs every check, prints one line per check (or one JSON object).
tarnholdCtlStatusOutcome tarnholdCtlStatus(const tarnholdClientParams &params, bool json);
