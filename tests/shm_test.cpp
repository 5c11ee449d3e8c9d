// Shared-memory topics across real processes: segments by topic, header layout, attachment
// counts, removal, the process-shared locks and the condition, and the assertions.
#include "mosk/kelvo/shm.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

#include "shm_test_support.h"

using shmtest::Child;

// Defined in shm_plain_gettid.cpp, which sees the library's own global gettid().
uint32_t threadIdFromPlainGettid();

namespace {

constexpr size_t kSize = 1024;
constexpr int kFailed = 1;

// The first System V segment since boot gets identifier 0, which the library counts as a
// failure. Use that identifier up before any test connects.
class UseUpIdentifierZero : public ::testing::Environment {
 public:
  void SetUp() override {
    int id = shmget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    if (id != -1) shmctl(id, IPC_RMID, nullptr);
  }
};

const auto* const kUseUpIdentifierZero =
    ::testing::AddGlobalTestEnvironment(new UseUpIdentifierZero);

// Every test gets its own topic, and leaves neither segment, key file nor directory behind.
class ShmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "fast");
    topic_ = shmtest::uniqueTopic(::testing::UnitTest::GetInstance()->current_test_info()->name());
    ASSERT_LE(topic_.size(), 44u) << "test name too long for a topic";
  }
  void TearDown() override { shmtest::removeTopic(topic_); }

  void* connect(size_t size = kSize) { return shm_connect_by_topic(topic_.c_str(), size); }

  std::vector<std::string> helperArgs(const std::string& command, size_t size = kSize) {
    return {KELVO_SHM_HELPER, command, topic_, std::to_string(size)};
  }

  std::string topic_;
};

using ShmDeathTest = ShmTest;

// Runs `body` on a new thread and returns its result.
template <typename Fn>
auto onOtherThread(Fn body) -> decltype(body()) {
  decltype(body()) result{};
  std::thread t([&] { result = body(); });
  t.join();
  return result;
}

// ---- Segments ------------------------------------------------------------------------------

TEST_F(ShmTest, NewTopicCreatesKeyFileAndAnInitialisedZeroedSegment) {
  void* mem = connect();
  ASSERT_NE(mem, nullptr);

  struct stat st;
  ASSERT_EQ(stat(shmtest::topicDir(topic_).c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  ASSERT_EQ(stat(shmtest::keyPath(topic_).c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(st.st_size, 0);

  key_t key = ftok(shmtest::keyPath(topic_).c_str(), 1);
  int id = shmget(key, 0, 0);
  ASSERT_NE(id, -1);
  struct shmid_ds status;
  ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
  EXPECT_EQ(status.shm_segsz, 1396u);
  EXPECT_EQ(status.shm_perm.mode & 0777, 0600);

  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kMagicOffset), 0x1234u);
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kSizeOffset), 1024u);
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kKeyOffset), static_cast<uint32_t>(key));
  EXPECT_STREQ(shmtest::headerTopic(mem), topic_.c_str());
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kCreatorPidOffset), static_cast<uint32_t>(getpid()));
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kPageSizeOffset),
            static_cast<uint64_t>(sysconf(_SC_PAGESIZE)));
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kOwnerTidOffset), 0u);
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kLockCountOffset), 0u);
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kUnlockCountOffset), 0u);
  EXPECT_EQ(shmtest::headerU32(mem, 8), 0u);
  EXPECT_EQ(shmtest::headerU64(mem, 12), 0u);
  EXPECT_EQ(shmtest::headerU32(mem, 32), 0u);

  const unsigned char* data = static_cast<const unsigned char*>(mem);
  for (size_t i = 0; i < kSize; ++i) ASSERT_EQ(data[i], 0) << "byte " << i;

  // The pointer is 372 bytes past the attach address.
  bool found = false;
  for (void* start : shmtest::attachedSegments()) {
    if (static_cast<char*>(start) + MEM_HDR_SIZE == mem) found = true;
  }
  EXPECT_TRUE(found);
}

TEST_F(ShmTest, SecondConnectKeepsDataAndHeader) {
  char* first = static_cast<char*>(connect());
  std::strcpy(first, "payload");
  ASSERT_EQ(shm_rdlock(first), 0);
  ASSERT_EQ(shm_unlock(first), 0);

  char* second = static_cast<char*>(connect());
  EXPECT_NE(second, first);  // a second attachment of the same segment
  EXPECT_STREQ(second, "payload");
  EXPECT_EQ(shmtest::headerU64(second, shmtest::kLockCountOffset), 1u);
  EXPECT_EQ(shmtest::headerU64(second, shmtest::kUnlockCountOffset), 1u);
}

