// Server-side LengthPrefixed framing against arbitrary receives.
#include <cstring>
#include <memory>

#include "fuzz_input.h"
#include "socket_framing.h"

using namespace mosk::kelvo;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Exactly the loop's buffer size, on the heap so that AddressSanitizer sees its edges.
  std::unique_ptr<char[]> buffer(new char[internal::kServerBufferSize]);
  kelvo_fuzz::Receives receives(data, size);
  int offset = 0;
  int fill = 0;
  const uint8_t* bytes = nullptr;
  int count = 0;
  while (receives.next(bytes, count, internal::kReceiveSize)) {
    if (count == 0) continue;
    kelvo_fuzz::check(fill == 0 && offset == 0, "offsets reset between receives");
    std::memcpy(buffer.get() + fill, bytes, static_cast<size_t>(count));
    const char* received = buffer.get();
    internal::frameLengthPrefixedServer(
        buffer.get(), offset, fill, count, [&](const char* frame, int length) {
          kelvo_fuzz::check(length >= internal::kHeaderSize, "frame holds its header");
          kelvo_fuzz::check(frame >= received && frame + length <= received + count,
                            "frame lies within the received bytes");
          kelvo_fuzz::check(internal::readBigEndian32(frame) + 4u == static_cast<uint32_t>(length),
                            "length is the header's value plus 4");
        });
  }
  return 0;
}
