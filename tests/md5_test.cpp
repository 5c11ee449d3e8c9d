#include "mosk/kelvo/md5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string Hex(const unsigned char digest[16]) {
  std::string out;
  char byte[3];
  for (int i = 0; i < 16; ++i) {
    std::snprintf(byte, sizeof(byte), "%02x", digest[i]);
    out += byte;
  }
  return out;
}

const unsigned char* Bytes(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

std::string DigestOf(const std::string& input) {
  MD5Context context;
  MD5Init(&context);
  MD5Update(&context, Bytes(input), static_cast<unsigned int>(input.size()));
  unsigned char digest[16];
  MD5Final(digest, &context);
  return Hex(digest);
}

std::string DigestInPieces(const std::string& input, size_t piece) {
  MD5Context context;
  MD5Init(&context);
  for (size_t offset = 0; offset < input.size(); offset += piece) {
    const size_t length = std::min(piece, input.size() - offset);
    MD5Update(&context, Bytes(input) + offset, static_cast<unsigned int>(length));
  }
  unsigned char digest[16];
  MD5Final(digest, &context);
  return Hex(digest);
}

std::string PatternInput(size_t size) {
  std::string input(size, '\0');
  for (size_t i = 0; i < size; ++i) input[i] = static_cast<char>((i * 131 + 7) & 0xff);
  return input;
}

TEST(Md5, RfcTestSuite) {
  EXPECT_EQ(DigestOf(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(DigestOf("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(DigestOf("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(DigestOf("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(DigestOf("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(DigestOf("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  std::string eighty;
  for (int i = 0; i < 8; ++i) eighty += "1234567890";
  EXPECT_EQ(DigestOf(eighty), "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, PiecesGiveTheSameDigestAsOneCall) {
  const std::string input = PatternInput(1000);
  const std::string whole = DigestOf(input);
  for (size_t piece : {1, 63, 64, 65}) {
    EXPECT_EQ(DigestInPieces(input, piece), whole) << "pieces of " << piece;
  }
}

TEST(Md5, ZeroLengthUpdatesChangeNothing) {
  MD5Context context;
  MD5Init(&context);
  MD5Update(&context, nullptr, 0);
  MD5Update(&context, Bytes("abc"), 3);
  MD5Update(&context, nullptr, 0);
  unsigned char digest[16];
  MD5Final(digest, &context);
  EXPECT_EQ(Hex(digest), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Md5, FinalClearsTheContext) {
  MD5Context context;
  MD5Init(&context);
  MD5Update(&context, Bytes("some data to digest"), 19);
  unsigned char digest[16];
  MD5Final(digest, &context);
  MD5Context zero;
  std::memset(&zero, 0, sizeof(zero));
  EXPECT_EQ(std::memcmp(&context, &zero, sizeof(context)), 0);
}

TEST(Md5, ByteCountCarriesIntoTheHighWord) {
  MD5Context context;
  MD5Init(&context);
  std::memset(context.in, 0, sizeof(context.in));
  context.bytes[0] = 0xfffffff0u;
  const std::string input = PatternInput(40);
  MD5Update(&context, Bytes(input), 40);
  EXPECT_EQ(context.bytes[0], 40u - 16u);
  EXPECT_EQ(context.bytes[1], 1u);
  // The carry must also be visible to the padding: two contexts that differ only in the high
  // word of the count end with different digests.
  MD5Context without_carry;
  MD5Init(&without_carry);
  std::memset(without_carry.in, 0, sizeof(without_carry.in));
  without_carry.bytes[0] = 0xfffffff0u;
  MD5Update(&without_carry, Bytes(input), 40);
  without_carry.bytes[1] = 0;
  unsigned char with[16], without[16];
  MD5Final(with, &context);
  MD5Final(without, &without_carry);
  EXPECT_NE(Hex(with), Hex(without));
}

// Known digests of runs of 'a' around the padding boundary (55 bytes still fit the length in
// the same block, 56 and 63 need an extra block, 64 is a full block plus a padding block).
TEST(Md5, PaddingEdgeLengths) {
  EXPECT_EQ(DigestOf(std::string(55, 'a')), "ef1772b6dff9a122358552954ad0df65");
  EXPECT_EQ(DigestOf(std::string(56, 'a')), "3b0c8ac703f828b04c6c197006d17218");
  EXPECT_EQ(DigestOf(std::string(63, 'a')), "b06521f39153d618550606be297466d5");
  EXPECT_EQ(DigestOf(std::string(64, 'a')), "014842d480b571495a4a0363793f7367");
  for (size_t length : {55, 56, 63, 64}) {
    const std::string input = PatternInput(length);
    EXPECT_EQ(DigestInPieces(input, 1), DigestOf(input)) << length;
  }
}

TEST(Md5, TransformOfThePaddedEmptyMessage) {
  // The empty message is one block: 0x80, zeros, and a bit length of 0.
  unsigned int block[16] = {0x80};
  unsigned int state[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  MD5Transform(state, block);
  unsigned char digest[16];
  std::memcpy(digest, state, sizeof(digest));  // little-endian host
  EXPECT_EQ(Hex(digest), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5, ByteSwapIsANoOpOnThisLittleEndianHost) {
  static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "x86-64 is little-endian");
  unsigned int words[3] = {0x01020304u, 0xdeadbeefu, 0u};
  byteSwap(words, 3);
  EXPECT_EQ(words[0], 0x01020304u);
  EXPECT_EQ(words[1], 0xdeadbeefu);
  EXPECT_EQ(words[2], 0u);
}

TEST(Md5, LargeInputMatchesReference) {
  // One million 'a': a classic long-message vector.
  const std::string input(1000000, 'a');
  EXPECT_EQ(DigestOf(input), "7707d6ae4e027c70eea2a935c2296f21");
  EXPECT_EQ(DigestInPieces(input, 4097), "7707d6ae4e027c70eea2a935c2296f21");
}

}  // namespace
