// The plain shm_* functions used as carefully as they allow: one segment per direction holding
// a sequence word and the payload. The writer takes the write lock (retrying while a reader
// holds the read lock), writes the payload, bumps the sequence and releases with shm_unlock
// (shm_wrunlock would refuse whenever a reader stamped the owner field since). The reader spins
// on the sequence word without any lock, and only when it changed takes the read lock (retrying
// while the writer holds it) and reads the payload under it. Blocking: the writer repeats
// shm_notify while it finds the condition's mutex busy (a waiter entering its wait); the
// reader sleeps in shm_timedwait with a short time limit, since a notify that comes between
// its check of the sequence and the start of its wait is lost.
#include <cerrno>
#include <cstring>

#include "mosk/kelvo/shm.h"
#include "topic_pingpong.h"

namespace pingpong {
namespace {

// Layout of the data area: it starts 4 bytes past an 8-byte boundary, so the sequence word sits
// at offset 4 (8-aligned) and the payload at 12 (64-aligned: the data area is 372 bytes into a
// page-aligned segment).
constexpr size_t kSequenceOffset = 4;
constexpr size_t kPayloadOffset = 12;

class ShmLink : public CopyPublishing<ShmLink> {
 public:
  ShmLink(const CaseConfig& config, Role role)
      : CopyPublishing(config.payloadBytes),
        blocking_(config.blocking),
        bytes_(config.payloadBytes),
        waitSliceUs_(static_cast<int>(config.waitSliceNs / 1000)) {
    Role other = role == Role::kPing ? Role::kPong : Role::kPing;
    out_ = static_cast<char*>(
        shm_connect_by_topic(directionName(config, role).c_str(), kPayloadOffset + bytes_));
    in_ = static_cast<char*>(
        shm_connect_by_topic(directionName(config, other).c_str(), kPayloadOffset + bytes_));
  }
  ShmLink(const ShmLink&) = delete;
  ShmLink& operator=(const ShmLink&) = delete;

  bool connected() const { return out_ != nullptr && in_ != nullptr; }

  uint64_t* loan() {
    while (shm_wrlock(out_) == EBUSY) ++retries_;
    return payload(out_);
  }
  void send() {
    sequence(out_)->store(++sent_, std::memory_order_release);
    shm_unlock(out_);
    if (!blocking_) return;
    while (shm_notify(out_) == EBUSY) ++retries_;
  }
  const uint64_t* poll() {
    uint64_t now = sequence(in_)->load(std::memory_order_acquire);
    if (now == seen_) return nullptr;
    seen_ = now;
    while (shm_rdlock(in_) == EBUSY) ++retries_;
    return payload(in_);
  }
  void release() { shm_unlock(in_); }
  bool wait(uint64_t) { return shm_timedwait(in_, waitSliceUs_) == 0; }

  uint64_t retries() const { return retries_; }

 private:
  static std::atomic<uint64_t>* sequence(char* data) {
    return reinterpret_cast<std::atomic<uint64_t>*>(data + kSequenceOffset);
  }
  static uint64_t* payload(char* data) {
    return reinterpret_cast<uint64_t*>(data + kPayloadOffset);
  }

  bool blocking_;
  size_t bytes_;
  int waitSliceUs_;
  char* out_ = nullptr;
  char* in_ = nullptr;
  uint64_t sent_ = 0;
  uint64_t seen_ = 0;
  uint64_t retries_ = 0;
};

}  // namespace

int runShmWorker(const CaseConfig& config, Role role, Shared* shared) {
  ShmLink link(config, role);
  if (!link.connected()) return fail(shared, role, "shm_connect_by_topic failed");
  if (!meetPeer(role, shared, config.timeoutSeconds)) {
    return fail(shared, role, "the other process did not connect in time");
  }
  int rc = runRole(link, config, role, shared);
  shared->retries[static_cast<int>(role)].store(link.retries());
  return rc;
}

}  // namespace pingpong
