// The picdev driver of the simulated appliance: its handles on the device
// node, the report queue, the driver requests, the requests it takes by
// address and reads when it sends them on, the module commands and the USB
// port reset.
#include "simModel.h"

#include "leBytes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

auto &model = simAppliancePrivateMembers;

// The application's reset vector: the first word of the flash range.
constexpr size_t SIM_RESET_VECTOR_SIZE = 4;

// The injected failure for this request, or 0.
int __simInjectedFault(uint32_t request)
{
    for (auto it = model.ioctlFaults.begin(); it != model.ioctlFaults.end(); ++it) {
        if (it->request != 0 && it->request != request) {
            continue;
        }
        if (it->after > 0) {
            --it->after;
            continue;
        }
        const int err = it->err;
        if (--it->count <= 0) {
            model.ioctlFaults.erase(it);
        }
        return err;
    }
    return 0;
}

int __simDriverSend(picHidIoctlArg *arg)
{
    __simRecord(simEventKind::SEND, arg->report[QX_REPORT_CODE], arg->report[QX_REPORT_SEQ], PIC_HID_SEND_REPORT);
    __simFirmwareReceive(arg->report);
    return 0;
}

int __simDriverGetReport(picHidIoctlArg *arg)
{
    if (!model.queue.empty()) {
        simQueuedReport &next = model.queue.front();
        if (next.delayReads > 0) {
            --next.delayReads;
        } else if (model.nowUs() >= next.visibleAtUs) {
            model.lastReport = next.bytes;
            model.queue.pop_front();
        }
    }
    // With nothing new the driver hands back the last input report again.
    std::memcpy(arg->report, model.lastReport.data(), QX_REPORT_SIZE);
    __simRecord(simEventKind::GET_REPORT, model.lastReport[QX_REPORT_CODE], model.lastReport[QX_REPORT_SEQ],
                PIC_HID_GET_REPORT);
    return 0;
}

int __simDriverFileTransfer(picHidIoctlArg *arg, const simMemReader &mem)
{
    simFileTransfer t;
    t.done = true;
    t.len = arg->xferLen;
    t.checksum = SIM_FNV_BASIS;
    std::array<uint8_t, 65536> chunk;
    uint64_t offset = 0;
    t.readOk = !__simUpgradeFaultHits(simUpgradeFault::TRANSFER_UNREADABLE);
    while (t.readOk && offset < t.len) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), t.len - offset));
        if (mem.read == nullptr || !mem.read(mem.ctx, arg->xferBuf + offset, chunk.data(), n)) {
            t.readOk = false;
            break;
        }
        if (offset == 0) {
            std::memcpy(t.head, chunk.data(), std::min(n, sizeof(t.head)));
        }
        t.checksum = __simFnv1a(t.checksum, chunk.data(), n);
        offset += n;
    }
    model.fileTransfer = t;
    __simRecord(simEventKind::FILE_TRANSFER, QX_HID_CMD_FILE_TRANSFER_TEST, arg->report[QX_REPORT_SEQ],
                PIC_HID_FILE_TRANSFER_TEST, static_cast<uint32_t>(arg->xferBuf), t.len);
    return t.readOk ? 0 : -EFAULT;
}

// PROGRAM / PROGRAM_DONE: the report names the block whose packet the driver
// sends. It keeps the address and reads the packet when it sends it on; only
// a null address it refuses at once.
int __simDriverPic32Program(int handle, uint32_t request, picHidIoctlArg *arg, const simMemReader &mem)
{
    __simRecord(simEventKind::DRIVER, arg->report[QX_REPORT_CODE], arg->report[QX_REPORT_SEQ], request);
    const uint64_t address = leGet64(&arg->report[SIM_IO_ADDRESS]);
    if (address == 0) {
        return __simFail(request, EFAULT);
    }
    model.pending.push_back({simPendingKind::PIC32_PACKET, handle, arg->report[QX_REPORT_SEQ], 0, 0, address, mem});
    return 0;
}

