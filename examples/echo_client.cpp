// kelvo-echo-client: sends N LengthPrefixed frames to an echo server, one at a time, checks
// every echo and prints the round-trip percentiles.
//
//   kelvo-echo-client --port 7000 [--host 127.0.0.1] [--count 1000] [--size 64]
//
// --size is the frame's payload (0 to 4092 bytes: a frame, header included, must fit in the
// server's 4096-byte receive). Exits 0 when every echo came back intact, 1 otherwise.
#include <arpa/inet.h>
#include <mosk/kelvo.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "tcp_example_options.h"

using namespace mosk::kelvo;
using Clock = std::chrono::steady_clock;

namespace {

// Keeps the latest echo for the main thread.
class Receiver : public TcpCallback {
 public:
  TcpCallback* newInstance(ITcpSocket*) override { return new Receiver(); }
  void onConnected() override {}
  void onDisconnected() override {}
  void onReceived(const char* data, const int& length) override {
    std::lock_guard<std::mutex> lock(mutex_);
    echo_.assign(data, static_cast<size_t>(length));
    arrived_ = true;
    changed_.notify_all();
  }
  void onUpdate() override {}
  void onStopped() override {}

  // The next echo, or an empty string after `limit`.
  std::string wait(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return arrived_; })) return {};
    arrived_ = false;
    return echo_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string echo_;
  bool arrived_ = false;
};

std::string makeFrame(size_t payload, long index) {
  std::string frame(4 + payload, '\0');
  uint32_t length = htonl(static_cast<uint32_t>(payload));
  std::memcpy(&frame[0], &length, 4);
  for (size_t i = 0; i < payload; ++i) frame[4 + i] = static_cast<char>('a' + (index + i) % 26);
  return frame;
}

double percentile(const std::vector<double>& sorted, double p) {
  return sorted[std::min(sorted.size() - 1, static_cast<size_t>(p * sorted.size()))];
}

}  // namespace

int main(int argc, char** argv) {
  tcp_example::Options options(
      "kelvo-echo-client", argc, argv,
      {{"host", "127.0.0.1"}, {"port", "7000"}, {"count", "1000"}, {"size", "64"}},
      "[--host IPv4] [--port N] [--count N] [--size BYTES]");
  std::string host = options.text("host");
  in_addr parsed{};
  if (inet_pton(AF_INET, host.c_str(), &parsed) != 1) {
    options.fail("--host must be a dotted IPv4 address, got '" + host + "'");
  }
  int port = static_cast<int>(options.integer("port", 1, 65535));
  long count = options.integer("count", 1, 100000000);
  size_t size = static_cast<size_t>(options.integer("size", 0, 4092));

  blockSigpipe();
  auto* receiver = new Receiver();  // the prototype: the client deletes it
  ITcpClient* client = newTcpClient(receiver);
  auto* echoes = static_cast<Receiver*>(dynamic_cast<ITcpSocket*>(client)->getTcpCallback());
  int result = 0;
  if (client->connect(host.c_str(), port, 5000) != 0) {
    std::fprintf(stderr, "kelvo-echo-client: no server at %s:%d\n", host.c_str(), port);
    result = 1;
  }
  std::vector<double> roundTripsUs;
  for (long i = 0; result == 0 && i < count; ++i) {
    std::string frame = makeFrame(size, i);
    auto start = Clock::now();
    if (client->send(frame.data(), static_cast<int>(frame.size())) != 0) {
      std::fprintf(stderr, "kelvo-echo-client: %s\n", client->getLastError().c_str());
      result = 1;
      break;
    }
    std::string echo = echoes->wait(std::chrono::seconds(10));
    roundTripsUs.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (echo != frame) {
      std::fprintf(stderr, "kelvo-echo-client: frame %ld came back %s\n", i,
                   echo.empty() ? "not at all within 10 s" : "altered");
      result = 1;
    }
  }
  client->stop(true);  // after connect has returned: never while it may still be connecting
  delete client;
  delete echoes;  // the client never deletes its callback
  if (result == 0) {
    std::sort(roundTripsUs.begin(), roundTripsUs.end());
    std::printf("%ld frames of %zu bytes echoed intact\n", count, size + 4);
    std::printf("round trip us: min %.1f p50 %.1f p90 %.1f p99 %.1f max %.1f\n",
                roundTripsUs.front(), percentile(roundTripsUs, 0.5), percentile(roundTripsUs, 0.9),
                percentile(roundTripsUs, 0.99), roundTripsUs.back());
  }
  return result;
}
