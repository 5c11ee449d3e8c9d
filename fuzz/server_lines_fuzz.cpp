// Server-side Lines framing against arbitrary receives.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_input.h"
#include "socket_framing.h"

using namespace mosk::kelvo;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::unique_ptr<char[]> buffer(new char[internal::kServerBufferSize]);
  kelvo_fuzz::Receives receives(data, size);
  std::string accumulator;
  const uint8_t* bytes = nullptr;
  int count = 0;
  while (receives.next(bytes, count, internal::kReceiveSize)) {
    if (count == 0) continue;
    accumulator.clear();
    std::memcpy(buffer.get(), bytes, static_cast<size_t>(count));
    size_t previous = 0;
    internal::frameLines(buffer.get(), count, accumulator, [&](const char* text, int length) {
      kelvo_fuzz::check(length > 0 && length <= count, "a delivery is within the receive");
      kelvo_fuzz::check(std::strlen(text) == static_cast<size_t>(length), "text is terminated");
      kelvo_fuzz::check(std::strpbrk(text, "\r\n") == nullptr, "no delimiter is delivered");
      kelvo_fuzz::check(static_cast<size_t>(length) > previous, "deliveries only grow");
      previous = static_cast<size_t>(length);
    });
  }
  return 0;
}
