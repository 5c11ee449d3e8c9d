#include "mosk/kelvo/socket_server.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "mosk/kelvo/socket_tcp.h"
#include "socket_framing.h"
#include "socket_test_support.h"

namespace mosk::kelvo {
namespace {

using kelvo_test::connectPlain;
using kelvo_test::frame;
using kelvo_test::readExactly;
using kelvo_test::Record;
using kelvo_test::RecordingCallback;
using kelvo_test::Resources;
using kelvo_test::resourcesBackTo;
using kelvo_test::waitFor;
using kelvo_test::writeAll;

// ------------------------------------------------------------------------------------------
// Framing, driven through the functions the receiving loop calls.

std::vector<std::string> frameServer(const std::vector<std::string>& receives) {
  std::vector<std::string> delivered;
  char buffer[internal::kServerBufferSize];
  int offset = 0;
  int fill = 0;
  for (const std::string& bytes : receives) {
    std::memcpy(buffer + fill, bytes.data(), bytes.size());
    internal::frameLengthPrefixedServer(
        buffer, offset, fill, static_cast<int>(bytes.size()),
        [&](const char* data, int length) { delivered.emplace_back(data, length); });
    EXPECT_EQ(offset, 0);
    EXPECT_EQ(fill, 0);
  }
  return delivered;
}

std::vector<std::string> frameLines(const std::string& bytes) {
  std::vector<std::string> delivered;
  char buffer[internal::kServerBufferSize];
  std::memcpy(buffer, bytes.data(), bytes.size());
  std::string accumulator;
  internal::frameLines(buffer, static_cast<int>(bytes.size()), accumulator,
                       [&](const char* data, int length) { delivered.emplace_back(data, length); });
  return delivered;
}

const std::string kTwoFrames("\0\0\0\2hi\0\0\0\1x", 11);

TEST(ServerFramingTest, LengthPrefixedHandsOverWholeFramesWithTheirHeaders) {
  auto delivered = frameServer({kTwoFrames});
  ASSERT_EQ(delivered.size(), 2u);
  EXPECT_EQ(delivered[0], kTwoFrames.substr(0, 6));
  EXPECT_EQ(delivered[1], kTwoFrames.substr(6, 5));
}

TEST(ServerFramingTest, LengthPrefixedHeaderOfZeroIsAFourByteFrame) {
  auto delivered = frameServer({std::string("\0\0\0\0", 4)});
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0], std::string("\0\0\0\0", 4));
}

TEST(ServerFramingTest, LengthPrefixedFrameSplitOverTwoReceivesIsNotDelivered) {
  std::string whole = frame("hello");
  auto delivered = frameServer({whole.substr(0, 6), whole.substr(6)});
  EXPECT_TRUE(delivered.empty());
  // A cut frame drops the rest of its receive, the whole frames before it are kept.
  delivered = frameServer({frame("a") + whole.substr(0, 3), whole.substr(3)});
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0], frame("a"));
}

TEST(ServerFramingTest, LengthPrefixedTailOfACutFrameIsReadAsIfItBeganWithAHeader) {
  // The tail "\0\0\0\0" of a cut frame parses as a frame of length 4.
  std::string cut(
      "\0\0\0\x08"
      "abcd",
      8);
  auto delivered = frameServer({cut, std::string("\0\0\0\0", 4)});
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0], std::string("\0\0\0\0", 4));
}

TEST(ServerFramingTest, LengthPrefixedHugeHeadersDropTheRestOfTheReceive) {
  for (uint32_t header :
       {0x7FFFFFFDu, 0x7FFFFFFEu, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
    std::string bytes = frame("ok");
    char be[4] = {static_cast<char>(header >> 24), static_cast<char>(header >> 16),
                  static_cast<char>(header >> 8), static_cast<char>(header)};
    bytes += std::string(be, 4) + "0123456789";
    auto delivered = frameServer({bytes, frame("next")});
    ASSERT_EQ(delivered.size(), 2u) << header;
    EXPECT_EQ(delivered[0], frame("ok"));
    EXPECT_EQ(delivered[1], frame("next"));
  }
}

TEST(ServerFramingTest, LengthPrefixedFrameOfAWholeReceiveIsDelivered) {
  std::string payload(internal::kReceiveSize - 4, 'p');
  auto delivered = frameServer({frame(payload)});
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0].size(), static_cast<size_t>(internal::kReceiveSize));
}

TEST(ServerFramingTest, LinesAccumulateWithinAReceiveAndNeverDeliverTheLastToken) {
  auto delivered = frameLines("a\r\nbb\r\nc\r\n");
  ASSERT_EQ(delivered.size(), 2u);
  EXPECT_EQ(delivered[0], "a");
  EXPECT_EQ(delivered[1], "abb");
  EXPECT_TRUE(frameLines("a\r\n").empty());
  EXPECT_TRUE(frameLines("\r\n").empty());
  EXPECT_TRUE(frameLines("").empty());
  delivered = frameLines("status\n.\n");
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0], "status");
  // Runs of delimiters make no empty tokens; an embedded NUL ends the receive's text.
  delivered = frameLines(std::string("x\r\r\n\ny\nz\0w\nv\n", 14));
  ASSERT_EQ(delivered.size(), 2u);
  EXPECT_EQ(delivered[1], "xy");
}

