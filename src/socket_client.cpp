// The TCP client: connecting, the receiving thread that reconnects after failures, and sending.
#include "mosk/kelvo/socket_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>

#include "mosk/kelvo/socket_tcp.h"
#include "socket_framing.h"
#include "socket_send.h"
#include "socket_thread.h"

namespace mosk {
namespace kelvo {

namespace {

constexpr int kConnectTimeoutSeconds = 100;
constexpr auto kNegativeTimeoutStep = std::chrono::milliseconds(100);
constexpr auto kMutexRetry = std::chrono::microseconds(50);

// One second, resumed with the remaining time after a signal.
void sleepOneSecond() {
  timespec remaining{1, 0};
  while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
  }
}

uint64_t packAddress(uint16_t portNetwork, uint32_t addressNetwork) {
  return (uint64_t{portNetwork} << 32) | addressNetwork;
}

sockaddr_in unpackAddress(uint64_t packed) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = static_cast<uint16_t>(packed >> 32);
  address.sin_addr.s_addr = static_cast<uint32_t>(packed);
  return address;
}

}  // namespace

SocketClient::SocketClient(TcpCallback* prototype) {
  if (prototype != nullptr) callback_ = prototype->newInstance(this);
  delete prototype;
}

// Kept: the per-socket callback is not deleted here, unlike a server connection's: the
// application reaches it through getTcpCallback() and owns it.
SocketClient::~SocketClient() { stop(true); }

int SocketClient::getFd() const { return fd_.load(std::memory_order_relaxed); }

TcpState SocketClient::getState() const { return state_.load(); }

TcpCallback* SocketClient::getTcpCallback() const { return callback_; }

// Kept: stored and never consulted; the client's receiving always uses length-prefixed framing.
void SocketClient::setRecvPolicy(const TcpReceivePolicy& policy) {
  policy_.store(policy, std::memory_order_relaxed);
}

void SocketClient::setLastError(const std::string& text) {
  std::lock_guard<std::mutex> lock(errorMutex_);
  lastError_ = text;
}

std::string SocketClient::getLastError() const {
  std::lock_guard<std::mutex> lock(errorMutex_);
  return lastError_;
}

int SocketClient::connect(const char* ip, const int& port, const int& timeout) {
  if (getState() == TcpState::Connected) return 0;
  server_.store(packAddress(htons(static_cast<uint16_t>(port)), inet_addr(ip)));
  if (thread_ != nullptr) return -1;
  // The mutex is taken before the thread starts so that its "connected" notification cannot
  // come before this call waits for it.
  std::unique_lock<std::mutex> lock(mutex_);
  if (!buffer_) buffer_.reset(new char[internal::kClientBufferSize]);
  thread_ = SocketThread::start<SocketClient, &SocketClient::receivingLoop>(
      this, threadStackSize_.load(std::memory_order_relaxed));
  if (timeout == 0) return 0;
  if (timeout > 0) {
    auto deadline = std::chrono::system_clock::now() + std::chrono::milliseconds(timeout);
    condition_.wait_until(lock, deadline);
    if (std::chrono::system_clock::now() >= deadline) return -1;
    return getState() == TcpState::Connected ? 0 : -1;
  }
  while (true) {
    auto deadline = std::chrono::system_clock::now() + kNegativeTimeoutStep;
    if (condition_.wait_until(lock, deadline) == std::cv_status::timeout) {
      if (getState() == TcpState::Connected) return 0;
    } else {
      return getState() == TcpState::Connected ? 0 : -1;
    }
  }
}

int SocketClient::setThreadStackSize(size_t bytes) {
  return internal::storeThreadStackSize(threadStackSize_, bytes);
}

size_t SocketClient::getThreadStackSize() const {
  return threadStackSize_.load(std::memory_order_relaxed);
}

int SocketClient::send(const char* data, const int& length) {
  return internal::sendOnce(getState() == TcpState::Connected, getFd(), data, length,
                            [this](const std::string& text) { setLastError(text); });
}

