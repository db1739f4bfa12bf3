// The FPGA and CPLD paths of the simulated appliance: the driver's upgrade
// requests and what the application firmware does with them, the FPGA's
// configuration memory, the CPLD's image and the CPLD record in slot 9.
#include "simModel.h"

#include "leBytes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

auto &model = simAppliancePrivateMembers;

// Status report (code 39) after the erase status query and the clean-up.
constexpr uint8_t SIM_STATUS_CODE = 39;
constexpr size_t SIM_STATUS_STATE = 3;
constexpr uint32_t SIM_ERASE_BUSY = 0;
constexpr uint32_t SIM_ERASE_DONE = 1;
constexpr uint32_t SIM_CLEAN_UP_FAILED = 2;
constexpr uint32_t SIM_CLEAN_UP_DONE = 3;

// Chunk command: first page (24-bit) at 7, page count at 11, address at 12.
constexpr size_t SIM_CHUNK_FIRST_PAGE = 7;
constexpr size_t SIM_CHUNK_COUNT = 11;
constexpr uint32_t SIM_CHUNK_MAX_PAGES = 30;

constexpr size_t SIM_RECORD_SIZE = 4; // in the CPLD info report
constexpr size_t SIM_RECORD_CRC = 6;
constexpr uint32_t SIM_CPLD_STATE_RUN = 0;

std::span<uint8_t> __simFpga()
{
    if (model.fpgaMemory.empty()) {
        model.fpgaMemory.assign(SIM_FPGA_MEMORY_SIZE, 0xFF);
        model.fpgaWrittenEnd = 0;
    }
    return model.fpgaMemory;
}

void __simFpgaErase()
{
    std::fill_n(__simFpga().begin(), model.fpgaWrittenEnd, 0xFF);
    model.fpgaWrittenEnd = 0;
}

void __simStatusReport(const picHidIoctlArg *arg, uint32_t state, uint8_t status = 0)
{
    simReport reply{};
    reply[QX_REPORT_CODE] = SIM_STATUS_CODE;
    reply[QX_REPORT_SEQ] = arg->report[QX_REPORT_SEQ];
    reply[QX_REPORT_STATUS] = status;
    lePut32(&reply[SIM_STATUS_STATE], state);
    __simQueueReply(reply);
}

// A chunk: the driver keeps its first page, count and address and reads the
// pages when it sends them on.
int __simUpgradeChunk(int handle, uint32_t request, const picHidIoctlArg *arg, const simMemReader &mem)
{
    const uint32_t count = arg->report[SIM_CHUNK_COUNT];
    const uint64_t address = leGet64(&arg->report[SIM_IO_ADDRESS]);
    if (count == 0 || count > SIM_CHUNK_MAX_PAGES) {
        return __simFail(request, EINVAL);
    }
    if (address == 0) {
        return __simFail(request, EFAULT);
    }
    const simPendingKind kind =
        request == PIC_HID_PROGRAM_FPGA ? simPendingKind::FPGA_PAGES : simPendingKind::CPLD_PAGES;
    model.pending.push_back({kind, handle, arg->report[QX_REPORT_SEQ], leGet24(&arg->report[SIM_CHUNK_FIRST_PAGE]), count,
                         address, mem});
    model.urbFreeAtUs = model.nowUs() + model.urbBusyUs;
    return 0;
}

