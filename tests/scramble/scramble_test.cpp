// The scrambled text and binary forms, key handling, and the XOR scrambler.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "scramble/scramble.h"

#include <gtest/gtest.h>
#include <openssl/des.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr char kDefaultKey[] = "tav\xE9rnok";
constexpr char kKey[] = "Rk4Wm#2t";

std::string Scramble(const std::string& value, const char* key) {
  std::vector<char> out(ScrambledTextSize(static_cast<int>(value.size())) + 8, '\x7f');
  EXPECT_EQ(ZUSTRNG_EnMaxim2(out.data(), value.c_str(), key), 0);
  return out.data();
}

// Unscrambles and returns {result, clear text}.
std::pair<int, std::string> Unscramble(const std::string& text, const char* key) {
  std::vector<char> out(text.size() + 16, '\0');
  const int rc = ZUSTRNG_DeMaxim2(out.data(), text.c_str(), key);
  return {rc, out.data()};
}

// Enciphers one block with libcrypto, the key text zero-padded to 8 bytes.
std::string OpenSslBlockHex(const char* key, const char block[8]) {
  DES_cblock k{};
  std::memcpy(k, key, strnlen(key, 8));
  DES_key_schedule ks;
  DES_set_key_unchecked(&k, &ks);
  DES_cblock in, out;
  std::memcpy(in, block, 8);
  DES_ecb_encrypt(&in, &out, &ks, DES_ENCRYPT);
  std::string hex;
  for (unsigned char b : out) {
    static const char d[] = "0123456789ABCDEF";
    hex += d[b >> 4];
    hex += d[b & 15];
  }
  return hex;
}

TEST(ScrambledText, RoundTripsAndHasTheTextShape) {
  const std::string longer(100, 'x');
  for (const char* key : {kKey, kDefaultKey, "k"}) {
    for (const std::string& value :
         {std::string(""), std::string("a"), std::string("seven77"), std::string("eight888"),
          std::string("nine99999"), std::string(15, 'q'), std::string("pass w\xF6rd!"), longer}) {
      SCOPED_TRACE(value + " / " + key);
      const std::string text = Scramble(value, key);
      const size_t blocks = (value.size() + 1 + 7) / 8;
      ASSERT_EQ(text.size(), 4 + 16 * blocks);
      EXPECT_EQ(text.substr(0, 4),
                "\xAD\xAD"
                "10");
      EXPECT_EQ(text.find_first_not_of("0123456789ABCDEF", 4), std::string::npos);
      EXPECT_EQ(Unscramble(text, key), std::make_pair(0, value));
    }
  }
}

TEST(ScrambledText, LayoutMatchesPlainDesOfTheBlocks) {
  // A 7-character value is one block with no padding: its digits are plain DES of the value
  // and its terminator, so any other implementation of the form gives the same text.
  const char value[8] = "secret7";
  EXPECT_EQ(Scramble(value, kKey), std::string("\xAD\xAD"
                                               "10") +
                                       OpenSslBlockHex(kKey, value));
  // Short keys are padded with zero bytes, whatever key was set before.
  Scramble("x", "a-longer-k");
  EXPECT_EQ(Scramble(value, "abc"), std::string("\xAD\xAD"
                                                "10") +
                                        OpenSslBlockHex("abc", value));
  // A 15-character value: the first block is its first 8 bytes, the second holds the rest and
  // the terminator.
  const std::string text = Scramble("fifteen-charsXY", kKey);
  EXPECT_EQ(text.substr(4, 16), OpenSslBlockHex(kKey, "fifteen-"));
  EXPECT_EQ(text.substr(20, 16), OpenSslBlockHex(kKey, "charsXY"));
}

TEST(ScrambledText, ReadsForeignValuesWithEitherHeader) {
  // Two blocks made by libcrypto: "abcdefgh" and "ij", its terminator and arbitrary padding.
  const char block2[8] = {'i', 'j', '\0', 0x11, 0x22, 0x33, 0x44, 0x55};
  const std::string digits = OpenSslBlockHex(kKey, "abcdefgh") + OpenSslBlockHex(kKey, block2);
  EXPECT_EQ(Unscramble("--10" + digits, kKey), std::make_pair(0, std::string("abcdefghij")));
  EXPECT_EQ(Unscramble("\xAD\xAD"
                       "10" +
                           digits,
                       kKey),
            std::make_pair(0, std::string("abcdefghij")));
}

TEST(ScrambledText, TextsNotInTheFormComeBackUnchanged) {
  const std::string d16(16, 'A');
  for (const std::string& src :
       {"--11" + d16, "--10" + d16.substr(1), std::string("PLAIN"), std::string(""),
        std::string("--1"), "-+10" + d16, "\xAD-10" + d16, std::string("\xAD\xAD") + "01" + d16}) {
    SCOPED_TRACE(src);
    EXPECT_EQ(Unscramble(src, kKey), std::make_pair(1, src));
  }
  // The same area for both is allowed.
  char same[] = "PLAIN";
  EXPECT_EQ(ZUSTRNG_DeMaxim2(same, same, kKey), 1);
  EXPECT_STREQ(same, "PLAIN");
}

