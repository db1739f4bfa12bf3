// What tarnholdctl reads from its command line and prints: byte and command
// parsing, and the reply decoded with the command names, as text or JSON.
#pragma once

#include "qxUsb.h"
#include "usbDaemonRequest.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// "12" or "0x0c" (either case); nothing else, nothing above 255.
std::optional<uint8_t> tarnholdCtlParseByte(std::string_view text);

// A command code by number, by its name ("QX_HID_CMD_SET_LEDS", any case) or
// by its short alias ("set-leds").
std::optional<uint8_t> tarnholdCtlLookupCode(std::string_view text);

// "set-leds" for QX_HID_CMD_SET_LEDS, "query-device" for QUERY_DEVICE; "" for
// codes without a name.
std::string tarnholdCtlAlias(uint8_t code);

// "ok", "unknown function code" and so on.
const char *tarnholdCtlResultText(int32_t result);

std::string tarnholdCtlHex(const uint8_t *bytes, size_t len);
std::string tarnholdCtlJsonString(std::string_view text);

// A block with its code's name, sequence number and status, then its bytes in hex.
std::string tarnholdCtlBlockText(const char *label, const qxUsbBlock &block);
std::string tarnholdCtlBlockJson(const qxUsbBlock &block);

// A stored value slot as a GET_FLASH_VAL reply carries it.
struct tarnholdCtlSlot {
    uint32_t word0 = 0;
    uint32_t word1 = 0;
    uint8_t len = 0;       // as the reply says; above 48 the slot holds nothing valid
    bool valid = false;    // len within 0..48
    std::array<uint8_t, 48> data = {};
};
tarnholdCtlSlot tarnholdCtlDecodeSlot(const qxUsbBlock &resp);

// Slot 10 as the platform text, slot 4 as firmware length and MD5, any
// other as its two words, length and data.
std::string tarnholdCtlSlotText(int slot, const tarnholdCtlSlot &value);
std::string tarnholdCtlSlotJson(int slot, const tarnholdCtlSlot &value);
