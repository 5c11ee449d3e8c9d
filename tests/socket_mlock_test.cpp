// The TCP server and client under mlockall(MCL_CURRENT | MCL_FUTURE): what each connection
// locks (VmLck in /proc/self/status), and that no thread of the library gets a heap arena of
// its own (a 64 MiB locked mapping in /proc/self/smaps).
//
// mlockall is process-wide and lasts, so every scenario runs in a forked child that reports
// back through a pipe; the test process itself never locks anything.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "memory_probe.h"
#include "mosk/kelvo/socket_client.h"
#include "mosk/kelvo/socket_server.h"
#include "socket_test_support.h"

namespace mosk::kelvo {
namespace {

using kelvo_test::connectPlain;
using kelvo_test::frame;
using kelvo_test::PlainListener;
using kelvo_test::readExactly;
using kelvo_test::waitFor;
using kelvo_test::writeAll;

constexpr long kMaxLockedKiBPerConnection = 512;
// A heap arena reserves 64 MiB; thread stacks of this library are far below this size.
constexpr long kArenaSizedKiB = 16 * 1024;

// ---- what the child sees ---------------------------------------------------------------------

long statusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  size_t length = std::strlen(field);
  while (std::getline(status, line)) {
    if (line.compare(0, length, field) == 0) return std::atol(line.c_str() + length);
  }
  return -1;
}

// Locked anonymous mappings of at least kArenaSizedKiB, one "start-end sizeKiB" text each. An
// arena's reservation is the part of it not yet in use: its start moves up as its heap grows,
// its end stays, so mappings are told apart by their end (sameMapping).
std::vector<std::string> arenaSizedLockedMappings() {
  std::vector<std::string> found;
  std::ifstream smaps("/proc/self/smaps");
  std::string line, range;
  bool anonymous = false;
  long sizeKiB = 0;
  while (std::getline(smaps, line)) {
    if (line.compare(0, 5, "Size:") == 0) {
      sizeKiB = std::atol(line.c_str() + 5);
    } else if (line.compare(0, 8, "VmFlags:") == 0) {
      bool locked = (line + " ").find(" lo ") != std::string::npos;
      if (anonymous && locked && sizeKiB >= kArenaSizedKiB) {
        found.push_back(range + " " + std::to_string(sizeKiB) + " KiB");
      }
    } else if (line.find(':') == std::string::npos || line.find('-') < line.find(' ')) {
      // A mapping's first line: range, permissions, offset, device, inode, [path].
      std::istringstream fields(line);
      std::string permissions, offset, device, path;
      long inode = -1;
      fields >> range >> permissions >> offset >> device >> inode >> path;
      anonymous = inode == 0 && path.empty();
    }
  }
  return found;
}

bool sameMapping(const std::string& a, const std::string& b) {
  auto end = [](const std::string& text) {
    size_t dash = text.find('-');
    return text.substr(dash, text.find(' ') - dash);
  };
  return end(a) == end(b);
}

struct LockedMemory {
  long vmLckKiB = statusKiB("VmLck:");
  long vmRssKiB = statusKiB("VmRSS:");
  std::vector<std::string> arenas = arenaSizedLockedMappings();
};

// ---- running a scenario in a child -----------------------------------------------------------

// The child's side: lines written to the pipe.
class Report {
 public:
  explicit Report(int fd) : fd_(fd) {}
  void skip(const std::string& why) { line("skip " + why); }
  void fail(const std::string& what) { line("fail " + what); }
  void note(const std::string& what) { line("note " + what); }
  void check(bool ok, const std::string& what) {
    if (!ok) fail(what);
  }

