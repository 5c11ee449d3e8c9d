// The threads of the TCP classes keep std::thread's semantics; only the stack size differs.
#include "socket_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <system_error>
#include <thread>

#include "mosk/kelvo/socket_interface.h"
#include "socket_test_support.h"

namespace mosk::kelvo {
namespace {

using internal::storeThreadStackSize;
using kelvo_test::factsOfThisThread;
using kelvo_test::hasStackOf;
using kelvo_test::leavesCallbacksTheirRoom;
using kelvo_test::ThreadFacts;

struct Body {
  std::atomic<SocketThread*> self{nullptr};
  ThreadFacts facts;
  std::error_code selfJoin;
  void run() {
    facts = factsOfThisThread();
    SocketThread* thread = nullptr;
    while ((thread = self.load()) == nullptr) std::this_thread::yield();
    try {
      thread->join();
    } catch (const std::system_error& error) {
      selfJoin = error.code();
    }
  }
};

SocketThread* startBody(Body* body, size_t stackBytes) {
  return SocketThread::start<Body, &Body::run>(body, stackBytes);
}

// What join() throws, for std::thread and SocketThread alike; empty when it returns.
template <class Thread>
std::error_code joinError(Thread& thread) {
  try {
    thread.join();
  } catch (const std::system_error& error) {
    return error.code();
  }
  return {};
}

TEST(SocketThreadTest, RunsTheMethodOnAStackOfTheGivenSize) {
  Body body;
  SocketThread* thread = startBody(&body, kTcpMinThreadStackSize);
  EXPECT_TRUE(thread->joinable());
  body.self = thread;
  thread->join();
  EXPECT_FALSE(thread->joinable());
  delete thread;
  EXPECT_TRUE(hasStackOf(body.facts, kTcpMinThreadStackSize)) << body.facts.stackSize;
  EXPECT_TRUE(body.facts.frameOnStack);
}

TEST(SocketThreadTest, JoinFailsAsStdThreadsDoes) {
  Body body;
  SocketThread* thread = startBody(&body, kTcpThreadStackSize);
  body.self = thread;
  thread->join();
  // Joining itself, from the thread's own body.
  std::error_code plainSelfJoin;
  std::atomic<bool> handleStored{false};
  std::thread plainSelf([&] {
    while (!handleStored.load()) std::this_thread::yield();
    plainSelfJoin = joinError(plainSelf);
  });
  handleStored = true;
  plainSelf.join();
  EXPECT_EQ(body.selfJoin, plainSelfJoin);
  EXPECT_EQ(body.selfJoin, std::errc::resource_deadlock_would_occur);
  // Joining twice.
  std::thread plain([] {});
  plain.join();
  EXPECT_EQ(joinError(*thread), joinError(plain));
  EXPECT_EQ(joinError(*thread), std::errc::invalid_argument);
  delete thread;
}

TEST(SocketThreadTest, AThreadThatCannotStartThrows) {
  Body body;
  EXPECT_THROW(startBody(&body, size_t{1} << 50), std::system_error);
}

TEST(SocketThreadDeathTest, DestroyingAJoinableThreadEndsTheProcess) {
  EXPECT_DEATH(
      {
        Body body;
        SocketThread* thread = startBody(&body, kTcpThreadStackSize);
        delete thread;
      },
      "");
}

TEST(SocketThreadTest, StackSizesAreCheckedAndRoundedToPages) {
  size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  std::atomic<size_t> setting{kTcpThreadStackSize};
  EXPECT_EQ(storeThreadStackSize(setting, kTcpMinThreadStackSize - 1), -1);
  EXPECT_EQ(setting.load(), kTcpThreadStackSize);
  EXPECT_EQ(storeThreadStackSize(setting, SIZE_MAX - page + 1), -1);
  EXPECT_EQ(setting.load(), kTcpThreadStackSize);
  EXPECT_EQ(storeThreadStackSize(setting, kTcpMinThreadStackSize + 1), 0);
  EXPECT_EQ(setting.load(), kTcpMinThreadStackSize + page);
  EXPECT_EQ(storeThreadStackSize(setting, SIZE_MAX - page), 0);
  EXPECT_EQ(setting.load(), SIZE_MAX - page + 1);
  EXPECT_EQ(storeThreadStackSize(setting, 0), 0);
  EXPECT_EQ(setting.load(), 0u);
}

}  // namespace
}  // namespace mosk::kelvo
