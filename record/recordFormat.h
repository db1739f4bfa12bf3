// The recording format: every exchange the service has with its world (the
// request FIFO and the clients' reply FIFOs, the device node, the I2C bus, the
// controller's configuration file, shell commands, sleeps, the wall clock,
// files it reads, the driver's reads of its memory), one record per exchange,
// appended as it happens. Written by sysRecord, read by `tarnholdctl trace`
// and `tarnhold-sim --replay`.
//
// A file is a recordFileHeader followed by records. Each record is a
// recordHead (its whole size, its kind, the time since the recording started)
// followed by the kind's fixed part and then its variable bytes (paths,
// data), as the table below gives them. All numbers little-endian, as the
// appliance is. A reader takes any file of RECORD_FORMAT_VERSION, whatever
// build wrote it, and refuses another version.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

constexpr char RECORD_MAGIC[8] = {'T', 'N', 'H', 'R', 'E', 'C', '\r', '\n'};
constexpr uint16_t RECORD_FORMAT_VERSION = 1;
constexpr size_t RECORD_BUILD_SIZE = 72;
constexpr size_t RECORD_HASH_SIZE = 32; // SHA-256
constexpr uint32_t RECORD_FLAG_DATA = 1; // files and memory reads hold their bytes

// Paths and shell commands are kept to this many bytes; the reader refuses longer.
constexpr size_t RECORD_TEXT_MAX = 4096;
// Command-line words of the START record, all of them NUL-terminated.
constexpr size_t RECORD_ARGV_MAX = 64;

struct recordFileHeader {
    char magic[8];
    uint16_t version;
    uint16_t headerSize; // sizeof(recordFileHeader) for version 1
    uint32_t flags;
    uint64_t startWallMs; // the wall clock when the recording started
    char build[RECORD_BUILD_SIZE]; // "tarnhold <version>", NUL-terminated
};
static_assert(sizeof(recordFileHeader) == 96);
static_assert(offsetof(recordFileHeader, version) == 8 && offsetof(recordFileHeader, flags) == 12 &&
              offsetof(recordFileHeader, startWallMs) == 16 && offsetof(recordFileHeader, build) == 24);

struct recordHead {
    uint32_t size; // the whole record, this head included
    uint8_t kind;  // recordKind
    uint8_t reserved[3];
    uint64_t timeUs; // since the recording started
};
static_assert(sizeof(recordHead) == 16 && offsetof(recordHead, kind) == 4 && offsetof(recordHead, timeUs) == 8);

enum class recordKind : uint8_t {
    START = 1,   // recordStart + argv words
    OPEN = 2,    // recordOpen + path
    CLOSE = 3,   // recordClose
    IOCTL = 4,   // recordIoctl + argument before + argument after
    READ = 5,    // recordTransfer + the bytes read
    WRITE = 6,   // recordTransfer + the bytes offered
    LSEEK = 7,   // recordLseek
    SLEEP = 8,   // recordSleep
    SYSTEM = 9,  // recordSystem + command
    SELECT = 10, // recordSelect
    CLOCK = 11,  // recordClock
    ACCESS = 12, // recordAccess + path
    STAT = 13,   // recordStat + path (empty for a descriptor's)
    USB = 14,    // recordUsb + recordUsbDevice entries (the bus listing)
    FILE = 15,   // recordFile + path + the file's bytes (with RECORD_FLAG_DATA)
    MEM = 16,    // recordMem + the bytes (with RECORD_FLAG_DATA)
    PCI = 17,    // the controller's sysfs folder found at start-up, empty when none
    EXIT = 18,   // recordExit
    GAP = 19,    // recordGap: exchanges left out to keep the file within its limit
};
constexpr uint8_t RECORD_KIND_LAST = 19;

struct recordStart {
    int32_t argc;
    int32_t requestFd; // the request FIFO's read end
    uint64_t watchdogSliceUs; // keep-alive slice of the service manager's watchdog, 0 without one
    uint32_t pid;
    uint32_t reserved;
};
static_assert(sizeof(recordStart) == 24);

struct recordOpen {
    int32_t flags;
    uint32_t mode;
    int32_t result;
    int32_t err;
};
static_assert(sizeof(recordOpen) == 16);

struct recordClose {
    int32_t fd;
    int32_t result;
    int32_t err;
    uint32_t reserved;
};
static_assert(sizeof(recordClose) == 16);

// How an ioctl's argument is kept.
enum class recordArgKind : uint32_t {
    VALUE = 0, // the argument itself, as a number (8 bytes before, 8 after)
    BLOCK = 1, // the picdev driver's 88-byte block
    SMBUS = 2, // recordSmbus
};

struct recordIoctl {
    int32_t fd;
    uint32_t request;
    int32_t result;
    int32_t err;
    uint32_t argKind; // recordArgKind
    uint32_t argSize; // bytes of each of the two copies that follow
};
static_assert(sizeof(recordIoctl) == 24);