 private:
  void line(const std::string& text) {
    std::string bytes = text + "\n";
    if (write(fd_, bytes.data(), bytes.size()) < 0) _exit(3);
  }
  int fd_;
};

struct ChildResult {
  std::vector<std::string> skips, failures, notes;
  bool finished = false;  // exited with status 0 before the time limit
};

ChildResult runInChild(const std::function<void(Report&)>& scenario) {
  ChildResult result;
  int pipeFds[2];
  if (pipe(pipeFds) != 0) {
    result.failures.push_back("pipe failed");
    return result;
  }
  pid_t child = fork();
  if (child == 0) {
    close(pipeFds[0]);
    Report report(pipeFds[1]);
    scenario(report);
    _exit(0);
  }
  close(pipeFds[1]);
  std::string output;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  bool timedOut = false;
  while (true) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timedOut = true;
      break;
    }
    pollfd readable{pipeFds[0], POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[512];
    ssize_t n = read(pipeFds[0], chunk, sizeof(chunk));
    if (n <= 0) break;
    output.append(chunk, static_cast<size_t>(n));
  }
  close(pipeFds[0]);
  if (timedOut) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  result.finished = !timedOut && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  std::istringstream lines(output);
  std::string line;
  while (std::getline(lines, line)) {
    std::string text = line.substr(line.find(' ') + 1);
    if (line.compare(0, 5, "skip ") == 0) result.skips.push_back(text);
    if (line.compare(0, 5, "fail ") == 0) result.failures.push_back(text);
    if (line.compare(0, 5, "note ") == 0) result.notes.push_back(text);
  }
  return result;
}

// Runs the scenario in a child and turns its report into this test's outcome.
void runInChildAndCheck(const std::function<void(Report&)>& scenario) {
  if (test_support::kSanitized) {
    GTEST_SKIP() << "a sanitizer's shadow memory cannot be locked with mlockall, and its "
                    "allocator replaces glibc's arenas";
  }
  ChildResult result = runInChild(scenario);
  for (const std::string& note : result.notes) std::printf("%s\n", note.c_str());
  if (!result.skips.empty()) GTEST_SKIP() << result.skips.front();
  for (const std::string& failure : result.failures) ADD_FAILURE() << failure;
  EXPECT_TRUE(result.finished) << "the child did not finish within 120 s";
}

// True when the child may lock its memory; otherwise reports the skip.
bool lockAll(Report& report) {
  if (mlockall(MCL_CURRENT | MCL_FUTURE) == 0) return true;
  report.skip(std::string("mlockall(MCL_CURRENT | MCL_FUTURE) is not permitted here: ") +
              std::strerror(errno) + " (needs CAP_IPC_LOCK or a large enough RLIMIT_MEMLOCK)");
  return false;
}

// Compares two snapshots taken around `count` connections.
void checkGrowth(Report& report, const LockedMemory& before, const LockedMemory& after, int count,
                 const std::string& what) {
  long perConnection = (after.vmLckKiB - before.vmLckKiB) / count;
  report.note(what + ": VmLck " + std::to_string(before.vmLckKiB) + " -> " +
              std::to_string(after.vmLckKiB) + " KiB, " + std::to_string(perConnection) +
              " KiB each; VmRSS " + std::to_string((after.vmRssKiB - before.vmRssKiB) / count) +
              " KiB each");
  report.check(before.vmLckKiB > 0, "VmLck unreadable or nothing locked");
  report.check(perConnection <= kMaxLockedKiBPerConnection,
               what + " locked " + std::to_string(perConnection) + " KiB each (at most " +
                   std::to_string(kMaxLockedKiBPerConnection) + " KiB)");
  for (const std::string& mapping : after.arenas) {
    bool old = false;
    for (const std::string& earlier : before.arenas) old = old || sameMapping(earlier, mapping);
    report.check(old, what + " brought a new arena-sized locked mapping: " + mapping);
  }
}

// ---- the callbacks -----------------------------------------------------------------------------

// Counts what happened on all connections; shared by every callback of one prototype.
struct Counts {
  std::atomic<int> connected{0};
  std::atomic<int> received{0};
};

