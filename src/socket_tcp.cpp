// The socket helpers: socket creation, device binding, connecting, sending and receiving.
#include "mosk/kelvo/socket_tcp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mosk {
namespace kelvo {

namespace {

// The kernel's interface request record: 16 bytes of name, 24 of request data.
constexpr size_t kInterfaceRequestSize = 40;
constexpr size_t kInterfaceNameSize = 16;
constexpr size_t kFormatBufferSize = 128;

void setIntOption(int fd, int level, int option, int value) {
  setsockopt(fd, level, option, &value, sizeof(value));
}

// Sets a select set holding fd, ending the process for descriptors the set cannot hold.
void setOnly(int fd, fd_set* set) {
  if (fd < 0 || fd >= FD_SETSIZE) {
    std::fprintf(stderr, "descriptor %d out of range for select\n", fd);
    std::abort();
  }
  FD_ZERO(set);
  FD_SET(fd, set);
}

bool waitReadable(int fd) {
  fd_set set;
  setOnly(fd, &set);
  select(fd + 1, &set, nullptr, nullptr, nullptr);
  return FD_ISSET(fd, &set);
}

}  // namespace

int createSocket() {
  int fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (fd == -1) return -1;
  setIntOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  setIntOption(fd, IPPROTO_TCP, TCP_QUICKACK, 1);
  setIntOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  timeval noTimeout{0, 0};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &noTimeout, sizeof(noTimeout));
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &noTimeout, sizeof(noTimeout));
  return fd;
}

int bindToDevice(int fd, const char* name) {
  if (std::strcmp(name, "any") == 0) return 0;
  char request[kInterfaceRequestSize] = {};
  if (std::strlen(name) > kInterfaceNameSize) {
    std::fprintf(stderr, "device name longer than %zu characters: %s\n", kInterfaceNameSize, name);
    std::abort();
  }
  std::memcpy(request, name, std::strlen(name));
  setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, request, sizeof(request));
  return 0;
}

int getIp(int fd, std::string& ip) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
  char text[128];
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
  ip = text;
  return 0;
}

int blockConnect(const int& fd, sockaddr* addr, const int& timeout) {
  timeval limit{timeout, 0};
  int error = 0;
  int savedFlags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, O_NONBLOCK);
  // Kept: a connection made at once leaves the socket non-blocking (the flags are restored only
  // after a wait).
  if (connect(fd, addr, sizeof(sockaddr_in)) == 0) return 0;
  if (errno != EINPROGRESS) {
    close(fd);
    return -1;
  }
  fd_set readSet;
  setOnly(fd, &readSet);
  fd_set writeSet = readSet;
  int ready = select(fd + 1, &readSet, &writeSet, nullptr, &limit);
  if (ready == 0) {
    close(fd);
    errno = ETIMEDOUT;
    return -1;
  }
  if (ready < 0) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
  }
  if (FD_ISSET(fd, &readSet) || FD_ISSET(fd, &writeSet)) {
    socklen_t length = sizeof(error);
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    if (error != 0) {
      close(fd);
      errno = error;
      return -1;
    }
  }
  fcntl(fd, F_SETFL, savedFlags);
  return 0;
}

// Kept: waits for readability, not writability, before it writes.
int selectSend(const int& fd, const char* data, int length) {
  if (!waitReadable(fd)) return -1;
  return static_cast<int>(write(fd, data, length));
}

int selectRecv(const int& fd, char* data, int length) {
  if (!waitReadable(fd)) return -1;
  return static_cast<int>(read(fd, data, length));
}

void blockSigpipe() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  sigemptyset(&action.sa_mask);
  sigaction(SIGPIPE, &action, nullptr);
}

std::string format(const char* fmt, ...) {
  char* scratch = static_cast<char*>(std::malloc(kFormatBufferSize));
  va_list args;
  va_start(args, fmt);
  int written = std::vsnprintf(scratch, kFormatBufferSize, fmt, args);
  va_end(args);
  if (written < 0 || static_cast<size_t>(written) >= kFormatBufferSize) {
    std::fprintf(stderr, "format: output longer than %zu characters\n", kFormatBufferSize - 1);
    std::abort();
  }
  std::string text(scratch, static_cast<size_t>(written));
  std::free(scratch);
  return text;
}

}  // namespace kelvo
}  // namespace mosk