// An SMBus transfer: its fields and the 34-byte data block it points to.
struct recordSmbus {
    uint8_t readWrite;
    uint8_t command;
    uint16_t reserved;
    uint32_t size;
    uint8_t data[34];
    uint16_t reserved2;
};
static_assert(sizeof(recordSmbus) == 44 && offsetof(recordSmbus, data) == 8);

struct recordTransfer {
    int32_t fd;
    uint32_t len; // asked for (read) or offered (write)
    int64_t result;
    int32_t err;
    uint32_t reserved;
};
static_assert(sizeof(recordTransfer) == 24);

struct recordLseek {
    int32_t fd;
    int32_t whence;
    int64_t offset;
    int64_t result;
    int32_t err;
    uint32_t reserved;
};
static_assert(sizeof(recordLseek) == 32);

struct recordSleep {
    uint32_t us;
    int32_t result;
};
static_assert(sizeof(recordSleep) == 8);

struct recordSystem {
    int32_t result;
    uint32_t reserved;
};
static_assert(sizeof(recordSystem) == 8);

// The loop's wait on its request descriptor.
struct recordSelect {
    int32_t fd;          // the highest descriptor asked about (the request FIFO)
    int32_t result;
    int64_t timeoutUs;   // -1: no timeout
    int32_t err;
    uint32_t readable;   // 1 when the descriptor was left in the read set
};
static_assert(sizeof(recordSelect) == 24);

struct recordClock {
    uint64_t msSince1970;
};
static_assert(sizeof(recordClock) == 8);

struct recordAccess {
    int32_t mode;
    int32_t result;
    int32_t err;
    uint32_t reserved;
};
static_assert(sizeof(recordAccess) == 16);

struct recordStat {
    int32_t fd; // -1: by path
    int32_t result;
    int32_t err;
    uint32_t mode;
    int64_t size;
    uint32_t uid;
    uint32_t reserved;
};
static_assert(sizeof(recordStat) == 32);

// libusb 0.1 calls of the microcontroller's USB port reset.
enum class recordUsbOp : uint32_t { INIT = 0, FIND_BUSSES, FIND_DEVICES, GET_BUSSES, OPEN, RESET, CLOSE };
constexpr uint32_t RECORD_USB_OP_LAST = 6;

struct recordUsb {
    uint32_t op;
    int32_t result; // GET_BUSSES: devices listed; OPEN: 1 for a handle, 0 for none
};
static_assert(sizeof(recordUsb) == 8);

constexpr size_t RECORD_USB_DEVICES_MAX = 32;
struct recordUsbDevice {
    char bus[16];
    char device[16];
    uint16_t idVendor;
    uint16_t idProduct;
    uint32_t reserved;
};
static_assert(sizeof(recordUsbDevice) == 40);

// A file the service read, opened through the seam: kept whole or as its hash.
struct recordFile {
    int32_t fd; // the open's result
    int32_t flags;
    int64_t size; // -1: the open failed (err says why)
    int32_t err;
    uint32_t pathLen; // bytes of path that follow
    uint8_t sha256[RECORD_HASH_SIZE];
};
static_assert(sizeof(recordFile) == 56);

// Bytes the driver took from the service's memory by address.
struct recordMem {
    int32_t fd;
    uint32_t request; // the ioctl that named the address
    uint64_t address;
    uint32_t len;
    uint32_t readable; // 0: the address could not be read
    uint8_t sha256[RECORD_HASH_SIZE];
};
static_assert(sizeof(recordMem) == 56);

struct recordExit {
    int32_t signal;
    uint32_t reserved;
};
static_assert(sizeof(recordExit) == 8);

struct recordGap {
    uint64_t records;
    uint64_t bytes;
};
static_assert(sizeof(recordGap) == 16);

// ---- Reading ----------------------------------------------------------------

// One record, checked: `fixed` is the kind's fixed part (copied out, aligned),
// `text` its path or command (not NUL-terminated), `data` its bytes. For
// IOCTL `data` holds both copies of the argument; for USB the device entries;
// for START the argv words.
struct recordView {
    recordHead head;
    uint64_t index; // 1 for the first record
    uint64_t offset; // of the record in the file
    alignas(8) uint8_t fixed[64];
    std::span<const uint8_t> text;
    std::span<const uint8_t> data;
};

// What went wrong with a file or a record, for a one-line error.
struct recordError {
    uint64_t index;  // of the record that broke (0: the file header)
    uint64_t offset;
    char message[160];
};

// Checks the file header; fills `header` on success. False and `error` set on
// a short file, another magic or another format version.
bool recordReadHeader(std::span<const uint8_t> file, recordFileHeader &header, recordError &error);

// The record at `offset`; on success moves `offset` past it and bumps
// `index`. Returns 1 for a record, 0 at a clean end of the file, -1 with
// `error` set on a damaged or truncated record.
int recordReadNext(std::span<const uint8_t> file, uint64_t &offset, uint64_t &index, recordView &view,
                   recordError &error);

// The kind's name ("ioctl", "open", ...), or nullptr for a number that is no kind.
const char *recordKindName(uint8_t kind);

// The size of a kind's fixed part (0 for PCI, which has none).
size_t recordFixedSize(recordKind kind);
