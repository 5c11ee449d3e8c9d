// MD5 message digest (RFC 1321) as incremental free functions.
//
//   MD5Context ctx;
//   MD5Init(&ctx);
//   MD5Update(&ctx, data, length);  // as many times as needed, pieces of any size
//   unsigned char digest[16];
//   MD5Final(digest, &ctx);         // writes the digest and clears ctx to zero
//
// MD5 is not a secure hash: use it for checksums and change detection, not against an adversary.
//
// The byte count is a 64-bit value kept as two 32-bit words (low word first), so inputs longer
// than 4 GiB in total are counted correctly. MD5Final clears the whole context; call MD5Init
// again before reusing it.
//
// Threading: a context belongs to one thread at a time; the functions keep no other state and
// may run concurrently on different contexts. None of them allocates, locks or makes a system
// call.
#ifndef MOSK_KELVO_MD5_H_
#define MOSK_KELVO_MD5_H_

#include <cstdint>

#include "mosk/kelvo/export.h"

// Running state of one digest. An aggregate: fill it with MD5Init before use.
struct MD5Context {
  uint32_t buf[4];    // chaining state A, B, C, D
  uint32_t bytes[2];  // total input length in bytes, low word first
  uint32_t in[16];    // the 64-byte block being filled
};

// Sets the RFC 1321 initial state and a byte count of 0.
KELVO_EXPORT void MD5Init(MD5Context* context);

// Adds `length` bytes at `data` to the digest. `data` may be null when `length` is 0.
KELVO_EXPORT void MD5Update(MD5Context* context, const unsigned char* data, unsigned int length);

// Pads the message, writes the 16-byte digest and clears the context to zero.
KELVO_EXPORT void MD5Final(unsigned char digest[16], MD5Context* context);

// One MD5 compression of the 16-word block (words in host order, i.e. the little-endian
// message words on this platform) into `state`.
KELVO_EXPORT void MD5Transform(unsigned int state[4], const unsigned int block[16]);

// Converts `count` words between little-endian and host order in place; a no-op on
// little-endian hosts such as x86-64.
KELVO_EXPORT void byteSwap(unsigned int* words, unsigned int count);

#endif  // MOSK_KELVO_MD5_H_
