// Sample types for the typed-topic tests and their helper process: every word of a sample
// derives from its sequence, so that a sample mixed from two publishes (a torn read) shows.
#ifndef KELVO_TESTS_TOPIC_SAMPLES_H_
#define KELVO_TESTS_TOPIC_SAMPLES_H_

#include <cstddef>
#include <cstdint>

#include "mosk/kelvo/topic.h"

namespace topictest {

// 64 bytes, the size of a small control sample.
struct Pattern {
  uint64_t words[8];
};
KELVO_TOPIC_TYPE(Pattern, "test/Pattern", 1);

// A large sample, for the zero-copy path.
struct Big {
  uint64_t words[2048];  // 16 KiB
};
KELVO_TOPIC_TYPE(Big, "test/Big", 1);

// Every word a different function of the sequence: a sample mixed from two publishes fails.
inline uint64_t wordFor(uint64_t sequence, size_t index) {
  return (sequence + 1) * 0x9E3779B97F4A7C15ull ^ (index * 0xC2B2AE3D27D4EB4Full);
}

template <typename T>
void fill(T& sample, uint64_t sequence) {
  for (size_t i = 0; i < sizeof(sample.words) / sizeof(sample.words[0]); ++i) {
    sample.words[i] = wordFor(sequence, i);
  }
}

template <typename T>
T patternOf(uint64_t sequence) {
  T sample;
  fill(sample, sequence);
  return sample;
}

// The sequence a sample was made for, or 0 when its words disagree (torn).
template <typename T>
uint64_t sequenceOf(const T& sample) {
  // words[0] = (s + 1) * K: recover s by trying the one candidate the multiplication allows.
  constexpr uint64_t kInverse = 0xF1DE83E19937733Dull;  // inverse of K modulo 2^64
  const uint64_t sequence = sample.words[0] * kInverse - 1;
  for (size_t i = 0; i < sizeof(sample.words) / sizeof(sample.words[0]); ++i) {
    if (sample.words[i] != wordFor(sequence, i)) return 0;
  }
  return sequence;
}

}  // namespace topictest

#endif  // KELVO_TESTS_TOPIC_SAMPLES_H_
