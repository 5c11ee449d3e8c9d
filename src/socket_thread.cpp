// The threads of the TCP classes, started with a stack of a chosen size.
#include "socket_thread.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <system_error>

#include "mosk/kelvo/socket_interface.h"

namespace mosk {
namespace kelvo {

SocketThread::SocketThread(Entry entry, void* object, size_t stackBytes)
    : entry_(entry), object_(object) {
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error == 0 && stackBytes != 0) error = pthread_attr_setstacksize(&attributes, stackBytes);
  if (error == 0) error = pthread_create(&handle_, &attributes, &SocketThread::run, this);
  pthread_attr_destroy(&attributes);
  if (error != 0) throw std::system_error(error, std::generic_category());
  joinable_ = true;
}

SocketThread::~SocketThread() {
  if (joinable_) std::terminate();  // as std::thread: a running thread must not lose its owner
}

void SocketThread::join() {
  int error = joinable_ ? pthread_join(handle_, nullptr) : EINVAL;  // EDEADLK on itself
  if (error != 0) throw std::system_error(error, std::generic_category());
  joinable_ = false;
}

void* SocketThread::run(void* self) noexcept {
  auto* thread = static_cast<SocketThread*>(self);
  thread->entry_(thread->object_);
  return nullptr;
}

int internal::storeThreadStackSize(std::atomic<size_t>& setting, size_t bytes) {
  auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  if (bytes != 0 && (bytes < kTcpMinThreadStackSize || bytes > SIZE_MAX - page)) return -1;
  setting.store((bytes + page - 1) / page * page, std::memory_order_relaxed);
  return 0;
}

}  // namespace kelvo
}  // namespace mosk
