#include "scramble/scramble.h"

#include <sys/time.h>

#include <cstdlib>
#include <cstring>

#include <string.h>  // explicit_bzero

#include "scramble/des.h"

namespace {

constexpr char kDefaultKey[] = "tav\xE9rnok";  // ISO 8859-1: the e acute is one byte
constexpr unsigned char head_magic[2] = {0xAD, 0xAD};
constexpr char head_vers[2] = {'1', '0'};
constexpr int kHeaderLen = 4;
constexpr int kBlock = 8;
constexpr int kBlockDigits = 16;

// The key text in use with its terminator, zero behind it. A first byte NUL means no key.
char keyx[kScrambleKeyMax + 1];

// One random padding byte.
char garbage() {
  return static_cast<char>(rand() & 255);
}

// Sets the key: seeds the random generator with the milliseconds of the clock, stores the
// key text (cut to 11 characters, zero-padded) and builds the DES tables for its first 8 bytes.
// Zero padding makes a short key text mean the same DES key whatever key was set before.
void initkey(const char* p) {
  if (p == nullptr || *p == '\0') p = kDefaultKey;
  struct timeval now;
  gettimeofday(&now, nullptr);
  srand(static_cast<unsigned>(now.tv_usec / 1000));
  const size_t len = strnlen(p, kScrambleKeyMax);
  std::memset(keyx, 0, sizeof keyx);
  std::memcpy(keyx, p, len);
  desinit(keyx);
}

void ensure_key() {
  if (keyx[0] == '\0') initkey(nullptr);
}

// The key counts as no longer set; the key text and the round keys are wiped.
void forget_key() {
  explicit_bzero(keyx, sizeof keyx);
  deswipe();
}

// One block as 16 upper-case digits, high half first; no terminator.
void byte2hex(char* dst, const char* src) {
  static constexpr char digits[] = "0123456789ABCDEF";
  for (int i = 0; i < kBlock; ++i) {
    const auto b = static_cast<unsigned char>(src[i]);
    dst[2 * i] = digits[b >> 4];
    dst[2 * i + 1] = digits[b & 0xf];
  }
}

// 16 digits to one block. Anything that is not "0" to "9" counts as c - 0x37, which is right
// for "A" to "F" only; each byte is taken modulo 256.
void hex2byte(char* dst, const char* src) {
  auto value = [](char c) { return (c >= '0' && c <= '9') ? c - '0' : c - 0x37; };
  for (int i = 0; i < kBlock; ++i) {
    dst[i] = static_cast<char>(
        static_cast<unsigned>(16 * value(src[2 * i]) + value(src[2 * i + 1])) & 0xff);
  }
}

int enMaxim(char* dst, const char* src) {
  std::memcpy(dst, head_magic, 2);
  std::memcpy(dst + 2, head_vers, 2);
  char* out = dst + kHeaderLen;
  *out = '\0';
  // The terminator is scrambled too.
  for (long remaining = static_cast<long>(std::strlen(src)) + 1; remaining > 0;
       remaining -= kBlock, src += kBlock) {
    char block[kBlock];
    if (remaining >= kBlock) {
      std::memcpy(block, src, kBlock);
    } else {
      std::memcpy(block, src, static_cast<size_t>(remaining));
      for (long i = remaining; i < kBlock; ++i)
        block[i] = garbage();
    }
    endes(block, block);
    byte2hex(out, block);
    out += kBlockDigits;
    *out = '\0';
    explicit_bzero(block, sizeof block);
  }
  return 0;
}

bool is_scrambled(const char* src, size_t len) {
  if (len < kHeaderLen || (len - kHeaderLen) % kBlockDigits != 0) return false;
  const bool magic = std::memcmp(src, head_magic, 2) == 0 || std::memcmp(src, "--", 2) == 0;
  return magic && std::memcmp(src + 2, head_vers, 2) == 0;
}

int deMaxim(char* dst, const char* src) {
  const size_t len = std::strlen(src);
  if (!is_scrambled(src, len)) {
    if (dst != src) std::memmove(dst, src, len + 1);
    return 1;
  }
  const size_t blocks = (len - kHeaderLen) / kBlockDigits;
  for (size_t i = 0; i < blocks; ++i) {
    char block[kBlock];
    hex2byte(block, src + kHeaderLen + i * kBlockDigits);
    dedes(block, dst + i * kBlock);
    explicit_bzero(block, sizeof block);
  }
  return 0;
}

int enMaximBin(char* dst, const char* src, int srclen) {
  if (srclen < 0) srclen = 0;
  const int full = srclen / kBlock;
  for (int i = 0; i < full; ++i)
    endes(src + i * kBlock, dst + i * kBlock);
  int written = full * kBlock;
  const int rest = srclen % kBlock;
  if (rest != 0) {
    char block[kBlock];
    std::memcpy(block, src + written, static_cast<size_t>(rest));
    for (int i = rest; i < kBlock; ++i)
      block[i] = garbage();
    endes(block, dst + written);
    explicit_bzero(block, sizeof block);
    written += kBlock;
    dst[written++] = static_cast<char>(rest);
  }
  return written;
}

int deMaximBin(char* dst, const char* src, int srclen) {
  if (srclen < 0) srclen = 0;
  const int full = srclen / kBlock;
  for (int i = 0; i < full; ++i)
    dedes(src + i * kBlock, dst + i * kBlock);
  if (full == 0) return 0;
  if (srclen % kBlock != 0) {
    // The byte behind the blocks tells how much of the last block belongs to the area.
    const auto tail = static_cast<signed char>(src[full * kBlock]);
    if (tail >= 1 && tail <= 7) return full * kBlock - kBlock + tail;
  }
  return full * kBlock;
}

}  // namespace

