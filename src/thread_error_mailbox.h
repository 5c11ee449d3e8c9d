// The periodic thread's error text: a two-slot exchange through which the loop hands its latest
// overshoot message to whichever thread calls getErrorString(). Private to the library (and to
// the test that checks it on its own).
//
// Threading rules: one writer (the loop thread) calls publish(); any number of readers call
// take(). Neither side locks, allocates (publish) or waits for the other.
#ifndef KELVO_SRC_THREAD_ERROR_MAILBOX_H_
#define KELVO_SRC_THREAD_ERROR_MAILBOX_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace mosk {
namespace kelvo {
namespace internal {

// Size of a periodic thread's error text, terminating NUL included.
constexpr size_t kErrorTextSize = 1024;

// The loop's latest error message, readable once from any thread. The loop (the only writer)
// never waits. Messages alternate between two slots, each guarded by its own sequence number,
// so the slot of the latest complete message is never the one being written: a reader copies
// it and checks that its sequence did not move. A reader never spins and never waits for the
// writer (a reader at a higher SCHED_FIFO priority on the loop's CPU would keep the writer from
// finishing): it tries a bounded number of times, and each failure means two newer messages
// were completed meanwhile, which only a writer on another CPU can do.
class ErrorMailbox {
 public:
  // Loop thread only. Keeps the first kErrorTextSize - 1 bytes of `text`.
  void publish(const char* text) {
    const uint64_t number = published_.load(std::memory_order_relaxed) + 1;
    Slot& slot = slots_[number % 2];
    slot.sequence.store(2 * number - 1, std::memory_order_relaxed);  // odd: being written
    const size_t length = strnlen(text, kErrorTextSize - 1);
    uint64_t word[kWords] = {};
    std::memcpy(word, text, length);
    // Release stores (plain moves on x86-64): a reader that sees any of these words also sees
    // the odd sequence stored before them, and retries.
    for (size_t i = 0; i <= length / 8; ++i) {
      slot.words[i].store(word[i], std::memory_order_release);
    }
    slot.sequence.store(2 * number, std::memory_order_release);
    published_.store(number, std::memory_order_release);
  }

  // The message published last, or "" if it was read already (or none was published, or the
  // writer kept completing newer messages during every attempt: the next call reads them).
  std::string take() {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      const uint64_t number = published_.load(std::memory_order_acquire);
      uint64_t seen = consumed_.load(std::memory_order_acquire);
      if (number == seen) return {};
      const Slot& slot = slots_[number % 2];
      const uint64_t sequence = slot.sequence.load(std::memory_order_acquire);
      if (sequence != 2 * number) continue;  // already being overwritten by a newer message
      uint64_t word[kWords];
      for (size_t i = 0; i < kWords; ++i) word[i] = slot.words[i].load(std::memory_order_acquire);
      if (slot.sequence.load(std::memory_order_relaxed) != sequence) continue;
      if (!consumed_.compare_exchange_strong(seen, number)) continue;
      const char* text = reinterpret_cast<const char*>(word);
      return std::string(text, strnlen(text, kErrorTextSize - 1));
    }
    return {};
  }

 private:
  static constexpr size_t kWords = kErrorTextSize / 8;
  static constexpr int kAttempts = 4;
  struct Slot {
    std::atomic<uint64_t> sequence{0};  // 2n once message n is complete, odd while written
    std::atomic<uint64_t> words[kWords] = {};
  };
  std::atomic<uint64_t> published_{0};  // number of the latest complete message
  std::atomic<uint64_t> consumed_{0};   // number of the message read last
  Slot slots_[2];
};

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_THREAD_ERROR_MAILBOX_H_
