// The umockdev testbed of tarnhold-sim: the picdev node, whose ioctls go to
// the model, and the microcontroller's USB device under /dev/bus/usb, which
// libusb 0.1 reads its descriptor from and resets.
#include "tarnholdSim.h"
#include "tarnholdSimHostBus.h"

#include "qxUsb.h"

#include <umockdev.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// The device descriptor followed by one configuration with one HID
// interface and two interrupt endpoints, as usbfs hands them out.
constexpr std::array<uint8_t, 18 + 9 + 9 + 9 + 7 + 7> TARNHOLD_SIM_USB_DESCRIPTORS = {
    18, 1, 0x00, 0x02, 0, 0, 0, 64, // device: USB 2.0, packet size 64
    QX_USB_VENDOR_ID & 0xFF, QX_USB_VENDOR_ID >> 8, QX_USB_PRODUCT_ID & 0xFF, QX_USB_PRODUCT_ID >> 8,
    0x00, 0x01, 1, 2, 0, 1,                           // bcdDevice 1.00, strings, one configuration
    9, 2, 41, 0, 1, 1, 0, 0x80, 50,                   // configuration: 41 bytes, one interface, 100 mA
    9, 4, 0, 0, 2, 3, 0, 0, 0,                        // interface 0: two endpoints, HID
    9, 0x21, 0x11, 0x01, 0, 1, 0x22, 0x1D, 0x00,      // HID 1.11, one report descriptor
    7, 5, 0x81, 3, 64, 0, 1,                          // endpoint 1 IN, interrupt, 64 bytes, 1 ms
    7, 5, 0x01, 3, 64, 0, 1,                          // endpoint 1 OUT
};

constexpr const char *TARNHOLD_SIM_CLIENT_KEY = "tarnhold-sim-handle";
constexpr intptr_t TARNHOLD_SIM_CLIENT_FAILED = -1;

struct tarnholdSimOpenClient {
    UMockdevIoctlClient *client; // one reference held
    int handle;
};

struct {
    UMockdevTestbed *testbed = nullptr;
    UMockdevIoctlBase *hidHandler = nullptr;
    UMockdevIoctlBase *usbHandler = nullptr;
    std::string root;
    std::string hidPath;
    std::string usbPath;
    bool hidFile = false;
    bool usbFile = false;
    std::vector<tarnholdSimOpenClient> openClients;
    size_t eventsSeen = 0;
    std::atomic<pid_t> hostPid{0}; // the child: its memory is what the driver reads
    std::atomic<bool> hostPowerLost{false};
} tarnholdSimBedPrivateMembers;

auto &bed = tarnholdSimBedPrivateMembers;

// The driver reads the caller's memory when it sends a request on, which
// may be long after the ioctl that named the address, so it cannot go
// through umockdev, which reaches the caller only during an ioctl. The
// command runs tarnhold itself, so the child is the process holding the node.
bool __tarnholdSimReadMem(void *, uint64_t address, void *dst, size_t len)
{
    return tarnholdSimReadProcessMemory(bed.hostPid.load(), address, dst, len);
}

constexpr simMemReader TARNHOLD_SIM_MEM = {&__tarnholdSimReadMem, nullptr};

intptr_t __tarnholdSimClientHandle(UMockdevIoctlClient *client)
{
    const intptr_t value = reinterpret_cast<intptr_t>(g_object_get_data(G_OBJECT(client), TARNHOLD_SIM_CLIENT_KEY));
    return value > 0 ? value - 1 : TARNHOLD_SIM_CLIENT_FAILED;
}

void __tarnholdSimSetClientHandle(UMockdevIoctlClient *client, intptr_t handle)
{
    const intptr_t value = handle >= 0 ? handle + 1 : TARNHOLD_SIM_CLIENT_FAILED;
    g_object_set_data(G_OBJECT(client), TARNHOLD_SIM_CLIENT_KEY, reinterpret_cast<gpointer>(value));
}

void __tarnholdSimComplete(UMockdevIoctlClient *client, int rc)
{
    umockdev_ioctl_client_complete(client, rc == 0 ? 0 : -1, rc == 0 ? 0 : -rc);
}

// The appliance lost power: with a host power loss armed the host goes
// down with it, in the middle of whatever the daemon was doing.
void __tarnholdSimCheckPowerLoss()
{
    const auto &events = simEvents();
    if (events.size() < bed.eventsSeen) {
        bed.eventsSeen = 0;
    }
    bool lost = false;
    for (size_t i = bed.eventsSeen; i < events.size(); ++i) {
        lost = lost || events[i].kind == simEventKind::POWER_LOST;
    }
    bed.eventsSeen = events.size();
    const pid_t host = bed.hostPid.load();
    if (lost && tarnholdSimControlHostPowerLossArmed() && host > 0 && !bed.hostPowerLost.exchange(true)) {
        kill(host, SIGKILL);
    }
}