// ------------------------------------------------------------------------------------------
// Real loopback sockets.

// A bound server on a kernel-chosen port, shut down promptly and deleted at the end.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    record_ = std::make_shared<Record>();
    server_ = new SocketServer(new RecordingCallback(record_));
  }
  void bindServer() {
    ASSERT_EQ(server_->bind("any", 0), 0);
    port_ = server_->getPort();
    ASSERT_GT(port_, 0);
  }
  void TearDown() override {
    if (server_ != nullptr) {
      shutdownTcpServer(server_);
      delete server_;
    }
    EXPECT_TRUE(resourcesBackTo(before_)) << "descriptors or threads left behind";
  }
  // The connection the server made for its index-th accepted peer.
  SocketClientProxy* connection(size_t index) {
    EXPECT_TRUE(waitFor([&] { return record_->socket(index) != nullptr; }));
    return dynamic_cast<SocketClientProxy*>(record_->socket(index));
  }
  bool waitMessages(size_t count) {
    return waitFor([&] { return record_->messageCount() >= count; });
  }
  // Waits until the connection has taken every byte sent so far from the kernel.
  bool waitDrained(SocketClientProxy* proxy) {
    return waitFor([&] {
      int pending = -1;
      int fd = proxy->getFd();
      return fd >= 0 && ioctl(fd, FIONREAD, &pending) == 0 && pending == 0;
    });
  }

  Resources before_;
  std::shared_ptr<Record> record_;
  SocketServer* server_ = nullptr;
  int port_ = 0;
};

TEST_F(ServerTest, StartsIdleAndListensAfterBind) {
  EXPECT_EQ(server_->getState(), TcpState::Idle);
  bindServer();
  EXPECT_EQ(server_->getState(), TcpState::Connected);
  EXPECT_EQ(server_->getAcceptSocketCount(), 0u);
  shutdownTcpServer(server_);
  EXPECT_EQ(server_->getState(), TcpState::Stopped);
}

TEST_F(ServerTest, BindOnAPortInUseFailsWithAddressInUse) {
  kelvo_test::PlainListener other;
  EXPECT_EQ(server_->bind("any", other.port), -1);
  EXPECT_EQ(server_->getLastError(), std::strerror(EADDRINUSE));
  EXPECT_EQ(server_->getState(), TcpState::Idle);
}

TEST_F(ServerTest, LengthPrefixedFramesAreDeliveredAndEchoed) {
  record_->onMessage = [](ITcpSocket* socket, const char* data, int length) {
    socket->send(data, length);
  };
  bindServer();
  int peer = connectPlain(port_);
  ASSERT_GE(peer, 0);
  ASSERT_TRUE(writeAll(peer, kTwoFrames));
  ASSERT_TRUE(waitMessages(2));
  EXPECT_EQ(record_->messagesCopy()[0], kTwoFrames.substr(0, 6));
  EXPECT_EQ(record_->messagesCopy()[1], kTwoFrames.substr(6));
  EXPECT_EQ(readExactly(peer, kTwoFrames.size()), kTwoFrames);
  close(peer);
}

TEST_F(ServerTest, LengthPrefixedFrameCutByAReceiveBoundaryIsDropped) {
  bindServer();
  int peer = connectPlain(port_);
  SocketClientProxy* proxy = connection(0);
  std::string whole = frame("split");
  ASSERT_TRUE(writeAll(peer, whole.substr(0, 5)));
  ASSERT_TRUE(waitDrained(proxy));
  ASSERT_TRUE(writeAll(peer, whole.substr(5)));
  ASSERT_TRUE(waitDrained(proxy));
  ASSERT_TRUE(writeAll(peer, frame("after")));
  ASSERT_TRUE(waitMessages(1));
  EXPECT_EQ(record_->messagesCopy(), std::vector<std::string>{frame("after")});
  close(peer);
}

TEST_F(ServerTest, LengthPrefixedHeaderOfZeroDeliversFourBytes) {
  bindServer();
  int peer = connectPlain(port_);
  ASSERT_TRUE(writeAll(peer, std::string("\0\0\0\0", 4)));
  ASSERT_TRUE(waitMessages(1));
  EXPECT_EQ(record_->messagesCopy()[0], std::string("\0\0\0\0", 4));
  close(peer);
}

