#include "mosk/kelvo/socket_tcp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "socket_test_support.h"

namespace mosk::kelvo {
namespace {

using kelvo_test::connectPlain;
using kelvo_test::loopback;
using kelvo_test::PlainListener;
using kelvo_test::Resources;

int intOption(int fd, int level, int option) {
  int value = -1;
  socklen_t length = sizeof(value);
  getsockopt(fd, level, option, &value, &length);
  return value;
}

std::string boundDevice(int fd) {
  char name[IFNAMSIZ] = {};
  socklen_t length = sizeof(name);
  if (getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, &length) != 0) return "<error>";
  return std::string(name);
}

TEST(SocketTcpTest, CreateSocketSetsTheLibraryOptionsAndStaysBlocking) {
  int fd = createSocket();
  ASSERT_GE(fd, 0);
  EXPECT_NE(intOption(fd, IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_NE(intOption(fd, SOL_SOCKET, SO_REUSEADDR), 0);
  timeval timeout{1, 1};
  socklen_t length = sizeof(timeout);
  getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, &length);
  EXPECT_EQ(timeout.tv_sec, 0);
  EXPECT_EQ(timeout.tv_usec, 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  close(fd);
}

TEST(SocketTcpTest, BindToDeviceAnyLeavesTheSocketUnbound) {
  int fd = createSocket();
  EXPECT_EQ(bindToDevice(fd, "any"), 0);
  EXPECT_EQ(boundDevice(fd), "");
  close(fd);
}

TEST(SocketTcpTest, BindToDeviceTreatsOtherTextAsADeviceName) {
  int fd = createSocket();
  EXPECT_EQ(bindToDevice(fd, "lo"), 0);
  std::string device = boundDevice(fd);
  close(fd);
  if (device.empty()) GTEST_SKIP() << "SO_BINDTODEVICE needs CAP_NET_RAW here";
  EXPECT_EQ(device, "lo");
  // Text that only begins with "any" is a (missing) device name: still 0, nothing bound.
  fd = createSocket();
  EXPECT_EQ(bindToDevice(fd, "anything"), 0);
  EXPECT_EQ(boundDevice(fd), "");
  close(fd);
}

TEST(SocketTcpDeathTest, BindToDeviceWithANameOfMoreThan16CharactersEndsTheProcess) {
  EXPECT_DEATH(
      {
        int fd = createSocket();
        bindToDevice(fd, "abcdefghijklmnopq");
      },
      "device name longer than 16 characters");
}

TEST(SocketTcpTest, GetIpGivesTheLocalAddress) {
  PlainListener listener;
  int fd = connectPlain(listener.port);
  ASSERT_GE(fd, 0);
  std::string ip = "unchanged";
  EXPECT_EQ(getIp(fd, ip), 0);
  EXPECT_EQ(ip, "127.0.0.1");
  close(fd);
  ip = "unchanged";
  EXPECT_EQ(getIp(-1, ip), -1);
  EXPECT_EQ(ip, "unchanged");
}

TEST(SocketTcpTest, BlockConnectToAListenerSucceeds) {
  PlainListener listener;
  int fd = createSocket();
  sockaddr_in address = loopback(listener.port);
  EXPECT_EQ(blockConnect(fd, reinterpret_cast<sockaddr*>(&address), 5), 0);
  int accepted = listener.acceptOne();
  EXPECT_GE(accepted, 0);
  close(accepted);
  close(fd);
}

TEST(SocketTcpTest, BlockConnectWithNoListenerFailsWithConnectionRefusedAndClosesTheSocket) {
  Resources before;
  int port = 0;
  {
    PlainListener listener;  // take a free port from the kernel, then free it
    port = listener.port;
  }
  int fd = createSocket();
  sockaddr_in address = loopback(port);
  errno = 0;
  EXPECT_EQ(blockConnect(fd, reinterpret_cast<sockaddr*>(&address), 5), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // already closed
  EXPECT_TRUE(kelvo_test::resourcesBackTo(before));
}

TEST(SocketTcpTest, BlockConnectWhoseTimeOutPassesFailsWithTimedOut) {
  // A listener whose accept queue is full drops further handshakes, so the connect hangs.
  PlainListener listener(0);
  std::vector<int> fillers;
  int fd = -1;
  for (int i = 0; i < 8; ++i) {
    int filler = socket(AF_INET, SOCK_STREAM, 0);
    fcntl(filler, F_SETFL, O_NONBLOCK);
    sockaddr_in address = loopback(listener.port);
    connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    fillers.push_back(filler);
  }
  fd = createSocket();
  sockaddr_in address = loopback(listener.port);
  errno = 0;
  int result = blockConnect(fd, reinterpret_cast<sockaddr*>(&address), 1);
  int error = errno;
  for (int filler : fillers) close(filler);
  if (result == 0) {
    close(fd);
    GTEST_SKIP() << "this kernel completed the handshake despite the full queue";
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, ETIMEDOUT);
}

// A connected pair: a = our end, b = the accepted end.
struct Pair {
  PlainListener listener;
  int a = connectPlain(listener.port);
  int b = listener.acceptOne();
  ~Pair() {
    close(a);
    close(b);
  }
};

TEST(SocketTcpTest, SelectSendWaitsForReadableDataEvenOnAWritableSocket) {
  Pair pair;
  std::atomic<int> sent{-2};
  std::thread sender([&] { sent = selectSend(pair.a, "ping", 4); });
  // The socket is writable at once; selectSend must still be waiting for readable data once
  // its thread blocks in select (x86-64 syscalls 23 and 270).
  EXPECT_TRUE(kelvo_test::waitFor([] { return kelvo_test::aThreadIsInSyscall({23, 270}); }));
  EXPECT_EQ(sent.load(), -2);
  ASSERT_TRUE(kelvo_test::writeAll(pair.b, "x"));
  sender.join();
  EXPECT_EQ(sent.load(), 4);
  EXPECT_EQ(kelvo_test::readExactly(pair.b, 4), "ping");
}

TEST(SocketTcpTest, SelectRecvReadsOnceWhatIsThere) {
  Pair pair;
  ASSERT_TRUE(kelvo_test::writeAll(pair.b, "abc"));
  char data[16];
  ASSERT_TRUE(kelvo_test::waitFor(
      [&] { return recv(pair.a, data, sizeof(data), MSG_PEEK | MSG_DONTWAIT) == 3; }));
  int n = selectRecv(pair.a, data, sizeof(data));
  EXPECT_EQ(n, 3);
  EXPECT_EQ(std::string(data, 3), "abc");
  close(pair.b);
  pair.b = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(selectRecv(pair.a, data, sizeof(data)), 0);  // peer closed
}

TEST(SocketTcpTest, BlockSigpipeIgnoresSigpipe) {
  struct sigaction saved {};
  sigaction(SIGPIPE, nullptr, &saved);
  blockSigpipe();
  struct sigaction now {};
  sigaction(SIGPIPE, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_IGN);
  sigaction(SIGPIPE, &saved, nullptr);
}

TEST(SocketTcpTest, FormatOfExactly127CharactersSucceeds) {
  std::string longest(127, 'z');
  EXPECT_EQ(format("%s", longest.c_str()), longest);
  EXPECT_EQ(format("%d-%s", 42, "x"), "42-x");
}

TEST(SocketTcpDeathTest, FormatOfMoreThan127CharactersEndsTheProcess) {
  std::string tooLong(128, 'z');
  EXPECT_DEATH(format("%s", tooLong.c_str()), "format: output longer than 127 characters");
}

// The select-based helpers cannot hold descriptors of FD_SETSIZE (1024) or more in their sets.
TEST(SocketTcpDeathTest, SelectSendWithADescriptorOf1024OrMoreEndsTheProcess) {
  EXPECT_DEATH(selectSend(1024, "x", 1), "descriptor 1024 out of range for select");
  EXPECT_DEATH(selectSend(4096, "x", 1), "descriptor 4096 out of range for select");
}

TEST(SocketTcpDeathTest, SelectRecvWithADescriptorOf1024OrMoreEndsTheProcess) {
  char data[4];
  EXPECT_DEATH(selectRecv(1024, data, sizeof(data)), "descriptor 1024 out of range for select");
}

// blockConnect reaches its select only when the connect is in progress, which takes a real
// socket at a number of 1024 or more; the soft descriptor limit is raised in the child only.
TEST(SocketTcpDeathTest, BlockConnectWithADescriptorOf1024OrMoreEndsTheProcess) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max <= 1024) {
    GTEST_SKIP() << "the hard descriptor limit (" << limit.rlim_max << ") stops at 1024";
  }
  PlainListener listener;
  EXPECT_DEATH(
      {
        rlimit raised = limit;
        if (raised.rlim_cur != RLIM_INFINITY && raised.rlim_cur <= 1024) raised.rlim_cur = 1025;
        setrlimit(RLIMIT_NOFILE, &raised);
        int fd = createSocket();
        int high = dup2(fd, 1024);
        close(fd);
        if (high != 1024) {
          std::fprintf(stderr, "no descriptor 1024\n");
          std::_Exit(0);  // not a death: the expectation then fails
        }
        sockaddr_in address = loopback(listener.port);
        blockConnect(high, reinterpret_cast<sockaddr*>(&address), 5);
      },
      "descriptor 1024 out of range for select");
}

}  // namespace
}  // namespace mosk::kelvo
