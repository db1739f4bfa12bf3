// PCI devices in a umockdev testbed: sysfs attributes "vendor" and "device"
// as the kernel writes them, and a zeroed configuration file.
#include "simPci.h"

#include "uniqueFd.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t SIM_PCI_LONG_NAME = 250; // a file name may have 255 characters
constexpr const char *SIM_PCI_BRIDGE_VENDOR = "0x8086";
constexpr const char *SIM_PCI_BRIDGE_DEVICE = "0x2f08";

std::string __simPciName(unsigned index, size_t width)
{
    char name[32];
    std::snprintf(name, sizeof name, "0000:%02x:00.0", index & 0xFFu);
    std::string text = name;
    return text.size() < width ? std::string(width - text.size(), 'p') + text : text;
}

} // namespace

bool simPciParse(const std::string &text, simPciDevice &wanted, std::string &error)
{
    wanted = {};
    std::string rest = text;
    const std::string longSuffix = "long";
    if (rest == longSuffix || (rest.size() > longSuffix.size() && rest.ends_with(":" + longSuffix))) {
        wanted.longPath = true;
        rest.erase(rest.size() >= longSuffix.size() + 1 ? rest.size() - longSuffix.size() - 1 : 0);
    }
    if (rest.empty()) {
        return true;
    }
    const size_t colon = rest.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == rest.size() ||
        rest.find(':', colon + 1) != std::string::npos) {
        error = "VENDOR:DEVICE[:long] expected, e.g. 0x12d8:0xe130";
        return false;
    }
    wanted.vendor = rest.substr(0, colon);
    wanted.device = rest.substr(colon + 1);
    return true;
}

// A device under a bridge is described the way umockdev records devices: its
// add_device checks that a parent exists in the caller's own view of /sys,
// which tarnhold-sim (not under the preload) does not have.
std::string __simPciAddUnderBridge(UMockdevTestbed *testbed, const simPciDevice &wanted, unsigned index)
{
    const std::string bridge = "/devices/" + __simPciName(index, SIM_PCI_LONG_NAME);
    const std::string device = bridge + "/" + __simPciName(index + 1, SIM_PCI_LONG_NAME);
    const std::string description = "P: " + bridge + "\nE: SUBSYSTEM=pci\nA: vendor=" + SIM_PCI_BRIDGE_VENDOR +
                                    "\nA: device=" + SIM_PCI_BRIDGE_DEVICE + "\n\nP: " + device +
                                    "\nE: SUBSYSTEM=pci\nA: vendor=" + wanted.vendor + "\nA: device=" + wanted.device +
                                    "\n";
    GError *error = nullptr;
    if (!umockdev_testbed_add_from_string(testbed, description.c_str(), &error)) {
        g_clear_error(&error);
        return {};
    }
    return "/sys" + device;
}

std::string simPciAdd(UMockdevTestbed *testbed, const simPciDevice &wanted, unsigned index)
{
    std::string sysPath;
    if (wanted.longPath) {
        sysPath = __simPciAddUnderBridge(testbed, wanted, index);
    } else {
        gchar *path = umockdev_testbed_add_device(testbed, "pci", __simPciName(index, 0).c_str(), nullptr, "vendor",
                                                  wanted.vendor.c_str(), "device", wanted.device.c_str(), nullptr,
                                                  nullptr);
        if (path != nullptr) {
            sysPath = path;
            g_free(path);
        }
    }
    if (sysPath.empty()) {
        return {};
    }
    std::array<uint8_t, SIM_PCI_CONFIG_SIZE> zeros{};
    umockdev_testbed_set_attribute_binary(testbed, sysPath.c_str(), "config", zeros.data(),
                                          static_cast<int>(zeros.size()));
    return sysPath;
}

std::string simPciConfigFile(const std::string &root, const std::string &sysPath)
{
    return root + sysPath + "/config";
}

bool simPciConfigRead(const std::string &file, size_t offset, std::span<uint8_t> out)
{
    uniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    return fd.valid() &&
           ::pread(fd.get(), out.data(), out.size(), static_cast<off_t>(offset)) == static_cast<ssize_t>(out.size());
}

bool simPciConfigWrite(const std::string &file, size_t offset, std::span<const uint8_t> bytes)
{
    uniqueFd fd(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    return fd.valid() && ::pwrite(fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
                             static_cast<ssize_t>(bytes.size());
}
