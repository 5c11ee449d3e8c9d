// Test support for shared-memory topics: unique topic names, clean-up of segments, key files
// and attachments, raw header reads, and child processes talked to through pipes.
#ifndef KELVO_TESTS_SHM_TEST_SUPPORT_H_
#define KELVO_TESTS_SHM_TEST_SUPPORT_H_

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "mosk/kelvo/shm.h"

namespace shmtest {

// Generous: the machine is shared and may be loaded.
constexpr int kTimeoutMs = 30000;

// True once the task whose /proc stat file is `statPath` sleeps in the kernel (blocked on a
// lock or a condition) within `timeoutMs`.
inline bool sleepsWithin(const std::string& statPath, int timeoutMs = kTimeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    std::ifstream stat(statPath);
    std::string all;
    std::getline(stat, all);
    size_t close = all.rfind(')');
    if (close != std::string::npos && close + 2 < all.size() && all[close + 2] == 'S') {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

inline std::string topicDir(const std::string& topic) { return "/tmp/topics/" + topic; }
inline std::string keyPath(const std::string& topic) { return topicDir(topic) + "/shmkey"; }

// A topic name unique to this process and test: "kt<pid>-<start of name>-<hash of name>",
// at most 36 bytes, so that tests can still lengthen it up to the 44-byte limit.
inline std::string uniqueTopic(const std::string& name) {
  char hash[9];
  std::snprintf(hash, sizeof hash, "%08x", static_cast<unsigned>(std::hash<std::string>{}(name)));
  return "kt" + std::to_string(getpid()) + "-" + name.substr(0, 16) + "-" + hash;
}

inline bool pathExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The key of a topic's existing key file, or -1 when there is none.
inline key_t existingKey(const std::string& topic) {
  if (!pathExists(keyPath(topic))) return -1;
  return ftok(keyPath(topic).c_str(), 1);
}

inline uint32_t headerU32(void* mem, size_t offset) {
  uint32_t value;
  std::memcpy(&value, static_cast<char*>(mem) - MEM_HDR_SIZE + offset, sizeof value);
  return value;
}

inline uint64_t headerU64(void* mem, size_t offset) {
  uint64_t value;
  std::memcpy(&value, static_cast<char*>(mem) - MEM_HDR_SIZE + offset, sizeof value);
  return value;
}

inline const char* headerTopic(void* mem) { return static_cast<char*>(mem) - MEM_HDR_SIZE + 236; }

inline pthread_mutex_t* headerCondMutex(void* mem) {
  return reinterpret_cast<pthread_mutex_t*>(static_cast<char*>(mem) - MEM_HDR_SIZE + 76);
}

inline pthread_cond_t* headerCond(void* mem) {
  return reinterpret_cast<pthread_cond_t*>(static_cast<char*>(mem) - MEM_HDR_SIZE + 116);
}

constexpr size_t kMagicOffset = 0;
constexpr size_t kCreatorPidOffset = 4;
constexpr size_t kPageSizeOffset = 20;
constexpr size_t kOwnerTidOffset = 28;
constexpr size_t kLockCountOffset = 220;
constexpr size_t kUnlockCountOffset = 228;
constexpr size_t kKeyOffset = 364;
constexpr size_t kSizeOffset = 368;

// Start addresses of the System V segments attached to this process.
inline std::vector<void*> attachedSegments() {
  std::vector<void*> starts;
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find("/SYSV") == std::string::npos) continue;
    starts.push_back(
        reinterpret_cast<void*>(std::stoull(line.substr(0, line.find('-')), nullptr, 16)));
  }
  return starts;
}

// The library never detaches; tests do, so that removed segments really go away.
inline void detachAllSegments() {
  for (void* start : attachedSegments()) shmdt(start);
}

// One line of /proc/sysvipc/shm.
struct SegmentInfo {
  long key;
  int shmid;
  size_t size;
  int cpid;
  unsigned long nattch;
};

inline std::vector<SegmentInfo> systemSegments() {
  std::vector<SegmentInfo> segments;
  std::ifstream in("/proc/sysvipc/shm");
  std::string line;
  std::getline(in, line);  // column titles
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    SegmentInfo info{};
    std::string perms, lpid;
    fields >> info.key >> info.shmid >> perms >> info.size >> info.cpid >> lpid >> info.nattch;
    if (fields) segments.push_back(info);
  }
  return segments;
}