TEST_F(ShmTest, ConnectByKeyOnlyLeavesTopicNameEmptyAndConnectByTopicWritesIt) {
  ASSERT_NE(connect(), nullptr);
  key_t key = shmtest::existingKey(topic_);
  shmtest::detachAllSegments();
  shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);

  void* byKey = shm_connect_by_key(key, kSize);
  EXPECT_EQ(shmtest::headerU32(byKey, shmtest::kMagicOffset), 0x1234u);
  EXPECT_STREQ(shmtest::headerTopic(byKey), "");
  void* byTopic = connect();
  EXPECT_STREQ(shmtest::headerTopic(byKey), topic_.c_str());
  EXPECT_STREQ(shmtest::headerTopic(byTopic), topic_.c_str());
}

TEST_F(ShmTest, AnExistingUninitialisedSegmentIsInitialisedAndZeroed) {
  ASSERT_NE(connect(), nullptr);  // makes the key file
  key_t key = shmtest::existingKey(topic_);
  shmtest::detachAllSegments();
  shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
  // A segment of the right size whose header and data are garbage, with magic 0.
  int id = shmget(key, kSize + MEM_HDR_SIZE, IPC_CREAT | 0600);
  ASSERT_NE(id, -1);
  auto* raw = static_cast<unsigned char*>(shmat(id, nullptr, 0));
  std::memset(raw, 0xab, kSize + MEM_HDR_SIZE);
  std::memset(raw, 0, 4);

  auto* data = static_cast<unsigned char*>(connect());
  EXPECT_EQ(shmtest::headerU32(data, shmtest::kMagicOffset), 0x1234u);
  EXPECT_EQ(shmtest::headerU64(data, shmtest::kLockCountOffset), 0u);
  EXPECT_EQ(shmtest::headerU32(data, shmtest::kOwnerTidOffset), 0u);
  EXPECT_EQ(shmtest::headerU32(data, 8), 0xababababu);  // reserved, never written
  for (size_t i = 0; i < kSize; ++i) ASSERT_EQ(data[i], 0) << "byte " << i;
  EXPECT_EQ(shm_wrlock(data), 0);
  EXPECT_EQ(shm_wrunlock(data), 0);
}

TEST_F(ShmTest, AFortyFourByteTopicIsAccepted) {
  std::string longTopic = topic_ + std::string(44 - topic_.size(), 'x');
  ASSERT_EQ(longTopic.size(), 44u);
  void* mem = shm_connect_by_topic(longTopic.c_str(), 64);
  EXPECT_NE(mem, nullptr);
  EXPECT_STREQ(shmtest::headerTopic(mem), longTopic.c_str());
  shmtest::removeTopic(longTopic);
}

TEST_F(ShmDeathTest, FortyFiveByteTopicAbortsInThePathFormatting) {
  std::string longTopic = topic_ + std::string(45 - topic_.size(), 'x');
  EXPECT_DEATH(shm_connect_by_topic(longTopic.c_str(), 64),
               "\\*\\*\\* buffer overflow detected \\*\\*\\*: terminated");
  EXPECT_FALSE(shmtest::pathExists(shmtest::topicDir(longTopic)));
}

TEST_F(ShmDeathTest, SmallerSizeOnAnExistingSegmentFailsTheSizeAssertion) {
  ASSERT_NE(connect(), nullptr);
  EXPECT_DEATH(connect(kSize / 2),
               "^Assertion error: \\(size \\+ MEM_HDR_SIZE\\) == buf\\.shm_segsz "
               "\\(src/shm:[0-9]+\\)\n$");
}

TEST_F(ShmDeathTest, LargerSizeOnAnExistingSegmentFailsTheIdentifierAssertion) {
  ASSERT_NE(connect(), nullptr);
  EXPECT_DEATH(connect(kSize * 2), "^Assertion error: shm_id > 0 \\(src/shm:[0-9]+\\)\n$");
}

// In a new IPC namespace the first segment gets identifier 0, which counts as a failure.
TEST_F(ShmDeathTest, IdentifierZeroIsTreatedAsFailure) {
  Child probe;
  probe.fork([] { return unshare(CLONE_NEWIPC) == 0 ? 0 : 1; });
  if (probe.wait() != 0) GTEST_SKIP() << "unshare(CLONE_NEWIPC) needs CAP_SYS_ADMIN";
  EXPECT_DEATH(
      {
        if (unshare(CLONE_NEWIPC) == 0) shm_connect_by_key(0x6b656c76, 64);
      },
      "^Assertion error: shm_id > 0 \\(src/shm:[0-9]+\\)\n$");
}

