// kelvo-tcp-bench: the library's TCP server and client against plain blocking sockets doing
// the same work with the same socket options, side by side in one run.
//
//   kelvo-tcp-bench [--rounds 5] [--round-trips 20000] [--frames 100000] [--locked 20]
//
// 1. Round trip of a 64-byte LengthPrefixed frame (60-byte payload + header): the library
//    client sends the next frame from its own onReceived, the library server echoes from its
//    onReceived; against a plain client and a plain echo thread (TCP_NODELAY, TCP_QUICKACK
//    re-armed after each receive, like the library).
// 2. One-way throughput of 1 KiB frames: the library client's send to a server connection with
//    the Raw policy; against a plain socket pair (1 KiB writes, 4 KiB reads).
// 3. Accept-to-onConnected latency, and the memory and threads each server connection costs.
// 4. Under mlockall(MCL_CURRENT | MCL_FUTURE), in forked children measured before anything
//    else ran (so that no heap arena exists yet): the locked (VmLck) and resident (VmRSS)
//    memory each server connection adds, with the default 256 KiB stack and with the
//    platform's stack (setThreadStackSize(0), what every connection had before the bound), with
//    callbacks that allocate on the receiving thread (glibc's per-thread arenas) and with
//    those under mallopt(M_ARENA_MAX, 1); and the deepest stack a connection thread used.
// Rounds alternate library and plain runs; each figure is the median of the rounds.
#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <mosk/kelvo.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "../examples/tcp_example_options.h"

using namespace mosk::kelvo;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::string frameOf(size_t payload) {
  std::string frame(4 + payload, 'p');
  uint32_t length = htonl(static_cast<uint32_t>(payload));
  std::memcpy(&frame[0], &length, 4);
  return frame;
}

void setOptions(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof(one));
}

void quickAck(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof(one));
}

// A plain connected pair over loopback: first = client end, second = accepted end.
std::pair<int, int> plainPair() {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  listen(listener, 1);
  socklen_t length = sizeof(address);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  int client = socket(AF_INET, SOCK_STREAM, 0);
  connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  int server = accept(listener, nullptr, nullptr);
  close(listener);
  setOptions(client);
  setOptions(server);
  return {client, server};
}

// Reads until `count` bytes arrived; false if the peer closed.
bool readFully(int fd, char* buffer, size_t count) {
  size_t done = 0;
  while (done < count) {
    ssize_t n = recv(fd, buffer + done, count - done, 0);
    if (n <= 0) return false;
    quickAck(fd);
    done += static_cast<size_t>(n);
  }
  return true;
}

// ---- library side ---------------------------------------------------------------------------

// Shared by every callback of one prototype.
struct Shared {
  std::mutex mutex;
  std::condition_variable done;
  std::atomic<long> messages{0};
  std::atomic<long> bytes{0};
  long target = 0;
  std::string frame;
  bool finished = false;
  bool pingPong = false;
  std::atomic<int64_t> connectedNs{0};
  void finish() {
    std::lock_guard<std::mutex> lock(mutex);
    finished = true;
    done.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex);
    done.wait(lock, [&] { return finished; });
    finished = false;
  }
};

class Echo : public TcpCallback {
 public:
  explicit Echo(Shared* shared, ITcpSocket* socket = nullptr) : shared_(shared), socket_(socket) {}
  TcpCallback* newInstance(ITcpSocket* socket) override { return new Echo(shared_, socket); }
  void onConnected() override {
    shared_->connectedNs.store(Clock::now().time_since_epoch().count());
  }
  void onDisconnected() override {}
  void onReceived(const char* data, const int& length) override {
    if (shared_->pingPong) {
      socket_->send(data, length);
      return;
    }
    if (shared_->bytes.fetch_add(length) + length >= shared_->target) shared_->finish();
  }
  void onUpdate() override {}
  void onStopped() override {}

 private:
  Shared* shared_;
  ITcpSocket* socket_;
};

