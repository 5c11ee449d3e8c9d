// kelvo-echo-server: a LengthPrefixed TCP server that sends every frame back to its sender.
//
//   kelvo-echo-server --port 7000 [--device any] [--seconds 0]
//
// Prints "listening on port <port>" (with --port 0 the kernel chooses), reaps finished
// connections every 100 ms, and ends on SIGINT/SIGTERM or after --seconds (0: no limit). It
// ends through shutdownTcpServer, which returns at once, never through a bare delete, which
// would wait for one more connection.
#include <mosk/kelvo.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "tcp_example_options.h"

using namespace mosk::kelvo;

namespace {

// One per connection: every frame, header included, goes back as it came.
class Echo : public TcpCallback {
 public:
  explicit Echo(ITcpSocket* socket = nullptr) : socket_(socket) {}
  TcpCallback* newInstance(ITcpSocket* socket) override { return new Echo(socket); }
  void onConnected() override {}
  void onDisconnected() override {}
  void onReceived(const char* data, const int& length) override { socket_->send(data, length); }
  void onUpdate() override {}
  void onStopped() override {}

 private:
  ITcpSocket* socket_;
};

}  // namespace

int main(int argc, char** argv) {
  tcp_example::Options options("kelvo-echo-server", argc, argv,
                               {{"port", "7000"}, {"device", "any"}, {"seconds", "0"}},
                               "[--port N] [--device NAME|any] [--seconds S]");
  int port = static_cast<int>(options.integer("port", 0, 65535));
  long seconds = options.integer("seconds", 0, 86400 * 365);
  std::string device = options.text("device");
  if (device.empty() || device.size() > 16) options.fail("--device must have 1 to 16 characters");

  blockSigpipe();  // a peer that leaves while we echo must not end the process
  tcp_example::installSignalHandlers();
  ITcpServer* server = newTcpServer(new Echo());
  if (server->bind(device.c_str(), port) != 0) {
    std::fprintf(stderr, "kelvo-echo-server: cannot listen on port %d: %s\n", port,
                 dynamic_cast<SocketServer*>(server)->getLastError().c_str());
    shutdownTcpServer(server);
    delete server;
    return 1;
  }
  std::printf("listening on port %d\n", dynamic_cast<SocketServer*>(server)->getPort());
  std::fflush(stdout);
  tcp_example::updateUntilStopped(server, seconds);
  shutdownTcpServer(server);
  delete server;
  std::printf("stopped\n");
  return 0;
}
