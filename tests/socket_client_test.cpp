#include "mosk/kelvo/socket_client.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "mosk/kelvo/socket_server.h"
#include "socket_framing.h"
#include "socket_test_support.h"

namespace mosk::kelvo {
namespace {

using kelvo_test::frame;
using kelvo_test::PlainListener;
using kelvo_test::readExactly;
using kelvo_test::Record;
using kelvo_test::RecordingCallback;
using kelvo_test::Resources;
using kelvo_test::resourcesBackTo;
using kelvo_test::waitFor;
using kelvo_test::writeAll;

// ------------------------------------------------------------------------------------------
// Framing, driven through the function the receiving loop calls.

std::vector<std::string> frameClient(const std::vector<std::string>& receives) {
  std::vector<std::string> delivered;
  std::vector<char> buffer(internal::kClientBufferSize);
  internal::ClientFrameState state;
  for (const std::string& bytes : receives) {
    EXPECT_LE(state.fill + static_cast<int>(bytes.size()), internal::kClientBufferSize);
    EXPECT_LE(bytes.size(), static_cast<size_t>(internal::kReceiveSize));
    std::memcpy(buffer.data() + state.fill, bytes.data(), bytes.size());
    internal::frameLengthPrefixedClient(
        buffer.data(), state, static_cast<int>(bytes.size()),
        [&](const char* data, int length) { delivered.emplace_back(data, length); });
    EXPECT_LT(state.fill, internal::kClientMaxFrame);
  }
  return delivered;
}

TEST(ClientFramingTest, CompleteFramesAreHandedOverWithTheirHeaders) {
  std::string bytes = frame("hi") + frame("x") + frame("");
  auto delivered = frameClient({bytes});
  EXPECT_EQ(delivered, (std::vector<std::string>{frame("hi"), frame("x"), frame("")}));
}

TEST(ClientFramingTest, AFrameLongerThanTheReceivedBytesWaitsForTheRest) {
  std::string whole = frame(std::string(100, 'q'));
  for (size_t cut = 1; cut < whole.size(); ++cut) {
    auto delivered = frameClient({whole.substr(0, cut), whole.substr(cut) + frame("n")});
    ASSERT_EQ(delivered, (std::vector<std::string>{whole, frame("n")})) << cut;
  }
}

TEST(ClientFramingTest, FramesLongerThanTheLimitAreSkipped) {
  std::string big = frame(std::string(internal::kClientMaxFrame, 'b'));  // limit + 4 bytes
  std::vector<std::string> receives;
  for (size_t at = 0; at < big.size(); at += 1000) receives.push_back(big.substr(at, 1000));
  receives.push_back(frame("after"));
  EXPECT_EQ(frameClient(receives), std::vector<std::string>{frame("after")});
  // The largest frame that is kept.
  std::string largest = frame(std::string(internal::kClientMaxFrame - 4, 'l'));
  auto delivered = frameClient({largest.substr(0, 3000), largest.substr(3000)});
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0], largest);
}

TEST(ClientFramingTest, HugeHeadersNeverReadPastTheReceivedBytes) {
  std::string bytes(
      "\xFF\xFF\xFF\xFF"
      "abc",
      7);
  EXPECT_TRUE(frameClient({bytes, std::string(4000, 'z')}).empty());
}

// ------------------------------------------------------------------------------------------
// Real loopback sockets: a plain listener as the peer, or the library's server.

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    record_ = std::make_shared<Record>();
    client_ = new SocketClient(new RecordingCallback(record_));
  }
  void TearDown() override {
    auto* callback = client_->getTcpCallback();
    delete client_;
    delete callback;  // the client never deletes its callback
    EXPECT_TRUE(resourcesBackTo(before_)) << "descriptors or threads left behind";
  }
  // A port nobody listens on (taken from the kernel, then released).
  static int freePort() {
    PlainListener listener;
    return listener.port;
  }

  Resources before_;
  std::shared_ptr<Record> record_;
  SocketClient* client_ = nullptr;
};

