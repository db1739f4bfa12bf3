// The loader's state, the platform table, the platform text read and the
// loader's send-and-wait exchange.
#include "qxLoader.h"

#include "evmLog.h"
#include "sysSeam.h"

#include <array>
#include <cstring>
#include <string>

namespace {

struct qxLoaderPlatformRow {
    const char *platform;       // searched for inside the platform text
    const char *clientFileName; // Intel HEX file of the row's application
    int32_t platformId;
};

// Table order decides: the first row whose text occurs in the platform text
// wins, so "HW=TORVA" shadows the longer TORVA texts behind it, and row 8 is
// never reached. Row 0 is also the fall-back when nothing matches.
constexpr std::array<qxLoaderPlatformRow, 13> __platformToFilenameTable = {{
    {"HW=MOSSEL", "/usr/sbin/pic-client", 0},
    {"HW=BRISKA", "/usr/sbin/briska-pic-client.hex", 1},
    {"HW=TORVA_DEFAULT", "/usr/sbin/torva-pic-client.hex", 2},
    {"HW=TORVA", "/usr/sbin/torva-pic-client.hex", 3},
    {"HW=TORVA_2X", "/usr/sbin/torva-pic-client.hex", 4},
    {"HW=TORVA_5X", "/usr/sbin/torva-pic-client.hex", 5},
    {"HW=TORVA_10X", "/usr/sbin/torva-pic-client.hex", 6},
    {"HW=TORV_TOWER", "/usr/sbin/qx-multi-pic-client.hex", 7},
    {"HW=TORV_TOWER", "/usr/sbin/qx-multi-pic-client.hex", 8},
    {"HW=GRENDA_U", "/usr/sbin/vantu-pic-client.hex", 1},
    {"HW=RL_BAY", "/usr/sbin/rb-pic-client.hex", 1},
    {"HW=RL_EXT", "/usr/sbin/rb-pic-client.hex", 1},
    {"HW=RL_LCD", "/usr/sbin/rb-pic-client.hex", 1},
}};

constexpr size_t __qxLoaderLongestFileName()
{
    size_t longest = 0;
    for (const auto &row : __platformToFilenameTable) {
        size_t len = std::char_traits<char>::length(row.clientFileName);
        longest = len > longest ? len : longest;
    }
    return longest;
}
// Callers hand in a buffer of QX_LOADER_FILE_NAME_MIN bytes.
static_assert(__qxLoaderLongestFileName() + 1 == QX_LOADER_FILE_NAME_MIN);

struct {
    uint32_t packetDataSize; // 0 until the start-up upgrade settles it
    int32_t platformId;      // id of the row the last selection chose
} qxLoaderPrivateMembers;

// Replies between two polls of the loader's exchange.
constexpr useconds_t QX_LOADER_REPLY_WAIT_US = 10000;
constexpr int QX_LOADER_REPLY_READS = 3;

} // namespace

int32_t __qxLoaderAwaitReply(uint8_t *block, uint8_t seq)
{
    // The firmware may still be answering an earlier command: give it two
    // more reads, 10 ms apart, to come up with ours.
    int32_t rc = 0;
    for (int read = 0; read < QX_LOADER_REPLY_READS; ++read) {
        if (read > 0) {
            platformSysSleep(QX_LOADER_REPLY_WAIT_US);
        }
        memset(block, 0, QX_BLOCK_SIZE);
        rc = qxUsbGetReport(block);
        if (block[QX_REPORT_SEQ] == seq) {
            break;
        }
    }
    return rc;
}

int32_t qxLoaderGenericCmd(uint8_t *block)
{
    const uint8_t code = block[QX_REPORT_CODE];
    const uint8_t seq = qxUsbGetNextSeqNumber();
    block[QX_REPORT_SEQ] = seq;

    int32_t rc = qxUsbCmd(block);
    if (rc != 0) {
        evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__, "QX_TRACE_USB-***usb cmd failed***");
        return rc;
    }

    rc = __qxLoaderAwaitReply(block, seq);
    if (rc != 0) {
        return rc;
    }
    if (block[QX_REPORT_SEQ] == seq) {
        return 0;
    }
    // Some firmware builds do not echo the sequence number: the command's own
    // code is taken as the answer.
    return block[QX_REPORT_CODE] == code ? 0 : 1;
}

int32_t __qxLoaderGetPicClientFileNameFromPlatform(const char *platformStr, char *fileName)
{
    const qxLoaderPlatformRow *chosen = &__platformToFilenameTable[0];
    int32_t rc = -1;
    for (const auto &row : __platformToFilenameTable) {
        if (strstr(platformStr, row.platform) != nullptr) {
            chosen = &row;
            rc = 0;
            break;
        }
    }
    qxLoaderPrivateMembers.platformId = chosen->platformId;
    strcpy(fileName, chosen->clientFileName);
    return rc;
}

int32_t qxLoaderGetClientFileName(char *fileName)
{
    qxUsbBlock block{};
    block[QX_REPORT_CODE] = QX_HID_CMD_GET_FLASH_VAL;
    block[QX_SLOT_BYTE_SLOT] = QX_SLOT_PLATFORM;

    int32_t rc = qxLoaderGenericCmd(block.data());
    if (rc != 0) {
        return static_cast<uint8_t>(rc);
    }

    // The zero-filled buffer keeps the text terminated whatever the slot holds.
    std::array<char, QX_STORED_NUM_MAX + 1> platformStr{};
    size_t len = block[QX_SLOT_BYTE_LEN];
    if (len > QX_STORED_NUM_MAX) {
        len = QX_STORED_NUM_MAX;
    }
    memcpy(platformStr.data(), &block[QX_SLOT_BYTE_DATA], len);
    evm_log(0, QX_LOADER_LOG_SOURCE, __LINE__, "QX_TRACE_PRINTF-platformStr: %s", evmLogEscape(platformStr.data()));

    return __qxLoaderGetPicClientFileNameFromPlatform(platformStr.data(), fileName);
}

int32_t qxLoaderGetPlatform() { return qxLoaderPrivateMembers.platformId; }

uint32_t qxLoaderGetPacketDataSize() { return qxLoaderPrivateMembers.packetDataSize; }

void qxLoaderSetPacketDataSize() { qxLoaderPrivateMembers.packetDataSize = QX_PACKET_DATA_SIZE; }