// Removes what a test made for `topic`: its segment, this process's attachments, the key file
// and the directory (the library keeps all three).
inline void removeTopic(const std::string& topic) {
  key_t key = existingKey(topic);
  if (key != -1) {
    int id = shmget(key, 0, 0);
    if (id != -1) shmctl(id, IPC_RMID, nullptr);
  }
  detachAllSegments();
  unlink(keyPath(topic).c_str());
  rmdir(topicDir(topic).c_str());
}

inline void setCloexec(int fd) { fcntl(fd, F_SETFD, FD_CLOEXEC); }

// A child process with a pipe to its standard input and one from its standard output. Either a
// fork running `body` (its result is the exit status) or an exec of a program.
class Child {
 public:
  Child() = default;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    closeFd(&in_);
    closeFd(&out_);
  }

  void fork(const std::function<int()>& body) {
    start([&body] { _exit(body()); });
  }

  void exec(const std::vector<std::string>& argv) {
    start([&argv] {
      std::vector<char*> args;
      for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      execv(args[0], args.data());
      _exit(127);
    });
  }

  pid_t pid() const { return pid_; }

  // Reads one line (without its newline) within the time-out; empty on time-out or EOF.
  std::string readLine(int timeoutMs = kTimeoutMs) {
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
      size_t newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        line = buffer_.substr(0, newline);
        buffer_.erase(0, newline + 1);
        return line;
      }
      int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                      deadline - std::chrono::steady_clock::now())
                                      .count());
      if (left <= 0 || !readSome(left)) return line;
    }
  }

  // True when the child has written a complete line within `timeoutMs`.
  bool hasLineWithin(int timeoutMs) {
    if (buffer_.find('\n') != std::string::npos) return true;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (buffer_.find('\n') == std::string::npos) {
      int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                      deadline - std::chrono::steady_clock::now())
                                      .count());
      if (left <= 0 || !readSome(left)) return false;
    }
    return true;
  }

  void writeLine(const std::string& line) {
    std::string text = line + "\n";
    ssize_t written = write(in_, text.data(), text.size());
    (void)written;
  }

  void closeInput() { closeFd(&in_); }

  // Waits for the child to end; its exit status, or 128 + signal.
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
  }

  void killAndWait() {
    kill(pid_, SIGKILL);
    wait();
  }

  // True once the child sleeps in the kernel (blocked on a lock or a condition).
  bool waitUntilSleeping(int timeoutMs = kTimeoutMs) {
    return sleepsWithin("/proc/" + std::to_string(pid_) + "/stat", timeoutMs);
  }

 private:
  template <typename Body>
  void start(Body body) {
    int toChild[2], fromChild[2];
    if (pipe(toChild) != 0 || pipe(fromChild) != 0) return;
    std::fflush(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      dup2(toChild[0], STDIN_FILENO);
      dup2(fromChild[1], STDOUT_FILENO);
      close(toChild[0]);
      close(toChild[1]);
      close(fromChild[0]);
      close(fromChild[1]);
      body();
      _exit(126);
    }
    close(toChild[0]);
    close(fromChild[1]);
    in_ = toChild[1];
    out_ = fromChild[0];
    setCloexec(in_);
    setCloexec(out_);
  }

  bool readSome(int timeoutMs) {
    pollfd p{out_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return false;
    char chunk[256];
    ssize_t n = read(out_, chunk, sizeof chunk);
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
    return true;
  }

  static void closeFd(int* fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }

  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string buffer_;
};

// Writes a line to standard output and flushes it (the child's report to the test).
inline void report(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

}  // namespace shmtest

#endif  // KELVO_TESTS_SHM_TEST_SUPPORT_H_