// Sets the policy from newInstance, the only moment before receiving starts.
class PolicyCallback : public RecordingCallback {
 public:
  PolicyCallback(std::shared_ptr<Record> record, TcpReceivePolicy policy)
      : RecordingCallback(record), record_(record), policy_(policy) {}
  TcpCallback* newInstance(ITcpSocket* socket) override {
    socket->setRecvPolicy(policy_);
    sendResult = socket->send("early", 5);
    if (auto* proxy = dynamic_cast<SocketClientProxy*>(socket)) sendError = proxy->getLastError();
    return RecordingCallback::newInstance(socket);
  }
  std::shared_ptr<Record> record_;
  TcpReceivePolicy policy_;
  int sendResult = 0;
  std::string sendError;
};

class PolicyServerTest : public ServerTest {
 protected:
  void usePolicy(TcpReceivePolicy policy) {
    delete server_;
    prototype_ = new PolicyCallback(record_, policy);
    server_ = new SocketServer(prototype_);
    bindServer();
  }
  PolicyCallback* prototype_ = nullptr;
};

TEST_F(PolicyServerTest, SendBeforeTheConnectionIsConnectedFailsWithNotConnected) {
  usePolicy(TcpReceivePolicy::LengthPrefixed);
  int peer = connectPlain(port_);
  connection(0);
  EXPECT_EQ(prototype_->sendResult, -1);
  EXPECT_EQ(prototype_->sendError, "send failed: Not connected");
  close(peer);
}

TEST_F(PolicyServerTest, LinesAreSplitOnCarriageReturnsAndLineFeeds) {
  usePolicy(TcpReceivePolicy::Lines);
  int peer = connectPlain(port_);
  SocketClientProxy* proxy = connection(0);
  ASSERT_TRUE(writeAll(peer, "\r\n"));  // alone in its receive: nothing
  ASSERT_TRUE(waitDrained(proxy));
  ASSERT_TRUE(writeAll(peer, "a\r\nbb\r\nc\r\n"));
  ASSERT_TRUE(waitMessages(2));
  EXPECT_EQ(record_->messagesCopy(), (std::vector<std::string>{"a", "abb"}));
  close(peer);
}