// The client's callback: sends the next frame from onReceived until the target is reached.
class Pinger : public TcpCallback {
 public:
  explicit Pinger(Shared* shared, ITcpSocket* socket = nullptr)
      : shared_(shared), socket_(socket) {}
  TcpCallback* newInstance(ITcpSocket* socket) override { return new Pinger(shared_, socket); }
  void onConnected() override {}
  void onDisconnected() override {}
  void onReceived(const char*, const int&) override {
    if (shared_->messages.fetch_add(1) + 1 >= shared_->target) {
      shared_->finish();
      return;
    }
    socket_->send(shared_->frame.data(), static_cast<int>(shared_->frame.size()));
  }
  void onUpdate() override {}
  void onStopped() override {}

 private:
  Shared* shared_;
  ITcpSocket* socket_;
};

struct Library {
  Shared serverShared;
  Shared clientShared;
  ITcpServer* server = newTcpServer(new Echo(&serverShared));
  ITcpClient* client = nullptr;
  TcpCallback* clientCallback = nullptr;
  int port = 0;

  explicit Library(bool pingPong) {
    serverShared.pingPong = pingPong;
    server->bind("any", 0);
    port = dynamic_cast<SocketServer*>(server)->getPort();
    client = newTcpClient(new Pinger(&clientShared));
    clientCallback = dynamic_cast<ITcpSocket*>(client)->getTcpCallback();
    client->connect("127.0.0.1", port, 5000);
    while (server->getAcceptSocketCount() == 0) std::this_thread::yield();
  }
  ~Library() {
    client->stop(true);
    delete client;
    delete clientCallback;
    shutdownTcpServer(server);
    delete server;
  }
};

double libraryRoundTripUs(long roundTrips) {
  Library library(/*pingPong=*/true);
  library.clientShared.frame = frameOf(60);
  library.clientShared.target = roundTrips;
  auto start = Clock::now();
  library.client->send(library.clientShared.frame.data(),
                       static_cast<int>(library.clientShared.frame.size()));
  library.clientShared.wait();
  return secondsSince(start) * 1e6 / static_cast<double>(roundTrips);
}

double plainRoundTripUs(long roundTrips) {
  auto [client, server] = plainPair();
  std::string frame = frameOf(60);
  std::thread echo([server = server, size = frame.size()] {
    char buffer[4096];
    while (readFully(server, buffer, size)) {
      if (send(server, buffer, size, 0) <= 0) break;
    }
  });
  char buffer[4096];
  auto start = Clock::now();
  for (long i = 0; i < roundTrips; ++i) {
    send(client, frame.data(), frame.size(), 0);
    readFully(client, buffer, frame.size());
  }
  double us = secondsSince(start) * 1e6 / static_cast<double>(roundTrips);
  shutdown(client, SHUT_RDWR);
  echo.join();
  close(client);
  close(server);
  return us;
}

// The server connection's policy is set from newInstance in real programs; here the Echo
// callback makes LengthPrefixed connections, so the throughput run uses its own prototype.
class RawSink : public Echo {
 public:
  explicit RawSink(Shared* shared) : Echo(shared) {}
  TcpCallback* newInstance(ITcpSocket* socket) override {
    socket->setRecvPolicy(TcpReceivePolicy::Raw);
    return Echo::newInstance(socket);
  }
};

double libraryThroughputMBs(long frames) {
  Shared serverShared;
  serverShared.target = frames * 1028;
  ITcpServer* server = newTcpServer(new RawSink(&serverShared));
  server->bind("any", 0);
  int port = dynamic_cast<SocketServer*>(server)->getPort();
  ITcpClient* client = newTcpClient(nullptr);
  client->connect("127.0.0.1", port, 5000);
  while (server->getAcceptSocketCount() == 0) std::this_thread::yield();
  std::string frame = frameOf(1024);
  auto start = Clock::now();
  for (long i = 0; i < frames; ++i) client->send(frame.data(), static_cast<int>(frame.size()));
  serverShared.wait();
  double mbs = static_cast<double>(serverShared.target) / secondsSince(start) / 1e6;
  client->stop(true);
  delete client;
  shutdownTcpServer(server);
  delete server;
  return mbs;
}