TEST_F(ShmDeathTest, KeyFileThatCannotBeCreatedFailsTheCreatAssertion) {
  // The topic's directory is a plain file, so nothing can be created below it.
  ASSERT_EQ(mkdir(shmtest::topicDir(topic_).c_str(), 0777), 0);
  std::string blocker = shmtest::topicDir(topic_) + "/file";
  int fd = creat(blocker.c_str(), 0666);
  ASSERT_GE(fd, 0);
  close(fd);
  std::string nested = topic_ + "/file";
  EXPECT_DEATH(shm_connect_by_topic(nested.c_str(), 64),
               "^Assertion error: fd = creat\\(pathname, 0666\\) != -1 \\(src/shm:[0-9]+\\)\n$");
  unlink(blocker.c_str());
}

TEST_F(ShmTest, AttachmentCountIsTwoAfterTwoConnectsAndDisconnectKeepsIt) {
  void* first = connect();
  connect();
  EXPECT_EQ(shm_nattch_by_topic(topic_.c_str()), 2u);
  EXPECT_EQ(shm_disconnect(first), -1);
  EXPECT_EQ(shm_nattch_by_topic(topic_.c_str()), 2u);
}

TEST_F(ShmTest, AttachmentCountSeesOtherProcesses) {
  connect();
  Child helper;
  helper.exec(helperArgs("attach"));
  ASSERT_EQ(helper.readLine(), "ready");
  EXPECT_EQ(shm_nattch_by_topic(topic_.c_str()), 2u);
  helper.closeInput();
  EXPECT_EQ(helper.wait(), 0);
  EXPECT_EQ(shm_nattch_by_topic(topic_.c_str()), 1u);
}

TEST_F(ShmTest, AttachmentCountWithoutSegmentPrintsTheFailureAndReturnsZero) {
  ::testing::internal::CaptureStderr();
  uint64_t count = shm_nattch_by_topic(topic_.c_str());
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(err, std::string("tlx_shm_nattch: shmctl failed: ") + std::strerror(EINVAL) + "\n");
  EXPECT_TRUE(shmtest::pathExists(shmtest::keyPath(topic_)));
}

TEST_F(ShmTest, RemoveByKeyRefusesASegmentInUseAndRemoveByTopicRemovesIt) {
  void* mem = connect();
  key_t key = shmtest::existingKey(topic_);
  EXPECT_EQ(shm_rm_by_key(key), -2);
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kMagicOffset), 0x1234u);
  EXPECT_NE(shmget(key, 0, 0), -1);

  EXPECT_EQ(shm_rm_by_topic(topic_.c_str()), 0);
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kMagicOffset), 0u);
  EXPECT_EQ(shmget(key, 0, 0), -1);  // marked for removal: the key no longer finds it
  // Descriptor 0 is this process's standard input, so the key file stays.
  EXPECT_TRUE(shmtest::pathExists(shmtest::keyPath(topic_)));
}

TEST_F(ShmTest, RemoveByKeyRemovesAnUnattachedSegmentAndLeavesTheKeyFile) {
  Child creator;
  std::string topic = topic_;
  creator.fork([topic] { return shm_connect_by_topic(topic.c_str(), kSize) ? 0 : kFailed; });
  ASSERT_EQ(creator.wait(), 0);
  key_t key = shmtest::existingKey(topic_);
  ASSERT_NE(shmget(key, 0, 0), -1);
  EXPECT_EQ(shm_rm_by_key(key), 0);
  EXPECT_EQ(shmget(key, 0, 0), -1);
  EXPECT_TRUE(shmtest::pathExists(shmtest::keyPath(topic_)));
}

TEST_F(ShmTest, RemoveByKeyWithoutSegmentPrintsTheTopicMessage) {
  ::testing::internal::CaptureStderr();
  int rc = shm_rm_by_key(0x6b6c7600 + (getpid() & 0xff));
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(err, std::string("shm_rm_by_topic: shmctl failed: ") + std::strerror(EINVAL) + "\n");
}

TEST_F(ShmTest, RemoveByTopicWithoutSegmentFailsAfterCreatingTheKeyFile) {
  ::testing::internal::CaptureStderr();
  int rc = shm_rm_by_topic(topic_.c_str());
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(err, std::string("shm_rm_by_topic: shmctl failed: ") + std::strerror(EINVAL) + "\n");
  EXPECT_TRUE(shmtest::pathExists(shmtest::keyPath(topic_)));
}

