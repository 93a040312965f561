// Picture formats: digits of a stream header.
#include "platform/media.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(HexadecimalDigits, AreTwoForEachByteInLowerCase) {
  char text[41];
  EXPECT_EQ(bin2hex("\x00\x01\x7f\x80\xab\xff", 6, text, sizeof text), 12);
  EXPECT_STREQ(text, "00017f80abff");
  EXPECT_EQ(bin2hex("", 0, text, sizeof text), 0);
  EXPECT_STREQ(text, "");
}

TEST(HexadecimalDigits, StopAtTheLastWholeByteThatFits) {
  const char data[20] = {'\x11', '\x22', '\x33'};
  char text[41];
  EXPECT_EQ(bin2hex(data, 20, text, 41), 40);
  EXPECT_EQ(std::strlen(text), 40U);
  for (const long capacity : {5L, 6L}) {
    std::memset(text, 'z', sizeof text);
    EXPECT_EQ(bin2hex(data, 20, text, capacity), 4);
    EXPECT_STREQ(text, "1122");
    EXPECT_EQ(text[5], 'z');
  }
  EXPECT_EQ(bin2hex(data, 20, text, 2), 0);
  EXPECT_STREQ(text, "");
  text[0] = 'z';
  EXPECT_EQ(bin2hex(data, 20, text, 0), 0);
  EXPECT_EQ(bin2hex(data, 20, text, -1), 0);
  EXPECT_EQ(text[0], 'z');
  EXPECT_EQ(bin2hex(data, -1, text, sizeof text), 0);
  EXPECT_STREQ(text, "");
}

TEST(HexadecimalDigits, AreReadInEitherCase) {
  char data[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(hex2bin("00aBfF", data, sizeof data), 3);
  EXPECT_EQ(std::string(data, 4), std::string("\0\xab\xffx", 4));
}

TEST(HexadecimalDigits, AreReadUpToWhatIsNone) {
  char data[4];
  EXPECT_EQ(hex2bin("", data, sizeof data), 0);
  EXPECT_EQ(hex2bin("1", data, sizeof data), 0);
  EXPECT_EQ(hex2bin("123", data, sizeof data), 1);
  EXPECT_EQ(hex2bin("12 34", data, sizeof data), 1);
  EXPECT_EQ(hex2bin("12g4", data, sizeof data), 1);
  EXPECT_EQ(hex2bin("12/4:4@4G4`4", data, sizeof data), 1);
  for (const char* text : {"/0", "0/", ":0", "0:", "@0", "0@", "G0", "0G", "`0", "0`", "g0", "0g"})
    EXPECT_EQ(hex2bin(text, data, sizeof data), 0) << text;
}

TEST(HexadecimalDigits, FillNoMoreThanTheRoomThereIs) {
  char data[3] = {'x', 'x', 'x'};
  EXPECT_EQ(hex2bin("11223344", data, 2), 2);
  EXPECT_EQ(data[2], 'x');
  EXPECT_EQ(hex2bin("11", data, 0), 0);
  EXPECT_EQ(hex2bin("11", data, -5), 0);
  EXPECT_EQ(data[0], '\x11');
}

TEST(HexadecimalDigits, GiveBackEveryByte) {
  char all[256];
  for (int i = 0; i < 256; ++i) all[i] = static_cast<char>(i);
  char text[513];
  char back[256] = {};
  EXPECT_EQ(bin2hex(all, 256, text, sizeof text), 512);
  EXPECT_EQ(hex2bin(text, back, 256), 256);
  EXPECT_EQ(std::memcmp(all, back, 256), 0);
}

}  // namespace
