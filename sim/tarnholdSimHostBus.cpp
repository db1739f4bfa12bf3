// The fan controller's bus and the SCSI controllers in tarnhold-sim's testbed.
// Bus ioctls arrive on umockdev's worker thread and reach the model under the
// model lock, like the HID node's.
#include "tarnholdSimHostBus.h"

#include "simI2c.h"
#include "simPci.h"
#include "tarnholdSim.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <unistd.h>

namespace {

constexpr const char *TARNHOLD_SIM_I2C_ADDRESS_KEY = "tarnhold-sim-i2c-address";
constexpr size_t TARNHOLD_SIM_SMBUS_ARG_SIZE = sizeof(i2c_smbus_ioctl_data);
constexpr size_t TARNHOLD_SIM_SMBUS_DATA_OFFSET = offsetof(i2c_smbus_ioctl_data, data);
static_assert(TARNHOLD_SIM_SMBUS_ARG_SIZE == 16 && TARNHOLD_SIM_SMBUS_DATA_OFFSET == 8);
constexpr size_t TARNHOLD_SIM_CONFIG_SHOW_MAX = 256;

struct {
    std::vector<simPciDevice> pciDevices;
    std::vector<std::string> pciPaths;
    UMockdevTestbed *testbed = nullptr; // not owned
    UMockdevIoctlBase *i2cHandler = nullptr;
    std::string root;
    std::string i2cNode;
} tarnholdSimHostBusPrivateMembers;

auto &hostBus = tarnholdSimHostBusPrivateMembers;

// The node file exists while the bus does: without it the open fails (ENOENT).
void __tarnholdSimHostBusSyncNode()
{
    if (hostBus.testbed == nullptr) {
        return;
    }
    if (simI2cBusPresent()) {
        const int fd = ::open(hostBus.i2cNode.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) {
            ::close(fd);
        }
    } else {
        ::unlink(hostBus.i2cNode.c_str());
    }
}

void __tarnholdSimI2cComplete(UMockdevIoctlClient *client, int rc)
{
    umockdev_ioctl_client_complete(client, rc == 0 ? 0 : -1, rc == 0 ? 0 : -rc);
}

// The slave address is kept per open descriptor, as i2c-dev does.
int __tarnholdSimI2cSmbus(UMockdevIoctlClient *client, UMockdevIoctlData *arg)
{
    GError *error = nullptr;
    UMockdevIoctlData *args = umockdev_ioctl_data_resolve(arg, 0, TARNHOLD_SIM_SMBUS_ARG_SIZE, &error);
    if (args == nullptr) {
        g_clear_error(&error);
        return -EFAULT;
    }
    i2c_smbus_ioctl_data request{};
    std::memcpy(&request, args->data, sizeof request);
    UMockdevIoctlData *data = umockdev_ioctl_data_resolve(args, TARNHOLD_SIM_SMBUS_DATA_OFFSET, 1, &error);
    if (data == nullptr) {
        g_clear_error(&error);
        g_object_unref(args);
        return -EFAULT;
    }
    const auto address = reinterpret_cast<uintptr_t>(g_object_get_data(G_OBJECT(client), TARNHOLD_SIM_I2C_ADDRESS_KEY));
    uint8_t byte = data->data[0];
    int rc = 0;
    {
        std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
        // Stored as address + 1: no address set yet reads as 0.
        rc = address == 0 ? -ENXIO
                          : simI2cSmbus(address - 1, request.read_write, request.command, request.size, byte);
    }
    if (rc == 0 && request.read_write == I2C_SMBUS_READ) {
        umockdev_ioctl_data_update(data, 0, &byte, 1);
    }
    g_object_unref(data);
    g_object_unref(args);
    return rc;
}

gboolean __tarnholdSimI2cIoctl(UMockdevIoctlBase *, UMockdevIoctlClient *client, gpointer)
{
    const auto request = static_cast<unsigned long>(umockdev_ioctl_client_get_request(client));
    UMockdevIoctlData *arg = umockdev_ioctl_client_get_arg(client);
    if (request == I2C_SLAVE) {
        unsigned long address = 0;
        if (arg != nullptr && arg->data_len >= static_cast<int>(sizeof address)) {
            std::memcpy(&address, arg->data, sizeof address);
        }
        int rc = 0;
        {
            std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
            rc = simI2cSetSlave(address);
        }
        if (rc == 0) {
            g_object_set_data(G_OBJECT(client), TARNHOLD_SIM_I2C_ADDRESS_KEY,
                              reinterpret_cast<gpointer>(static_cast<uintptr_t>(address + 1)));
        }
        __tarnholdSimI2cComplete(client, rc);
        return TRUE;
    }
    if (request == I2C_SMBUS) {
        __tarnholdSimI2cComplete(client, __tarnholdSimI2cSmbus(client, arg));
        return TRUE;
    }
    __tarnholdSimI2cComplete(client, -ENOTTY);
    return TRUE;
}

bool __tarnholdSimHostBusNumber(const std::string &text, long &value)
{
    long long v = 0;
    if (!tarnholdSimControlNumber(text, v)) {
        return false;
    }
    value = static_cast<long>(v);
    return true;
}

bool __tarnholdSimHostBusByte(const std::string &text, uint8_t &value)
{
    long v = 0;
    if (!__tarnholdSimHostBusNumber(text, v) || v < 0 || v > 255) {
        return false;
    }
    value = static_cast<uint8_t>(v);
    return true;
}

// "pci-config N OFFSET [COUNT]" and "pci-config-set N OFFSET BYTE...".
bool __tarnholdSimHostBusPciConfig(const std::vector<std::string> &words, std::string &out, std::string &error)
{
    long index = 0;
    long offset = 0;
    if (words.size() < 3 || !__tarnholdSimHostBusNumber(words[1], index) ||
        !__tarnholdSimHostBusNumber(words[2], offset) || index < 0 ||
        static_cast<size_t>(index) >= hostBus.pciPaths.size() || offset < 0 ||
        static_cast<size_t>(offset) >= SIM_PCI_CONFIG_SIZE) {
        error = "a device number (pci lists them) and an offset below 4096 expected";
        return false;
    }
    const std::string file = simPciConfigFile(hostBus.root, hostBus.pciPaths[static_cast<size_t>(index)]);
    const size_t room = SIM_PCI_CONFIG_SIZE - static_cast<size_t>(offset);
    if (words[0] == "pci-config-set") {
        std::vector<uint8_t> bytes;
        for (size_t i = 3; i < words.size(); ++i) {
            uint8_t b = 0;
            if (!__tarnholdSimHostBusByte(words[i], b)) {
                error = "not a byte: " + words[i];
                return false;
            }
            bytes.push_back(b);
        }
        if (bytes.empty() || bytes.size() > room) {
            error = "1 to " + std::to_string(room) + " bytes expected";
            return false;
        }
        if (!simPciConfigWrite(file, static_cast<size_t>(offset), bytes)) {
            error = "cannot write " + file;
            return false;
        }
        return true;
    }
    long count = 2;
    if ((words.size() == 4 && !__tarnholdSimHostBusNumber(words[3], count)) || words.size() > 4 || count < 1 ||
        static_cast<size_t>(count) > std::min(room, TARNHOLD_SIM_CONFIG_SHOW_MAX)) {
        error = "COUNT from 1 to the end of the file (at most 256) expected";
        return false;
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(count));
    if (!simPciConfigRead(file, static_cast<size_t>(offset), bytes)) {
        error = "cannot read " + file;
        return false;
    }
    for (size_t i = 0; i < bytes.size(); ++i) {
        char hex[8];
        std::snprintf(hex, sizeof hex, i == 0 ? "%02x" : " %02x", bytes[i]);
        out += hex;
    }
    out += "\n";
    return true;
}

int __tarnholdSimHostBusCount(const std::vector<std::string> &f, size_t at, long &count)
{
    count = 1;
    return f.size() <= at || __tarnholdSimHostBusNumber(f[at], count) ? 1 : 0;
}

} // namespace

