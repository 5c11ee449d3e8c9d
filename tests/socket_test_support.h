// Shared helpers of the socket tests: resource counts, waiting on conditions, plain POSIX peers
// and a callback that records every event.
#ifndef KELVO_TESTS_SOCKET_TEST_SUPPORT_H_
#define KELVO_TESTS_SOCKET_TEST_SUPPORT_H_

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/socket_interface.h"

namespace kelvo_test {

inline int countEntries(const char* directory) {
  DIR* dir = opendir(directory);
  if (dir == nullptr) return -1;
  int count = 0;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

// Sanitizer runtimes start a helper thread at the first thread creation: make that happen
// before anything is counted.
inline bool warmUp() {
  static const bool done = [] {
    std::thread([] {}).join();
    return true;
  }();
  return done;
}

// Open descriptors and threads of this process.
struct Resources {
  bool warm = warmUp();
  int fds = countEntries("/proc/self/fd");
  int tasks = countEntries("/proc/self/task");
};

// True while thread `task` (a name under /proc/self/task) is blocked in one of the system
// calls `numbers`.
inline bool taskIsInSyscall(const std::string& task, std::initializer_list<long> numbers) {
  std::ifstream syscall("/proc/self/task/" + task + "/syscall");
  long number = -1;
  if (!(syscall >> number)) return false;
  for (long wanted : numbers) {
    if (number == wanted) return true;
  }
  return false;
}

// The same for the thread with kernel thread id `tid`.
inline bool threadIsInSyscall(pid_t tid, std::initializer_list<long> numbers) {
  return taskIsInSyscall(std::to_string(tid), numbers);
}

// True while some thread of this process is blocked in one of the system calls `numbers`.
inline bool aThreadIsInSyscall(std::initializer_list<long> numbers) {
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return false;
  bool found = false;
  while (dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] == '.') continue;
    if (taskIsInSyscall(entry->d_name, numbers)) found = true;
  }
  closedir(tasks);
  return found;
}

// Polls `done` until true or the generous limit passes; returns its last value.
inline bool waitFor(const std::function<bool()>& done,
                    std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Threads may take a moment to leave /proc/self/task after being joined.
inline bool resourcesBackTo(const Resources& before) {
  Resources now;
  bool back = waitFor([&] {
    now = Resources();
    return now.fds == before.fds && now.tasks == before.tasks;
  });
  if (!back) {
    std::fprintf(stderr, "descriptors %d -> %d, threads %d -> %d\n", before.fds, now.fds,
                 before.tasks, now.tasks);
  }
  return back;
}

// What a test learns about the thread it runs on: its stack as pthread_getattr_np reports it,
// whether the caller's frame lies on that stack and how far below its top, the thread's name,
// and whether SIGUSR2 is blocked.
struct ThreadFacts {
  size_t stackSize = 0;
  bool frameOnStack = false;
  size_t depth = 0;
  std::string name;
  bool sigusr2Blocked = false;
};

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

// True when a thread started with a stack of `asked` bytes got it. ThreadSanitizer keeps its
// own thread state (about 0.8 MiB of static TLS) at the top of every thread's stack and raises
// any smaller stack to that plus 128 KiB, so its builds only promise at least the size.
inline bool hasStackOf(const ThreadFacts& facts, size_t asked) {
  return kThreadSanitizer ? facts.stackSize >= asked : facts.stackSize == asked;
}

// True when at most 16 KiB of the stack (static TLS, the library's frames) lies above the
// frame that took `facts`: what the headers promise a callback. Not under ThreadSanitizer,
// whose thread state takes 0.8 MiB of it.
inline bool leavesCallbacksTheirRoom(const ThreadFacts& facts) {
  return kThreadSanitizer || facts.depth < 16 * 1024;
}

__attribute__((noinline)) inline ThreadFacts factsOfThisThread() {
  ThreadFacts facts;
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
    void* low = nullptr;
    size_t size = 0;
    pthread_attr_getstack(&attributes, &low, &size);
    pthread_attr_destroy(&attributes);
    auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    auto bottom = reinterpret_cast<uintptr_t>(low);
    facts.stackSize = size;
    facts.frameOnStack = frame > bottom && frame < bottom + size;
    if (facts.frameOnStack) facts.depth = bottom + size - frame;
  }
  char name[16] = {};
  pthread_getname_np(pthread_self(), name, sizeof(name));
  facts.name = name;
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  facts.sigusr2Blocked = sigismember(&mask, SIGUSR2) == 1;
  return facts;
}