TEST_F(PolicyServerTest, RawHandsOverChunksOfAtMost4096Bytes) {
  usePolicy(TcpReceivePolicy::Raw);
  int peer = connectPlain(port_);
  std::string bytes(20000, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  ASSERT_TRUE(writeAll(peer, bytes));
  std::string received;
  ASSERT_TRUE(waitFor([&] {
    received.clear();
    for (const auto& chunk : record_->messagesCopy()) {
      EXPECT_LE(chunk.size(), 4096u);
      received += chunk;
    }
    return received.size() >= bytes.size();
  }));
  EXPECT_EQ(received, bytes);
  close(peer);
}

TEST_F(PolicyServerTest, AnUndefinedPolicyReceivesNothingUntilStopped) {
  usePolicy(static_cast<TcpReceivePolicy>(7));
  int peer = connectPlain(port_);
  SocketClientProxy* proxy = connection(0);
  ASSERT_TRUE(writeAll(peer, frame("ignored")));
  ASSERT_TRUE(waitFor([&] { return proxy->getState() == TcpState::Connected; }));
  EXPECT_EQ(proxy->stop(false), 0);
  ASSERT_TRUE(waitFor([&] { return proxy->getState() == TcpState::Stopped; }));
  EXPECT_EQ(record_->messageCount(), 0u);
  EXPECT_EQ(record_->count("stopped"), 1u);
  close(peer);
}

TEST_F(ServerTest, PeerClosingGivesOneDisconnectAndTheNextUpdateReapsItWithTwoLines) {
  ITcpSocket* seenState = nullptr;
  TcpState stateInCallback = TcpState::Idle;
  int sendInCallback = 0;
  record_->onDisconnectedHook = [&](ITcpSocket* socket) {
    seenState = socket;
    stateInCallback = socket->getState();  // under the recursive lock: no deadlock
    sendInCallback = socket->send("x", 1);
  };
  bindServer();
  int peer = connectPlain(port_);
  SocketClientProxy* proxy = connection(0);
  ASSERT_TRUE(waitFor([&] { return record_->count("connected") == 1; }));
  close(peer);
  ASSERT_TRUE(waitFor([&] { return proxy->getFd() == -1; }));
  EXPECT_EQ(proxy->getState(), TcpState::Disconnected);
  EXPECT_EQ(record_->count("disconnected"), 1u);
  EXPECT_EQ(record_->count("stopped"), 0u);
  EXPECT_EQ(stateInCallback, TcpState::Disconnected);
  EXPECT_EQ(sendInCallback, -1);
  EXPECT_EQ(seenState, proxy);
  // finished, counted until reaped
  EXPECT_TRUE(waitFor([&] { return server_->getAcceptSocketCount() == 1; }));
  testing::internal::CaptureStderr();
  EXPECT_EQ(server_->update(), 0);
  std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(lines, "[1] delete client -1\n[0] erase client \n");
  EXPECT_EQ(server_->getAcceptSocketCount(), 0u);
  EXPECT_EQ(record_->deleted, 1);  // the connection deleted its callback
}

TEST_F(ServerTest, UpdateCallsOnUpdateOfConnectedConnectionsOnTheCallersThread) {
  bindServer();
  int first = connectPlain(port_);
  int second = connectPlain(port_);
  // A connection may announce itself before the accepting thread has listed it.
  ASSERT_TRUE(waitFor(
      [&] { return record_->count("connected") == 2 && server_->getAcceptSocketCount() == 2; }));
  EXPECT_EQ(server_->update(), 0);
  EXPECT_EQ(record_->count("update"), 2u);
  close(first);
  close(second);
}

TEST_F(ServerTest, CallbacksRunOnTheConnectionsOwnThread) {
  std::atomic<bool> otherThread{false};
  std::thread::id testThread = std::this_thread::get_id();
  record_->onConnectedHook = [&](ITcpSocket*) {
    otherThread = std::this_thread::get_id() != testThread;
  };
  bindServer();
  int peer = connectPlain(port_);
  ASSERT_TRUE(waitFor([&] { return record_->count("connected") == 1; }));
  EXPECT_TRUE(otherThread.load());
  EXPECT_EQ(record_->instances, 1);
  close(peer);
}

// True while some thread of this process is blocked in accept (x86-64 syscalls 43 and 288).
bool aThreadIsInAccept() { return kelvo_test::aThreadIsInSyscall({43, 288}); }

TEST_F(ServerTest, StopWaitsForOneMoreConnection) {
  bindServer();
  // A stop before the thread first reaches accept would end it at once.
  ASSERT_TRUE(waitFor(aThreadIsInAccept));
  std::atomic<bool> stopped{false};
  std::atomic<pid_t> stopperTid{0};
  std::thread stopper([&] {
    stopperTid = static_cast<pid_t>(syscall(SYS_gettid));
    server_->stop();
    stopped = true;
  });
  // Nothing wakes the accepting thread: stop reaches its join and blocks there (a futex wait,
  // x86-64 syscall 202) while the accepting thread is still in accept.
  ASSERT_TRUE(waitFor([&] {
    pid_t tid = stopperTid.load();
    return stopped.load() || (tid != 0 && kelvo_test::threadIsInSyscall(tid, {202}));
  }));
  EXPECT_FALSE(stopped.load()) << "accept woke: " << server_->getLastError() << ", "
                               << server_->getAcceptSocketCount() << " connection(s)";
  EXPECT_TRUE(aThreadIsInAccept());
  int peer = connectPlain(port_);
  stopper.join();
  EXPECT_TRUE(stopped.load());
  EXPECT_EQ(server_->getState(), TcpState::Stopped);
  EXPECT_EQ(server_->getAcceptSocketCount(), 1u);  // the late connection is still added
  close(peer);
}

TEST_F(ServerTest, StopStopsConnectedConnections) {
  bindServer();
  int peer = connectPlain(port_);
  SocketClientProxy* proxy = connection(0);
  ASSERT_TRUE(waitFor(
      [&] { return record_->count("connected") == 1 && server_->getAcceptSocketCount() == 1; }));
  int late = -1;
  std::thread waker([&] {
    waitFor([&] { return proxy->getFd() == -1; });
    late = connectPlain(port_);  // lets stop's join return
  });
  EXPECT_EQ(server_->stop(), 0);
  waker.join();
  // shut down first, then the flag cleared: either end state is possible
  EXPECT_EQ(record_->count("disconnected") + record_->count("stopped"), 1u);
  close(late);
  close(peer);
}

TEST_F(ServerTest, ShutdownEndsPromptlyWithConnectionsOpenAndDeletesThem) {
  bindServer();
  int first = connectPlain(port_);
  int second = connectPlain(port_);
  ASSERT_TRUE(waitFor([&] { return record_->count("connected") == 2; }));
  EXPECT_EQ(shutdownTcpServer(server_), 0);
  EXPECT_EQ(server_->getState(), TcpState::Stopped);
  EXPECT_EQ(server_->getAcceptSocketCount(), 0u);
  EXPECT_EQ(record_->deleted, 2);
  EXPECT_EQ(record_->count("disconnected") + record_->count("stopped"), 2u);
  EXPECT_EQ(shutdownTcpServer(server_), 0);  // twice is harmless
  EXPECT_EQ(readExactly(first, 1), "");      // the server end is closed
  close(first);
  close(second);
}

TEST_F(ServerTest, ASecondBindDropsTheListAndStartsASecondAcceptingThread) {
  bindServer();
  int firstPort = port_;
  int first = connectPlain(firstPort);
  // Its receiving thread runs once onConnected has been called: count only after that.
  ASSERT_TRUE(waitFor([&] { return record_->count("connected") == 1; }));
  ASSERT_TRUE(waitFor([&] { return server_->getAcceptSocketCount() == 1; }));
  SocketClientProxy* dropped = connection(0);
  ASSERT_NE(dropped, nullptr);
  Resources beforeRebind;

  bindServer();
  // Dropped, not deleted: its callback is alive and the connection keeps running.
  EXPECT_EQ(server_->getAcceptSocketCount(), 0u);
  EXPECT_EQ(record_->deleted, 0);
  EXPECT_EQ(dropped->getState(), TcpState::Connected);
  EXPECT_NE(port_, firstPort);
  // One more thread and one more listening socket.
  EXPECT_TRUE(waitFor([&] {
    Resources now;
    return now.tasks == beforeRebind.tasks + 1 && now.fds == beforeRebind.fds + 1;
  }));
  // Both accepting threads accept: the second on the new port, the first on the old one.
  int second = connectPlain(port_);
  int third = connectPlain(firstPort);
  ASSERT_GE(second, 0);
  ASSERT_GE(third, 0);
  EXPECT_TRUE(waitFor([&] { return server_->getAcceptSocketCount() == 2; }));
  EXPECT_TRUE(waitFor([&] { return record_->count("connected") == 3; }));

  // The server no longer knows the dropped connection: deleting it is the test's job.
  delete dropped;
  EXPECT_EQ(record_->deleted, 1);
  // The prompt shutdown ends both accepting threads and deletes the listed connections.
  EXPECT_EQ(shutdownTcpServer(server_), 0);
  EXPECT_EQ(server_->getState(), TcpState::Stopped);
  EXPECT_EQ(record_->deleted, 3);
  close(first);
  close(second);
  close(third);
}

TEST_F(ServerTest, ShutdownOfAServerNeverBoundReturnsAtOnce) {
  EXPECT_EQ(shutdownTcpServer(server_), 0);
  EXPECT_EQ(shutdownTcpServer(nullptr), -1);
}

// ------------------------------------------------------------------------------------------
// Thread stacks, and the connection limit.

using kelvo_test::factsOfThisThread;
using kelvo_test::hasStackOf;
using kelvo_test::leavesCallbacksTheirRoom;
using kelvo_test::ThreadFacts;

// Facts of the accepting thread (from newInstance) and of the connection's thread (from
// onConnected), for the first connection.
class ServerThreadTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    record_->onNewInstanceHook = [this](ITcpSocket*) { remember(accepting_, acceptingSeen_); };
    record_->onConnectedHook = [this](ITcpSocket*) { remember(receiving_, receivingSeen_); };
  }
  void remember(ThreadFacts& facts, bool& seen) {
    ThreadFacts here = factsOfThisThread();
    std::lock_guard<std::mutex> lock(record_->mutex);
    if (!seen) facts = here;
    seen = true;
  }
  // Binds, connects one peer and waits until both threads have reported.
  void connectOne() {
    bindServer();
    peer_ = connectPlain(port_);
    ASSERT_GE(peer_, 0);
    ASSERT_TRUE(waitFor([&] {
      std::lock_guard<std::mutex> lock(record_->mutex);
      return acceptingSeen_ && receivingSeen_;
    }));
  }
  void TearDown() override {
    if (peer_ >= 0) close(peer_);
    ServerTest::TearDown();
  }

  ThreadFacts accepting_, receiving_;
  bool acceptingSeen_ = false, receivingSeen_ = false;
  int peer_ = -1;
};

