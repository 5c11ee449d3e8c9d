// Ownership of typed topics through robust futex words held by a keeper thread.
#include "topic_liveness.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>

namespace mosk {
namespace kelvo {
namespace internal {
namespace {

std::atomic<uint64_t> generation{1};

// The keeper thread of this process and the robust list it registers with the kernel.
class Keeper {
 public:
  Keeper() {
    resetList();
    pthread_atfork(nullptr, nullptr, [] { instance().resetInChild(); });
  }

  static Keeper& instance() {
    static Keeper* keeper = new Keeper();  // never destroyed: publishers may outlive statics
    return *keeper;
  }

  ClaimResult claim(OwnerRecord& record) {
    std::lock_guard<std::mutex> calls(callMutex_);
    if (!running_ && !start()) return ClaimResult::kNoKeeper;
    Request request{Request::kClaim, &record};
    submit(request);
    if (request.result == ClaimResult::kClaimed || request.result == ClaimResult::kTookOver) {
      ++owned_;
    } else if (owned_ == 0) {
      stop();
    }
    return request.result;
  }

  void release(OwnerRecord& record) {
    std::lock_guard<std::mutex> calls(callMutex_);
    if (!running_) return;
    Request request{Request::kRelease, &record};
    submit(request);
    if (--owned_ == 0) stop();
  }

 private:
  struct Request {
    enum Kind { kClaim, kRelease, kStop } kind;
    OwnerRecord* record;
    ClaimResult result = ClaimResult::kHeld;
    bool done = false;
  };

  static constexpr size_t kStackBytes = 256 * 1024;

  // The kernel reads the list only when the keeper thread exits, which can happen at any
  // instruction of the keeper (the process is killed): these fences keep the compiler from
  // reordering the list's stores across the steps below.
  static void step() { std::atomic_signal_fence(std::memory_order_seq_cst); }

  void resetList() {
    head_.list.next = &head_.list;
    head_.futex_offset = kOwnerWordOffset;
    head_.list_op_pending = nullptr;
  }

  bool start() {
    resetList();
    tid_ = 0;
    // A small stack (it is locked and faulted in under mlockall(MCL_FUTURE)) and the ordinary
    // policy whatever the creating thread runs at: the keeper only sleeps and answers claims.
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackBytes);
    pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attributes, SCHED_OTHER);
    sched_param ordinary{};
    pthread_attr_setschedparam(&attributes, &ordinary);
    sigset_t all, previous;
    sigfillset(&all);
    // The keeper takes no signal meant for the application's threads.
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const int rc = pthread_create(&thread_, &attributes, &Keeper::run, this);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    pthread_attr_destroy(&attributes);
    if (rc != 0) return false;
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return tid_ != 0; });
    running_ = true;
    return true;
  }

  void stop() {
    Request request{Request::kStop, nullptr};
    submit(request);
    pthread_join(thread_, nullptr);
    running_ = false;
  }

  void submit(Request& request) {
    std::unique_lock<std::mutex> lock(mutex_);
    request_ = &request;
    cv_.notify_all();
    cv_.wait(lock, [&request] { return request.done; });
  }

  static void* run(void* self) {
    static_cast<Keeper*>(self)->serve();
    return nullptr;
  }

  void serve() {
    pthread_setname_np(pthread_self(), "kelvo-owner");
    syscall(SYS_set_robust_list, &head_, sizeof(head_));
    {
      std::lock_guard<std::mutex> lock(mutex_);
      tid_ = static_cast<uint32_t>(syscall(SYS_gettid));
      cv_.notify_all();
    }
    for (;;) {
      std::unique_lock<std::mutex> lock(mutex_);
      cv_.wait(lock, [this] { return request_ != nullptr; });
      Request& request = *request_;
      request_ = nullptr;
      if (request.kind == Request::kClaim) request.result = claimHere(*request.record);
      if (request.kind == Request::kRelease) releaseHere(*request.record);
      request.done = true;
      cv_.notify_all();
      if (request.kind == Request::kStop) return;  // the list is empty: the exit marks nothing
    }
  }

  static robust_list* linkOf(OwnerRecord& record) {
    return reinterpret_cast<robust_list*>(&record.link);
  }

  // Runs on the keeper. Links the record first (as "pending"), then takes the word, then makes
  // the link permanent: killed at any point, the kernel finds the word through the list or the
  // pending slot whenever it holds our id.
  ClaimResult claimHere(OwnerRecord& record) {
    robust_list* link = linkOf(record);
    for (;;) {
      uint32_t current = record.word.load(std::memory_order_acquire);
      if (ownerWordAlive(current)) return ClaimResult::kHeld;
      head_.list_op_pending = link;
      step();
      record.link.store(reinterpret_cast<uint64_t>(head_.list.next), std::memory_order_relaxed);
      step();
      const bool taken =
          record.word.compare_exchange_strong(current, tid_, std::memory_order_acq_rel);
      step();
      if (taken) head_.list.next = link;
      step();
      head_.list_op_pending = nullptr;
      step();
      if (taken) return current == 0 ? ClaimResult::kClaimed : ClaimResult::kTookOver;
    }
  }

  // Runs on the keeper: unlinks the record (still pending), then lets the word go.
  void releaseHere(OwnerRecord& record) {
    robust_list* link = linkOf(record);
    head_.list_op_pending = link;
    step();
    robust_list* previous = &head_.list;
    while (nextOf(previous) != &head_.list && nextOf(previous) != link) {
      previous = nextOf(previous);
    }
    if (nextOf(previous) == link) setNext(previous, nextOf(link));
    step();
    uint32_t mine = tid_;
    record.word.compare_exchange_strong(mine, 0, std::memory_order_acq_rel);
    step();
    head_.list_op_pending = nullptr;
    step();
  }

  // List links: the head's is a plain pointer, a record's lives in its atomic `link`.
  robust_list* nextOf(robust_list* node) {
    if (node == &head_.list) return head_.list.next;
    return reinterpret_cast<robust_list*>(
        reinterpret_cast<OwnerRecord*>(node)->link.load(std::memory_order_relaxed));
  }

  void setNext(robust_list* node, robust_list* next) {
    if (node == &head_.list) {
      head_.list.next = next;
    } else {
      reinterpret_cast<OwnerRecord*>(node)->link.store(reinterpret_cast<uint64_t>(next),
                                                       std::memory_order_relaxed);
    }
  }

  // A fork child has only the forking thread: no keeper, nothing owned. Locks another thread
  // of the parent held are reset.
  void resetInChild() {
    new (&callMutex_) std::mutex();
    new (&mutex_) std::mutex();
    new (&cv_) std::condition_variable();
    running_ = false;
    owned_ = 0;
    request_ = nullptr;
    tid_ = 0;
    resetList();
    generation.fetch_add(1, std::memory_order_relaxed);
  }

  std::mutex callMutex_;  // one claim or release at a time
  std::mutex mutex_;      // guards request_ and tid_ between a caller and the keeper
  std::condition_variable cv_;
  Request* request_ = nullptr;
  uint32_t tid_ = 0;
  bool running_ = false;  // callMutex_
  int owned_ = 0;         // callMutex_
  pthread_t thread_{};
  robust_list_head head_{};  // the keeper thread's list (the kernel reads it at its exit)
};

}  // namespace

ClaimResult claimOwnership(OwnerRecord& record) { return Keeper::instance().claim(record); }

void releaseOwnership(OwnerRecord& record) { Keeper::instance().release(record); }

uint64_t processGeneration() { return generation.load(std::memory_order_relaxed); }

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk
