// Talks to the simulated appliance the way the service does: through the
// system-call seam, with the driver's 88-byte block.
#pragma once

#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "sysSeam.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <vector>

using simTestReport = std::array<uint8_t, QX_REPORT_SIZE>;

constexpr uint8_t SIM_TEST_APPLICATION_ID = 17;
constexpr uint8_t SIM_TEST_BOOTLOADER_ID = 18;

class simTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        fd = openNode();
        ASSERT_GE(fd, 0);
    }
    void TearDown() override
    {
        if (fd >= 0) {
            platformSys.close(fd);
        }
        simInProcessUninstall();
    }

    static int openNode() { return platformSys.open(QX_USB_DEVICE_PATH, O_RDWR, 0); }

    // 0 or the errno of the failed ioctl.
    int ioctlErr(uint32_t request, picHidIoctlArg &arg)
    {
        arg.param = PIC_HID_PARAM;
        return platformSys.ioctl(fd, request, &arg) == 0 ? 0 : errno;
    }

    int send(const simTestReport &report)
    {
        picHidIoctlArg arg{};
        std::memcpy(arg.report, report.data(), report.size());
        return ioctlErr(PIC_HID_SEND_REPORT, arg);
    }

    simTestReport read()
    {
        picHidIoctlArg arg{};
        EXPECT_EQ(ioctlErr(PIC_HID_GET_REPORT, arg), 0);
        simTestReport r;
        std::memcpy(r.data(), arg.report, r.size());
        return r;
    }

    static simTestReport cmd(uint8_t code, uint8_t seq, std::initializer_list<uint8_t> payload = {})
    {
        simTestReport r{};
        r[0] = code;
        r[1] = seq;
        size_t i = QX_REPORT_PAYLOAD;
        for (uint8_t b : payload) {
            r[i++] = b;
        }
        return r;
    }

    // A code-38 request naming `request`, with a block address at bytes 12-19.
    static picHidIoctlArg ioBlock(uint32_t request, uint8_t seq, const void *block = nullptr)
    {
        picHidIoctlArg arg{};
        arg.report[0] = QX_HID_CMD_IO_CMD;
        arg.report[1] = seq;
        std::memcpy(&arg.report[3], &request, 4);
        const uint64_t address = reinterpret_cast<uintptr_t>(block);
        std::memcpy(&arg.report[12], &address, 8);
        return arg;
    }

    // The bootloader's PROGRAM_DEVICE packet for n bytes of `data` at address.
    static std::array<uint8_t, QX_BLOCK_SIZE> programPacket(uint32_t address, const uint8_t *data, uint8_t n)
    {
        std::array<uint8_t, QX_BLOCK_SIZE> p{};
        p[0] = PROGRAM_DEVICE;
        std::memcpy(&p[1], &address, 4);
        p[5] = n;
        std::memcpy(&p[QX_REPORT_SIZE - n], data, n);
        return p;
    }

    int program(uint32_t address, const uint8_t *data, uint8_t n)
    {
        const auto packet = programPacket(address, data, n);
        picHidIoctlArg arg = ioBlock(PIC_HID_PIC32_PROGRAM, 7, packet.data());
        return ioctlErr(PIC_HID_PIC32_PROGRAM, arg);
    }

    int complete()
    {
        std::array<uint8_t, QX_BLOCK_SIZE> packet{};
        packet[0] = PROGRAM_COMPLETE;
        picHidIoctlArg arg = ioBlock(PIC_HID_PIC32_PROGRAM_DONE, 8, packet.data());
        return ioctlErr(PIC_HID_PIC32_PROGRAM_DONE, arg);
    }

    // Sends GET_INFO and returns the product id answered (0: none).
    uint8_t productId(uint8_t seq)
    {
        EXPECT_EQ(send(cmd(QX_HID_CMD_GET_INFO, seq)), 0);
        const simTestReport r = read();
        return r[0] == QX_HID_CMD_GET_INFO && r[1] == seq ? r[3] : 0;
    }

    // What the service does after a GOTO: close, unload, reset the port, load, open.
    void restartThroughReset()
    {
        platformSys.close(fd);
        fd = -1;
        platformSys.system("rmmod picdev");
        for (struct usb_bus *bus = platformSys.usbGetBusses(); bus != nullptr; bus = bus->next) {
            for (struct usb_device *dev = bus->devices; dev != nullptr; dev = dev->next) {
                if (dev->descriptor.idVendor == QX_USB_VENDOR_ID && dev->descriptor.idProduct == QX_USB_PRODUCT_ID) {
                    usb_dev_handle *h = platformSys.usbOpen(dev);
                    if (h != nullptr) {
                        platformSys.usbReset(h);
                        platformSys.usbClose(h);
                    }
                }
            }
        }
        platformSys.system("modprobe picdev");
        fd = openNode();
    }

    static std::vector<simEventKind> kinds(std::initializer_list<simEventKind> only)
    {
        std::vector<simEventKind> out;
        for (const simEvent &e : simEvents()) {
            for (simEventKind k : only) {
                if (e.kind == k) {
                    out.push_back(e.kind);
                }
            }
        }
        return out;
    }

    int fd = -1;
};
