// tarnhold-sim --replay: the daemon's code against a recording, on virtual time.
#pragma once

// The whole replay: parses its options, runs the daemon's start-up and loop,
// and ends the process with the result (0 matched to the end, 1 diverged, 2
// usage or an unreadable recording).
int tarnholdSimReplayMain(int argc, char **argv);

// The --replay lines of tarnhold-sim's usage.
const char *tarnholdSimReplayUsage();
