// iceoryx 2.0.3 as its own examples use it for the lowest latency: the untyped publisher and
// subscriber (no constructor runs on a loaned chunk), the payload written in place in a loaned
// chunk and read in place from the received one, a subscriber queue of one (the newest sample,
// as the other two transports keep), and a WaitSet on the subscriber's HAS_DATA state for the
// blocking case. Needs a running iox-roudi; the orchestrator starts it.
#include <cstring>
#include <memory>
#include <thread>

#include "iceoryx_hoofs/log/logmanager.hpp"
#include "iceoryx_posh/popo/untyped_publisher.hpp"
#include "iceoryx_posh/popo/untyped_subscriber.hpp"
#include "iceoryx_posh/popo/wait_set.hpp"
#include "iceoryx_posh/runtime/posh_runtime.hpp"
#include "topic_pingpong.h"

namespace pingpong {
namespace {

iox::capro::ServiceDescription serviceOf(const std::string& name) {
  return {"kelvo-bench", iox::capro::IdString_t(iox::cxx::TruncateToCapacity, name.c_str()),
          "payload"};
}

iox::popo::SubscriberOptions newestOnly() {
  iox::popo::SubscriberOptions options;
  options.queueCapacity = 1;
  options.historyRequest = 0;
  return options;
}

class IceoryxLink : public CopyPublishing<IceoryxLink> {
 public:
  IceoryxLink(const CaseConfig& config, Role role)
      : CopyPublishing(config.payloadBytes),
        bytes_(static_cast<uint32_t>(config.payloadBytes)),
        publisher_(serviceOf(directionName(config, role))),
        subscriber_(
            serviceOf(directionName(config, role == Role::kPing ? Role::kPong : Role::kPing)),
            newestOnly()) {
    if (config.blocking) {
      waitSet_.emplace();
      attached_ =
          !waitSet_->attachState(subscriber_, iox::popo::SubscriberState::HAS_DATA).has_error();
    }
  }
  IceoryxLink(const IceoryxLink&) = delete;
  IceoryxLink& operator=(const IceoryxLink&) = delete;

  bool attached() const { return attached_; }
  bool connected() const {
    return publisher_.hasSubscribers() &&
           subscriber_.getSubscriptionState() == iox::SubscribeState::SUBSCRIBED;
  }

  uint64_t* loan() {
    for (;;) {
      auto chunk = publisher_.loan(bytes_, alignof(uint64_t));
      if (!chunk.has_error()) {
        loaned_ = chunk.value();
        return static_cast<uint64_t*>(loaned_);
      }
      ++retries_;  // every chunk of the pool in use: another try
    }
  }
  void send() { publisher_.publish(loaned_); }
  const uint64_t* poll() {
    auto chunk = subscriber_.take();
    if (chunk.has_error()) return nullptr;
    taken_ = chunk.value();
    return static_cast<const uint64_t*>(taken_);
  }
  void release() { subscriber_.release(taken_); }
  bool wait(uint64_t ns) {
    return !waitSet_->timedWait(iox::units::Duration::fromNanoseconds(ns)).empty();
  }

  uint64_t retries() const { return retries_; }

 private:
  uint32_t bytes_;
  iox::popo::UntypedPublisher publisher_;
  iox::popo::UntypedSubscriber subscriber_;
  iox::cxx::optional<iox::popo::WaitSet<>> waitSet_;
  bool attached_ = true;
  void* loaned_ = nullptr;
  const void* taken_ = nullptr;
  uint64_t retries_ = 0;
};

}  // namespace

int runIceoryxWorker(const CaseConfig& config, Role role, Shared* shared) {
  std::string app = config.name + (role == Role::kPing ? "-ping" : "-pong");
  // Warnings and errors only: the runtime's default is to narrate every registration.
  iox::log::LogManager::GetLogManager().SetDefaultLogLevel(iox::log::LogLevel::kWarn,
                                                           iox::log::LogLevelOutput::kHideLogLevel);
  iox::runtime::PoshRuntime::initRuntime(
      iox::RuntimeName_t(iox::cxx::TruncateToCapacity, app.c_str()));
  auto link = std::make_unique<IceoryxLink>(config, role);
  if (!link->attached()) return fail(shared, role, "cannot attach the subscriber to a WaitSet");
  Deadline deadline(config.timeoutSeconds);
  while (!link->connected()) {
    if (deadline.passed()) return fail(shared, role, "publisher and subscriber never matched");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!meetPeer(role, shared, config.timeoutSeconds)) {
    return fail(shared, role, "the other process did not connect in time");
  }
  int rc = runRole(*link, config, role, shared);
  shared->retries[static_cast<int>(role)].store(link->retries());
  return rc;
}

}  // namespace pingpong
