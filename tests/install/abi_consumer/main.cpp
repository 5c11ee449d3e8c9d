// A consumer of the installed library that derives from every one of its polymorphic classes,
// the way applications and plug-ins do. Each derived class overrides a const and a non-const
// virtual where the base has them and leaves the rest to the base, so that its virtual tables
// refer to the library's own functions, thunks and type information; each is then used through
// base pointers, dynamic_cast and typeid. Linking this program is half of the test: a thunk or
// a typeinfo the library forgot to export is an undefined reference here.
//
// For every library class it derives from, the program prints "derives from: <class>"; the
// installation check compares that list with the library's exported virtual tables, so a new
// polymorphic class without a derivation here fails the check.
//
// Nothing real-time starts here (no PeriodicThread, no PluginContext); the only thread is the
// receiving thread of one server-side connection, on a local socket pair, and it ends before
// the program does.
#include <cxxabi.h>
#include <mosk/kelvo.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <typeinfo>

namespace kelvo = mosk::kelvo;

namespace {

int checks = 0;
int failures = 0;

void expect(bool condition, const char* what, int line) {
  ++checks;
  if (condition) return;
  ++failures;
  std::fprintf(stderr, "abi consumer: check failed at line %d: %s\n", line, what);
}
#define EXPECT(condition) expect((condition), #condition, __LINE__)

// Records that `Derived` derives from the library class `Base`, for the installation check.
template <typename Derived, typename Base>
void derives() {
  static_assert(std::is_base_of<Base, Derived>::value, "not derived");
  static_assert(std::is_polymorphic<Base>::value, "not a polymorphic class");
  int status = 0;
  char* name = abi::__cxa_demangle(typeid(Base).name(), nullptr, nullptr, &status);
  std::printf("derives from: %s\n", status == 0 ? name : typeid(Base).name());
  std::free(name);
}

// Polls `done` until it holds or 10 s have passed.
bool waitFor(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// TCP vocabulary

// What callbacks saw; they may run on the library's receiving threads.
struct Events {
  std::atomic<int> instances{0};
  std::atomic<int> connected{0};
  std::atomic<int> disconnected{0};
  std::atomic<int> received{0};
  std::atomic<int> receivedBytes{0};
  std::atomic<int> updated{0};
  std::atomic<int> stopped{0};
};

// TcpCallback has non-const virtuals only.
class RecordingCallback : public kelvo::TcpCallback {
 public:
  explicit RecordingCallback(Events* events, kelvo::ITcpSocket* socket = nullptr)
      : events_(events), socket_(socket) {}
  kelvo::TcpCallback* newInstance(kelvo::ITcpSocket* socket) override {
    ++events_->instances;
    return new RecordingCallback(events_, socket);
  }
  void onConnected() override { ++events_->connected; }
  void onDisconnected() override { ++events_->disconnected; }
  void onReceived(const char*, const int& length) override {
    events_->receivedBytes += length;
    ++events_->received;
  }
  void onUpdate() override { ++events_->updated; }
  void onStopped() override { ++events_->stopped; }
  kelvo::ITcpSocket* socket() const { return socket_; }

 private:
  Events* events_;
  kelvo::ITcpSocket* socket_;
};

class MemorySocket : public kelvo::ITcpSocket {
 public:
  int getFd() const override { return 42; }
  int send(const char* data, const int& length) override {
    sent.append(data, static_cast<size_t>(length));
    return 0;
  }
  kelvo::TcpState getState() const override { return kelvo::TcpState::Connected; }
  void setRecvPolicy(const kelvo::TcpReceivePolicy& policy) override { policy_ = policy; }
  kelvo::TcpCallback* getTcpCallback() const override { return nullptr; }
  std::string sent;

 private:
  kelvo::TcpReceivePolicy policy_ = kelvo::TcpReceivePolicy::Raw;
};

class NullServer : public kelvo::ITcpServer {
 public:
  int bind(const char*, const int&) override { return -1; }
  int update() override { return 0; }
  int stop() override { return 0; }
  void join() override {}
  void dump() override {}
  kelvo::TcpState getState() const override { return kelvo::TcpState::Idle; }
  size_t getAcceptSocketCount() const override { return 0; }
};

class NullClient : public kelvo::ITcpClient {
 public:
  int getFd() const override { return -1; }
  int connect(const char*, const int&, const int&) override { return -1; }
  int update() override { return 0; }
  int send(const char*, const int&) override { return -1; }
  kelvo::TcpState getState() const override { return kelvo::TcpState::Idle; }
  int stop(const bool&) override { return 0; }
  void join() override {}
  std::string getLastError() const override { return "never connects"; }
};

// The case users hit first: a client that overrides one getter and inherits the rest, whose
// secondary virtual table (ITcpSocket in SocketClient) needs the library's thunks.
class StateClient : public kelvo::SocketClient {
 public:
  using SocketClient::SocketClient;
  kelvo::TcpState getState() const override {
    ++stateReads;
    return SocketClient::getState();
  }
  int update() override {
    ++updates;
    return SocketClient::update();
  }
  mutable std::atomic<int> stateReads{0};
  std::atomic<int> updates{0};
};

class CountingServer : public kelvo::SocketServer {
 public:
  using SocketServer::SocketServer;
  kelvo::TcpState getState() const override {
    ++stateReads;
    return SocketServer::getState();
  }
  int update() override {
    ++updates;
    return SocketServer::update();
  }
  mutable std::atomic<int> stateReads{0};
  std::atomic<int> updates{0};
};

// The receiving thread starts inside the base constructor and calls the callback only; these
// overrides are not on its path.
class TaggedProxy : public kelvo::SocketClientProxy {
 public:
  using SocketClientProxy::SocketClientProxy;
  kelvo::TcpCallback* getTcpCallback() const override {
    ++callbackReads;
    return SocketClientProxy::getTcpCallback();
  }
  int send(const char* data, const int& length) override {
    ++sends;
    return SocketClientProxy::send(data, length);
  }
  mutable std::atomic<int> callbackReads{0};
  std::atomic<int> sends{0};
};

void checkTcpInterfaces() {
  derives<RecordingCallback, kelvo::TcpCallback>();
  derives<MemorySocket, kelvo::ITcpSocket>();
  derives<NullServer, kelvo::ITcpServer>();
  derives<NullClient, kelvo::ITcpClient>();

  Events events;
  std::unique_ptr<kelvo::TcpCallback> prototype(new RecordingCallback(&events));
  std::unique_ptr<kelvo::TcpCallback> instance(prototype->newInstance(nullptr));
  instance->onConnected();
  instance->onUpdate();
  EXPECT(events.instances == 1 && events.connected == 1 && events.updated == 1);
  EXPECT(typeid(*instance) == typeid(RecordingCallback));

  std::unique_ptr<kelvo::ITcpSocket> socket(new MemorySocket);
  EXPECT(socket->send("abc", 3) == 0);
  EXPECT(socket->getFd() == 42 && socket->getState() == kelvo::TcpState::Connected);
  EXPECT(dynamic_cast<MemorySocket*>(socket.get())->sent == "abc");

  std::unique_ptr<kelvo::ITcpServer> server(new NullServer);
  EXPECT(server->bind("any", 0) == -1 && server->getAcceptSocketCount() == 0);
  // The library's dynamic_cast sees that this server is not one of its own.
  EXPECT(kelvo::shutdownTcpServer(server.get()) == -1);

  std::unique_ptr<kelvo::ITcpClient> client(new NullClient);
  EXPECT(client->connect("127.0.0.1", 1, 0) == -1 && client->getLastError() == "never connects");
}

void checkSocketClient() {
  derives<StateClient, kelvo::SocketClient>();
  Events events;
  auto* client = new StateClient(new RecordingCallback(&events));  // the prototype dies inside
  kelvo::ITcpClient* asClient = client;
  kelvo::ITcpSocket* asSocket = client;
  EXPECT(events.instances == 1);
  auto* callback = dynamic_cast<RecordingCallback*>(asSocket->getTcpCallback());
  EXPECT(callback != nullptr && callback->socket() == asSocket);

  // Through the secondary base: the library's thunks, const and not.
  EXPECT(asSocket->getFd() == -1);
  EXPECT(asSocket->getState() == kelvo::TcpState::Idle);
  EXPECT(client->stateReads >= 1);
  asSocket->setRecvPolicy(kelvo::TcpReceivePolicy::Lines);
  EXPECT(asSocket->send("x", 1) == -1);
  EXPECT(asClient->getLastError() == "send failed: Not connected");
  // Through the primary base.
  EXPECT(asClient->getFd() == -1 && asClient->update() == 0 && client->updates == 1);
  EXPECT(events.updated == 0);  // not connected: no onUpdate

  EXPECT(dynamic_cast<kelvo::ITcpClient*>(asSocket) == asClient);
  EXPECT(dynamic_cast<kelvo::SocketClient*>(asSocket) == client);
  EXPECT(dynamic_cast<StateClient*>(asClient) == client);
  EXPECT(typeid(*asSocket) == typeid(StateClient) && typeid(*asClient) == typeid(StateClient));

  delete asSocket;  // never connected: no thread to end
  delete callback;  // a client never deletes its callback
}

void checkSocketServer() {
  derives<CountingServer, kelvo::SocketServer>();
  Events events;
  kelvo::ITcpServer* server = new CountingServer(new RecordingCallback(&events));
  auto* counting = dynamic_cast<CountingServer*>(server);
  EXPECT(counting != nullptr && dynamic_cast<kelvo::SocketServer*>(server) == counting);
  EXPECT(typeid(*server) == typeid(CountingServer));
  EXPECT(server->getState() == kelvo::TcpState::Idle && counting->stateReads == 1);
  EXPECT(server->update() == 0 && counting->updates == 1);
  EXPECT(server->getAcceptSocketCount() == 0);
  server->dump();
  // Never bound, so no accepting thread; the library finds its own class under ours.
  EXPECT(kelvo::shutdownTcpServer(server) == 0);
  delete server;  // deletes the prototype

  // The library's own classes, seen from here.
  kelvo::ITcpServer* plain = kelvo::newTcpServer(new RecordingCallback(&events));
  EXPECT(typeid(*plain) == typeid(kelvo::SocketServer));
  EXPECT(kelvo::shutdownTcpServer(plain) == 0);
  delete plain;
  kelvo::ITcpClient* plainClient = kelvo::newTcpClient(nullptr);
  EXPECT(dynamic_cast<kelvo::ITcpSocket*>(plainClient) != nullptr);
  EXPECT(typeid(*plainClient) == typeid(kelvo::SocketClient));
  delete plainClient;
}

void checkSocketClientProxy() {
  derives<TaggedProxy, kelvo::SocketClientProxy>();
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
    EXPECT(!"socketpair");
    return;
  }
  Events events;
  RecordingCallback prototype(&events);  // a connection does not own its prototype
  auto* proxy = new TaggedProxy(pair[0], &prototype);
  kelvo::ITcpSocket* socket = proxy;
  EXPECT(waitFor([&] { return socket->getState() == kelvo::TcpState::Connected; }));
  EXPECT(events.instances == 1 && events.connected == 1);
  EXPECT(typeid(*socket) == typeid(TaggedProxy));
  auto* callback = dynamic_cast<RecordingCallback*>(socket->getTcpCallback());
  EXPECT(callback != nullptr && callback->socket() == socket && proxy->callbackReads == 1);
  EXPECT(socket->getFd() == pair[0]);

  // Out through the override, in through the receiving thread and the callback.
  const char frame[] = {0, 0, 0, 2, 'h', 'i'};
  EXPECT(socket->send(frame, sizeof frame) == 0 && proxy->sends == 1);
  char echoed[sizeof frame] = {};
  EXPECT(read(pair[1], echoed, sizeof echoed) == static_cast<ssize_t>(sizeof echoed));
  EXPECT(std::memcmp(echoed, frame, sizeof frame) == 0);
  EXPECT(write(pair[1], frame, sizeof frame) == static_cast<ssize_t>(sizeof frame));
  EXPECT(waitFor([&] { return events.received == 1; }));
  EXPECT(events.receivedBytes == 6);

  delete socket;  // shuts the socket down, joins the receiving thread, deletes the callback
  EXPECT(events.stopped + events.disconnected == 1);
  close(pair[1]);
}

// ---------------------------------------------------------------------------------------------
// Plug-ins

class Activator : public kelvo::PluginActivator {
 public:
  int start(kelvo::PluginContext* context) override {
    started = context == nullptr;
    return 0;
  }
  int stop(kelvo::PluginContext*) override {
    stopped = true;
    return 0;
  }
  bool started = false;
  bool stopped = false;
};

void checkPluginActivator() {
  derives<Activator, kelvo::PluginActivator>();
  // A record as a plug-in writes it, used the way the loader does (no loader: its context
  // would start the real-time pool thread).
  kelvo::PluginDetails details{1,
                               1000000,
                               2003000,
                               "abi_consumer",
                               "Activator",
                               "abi",
                               []() -> kelvo::PluginActivator* { return new Activator; },
                               [](kelvo::PluginActivator* activator) { delete activator; }};
  kelvo::PluginActivator* activator = details.create();
  EXPECT(typeid(*activator) == typeid(Activator));
  EXPECT(activator->start(nullptr) == 0 && activator->stop(nullptr) == 0);
  auto* mine = dynamic_cast<Activator*>(activator);
  EXPECT(mine != nullptr && mine->started && mine->stopped);
  details.destroy(activator);
}

// ---------------------------------------------------------------------------------------------
// Periodic-thread tasks

class FixedBookkeeping : public kelvo::RealTimeTaskApi {
 public:
  unsigned long getMaxRuntime() const override { return 7; }
  std::string getErrorString() const override { return "none"; }
};

class CountingTask : public kelvo::RealTimeTask {
 public:
  void init(std::shared_ptr<kelvo::RealTimeTaskApi> api) override { api_ = api; }
  std::string getName() const override { return "counting"; }
  int getPriority() const override { return 3; }
  unsigned long getExpectedMaxRuntime() override { return 100; }
  void execute() override { ++runs; }
  std::weak_ptr<kelvo::RealTimeTaskApi> api_;
  int runs = 0;
};

class PrefixedTask : public kelvo::RealTimeTaskInternal {
 public:
  using RealTimeTaskInternal::RealTimeTaskInternal;
  std::string getName() const override { return "prefixed:" + RealTimeTaskInternal::getName(); }
  void execute() override {
    ++runs;
    RealTimeTaskInternal::execute();
  }
  int runs = 0;
};

class AuditedWrapper : public kelvo::RealTimeTaskWrapper {
 public:
  using RealTimeTaskWrapper::RealTimeTaskWrapper;
  unsigned long getMaxRuntime() const override {
    ++reads;
    return RealTimeTaskWrapper::getMaxRuntime();
  }
  mutable int reads = 0;
};

void checkTasks() {
  derives<FixedBookkeeping, kelvo::RealTimeTaskApi>();
  derives<CountingTask, kelvo::RealTimeTask>();
  derives<PrefixedTask, kelvo::RealTimeTaskInternal>();
  derives<AuditedWrapper, kelvo::RealTimeTaskWrapper>();

  auto api = std::make_shared<FixedBookkeeping>();
  std::shared_ptr<kelvo::RealTimeTask> task = std::make_shared<CountingTask>();
  task->init(api);
  task->execute();
  EXPECT(task->getName() == "counting" && task->getPriority() == 3);
  EXPECT(task->getExpectedMaxRuntime() == 100);
  auto* counting = dynamic_cast<CountingTask*>(task.get());
  EXPECT(counting != nullptr && counting->runs == 1);
  EXPECT(counting->api_.lock()->getMaxRuntime() == 7);
  EXPECT(counting->api_.lock()->getErrorString() == "none");

  int bodyRuns = 0;
  std::shared_ptr<kelvo::RealTimeTask> prefixed = std::make_shared<PrefixedTask>(
      "inner", [&bodyRuns] { ++bodyRuns; }, 5, 200);
  prefixed->execute();
  EXPECT(prefixed->getName() == "prefixed:inner" && bodyRuns == 1);
  EXPECT(prefixed->getPriority() == 5 && prefixed->getExpectedMaxRuntime() == 200);
  EXPECT(dynamic_cast<kelvo::RealTimeTaskInternal*>(prefixed.get()) != nullptr);
  EXPECT(typeid(*prefixed) == typeid(PrefixedTask));

  // A wrapper whose task never ran: no coroutine, nothing to free.
  std::unique_ptr<kelvo::RealTimeTaskApi> wrapper(new AuditedWrapper(task, nullptr, false));
  std::unique_ptr<kelvo::RealTimeTaskApi> second(new AuditedWrapper(prefixed, nullptr, true));
  EXPECT(wrapper->getMaxRuntime() == 0 && wrapper->getErrorString().empty());
  auto* audited = dynamic_cast<AuditedWrapper*>(wrapper.get());
  EXPECT(audited != nullptr && audited->reads == 1 && audited->task == task);
  EXPECT(audited->serial != dynamic_cast<kelvo::RealTimeTaskWrapper&>(*second).serial);
  EXPECT(typeid(*second) == typeid(AuditedWrapper));
}

}  // namespace

int main() {
  checkTcpInterfaces();
  checkSocketClient();
  checkSocketServer();
  checkSocketClientProxy();
  checkPluginActivator();
  checkTasks();
  std::printf("abi consumer: %d checks, %d failed\n", checks, failures);
  return failures == 0 ? 0 : 1;
}
