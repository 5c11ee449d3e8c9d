// MD5 (RFC 1321).
//
// The compression is fully unrolled with the sine-derived constants and shift amounts written
// into each step, and message words are loaded straight from the input bytes: full 64-byte
// blocks of the caller's data are compressed in place, and only a partial block is copied into
// the context. MD5 is a serial chain of dependent additions, so each step computes the parts
// that do not depend on the previous step's result (message word + constant, and for round 2
// the term that does not involve `b`) first, shortening the critical path.
#include "mosk/kelvo/md5.h"

#include <cstring>

namespace mosk {
namespace kelvo {
namespace internal {
namespace {

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
constexpr bool kBigEndianHost = true;
#else
constexpr bool kBigEndianHost = false;
#endif

// Message word `index` of a block given as bytes in message (little-endian) order.
inline __attribute__((always_inline)) uint32_t LoadWord(const unsigned char* block, int index) {
  uint32_t word;
  std::memcpy(&word, block + 4 * index, sizeof(word));
  if constexpr (kBigEndianHost) word = __builtin_bswap32(word);
  return word;
}

inline void StoreWord(unsigned char* out, uint32_t word) {
  out[0] = static_cast<unsigned char>(word);
  out[1] = static_cast<unsigned char>(word >> 8);
  out[2] = static_cast<unsigned char>(word >> 16);
  out[3] = static_cast<unsigned char>(word >> 24);
}

template <int kShift>
inline __attribute__((always_inline)) uint32_t RotateLeft(uint32_t x) {
  return (x << kShift) | (x >> (32 - kShift));
}

// Round 1: F(b, c, d) = (b & c) | (~b & d), written as a bit select.
template <int kShift>
inline __attribute__((always_inline)) void StepF(uint32_t& a, uint32_t b, uint32_t c, uint32_t d,
                                                 uint32_t word, uint32_t constant) {
  a += word + constant;
  a += d ^ (b & (c ^ d));
  a = RotateLeft<kShift>(a) + b;
}

// Round 2: G(b, c, d) = (b & d) | (c & ~d). The two terms never share a set bit, so they can be
// added separately, and the one without `b` is ready before the previous step ends.
template <int kShift>
inline __attribute__((always_inline)) void StepG(uint32_t& a, uint32_t b, uint32_t c, uint32_t d,
                                                 uint32_t word, uint32_t constant) {
  a += word + constant;
  a += c & ~d;
  a += b & d;
  a = RotateLeft<kShift>(a) + b;
}

// Round 3: H(b, c, d) = b ^ c ^ d.
template <int kShift>
inline __attribute__((always_inline)) void StepH(uint32_t& a, uint32_t b, uint32_t c, uint32_t d,
                                                 uint32_t word, uint32_t constant) {
  a += word + constant;
  a += b ^ c ^ d;
  a = RotateLeft<kShift>(a) + b;
}

// Round 4: I(b, c, d) = c ^ (b | ~d).
template <int kShift>
inline __attribute__((always_inline)) void StepI(uint32_t& a, uint32_t b, uint32_t c, uint32_t d,
                                                 uint32_t word, uint32_t constant) {
  a += word + constant;
  a += c ^ (b | ~d);
  a = RotateLeft<kShift>(a) + b;
}

// One compression of the 64 message bytes at `block` into `state`.
void Compress(uint32_t state[4], const unsigned char* block) {
  uint32_t a = state[0];
  uint32_t b = state[1];
  uint32_t c = state[2];
  uint32_t d = state[3];

  // Round 1.
  StepF<7>(a, b, c, d, LoadWord(block, 0), 0xd76aa478);
  StepF<12>(d, a, b, c, LoadWord(block, 1), 0xe8c7b756);
  StepF<17>(c, d, a, b, LoadWord(block, 2), 0x242070db);
  StepF<22>(b, c, d, a, LoadWord(block, 3), 0xc1bdceee);
  StepF<7>(a, b, c, d, LoadWord(block, 4), 0xf57c0faf);
  StepF<12>(d, a, b, c, LoadWord(block, 5), 0x4787c62a);
  StepF<17>(c, d, a, b, LoadWord(block, 6), 0xa8304613);
  StepF<22>(b, c, d, a, LoadWord(block, 7), 0xfd469501);
  StepF<7>(a, b, c, d, LoadWord(block, 8), 0x698098d8);
  StepF<12>(d, a, b, c, LoadWord(block, 9), 0x8b44f7af);
  StepF<17>(c, d, a, b, LoadWord(block, 10), 0xffff5bb1);
  StepF<22>(b, c, d, a, LoadWord(block, 11), 0x895cd7be);
  StepF<7>(a, b, c, d, LoadWord(block, 12), 0x6b901122);
  StepF<12>(d, a, b, c, LoadWord(block, 13), 0xfd987193);
  StepF<17>(c, d, a, b, LoadWord(block, 14), 0xa679438e);
  StepF<22>(b, c, d, a, LoadWord(block, 15), 0x49b40821);
  // Round 2.
  StepG<5>(a, b, c, d, LoadWord(block, 1), 0xf61e2562);
  StepG<9>(d, a, b, c, LoadWord(block, 6), 0xc040b340);
  StepG<14>(c, d, a, b, LoadWord(block, 11), 0x265e5a51);
  StepG<20>(b, c, d, a, LoadWord(block, 0), 0xe9b6c7aa);
  StepG<5>(a, b, c, d, LoadWord(block, 5), 0xd62f105d);
  StepG<9>(d, a, b, c, LoadWord(block, 10), 0x02441453);
  StepG<14>(c, d, a, b, LoadWord(block, 15), 0xd8a1e681);
  StepG<20>(b, c, d, a, LoadWord(block, 4), 0xe7d3fbc8);
  StepG<5>(a, b, c, d, LoadWord(block, 9), 0x21e1cde6);
  StepG<9>(d, a, b, c, LoadWord(block, 14), 0xc33707d6);
  StepG<14>(c, d, a, b, LoadWord(block, 3), 0xf4d50d87);
  StepG<20>(b, c, d, a, LoadWord(block, 8), 0x455a14ed);
  StepG<5>(a, b, c, d, LoadWord(block, 13), 0xa9e3e905);
  StepG<9>(d, a, b, c, LoadWord(block, 2), 0xfcefa3f8);
  StepG<14>(c, d, a, b, LoadWord(block, 7), 0x676f02d9);
  StepG<20>(b, c, d, a, LoadWord(block, 12), 0x8d2a4c8a);
  // Round 3.
  StepH<4>(a, b, c, d, LoadWord(block, 5), 0xfffa3942);
  StepH<11>(d, a, b, c, LoadWord(block, 8), 0x8771f681);
  StepH<16>(c, d, a, b, LoadWord(block, 11), 0x6d9d6122);
  StepH<23>(b, c, d, a, LoadWord(block, 14), 0xfde5380c);
  StepH<4>(a, b, c, d, LoadWord(block, 1), 0xa4beea44);
  StepH<11>(d, a, b, c, LoadWord(block, 4), 0x4bdecfa9);
  StepH<16>(c, d, a, b, LoadWord(block, 7), 0xf6bb4b60);
  StepH<23>(b, c, d, a, LoadWord(block, 10), 0xbebfbc70);
  StepH<4>(a, b, c, d, LoadWord(block, 13), 0x289b7ec6);
  StepH<11>(d, a, b, c, LoadWord(block, 0), 0xeaa127fa);
  StepH<16>(c, d, a, b, LoadWord(block, 3), 0xd4ef3085);
  StepH<23>(b, c, d, a, LoadWord(block, 6), 0x04881d05);
  StepH<4>(a, b, c, d, LoadWord(block, 9), 0xd9d4d039);
  StepH<11>(d, a, b, c, LoadWord(block, 12), 0xe6db99e5);
  StepH<16>(c, d, a, b, LoadWord(block, 15), 0x1fa27cf8);
  StepH<23>(b, c, d, a, LoadWord(block, 2), 0xc4ac5665);
  // Round 4.
  StepI<6>(a, b, c, d, LoadWord(block, 0), 0xf4292244);
  StepI<10>(d, a, b, c, LoadWord(block, 7), 0x432aff97);
  StepI<15>(c, d, a, b, LoadWord(block, 14), 0xab9423a7);
  StepI<21>(b, c, d, a, LoadWord(block, 5), 0xfc93a039);
  StepI<6>(a, b, c, d, LoadWord(block, 12), 0x655b59c3);
  StepI<10>(d, a, b, c, LoadWord(block, 3), 0x8f0ccc92);
  StepI<15>(c, d, a, b, LoadWord(block, 10), 0xffeff47d);
  StepI<21>(b, c, d, a, LoadWord(block, 1), 0x85845dd1);
  StepI<6>(a, b, c, d, LoadWord(block, 8), 0x6fa87e4f);
  StepI<10>(d, a, b, c, LoadWord(block, 15), 0xfe2ce6e0);
  StepI<15>(c, d, a, b, LoadWord(block, 6), 0xa3014314);
  StepI<21>(b, c, d, a, LoadWord(block, 13), 0x4e0811a1);
  StepI<6>(a, b, c, d, LoadWord(block, 4), 0xf7537e82);
  StepI<10>(d, a, b, c, LoadWord(block, 11), 0xbd3af235);
  StepI<15>(c, d, a, b, LoadWord(block, 2), 0x2ad7d2bb);
  StepI<21>(b, c, d, a, LoadWord(block, 9), 0xeb86d391);

  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}

constexpr unsigned int kBlockSize = 64;
constexpr unsigned int kLengthOffset = 56;

unsigned char* BlockBytes(MD5Context* context) {
  return reinterpret_cast<unsigned char*>(context->in);
}

}  // namespace
}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

// The functions below are the unit's interface, in the global namespace; their helpers are this
// file's own.
using namespace mosk::kelvo::internal;  // NOLINT(build/namespaces)

void MD5Init(MD5Context* context) {
  context->buf[0] = 0x67452301;
  context->buf[1] = 0xefcdab89;
  context->buf[2] = 0x98badcfe;
  context->buf[3] = 0x10325476;
  context->bytes[0] = 0;
  context->bytes[1] = 0;
}

void MD5Update(MD5Context* context, const unsigned char* data, unsigned int length) {
  const uint32_t filled = context->bytes[0] % kBlockSize;
  const uint32_t low = context->bytes[0] + length;
  if (low < context->bytes[0]) ++context->bytes[1];
  context->bytes[0] = low;
  if (length == 0) return;

  unsigned char* pending = BlockBytes(context);
  if (filled != 0) {
    const unsigned int room = kBlockSize - filled;
    if (length < room) {
      std::memcpy(pending + filled, data, length);
      return;
    }
    std::memcpy(pending + filled, data, room);
    Compress(context->buf, pending);
    data += room;
    length -= room;
  }
  for (; length >= kBlockSize; data += kBlockSize, length -= kBlockSize) {
    Compress(context->buf, data);
  }
  if (length != 0) std::memcpy(pending, data, length);
}

void MD5Final(unsigned char digest[16], MD5Context* context) {
  unsigned char* pending = BlockBytes(context);
  unsigned int filled = context->bytes[0] % kBlockSize;
  pending[filled++] = 0x80;
  if (filled > kLengthOffset) {
    std::memset(pending + filled, 0, kBlockSize - filled);
    Compress(context->buf, pending);
    filled = 0;
  }
  std::memset(pending + filled, 0, kLengthOffset - filled);
  // The length in bits, as a 64-bit little-endian value: bytes * 8 carries across the words.
  StoreWord(pending + kLengthOffset, context->bytes[0] << 3);
  StoreWord(pending + kLengthOffset + 4, (context->bytes[1] << 3) | (context->bytes[0] >> 29));
  Compress(context->buf, pending);

  for (int i = 0; i < 4; ++i) StoreWord(digest + 4 * i, context->buf[i]);
  std::memset(context, 0, sizeof(*context));
}

void MD5Transform(unsigned int state[4], const unsigned int block[16]) {
  if constexpr (kBigEndianHost) {
    // Compress reads little-endian bytes; the block holds host-order words.
    unsigned int little_endian[16];
    for (int i = 0; i < 16; ++i) little_endian[i] = __builtin_bswap32(block[i]);
    Compress(state, reinterpret_cast<const unsigned char*>(little_endian));
  } else {
    Compress(state, reinterpret_cast<const unsigned char*>(block));
  }
}

void byteSwap(unsigned int* words, unsigned int count) {
  if constexpr (kBigEndianHost) {
    for (unsigned int i = 0; i < count; ++i) words[i] = __builtin_bswap32(words[i]);
  } else {
    (void)words;
    (void)count;
  }
}