// The stack size a thread gets from the platform when nobody chooses one.
size_t platformDefaultStackSize() {
  ThreadFacts facts;
  std::thread([&] { facts = factsOfThisThread(); }).join();
  return facts.stackSize;
}

TEST_F(ServerThreadTest, BothThreadsHaveTheDefaultBoundedStack) {
  EXPECT_EQ(server_->getThreadStackSize(), kTcpThreadStackSize);
  connectOne();
  EXPECT_TRUE(hasStackOf(accepting_, kTcpThreadStackSize)) << accepting_.stackSize;
  EXPECT_TRUE(hasStackOf(receiving_, kTcpThreadStackSize)) << receiving_.stackSize;
  EXPECT_TRUE(accepting_.frameOnStack);
  EXPECT_TRUE(receiving_.frameOnStack);
  // The library's frames and the thread's TLS under a callback; the rest is the callback's.
  EXPECT_TRUE(leavesCallbacksTheirRoom(receiving_)) << receiving_.depth;
  EXPECT_TRUE(leavesCallbacksTheirRoom(accepting_)) << accepting_.depth;
}

TEST_F(ServerThreadTest, ASetSizeIsRoundedToPagesAndUsedByBothThreads) {
  size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  size_t asked = 1024 * 1024 + 100 * 1024 + 1;  // above what ThreadSanitizer raises stacks to
  size_t expected = (asked + page - 1) / page * page;
  EXPECT_EQ(server_->setThreadStackSize(asked), 0);
  EXPECT_EQ(server_->getThreadStackSize(), expected);
  connectOne();
  EXPECT_TRUE(hasStackOf(accepting_, expected)) << accepting_.stackSize;
  EXPECT_TRUE(hasStackOf(receiving_, expected)) << receiving_.stackSize;
  EXPECT_TRUE(receiving_.frameOnStack);
}

