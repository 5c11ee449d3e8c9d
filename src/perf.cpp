// Measurement helpers and general utilities: file-system and version helpers.
#include "mosk/kelvo/perf.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mosk {
namespace kelvo {

namespace {

constexpr size_t kMaxPath = 4096;

// mkdir that accepts an existing entry.
bool makeDirectory(const char* path, uint32_t mode) {
  return mkdir(path, static_cast<mode_t>(mode)) == 0 || errno == EEXIST;
}

}  // namespace

int mkdir_p(const char* path, uint32_t mode) {
  errno = 0;
  const size_t length = std::strlen(path);
  if (length > kMaxPath - 1) {
    errno = ENAMETOOLONG;
    return -1;
  }
  char copy[kMaxPath];
  std::memcpy(copy, path, length + 1);
  // The first character is never a separator: a leading '/' must not create the root.
  for (size_t i = 1; i < length; ++i) {
    if (copy[i] != '/') continue;
    copy[i] = '\0';
    const bool made = makeDirectory(copy, mode);
    copy[i] = '/';
    if (!made) return -1;
  }
  if (mkdir(copy, static_cast<mode_t>(mode)) == 0 || errno == EEXIST) return 0;
  return -1;
}

int ensureParents(const char* path, uint32_t mode) {
  char* copy = strdup(path);
  if (copy == nullptr) return -1;
  for (size_t i = std::strlen(copy); i > 1; --i) {
    if (copy[i - 1] == '/') {
      copy[i - 1] = '\0';
      break;
    }
  }
  const int result = mkdir_p(copy, mode);
  std::free(copy);
  return result;
}

std::string versionIntToString(int version) {
  char text[20];
  std::snprintf(text, sizeof(text), "%d.%d.%d", version / 1000000, (version / 1000) % 1000,
                version % 1000);
  return text;
}

}  // namespace kelvo
}  // namespace mosk
