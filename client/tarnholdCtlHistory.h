// tarnholdctl history: the service's record of every flash, read from its
// state folder without the service; and the unfinished flash that status
// names as the thing to do next.
#pragma once

#include "flashHistory.h"

#include <string>
#include <vector>

enum class tarnholdCtlHistoryOutcome {
    PRINTED,    // every whole entry printed (none when nothing was ever flashed)
    UNREADABLE, // the history file is there but cannot be read
};

// Prints every entry, oldest first, as text or one JSON object.
tarnholdCtlHistoryOutcome tarnholdCtlHistory(bool json);

// How an entry stands now: a running entry whose service is gone was cut short.
flashResult tarnholdCtlHistoryState(const flashHistoryEntry &e);

// The newest FPGA and the newest CPLD flash, where that one did not end well:
// "what, when, how far" and the command that writes it again. Empty when none.
std::vector<std::string> tarnholdCtlHistoryUnfinished();
