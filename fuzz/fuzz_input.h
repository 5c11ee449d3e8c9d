// Splits a fuzzer input into the receives of a simulated connection: each receive is a 2-byte
// little-endian size (taken modulo the largest receive plus one) followed by that many bytes,
// the last one cut short where the input ends.
#ifndef KELVO_FUZZ_FUZZ_INPUT_H_
#define KELVO_FUZZ_FUZZ_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace kelvo_fuzz {

class Receives {
 public:
  Receives(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  // The next receive, or false at the end of the input.
  bool next(const uint8_t*& bytes, int& count, int largest) {
    if (position_ + 2 > size_) return false;
    size_t wanted = (data_[position_] | (size_t{data_[position_ + 1]} << 8)) %
                    (static_cast<size_t>(largest) + 1);
    position_ += 2;
    size_t left = size_ - position_;
    size_t taken = wanted < left ? wanted : left;
    count = 0;  // a zero-byte chunk is skipped by the targets (it would end a connection)
    if (taken == 0) return true;
    bytes = data_ + position_;
    count = static_cast<int>(taken);
    position_ += taken;
    return true;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t position_ = 0;
};

// A broken invariant is a finding: print it and abort so that libFuzzer keeps the input.
inline void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "framing invariant broken: %s\n", what);
    std::abort();
  }
}

}  // namespace kelvo_fuzz

#endif  // KELVO_FUZZ_FUZZ_INPUT_H_