bool tarnholdSimHostBusAddPci(const std::string &wanted, std::string &error)
{
    simPciDevice parsed;
    if (!simPciParse(wanted, parsed, error)) {
        return false;
    }
    hostBus.pciDevices.push_back(parsed);
    return true;
}

bool tarnholdSimHostBusStart(UMockdevTestbed *testbed, const std::string &root, std::string &error)
{
    hostBus.testbed = testbed;
    hostBus.root = root;
    hostBus.i2cNode = root + SIM_I2C_BUS_PATH;
    gchar *sysPath = umockdev_testbed_add_device(testbed, "i2c-dev", "i2c-0", nullptr, "dev", "89:0", nullptr,
                                                 "DEVNAME", SIM_I2C_BUS_PATH, nullptr);
    g_free(sysPath);
    {
        std::lock_guard<std::mutex> lock(tarnholdSimModelLock());
        __tarnholdSimHostBusSyncNode();
    }
    hostBus.i2cHandler = umockdev_ioctl_base_new();
    g_signal_connect(hostBus.i2cHandler, "handle-ioctl", G_CALLBACK(__tarnholdSimI2cIoctl), nullptr);
    GError *gerror = nullptr;
    if (!umockdev_testbed_attach_ioctl(testbed, SIM_I2C_BUS_PATH, hostBus.i2cHandler, &gerror)) {
        error = std::string("cannot emulate ") + SIM_I2C_BUS_PATH + ": " + (gerror != nullptr ? gerror->message : "?");
        g_clear_error(&gerror);
        return false;
    }
    // Device numbers count from 3, so the buses sort in the order given.
    for (size_t i = 0; i < hostBus.pciDevices.size(); ++i) {
        const std::string path = simPciAdd(testbed, hostBus.pciDevices[i], static_cast<unsigned>(3 + 2 * i));
        if (path.empty()) {
            error = "cannot add PCI device " + hostBus.pciDevices[i].vendor + ":" + hostBus.pciDevices[i].device;
            return false;
        }
        hostBus.pciPaths.push_back(path);
    }
    return true;
}