// What the driver took from `handle` by address goes out now: this is the
// moment it reads the caller's memory, as a driver with queued URBs does.
void __simDriverSendPending(int handle)
{
    std::vector<simPendingRead> mine;
    auto rest = std::stable_partition(model.pending.begin(), model.pending.end(),
                                      [handle](const simPendingRead &p) { return p.handle != handle; });
    mine.assign(rest, model.pending.end());
    model.pending.erase(rest, model.pending.end());
    const uint32_t generation = model.generation;
    std::vector<uint8_t> bytes;
    for (const simPendingRead &p : mine) {
        if (model.generation != generation) {
            return; // the device went away while sending (a power cut)
        }
        const bool packet = p.kind == simPendingKind::PIC32_PACKET;
        bytes.assign(packet ? QX_REPORT_SIZE : p.count * SIM_PAGE_SIZE, 0);
        const auto len = static_cast<uint32_t>(bytes.size());
        if (p.mem.read == nullptr || !p.mem.read(p.mem.ctx, p.address, bytes.data(), bytes.size())) {
            __simRecord(simEventKind::PAGES_UNREADABLE, QX_HID_CMD_IO_CMD, p.seq, 0, static_cast<uint32_t>(p.address),
                        len);
            continue;
        }
        __simRecord(simEventKind::PAGES_READ, QX_HID_CMD_IO_CMD, p.seq, 0, static_cast<uint32_t>(p.address), len);
        if (packet) {
            // The driver sends whatever the block holds; only the bootloader acts on it.
            __simFirmwareReceive(bytes.data());
        } else {
            __simUpgradePages(p.kind, p.firstPage, p.count, bytes.data());
        }
    }
}

// Set-up and availability: the driver answers in the block itself.
int __simDriverAck(uint32_t request, picHidIoctlArg *arg)
{
    const bool pic32 = request != PIC_HID_IS_URB_AVAILABLE;
    const bool isPoll = request != PIC_HID_PIC32_UPGRADE_SETUP;
    bool ack = pic32 ? (model.mode == simMode::BOOTLOADER && !model.bootloaderNoAck)
                     : (model.mode == simMode::APPLICATION && __simUpgradeHasRoom());
    if (ack && isPoll && model.driverBusyPolls > 0) {
        --model.driverBusyPolls;
        ack = false;
    }
    const uint8_t seq = arg->report[QX_REPORT_SEQ];
    if (ack) {
        // A faulty answer looks like room in all but the one byte.
        const bool ownSeq = !pic32 && __simUpgradeFaultHits(simUpgradeFault::CAPACITY_OWN_SEQ);
        const bool busy = !pic32 && !ownSeq && __simUpgradeFaultHits(simUpgradeFault::CAPACITY_STATUS_BUSY);
        arg->report[QX_REPORT_CODE] = pic32 ? PIC_HID_ACK_PIC32 : PIC_HID_ACK_URB;
        arg->report[QX_REPORT_SEQ] = ownSeq ? seq : static_cast<uint8_t>(seq ^ PIC_HID_ACK_SEQ_XOR);
        arg->report[QX_REPORT_STATUS] = busy ? 1 : 0;
    } else {
        // Not ready: the block keeps its code and number, with a busy status.
        arg->report[QX_REPORT_STATUS] = 1;
    }
    __simRecord(simEventKind::DRIVER, arg->report[QX_REPORT_CODE], seq, request);
    return 0;
}

simHandle *__simFindHandle(int handle)
{
    for (simHandle &h : model.handles) {
        if (h.id == handle) {
            return &h;
        }
    }
    return nullptr;
}

} // namespace

int __simFail(uint32_t request, int err)
{
    __simRecord(simEventKind::IOCTL_FAILED, 0, 0, request, 0, static_cast<uint32_t>(err));
    return -err;
}

// ---- Driver entry points ---------------------------------------------------

int simDriverOpenHandle()
{
    __simOffBusTick();
    if (!model.nodePresent || model.serviceStopped) {
        __simRecord(simEventKind::OPEN_FAILED, 0, 0, 0, 0, ENOENT);
        return -ENOENT;
    }
    const int id = model.nextHandle++;
    model.handles.push_back({id, model.generation});
    __simRecord(simEventKind::OPEN, 0, 0, 0, 0, static_cast<uint32_t>(id));
    return id;
}

