// Framing of received bytes, shared by the receiving loops, the tests and the fuzzers.
//
// Each function takes the receive buffer, the offsets the loop keeps and the count the last
// recv returned, and hands every complete message to `deliver(const char* data, int length)`.
// None of them reads or writes outside its buffer, hands over bytes that were not received,
// or loops without progress, whatever the peer sends.
#ifndef KELVO_SRC_SOCKET_FRAMING_H_
#define KELVO_SRC_SOCKET_FRAMING_H_

#include <cstdint>
#include <cstring>
#include <string>

namespace mosk {
namespace kelvo {
namespace internal {

// Bytes asked of one recv.
constexpr int kReceiveSize = 4096;
// Server-side buffer: one receive plus the terminator the Lines framing writes.
constexpr int kServerBufferSize = kReceiveSize + 1;
// Largest frame (header included) the client reassembles; longer frames are skipped.
constexpr int kClientMaxFrame = kReceiveSize;
// Client buffer: an incomplete frame (at most kClientMaxFrame - 1 bytes) plus one receive.
constexpr int kClientBufferSize = kClientMaxFrame - 1 + kReceiveSize;
constexpr int kHeaderSize = 4;

inline uint32_t readBigEndian32(const char* p) {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | uint32_t{b[3]};
}

// Server side, LengthPrefixed. The loop receives at buffer + fill (fill is always 0 between
// receives here). Whole frames inside this receive are delivered in place with their header
// and length N + 4. A frame that does not fit in what is left of the receive (a cut frame, or
// a header of 2^31 - 3 or more, which cannot fit in a 4096-byte receive) drops itself and the
// rest of the receive; frames are never reassembled across receives.
template <class Deliver>
void frameLengthPrefixedServer(const char* buffer, int& offset, int& fill, int received,
                               Deliver&& deliver) {
  fill += received;
  int remaining = received;
  while (offset < fill || remaining > 0) {
    if (remaining < kHeaderSize) {
      offset = fill = 0;
      break;
    }
    uint32_t declared = readBigEndian32(buffer + offset);
    if (declared > static_cast<uint32_t>(remaining - kHeaderSize)) {
      offset = fill = 0;
      break;
    }
    int length = static_cast<int>(declared) + kHeaderSize;
    deliver(buffer + offset, length);
    offset += length;
    remaining -= length;
  }
  if (offset == fill) offset = fill = 0;
}

// Server side, Lines. buffer[received] becomes a terminator, so the buffer holds
// received + 1 bytes. Tokens are split at CR and LF (runs make no empty tokens; an embedded
// NUL ends the text of the receive). Each token is appended to `accumulator`; a token is
// delivered only when another one follows it in the same receive, and what is delivered is the
// accumulator's whole content (all earlier tokens of this receive, then this one). The caller
// clears the accumulator before each receive.
template <class Deliver>
void frameLines(char* buffer, int received, std::string& accumulator, Deliver&& deliver) {
  buffer[received] = '\0';
  char* position = nullptr;
  char* token = strtok_r(buffer, "\r\n", &position);
  while (token != nullptr) {
    accumulator += token;
    char* next = strtok_r(nullptr, "\r\n", &position);
    if (next == nullptr) break;
    int length = static_cast<int>(accumulator.size());
    deliver(accumulator.c_str(), length);
    token = next;
  }
}

// Client-side reassembly state; the offsets persist for the receiving thread's life.
struct ClientFrameState {
  int offset = 0;
  int fill = 0;
  uint64_t skip = 0;  // bytes still to drop of a frame longer than kClientMaxFrame
};

// Client side, always length-prefixed. The loop receives kReceiveSize bytes at buffer + fill
// (buffer of kClientBufferSize). Complete frames are delivered in place with header and length
// N + 4. A frame whose declared length runs past the received bytes is kept and completed by
// the following receives (never handed over before all its bytes arrived). A frame longer
// than kClientMaxFrame bytes can never be held: its bytes are dropped as they arrive, and the
// next frame starts after them. The incomplete rest is moved to the buffer's start so that the
// next receive always fits.
template <class Deliver>
void frameLengthPrefixedClient(char* buffer, ClientFrameState& state, int received,
                               Deliver&& deliver) {
  state.fill += received;
  while (state.fill > state.offset) {
    int available = state.fill - state.offset;
    if (state.skip > 0) {
      int dropped =
          state.skip < static_cast<uint64_t>(available) ? static_cast<int>(state.skip) : available;
      state.offset += dropped;
      state.skip -= static_cast<uint64_t>(dropped);
      continue;
    }
    if (available < kHeaderSize) break;
    uint64_t total = uint64_t{readBigEndian32(buffer + state.offset)} + kHeaderSize;
    if (total > static_cast<uint64_t>(kClientMaxFrame)) {
      state.skip = total;
      continue;
    }
    if (total > static_cast<uint64_t>(available)) break;
    int length = static_cast<int>(total);
    const char* frame = buffer + state.offset;
    state.offset += length;
    deliver(frame, length);
  }
  if (state.offset == state.fill) {
    state.offset = state.fill = 0;
  } else if (state.offset > 0) {
    std::memmove(buffer, buffer + state.offset, static_cast<size_t>(state.fill - state.offset));
    state.fill -= state.offset;
    state.offset = 0;
  }
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_SOCKET_FRAMING_H_
