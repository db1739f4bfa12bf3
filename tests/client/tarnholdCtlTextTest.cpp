// tarnholdctl's parsing of bytes and command names, and its decoding of replies.
#include "tarnholdCtlText.h"

#include <gtest/gtest.h>

namespace {

TEST(tarnholdCtlText, BytesAreDecimalOr0xHexUpTo255)
{
    EXPECT_EQ(tarnholdCtlParseByte("0"), 0);
    EXPECT_EQ(tarnholdCtlParseByte("255"), 255);
    EXPECT_EQ(tarnholdCtlParseByte("0x1f"), 0x1f);
    EXPECT_EQ(tarnholdCtlParseByte("0XFF"), 0xff);
    EXPECT_EQ(tarnholdCtlParseByte("010"), 10) << "a leading zero is not octal";
    for (const char *bad : {"", "256", "0x100", "-1", "+1", "0x", "1a", "ff", " 1", "1 ", "0x0g", "1000"}) {
        EXPECT_FALSE(tarnholdCtlParseByte(bad).has_value()) << "'" << bad << "'";
    }
}

TEST(tarnholdCtlText, CommandsAreFoundByNumberNameOrAlias)
{
    EXPECT_EQ(tarnholdCtlAlias(24), "set-leds");
    EXPECT_EQ(tarnholdCtlAlias(2), "query-device");
    EXPECT_EQ(tarnholdCtlAlias(30), "force-drive-bay-shut-down");
    EXPECT_EQ(tarnholdCtlAlias(200), "");
    EXPECT_EQ(tarnholdCtlLookupCode("QX_HID_CMD_SET_LEDS"), 24);
    EXPECT_EQ(tarnholdCtlLookupCode("qx_hid_cmd_set_leds"), 24);
    EXPECT_EQ(tarnholdCtlLookupCode("set-leds"), 24);
    EXPECT_EQ(tarnholdCtlLookupCode("0x18"), 24);
    EXPECT_EQ(tarnholdCtlLookupCode("get-xml-daemon-detect"), 23);
    EXPECT_EQ(tarnholdCtlLookupCode("QX_HID_CMD_SET_XML_DAEMON_DETECT"), 22);
    EXPECT_EQ(tarnholdCtlLookupCode("PROGRAM_DEVICE"), 5);
    EXPECT_FALSE(tarnholdCtlLookupCode("set_leds").has_value());
    EXPECT_FALSE(tarnholdCtlLookupCode("leds").has_value());
}

TEST(tarnholdCtlText, BlocksShowTheirCodeNameAndAll69Bytes)
{
    qxUsbBlock block = {};
    block[0] = 24;
    block[1] = 7;
    block[2] = 0xFF;
    block[68] = 0xAB;
    std::string text = tarnholdCtlBlockText("resp", block);
    EXPECT_EQ(text.substr(0, text.find('\n')), "resp QX_HID_CMD_SET_LEDS (24) seq 7 status 255");
    EXPECT_NE(text.find("\n  00: 18 07 ff 00"), std::string::npos);
    EXPECT_NE(text.find("\n  40: 00 00 00 00 ab\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);

    std::string json = tarnholdCtlBlockJson(block);
    EXPECT_EQ(json.find("{\"code\":24,\"name\":\"QX_HID_CMD_SET_LEDS\",\"seq\":7,\"status\":255,\"hex\":\"1807ff00"), 0u);
    EXPECT_EQ(json.substr(json.size() - 4), "ab\"}");
}

TEST(tarnholdCtlText, SlotsDecodeWithTheirLengthByte)
{
    qxUsbBlock resp = {};
    resp[4] = 0x00;
    resp[5] = 0x30;
    resp[6] = 0x05;
    resp[8] = 0x02;
    resp[12] = 3;
    resp[13] = 'a';
    resp[14] = '"';
    resp[15] = 0x01;
    tarnholdCtlSlot slot = tarnholdCtlDecodeSlot(resp);
    EXPECT_TRUE(slot.valid);
    EXPECT_EQ(slot.word0, 0x53000u);
    EXPECT_EQ(slot.word1, 2u);
    EXPECT_EQ(slot.len, 3);
    EXPECT_EQ(tarnholdCtlSlotText(10, slot), "platform: a\"\\x01\n");
    EXPECT_EQ(tarnholdCtlSlotJson(10, slot),
              "{\"slot\":10,\"valid\":true,\"length\":3,\"word0\":339968,\"word1\":2,\"data\":\"612201\","
              "\"platform\":\"a\\\"\\u0001\"}");
    EXPECT_EQ(tarnholdCtlSlotText(7, slot), "word0: 0x00053000\nword1: 0x00000002\nlength: 3\ndata: 612201\n");

    resp[12] = 49; // more than a slot holds: nothing in it is trusted
    slot = tarnholdCtlDecodeSlot(resp);
    EXPECT_FALSE(slot.valid);
    EXPECT_EQ(slot.word0, 0u);
    EXPECT_EQ(tarnholdCtlSlotText(4, slot), "slot 4: empty (length byte 49)\n");
    resp[12] = 48;
    EXPECT_TRUE(tarnholdCtlDecodeSlot(resp).valid);
}

} // namespace