void tarnholdSimHostBusStop()
{
    if (hostBus.i2cHandler != nullptr) {
        g_object_unref(hostBus.i2cHandler);
        hostBus.i2cHandler = nullptr;
    }
    hostBus.testbed = nullptr;
}

int tarnholdSimHostBusCommand(const std::vector<std::string> &words, std::string &out, std::string &error)
{
    const std::string &command = words[0];
    if (command == "fan" && words.size() == 1) {
        char line[64];
        std::snprintf(line, sizeof line, "control=0x%02x level=%u\n", simI2cGetRegister(SIM_I2C_REG_CONTROL),
                      simI2cGetRegister(SIM_I2C_REG_LEVEL));
        out = line;
        return 1;
    }
    if (command == "fan-set") {
        uint8_t value = 0;
        if (words.size() != 3 || (words[1] != "control" && words[1] != "level") ||
            !__tarnholdSimHostBusByte(words[2], value)) {
            error = "fan-set control|level VALUE expected";
            return 0;
        }
        simI2cSetRegister(words[1] == "control" ? SIM_I2C_REG_CONTROL : SIM_I2C_REG_LEVEL, value);
        return 1;
    }
    if (command == "pci" && words.size() == 1) {
        for (size_t i = 0; i < hostBus.pciPaths.size(); ++i) {
            out += std::to_string(i) + " " + hostBus.pciDevices[i].vendor + " " + hostBus.pciDevices[i].device + " " +
                   hostBus.pciPaths[i] + "\n";
        }
        return 1;
    }
    if (command == "pci-config" || command == "pci-config-set") {
        return __tarnholdSimHostBusPciConfig(words, out, error) ? 1 : 0;
    }
    return -1;
}

int tarnholdSimHostBusFault(const std::vector<std::string> &f, std::string &error)
{
    const std::string &name = f[0];
    long count = 1;
    if (name == "fan-absent" && f.size() == 1) {
        simI2cSetControllerPresent(false);
        return 1;
    }
    if (name == "fan-no-bus" && f.size() == 1) {
        simI2cSetBusPresent(false);
        __tarnholdSimHostBusSyncNode();
        return 1;
    }
    if ((name == "fan-slave-busy" || name == "fan-read-fails" || name == "fan-write-fails") && f.size() <= 2) {
        if (__tarnholdSimHostBusCount(f, 1, count) == 0) {
            error = name + "[:COUNT] expected";
            return 0;
        }
        const int n = static_cast<int>(count);
        name == "fan-slave-busy" ? simI2cFailSlave(n) : name == "fan-read-fails" ? simI2cFailReads(n)
                                                                                  : simI2cFailWrites(n);
        return 1;
    }
    return -1;
}

const char *tarnholdSimHostBusOptionUsage()
{
    return "  --scsi-ctrl[=VENDOR:DEVICE][:long]\n"
           "                      add a PCI device, by default the SCSI controller 0x12d8:0xe130,\n"
           "                      with a 4,096-byte configuration file (repeatable; later ones\n"
           "                      sort later); \"long\" puts it under a bridge so that its sysfs\n"
           "                      path, \"/\" and \"config\" pass 494 characters\n";
}

const char *tarnholdSimHostBusCommandUsage()
{
    return "  fan                              the fan controller's registers 4 and 6\n"
           "  fan-set control|level VALUE      set register 4 or 6\n"
           "  pci                              the PCI devices: number, vendor, device, sysfs path\n"
           "  pci-config N OFFSET [COUNT]      bytes of device N's configuration file (hex)\n"
           "  pci-config-set N OFFSET BYTE...  write them\n";
}

const char *tarnholdSimHostBusFaultUsage()
{
    return "  fan-absent                       nothing acknowledges 0x1B: transfers fail (ENXIO)\n"
           "  fan-no-bus                       /dev/i2c-0 is missing\n"
           "  fan-slave-busy[:COUNT]           setting the slave address fails (EBUSY)\n"
           "  fan-read-fails[:COUNT]           register reads fail (EIO); COUNT -1: always\n"
           "  fan-write-fails[:COUNT]          register writes fail (EIO); COUNT -1: always\n";
}
