// Test support for typed topics: sample types whose every word derives from the sequence (so
// that a torn read shows), unique topic names, and a fixture that removes what a test made.
#ifndef KELVO_TESTS_TOPIC_TEST_SUPPORT_H_
#define KELVO_TESTS_TOPIC_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "mosk/kelvo/topic.h"
#include "shm_test_support.h"

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

// A name unique to this process and test, as the shm tests make them.
inline std::string uniqueTopic(const std::string& name) { return shmtest::uniqueTopic(name); }

// Attachments of System V segments in this process.
inline size_t attachedSegmentCount() { return shmtest::attachedSegments().size(); }

// Removes every topic a test named through topic(), and checks that nothing is left.
class TopicTest : public ::testing::Test {
 protected:
  std::string topic(const std::string& suffix = "") {
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = uniqueTopic(std::string(info->name()) + suffix);
    names_.push_back(name);
    return name;
  }

  void TearDown() override {
    for (const std::string& name : names_) {
      mosk::kelvo::removeTopic(name);
      EXPECT_FALSE(shmtest::pathExists(shmtest::topicDir(name))) << name;
      removeLeftovers(name);
    }
  }

  // Whatever a failed test left half made: the segment, the key file, the directory. Only
  // this test's segments are touched (other tests' objects may still be attached).
  static void removeLeftovers(const std::string& name) {
    const key_t key = shmtest::existingKey(name);
    if (key != -1) {
      const int id = shmget(key, 0, 0);
      if (id != -1) shmctl(id, IPC_RMID, nullptr);
    }
    unlink(shmtest::keyPath(name).c_str());
    rmdir(shmtest::topicDir(name).c_str());
  }

 private:
  std::vector<std::string> names_;
};

}  // namespace topictest

#endif  // KELVO_TESTS_TOPIC_TEST_SUPPORT_H_