TEST_F(ShmTest, RemoveByTopicRemovesTheKeyFileOnlyWhenItOpensAsDescriptorZero) {
  std::string topic = topic_;
  Child child;
  child.fork([topic] {
    close(STDIN_FILENO);
    if (shm_connect_by_topic(topic.c_str(), kSize) == nullptr) return kFailed;
    if (shm_rm_by_topic(topic.c_str()) != 0) return kFailed;
    return shmtest::pathExists(shmtest::keyPath(topic)) ? kFailed : 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_FALSE(shmtest::pathExists(shmtest::keyPath(topic_)));
}

TEST_F(ShmTest, ConnectingAfterRemovalMakesAFreshSegment) {
  char* old = static_cast<char*>(connect());
  std::strcpy(old, "old");
  ASSERT_EQ(shm_rm_by_topic(topic_.c_str()), 0);
  char* fresh = static_cast<char*>(connect());
  EXPECT_EQ(fresh[0], 0);
  EXPECT_EQ(shmtest::headerU32(fresh, shmtest::kMagicOffset), 0x1234u);
  EXPECT_EQ(shm_wrlock(old), -1);
  EXPECT_EQ(shm_wrlock(fresh), 0);
  EXPECT_EQ(shm_wrunlock(fresh), 0);
}

TEST_F(ShmTest, NoSegmentOutlivesItsTopic) {
  auto matching = [](key_t key, int shmid) {
    int count = 0;
    for (const auto& s : shmtest::systemSegments()) count += s.key == key || s.shmid == shmid;
    return count;
  };
  auto createdHere = [] {
    int count = 0;
    for (const auto& s : shmtest::systemSegments()) count += s.cpid == getpid();
    return count;
  };
  int createdBefore = createdHere();

  Child helper;
  helper.exec(helperArgs("attach"));
  ASSERT_EQ(helper.readLine(), "ready");
  key_t key = shmtest::existingKey(topic_);
  int shmid = shmget(key, 0, 0);
  ASSERT_NE(shmid, -1);
  EXPECT_EQ(matching(key, shmid), 1);
  EXPECT_EQ(shm_rm_by_topic(topic_.c_str()), 0);
  helper.closeInput();
  EXPECT_EQ(helper.wait(), 0);
  shmtest::detachAllSegments();  // shm_rm_by_topic attached it here too

  EXPECT_EQ(matching(key, shmid), 0);
  EXPECT_EQ(createdHere(), createdBefore);
}

// ---- Thread ids -----------------------------------------------------------------------------

TEST(ShmGettid, IsTheKernelThreadIdOnEveryThread) {
  EXPECT_EQ(shm_gettid(), static_cast<uint32_t>(syscall(SYS_gettid)));
  EXPECT_EQ(shm_gettid(), static_cast<uint32_t>(::gettid()));  // the C library's, beside ours
  uint32_t other = onOtherThread([] { return shm_gettid(); });
  uint32_t otherKernel = 0;
  std::thread t([&] {
    shm_gettid();
    otherKernel = static_cast<uint32_t>(syscall(SYS_gettid)) == shm_gettid() ? 1 : 0;
  });
  t.join();
  EXPECT_NE(other, shm_gettid());
  EXPECT_EQ(otherKernel, 1u);
}

TEST(ShmGettid, TheGlobalGettidDeclaredWithoutGnuSourceIsTheSameFunction) {
  EXPECT_EQ(threadIdFromPlainGettid(), shm_gettid());
  EXPECT_EQ(threadIdFromPlainGettid(), static_cast<uint32_t>(syscall(SYS_gettid)));
  uint32_t matches = onOtherThread([] {
    return threadIdFromPlainGettid() == static_cast<uint32_t>(syscall(SYS_gettid)) ? 1u : 0u;
  });
  EXPECT_EQ(matches, 1u);
}

TEST(ShmGettid, IsRenewedInAForkedChild) {
  uint32_t parent = shm_gettid();
  Child child;
  child.fork([parent] {
    uint32_t mine = shm_gettid();
    return mine != parent && mine == static_cast<uint32_t>(syscall(SYS_gettid)) ? 0 : kFailed;
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST(ShmGettid, IsRightInAFreshProcess) {
  Child helper;
  helper.exec({KELVO_SHM_HELPER, "tid", shmtest::uniqueTopic("tid"), "16"});
  std::string line = helper.readLine();
  EXPECT_EQ(helper.wait(), 0);
  size_t space = line.find(' ');
  ASSERT_NE(space, std::string::npos) << line;
  EXPECT_EQ(line.substr(0, space), line.substr(space + 1));
  shmtest::removeTopic(shmtest::uniqueTopic("tid"));
}

TEST(ShmSymbols, ShmFunctionsAreUnmangledAndShmLockAndGettidAreMangled) {
  for (const char* name :
       {"shm_connect_by_key", "shm_connect_by_topic", "shm_nattch_by_topic", "shm_rm_by_topic",
        "shm_rm_by_key", "shm_disconnect", "shm_trylock", "shm_rdlock", "shm_wrlock", "shm_unlock",
        "shm_wrunlock", "shm_wait", "shm_timedwait", "shm_notify", "_Z8shm_lockPv", "_Z6gettidv"}) {
    EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
  }
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "shm_lock"), nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "topic_to_key"), nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "_Z6gettidv"), reinterpret_cast<void*>(&shm_gettid));
}

// ---- Read-write lock ------------------------------------------------------------------------

TEST_F(ShmTest, TwoReadersThenAWriterIsBusyUntilBothUnlock) {
  void* mem = connect();
  EXPECT_EQ(onOtherThread([mem] { return shm_rdlock(mem); }), 0);
  EXPECT_EQ(onOtherThread([mem] { return shm_rdlock(mem); }), 0);
  EXPECT_EQ(shm_wrlock(mem), EBUSY);
  EXPECT_EQ(shm_unlock(mem), 0);
  EXPECT_EQ(shm_wrlock(mem), EBUSY);
  EXPECT_EQ(shm_unlock(mem), 0);
  EXPECT_EQ(shm_wrlock(mem), 0);
  EXPECT_EQ(shm_rdlock(mem), EBUSY);
  EXPECT_EQ(shm_wrunlock(mem), 0);
}

TEST_F(ShmTest, WriteUnlockFromAnotherThreadIsRefusedAndKeepsTheLock) {
  void* mem = connect();
  ASSERT_EQ(shm_wrlock(mem), 0);
  EXPECT_EQ(onOtherThread([mem] { return shm_wrunlock(mem); }), -2);
  EXPECT_EQ(onOtherThread([mem] { return shm_rdlock(mem); }), EBUSY);
  EXPECT_EQ(shm_wrunlock(mem), 0);
  EXPECT_EQ(onOtherThread([mem] { return shm_rdlock(mem); }), 0);
  EXPECT_EQ(shm_unlock(mem), 0);
}

TEST_F(ShmTest, WriteUnlockIsRefusedOnceAnotherThreadTookALockSince) {
  void* mem = connect();
  ASSERT_EQ(shm_wrlock(mem), 0);
  // shm_trylock takes lock_mutex and writes its own id into owner_tid.
  EXPECT_EQ(onOtherThread([mem] { return shm_trylock(mem); }), 0);
  EXPECT_EQ(shm_wrunlock(mem), -2);
  EXPECT_EQ(shm_unlock(mem), 0);  // releases without an owner check
  EXPECT_EQ(shm_wrlock(mem), 0);
  EXPECT_EQ(shm_wrunlock(mem), 0);
}

TEST_F(ShmTest, UnlockReleasesAWriteLock) {
  void* mem = connect();
  ASSERT_EQ(shm_wrlock(mem), 0);
  EXPECT_EQ(shm_unlock(mem), 0);
  EXPECT_EQ(shm_rdlock(mem), 0);
  EXPECT_EQ(shm_unlock(mem), 0);
}

TEST_F(ShmTest, LocksAndUnlocksAreCountedAndOwnerIsTracked) {
  void* mem = connect();
  uint32_t me = static_cast<uint32_t>(syscall(SYS_gettid));
  ASSERT_EQ(shm_rdlock(mem), 0);
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kOwnerTidOffset), me);
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kLockCountOffset), 1u);
  EXPECT_EQ(shm_wrlock(mem), EBUSY);  // a failed try is not counted
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kLockCountOffset), 1u);
  ASSERT_EQ(shm_unlock(mem), 0);
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kOwnerTidOffset), 0u);
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kUnlockCountOffset), 1u);
  ASSERT_EQ(shm_wrlock(mem), 0);
  ASSERT_EQ(shm_wrunlock(mem), 0);
  ASSERT_EQ(shm_trylock(mem), 0);
  EXPECT_EQ(shmtest::headerU32(mem, shmtest::kOwnerTidOffset), me);
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kLockCountOffset), 3u);
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kUnlockCountOffset), 2u);
}

