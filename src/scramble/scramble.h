// Scrambled text codec: turns short secrets (passwords) into text that survives shells,
// files and command lines, and back, with DES under a key text.
//
// Text form: the header 0xAD 0xAD "10" (on reading "--10" is accepted as well) followed by
// 16 upper-case hexadecimal digits for each enciphered 8-byte block. The enciphered clear text
// is the value with its terminating NUL, padded with random bytes to a multiple of 8; the
// blocks are enciphered one by one (no chaining). Binary form: the full 8-byte blocks
// enciphered, then for a remainder of r bytes (1 to 7) one more block of those bytes and
// 8 - r random bytes, enciphered, followed by the plain byte r.
// The other programs of the scheduling system read and write exactly these forms.
//
// Keys: key texts of at most 11 characters; the DES key is the first 8 bytes of the key area.
// A shorter key text is padded with zero bytes, so that a key always means the same DES key.
// A null or empty key means the default key "tav\xE9rnok". The operations with the suffix 2
// take their key from `keyString` and leave no key set behind them (the key text and the
// round keys are wiped); those without the suffix use the key in place, and the default key
// when none is set. Work blocks that held clear text are wiped before an operation returns;
// the caller's areas are the caller's to wipe.
//
// Module state, process-wide: the key area, the DES tables (scramble/des.h) and the seed of
// the C library's random generator, which is seeded every time a key is set. Nothing guards
// it: the codec is used by one thread at a time.
//
// Areas are owned and sized by the caller. No operation fails: a text that is not in the
// scrambled form is handed back unchanged, and wrong digits or a wrong key give wrong clear
// text without any sign.
#ifndef QX_SCRAMBLE_SCRAMBLE_H_
#define QX_SCRAMBLE_SCRAMBLE_H_

#include <cstdint>

// The key of the passwords inside the commands that the job messenger runs (`CMD`), and of
// the values that qx_scramble makes for them by default.
constexpr char kCommandPasswordKey[] = "Rk4Wm#2t";

// Longest key text that the key area holds.
constexpr int kScrambleKeyMax = 11;

// Size in bytes of the scrambled text of a value of `len` characters, terminator included.
constexpr int ScrambledTextSize(int len) {
  return 4 + 16 * ((len + 1 + 7) / 8) + 1;
}

// Scrambles the text `src` into `dst` (ScrambledTextSize(strlen(src)) bytes). Returns 0.
int ZUSTRNG_EnMaxim(char* dst, const char* src);
int ZUSTRNG_EnMaxim2(char* dst, const char* src, const char* keyString);

// Unscrambles `src` into `dst` and returns 0, or, when `src` is not in the scrambled form,
// copies it to `dst` and returns 1. `dst` needs 8 bytes for every 16 digits of `src` (and
// strlen(src) + 1 bytes for the copy); it receives the clear text, its terminator and the
// padding that follows it. A header without digits is an empty value: 0, `dst` not written.
// Digits must be upper case.
int ZUSTRNG_DeMaxim(char* dst, const char* src);
int ZUSTRNG_DeMaxim2(char* dst, const char* src, const char* keyString);

// Scrambles `srclen` bytes into `dst` in the binary form and returns the scrambled length:
// 8 * (srclen / 8), plus 9 when srclen is not a multiple of 8. A negative length counts as 0.
int ZUSTRNG_EnMaximBin(char* dst, const char* src, int srclen);
int ZUSTRNG_EnMaximBin2(char* dst, const char* src, int srclen, const char* keyString);

// Unscrambles `srclen` bytes of the binary form into `dst` (8 bytes for every full block) and
// returns the clear length.
int ZUSTRNG_DeMaximBin(char* dst, const char* src, int srclen);
int ZUSTRNG_DeMaximBin2(char* dst, const char* src, int srclen, const char* keyString);

// A separate XOR scrambler, not compatible with the forms above and independent of the key
// area. `getnewkey` steps a 32-bit shift register. `memchiffre` XORs `len` bytes at `ptr` in
// place with a key stream derived from `key` and returns the last key; applying it twice with
// the same `key` restores the area.
uint32_t getnewkey(uint32_t key);
uint32_t memchiffre(uint32_t key, void* ptr, int len);

#endif  // QX_SCRAMBLE_SCRAMBLE_H_