TEST_F(ServerThreadTest, TheMinimumIsAcceptedAndUsed) {
  EXPECT_EQ(server_->setThreadStackSize(kTcpMinThreadStackSize), 0);
  connectOne();
  EXPECT_TRUE(hasStackOf(receiving_, kTcpMinThreadStackSize)) << receiving_.stackSize;
  EXPECT_TRUE(hasStackOf(accepting_, kTcpMinThreadStackSize)) << accepting_.stackSize;
}

TEST_F(ServerThreadTest, ASizeBelowTheMinimumIsRefusedAndChangesNothing) {
  EXPECT_EQ(server_->setThreadStackSize(kTcpMinThreadStackSize + 4096), 0);
  EXPECT_EQ(server_->setThreadStackSize(kTcpMinThreadStackSize - 1), -1);
  EXPECT_EQ(server_->setThreadStackSize(1), -1);
  EXPECT_EQ(server_->setThreadStackSize(SIZE_MAX), -1);
  EXPECT_EQ(server_->getThreadStackSize(), kTcpMinThreadStackSize + 4096);
  connectOne();
  EXPECT_TRUE(hasStackOf(receiving_, kTcpMinThreadStackSize + 4096)) << receiving_.stackSize;
}

TEST_F(ServerThreadTest, ZeroRestoresThePlatformsDefaultStack) {
  EXPECT_EQ(server_->setThreadStackSize(0), 0);
  EXPECT_EQ(server_->getThreadStackSize(), 0u);
  connectOne();
  EXPECT_EQ(accepting_.stackSize, platformDefaultStackSize());
  EXPECT_EQ(receiving_.stackSize, platformDefaultStackSize());
}

TEST_F(ServerThreadTest, ThreadsInheritTheNameAndSignalMaskOfTheBindingThread) {
  std::string name;
  bool blocked = false;
  kelvo_test::runOnMarkedThread("binder-test", [&] {
    connectOne();
    ThreadFacts facts = factsOfThisThread();
    name = facts.name;
    blocked = facts.sigusr2Blocked;
  });
  EXPECT_EQ(name, "binder-test");
  EXPECT_TRUE(blocked);
  EXPECT_EQ(accepting_.name, "binder-test");
  EXPECT_EQ(receiving_.name, "binder-test");
  EXPECT_TRUE(accepting_.sigusr2Blocked);
  EXPECT_TRUE(receiving_.sigusr2Blocked);
}

// 1 PiB: more than the address space, so no thread can start with it.
constexpr size_t kImpossibleStack = size_t{1} << 50;

TEST_F(ServerThreadTest, BindThrowsWhenTheAcceptingThreadCannotStart) {
  EXPECT_EQ(server_->setThreadStackSize(kImpossibleStack), 0);
  EXPECT_THROW(server_->bind("any", 0), std::system_error);
  EXPECT_EQ(server_->getState(), TcpState::Idle);
}

TEST_F(ServerThreadTest, AConnectionWhoseThreadCannotStartIsClosedAndCounted) {
  bindServer();
  EXPECT_EQ(server_->setThreadStackSize(kImpossibleStack), 0);  // later connections only
  int refused = connectPlain(port_);
  ASSERT_GE(refused, 0);
  EXPECT_EQ(readExactly(refused, 1), "");  // closed by the server
  close(refused);
  EXPECT_TRUE(waitFor([&] { return server_->getRefusedConnectionCount() == 1; }));
  EXPECT_FALSE(server_->getLastError().empty());
  EXPECT_EQ(server_->getAcceptSocketCount(), 0u);
  EXPECT_EQ(record_->instances, 1);  // asked for a callback, which was deleted again
  EXPECT_EQ(record_->deleted, 1);
  EXPECT_EQ(record_->count("connected"), 0u);
  // A size the system can give makes the next connection work again.
  EXPECT_EQ(server_->setThreadStackSize(kTcpThreadStackSize), 0);
  peer_ = connectPlain(port_);
  EXPECT_TRUE(waitFor([&] { return record_->count("connected") == 1; }));
}

class ConnectionLimitTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    record_->onMessage = [](ITcpSocket* socket, const char* data, int length) {
      socket->send(data, length);
    };
  }
  // A peer that the server accepted (its connection's thread runs) and listed, after which
  // `listed` connections are in the list.
  int acceptedPeer(size_t listed) {
    int peer = connectPlain(port_);
    EXPECT_GE(peer, 0);
    ++accepted_;
    EXPECT_TRUE(waitFor([&] {
      return record_->count("connected") == accepted_ && server_->getAcceptSocketCount() == listed;
    }));
    return peer;
  }
  void expectEcho(int peer, const std::string& text) {
    std::string message = frame(text);
    ASSERT_TRUE(writeAll(peer, message));
    EXPECT_EQ(readExactly(peer, message.size()), message);
  }
  size_t accepted_ = 0;
};