TEST_F(ShmTest, ReadersAndWritersOnManyThreadsKeepTheDataConsistent) {
  struct Shared {  // the data area is aligned to 4 bytes only
    uint32_t a, b;
  };
  void* mem = connect(sizeof(Shared));
  auto* shared = static_cast<Shared*>(mem);
  std::atomic<bool> inconsistent{false};
  std::atomic<int> writes{0};
  auto writer = [&] {
    for (int done = 0; done < 2000;) {
      if (shm_wrlock(mem) != 0) continue;
      shared->a += 1;
      shared->b += 1;
      shm_unlock(mem);
      ++done;
      writes.fetch_add(1);
    }
  };
  auto reader = [&] {
    for (int i = 0; i < 2000; ++i) {
      if (shm_rdlock(mem) != 0) continue;
      if (shared->a != shared->b) inconsistent = true;
      shm_unlock(mem);
    }
  };
  std::thread w1(writer), w2(writer), r1(reader), r2(reader);
  w1.join();
  w2.join();
  r1.join();
  r2.join();
  EXPECT_FALSE(inconsistent);
  EXPECT_EQ(shared->a, 4000u);
}

TEST_F(ShmTest, LocksAreSeenBusyFromAnotherProcess) {
  void* mem = connect();
  ASSERT_EQ(shm_wrlock(mem), 0);
  Child probe;
  probe.exec(helperArgs("probe"));
  // The probe's trylock takes lock_mutex (free), the read-write lock is held here.
  EXPECT_EQ(probe.readLine(), "trylock 0 rdlock 16 wrlock 16");
  EXPECT_EQ(probe.wait(), 0);
  EXPECT_EQ(shm_wrunlock(mem), -2);  // the probe's trylock wrote its id
  EXPECT_EQ(shm_unlock(mem), 0);
}

