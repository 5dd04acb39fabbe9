// DES against published vectors and against OpenSSL's libcrypto.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "scramble/des.h"

#include <gtest/gtest.h>
#include <openssl/des.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

namespace {

using Block = std::array<uint8_t, 8>;

Block FromHex(const std::string& hex) {
  Block b{};
  for (size_t i = 0; i < 8; ++i)
    b[i] = static_cast<uint8_t>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
  return b;
}

Block Encipher(const Block& key, const Block& in) {
  desinit(reinterpret_cast<const char*>(key.data()));
  Block out{};
  endes(reinterpret_cast<const char*>(in.data()), reinterpret_cast<char*>(out.data()));
  return out;
}

Block Decipher(const Block& key, const Block& in) {
  desinit(reinterpret_cast<const char*>(key.data()));
  Block out{};
  dedes(reinterpret_cast<const char*>(in.data()), reinterpret_cast<char*>(out.data()));
  return out;
}

Block OpenSslCrypt(const Block& key, const Block& in, int enc) {
  DES_cblock k;
  std::memcpy(k, key.data(), 8);
  DES_key_schedule ks;
  DES_set_key_unchecked(&k, &ks);
  DES_cblock i, o;
  std::memcpy(i, in.data(), 8);
  DES_ecb_encrypt(&i, &o, &ks, enc);
  Block out{};
  std::memcpy(out.data(), o, 8);
  return out;
}

Block RandomBlock(std::mt19937_64& rng) {
  Block b{};
  const uint64_t v = rng();
  std::memcpy(b.data(), &v, 8);
  return b;
}

TEST(Des, PublishedVectors) {
  struct Case {
    const char* key;
    Block plain;
    const char* cipher;
  };
  const Block now_is_t = {'N', 'o', 'w', ' ', 'i', 's', ' ', 't'};
  const Case cases[] = {
      {"133457799BBCDFF1", FromHex("0123456789ABCDEF"), "85E813540F0AB405"},
      {"0123456789ABCDEF", now_is_t, "3FA40E8A984D4815"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    const Block key = FromHex(c.key);
    const Block cipher = FromHex(c.cipher);
    EXPECT_EQ(Encipher(key, c.plain), cipher);
    EXPECT_EQ(Decipher(key, cipher), c.plain);
    // Input and output may be the same area.
    Block b = c.plain;
    endes(reinterpret_cast<char*>(b.data()), reinterpret_cast<char*>(b.data()));
    EXPECT_EQ(b, cipher);
    dedes(reinterpret_cast<char*>(b.data()), reinterpret_cast<char*>(b.data()));
    EXPECT_EQ(b, c.plain);
  }
}

TEST(Des, AgreesWithOpenSslOnRandomKeysAndBlocks) {
  std::mt19937_64 rng(20240607);
  for (int i = 0; i < 3000; ++i) {
    const Block key = RandomBlock(rng);
    const Block in = RandomBlock(rng);
    ASSERT_EQ(Encipher(key, in), OpenSslCrypt(key, in, DES_ENCRYPT)) << "round " << i;
    ASSERT_EQ(Decipher(key, in), OpenSslCrypt(key, in, DES_DECRYPT)) << "round " << i;
  }
}

TEST(Des, ParityBitsOfTheKeyAreIgnored) {
  std::mt19937_64 rng(99);
  for (int i = 0; i < 200; ++i) {
    const Block key = RandomBlock(rng);
    Block flipped = key;
    const uint64_t mask = rng();
    for (int b = 0; b < 8; ++b)
      flipped[b] ^= static_cast<uint8_t>((mask >> b) & 1);
    const Block in = RandomBlock(rng);
    ASSERT_EQ(Encipher(key, in), Encipher(flipped, in));
    ASSERT_EQ(Decipher(key, in), Decipher(flipped, in));
  }
}

}  // namespace