// The preload connects to the node's socket on every open of the path,
// also on a failed one, and then routes that descriptor (-1) here: a
// client that connected while the node was absent stands for a failed
// open and answers EBADF like the kernel does for -1.
void __tarnholdSimHidConnected(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer)
{
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    tarnholdSimBedSweep();
    // The model sees every open, the failed ones too (its event list).
    int handle = simDriverOpenHandle();
    if (!bed.hidFile && handle >= 0) {
        simDriverCloseHandle(handle);
        handle = -ENOENT;
    }
    __tarnholdSimSetClientHandle(client, handle);
    if (handle >= 0) {
        bed.openClients.push_back({static_cast<UMockdevIoctlClient *>(g_object_ref(client)), handle});
    }
}

gboolean __tarnholdSimHidIoctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer)
{
    const auto request = static_cast<uint32_t>(umockdev_ioctl_client_get_request(client));
    const intptr_t handle = __tarnholdSimClientHandle(client);
    if (handle < 0) {
        __tarnholdSimComplete(client, -EBADF);
        return TRUE;
    }
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client);
    uint64_t argPointer = 0;
    if (arg != nullptr && arg->data_len >= static_cast<int>(sizeof(argPointer))) {
        std::memcpy(&argPointer, arg->data, sizeof(argPointer));
    }
    picHidIoctlArg original{};
    picHidIoctlArg local{};
    UMockdevIoctlData *block = nullptr;
    if (argPointer != 0) {
        GError *error = nullptr;
        block = umockdev_ioctl_data_resolve(arg, 0, sizeof(picHidIoctlArg), &error);
        if (block == nullptr || block->data_len != static_cast<int>(sizeof(picHidIoctlArg))) {
            g_clear_error(&error);
            if (block != nullptr) {
                g_object_unref(block);
            }
            __tarnholdSimComplete(client, -EFAULT);
            return TRUE;
        }
        std::memcpy(&original, block->data, sizeof(original));
        local = original;
    }
    int rc = 0;
    {
        std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
        tarnholdSimBedSweep();
        rc = simDriverIoctlHandle(static_cast<int>(handle), request, block != nullptr ? &local : nullptr,
                                  TARNHOLD_SIM_MEM);
        __tarnholdSimCheckPowerLoss();
        tarnholdSimBedSync();
    }
    if (block != nullptr) {
        // Only what the driver wrote goes back; umockdev flushes a changed block.
        const auto *before = reinterpret_cast<const uint8_t *>(&original);
        const auto *after = reinterpret_cast<const uint8_t *>(&local);
        for (size_t i = 0; i < sizeof(picHidIoctlArg); ++i) {
            if (before[i] != after[i]) {
                block->data[i] = after[i];
            }
        }
    }
    if (block != nullptr) {
        g_object_unref(block);
    }
    __tarnholdSimComplete(client, rc);
    return TRUE;
}

void __tarnholdSimUsbConnected(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer)
{
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    __tarnholdSimSetClientHandle(client, bed.usbFile ? 0 : TARNHOLD_SIM_CLIENT_FAILED);
}

// usbfs as libusb 0.1 uses it: the connect info while scanning, the port
// reset; everything else is not for this device.
gboolean __tarnholdSimUsbIoctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer)
{
    const auto request = static_cast<unsigned long>(umockdev_ioctl_client_get_request(client));
    if (__tarnholdSimClientHandle(client) < 0) {
        __tarnholdSimComplete(client, -EBADF);
        return TRUE;
    }
    if (request == USBDEVFS_CONNECTINFO) {
        GError *error = nullptr;
        UMockdevIoctlData *info = umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0,
                                                              sizeof(usbdevfs_connectinfo), &error);
        if (info == nullptr) {
            g_clear_error(&error);
            __tarnholdSimComplete(client, -EFAULT);
            return TRUE;
        }
        usbdevfs_connectinfo value{};
        value.devnum = TARNHOLD_SIM_USB_DEVNUM;
        value.slow = 0;
        std::memcpy(info->data, &value, sizeof(value));
        g_object_unref(info);
        __tarnholdSimComplete(client, 0);
        return TRUE;
    }
    if (request == USBDEVFS_RESET) {
        {
            std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
            tarnholdSimBedSweep();
            simUsbReset();
            tarnholdSimBedSync();
        }
        __tarnholdSimComplete(client, 0);
        return TRUE;
    }
    __tarnholdSimComplete(client, -ENOTTY);
    return TRUE;
}

bool __tarnholdSimWriteFile(const std::string &path, const uint8_t *data, size_t len)
{
    const std::string tmp = path + ".new";
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const bool ok = len == 0 || ::write(fd, data, len) == static_cast<ssize_t>(len);
    ::close(fd);
    return ok && ::rename(tmp.c_str(), path.c_str()) == 0;
}

void __tarnholdSimSetFile(const std::string &path, bool want, bool &have, const uint8_t *data, size_t len)
{
    if (want == have) {
        return;
    }
    if (want) {
        have = __tarnholdSimWriteFile(path, data, len);
    } else {
        ::unlink(path.c_str());
        have = false;
    }
}