TEST_F(ShmTest, AHolderThatDiesLeavesTheReadWriteLockHeld) {
  void* mem = connect();
  Child holder;
  holder.exec(helperArgs("die-holding-wrlock"));
  EXPECT_EQ(holder.readLine(), "locked 0");
  EXPECT_EQ(holder.wait(), 128 + SIGKILL);
  EXPECT_EQ(shm_wrlock(mem), EBUSY);
  EXPECT_EQ(shm_rdlock(mem), EBUSY);
  EXPECT_NE(shmtest::headerU32(mem, shmtest::kOwnerTidOffset), 0u);
}

TEST_F(ShmTest, AHolderThatDiesLeavesTheExclusiveLockHeld) {
  void* mem = connect();
  Child holder;
  holder.exec(helperArgs("die-holding-lock"));
  EXPECT_EQ(holder.readLine(), "locked 0");
  EXPECT_EQ(holder.wait(), 128 + SIGKILL);
  EXPECT_EQ(shm_trylock(mem), -1);
}

// ---- Exclusive lock -------------------------------------------------------------------------

TEST_F(ShmTest, ExclusiveLockIsNeverReleased) {
  void* mem = connect();
  ASSERT_EQ(shm_lock(mem), 0);
  EXPECT_EQ(shmtest::headerU64(mem, shmtest::kLockCountOffset), 1u);
  EXPECT_EQ(shm_trylock(mem), -1);
  EXPECT_EQ(onOtherThread([mem] { return shm_trylock(mem); }), -1);
  ASSERT_EQ(shm_rdlock(mem), 0);
  EXPECT_EQ(shm_unlock(mem), 0);  // acts on the read-write lock only
  EXPECT_EQ(shm_trylock(mem), -1);
  EXPECT_EQ(shm_wrlock(mem), 0);
  EXPECT_EQ(shm_wrunlock(mem), 0);
  EXPECT_EQ(shm_trylock(mem), -1);

  Child other;
  other.exec(helperArgs("probe"));
  EXPECT_EQ(other.readLine().substr(0, 10), "trylock -1");
  EXPECT_EQ(other.wait(), 0);

  // A second shm_lock blocks, in another process as well.
  Child blocked;
  blocked.fork([mem] {
    shmtest::report("locking");
    shm_lock(mem);
    shmtest::report("locked");
    return 0;
  });
  EXPECT_EQ(blocked.readLine(), "locking");
  EXPECT_TRUE(blocked.waitUntilSleeping());
  EXPECT_FALSE(blocked.hasLineWithin(200));
  blocked.killAndWait();
}

TEST_F(ShmTest, SecondExclusiveLockBlocksAnotherThread) {
  void* mem = connect();
  ASSERT_EQ(shm_trylock(mem), 0);
  // A thread blocked for ever cannot be joined; its process can be ended.
  Child blocked;
  blocked.fork([mem] {
    std::atomic<bool> locked{false};
    std::atomic<uint32_t> tid{0};
    std::thread t([&] {
      tid = shm_gettid();
      shm_lock(mem);
      locked = true;
    });
    shmtest::report("started");
    while (tid == 0) std::this_thread::yield();
    // Blocked means asleep in the kernel inside shm_lock, not merely slow to take the lock.
    bool asleep = shmtest::sleepsWithin("/proc/self/task/" + std::to_string(tid) + "/stat");
    shmtest::report(asleep && !locked ? "blocked" : "locked");
    t.detach();  // the caller's _exit ends the blocked thread with the process
    return 0;
  });
  EXPECT_EQ(blocked.readLine(), "started");
  EXPECT_EQ(blocked.readLine(), "blocked");
  EXPECT_EQ(blocked.wait(), 0);
}

// ---- Wait and notify ------------------------------------------------------------------------

// A notify that comes before the waiter sleeps is lost, so keep notifying until it reports.
void notifyUntilReported(void* mem, Child* waiter) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(shmtest::kTimeoutMs);
  while (!waiter->hasLineWithin(5) && std::chrono::steady_clock::now() < deadline) {
    ASSERT_GE(shm_notify(mem), 0);
  }
}

