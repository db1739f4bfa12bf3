// The service's recorder: when TARNHOLD_RECORD names a file, every exchange
// the service has with its world through the system-call seam is appended to
// it as it happens (one write per exchange, so a crash loses none before it),
// in the format of recordFormat.h. Off, the seam is not touched at all.
//
//   TARNHOLD_RECORD=FILE      where; an earlier recording there is kept as FILE.1
//   TARNHOLD_RECORD_DATA=1    files and memory the driver reads are kept whole,
//                             not only as their SHA-256
//   TARNHOLD_RECORD_LIMIT=N   size limit in bytes (K, M, G suffixes), default 64M:
//                             beyond it the start-up part and the most recent
//                             part are kept, with a gap record between them
//
// A file that cannot be written (a full disk) stops the recording with one
// log line; the service goes on serving.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Starts recording if the environment asks for it: wraps platformSys, writes
// the file header and the START record (the command line, the request FIFO's
// descriptor). Call once the request FIFO is open.
void sysRecordStart(int argc, char **argv, int requestFd);

// Where records go instead of a file: the replayer compares them with a
// recording. `record` gets each record's head, fixed part and text (and the
// variable bytes of small records); `bulk` the variable bytes of a record
// that streams them (files, memory, long transfers); `end` closes each record.
// `isFile` says whether a descriptor just opened is a file read whole (kept
// as a FILE record, its reads not recorded).
struct sysRecordSinkOps {
    void (*record)(std::span<const uint8_t> bytes);
    void (*bulk)(std::span<const uint8_t> bytes);
    void (*end)();
    bool (*isFile)(const char *path, int flags, int fd);
};

// Wraps platformSys as sysRecordStart does, with the records going to `sink`;
// `withData` as TARNHOLD_RECORD_DATA=1.
void sysRecordStartSink(const sysRecordSinkOps &sink, bool withData);

// Whether records are being made.
bool sysRecordOn();

// The signal that ends the process, as an EXIT record; async-signal-safe.
void sysRecordExit(int sig);

// Stops recording and puts the table back as it was before the start.
void sysRecordStop();