void simDriverCloseHandle(int handle)
{
    const simHandle *h = __simFindHandle(handle);
    if (h == nullptr) {
        return;
    }
    if (h->generation == model.generation) {
        __simDriverSendPending(handle); // sending on never touches the handle list
    }
    model.handles.erase(model.handles.begin() + (h - model.handles.data()));
    __simRecord(simEventKind::CLOSE, 0, 0, 0, 0, static_cast<uint32_t>(handle));
}

int simDriverIoctlHandle(int handle, uint32_t request, void *arg, const simMemReader &mem)
{
    __simOffBusTick();
    const simHandle *h = __simFindHandle(handle);
    if (h == nullptr) {
        return __simFail(request, EBADF);
    }
    if (h->generation == model.generation) {
        // Whatever this client queued before goes out ahead of this request.
        __simDriverSendPending(handle);
    }
    __simUpgradeTick();
    if (h->generation != model.generation || !model.nodePresent) {
        return __simFail(request, ENODEV);
    }
    if (const int err = __simInjectedFault(request); err != 0) {
        return __simFail(request, err);
    }
    auto *block = static_cast<picHidIoctlArg *>(arg);
    const bool hasBlock = _IOC_SIZE(request) == sizeof(picHidIoctlArg);
    if (hasBlock && block == nullptr) {
        return __simFail(request, EFAULT);
    }
    switch (request) {
    case PIC_HID_SEND_REPORT:
        return __simDriverSend(block);
    case PIC_HID_GET_REPORT:
        return __simDriverGetReport(block);
    case PIC_HID_FILE_TRANSFER_TEST:
        return __simDriverFileTransfer(block, mem);
    case PIC_HID_PIC32_PROGRAM:
    case PIC_HID_PIC32_PROGRAM_DONE:
        return __simDriverPic32Program(handle, request, block, mem);
    case PIC_HID_PIC32_UPGRADE_SETUP:
    case PIC_HID_PIC32_IS_URB_AVAILABLE:
    case PIC_HID_IS_URB_AVAILABLE:
        return __simDriverAck(request, block);
    default:
        break;
    }
    if (__simIsUpgradeRequest(request)) {
        return __simUpgradeRequest(handle, request, block, mem);
    }
    return __simFail(request, EINVAL);
}

int simDriverOpen()
{
    const int handle = simDriverOpenHandle();
    if (handle < 0) {
        return handle;
    }
    if (model.implicitHandle >= 0) {
        simDriverCloseHandle(model.implicitHandle);
    }
    model.implicitHandle = handle;
    return 0;
}

void simDriverClose()
{
    if (model.implicitHandle >= 0) {
        simDriverCloseHandle(model.implicitHandle);
        model.implicitHandle = -1;
    }
}

int simDriverIoctl(uint32_t request, void *arg, const simMemReader &mem)
{
    return simDriverIoctlHandle(model.implicitHandle, request, arg, mem);
}

// Module commands and resets of a stopped service never run.
void simModuleUnload()
{
    if (model.serviceStopped) {
        return;
    }
    __simRecord(simEventKind::RMMOD);
    model.nodePresent = false;
    model.queue.clear();
    model.lastReport.fill(0);
    __simStaleHandles();
    __simBoundaryDone();
}

void simModuleLoad()
{
    if (model.serviceStopped) {
        return;
    }
    __simRecord(simEventKind::MODPROBE);
    if (model.powerLost) {
        // Power is back: the microcontroller starts in its bootloader, which
        // may start an application whose reset vector is written.
        model.powerLost = false;
        model.pendingSwitch = false;
        const bool vector = !std::all_of(model.flash.begin(), model.flash.begin() + SIM_RESET_VECTOR_SIZE,
                                         [](uint8_t b) { return b == 0xFF; });
        __simSwitchMode(model.bootloaderStartsWrittenApp && vector ? simMode::APPLICATION : simMode::BOOTLOADER);
    }
    __simApplyPendingSwitch();
    // A board off the bus has no device for the driver to bind to.
    __simOffBusTick();
    model.nodePresent = !model.offBus;
    __simBoundaryDone();
}

void simUsbReset()
{
    if (model.serviceStopped) {
        return;
    }
    __simRecord(simEventKind::USB_RESET);
    if (model.powerLost) {
        return;
    }
    // The device re-enumerates: whatever was queued is gone, open handles die.
    __simApplyPendingSwitch();
    model.queue.clear();
    __simStaleHandles();
    __simBoundaryDone();
}