// Runs `body` on a new thread named `name` with SIGUSR2 blocked, so that a test can see what
// the threads the body starts inherit; returns once that thread has ended.
inline void runOnMarkedThread(const char* name, const std::function<void()>& body) {
  std::thread marked([&] {
    pthread_setname_np(pthread_self(), name);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    body();
  });
  marked.join();
}

inline sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A plain blocking client socket connected to 127.0.0.1:port, or -1.
inline int connectPlain(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  return fd;
}

// A plain listener on 127.0.0.1 with a kernel-chosen port.
struct PlainListener {
  int fd = -1;
  int port = 0;
  explicit PlainListener(int backlog = 16) {
    fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;  // so that a test can listen on the same port again after a restart
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in address = loopback(0);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    listen(fd, backlog);
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
  }
  ~PlainListener() {
    if (fd >= 0) close(fd);
  }
  int acceptOne() const { return accept(fd, nullptr, nullptr); }
};

inline bool writeAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Reads exactly `count` bytes (or less if the peer closes).
inline std::string readExactly(int fd, size_t count) {
  std::string bytes(count, '\0');
  size_t done = 0;
  while (done < count) {
    ssize_t n = read(fd, &bytes[done], count - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  bytes.resize(done);
  return bytes;
}

inline std::string frame(const std::string& payload) {
  uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
  std::string bytes(reinterpret_cast<const char*>(&length), 4);
  return bytes + payload;
}

// Everything every callback of one prototype saw, in order.
struct Record {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events;    // "connected", "disconnected", "stopped", "update"
  std::vector<std::string> messages;  // onReceived payloads, as handed over
  std::vector<mosk::kelvo::ITcpSocket*> sockets;
  int instances = 0;
  int deleted = 0;
  // Optional reaction to each message (runs on the receiving thread).
  std::function<void(mosk::kelvo::ITcpSocket*, const char*, int)> onMessage;
  // Optional reaction to newInstance (on the thread that creates the socket), onConnected and
  // onDisconnected.
  std::function<void(mosk::kelvo::ITcpSocket*)> onNewInstanceHook;
  std::function<void(mosk::kelvo::ITcpSocket*)> onConnectedHook;
  std::function<void(mosk::kelvo::ITcpSocket*)> onDisconnectedHook;

  void add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(event);
    changed.notify_all();
  }
  size_t count(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex);
    size_t n = 0;
    for (const auto& e : events) n += e == event;
    return n;
  }
  size_t messageCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return messages.size();
  }
  std::vector<std::string> messagesCopy() {
    std::lock_guard<std::mutex> lock(mutex);
    return messages;
  }
  std::vector<std::string> eventsCopy() {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
  mosk::kelvo::ITcpSocket* socket(size_t index) {
    std::lock_guard<std::mutex> lock(mutex);
    return index < sockets.size() ? sockets[index] : nullptr;
  }
};

class RecordingCallback : public mosk::kelvo::TcpCallback {
 public:
  explicit RecordingCallback(std::shared_ptr<Record> record,
                             mosk::kelvo::ITcpSocket* socket = nullptr)
      : record_(std::move(record)), socket_(socket) {}
  ~RecordingCallback() override {
    std::lock_guard<std::mutex> lock(record_->mutex);
    ++record_->deleted;
  }
  TcpCallback* newInstance(mosk::kelvo::ITcpSocket* socket) override {
    if (record_->onNewInstanceHook) record_->onNewInstanceHook(socket);
    std::lock_guard<std::mutex> lock(record_->mutex);
    ++record_->instances;
    record_->sockets.push_back(socket);
    return new RecordingCallback(record_, socket);
  }
  void onConnected() override {
    record_->add("connected");
    if (record_->onConnectedHook) record_->onConnectedHook(socket_);
  }
  void onDisconnected() override {
    record_->add("disconnected");
    if (record_->onDisconnectedHook) record_->onDisconnectedHook(socket_);
  }
  void onReceived(const char* data, const int& length) override {
    {
      std::lock_guard<std::mutex> lock(record_->mutex);
      record_->messages.emplace_back(data, static_cast<size_t>(length));
      record_->changed.notify_all();
    }
    if (record_->onMessage) record_->onMessage(socket_, data, length);
  }
  void onUpdate() override { record_->add("update"); }
  void onStopped() override { record_->add("stopped"); }
  mosk::kelvo::ITcpSocket* socket() const { return socket_; }

 private:
  std::shared_ptr<Record> record_;
  mosk::kelvo::ITcpSocket* socket_;
};

}  // namespace kelvo_test

#endif  // KELVO_TESTS_SOCKET_TEST_SUPPORT_H_
