// The threads the TCP classes start: the server's accepting thread, each server connection's
// receiving thread and the client's receiving thread.
//
// SocketThread behaves like std::thread (the thread inherits the creator's signal mask and
// name, join() throws std::system_error when the thread is not joinable or is the caller, a
// thread that cannot start throws std::system_error from the constructor, destroying a thread
// that is still joinable ends the process) with one difference: its stack has a chosen size
// instead of the platform's default (RLIMIT_STACK, 8 MiB on most systems), which under
// mlockall(MCL_FUTURE) is locked and resident in full for every connection.
//
// Nothing here allocates on the new thread: the record it starts from lives in the
// SocketThread object, which the creator allocates and the owner frees after the join, so a
// thread whose own code does not allocate never gets a heap arena of its own.
//
// Threading: one owner thread starts, joins and deletes a SocketThread.
#ifndef KELVO_SRC_SOCKET_THREAD_H_
#define KELVO_SRC_SOCKET_THREAD_H_

#include <pthread.h>

#include <atomic>
#include <cstddef>

namespace mosk {
namespace kelvo {

// In mosk::kelvo, not internal: the public headers of the TCP classes name it there (they hold
// pointers to it), so its namespace is part of their binary interface.
class SocketThread {
 public:
  using Entry = void (*)(void* object);

  // Starts object->*Method() on a new thread with a stack of stackBytes (0: the platform's
  // default). Throws std::system_error if the thread cannot start.
  template <class Object, void (Object::*Method)()>
  static SocketThread* start(Object* object, size_t stackBytes) {
    return new SocketThread([](void* self) { (static_cast<Object*>(self)->*Method)(); }, object,
                            stackBytes);
  }

  SocketThread(Entry entry, void* object, size_t stackBytes);
  ~SocketThread();
  SocketThread(const SocketThread&) = delete;
  SocketThread& operator=(const SocketThread&) = delete;

  bool joinable() const { return joinable_; }
  void join();

 private:
  static void* run(void* self) noexcept;

  Entry entry_;
  void* object_;
  pthread_t handle_{};
  bool joinable_ = false;
};

// What setThreadStackSize does: stores `bytes` rounded up to whole pages into `setting` (0
// stays 0, the platform's default) and returns 0, or returns -1 and leaves `setting` as it is
// for a size below kTcpMinThreadStackSize or one too large to round.
namespace internal {
int storeThreadStackSize(std::atomic<size_t>& setting, size_t bytes);
}  // namespace internal

}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_SOCKET_THREAD_H_
