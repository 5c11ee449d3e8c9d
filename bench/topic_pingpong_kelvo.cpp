// kelvo topics as a user writes them: a Publisher and a Subscriber per direction, the payload
// written in place with loan()/publishLoaned(), received in order with take() (a copy out of
// the topic, then checked), and Subscriber::wait() for the blocking case. Publish under load
// uses publish() of a prepared sample and a reader calling latest() at full speed; publish
// never retries, so the retries column is zero by construction.
#include <chrono>
#include <memory>
#include <thread>

#include "mosk/kelvo/topic.h"
#include "topic_pingpong.h"

namespace pingpong {

struct Payload64 {
  uint64_t words[64 / sizeof(uint64_t)];
};
struct Payload64K {
  uint64_t words[65536 / sizeof(uint64_t)];
};
KELVO_TOPIC_TYPE(Payload64, "kelvo-bench/Payload64", 1);
KELVO_TOPIC_TYPE(Payload64K, "kelvo-bench/Payload64K", 1);

namespace {

template <typename T>
class KelvoLink {
 public:
  KelvoLink(const CaseConfig& config, Role role)
      : publisher_(directionName(config, role), mosk::kelvo::TopicOptions{config.kelvoDepth}),
        subscriber_(directionName(config, role == Role::kPing ? Role::kPong : Role::kPing),
                    mosk::kelvo::TopicOptions{config.kelvoDepth}) {}

  std::string error() const {
    if (!publisher_) return publisher_.error();
    if (!subscriber_) return subscriber_.error();
    return "";
  }

  uint64_t* loan() { return publisher_.loan().words; }
  void send() { publisher_.publishLoaned(); }
  const uint64_t* poll() { return subscriber_.take(sample_) ? sample_.value.words : nullptr; }
  void release() {}
  bool wait(uint64_t ns) { return subscriber_.wait(std::chrono::nanoseconds(ns)); }

  uint64_t* local() { return local_.words; }
  uint64_t publishLocal() {
    publisher_.publish(local_);
    return 0;
  }
  const uint64_t* pollLatest() {
    return subscriber_.latest(sample_) ? sample_.value.words : nullptr;
  }
  uint64_t retries() const { return 0; }

 private:
  mosk::kelvo::Publisher<T> publisher_;
  mosk::kelvo::Subscriber<T> subscriber_;
  mosk::kelvo::Sample<T> sample_{};
  T local_{};
};

template <typename T>
int runWorker(const CaseConfig& config, Role role, Shared* shared) {
  auto link = std::make_unique<KelvoLink<T>>(config, role);
  std::string error = link->error();
  if (!error.empty()) return fail(shared, role, error);
  if (!meetPeer(role, shared, config.timeoutSeconds)) {
    return fail(shared, role, "the other process did not connect in time");
  }
  return runRole(*link, config, role, shared);
}

}  // namespace

int runKelvoWorker(const CaseConfig& config, Role role, Shared* shared) {
  if (config.payloadBytes == sizeof(Payload64)) return runWorker<Payload64>(config, role, shared);
  return runWorker<Payload64K>(config, role, shared);
}

}  // namespace pingpong