TEST_F(ClientTest, TheConstructorDeletesThePrototype) {
  EXPECT_EQ(record_->instances, 1);
  EXPECT_EQ(record_->deleted, 1);
  EXPECT_NE(client_->getTcpCallback(), nullptr);
  EXPECT_EQ(record_->socket(0), static_cast<ITcpSocket*>(client_));
  EXPECT_EQ(client_->getState(), TcpState::Idle);
  EXPECT_EQ(client_->getFd(), -1);
}

TEST_F(ClientTest, ConnectWithTimeOutZeroReturnsAtOnceWithoutAServer) {
  EXPECT_EQ(client_->connect("127.0.0.1", freePort(), 0), 0);
  EXPECT_EQ(client_->getState(), TcpState::Idle);
  EXPECT_EQ(client_->stop(true), 0);
  EXPECT_EQ(client_->getState(), TcpState::Stopped);
  EXPECT_EQ(record_->count("stopped"), 1u);
  EXPECT_EQ(record_->count("connected"), 0u);
}

TEST_F(ClientTest, ConnectToAListenerWithTimeOutReturnsZeroAfterOnConnected) {
  PlainListener listener;
  EXPECT_EQ(client_->connect("127.0.0.1", listener.port, 1000), 0);
  EXPECT_EQ(record_->count("connected"), 1u);
  EXPECT_EQ(client_->getState(), TcpState::Connected);
  EXPECT_GE(client_->getFd(), 0);
  int peer = listener.acceptOne();
  client_->stop(true);
  EXPECT_EQ(record_->eventsCopy(),
            (std::vector<std::string>{"connected", "disconnected", "stopped"}));
  EXPECT_EQ(client_->getState(), TcpState::Stopped);
  close(peer);
}

TEST_F(ClientTest, ConnectWithANegativeTimeOutWaitsUntilConnected) {
  PlainListener listener;
  EXPECT_EQ(client_->connect("127.0.0.1", listener.port, -1), 0);
  EXPECT_EQ(client_->getState(), TcpState::Connected);
  EXPECT_EQ(client_->connect("127.0.0.1", listener.port, 0), 0);  // already connected
  int peer = listener.acceptOne();
  client_->stop(true);
  close(peer);
}

TEST_F(ClientTest, ASecondConnectWhileTheFirstIsTryingFails) {
  EXPECT_EQ(client_->connect("127.0.0.1", freePort(), 0), 0);
  EXPECT_EQ(client_->connect("127.0.0.1", freePort(), 0), -1);
  client_->stop(true);
}

TEST_F(ClientTest, ASecondConnectChangesTheAddressOfTheNextAttempt) {
  PlainListener listener;
  EXPECT_EQ(client_->connect("127.0.0.1", freePort(), 0), 0);
  EXPECT_EQ(client_->connect("127.0.0.1", listener.port, 0), -1);
  ASSERT_TRUE(waitFor([&] { return client_->getState() == TcpState::Connected; }));
  int peer = listener.acceptOne();
  client_->stop(true);
  close(peer);
}

TEST_F(ClientTest, SendWhileNotConnectedFailsWithNotConnected) {
  EXPECT_EQ(client_->send("x", 1), -1);
  EXPECT_EQ(client_->getLastError(), "send failed: Not connected");
}

TEST_F(ClientTest, FramesFromThePeerAreDeliveredWithHeadersWhateverThePolicy) {
  client_->setRecvPolicy(TcpReceivePolicy::Lines);  // stored, never consulted
  PlainListener listener;
  ASSERT_EQ(client_->connect("127.0.0.1", listener.port, 5000), 0);
  int peer = listener.acceptOne();
  ASSERT_TRUE(writeAll(peer, frame("one\n") + frame("two")));
  ASSERT_TRUE(waitFor([&] { return record_->messageCount() == 2; }));
  EXPECT_EQ(record_->messagesCopy(), (std::vector<std::string>{frame("one\n"), frame("two")}));
  EXPECT_EQ(client_->send("pong", 4), 0);
  EXPECT_EQ(readExactly(peer, 4), "pong");
  client_->stop(true);
  close(peer);
}