TEST(ScrambledText, HeaderWithoutDigitsIsAnEmptyValue) {
  for (const char* src : {"--10",
                          "\xAD\xAD"
                          "10"}) {
    char dst[4] = {'k', 'e', 'p', 't'};
    EXPECT_EQ(ZUSTRNG_DeMaxim2(dst, src, kKey), 0);
    EXPECT_EQ(std::string(dst, 4), "kept");
  }
}

TEST(ScrambledText, KeySelection) {
  const std::string value = "p@ss";
  // An empty or missing key is the default key.
  const std::string by_default = Scramble(value, kDefaultKey);
  EXPECT_EQ(Unscramble(by_default, "").second, value);
  EXPECT_EQ(Unscramble(by_default, nullptr).second, value);
  EXPECT_NE(Unscramble(Scramble(value, kKey), kDefaultKey).second, value);

  // After an operation with its own key no key is set: the next keyless operation takes the
  // default key again.
  Unscramble(Scramble(value, kKey), kKey);
  char text[64];
  ASSERT_EQ(ZUSTRNG_EnMaxim(text, value.c_str()), 0);
  EXPECT_EQ(Unscramble(text, kDefaultKey).second, value);
  char clear[64] = {};
  ASSERT_EQ(ZUSTRNG_DeMaxim(clear, by_default.c_str()), 0);
  EXPECT_STREQ(clear, value.c_str());

  // Keys longer than the key area are cut to 11 characters.
  EXPECT_EQ(Unscramble(Scramble(value, "0123456789AB"), "0123456789AZ").second, value);
}

TEST(ScrambledBinary, LengthsAndRoundTrips) {
  struct Case {
    int len;
    int scrambled;
  };
  const Case cases[] = {{0, 0}, {1, 9}, {7, 9}, {8, 8}, {10, 17}, {16, 16}, {23, 25}, {64, 64}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.len);
    std::vector<char> src(c.len);
    for (int i = 0; i < c.len; ++i)
      src[i] = static_cast<char>(i * 37 + 1);
    std::vector<char> enc(c.scrambled + 1), dec(c.scrambled + 8);
    ASSERT_EQ(ZUSTRNG_EnMaximBin2(enc.data(), src.data(), c.len, kKey), c.scrambled);
    if (c.len % 8 != 0) {
      EXPECT_EQ(enc[c.scrambled - 1], c.len % 8);
    }
    ASSERT_EQ(ZUSTRNG_DeMaximBin2(dec.data(), enc.data(), c.scrambled, kKey), c.len);
    EXPECT_TRUE(std::equal(src.begin(), src.end(), dec.begin()));
  }
}

TEST(ScrambledBinary, ClearLengthFollowsTheTailByte) {
  char area[17] = "0123456789";
  char enc[17], dec[24];
  ASSERT_EQ(ZUSTRNG_EnMaximBin(enc, area, 10), 17);
  EXPECT_EQ(ZUSTRNG_DeMaximBin(dec, enc, 17), 10);
  EXPECT_EQ(std::string(dec, 10), "0123456789");
  EXPECT_EQ(ZUSTRNG_DeMaximBin(dec, enc, 16), 16);  // no tail byte: two whole blocks
  EXPECT_EQ(ZUSTRNG_DeMaximBin(dec, enc, 7), 0);    // no whole block
  for (char tail : {'\0', '\x08', '\xff'}) {        // tail bytes out of 1..7 are ignored
    enc[16] = tail;
    EXPECT_EQ(ZUSTRNG_DeMaximBin(dec, enc, 17), 16);
  }
}

TEST(MemChiffre, ShiftRegisterSteps) {
  struct Case {
    uint32_t key, next;
  };
  const Case cases[] = {{0, 0}, {1, 0x80000000u},           {8, 0x80000004u},
                        {9, 4}, {0xffffffffu, 0x7fffffffu}, {0x10, 8}};
  for (const Case& c : cases)
    EXPECT_EQ(getnewkey(c.key), c.next) << c.key;
}

TEST(MemChiffre, TwiceRestoresAndStreamIsPeriodic) {
  for (uint32_t key : {1u, 0x12345678u, 0xdeadbeefu}) {
    SCOPED_TRACE(key);
    std::vector<unsigned char> zero(600, 0);
    memchiffre(key, zero.data(), static_cast<int>(zero.size()));
    // The stream has no zero byte, so every byte changes; it repeats after 129 to 256 bytes.
    for (unsigned char b : zero)
      ASSERT_NE(b, 0);
    size_t period = 129;
    while (period <= 256 && !std::equal(zero.begin() + period, zero.end(), zero.begin()))
      ++period;
    EXPECT_LE(period, 256u);

    std::string text = "a secret that is longer than nothing at all";
    const std::string original = text;
    const uint32_t last1 = memchiffre(key, text.data(), static_cast<int>(text.size()));
    EXPECT_NE(text, original);
    const uint32_t last2 = memchiffre(key, text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(text, original);
    EXPECT_EQ(last1, last2);
  }
}

}  // namespace
