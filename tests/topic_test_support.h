// Test support for typed topics: unique topic names, and a fixture that removes what a test
// made.
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
#include "topic_samples.h"

namespace topictest {

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
