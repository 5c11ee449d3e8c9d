// Client-side length-prefixed framing (with reassembly) against arbitrary receives. Every
// delivered frame is compared with the frames a simple reference parser finds in the stream.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "socket_framing.h"

using namespace mosk::kelvo;

namespace {

// The frames of a whole stream: frames up to the limit are kept, longer ones skipped.
std::vector<std::string> referenceFrames(const std::string& stream) {
  std::vector<std::string> frames;
  uint64_t at = 0;
  while (at + 4 <= stream.size()) {
    uint64_t total = uint64_t{internal::readBigEndian32(stream.data() + at)} + 4;
    if (at + total > stream.size()) break;
    if (total <= static_cast<uint64_t>(internal::kClientMaxFrame)) {
      frames.emplace_back(stream.data() + at, total);
    }
    at += total;
  }
  return frames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::unique_ptr<char[]> buffer(new char[internal::kClientBufferSize]);
  kelvo_fuzz::Receives receives(data, size);
  internal::ClientFrameState state;
  std::string stream;
  std::vector<std::string> delivered;
  const uint8_t* bytes = nullptr;
  int count = 0;
  while (receives.next(bytes, count, internal::kReceiveSize)) {
    if (count == 0) continue;
    kelvo_fuzz::check(state.fill + count <= internal::kClientBufferSize, "receive fits");
    std::memcpy(buffer.get() + state.fill, bytes, static_cast<size_t>(count));
    stream.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(count));
    const char* start = buffer.get();
    int filled = state.fill + count;
    internal::frameLengthPrefixedClient(
        buffer.get(), state, count, [&](const char* frame, int length) {
          kelvo_fuzz::check(frame >= start && frame + length <= start + filled,
                            "frame lies within received bytes");
          delivered.emplace_back(frame, length);
        });
    kelvo_fuzz::check(state.fill < internal::kClientMaxFrame, "held bytes stay below a frame");
  }
  std::vector<std::string> expected = referenceFrames(stream);
  kelvo_fuzz::check(delivered == expected, "frames equal the reference parser's");
  return 0;
}
