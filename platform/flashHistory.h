// The history of flashes: one entry per write of the microcontroller's
// application, the FPGA or the CPLD, kept in the service's state folder and
// read back by tarnholdctl without the service.
//
// The file is a ring of FLASH_HISTORY_ENTRIES entries, each held in two
// fixed-size text lines (copies) written in turn: every update of an entry
// goes into the copy the last update did not touch, so a write cut short by a
// power loss spoils that copy only and the other still holds the entry as it
// was. A line carries its own checksum; a torn one is skipped, never the lines
// around it. Entry n lives in ring place (n - 1) % FLASH_HISTORY_ENTRIES, so
// the file never grows beyond FLASH_HISTORY_ENTRIES * 2 lines.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

constexpr size_t FLASH_HISTORY_ENTRIES = 1024;
constexpr size_t FLASH_HISTORY_LINE = 640; // bytes of one copy, its newline included
constexpr size_t FLASH_HISTORY_COPIES = 2;
constexpr size_t FLASH_HISTORY_FILE_MAX = FLASH_HISTORY_ENTRIES * FLASH_HISTORY_COPIES * FLASH_HISTORY_LINE;
constexpr const char *FLASH_HISTORY_DEFAULT_DIR = "/var/lib/tarnhold";
constexpr const char *FLASH_HISTORY_FILE = "flash-history";
constexpr size_t FLASH_HISTORY_PATH_MAX = 256;  // the flashed file's path as kept (longer ones are cut)
constexpr size_t FLASH_HISTORY_WHY_MAX = 96;    // the failure's words
constexpr size_t FLASH_HISTORY_DIGEST_SIZE = 16; // MD5

enum class flashWhat : uint8_t { MICROCONTROLLER, FPGA, CPLD };
constexpr size_t FLASH_WHAT_COUNT = 3;

// RUNNING: written at the start and not yet completed; read by anyone but the
// process that wrote it (or after it is gone) it means the flash was cut short.
enum class flashResult : uint8_t { RUNNING, OK, FAILED, INTERRUPTED };
constexpr size_t FLASH_RESULT_COUNT = 4;

struct flashHistoryEntry {
    uint64_t seq = 0;    // 1, 2, ... for the life of the file
    uint32_t update = 0; // 0 at the start, one more at each rewrite
    int32_t pid = 0;     // the service that wrote it
    flashWhat what = flashWhat::FPGA;
    flashResult result = flashResult::RUNNING;
    int32_t rc = 0;      // the flash's own status when it ended
    int64_t startSec = 0; // seconds since 1970
    int64_t endSec = 0;   // 0 while running
    uint32_t done = 0;    // blocks or pages written
    uint32_t total = 0;
    uint64_t size = 0;    // bytes of the file (of the image for the microcontroller)
    std::array<uint8_t, FLASH_HISTORY_DIGEST_SIZE> digest = {};
    std::array<char, FLASH_HISTORY_PATH_MAX + 1> file = {};
    std::array<char, FLASH_HISTORY_WHY_MAX + 1> why = {};
};

// Names as the file, the log and tarnholdctl show them.
const char *flashHistoryWhatName(flashWhat what);   // "microcontroller", "FPGA", "CPLD"
const char *flashHistoryUnit(flashWhat what);       // "blocks" or "pages"
const char *flashHistoryResultName(flashResult r);  // "running", "ok", "failed", "interrupted"

// The state folder: the first of $STATE_DIRECTORY's paths, else
// FLASH_HISTORY_DEFAULT_DIR; the history file's path in `out`. False when it
// does not fit.
bool flashHistoryPath(std::span<char> out);

// Formats one copy of `e` into exactly FLASH_HISTORY_LINE bytes.
void flashHistoryFormat(const flashHistoryEntry &e, std::span<char, FLASH_HISTORY_LINE> line);

// Parses one copy; false for a torn, foreign or damaged line.
bool flashHistoryParse(std::span<const char> line, flashHistoryEntry &e);

// Writes `e` into its copy (update % 2) of its ring place in the open file;
// `sync` makes it durable before returning. 0 or an errno value.
int flashHistoryWrite(int fd, const flashHistoryEntry &e, bool sync);

// Reads every whole entry of the open file, newest copy of each, and calls
// `visit` for them in the order they were started. Returns the number of
// lines that were there but could not be read (torn or damaged), or -errno.
int flashHistoryRead(int fd, void (*visit)(const flashHistoryEntry &e, void *ctx), void *ctx);