TEST_F(ConnectionLimitTest, UnlimitedByDefault) {
  EXPECT_EQ(server_->getConnectionLimit(), 0u);
  EXPECT_EQ(server_->getRefusedConnectionCount(), 0u);
  bindServer();
  std::vector<int> peers;
  for (size_t i = 1; i <= 5; ++i) peers.push_back(acceptedPeer(i));
  EXPECT_EQ(server_->getRefusedConnectionCount(), 0u);
  for (int peer : peers) close(peer);
}

TEST_F(ConnectionLimitTest, ConnectionsPastTheLimitAreClosedAtOnceAndCounted) {
  server_->setConnectionLimit(2);
  EXPECT_EQ(server_->getConnectionLimit(), 2u);
  bindServer();
  int first = acceptedPeer(1);
  int second = acceptedPeer(2);
  for (uint64_t i = 1; i <= 3; ++i) {
    int refused = connectPlain(port_);
    ASSERT_GE(refused, 0);
    EXPECT_EQ(readExactly(refused, 1), "");  // end of file: closed by the server
    close(refused);
    EXPECT_TRUE(waitFor([&] { return server_->getRefusedConnectionCount() == i; }));
  }
  // Refused connections never reached newInstance; the accepted ones are unaffected.
  EXPECT_EQ(record_->instances, 2);
  EXPECT_EQ(server_->getAcceptSocketCount(), 2u);
  expectEcho(first, "first");
  expectEcho(second, "second");
  // Once a finished connection is reaped there is room again.
  close(first);
  ASSERT_TRUE(waitFor([&] {
    testing::internal::CaptureStderr();
    server_->update();
    testing::internal::GetCapturedStderr();
    return server_->getAcceptSocketCount() == 1;
  }));
  int third = acceptedPeer(2);
  expectEcho(third, "third");
  EXPECT_EQ(server_->getRefusedConnectionCount(), 3u);
  close(second);
  close(third);
}

TEST_F(ConnectionLimitTest, FinishedConnectionsCountUntilReaped) {
  server_->setConnectionLimit(1);
  bindServer();
  int first = acceptedPeer(1);
  close(first);
  ASSERT_TRUE(waitFor([&] { return record_->count("disconnected") == 1; }));
  int refused = connectPlain(port_);
  EXPECT_EQ(readExactly(refused, 1), "");
  close(refused);
  EXPECT_TRUE(waitFor([&] { return server_->getRefusedConnectionCount() == 1; }));
  // Raising the limit takes effect at the next accept.
  server_->setConnectionLimit(0);
  int second = acceptedPeer(2);
  expectEcho(second, "unlimited");
  close(second);
}

TEST(ServerOwnershipTest, TheServerDeletesItsPrototype) {
  auto record = std::make_shared<Record>();
  ITcpServer* server = newTcpServer(new RecordingCallback(record));
  EXPECT_EQ(record->deleted, 0);
  shutdownTcpServer(server);
  delete server;
  EXPECT_EQ(record->deleted, 1);
}

}  // namespace
}  // namespace mosk::kelvo

// ------------------------------------------------------------------------------------------
// Hostile peers: nothing crashes, leaks a descriptor or a thread, and others keep working.