// The microcontroller's side of a request; only the application firmware
// knows the FPGA and the CPLD.
void __simUpgradeFirmware(uint32_t request, const picHidIoctlArg *arg)
{
    simUpgradeState &u = model.upgrade;
    switch (request) {
    case PIC_HID_FPGA_UPGRADE_SETUP:
        u.fpgaSetUp = true;
        u.fpgaErased = false;
        u.fpgaPages = 0;
        break;
    case PIC_HID_ERASE_FPGA:
        __simFpgaErase();
        u.fpgaErased = false;
        model.fpgaEraseStarted = true;
        model.fpgaEraseDoneAtUs = model.nowUs() + model.fpgaEraseTimeUs;
        break;
    case PIC_HID_ERASE_FPGA_STATUS: {
        const bool stuck = __simUpgradeFaultHits(simUpgradeFault::ERASE_NEVER_CONFIRMED);
        u.fpgaErased = u.fpgaErased || (model.fpgaEraseStarted && model.nowUs() >= model.fpgaEraseDoneAtUs && !stuck);
        __simStatusReport(arg, u.fpgaErased && !stuck ? SIM_ERASE_DONE : SIM_ERASE_BUSY);
        break;
    }
    case PIC_HID_PROGRAM_CLEAN_UP:
        ++u.fpgaCleanUps;
        __simStatusReport(arg,
                          __simUpgradeFaultHits(simUpgradeFault::CLEANUP_STATE_2) ? SIM_CLEAN_UP_FAILED
                                                                                   : SIM_CLEAN_UP_DONE,
                          __simUpgradeFaultHits(simUpgradeFault::CLEANUP_STATUS_1) ? 1 : 0);
        break;
    case PIC_HID_CPLD_UPGRADE_SETUP:
        u.cpldSetUp = true;
        u.cpldErased = false;
        u.cpldPages = 0;
        break;
    case PIC_HID_ERASE_CPLD:
        model.cpldImage.fill(0xFF);
        u.cpldErased = true;
        break;
    case PIC_HID_CPLD_UPGRADE_RUN:
        ++u.cpldRuns;
        model.cpldRunPending = !__simUpgradeFaultHits(simUpgradeFault::RUN_NEVER_COMPLETES);
        model.cpldRunDoneAtUs = model.nowUs() + model.cpldRunTimeUs;
        break;
    default:
        break;
    }
}

} // namespace

bool __simIsUpgradeRequest(uint32_t request)
{
    switch (request) {
    case PIC_HID_FPGA_UPGRADE_SETUP:
    case PIC_HID_ERASE_FPGA:
    case PIC_HID_ERASE_FPGA_STATUS:
    case PIC_HID_PROGRAM_FPGA:
    case PIC_HID_PROGRAM_CLEAN_UP:
    case PIC_HID_CPLD_UPGRADE_SETUP:
    case PIC_HID_ERASE_CPLD:
    case PIC_HID_PROGRAM_CPLD:
    case PIC_HID_CPLD_UPGRADE_RUN:
        return true;
    default:
        return false;
    }
}

int __simUpgradeRequest(int handle, uint32_t request, picHidIoctlArg *arg, const simMemReader &mem)
{
    // The daemon hands every code-38 request its block, the ones without
    // data too; the status, clean-up and chunk requests need it.
    if (arg == nullptr) {
        return __simFail(request, EFAULT);
    }
    __simRecord(simEventKind::DRIVER, arg->report[QX_REPORT_CODE], arg->report[QX_REPORT_SEQ], request);
    if (request == PIC_HID_PROGRAM_FPGA || request == PIC_HID_PROGRAM_CPLD) {
        return __simUpgradeChunk(handle, request, arg, mem);
    }
    if (model.mode == simMode::APPLICATION) {
        __simUpgradeFirmware(request, arg);
    }
    return 0;
}

bool __simUpgradeHasRoom()
{
    return !__simUpgradeFaultHits(simUpgradeFault::CAPACITY_NEVER_FREE) && model.nowUs() >= model.urbFreeAtUs;
}

void __simUpgradePages(simPendingKind kind, uint32_t firstPage, uint32_t count, const uint8_t *bytes)
{
    if (model.mode != simMode::APPLICATION) {
        return; // nothing on the other end takes them
    }
    const bool fpga = kind == simPendingKind::FPGA_PAGES;
    const std::span<uint8_t> target = fpga ? __simFpga() : std::span<uint8_t>(model.cpldImage);
    const uint64_t offset = static_cast<uint64_t>(firstPage) * SIM_PAGE_SIZE;
    const uint64_t len = static_cast<uint64_t>(count) * SIM_PAGE_SIZE;
    if (offset + len > target.size()) {
        __simRecord(simEventKind::PROGRAM_DROPPED, QX_HID_CMD_IO_CMD, 0, 0, static_cast<uint32_t>(offset),
                    static_cast<uint32_t>(len));
        return;
    }
    // Configuration cells only go from 1 to 0, like the flash.
    for (uint64_t i = 0; i < len; ++i) {
        target[offset + i] &= bytes[i];
    }
    if (fpga) {
        model.fpgaWrittenEnd = std::max<size_t>(model.fpgaWrittenEnd, offset + len);
        model.upgrade.fpgaPages += count;
    } else {
        model.upgrade.cpldPages += count;
    }
}