bool __tarnholdSimAttach(const char *devnode, UMockdevIoctlBase *handler, std::string &error)
{
    GError *gerror = nullptr;
    if (!umockdev_testbed_attach_ioctl(bed.testbed, devnode, handler, &gerror)) {
        error = std::string("cannot emulate ") + devnode + ": " + (gerror != nullptr ? gerror->message : "?");
        g_clear_error(&gerror);
        return false;
    }
    return true;
}

} // namespace

bool tarnholdSimBedStart(std::string &error)
{
    bed.testbed = umockdev_testbed_new();
    gchar *root = umockdev_testbed_get_root_dir(bed.testbed);
    bed.root = root;
    g_free(root);

    const std::string busDir = bed.root + "/dev/bus/usb/" + TARNHOLD_SIM_USB_BUS;
    // The bus directory stays even while the device is unplugged: without
    // it the preload would fall through to the host's own /dev/bus/usb.
    if (g_mkdir_with_parents(busDir.c_str(), 0755) != 0) {
        error = "cannot create " + busDir + ": " + std::strerror(errno);
        return false;
    }
    const std::string devNode = QX_USB_DEVICE_PATH;
    const std::string usbNode = "/dev/bus/usb/" + std::string(TARNHOLD_SIM_USB_BUS) + "/" + TARNHOLD_SIM_USB_DEVICE;
    bed.hidPath = bed.root + devNode;
    bed.usbPath = bed.root + usbNode;

    gchar *sysPath = umockdev_testbed_add_device(bed.testbed, "usb", "1-1", nullptr, "idVendor", "04d8", "idProduct",
                                                 "003c", "busnum", "1", "devnum", "2", "speed", "12", nullptr,
                                                 "DEVNAME", usbNode.c_str(), "DEVTYPE", "usb_device", "PRODUCT",
                                                 "4d8/3c/100", nullptr);
    g_free(sysPath);

    bed.hidHandler = umockdev_ioctl_base_new();
    g_signal_connect(bed.hidHandler, "handle-ioctl", G_CALLBACK(__tarnholdSimHidIoctl), nullptr);
    g_signal_connect(bed.hidHandler, "client-connected", G_CALLBACK(__tarnholdSimHidConnected), nullptr);
    bed.usbHandler = umockdev_ioctl_base_new();
    g_signal_connect(bed.usbHandler, "handle-ioctl", G_CALLBACK(__tarnholdSimUsbIoctl), nullptr);
    g_signal_connect(bed.usbHandler, "client-connected", G_CALLBACK(__tarnholdSimUsbConnected), nullptr);
    if (!__tarnholdSimAttach(devNode.c_str(), bed.hidHandler, error) ||
        !__tarnholdSimAttach(usbNode.c_str(), bed.usbHandler, error) ||
        !tarnholdSimHostBusStart(bed.testbed, bed.root, error)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
    tarnholdSimBedSync();
    return true;
}

void tarnholdSimBedStop()
{
    {
        std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
        for (auto &open : bed.openClients) {
            simDriverCloseHandle(open.handle);
            g_object_unref(open.client);
        }
        bed.openClients.clear();
    }
    tarnholdSimHostBusStop();
    if (bed.testbed != nullptr) {
        // The testbed removes its directory when it goes.
        g_object_unref(bed.testbed);
        bed.testbed = nullptr;
    }
    if (bed.hidHandler != nullptr) {
        g_object_unref(bed.hidHandler);
        bed.hidHandler = nullptr;
    }
    if (bed.usbHandler != nullptr) {
        g_object_unref(bed.usbHandler);
        bed.usbHandler = nullptr;
    }
}

const std::string &tarnholdSimBedRoot()
{
    return bed.root;
}

void tarnholdSimBedSync()
{
    if (bed.testbed == nullptr) {
        return;
    }
    __tarnholdSimSetFile(bed.hidPath, simNodePresent(), bed.hidFile, nullptr, 0);
    __tarnholdSimSetFile(bed.usbPath, !tarnholdSimControlUnplugged(), bed.usbFile, TARNHOLD_SIM_USB_DESCRIPTORS.data(),
                         TARNHOLD_SIM_USB_DESCRIPTORS.size());
}

void tarnholdSimBedSweep()
{
    auto gone = std::stable_partition(bed.openClients.begin(), bed.openClients.end(), [](const tarnholdSimOpenClient &c) {
        return umockdev_ioctl_client_get_connected(c.client);
    });
    for (auto it = gone; it != bed.openClients.end(); ++it) {
        simDriverCloseHandle(it->handle);
        g_object_unref(it->client);
    }
    bed.openClients.erase(gone, bed.openClients.end());
}

void tarnholdSimBedDrain(int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
            tarnholdSimBedSweep();
            if (bed.openClients.empty()) {
                return;
            }
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void tarnholdSimBedSetHostPid(pid_t pid)
{
    bed.hostPid.store(pid);
}

bool tarnholdSimBedHostPowerLost()
{
    return bed.hostPowerLost.load();
}