TEST_F(ClientTest, AFrameCutByTheReceiveIsDeliveredOnceComplete) {
  PlainListener listener;
  ASSERT_EQ(client_->connect("127.0.0.1", listener.port, 5000), 0);
  int peer = listener.acceptOne();
  std::string whole = frame(std::string(100, 'c'));
  ASSERT_TRUE(writeAll(peer, whole.substr(0, 10)));
  // The client has received the cut part on its own before the rest is written.
  ASSERT_TRUE(waitFor([&] {
    int pending = -1;
    return ioctl(client_->getFd(), FIONREAD, &pending) == 0 && pending == 0;
  }));
  EXPECT_EQ(record_->messageCount(), 0u);
  ASSERT_TRUE(writeAll(peer, whole.substr(10)));
  ASSERT_TRUE(waitFor([&] { return record_->messageCount() == 1; }));
  EXPECT_EQ(record_->messagesCopy()[0], whole);
  client_->stop(true);
  close(peer);
}

TEST_F(ClientTest, FramesSplitAtEveryBytePositionArriveWhole) {
  PlainListener listener;
  ASSERT_EQ(client_->connect("127.0.0.1", listener.port, 5000), 0);
  int peer = listener.acceptOne();
  std::string whole = frame("0123456789");
  auto drained = [&] {
    int pending = -1;
    return ioctl(client_->getFd(), FIONREAD, &pending) == 0 && pending == 0;
  };
  for (size_t cut = 1; cut < whole.size(); ++cut) {
    ASSERT_TRUE(writeAll(peer, whole.substr(0, cut)));
    ASSERT_TRUE(waitFor(drained));
    ASSERT_TRUE(writeAll(peer, whole.substr(cut)));
    ASSERT_TRUE(waitFor([&] { return record_->messageCount() == cut; })) << cut;
  }
  for (const std::string& message : record_->messagesCopy()) EXPECT_EQ(message, whole);
  client_->stop(true);
  close(peer);
}

TEST_F(ClientTest, UpdateCallsOnUpdateOnlyWhenConnected) {
  EXPECT_EQ(client_->update(), 0);
  EXPECT_EQ(record_->count("update"), 0u);
  PlainListener listener;
  ASSERT_EQ(client_->connect("127.0.0.1", listener.port, 5000), 0);
  EXPECT_EQ(client_->update(), 0);
  EXPECT_EQ(record_->count("update"), 1u);
  int peer = listener.acceptOne();
  client_->stop(true);
  close(peer);
}

TEST_F(ClientTest, ServerRestartIsFollowedByAReconnection) {
  auto listener = std::make_unique<PlainListener>();
  int port = listener->port;
  ASSERT_EQ(client_->connect("127.0.0.1", port, 5000), 0);
  int peer = listener->acceptOne();
  // The listening socket goes first: closed after the peer, it could take the client's
  // immediate reconnection into its backlog, and drop it again, before it went.
  listener.reset();
  close(peer);
  ASSERT_TRUE(waitFor([&] { return record_->count("disconnected") == 1; }));
  // The same port again (the client end is the one in TIME_WAIT, so it is free).
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in address = kelvo_test::loopback(port);
  ASSERT_TRUE(waitFor([&] {
    return bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  })) << std::strerror(errno);
  ASSERT_EQ(listen(fd, 4), 0);
  ASSERT_TRUE(waitFor([&] { return record_->count("connected") == 2; }));
  int again = accept(fd, nullptr, nullptr);
  client_->stop(true);
  close(again);
  close(fd);
}

