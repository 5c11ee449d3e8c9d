// Helpers shared by the plug-in test files: the test plug-ins' paths, scratch files, the
// privilege check for the pool thread and a loader that is always shut down.
#ifndef KELVO_TESTS_PLUGIN_TEST_SUPPORT_H_
#define KELVO_TESTS_PLUGIN_TEST_SUPPORT_H_

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "mosk/kelvo/plugin.h"
#include "mosk/kelvo/thread.h"

namespace mosk::kelvo::test_support {

// The test plug-in `name` (tests/plugins), built into KELVO_TEST_PLUGIN_DIR.
inline std::string pluginPath(const std::string& name) {
  return std::string(KELVO_TEST_PLUGIN_DIR) + "/" + name + ".so";
}

inline std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

// A file with the given bytes under /tmp, removed again with the object.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& bytes) {
    char pattern[] = "/tmp/kelvo_plugin_test_XXXXXX";
    const int fd = mkstemp(pattern);
    EXPECT_GE(fd, 0);
    path_ = pattern;
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(fd);
  }
  ~ScratchFile() { unlink(path_.c_str()); }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Whether a file is mapped into this process.
inline bool isMapped(const std::string& path) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.size() >= path.size() &&
        line.compare(line.size() - path.size(), path.size(), path) == 0)
      return true;
  }
  return false;
}

// The handle of a library that is already open, without opening it again (null if it is not
// open).
inline void* openHandleOf(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);  // NOLOAD counted one more reference
  return handle;
}

// Closes a library that a test left open on purpose, for as many references as it holds.
inline void closeCompletely(const std::string& path) {
  void* handle;
  while ((handle = openHandleOf(path)) != nullptr) dlclose(handle);
}

// Whether this process may run SCHED_FIFO threads at the pool's priority (root, CAP_SYS_NICE
// or RLIMIT_RTPRIO), tried on a throw-away thread.
inline bool mayUsePoolThread() {
  static const bool allowed = [] {
    bool granted = false;
    std::thread([&granted] { granted = setPriority(80) == 0; }).join();
    return granted;
  }();
  return allowed;
}

#define REQUIRE_POOL_THREAD()                                                                \
  if (!::mosk::kelvo::test_support::mayUsePoolThread())                                      \
  GTEST_SKIP() << "this process may not create the pool's SCHED_FIFO thread at priority 80 " \
                  "(run as root, or grant CAP_SYS_NICE / RLIMIT_RTPRIO)"

// A loader whose pool thread is always shut down, so that its destruction returns.
class ShutDownLoader {
 public:
  explicit ShutDownLoader(int masterVersion) : loader(masterVersion) {}
  ~ShutDownLoader() {
    try {
      loader.shutdown();
    } catch (const std::exception&) {
      // a test that wanted the failure has checked it already
    }
  }
  PluginLoader* operator->() { return &loader; }
  PluginLoader loader;
};

}  // namespace mosk::kelvo::test_support

#endif  // KELVO_TESTS_PLUGIN_TEST_SUPPORT_H_
