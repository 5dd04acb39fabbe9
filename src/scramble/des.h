// DES block cipher (FIPS PUB 46): enciphers and deciphers single 8-byte blocks under an
// 8-byte key, each block by itself (electronic code book).
//
// Blocks are enciphered through tables (about 24 KB: the initial and final permutations per
// half-byte, the 16 round keys, the S-boxes in pairs with 12-bit indexes, and the P
// permutation per byte), so that a block costs only table look-ups and no bit loops. The
// first `desinit` builds them all; each later one rebuilds the round keys of its key.
// The lowest bit of every key byte (its parity bit) is ignored.
//
// Ownership and threads: the tables are process-wide state of this module, empty until the
// first `desinit`. There is no lock: one thread at a time sets a key and uses it. `endes`
// and `dedes` only read the tables, and wipe their work areas, which hold the clear block in
// another order, before they return.
#ifndef QX_SCRAMBLE_DES_H_
#define QX_SCRAMBLE_DES_H_

// Prepares all tables for the first 8 bytes of `key`.
void desinit(const char* key);

// Wipes the round keys and the key schedule's work areas; a key must be set again before
// the next block.
void deswipe();

// Enciphers one 8-byte block. `inblock` and `outblock` may be the same area.
void endes(const char* inblock, char* outblock);

// Deciphers one 8-byte block. `inblock` and `outblock` may be the same area.
void dedes(const char* inblock, char* outblock);

#endif  // QX_SCRAMBLE_DES_H_