TEST_F(ShmTest, TimedWaitWithoutNotifierTimesOutAndSaysSo) {
  void* mem = connect();
  ::testing::internal::CaptureStdout();
  auto start = std::chrono::steady_clock::now();
  int rc = shm_timedwait(mem, 100000);
  auto elapsed = std::chrono::steady_clock::now() - start;
  std::fflush(stdout);
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(rc, ETIMEDOUT);
  EXPECT_EQ(out, "pthread_cond_timedwait: " + std::to_string(ETIMEDOUT) + "\n");
  EXPECT_GE(elapsed, std::chrono::milliseconds(90));
}

TEST_F(ShmTest, TimedWaitWithANonPositiveTimeoutTimesOutAtOnce) {
  void* mem = connect();
  for (int timeout : {0, -1, -1000000}) {
    ::testing::internal::CaptureStdout();
    int rc = shm_timedwait(mem, timeout);
    std::fflush(stdout);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, ETIMEDOUT) << timeout;
    EXPECT_EQ(out, "pthread_cond_timedwait: " + std::to_string(ETIMEDOUT) + "\n");
  }
}

TEST_F(ShmTest, TimedWaitReturnsZeroWhenNotified) {
  void* mem = connect();
  std::atomic<bool> done{false};
  std::thread notifier([&] {
    while (!done) {
      shm_notify(mem);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  // The wait only tries cond_mutex, which each notify holds for an instant: a try that meets
  // it is refused with EBUSY before any wait, so the waiter tries again, as callers do.
  int rc;
  do {
    rc = shm_timedwait(mem, 20000000);
  } while (rc == EBUSY);
  done = true;
  notifier.join();
  EXPECT_EQ(rc, 0);
}

TEST_F(ShmTest, BusyConditionMutexFailsTimedWaitAndLosesTheNotify) {
  void* mem = connect();
  ASSERT_EQ(pthread_mutex_lock(shmtest::headerCondMutex(mem)), 0);
  ::testing::internal::CaptureStdout();
  int waited = onOtherThread([mem] { return shm_timedwait(mem, 100000); });
  int notified = onOtherThread([mem] { return shm_notify(mem); });
  std::fflush(stdout);
  std::string out = ::testing::internal::GetCapturedStdout();
  pthread_mutex_unlock(shmtest::headerCondMutex(mem));
  EXPECT_EQ(waited, EBUSY);
  EXPECT_EQ(notified, EBUSY);
  EXPECT_EQ(out, "pthread_mutex_trylock: " + std::to_string(EBUSY) + "\n");
}

TEST_F(ShmTest, NotifyWakesAWaiterInAnotherProcess) {
  void* mem = connect();
  Child waiter;
  waiter.exec(helperArgs("wait"));
  ASSERT_EQ(waiter.readLine(), "ready");
  notifyUntilReported(mem, &waiter);
  EXPECT_EQ(waiter.readLine(), "woken 0");
  EXPECT_EQ(waiter.wait(), 0);
}

TEST_F(ShmTest, NotifyWakesEveryWaiter) {
  void* mem = connect();
  std::atomic<int> woken{0};
  std::thread a([&] { woken += shm_wait(mem) == 0; });
  std::thread b([&] { woken += shm_wait(mem) == 0; });
  while (woken < 2) {
    shm_notify(mem);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  a.join();
  b.join();
  EXPECT_EQ(woken, 2);
}

TEST_F(ShmTest, NotifyWithoutWaiterIsNotStored) {
  void* mem = connect();
  EXPECT_EQ(shm_notify(mem), 0);
  EXPECT_EQ(shm_notify(mem), 0);
  Child waiter;
  waiter.exec(helperArgs("wait"));
  ASSERT_EQ(waiter.readLine(), "ready");
  EXPECT_TRUE(waiter.waitUntilSleeping());
  EXPECT_FALSE(waiter.hasLineWithin(200));
  notifyUntilReported(mem, &waiter);
  EXPECT_EQ(waiter.readLine(), "woken 0");
  EXPECT_EQ(waiter.wait(), 0);
}

// Removal destroys the condition, which waits for every thread inside a wait on it. The way
// around: wake the waiters while removing (the magic word is already cleared, so they cannot
// wait again). kelvo-topics rm does exactly this.
TEST_F(ShmTest, RemovalWaitsForWaitersUntilTheyAreWoken) {
  void* mem = connect();
  pthread_cond_t* cond = shmtest::headerCond(mem);
  Child waiter;
  waiter.exec(helperArgs("wait"));
  ASSERT_EQ(waiter.readLine(), "ready");
  ASSERT_TRUE(waiter.waitUntilSleeping());
  // Another process broadcasts once told to (started before the remover thread exists).
  Child kicker;
  kicker.fork([cond] {
    std::string go;
    if (!std::getline(std::cin, go)) return kFailed;
    while (true) {
      pthread_cond_broadcast(cond);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });

  std::atomic<int> removed{1};
  std::thread remover([&] { removed = shm_rm_by_topic(topic_.c_str()); });
  EXPECT_FALSE(waiter.hasLineWithin(200));
  EXPECT_EQ(removed.load(), 1);  // still inside shm_rm_by_topic
  kicker.writeLine("go");
  remover.join();
  EXPECT_EQ(removed.load(), 0);
  EXPECT_EQ(waiter.readLine(), "woken 0");
  EXPECT_EQ(waiter.wait(), 0);
  kicker.killAndWait();
}

// ---- Unusable segments ----------------------------------------------------------------------

void expectEveryFunctionRefuses(void* mem) {
  EXPECT_EQ(shm_lock(mem), -1);
  EXPECT_EQ(shm_trylock(mem), -1);
  EXPECT_EQ(shm_rdlock(mem), -1);
  EXPECT_EQ(shm_wrlock(mem), -1);
  EXPECT_EQ(shm_unlock(mem), -1);
  EXPECT_EQ(shm_wrunlock(mem), -1);
  EXPECT_EQ(shm_wait(mem), -1);
  EXPECT_EQ(shm_timedwait(mem, 1000), -1);
  EXPECT_EQ(shm_notify(mem), -1);
  EXPECT_EQ(shm_disconnect(mem), -1);
}

TEST_F(ShmTest, EveryFunctionReturnsMinusOneOnARemovedSegment) {
  void* mem = connect();
  ASSERT_EQ(shm_rm_by_topic(topic_.c_str()), 0);
  ::testing::internal::CaptureStdout();
  expectEveryFunctionRefuses(mem);
  std::fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(ShmTest, EveryFunctionReturnsMinusOneOnASegmentRemovedByKey) {
  std::string topic = topic_;
  Child creator;
  creator.fork([topic] { return shm_connect_by_topic(topic.c_str(), kSize) ? 0 : kFailed; });
  ASSERT_EQ(creator.wait(), 0);
  key_t key = shmtest::existingKey(topic_);
  int id = shmget(key, 0, 0);
  ASSERT_NE(id, -1);
  ASSERT_EQ(shm_rm_by_key(key), 0);
  void* segment = shmat(id, nullptr, 0);  // still reachable by id until detached
  ASSERT_NE(segment, reinterpret_cast<void*>(-1));
  expectEveryFunctionRefuses(static_cast<char*>(segment) + MEM_HDR_SIZE);
}

TEST_F(ShmTest, EveryFunctionReturnsMinusOneOnANeverInitialisedSegment) {
  int id = shmget(IPC_PRIVATE, kSize + MEM_HDR_SIZE, IPC_CREAT | 0600);
  ASSERT_NE(id, -1);
  void* segment = shmat(id, nullptr, 0);
  shmctl(id, IPC_RMID, nullptr);
  ASSERT_NE(segment, reinterpret_cast<void*>(-1));
  expectEveryFunctionRefuses(static_cast<char*>(segment) + MEM_HDR_SIZE);
}

// ---- Null pointers --------------------------------------------------------------------------

const char* const kNullMem = "^Assertion error: mem is not NULL \\(src/shm:[0-9]+\\)\n$";
const char* const kNullTopic = "^Assertion error: topic_name is not NULL \\(src/shm:[0-9]+\\)\n$";

TEST_F(ShmDeathTest, NullDataPointerAbortsEveryFunction) {
  EXPECT_DEATH(shm_lock(nullptr), kNullMem);
  EXPECT_DEATH(shm_trylock(nullptr), kNullMem);
  EXPECT_DEATH(shm_rdlock(nullptr), kNullMem);
  EXPECT_DEATH(shm_wrlock(nullptr), kNullMem);
  EXPECT_DEATH(shm_unlock(nullptr), kNullMem);
  EXPECT_DEATH(shm_wrunlock(nullptr), kNullMem);
  EXPECT_DEATH(shm_wait(nullptr), kNullMem);
  EXPECT_DEATH(shm_timedwait(nullptr, 10), kNullMem);
  EXPECT_DEATH(shm_notify(nullptr), kNullMem);
  EXPECT_DEATH(shm_disconnect(nullptr), kNullMem);
}

TEST_F(ShmDeathTest, NullTopicAbortsEveryTopicFunction) {
  EXPECT_DEATH(shm_connect_by_topic(nullptr, 16), kNullTopic);
  EXPECT_DEATH(shm_nattch_by_topic(nullptr), kNullTopic);
  EXPECT_DEATH(shm_rm_by_topic(nullptr), kNullTopic);
}

}  // namespace
