// DES against OpenSSL; the scrambled forms, their keys, the XOR scrambler.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "scramble/scramble.h"
#include "scramble/des.h"

#include <gtest/gtest.h>
#include <openssl/des.h>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::string;
constexpr char kDefaultKey[] = "tav\xE9rnok";
constexpr char kKey[] = "Rk4Wm#2t";
const Bytes kHeader = "\xAD\xAD\x31\x30";  // 0xAD 0xAD "10"

Bytes Hex(const Bytes& b) {
  Bytes hex;
  for (unsigned char c : b)
    hex += {"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
  return hex;
}
Bytes Des(const Bytes& key, const Bytes& in, bool encrypt) {
  desinit(key.data());
  char out[8];
  (encrypt ? endes : dedes)(in.data(), out);
  return Bytes(out, 8);
}
// The key text is zero-padded to 8 bytes, as the scrambled forms do.
Bytes OpenSsl(const Bytes& key, const Bytes& in, bool encrypt) {
  DES_cblock k{}, i, o;
  std::memcpy(k, key.data(), std::min<size_t>(key.size(), 8));
  std::memcpy(i, in.data(), 8);
  DES_key_schedule ks;
  DES_set_key_unchecked(&k, &ks);
  DES_ecb_encrypt(&i, &o, &ks, encrypt ? DES_ENCRYPT : DES_DECRYPT);
  return Bytes(reinterpret_cast<char*>(o), 8);
}

// Random keys and blocks both ways, in place too; the key's parity bits change nothing.
TEST(Des, AgreesWithOpenSslAndIgnoresParityBits) {
  std::mt19937_64 rng(20240607);
  auto block = [&rng] {
    const uint64_t v = rng();
    return Bytes(reinterpret_cast<const char*>(&v), 8);
  };
  for (int i = 0; i < 3000; ++i) {
    const Bytes key = block(), in = block();
    Bytes flipped = key;
    for (int b = 0; b < 8; ++b)
      flipped[b] ^= static_cast<char>((rng() >> b) & 1);
    for (bool enc : {true, false}) {
      ASSERT_EQ(Des(key, in, enc), OpenSsl(key, in, enc)) << "round " << i;
      ASSERT_EQ(Des(flipped, in, enc), OpenSsl(key, in, enc)) << "round " << i;
    }
    Bytes b = in;
    desinit(key.data());
    endes(b.data(), b.data());  // input and output may be the same area
    ASSERT_EQ(b, OpenSsl(key, in, true));
  }
}

Bytes Scramble(const Bytes& value, const char* key) {
  std::vector<char> out(ScrambledTextSize(static_cast<int>(value.size())) + 8, '\x7f');
  EXPECT_EQ(ZUSTRNG_EnMaxim2(out.data(), value.c_str(), key), 0);
  return out.data();
}
std::pair<int, Bytes> Unscramble(const Bytes& text, const char* key) {
  std::vector<char> out(text.size() + 16, '\0');
  const int rc = ZUSTRNG_DeMaxim2(out.data(), text.c_str(), key);
  return {rc, out.data()};
}

TEST(ScrambledText, RoundTripsWithTheTextShape) {
  for (const char* key : {kKey, kDefaultKey, "k"}) {
    for (const Bytes& value :
         {Bytes(""), Bytes("a"), Bytes("seven77"), Bytes("eight888"), Bytes("nine99999"),
          Bytes(15, 'q'), Bytes("w\xF6rd!"), Bytes(100, 'x')}) {
      SCOPED_TRACE(value + " / " + key);
      const Bytes text = Scramble(value, key);
      ASSERT_EQ(text.size(), 4 + 16 * ((value.size() + 8) / 8));
      EXPECT_EQ(text.substr(0, 4), kHeader);
      EXPECT_EQ(text.find_first_not_of("0123456789ABCDEF", 4), Bytes::npos);
      EXPECT_EQ(Unscramble(text, key), std::make_pair(0, value));
    }
  }
}

// Plain DES of the terminated blocks, short keys zero-padded; either header, any padding read.
TEST(ScrambledText, IsPlainDesOfTheBlocks) {
  EXPECT_EQ(Scramble("secret7", kKey), kHeader + Hex(OpenSsl(kKey, Bytes("secret7", 8), true)));
  Scramble("x", "a-longer-k");
  EXPECT_EQ(Scramble("secret7", "abc"), kHeader + Hex(OpenSsl("abc", Bytes("secret7", 8), true)));
  const Bytes digits = Hex(OpenSsl(kKey, "abcdefgh", true)) +
                       Hex(OpenSsl(kKey, Bytes("ij\0\x11\x22\x33\x44\x55", 8), true));
  EXPECT_EQ(Unscramble("--10" + digits, kKey), std::make_pair(0, Bytes("abcdefghij")));
  EXPECT_EQ(Unscramble(kHeader + digits, kKey), std::make_pair(0, Bytes("abcdefghij")));
}

TEST(ScrambledText, OtherTextsComeBackUnchanged) {
  const Bytes d16(16, 'A');
  for (const Bytes& src :
       {"--11" + d16, "--10" + d16.substr(1), Bytes("PLAIN"), Bytes(""), Bytes("--1"), "-+10" + d16,
        "\xAD-10" + d16, kHeader.substr(0, 2) + "01" + d16})
    EXPECT_EQ(Unscramble(src, kKey), std::make_pair(1, src)) << src;
  for (const Bytes& src : {Bytes("--10"), kHeader}) {  // a header alone is an empty value
    char dst[4] = {'k', 'e', 'p', 't'};
    EXPECT_EQ(ZUSTRNG_DeMaxim2(dst, src.c_str(), kKey), 0);
    EXPECT_EQ(Bytes(dst, 4), "kept");
  }
}

TEST(ScrambledText, KeySelection) {
  const Bytes value = "p@ss", by_default = Scramble(value, kDefaultKey);
  EXPECT_EQ(Unscramble(by_default, "").second, value);  // empty or missing: the default key
  EXPECT_EQ(Unscramble(by_default, nullptr).second, value);
  EXPECT_NE(Unscramble(Scramble(value, kKey), kDefaultKey).second, value);
  // After an operation with its own key none is set: keyless ones take the default again.
  Unscramble(Scramble(value, kKey), kKey);
  char text[64], clear[64] = {};
  ASSERT_EQ(ZUSTRNG_EnMaxim(text, value.c_str()), 0);
  ASSERT_EQ(ZUSTRNG_DeMaxim(clear, by_default.c_str()), 0);
  EXPECT_EQ(Unscramble(text, kDefaultKey).second + "|" + clear, value + "|" + value);
  // Keys longer than the key area are cut to 11 characters.
  EXPECT_EQ(Unscramble(Scramble(value, "0123456789AB"), "0123456789AZ").second, value);
}

TEST(ScrambledBinary, LengthsTailByteAndRoundTrips) {
  const std::pair<int, int> cases[] = {{0, 0},   {1, 9},   {7, 9},   {8, 8},
                                       {10, 17}, {16, 16}, {23, 25}, {64, 64}};
  const Bytes all("\x01\xFFZabcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJKLMNOPQRSTUVWXY");
  for (auto [len, scrambled] : cases) {
    const Bytes src = all.substr(0, len);
    std::vector<char> enc(scrambled + 1), dec(scrambled + 8);
    ASSERT_EQ(ZUSTRNG_EnMaximBin2(enc.data(), src.data(), len, kKey), scrambled) << len;
    EXPECT_TRUE(len % 8 == 0 || enc[scrambled - 1] == len % 8) << len;  // the tail byte
    const int got = ZUSTRNG_DeMaximBin2(dec.data(), enc.data(), scrambled, kKey);
    const Bytes behind(dec.data() + scrambled / 8 * 8, 8);  // nothing written behind the blocks
    EXPECT_EQ(std::tuple(got, Bytes(dec.data(), len), behind), std::tuple(len, src, Bytes(8, 0)));
  }
  char enc[17], dec[24];
  ASSERT_EQ(ZUSTRNG_EnMaximBin(enc, "0123456789", 10), 17);
  EXPECT_EQ(ZUSTRNG_DeMaximBin(dec, enc, 17), 10);
  EXPECT_EQ(Bytes(dec, 10), "0123456789");
  EXPECT_EQ(ZUSTRNG_DeMaximBin(dec, enc, 16), 16);  // no tail byte: two whole blocks
  EXPECT_EQ(ZUSTRNG_DeMaximBin(dec, enc, 7), 0);    // no whole block
  for (const char tail : {'\x08', '\0'})            // a tail byte out of 1..7 is ignored
    EXPECT_EQ((enc[16] = tail, ZUSTRNG_DeMaximBin(dec, enc, 17)), 16);
}

// The shift register's steps; the stream has no zero byte; scrambling twice restores.
TEST(MemChiffre, StreamAndTwiceRestores) {
  const std::pair<uint32_t, uint32_t> steps[] = {
      {0, 0}, {1, 0x80000000u}, {8, 0x80000004u}, {9, 4}, {0xffffffffu, 0x7fffffffu}, {0x10, 8}};
  for (auto [key, next] : steps)
    EXPECT_EQ(getnewkey(key), next) << key;
  for (uint32_t key : {1u, 0x12345678u, 0xdeadbeefu}) {
    std::vector<unsigned char> zero(600, 0);
    memchiffre(key, zero.data(), static_cast<int>(zero.size()));
    EXPECT_EQ(std::count(zero.begin(), zero.end(), 0), 0) << key;
    const Bytes original = "a secret that is longer than nothing at all";
    Bytes text = original;
    const uint32_t last = memchiffre(key, text.data(), static_cast<int>(text.size()));
    EXPECT_NE(text, original);
    EXPECT_EQ(memchiffre(key, text.data(), static_cast<int>(text.size())), last);
    EXPECT_EQ(text, original);
  }
}

}  // namespace