TEST_F(ClientTest, StopWithoutShutdownWaitsUntilThePeerCloses) {
  PlainListener listener;
  ASSERT_EQ(client_->connect("127.0.0.1", listener.port, 5000), 0);
  int peer = listener.acceptOne();
  ASSERT_GE(peer, 0);
  std::mutex mutex;
  std::condition_variable changed;
  bool returned = false;
  std::thread stopper([&] {
    client_->stop(false);
    std::lock_guard<std::mutex> lock(mutex);
    returned = true;
    changed.notify_all();
  });
  auto stopReturnedWithin = [&](std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, limit, [&] { return returned; });
  };
  // While the peer keeps the connection open, the connection stays usable both ways and stop
  // does not return.
  EXPECT_FALSE(stopReturnedWithin(std::chrono::milliseconds(300)));
  ASSERT_TRUE(writeAll(peer, frame("still open")));
  ASSERT_TRUE(waitFor([&] { return record_->messageCount() == 1; }));
  EXPECT_EQ(client_->send("pong", 4), 0);
  EXPECT_EQ(readExactly(peer, 4), "pong");
  EXPECT_FALSE(stopReturnedWithin(std::chrono::milliseconds(300)));
  EXPECT_EQ(client_->getState(), TcpState::Connected);
  close(peer);
  EXPECT_TRUE(stopReturnedWithin(std::chrono::seconds(30)));
  stopper.join();
  EXPECT_EQ(record_->eventsCopy(),
            (std::vector<std::string>{"connected", "disconnected", "stopped"}));
  EXPECT_EQ(client_->getState(), TcpState::Stopped);
  EXPECT_EQ(client_->getFd(), -1);
}

TEST_F(ClientTest, AStoppedClientCannotBeReused) {
  EXPECT_EQ(client_->connect("127.0.0.1", freePort(), 0), 0);
  client_->stop(true);
  EXPECT_EQ(record_->count("stopped"), 1u);
  PlainListener listener;
  EXPECT_EQ(client_->connect("127.0.0.1", listener.port, 0), 0);
  ASSERT_TRUE(waitFor([&] { return record_->count("stopped") == 2; }));
  client_->join();
  EXPECT_EQ(client_->connect("127.0.0.1", listener.port, 200), -1);  // a thread exists
  client_->stop(true);
  EXPECT_EQ(client_->connect("127.0.0.1", listener.port, 200), -1);  // never connects
  EXPECT_EQ(record_->count("connected"), 0u);
}

// ------------------------------------------------------------------------------------------
// The receiving thread's stack.

using kelvo_test::factsOfThisThread;
using kelvo_test::hasStackOf;
using kelvo_test::leavesCallbacksTheirRoom;
using kelvo_test::ThreadFacts;

class ClientThreadTest : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    record_->onConnectedHook = [this](ITcpSocket*) {
      ThreadFacts here = factsOfThisThread();
      std::lock_guard<std::mutex> lock(record_->mutex);
      receiving_ = here;
    };
  }
  // Connects to a plain listener and stops again; receiving_ then holds the thread's facts.
  void connectAndStop() {
    PlainListener listener;
    ASSERT_EQ(client_->connect("127.0.0.1", listener.port, 5000), 0);
    int peer = listener.acceptOne();
    client_->stop(true);
    close(peer);
  }
  ThreadFacts receiving_;
};

TEST_F(ClientThreadTest, TheReceivingThreadHasTheDefaultBoundedStack) {
  EXPECT_EQ(client_->getThreadStackSize(), kTcpThreadStackSize);
  connectAndStop();
  EXPECT_TRUE(hasStackOf(receiving_, kTcpThreadStackSize)) << receiving_.stackSize;
  EXPECT_TRUE(receiving_.frameOnStack);
  EXPECT_TRUE(leavesCallbacksTheirRoom(receiving_)) << receiving_.depth;
}

TEST_F(ClientThreadTest, ASetSizeIsRoundedToPagesAndUsed) {
  size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  size_t asked = 3 * kTcpMinThreadStackSize - 1;
  size_t expected = (asked + page - 1) / page * page;
  EXPECT_EQ(client_->setThreadStackSize(asked), 0);
  EXPECT_EQ(client_->getThreadStackSize(), expected);
  connectAndStop();
  EXPECT_TRUE(hasStackOf(receiving_, expected)) << receiving_.stackSize;
}

TEST_F(ClientThreadTest, ASizeBelowTheMinimumIsRefusedAndChangesNothing) {
  EXPECT_EQ(client_->setThreadStackSize(kTcpMinThreadStackSize), 0);
  EXPECT_EQ(client_->setThreadStackSize(kTcpMinThreadStackSize - 1), -1);
  EXPECT_EQ(client_->setThreadStackSize(SIZE_MAX), -1);
  EXPECT_EQ(client_->getThreadStackSize(), kTcpMinThreadStackSize);
  connectAndStop();
  EXPECT_TRUE(hasStackOf(receiving_, kTcpMinThreadStackSize)) << receiving_.stackSize;
}

