// The USB HID bootloader of the simulated PIC32: Microchip's erase, program
// and complete over the application flash, its GET_INFO and slot commands,
// and the power cut that can interrupt a step.
#include "simModel.h"

#include "leBytes.h"

#include <algorithm>

namespace {

constexpr uint8_t SIM_PRODUCT_ID_BOOTLOADER = QX_PRODUCT_ID_BOOTLOADER;

// The bootloader's PROGRAM_DEVICE packet: address at 1-4, count at 5, data
// right-justified so that it ends at byte 63.
constexpr size_t SIM_PROGRAM_ADDRESS = 1;
constexpr size_t SIM_PROGRAM_COUNT = 5;
constexpr size_t SIM_PROGRAM_MAX_DATA = QX_REPORT_SIZE - 6;

auto &model = simAppliancePrivateMembers;


// Erase, program and complete are the steps a power cut can interrupt.
void __simBootloaderStepDone()
{
    if (model.powerLossSteps > 0 && --model.powerLossSteps == 0) {
        model.powerLossSteps = -1;
        __simLosePower();
    }
    __simBoundaryDone();
}

void __simBootloaderErase()
{
    std::fill(model.flash.begin(), model.flash.end(), 0xFF);
    model.programRunOpen = false;
    __simRecord(simEventKind::ERASE, ERASE_DEVICE);
    __simBootloaderStepDone();
}

void __simBootloaderProgram(const uint8_t *packet)
{
    const uint32_t address = leGet32(&packet[SIM_PROGRAM_ADDRESS]);
    const uint32_t n = packet[SIM_PROGRAM_COUNT];
    const uint64_t end = static_cast<uint64_t>(address) + n;
    const bool inRange = n > 0 && n <= SIM_PROGRAM_MAX_DATA && address >= SIM_FLASH_START &&
                         end <= static_cast<uint64_t>(SIM_FLASH_START) + SIM_FLASH_SIZE;
    const bool follows = !model.programRunOpen || address == model.programRunEnd;
    if (!inRange || !follows) {
        __simRecord(simEventKind::PROGRAM_DROPPED, PROGRAM_DEVICE, 0, 0, address, n);
    } else {
        // Flash cells only go from 1 to 0: programming over data that was not
        // erased leaves the AND of both.
        const uint8_t *data = packet + QX_REPORT_SIZE - n;
        uint8_t *cell = &model.flash[address - SIM_FLASH_START];
        for (uint32_t i = 0; i < n; ++i) {
            cell[i] &= data[i];
        }
        model.programRunOpen = true;
        model.programRunEnd = address + n;
        __simRecord(simEventKind::PROGRAM, PROGRAM_DEVICE, 0, 0, address, n);
    }
    __simBootloaderStepDone();
}

void __simBootloaderComplete()
{
    model.programRunOpen = false;
    __simRecord(simEventKind::COMPLETE, PROGRAM_COMPLETE);
    __simBootloaderStepDone();
}

} // namespace

void __simBootloaderReceive(const uint8_t *req)
{
    simReport reply = __simReplyHeader(req);
    switch (req[QX_REPORT_CODE]) {
    case QUERY_DEVICE:
        // Microchip's layout: packet size, family (PIC32), one program region, end mark.
        reply[1] = static_cast<uint8_t>(QX_PACKET_DATA_SIZE);
        reply[2] = 3;
        reply[3] = 1;
        lePut32(&reply[4], SIM_FLASH_START);
        lePut32(&reply[8], SIM_FLASH_SIZE);
        reply[12] = 0xFF;
        __simQueueReply(reply);
        break;
    case ERASE_DEVICE:
        __simBootloaderErase();
        break;
    case PROGRAM_DEVICE:
        __simBootloaderProgram(req);
        break;
    case PROGRAM_COMPLETE:
        __simBootloaderComplete();
        break;
    case RESET_DEVICE:
    case QX_HID_CMD_GOTO_APPLICATION:
        __simRecord(simEventKind::GOTO_APPLICATION);
        model.pendingSwitch = true;
        model.pendingMode = simMode::APPLICATION;
        __simBoundaryDone();
        break;
    case QX_HID_CMD_GOTO_BOOTLOADER:
        __simRecord(simEventKind::GOTO_BOOTLOADER);
        model.pendingSwitch = true;
        model.pendingMode = simMode::BOOTLOADER;
        __simBoundaryDone();
        break;
    case QX_HID_CMD_GET_INFO:
        reply[QX_REPORT_PAYLOAD] = SIM_PRODUCT_ID_BOOTLOADER;
        __simQueueReply(reply);
        break;
    case QX_HID_CMD_GET_FLASH_VAL:
        if (__simGetFlashVal(req, reply)) {
            __simQueueReply(reply);
        }
        break;
    case QX_HID_CMD_SET_FLASH_VAL:
        if (__simSetFlashVal(req, reply)) {
            __simQueueReply(reply);
        }
        break;
    default:
        break; // the bootloader knows nothing else
    }
}

// A report reaches whatever firmware runs.
void __simFirmwareReceive(const uint8_t *report)
{
    switch (model.mode) {
    case simMode::APPLICATION:
        __simApplicationReceive(report);
        break;
    case simMode::BOOTLOADER:
        __simBootloaderReceive(report);
        break;
    case simMode::DEAD:
        break;
    }
}