namespace mosk::kelvo {
namespace {

std::string randomBytes(std::mt19937& random, size_t count) {
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

// An echo server test: every LengthPrefixed frame goes back to its sender.
class HostileTest : public ServerTest {
 protected:
  void SetUp() override {
    blockSigpipe();  // as every application must: an echo to a peer that left raises SIGPIPE
    ServerTest::SetUp();
    record_->onMessage = [](ITcpSocket* socket, const char* data, int length) {
      socket->send(data, length);
    };
    bindServer();
  }
  // A fresh peer still gets its echo.
  void expectEchoWorks() {
    int peer = connectPlain(port_);
    ASSERT_GE(peer, 0);
    std::string message = frame("still here");
    ASSERT_TRUE(writeAll(peer, message));
    EXPECT_EQ(readExactly(peer, message.size()), message);
    close(peer);
  }
  // Reaps until every connection has finished and been deleted.
  bool reapAll() {
    return waitFor([&] {
      testing::internal::CaptureStderr();
      server_->update();
      testing::internal::GetCapturedStderr();
      return server_->getAcceptSocketCount() == 0;
    });
  }

  // Reaps until `count` connections have been deleted. The last accepted connection's
  // callback exists before the connection enters the server's list, so an empty list alone
  // does not mean that every connection has been reaped.
  bool reapUntilDeleted(int count) {
    return waitFor([&] {
      testing::internal::CaptureStderr();
      server_->update();
      testing::internal::GetCapturedStderr();
      return record_->deleted == count;
    });
  }
};

TEST_F(HostileTest, RandomBytesOnEveryPolicy) {
  std::mt19937 random(20261122);
  size_t index = 0;
  for (TcpReceivePolicy policy :
       {TcpReceivePolicy::LengthPrefixed, TcpReceivePolicy::Lines, TcpReceivePolicy::Raw}) {
    int peer = connectPlain(port_);
    connection(index++)->setRecvPolicy(policy);
    // Whatever is echoed is drained, so that the server never blocks on this peer.
    std::thread drainer([peer] {
      char sink[4096];
      while (read(peer, sink, sizeof(sink)) > 0) {
      }
    });
    for (int i = 0; i < 200; ++i) {
      ASSERT_TRUE(writeAll(peer, randomBytes(random, 1 + random() % 3000)));
    }
    shutdown(peer, SHUT_RDWR);
    drainer.join();
    close(peer);
  }
  expectEchoWorks();
  EXPECT_TRUE(reapAll());
}

TEST_F(HostileTest, FramesSplitAtEveryBytePosition) {
  record_->onMessage = nullptr;  // no echo: the peer only writes
  int peer = connectPlain(port_);
  SocketClientProxy* proxy = connection(0);
  std::string whole = frame("0123456789");
  for (size_t cut = 1; cut < whole.size(); ++cut) {
    ASSERT_TRUE(writeAll(peer, whole.substr(0, cut)));
    ASSERT_TRUE(waitDrained(proxy));
    ASSERT_TRUE(writeAll(peer, whole.substr(cut)));
    ASSERT_TRUE(waitDrained(proxy));
  }
  // Whatever the tails were read as, the split frame itself never arrived whole.
  for (const std::string& message : record_->messagesCopy()) EXPECT_NE(message, whole);
  ASSERT_TRUE(writeAll(peer, frame("whole")));
  ASSERT_TRUE(waitFor([&] {
    return !record_->messagesCopy().empty() && record_->messagesCopy().back() == frame("whole");
  }));
  close(peer);
}

TEST_F(HostileTest, AThousandConnectAndCloseCycles) {
  for (int i = 0; i < 1000; ++i) {
    int peer = connectPlain(port_);
    ASSERT_GE(peer, 0) << i;
    // One at a time: the listening backlog is 1, and a full queue costs a 1 s SYN retry.
    ASSERT_TRUE(waitFor([&] { return record_->socket(static_cast<size_t>(i)) != nullptr; }));
    close(peer);
    if (i % 50 == 49) {
      testing::internal::CaptureStderr();
      server_->update();
      testing::internal::GetCapturedStderr();
    }
  }
  EXPECT_TRUE(reapUntilDeleted(1000));
  EXPECT_EQ(server_->getAcceptSocketCount(), 0u);
  expectEchoWorks();
}

TEST_F(HostileTest, TwoHundredSimultaneousConnections) {
  std::vector<int> peers;
  for (int i = 0; i < 200; ++i) {
    int peer = connectPlain(port_);
    ASSERT_GE(peer, 0) << i;
    peers.push_back(peer);
    ASSERT_TRUE(waitFor([&] { return record_->socket(static_cast<size_t>(i)) != nullptr; }));
  }
  ASSERT_TRUE(waitFor([&] { return record_->count("connected") == 200; }));
  for (size_t i = 0; i < peers.size(); ++i) {
    ASSERT_TRUE(writeAll(peers[i], frame("peer " + std::to_string(i))));
  }
  for (size_t i = 0; i < peers.size(); ++i) {
    std::string expected = frame("peer " + std::to_string(i));
    EXPECT_EQ(readExactly(peers[i], expected.size()), expected);
  }
  EXPECT_TRUE(waitFor([&] { return server_->getAcceptSocketCount() == 200; }));
  for (int peer : peers) close(peer);
  EXPECT_TRUE(reapAll());
}

TEST_F(HostileTest, APeerThatStopsReadingBlocksOnlyItsOwnConnection) {
  int slow = connectPlain(port_);
  int small = 4096;
  setsockopt(slow, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
  std::string block = frame(std::string(4000, 's'));
  // Send until this peer's window and the server's send buffer are full: its receiving thread
  // is then blocked in the echo's send, and our writes stop going through.
  std::atomic<bool> writing{true};
  std::thread flooder([&] {
    while (writing.load() && writeAll(slow, block)) {
    }
  });
  SocketClientProxy* proxy = connection(0);
  ASSERT_TRUE(waitFor([&] {
    int queued = 0;
    return ioctl(proxy->getFd(), TIOCOUTQ, &queued) == 0 && queued > 0 &&
           record_->messageCount() > 10;
  }));
  expectEchoWorks();
  expectEchoWorks();
  writing = false;
  shutdown(slow, SHUT_WR);  // ends the flooder's blocked write if any
  shutdownTcpServer(server_);
  shutdown(slow, SHUT_RDWR);
  flooder.join();
  close(slow);
}

}  // namespace
}  // namespace mosk::kelvo