TEST_F(ClientThreadTest, ZeroRestoresThePlatformsDefaultStack) {
  ThreadFacts plain;
  std::thread([&] { plain = factsOfThisThread(); }).join();
  EXPECT_EQ(client_->setThreadStackSize(0), 0);
  connectAndStop();
  EXPECT_EQ(receiving_.stackSize, plain.stackSize);
}

TEST_F(ClientThreadTest, TheThreadInheritsTheNameAndSignalMaskOfTheConnectingThread) {
  kelvo_test::runOnMarkedThread("connector-test", [&] { connectAndStop(); });
  EXPECT_EQ(receiving_.name, "connector-test");
  EXPECT_TRUE(receiving_.sigusr2Blocked);
}

TEST_F(ClientThreadTest, ConnectThrowsWhenTheThreadCannotStart) {
  EXPECT_EQ(client_->setThreadStackSize(size_t{1} << 50), 0);  // more than the address space
  EXPECT_THROW(client_->connect("127.0.0.1", freePort(), 0), std::system_error);
  EXPECT_EQ(client_->getState(), TcpState::Idle);
  // Nothing was started: a size the system can give makes the next connect work.
  EXPECT_EQ(client_->setThreadStackSize(kTcpThreadStackSize), 0);
  connectAndStop();
  EXPECT_EQ(record_->count("connected"), 1u);
}

TEST(ClientNullPrototypeTest, AClientWithANullPrototypeHasNoCallback) {
  Resources before;
  auto listening = std::make_unique<PlainListener>();
  PlainListener& listener = *listening;
  ITcpClient* client = newTcpClient(nullptr);
  auto* socket = dynamic_cast<ITcpSocket*>(client);
  ASSERT_NE(socket, nullptr);
  EXPECT_EQ(socket->getTcpCallback(), nullptr);
  ASSERT_EQ(client->connect("127.0.0.1", listener.port, 5000), 0);
  int peer = listener.acceptOne();
  ASSERT_TRUE(writeAll(peer, frame("ignored")));
  EXPECT_EQ(client->update(), 0);
  client->stop(true);
  delete client;
  close(peer);
  listening.reset();
  EXPECT_TRUE(resourcesBackTo(before));
}

TEST(ClientServerTest, TheLibraryClientTalksToTheLibraryServer) {
  Resources before;
  auto serverRecord = std::make_shared<Record>();
  serverRecord->onMessage = [](ITcpSocket* socket, const char* data, int length) {
    socket->send(data, length);  // echo, header included
  };
  ITcpServer* server = newTcpServer(new RecordingCallback(serverRecord));
  ASSERT_EQ(server->bind("any", 0), 0);
  int port = dynamic_cast<SocketServer*>(server)->getPort();
  auto clientRecord = std::make_shared<Record>();
  ITcpClient* client = newTcpClient(new RecordingCallback(clientRecord));
  ASSERT_EQ(client->connect("127.0.0.1", port, 5000), 0);
  for (int i = 0; i < 50; ++i) {
    std::string message = frame("message " + std::to_string(i));
    ASSERT_EQ(client->send(message.data(), static_cast<int>(message.size())), 0);
    ASSERT_TRUE(
        waitFor([&] { return clientRecord->messageCount() == static_cast<size_t>(i + 1); }));
    EXPECT_EQ(clientRecord->messagesCopy().back(), message);
  }
  auto* callback = dynamic_cast<ITcpSocket*>(client)->getTcpCallback();
  client->stop(true);
  delete client;
  delete callback;
  ASSERT_TRUE(waitFor([&] { return serverRecord->count("disconnected") == 1; }));
  shutdownTcpServer(server);
  delete server;
  EXPECT_TRUE(resourcesBackTo(before));
}

}  // namespace
}  // namespace mosk::kelvo
