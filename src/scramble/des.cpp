// DES with precomputed tables. Bit positions in the constant tables are counted from 1, bit 1
// being the most significant bit of the first byte.
#include "scramble/des.h"

#include <bit>
#include <cstdint>
#include <cstring>

#include <string.h>  // explicit_bzero

namespace {

// Initial permutation IP.
constexpr uint8_t ip[64] = {58, 50, 42, 34, 26, 18, 10, 2, 60, 52, 44, 36, 28, 20, 12, 4,
                            62, 54, 46, 38, 30, 22, 14, 6, 64, 56, 48, 40, 32, 24, 16, 8,
                            57, 49, 41, 33, 25, 17, 9,  1, 59, 51, 43, 35, 27, 19, 11, 3,
                            61, 53, 45, 37, 29, 21, 13, 5, 63, 55, 47, 39, 31, 23, 15, 7};

// Final permutation, the inverse of IP.
constexpr uint8_t fp[64] = {40, 8, 48, 16, 56, 24, 64, 32, 39, 7, 47, 15, 55, 23, 63, 31,
                            38, 6, 46, 14, 54, 22, 62, 30, 37, 5, 45, 13, 53, 21, 61, 29,
                            36, 4, 44, 12, 52, 20, 60, 28, 35, 3, 43, 11, 51, 19, 59, 27,
                            34, 2, 42, 10, 50, 18, 58, 26, 33, 1, 41, 9,  49, 17, 57, 25};

// Permuted choice 1: the 56 key bits that are used (every eighth bit, the parity bit, is not).
constexpr uint8_t pc1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
                             10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
                             63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
                             14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};

// Cumulative left rotations of the two key halves before each round.
constexpr uint8_t totrot[16] = {1, 2, 4, 6, 8, 10, 12, 14, 15, 17, 19, 21, 23, 25, 27, 28};

// Permuted choice 2: the 48 bits of a round key out of the rotated 56.
constexpr uint8_t pc2[48] = {14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,
                             26, 8,  16, 7,  27, 20, 13, 2,  41, 52, 31, 37, 47, 55, 30, 40,
                             51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

// The S-boxes S1 to S8, each row by row (row * 16 + column).
constexpr uint8_t si[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8,  14, 6,  11, 3,  4, 9,  7,  2, 13, 12, 0,  5,  10, 3,  13, 4,  7, 15, 2,
     8,  14, 12, 0,  1,  10, 6,  9, 11, 5,  0, 14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,
     9,  3,  2,  15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6,  7,  12, 0,  5,  14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0,  8,  13, 3, 12, 9,  7, 5,  10, 6,  1,  13, 0,  11, 7,  4, 9,
     1, 10, 14, 3,  5,  12, 2,  15, 8, 6,  1,  4, 11, 13, 12, 3,  7,  14, 10, 15, 6, 8,
     0, 5,  9,  2,  6,  11, 13, 8,  1, 4,  10, 7, 9,  5,  0,  15, 14, 2,  3,  12},
    {13, 2, 8,  4, 6, 15, 11, 1,  10, 9,  3, 14, 5,  0,  12, 7,  1,  15, 13, 8, 10, 3,
     7,  4, 12, 5, 6, 11, 0,  14, 9,  2,  7, 11, 4,  1,  9,  12, 14, 2,  0,  6, 10, 13,
     15, 3, 5,  8, 2, 1,  14, 7,  4,  10, 8, 13, 15, 12, 9,  0,  3,  5,  6,  11}};

// The permutation P of the round function.
constexpr uint8_t p32i[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
                              2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};

constexpr uint8_t bytebit[8] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};
constexpr uint8_t nibblebit[4] = {0x8, 0x4, 0x2, 0x1};

// Tables built by desinit: the permutations and S-boxes once, the round keys for each key.
alignas(64) uint8_t iperm[16][16][8];  // IP, per half-byte position and value
alignas(64) uint8_t fperm[16][16][8];  // final permutation, the same way
alignas(64) uint8_t s[4][4096];        // S(2i+1) in the upper, S(2i+2) in the lower half-byte
alignas(64) uint8_t p32[4][256][4];    // P, per byte position and value
uint8_t kn[16][6];                     // round keys, most significant bit first
uint64_t knx[16];                      // the same round keys as 48-bit numbers
uint8_t pc1m[56];                      // key bits after PC-1
uint8_t pcr[56];                       // key bits after one round's rotation

using Perm = uint8_t[16][16][8];