// The README's echo, one policy per connection in turn. `allocating` makes every event build
// strings on the receiving thread, as the diagnostic port's answers do.
class EchoCallback : public TcpCallback {
 public:
  EchoCallback(Counts* counts, bool allocating, ITcpSocket* socket = nullptr)
      : counts_(counts), allocating_(allocating), socket_(socket) {}
  TcpCallback* newInstance(ITcpSocket* socket) override {
    static const TcpReceivePolicy kPolicies[] = {TcpReceivePolicy::LengthPrefixed,
                                                 TcpReceivePolicy::Lines, TcpReceivePolicy::Raw};
    socket->setRecvPolicy(kPolicies[instances_++ % 3]);
    return new EchoCallback(counts_, allocating_, socket);
  }
  void onConnected() override {
    if (allocating_) text_ = "connection number " + std::to_string(counts_->connected.load());
    counts_->connected.fetch_add(1);
  }
  void onReceived(const char* data, const int& length) override {
    if (allocating_) {
      std::string reply(data, static_cast<size_t>(length));
      reply += text_;
      reply.resize(static_cast<size_t>(length));
      socket_->send(reply.data(), static_cast<int>(reply.size()));
    } else {
      socket_->send(data, length);
    }
    counts_->received.fetch_add(1);
  }
  void onDisconnected() override {}
  void onUpdate() override {}
  void onStopped() override {}

 private:
  Counts* counts_;
  bool allocating_;
  ITcpSocket* socket_;
  int instances_ = 0;
  std::string text_;
};

// One echo on the peer of connection number `index` (in accepting order), which takes the
// connection's thread through its receive path for the connection's policy.
bool echoes(int peer, int index) {
  std::string sent, expected;
  switch (index % 3) {
    case 0:  // LengthPrefixed: the frame comes back whole
      sent = expected = frame("ping");
      break;
    case 1:  // Lines: "ping" is delivered (a second token follows in the same write)
      sent = "ping\r.\n";
      expected = "ping";
      break;
    default:  // Raw
      sent = expected = "ping";
  }
  return writeAll(peer, sent) && readExactly(peer, expected.size()) == expected;
}

// A peer of connection number `index` that has had one echo.
int echoedPeer(int port, int index, Counts& counts) {
  int peer = connectPlain(port);
  if (peer < 0 || !waitFor([&] { return counts.connected.load() > index; })) return -1;
  if (!echoes(peer, index)) {
    close(peer);
    return -1;
  }
  return peer;
}

constexpr int kConnections = 50;

// Accepts kConnections (after `warmUp` connections, outside the measurement) and checks what
// they locked. With `lockAfterWarmUp`, memory is locked only then, while the server runs, and
// the warm-up connections must still echo afterwards.
void acceptManyAndCheck(Report& report, bool allocating, int warmUp, const std::string& what,
                        bool lockAfterWarmUp = false) {
  Counts counts;
  LockedMemory beforeBind;
  auto* server = new SocketServer(new EchoCallback(&counts, allocating));
  if (server->bind("any", 0) != 0) {
    report.fail("bind failed: " + server->getLastError());
    delete server;
    return;
  }
  int port = server->getPort();
  std::vector<int> peers;
  for (int i = 0; i < warmUp; ++i) peers.push_back(echoedPeer(port, i, counts));
  if (lockAfterWarmUp && !lockAll(report)) {
    for (int peer : peers) close(peer);
    shutdownTcpServer(server);
    delete server;
    return;
  }
  LockedMemory before = warmUp == 0 ? beforeBind : LockedMemory();
  for (int i = warmUp; i < warmUp + kConnections; ++i) {
    int peer = echoedPeer(port, i, counts);
    report.check(peer >= 0, "connection " + std::to_string(i) + " had no echo");
    peers.push_back(peer);
  }
  // A connection's thread may answer before the accepting thread has listed it.
  report.check(waitFor([&] { return server->getAcceptSocketCount() == peers.size(); }),
               "not every connection listed");
  LockedMemory after;
  checkGrowth(report, before, after, kConnections, what);
  for (int i = 0; lockAfterWarmUp && i < warmUp; ++i) {
    report.check(peers[i] >= 0 && echoes(peers[i], i),
                 "connection " + std::to_string(i) + " no longer echoes after mlockall");
  }
  for (int peer : peers) close(peer);
  shutdownTcpServer(server);
  delete server;
}

