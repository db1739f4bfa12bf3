// The request record: what a client writes into the request FIFO and what the
// daemon writes back into the client's own FIFO. Shared by daemon and client.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

constexpr const char *USB_DAEMON_FIFO = "/tmp/qx-usb-daemon-fifo";

constexpr size_t USB_DAEMON_CLIENT_FIFO_SIZE = 100;
constexpr size_t USB_DAEMON_BLOCK_SIZE = 69;

struct usbDaemonRequest {
    char clientFifo[USB_DAEMON_CLIENT_FIFO_SIZE]; // reply FIFO path, NUL-terminated within the field
    int32_t result;                               // host byte order
    std::array<uint8_t, USB_DAEMON_BLOCK_SIZE> cmd;
    std::array<uint8_t, USB_DAEMON_BLOCK_SIZE> resp;
    uint8_t padding[2]; // returned as received
};

static_assert(sizeof(usbDaemonRequest) == 244);
static_assert(offsetof(usbDaemonRequest, clientFifo) == 0);
static_assert(offsetof(usbDaemonRequest, result) == 100);
static_assert(offsetof(usbDaemonRequest, cmd) == 104);
static_assert(offsetof(usbDaemonRequest, resp) == 173);
static_assert(offsetof(usbDaemonRequest, padding) == 242);

// Result values a client sees besides the handlers' own.
constexpr int32_t USB_DAEMON_RESULT_OK = 0;
constexpr int32_t USB_DAEMON_RESULT_BAD_SEQUENCE = 1;
constexpr int32_t USB_DAEMON_RESULT_UNKNOWN_FUNCTION = 8;