double plainThroughputMBs(long frames) {
  auto [client, server] = plainPair();
  long target = frames * 1028;
  std::thread reader([server = server, target] {
    char buffer[4096];
    long received = 0;
    while (received < target) {
      ssize_t n = recv(server, buffer, sizeof(buffer), 0);
      if (n <= 0) break;
      received += n;
    }
  });
  std::string frame = frameOf(1024);
  auto start = Clock::now();
  for (long i = 0; i < frames; ++i) send(client, frame.data(), frame.size(), 0);
  reader.join();
  double mbs = static_cast<double>(target) / secondsSince(start) / 1e6;
  close(client);
  close(server);
  return mbs;
}

long statusField(const char* name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(name, 0) == 0) return std::atol(line.c_str() + std::strlen(name));
  }
  return 0;
}

void connectionCosts() {
  Shared shared;
  ITcpServer* server = newTcpServer(new Echo(&shared));
  server->bind("any", 0);
  int port = dynamic_cast<SocketServer*>(server)->getPort();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::vector<double> latenciesUs;
  std::vector<int> peers;
  const int kConnections = 100;
  long rssBefore = statusField("VmRSS:");
  long threadsBefore = statusField("Threads:");
  for (int i = 0; i < kConnections; ++i) {
    shared.connectedNs.store(0);
    int peer = socket(AF_INET, SOCK_STREAM, 0);
    auto start = Clock::now();
    connect(peer, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    while (shared.connectedNs.load() == 0) std::this_thread::yield();
    latenciesUs.push_back(
        static_cast<double>(shared.connectedNs.load() - start.time_since_epoch().count()) / 1e3);
    peers.push_back(peer);
  }
  long rssAfter = statusField("VmRSS:");
  long threadsAfter = statusField("Threads:");
  std::printf("connect-to-onConnected latency: median %.1f us, max %.1f us (%d connections)\n",
              median(latenciesUs), *std::max_element(latenciesUs.begin(), latenciesUs.end()),
              kConnections);
  std::printf("per connection: %.1f threads, %.1f KiB resident (%ld KiB for %d)\n",
              static_cast<double>(threadsAfter - threadsBefore) / kConnections,
              static_cast<double>(rssAfter - rssBefore) / kConnections, rssAfter - rssBefore,
              kConnections);
  for (int peer : peers) close(peer);
  shutdownTcpServer(server);
  delete server;
}

// ---- under mlockall ---------------------------------------------------------------------------

// The mapping of /proc/self/maps that holds `address`, read with a buffer on the stack: the
// probe below must not allocate on the thread it measures (pthread_getattr_np would, and give
// the thread a heap arena).
bool mappingHolding(uintptr_t address, uintptr_t& start, uintptr_t& end) {
  int fd = open("/proc/self/maps", O_RDONLY);
  if (fd < 0) return false;
  char buffer[4096];
  size_t kept = 0;
  bool found = false;
  while (!found) {
    ssize_t n = read(fd, buffer + kept, sizeof(buffer) - 1 - kept);
    if (n <= 0) break;
    kept += static_cast<size_t>(n);
    buffer[kept] = '\0';
    char* line = buffer;
    char* newline = nullptr;
    while (!found && (newline = std::strchr(line, '\n')) != nullptr) {
      unsigned long low = 0, high = 0;
      if (std::sscanf(line, "%lx-%lx", &low, &high) == 2 && address >= low && address < high) {
        start = low;
        end = high;
        found = true;
      }
      line = newline + 1;
    }
    kept = static_cast<size_t>(buffer + kept - line);
    std::memmove(buffer, line, kept);
  }
  close(fd);
  return found;
}

// What one connection thread does to its stack: onConnected paints everything below its own
// frame, the last event finds how deep the thread went since then. Everything the thread runs
// after onConnected (the receive loop, the framing, onReceived, send) lies above the paint
// mark or is measured by it.
class StackDepth {
 public:
  void paint() {
    auto* frame = static_cast<unsigned char*>(__builtin_frame_address(0));
    uintptr_t start = 0, end = 0;
    if (!mappingHolding(reinterpret_cast<uintptr_t>(frame), start, end)) return;
    low_ = reinterpret_cast<unsigned char*>(start);
    size_ = end - start;
    std::memset(low_, kPaint, static_cast<size_t>(frame - 512 - low_));
  }
  // Bytes from the stack's top (its TLS included) to the deepest byte written.
  size_t deepest() const {
    if (low_ == nullptr) return 0;
    size_t untouched = 0;
    while (untouched < size_ && low_[untouched] == kPaint) ++untouched;
    return size_ - untouched;
  }

 private:
  static constexpr unsigned char kPaint = 0xA5;
  unsigned char* low_ = nullptr;
  size_t size_ = 0;
};

struct LockedRun {
  std::atomic<int> connected{0};
  std::atomic<int> echoed{0};
  std::atomic<size_t> deepest{0};
  bool allocating = false;
};

// The README's echo; `allocating` answers like the diagnostic port does, with strings built on
// the receiving thread.
class LockedEcho : public TcpCallback {
 public:
  explicit LockedEcho(LockedRun* run, ITcpSocket* socket = nullptr) : run_(run), socket_(socket) {}
  TcpCallback* newInstance(ITcpSocket* socket) override { return new LockedEcho(run_, socket); }
  void onConnected() override {
    depth_.paint();
    run_->connected.fetch_add(1);
  }
  void onReceived(const char* data, const int& length) override {
    if (run_->allocating) {
      std::string command(data + 4, static_cast<size_t>(length - 4));
      std::string reply = "cycles " + std::to_string(run_->echoed.load()) + " command " + command;
      reply.resize(static_cast<size_t>(length));
      socket_->send(reply.data(), length);
    } else {
      socket_->send(data, length);
    }
    run_->echoed.fetch_add(1);
  }
  void onDisconnected() override { recordDepth(); }
  void onStopped() override { recordDepth(); }
  void onUpdate() override {}

 private:
  void recordDepth() {
    size_t depth = depth_.deepest();
    size_t seen = run_->deepest.load();
    while (depth > seen && !run_->deepest.compare_exchange_weak(seen, depth)) {
    }
  }
  LockedRun* run_;
  ITcpSocket* socket_;
  StackDepth depth_;
};

// A connected peer that has had one echo (its connection's thread went through a receive).
int echoedPeer(const sockaddr_in& address) {
  std::string frame = frameOf(60);
  char echo[64];
  int peer = socket(AF_INET, SOCK_STREAM, 0);
  connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  send(peer, frame.data(), frame.size(), 0);
  readFully(peer, echo, frame.size());
  return peer;
}

// Waits until the server lists `count` connections. False, after saying why, when one was
// refused (its thread could not start: a locked stack past RLIMIT_MEMLOCK, say) or 30 s passed.
bool allListed(SocketServer* server, size_t count, const char* label) {
  auto deadline = Clock::now() + std::chrono::seconds(30);
  while (server->getAcceptSocketCount() < count) {
    if (server->getRefusedConnectionCount() > 0 || Clock::now() > deadline) {
      std::printf("  %s %zu of %zu connections listed, %llu refused: %s\n", label,
                  server->getAcceptSocketCount(), count,
                  static_cast<unsigned long long>(server->getRefusedConnectionCount()),
                  server->getLastError().c_str());
      std::fflush(stdout);
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// In a forked child: locks all memory, binds a server, accepts one connection and then
// `connections` more (one echo each, all kept open), and prints what the first (with bind)
// and each further connection added.
void lockedCost(const char* label, int connections, size_t stackBytes, bool allocating,
                bool oneArena) {
  std::fflush(stdout);
  pid_t child = fork();
  if (child != 0) {
    int status = 0;
    waitpid(child, &status, 0);
    return;
  }
  if (oneArena) mallopt(M_ARENA_MAX, 1);
  if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
    std::printf("  %s mlockall refused: %s\n", label, std::strerror(errno));
    std::fflush(stdout);
    _exit(0);
  }
  LockedRun run;
  run.allocating = allocating;
  auto* server = new SocketServer(new LockedEcho(&run));
  server->setThreadStackSize(stackBytes);
  long lockedAtStart = statusField("VmLck:");
  long residentAtStart = statusField("VmRSS:");
  try {
    server->bind("any", 0);
  } catch (const std::system_error& error) {  // no locked stack for the accepting thread
    std::printf("  %s bind: %s\n", label, error.what());
    std::fflush(stdout);
    _exit(1);
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(server->getPort()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::vector<int> peers{echoedPeer(address)};
  if (!allListed(server, peers.size(), label)) _exit(1);
  long lockedFirst = statusField("VmLck:");
  long residentFirst = statusField("VmRSS:");
  std::vector<double> echoUs;  // connect, thread start, first echo
  for (int i = 0; i < connections; ++i) {
    auto start = Clock::now();
    peers.push_back(echoedPeer(address));
    echoUs.push_back(secondsSince(start) * 1e6);
  }
  if (!allListed(server, peers.size(), label)) _exit(1);
  double locked = static_cast<double>(statusField("VmLck:") - lockedFirst) / connections;
  double resident = static_cast<double>(statusField("VmRSS:") - residentFirst) / connections;
  for (int peer : peers) close(peer);
  shutdownTcpServer(server);
  delete server;
  std::printf("  %s\n", label);
  std::printf(
      "    each further connection: VmLck %.1f KiB, VmRSS %.1f KiB; connect to first echo "
      "%.0f us (median)\n",
      locked, resident, median(echoUs));
  std::printf(
      "    bind + first connection: VmLck %ld KiB, VmRSS %ld KiB; deepest stack use %.1f KiB\n",
      lockedFirst - lockedAtStart, residentFirst - residentAtStart,
      static_cast<double>(run.deepest.load()) / 1024);
  std::fflush(stdout);
  _exit(0);
}

void lockedCosts(int connections) {
  std::printf("under mlockall, per server connection (%d after the first, one echo each):\n",
              connections);
  lockedCost("256 KiB stack (default), echo callbacks:", connections, kTcpThreadStackSize, false,
             false);
  lockedCost("platform stack (setThreadStackSize(0)), echo callbacks:", connections, 0, false,
             false);
  lockedCost("256 KiB stack, allocating callbacks:", connections, kTcpThreadStackSize, true, false);
  lockedCost("256 KiB stack, allocating callbacks, mallopt(M_ARENA_MAX, 1):", connections,
             kTcpThreadStackSize, true, true);
}

}  // namespace

int main(int argc, char** argv) {
  tcp_example::Options options(
      "kelvo-tcp-bench", argc, argv,
      {{"rounds", "5"}, {"round-trips", "20000"}, {"frames", "100000"}, {"locked", "20"}},
      "[--rounds N] [--round-trips N] [--frames N] [--locked CONNECTIONS]");
  int rounds = static_cast<int>(options.integer("rounds", 1, 1000));
  long roundTrips = options.integer("round-trips", 100, 100000000);
  long frames = options.integer("frames", 100, 100000000);
  int locked = static_cast<int>(options.integer("locked", 1, 200));
  blockSigpipe();
  // First, while this process has started no thread and has no heap arena but the main one.
  lockedCosts(locked);

  std::vector<double> libraryRtt, plainRtt, libraryMBs, plainMBs;
  for (int round = 0; round < rounds; ++round) {
    libraryRtt.push_back(libraryRoundTripUs(roundTrips));
    plainRtt.push_back(plainRoundTripUs(roundTrips));
    libraryMBs.push_back(libraryThroughputMBs(frames));
    plainMBs.push_back(plainThroughputMBs(frames));
  }
  double lr = median(libraryRtt), pr = median(plainRtt);
  double lt = median(libraryMBs), pt = median(plainMBs);
  std::printf("round trip, 64-byte frame: library %.2f us, plain sockets %.2f us, ratio %.3f\n", lr,
              pr, lr / pr);
  std::printf("one-way 1 KiB frames: library %.1f MB/s, plain sockets %.1f MB/s, ratio %.3f\n", lt,
              pt, lt / pt);
  connectionCosts();
  return 0;
}
