// The TCP server: binding, the accepting thread, and each connection with its receiving thread.
#include "mosk/kelvo/socket_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "mosk/kelvo/socket_tcp.h"
#include "socket_framing.h"
#include "socket_send.h"
#include "socket_thread.h"

namespace mosk {
namespace kelvo {

// ---------------------------------------------------------------------------------------------
// SocketClientProxy

SocketClientProxy::SocketClientProxy(const int& fd, TcpCallback* prototype)
    : SocketClientProxy(fd, prototype, kTcpThreadStackSize) {}

SocketClientProxy::SocketClientProxy(const int& fd, TcpCallback* prototype, size_t threadStackSize)
    : fd_(fd) {
  // Holds at most one receive's text: reserved here, on the creating thread, so that the
  // receiving thread never allocates.
  lines_.reserve(internal::kReceiveSize);
  callback_ = prototype->newInstance(this);
  try {
    thread_ = SocketThread::start<SocketClientProxy, &SocketClientProxy::receivingLoop>(
        this, threadStackSize);
  } catch (...) {
    delete callback_;
    callback_ = nullptr;
    throw;
  }
}

SocketClientProxy::~SocketClientProxy() {
  stop(true);
  if (thread_ != nullptr && thread_->joinable()) {
    thread_->join();
    delete thread_;
    thread_ = nullptr;
  }
  delete callback_;
}

int SocketClientProxy::getFd() const { return fd_.load(std::memory_order_relaxed); }

TcpCallback* SocketClientProxy::getTcpCallback() const { return callback_; }

void SocketClientProxy::setRecvPolicy(const TcpReceivePolicy& policy) {
  policy_.store(policy, std::memory_order_relaxed);
}

TcpState SocketClientProxy::getState() const {
  std::lock_guard<std::recursive_mutex> lock(stateMutex_);
  return state_;
}

void SocketClientProxy::setLastError(const std::string& text) {
  std::lock_guard<std::mutex> lock(errorMutex_);
  lastError_ = text;
}

std::string SocketClientProxy::getLastError() const {
  std::lock_guard<std::mutex> lock(errorMutex_);
  return lastError_;
}

int SocketClientProxy::send(const char* data, const int& length) {
  return internal::sendOnce(getState() == TcpState::Connected, getFd(), data, length,
                            [this](const std::string& text) { setLastError(text); });
}

int SocketClientProxy::stop(const bool& shut) {
  if (shut) {
    std::lock_guard<std::mutex> lock(fdMutex_);
    int fd = getFd();
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
  }
  running_.store(false, std::memory_order_relaxed);
  return 0;
}

void SocketClientProxy::onUpdate() {
  std::lock_guard<std::recursive_mutex> lock(stateMutex_);
  callback_->onUpdate();
}

// The receiving thread reads the descriptor field, never the virtual getFd(): it starts inside
// the constructor and may outlive the derived part of the object in the destructor, so a call
// through the virtual table would race with a derived class's constructor and destructor (and
// could reach an override whose object is gone).
void SocketClientProxy::receiveRaw(char* buffer, bool& ended) {
  ssize_t n = recv(fd_.load(std::memory_order_relaxed), buffer, internal::kReceiveSize, 0);
  if (n <= 0) {
    ended = true;
    return;
  }
  int length = static_cast<int>(n);
  callback_->onReceived(buffer, length);
}

void SocketClientProxy::receiveLengthPrefixed(char* buffer, int& offset, int& fill, bool& ended) {
  int fd = fd_.load(std::memory_order_relaxed);
  ssize_t n = recv(fd, buffer + fill, internal::kReceiveSize, 0);
  if (n <= 0) {
    ended = true;
    return;
  }
  internal::frameLengthPrefixedServer(
      buffer, offset, fill, static_cast<int>(n),
      [this](const char* data, const int& length) { callback_->onReceived(data, length); });
  internal::armQuickAck(fd);
}

void SocketClientProxy::receiveLines(char* buffer, bool& ended) {
  lines_.clear();
  ssize_t n = recv(fd_.load(std::memory_order_relaxed), buffer, internal::kReceiveSize, 0);
  if (n <= 0) {
    ended = true;
    return;
  }
  internal::frameLines(
      buffer, static_cast<int>(n), lines_,
      [this](const char* data, const int& length) { callback_->onReceived(data, length); });
}

void SocketClientProxy::receivingLoop() {
  {
    std::lock_guard<std::recursive_mutex> lock(stateMutex_);
    state_ = TcpState::Connected;
  }
  callback_->onConnected();

  char buffer[internal::kServerBufferSize];
  int offset = 0;
  int fill = 0;
  bool ended = false;
  while (!ended && running_.load(std::memory_order_relaxed)) {
    switch (policy_.load(std::memory_order_relaxed)) {
      case TcpReceivePolicy::Raw:
        receiveRaw(buffer, ended);
        break;
      case TcpReceivePolicy::LengthPrefixed:
        receiveLengthPrefixed(buffer, offset, fill, ended);
        break;
      case TcpReceivePolicy::Lines:
        receiveLines(buffer, ended);
        break;
      default:  // undefined policy: nothing is received until stopped
        break;
    }
  }
  finish();
}

void SocketClientProxy::finish() {
  {
    std::lock_guard<std::recursive_mutex> lock(stateMutex_);
    if (running_.load(std::memory_order_relaxed)) {
      state_ = TcpState::Disconnected;
      callback_->onDisconnected();
    } else {
      state_ = TcpState::Stopped;
      callback_->onStopped();
    }
  }
  std::lock_guard<std::mutex> lock(fdMutex_);
  close(fd_.exchange(-1));
}

// ---------------------------------------------------------------------------------------------
// SocketServer

SocketServer::SocketServer(TcpCallback* prototype) : prototype_(prototype) {
  address_.sin_family = AF_INET;
}

SocketServer::~SocketServer() {
  delete prototype_;
  prototype_ = nullptr;
  stop();
}

void SocketServer::setLastError(const char* text) {
  std::lock_guard<std::mutex> lock(errorMutex_);
  lastError_ = text;
}

std::string SocketServer::getLastError() const {
  std::lock_guard<std::mutex> lock(errorMutex_);
  return lastError_;
}

int SocketServer::getPort() const {
  int fd = listenFd_.load();
  if (fd < 0) return 0;
  sockaddr_in local{};
  socklen_t length = sizeof(local);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
  return ntohs(local.sin_port);
}

int SocketServer::bind(const char* name, const int& port) {
  int previousFd = listenFd_.load();
  {
    std::lock_guard<std::mutex> lock(listMutex_);
    clients_.clear();  // dropped, not deleted: a server is meant to be bound once
  }
  int fd = createSocket();
  listenFd_.store(fd);
  if (fd < 0) return -1;
  bindToDevice(fd, name);
  address_.sin_family = AF_INET;
  address_.sin_port = htons(static_cast<uint16_t>(port));
  address_.sin_addr.s_addr = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address_), sizeof(address_)) != 0 ||
      listen(fd, 1) != 0) {
    setLastError(std::strerror(errno));
    return -1;
  }
  if (thread_ != nullptr) {
    // A second bind takes over the handle; shutdown() still has to wake and join the earlier
    // thread and close the socket it listened on, or both would outlive the server.
    retiredThreads_.push_back(thread_);
    retiredListenFds_.push_back(previousFd);
  }
  thread_ = SocketThread::start<SocketServer, &SocketServer::acceptingLoop>(
      this, threadStackSize_.load(std::memory_order_relaxed));
  state_.store(TcpState::Connected);
  return 0;
}