int SocketClient::update() {
  if (getState() == TcpState::Connected && callback_ != nullptr) callback_->onUpdate();
  return 0;
}

int SocketClient::stop(const bool& shut) {
  // Seen by the receiving loop before any new attempt: a connection lost to this shutdown is
  // not replaced by a new one that nothing would ever end.
  stopping_.store(true);
  if (shut) {
    std::lock_guard<std::mutex> lock(fdMutex_);
    int fd = getFd();
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  condition_.notify_all();
  running_.store(false);
  join();
  delete thread_;
  thread_ = nullptr;
  return 0;
}

void SocketClient::join() {
  if (thread_ != nullptr && thread_->joinable()) thread_->join();
}

void SocketClient::closeFd() {
  std::lock_guard<std::mutex> lock(fdMutex_);
  int fd = fd_.exchange(-1);
  if (fd >= 0) close(fd);
}

void SocketClient::end() {
  closeFd();
  if (callback_ != nullptr) callback_->onStopped();
  state_.store(TcpState::Stopped);
}

// One attempt; true once connected (onConnected has run and waiters are notified).
bool SocketClient::connectOnce() {
  int fd = createSocket();
  if (fd == -1) {
    sleepOneSecond();
    return false;
  }
  sockaddr_in address = unpackAddress(server_.load());
  if (blockConnect(fd, reinterpret_cast<sockaddr*>(&address), kConnectTimeoutSeconds) != 0) {
    sleepOneSecond();  // blockConnect closed fd
    return false;
  }
  // stop() holds the mutex while it joins this thread: waiting for the mutex unconditionally
  // would deadlock a stop(true) whose shutdown sent us straight into a successful reconnect.
  // Once the running flag is cleared the new connection is closed unannounced instead.
  std::unique_lock<std::mutex> lock(mutex_, std::defer_lock);
  while (!lock.try_lock()) {
    if (!running_.load() || stopping_.load()) {
      close(fd);
      return false;
    }
    std::this_thread::sleep_for(kMutexRetry);
  }
  fd_.store(fd);
  // Pairs with stop(), which marks stopping before it reads the descriptor to shut it down:
  // either stop sees this descriptor, or this thread sees stopping.
  if (stopping_.load()) {
    closeFd();
    return false;
  }
  if (callback_ != nullptr) callback_->onConnected();
  state_.store(TcpState::Connected);
  condition_.notify_all();
  return true;
}

void SocketClient::receiveUntilLost(char* buffer) {
  // A new connection starts a new byte stream: nothing held from the last one is kept.
  internal::ClientFrameState frames;
  while (true) {
    int fd = fd_.load(std::memory_order_relaxed);
    ssize_t n = recv(fd, buffer + frames.fill, internal::kReceiveSize, 0);
    if (n <= 0) {
      closeFd();
      if (callback_ != nullptr) callback_->onDisconnected();
      state_.store(TcpState::Disconnected);
      return;
    }
    internal::frameLengthPrefixedClient(buffer, frames, static_cast<int>(n),
                                        [this](const char* data, const int& length) {
                                          if (callback_ != nullptr) {
                                            callback_->onReceived(data, length);
                                          }
                                        });
    internal::armQuickAck(fd);
  }
}

// The receiving thread reads the state and descriptor fields, never the virtual getters: a
// derived client's destructor runs before ours joins this thread, and a call through the
// virtual table would race with it (and could reach an override whose object is gone).
void SocketClient::receivingLoop() {
  // Allocated by connect: too large for a thread stack next to the application's frames.
  char* buffer = buffer_.get();
  while (true) {
    // A connected socket is received from until it is lost, whatever the flags say: only a
    // shutdown or the peer ends it.
    if (state_.load() == TcpState::Connected) {
      receiveUntilLost(buffer);
      continue;
    }
    if (!running_.load() || stopping_.load()) break;
    connectOnce();
  }
  end();
}

}  // namespace kelvo
}  // namespace mosk
