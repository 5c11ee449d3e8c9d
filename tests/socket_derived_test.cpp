// Classes derived from the socket classes: the library's receiving threads never call a
// virtual function of the socket object, so an override is never called on them, and a
// derived class's constructor and destructor (which rewrite the object's virtual table
// pointer) never race with them. ThreadSanitizer checks the second part.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "mosk/kelvo/socket_client.h"
#include "mosk/kelvo/socket_server.h"
#include "socket_test_support.h"

namespace mosk::kelvo {
namespace {

using kelvo_test::frame;
using kelvo_test::PlainListener;
using kelvo_test::Record;
using kelvo_test::RecordingCallback;
using kelvo_test::Resources;
using kelvo_test::resourcesBackTo;
using kelvo_test::waitFor;
using kelvo_test::writeAll;

// Counts the calls of an override made on a thread other than the one that built the object.
class ForeignCalls {
 public:
  void note() const {
    if (std::this_thread::get_id() != owner_) ++count_;
  }
  int count() const { return count_.load(); }

 private:
  const std::thread::id owner_ = std::this_thread::get_id();
  mutable std::atomic<int> count_{0};
};

// A socket class whose getters note every call made on a foreign thread.
template <class Socket>
class Observed : public Socket {
 public:
  using Socket::Socket;
  int getFd() const override {
    calls.note();
    return Socket::getFd();
  }
  TcpState getState() const override {
    calls.note();
    return Socket::getState();
  }
  ForeignCalls calls;
};

using ObservedConnection = Observed<SocketClientProxy>;
using ObservedClient = Observed<SocketClient>;

class ObservedServer : public SocketServer {
 public:
  using SocketServer::SocketServer;
  size_t getAcceptSocketCount() const override {
    calls.note();
    return SocketServer::getAcceptSocketCount();
  }
  TcpState getState() const override {
    calls.note();
    return SocketServer::getState();
  }
  ForeignCalls calls;
};

TEST(SocketDerivedTest, AConnectionReceivesWithoutCallingTheDerivedClassesOverrides) {
  Resources before;
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  auto record = std::make_shared<Record>();
  RecordingCallback prototype(record);
  // The receiving thread starts inside SocketClientProxy's constructor, before ours has run.
  auto* connection = new ObservedConnection(pair[0], &prototype);
  ITcpSocket* socket = connection;
  ASSERT_TRUE(waitFor([&] { return record->count("connected") == 1; }));
  ASSERT_TRUE(writeAll(pair[1], frame("hi") + frame("x")));
  ASSERT_TRUE(waitFor([&] { return record->messageCount() == 2; }));
  EXPECT_EQ(record->messagesCopy(), (std::vector<std::string>{frame("hi"), frame("x")}));
  EXPECT_EQ(socket->getState(), TcpState::Connected);
  EXPECT_EQ(connection->calls.count(), 0);
  delete socket;  // the receiving thread ends while the derived part is already gone
  EXPECT_EQ(record->count("stopped") + record->count("disconnected"), 1u);
  close(pair[1]);
  EXPECT_TRUE(resourcesBackTo(before));
}

TEST(SocketDerivedTest, AClientReceivesWithoutCallingTheDerivedClassesOverrides) {
  Resources before;
  auto record = std::make_shared<Record>();
  {
    PlainListener listener;
    auto* client = new ObservedClient(new RecordingCallback(record));
    ITcpClient* asClient = client;
    ASSERT_EQ(asClient->connect("127.0.0.1", listener.port, 10000), 0);
    int peer = listener.acceptOne();
    ASSERT_GE(peer, 0);
    ASSERT_TRUE(writeAll(peer, frame("hello")));
    ASSERT_TRUE(waitFor([&] { return record->messageCount() == 1; }));
    EXPECT_EQ(record->messagesCopy(), std::vector<std::string>{frame("hello")});
    EXPECT_EQ(client->calls.count(), 0);
    TcpCallback* callback = client->getTcpCallback();
    // Destroyed while connected: our destructor ends before the base's stop(true) ends the
    // receiving thread.
    delete asClient;
    EXPECT_EQ(record->eventsCopy(),
              (std::vector<std::string>{"connected", "disconnected", "stopped"}));
    delete callback;
    close(peer);
  }
  EXPECT_TRUE(resourcesBackTo(before));
}

TEST(SocketDerivedTest, AServerWithAConnectionLimitAcceptsWithoutCallingTheOverrides) {
  Resources before;
  auto record = std::make_shared<Record>();
  auto* server = new ObservedServer(new RecordingCallback(record));
  server->setConnectionLimit(1);
  ASSERT_EQ(server->bind("any", 0), 0);
  int first = kelvo_test::connectPlain(server->getPort());
  ASSERT_TRUE(waitFor([&] { return record->count("connected") == 1; }));
  int refused = kelvo_test::connectPlain(server->getPort());
  ASSERT_TRUE(waitFor([&] { return server->getRefusedConnectionCount() == 1; }));
  EXPECT_EQ(server->calls.count(), 0);
  close(refused);
  close(first);
  EXPECT_EQ(server->shutdown(), 0);
  delete server;
  EXPECT_TRUE(resourcesBackTo(before));
}

}  // namespace
}  // namespace mosk::kelvo