int ZUSTRNG_EnMaxim(char* dst, const char* src) {
  ensure_key();
  return enMaxim(dst, src);
}

int ZUSTRNG_EnMaxim2(char* dst, const char* src, const char* keyString) {
  initkey(keyString);
  const int rc = enMaxim(dst, src);
  forget_key();
  return rc;
}

int ZUSTRNG_DeMaxim(char* dst, const char* src) {
  ensure_key();
  return deMaxim(dst, src);
}

int ZUSTRNG_DeMaxim2(char* dst, const char* src, const char* keyString) {
  initkey(keyString);
  const int rc = deMaxim(dst, src);
  forget_key();
  return rc;
}

int ZUSTRNG_EnMaximBin(char* dst, const char* src, int srclen) {
  ensure_key();
  return enMaximBin(dst, src, srclen);
}

int ZUSTRNG_EnMaximBin2(char* dst, const char* src, int srclen, const char* keyString) {
  initkey(keyString);
  const int rc = enMaximBin(dst, src, srclen);
  forget_key();
  return rc;
}

int ZUSTRNG_DeMaximBin(char* dst, const char* src, int srclen) {
  ensure_key();
  return deMaximBin(dst, src, srclen);
}

int ZUSTRNG_DeMaximBin2(char* dst, const char* src, int srclen, const char* keyString) {
  initkey(keyString);
  const int rc = deMaximBin(dst, src, srclen);
  forget_key();
  return rc;
}

uint32_t getnewkey(uint32_t key) {
  const bool feedback = ((key ^ (key >> 3)) & 1) != 0;
  return (key >> 1) | (feedback ? 0x80000000u : 0u);
}

uint32_t memchiffre(uint32_t key, void* ptr, int len) {
  key = getnewkey(key);
  const int stream_len = static_cast<int>(key & 127) + 129;
  unsigned char stream[256];
  for (int i = 0; i < stream_len; ++i) {
    key = getnewkey(key);
    stream[i] = static_cast<unsigned char>(key % 255 + 1);
  }
  auto* area = static_cast<unsigned char*>(ptr);
  for (int i = 0; i < len; ++i)
    area[i] ^= stream[i % stream_len];
  return key;
}