// The record as a slot read of slot 9 gives it: size and CRC in word0 (bytes
// 4-7), the state word in word1 (8-11), the time stamp text behind them.
bool __simUpgradeCpldInfo(const uint8_t *req, simReport &reply)
{
    simReport query{};
    std::copy_n(req, QX_REPORT_SIZE, query.begin());
    query[QX_SLOT_BYTE_SLOT] = QX_SLOT_CPLD;
    if (!__simGetFlashVal(query.data(), reply)) {
        return false;
    }
    if (__simUpgradeFaultHits(simUpgradeFault::READBACK_OTHER_CRC)) {
        lePut16(&reply[SIM_RECORD_CRC], static_cast<uint16_t>(leGet16(&reply[SIM_RECORD_CRC]) ^ 0xFFFF));
    }
    if (__simUpgradeFaultHits(simUpgradeFault::READBACK_OTHER_SIZE)) {
        lePut16(&reply[SIM_RECORD_SIZE], static_cast<uint16_t>(leGet16(&reply[SIM_RECORD_SIZE]) ^ 0x0100));
    }
    return true;
}

bool __simUpgradeRecordWriteAnswered(uint8_t slot)
{
    return slot != QX_SLOT_CPLD || !__simUpgradeFaultHits(simUpgradeFault::RECORD_WRITE_UNCONFIRMED);
}

void __simUpgradeTick()
{
    if (!model.cpldRunPending || model.nowUs() < model.cpldRunDoneAtUs) {
        return;
    }
    model.cpldRunPending = false;
    simSlot &record = model.slots[QX_SLOT_CPLD];
    if (record.len == 0xFF) {
        record = simSlot{0xFFFFFFFF, 0, 0, {}}; // a run without a record leaves an empty one
    }
    record.word1 = SIM_CPLD_STATE_RUN;
    __simRecord(simEventKind::CPLD_RUN_DONE);
}

bool __simUpgradeFaultHits(simUpgradeFault fault)
{
    int &armed = model.upgradeFaults[static_cast<size_t>(fault)];
    if (armed == 0) {
        return false;
    }
    if (armed > 0) {
        --armed;
    }
    return true;
}

void __simUpgradeReset()
{
    if (!model.fpgaMemory.empty()) {
        __simFpgaErase();
    }
    model.cpldImage.fill(0xFF);
    model.upgrade = simUpgradeState{};
    model.fpgaEraseStarted = false;
    model.fpgaEraseDoneAtUs = 0;
    model.fpgaEraseTimeUs = 50000000;
    model.cpldRunTimeUs = 10000000;
    model.cpldRunPending = false;
    model.cpldRunDoneAtUs = 0;
    model.urbBusyUs = 0;
    model.urbFreeAtUs = 0;
    model.upgradeFaults.fill(0);
}

// ---- Interface -------------------------------------------------------------------

std::span<const uint8_t> simFpgaMemory()
{
    return __simFpga();
}

std::span<const uint8_t> simCpldImage()
{
    return model.cpldImage;
}

simUpgradeState simGetUpgradeState()
{
    __simUpgradeTick();
    return model.upgrade;
}

void simSetFpgaEraseTimeUs(uint64_t us)
{
    model.fpgaEraseTimeUs = us;
}

void simSetCpldRunTimeUs(uint64_t us)
{
    model.cpldRunTimeUs = us;
}

void simSetUrbBusyUs(uint64_t us)
{
    model.urbBusyUs = us;
}

void simSetUpgradeFault(simUpgradeFault fault, int count)
{
    if (fault == simUpgradeFault::NONE) {
        model.upgradeFaults.fill(0);
        return;
    }
    model.upgradeFaults[static_cast<size_t>(fault)] = count;
}