void SocketServer::acceptingLoop() {
  while (running_.load(std::memory_order_relaxed)) {
    sockaddr_in peer{};
    socklen_t length = sizeof(peer);
    int fd = accept(listenFd_.load(), reinterpret_cast<sockaddr*>(&peer), &length);
    if (fd == -1) {
      setLastError(std::strerror(errno));
      continue;
    }
    acceptConnection(fd);
  }
  state_.store(TcpState::Stopped);
  close(listenFd_.exchange(-1));
}

// Only this thread appends to the list, so a count below the limit stays below it until the
// append. The count is this class's own (a qualified, non-virtual call): the accepting thread
// never calls an override, which could run while a derived server's destructor rewrites the
// object's virtual table pointer.
bool SocketServer::atConnectionLimit() const {
  size_t limit = connectionLimit_.load(std::memory_order_relaxed);
  return limit != 0 && SocketServer::getAcceptSocketCount() >= limit;
}

void SocketServer::acceptConnection(int fd) {
  if (atConnectionLimit()) {
    close(fd);
    refusedConnections_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  internal::armQuickAck(fd);
  SocketClientProxy* connection = nullptr;
  try {
    connection =
        new SocketClientProxy(fd, prototype_, threadStackSize_.load(std::memory_order_relaxed));
  } catch (const std::system_error& error) {
    // No thread for it (out of memory, or a stack size the system refuses): refuse this one
    // connection rather than end the process.
    setLastError(error.code().message().c_str());
    close(fd);
    refusedConnections_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  std::lock_guard<std::mutex> lock(listMutex_);
  clients_.push_back(connection);
}

int SocketServer::setThreadStackSize(size_t bytes) {
  return internal::storeThreadStackSize(threadStackSize_, bytes);
}

size_t SocketServer::getThreadStackSize() const {
  return threadStackSize_.load(std::memory_order_relaxed);
}

void SocketServer::setConnectionLimit(size_t maximum) {
  connectionLimit_.store(maximum, std::memory_order_relaxed);
}

size_t SocketServer::getConnectionLimit() const {
  return connectionLimit_.load(std::memory_order_relaxed);
}

uint64_t SocketServer::getRefusedConnectionCount() const {
  return refusedConnections_.load(std::memory_order_relaxed);
}

TcpState SocketServer::getState() const { return state_.load(); }

size_t SocketServer::getAcceptSocketCount() const {
  std::lock_guard<std::mutex> lock(listMutex_);
  return clients_.size();
}

SocketClientProxy* SocketServer::entryAt(size_t index) const {
  std::lock_guard<std::mutex> lock(listMutex_);
  return index < clients_.size() ? clients_[index] : nullptr;
}

// Only the application thread removes entries and the accepting thread only appends, so an
// index read earlier by the application thread still designates the same entry.
void SocketServer::eraseAt(size_t index) {
  std::lock_guard<std::mutex> lock(listMutex_);
  clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(index));
}

int SocketServer::update() {
  dump();
  for (size_t i = 0; i < getAcceptSocketCount(); ++i) {
    SocketClientProxy* connection = entryAt(i);
    if (connection != nullptr && connection->getState() == TcpState::Connected) {
      connection->onUpdate();
    }
  }
  return 0;
}

void SocketServer::dump() {
  size_t i = 0;
  while (i < getAcceptSocketCount()) {
    SocketClientProxy* connection = entryAt(i);
    if (connection->getState() == TcpState::Disconnected ||
        connection->getState() == TcpState::Stopped) {
      std::fprintf(stderr, "[%d] delete client %d\n", static_cast<int>(getAcceptSocketCount()),
                   connection->getFd());
      delete connection;
      eraseAt(i);
      std::fprintf(stderr, "[%d] erase client \n", static_cast<int>(getAcceptSocketCount()));
    } else {
      ++i;
    }
  }
}

int SocketServer::stop() {
  size_t i = 0;
  while (i < getAcceptSocketCount()) {
    SocketClientProxy* connection = entryAt(i);
    if (connection->getState() == TcpState::Connected) {
      connection->stop(true);
    } else {
      // Kept: dropped without being deleted, and the entry that slides into this slot is
      // skipped by this walk.
      eraseAt(i);
    }
    ++i;
  }
  running_.store(false, std::memory_order_relaxed);
  join();
  return 0;
}

void SocketServer::join() {
  if (thread_ != nullptr && thread_->joinable()) {
    thread_->join();
    delete thread_;
    thread_ = nullptr;
  }
}

void SocketServer::joinRetired() {
  for (SocketThread* thread : retiredThreads_) {
    thread->join();
    delete thread;
  }
  retiredThreads_.clear();
  for (int retiredFd : retiredListenFds_) {
    if (retiredFd >= 0) close(retiredFd);
  }
  retiredListenFds_.clear();
}

std::vector<SocketClientProxy*> SocketServer::takeAll() {
  std::lock_guard<std::mutex> lock(listMutex_);
  std::vector<SocketClientProxy*> all;
  all.swap(clients_);
  return all;
}

int SocketServer::shutdown() {
  running_.store(false, std::memory_order_relaxed);
  int fd = listenFd_.load();
  // Wakes a blocked accept (it fails with EINVAL); the loop then sees the flag and ends.
  if (fd >= 0 && thread_ != nullptr) ::shutdown(fd, SHUT_RDWR);
  for (int retiredFd : retiredListenFds_) ::shutdown(retiredFd, SHUT_RDWR);
  join();
  joinRetired();
  if (fd >= 0 && thread_ == nullptr && state_.load() != TcpState::Stopped) {
    close(listenFd_.exchange(-1));  // bound but the thread never ran: nothing else closes it
  }
  for (SocketClientProxy* connection : takeAll()) delete connection;
  return 0;
}

int shutdownTcpServer(ITcpServer* server) {
  auto* socketServer = dynamic_cast<SocketServer*>(server);
  return socketServer == nullptr ? -1 : socketServer->shutdown();
}

}  // namespace kelvo
}  // namespace mosk