inline uint64_t load64(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline uint32_t load32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Halves of a block are kept as 4 bytes in block order inside a uint32_t; the expansion
// needs them as a number, bit 1 the most significant.
inline uint32_t as_number(uint32_t bytes_in_order) {
  if constexpr (std::endian::native == std::endian::little) {
    return __builtin_bswap32(bytes_in_order);
  } else {
    return bytes_in_order;
  }
}

void perminit(Perm& perm, const uint8_t (&p)[64]) {
  std::memset(perm, 0, sizeof perm);
  for (int i = 0; i < 16; ++i) {
    for (int j = 0; j < 16; ++j) {
      for (int k = 0; k < 64; ++k) {
        const int l = p[k] - 1;
        if ((l >> 2) != i) continue;
        if (!(j & nibblebit[l & 3])) continue;
        perm[i][j][k >> 3] |= bytebit[k & 7];
      }
    }
  }
}

void kinit(const uint8_t* key) {
  for (int j = 0; j < 56; ++j) {
    const int l = pc1[j] - 1;
    pc1m[j] = (key[l >> 3] & bytebit[l & 7]) ? 1 : 0;
  }
  for (int i = 0; i < 16; ++i) {
    for (int j = 0; j < 56; ++j) {
      int l = j + totrot[i];
      const int half_end = j < 28 ? 28 : 56;
      if (l >= half_end) l -= 28;
      pcr[j] = pc1m[l];
    }
    std::memset(kn[i], 0, sizeof kn[i]);
    for (int j = 0; j < 48; ++j) {
      if (pcr[pc2[j] - 1]) kn[i][j >> 3] |= bytebit[j & 7];
    }
    knx[i] = 0;
    for (int b = 0; b < 6; ++b)
      knx[i] = (knx[i] << 8) | kn[i][b];
  }
}

// S-box k (0 to 7) for the 6-bit value v: the outer bits pick the row, the middle four the
// column.
uint8_t getcomp(int k, int v) {
  const int row = ((v >> 4) & 2) | (v & 1);
  const int col = (v >> 1) & 0xf;
  return si[k][row * 16 + col];
}

void sinit() {
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4096; ++j) {
      s[i][j] = static_cast<uint8_t>((getcomp(2 * i, j >> 6) << 4) | getcomp(2 * i + 1, j & 0x3f));
    }
  }
}

void p32init() {
  std::memset(p32, 0, sizeof p32);
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 256; ++j) {
      for (int k = 0; k < 32; ++k) {
        const int l = p32i[k] - 1;
        if ((l >> 3) != i) continue;
        if (!(j & bytebit[l & 7])) continue;
        p32[i][j][k >> 3] |= bytebit[k & 7];
      }
    }
  }
}

// Applies a permutation table to 8 bytes: two look-ups per byte.
inline void permute(const uint8_t* inblock, const Perm& perm, uint8_t* outblock) {
  uint64_t acc = 0;
  for (int b = 0; b < 8; ++b) {
    acc |= load64(perm[2 * b][inblock[b] >> 4]) | load64(perm[2 * b + 1][inblock[b] & 0xf]);
  }
  std::memcpy(outblock, &acc, sizeof acc);
}

// The expansion E: 32 bits to eight 6-bit groups, group k being bits 4k to 4k + 5 of the
// input (bit 0 meaning bit 32, bit 33 meaning bit 1), as a 48-bit number.
inline uint64_t expand(uint32_t r) {
  // 34 bits: bit 32, bits 1 to 32, bit 1; group k starts at its bit 4k.
  const uint64_t ext = (uint64_t{r & 1} << 33) | (uint64_t{r} << 1) | (r >> 31);
  uint64_t e = 0;
  for (int k = 0; k < 8; ++k)
    e = (e << 6) | ((ext >> (28 - 4 * k)) & 0x3f);
  return e;
}

// The 48 bits to 32 through the paired S-boxes: four 12-bit indexes, one byte each.
inline uint32_t contract(uint64_t e) {
  return (uint32_t{s[0][(e >> 36) & 0xfff]} << 24) | (uint32_t{s[1][(e >> 24) & 0xfff]} << 16) |
         (uint32_t{s[2][(e >> 12) & 0xfff]} << 8) | uint32_t{s[3][e & 0xfff]};
}

// P on the four S-box bytes; the result is in block byte order.
inline uint32_t perm32(uint32_t c) {
  return load32(p32[0][c >> 24]) | load32(p32[1][(c >> 16) & 0xff]) |
         load32(p32[2][(c >> 8) & 0xff]) | load32(p32[3][c & 0xff]);
}

// The round function of round `num` on the right half (bytes in block order).
inline uint32_t f(uint32_t right, int num) {
  return perm32(contract(expand(as_number(right)) ^ knx[num]));
}

// One round: the left half becomes the old right half, the right half the old left half
// XOR f of the old right half.
inline void iter(int num, uint32_t& left, uint32_t& right) {
  const uint32_t old_right = right;
  right = left ^ f(right, num);
  left = old_right;
}

template <bool kDecipher>
void crypt_block(const char* inblock, char* outblock) {
  uint8_t work[8];
  permute(reinterpret_cast<const uint8_t*>(inblock), iperm, work);
  uint32_t left = load32(work);
  uint32_t right = load32(work + 4);
  for (int i = 0; i < 16; ++i)
    iter(kDecipher ? 15 - i : i, left, right);
  // The halves are exchanged after the last round.
  std::memcpy(work, &right, 4);
  std::memcpy(work + 4, &left, 4);
  permute(work, fperm, reinterpret_cast<uint8_t*>(outblock));
  // The halves are the clear block under a fixed permutation.
  explicit_bzero(work, sizeof work);
  explicit_bzero(&left, sizeof left);
  explicit_bzero(&right, sizeof right);
}

}  // namespace

void desinit(const char* key) {
  // The permutation and S-box tables do not depend on the key: they are built by the first
  // call only, and a key change rebuilds the round keys.
  static bool tables_built = false;
  if (!tables_built) {
    perminit(iperm, ip);
    perminit(fperm, fp);
    sinit();
    p32init();
    tables_built = true;
  }
  kinit(reinterpret_cast<const uint8_t*>(key));
}

void deswipe() {
  explicit_bzero(kn, sizeof kn);
  explicit_bzero(knx, sizeof knx);
  explicit_bzero(pc1m, sizeof pc1m);
  explicit_bzero(pcr, sizeof pcr);
}

void endes(const char* inblock, char* outblock) {
  crypt_block<false>(inblock, outblock);
}

void dedes(const char* inblock, char* outblock) {
  crypt_block<true>(inblock, outblock);
}