// ---- the tests -------------------------------------------------------------------------------

TEST(TcpUnderMlockallTest, EachServerConnectionLocksAtMost512KiBAndNoHeapArena) {
  runInChildAndCheck([](Report& report) {
    if (!lockAll(report)) return;
    // The first connection is left out: the accepting thread gets its heap arena there, once
    // per server, because newInstance allocates the callback on it.
    acceptManyAndCheck(report, /*allocating=*/false, /*warmUp=*/1, "50 server connections");
  });
}

TEST(TcpUnderMlockallTest, LockingWhileTheServerRunsKeepsItsConnectionsAndBoundsNewOnes) {
  runInChildAndCheck([](Report& report) {
    // Three connections (one per policy) run unlocked, then everything is locked at once.
    acceptManyAndCheck(report, /*allocating=*/false, /*warmUp=*/3,
                       "50 server connections after mlockall in mid-run",
                       /*lockAfterWarmUp=*/true);
  });
}

TEST(TcpUnderMlockallTest, WithOneHeapArenaAllocatingCallbacksAddOnlyTheirStacks) {
  runInChildAndCheck([](Report& report) {
    // The documented opt-in, before any thread starts: every thread allocates from the main
    // heap. Measured from before bind, the accepting thread included.
    mallopt(M_ARENA_MAX, 1);
    if (!lockAll(report)) return;
    acceptManyAndCheck(report, /*allocating=*/true, /*warmUp=*/0,
                       "bind and 50 allocating server connections, M_ARENA_MAX 1");
  });
}

TEST(TcpUnderMlockallTest, EachClientLocksAtMost512KiBAndNoHeapArena) {
  runInChildAndCheck([](Report& report) {
    if (!lockAll(report)) return;
    PlainListener listener(64);
    constexpr int kClients = 10;
    std::vector<SocketClient*> clients;
    std::vector<int> peers;
    Counts counts;
    LockedMemory before;
    for (int i = 0; i < kClients; ++i) {
      auto* client = new SocketClient(new EchoCallback(&counts, /*allocating=*/false));
      clients.push_back(client);
      report.check(client->connect("127.0.0.1", listener.port, 5000) == 0, "connect failed");
      int peer = listener.acceptOne();
      peers.push_back(peer);
      // A frame from the peer comes back through the client's onReceived.
      std::string message = frame("hello");
      report.check(writeAll(peer, message) && readExactly(peer, message.size()) == message,
                   "client " + std::to_string(i) + " did not echo");
    }
    LockedMemory after;
    checkGrowth(report, before, after, kClients, "10 clients");
    for (SocketClient* client : clients) {
      client->stop(true);
      delete client->getTcpCallback();
      delete client;
    }
    for (int peer : peers) close(peer);
  });
}

// The probe itself: a thread that allocates under mlockall does bring an arena-sized locked
// mapping, so the checks above would see one.
TEST(TcpUnderMlockallTest, TheProbeSeesTheArenaOfAThreadThatAllocates) {
  runInChildAndCheck([](Report& report) {
    if (!lockAll(report)) return;
    LockedMemory before;
    std::atomic<bool> allocated{false}, done{false};
    std::thread allocator([&] {
      void* volatile block = std::malloc(64);
      std::free(block);
      allocated = true;
      while (!done.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    waitFor([&] { return allocated.load(); });
    LockedMemory after;
    done = true;
    allocator.join();
    report.note("one allocating thread: VmLck " + std::to_string(before.vmLckKiB) + " -> " +
                std::to_string(after.vmLckKiB) + " KiB");
    report.check(
        after.arenas.size() == before.arenas.size() + 1,
        "no new arena-sized locked mapping seen (" + std::to_string(after.arenas.size()) + " now)");
  });
}

}  // namespace
}  // namespace mosk::kelvo
