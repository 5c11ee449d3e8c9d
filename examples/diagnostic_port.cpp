// kelvo-diagnostic-port: a control program with a text diagnostic port next to its periodic
// thread.
//
//   kelvo-diagnostic-port [--port 7001] [--seconds 0] [--period-us 1000]
//
// A 1 kHz PeriodicThread runs a "controller" task; a Lines TCP server answers the commands
// "status", "tasks" and "help", one command per write:
//
//   $ printf 'status\r.\n' | nc -q 1 localhost 7001
//   cycles 5321 tasks 1 clients 1
//
// The Lines framing never delivers the last token of a receive, so a command must be followed,
// in the same write, by a second token (here a carriage return and a single dot, which is
// ignored; the one line feed at the end keeps line-buffered writers to one write).
// Interactively in nc, type the command, Ctrl-V Ctrl-M, a dot and Enter. Ends on SIGINT/SIGTERM or
// after
// --seconds (0: no limit); needs SCHED_FIFO (root or CAP_SYS_NICE) for the periodic thread.
#include <mosk/kelvo.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "tcp_example_options.h"

using namespace mosk::kelvo;

namespace {

constexpr int kPriority = 80;

std::atomic<uint64_t> controllerCycles{0};

// One per connection: answers each command on the connection's own thread.
class DiagnosticCommands : public TcpCallback {
 public:
  DiagnosticCommands(PeriodicThread* thread, ITcpServer** server, ITcpSocket* socket = nullptr)
      : thread_(thread), server_(server), socket_(socket) {}
  TcpCallback* newInstance(ITcpSocket* socket) override {
    socket->setRecvPolicy(TcpReceivePolicy::Lines);  // before the first receive
    return new DiagnosticCommands(thread_, server_, socket);
  }
  void onConnected() override {}
  void onDisconnected() override {}
  void onReceived(const char* data, const int& length) override {
    std::string reply = answer(std::string(data, static_cast<size_t>(length)));
    socket_->send(reply.data(), static_cast<int>(reply.size()));
  }
  void onUpdate() override {}
  void onStopped() override {}

 private:
  std::string answer(const std::string& command) const {
    if (command == ".") return "";
    if (command == "status") {
      return "cycles " + std::to_string(controllerCycles.load(std::memory_order_relaxed)) +
             " tasks " + std::to_string(thread_->tasksSize()) + " clients " +
             std::to_string((*server_)->getAcceptSocketCount()) + "\n";
    }
    if (command == "tasks") return thread_->getTaskNames();
    if (command == "help") return "commands: status, tasks, help (end each with CR and '.')\n";
    return "unknown command '" + command + "' (one command per write)\n";
  }

  PeriodicThread* thread_;
  ITcpServer** server_;
  ITcpSocket* socket_;
};

bool mayUseSchedFifo() {
  int result = -1;
  std::thread([&] { result = setPriority(kPriority); }).join();
  return result == 0;
}

}  // namespace

int main(int argc, char** argv) {
  tcp_example::Options options("kelvo-diagnostic-port", argc, argv,
                               {{"port", "7001"}, {"seconds", "0"}, {"period-us", "1000"}},
                               "[--port N] [--seconds S] [--period-us US]");
  int port = static_cast<int>(options.integer("port", 0, 65535));
  long seconds = options.integer("seconds", 0, 86400 * 365);
  auto periodUs = static_cast<unsigned>(options.integer("period-us", 100, 1000000));
  if (!mayUseSchedFifo()) {
    std::fprintf(stderr,
                 "kelvo-diagnostic-port needs SCHED_FIFO: run it as root or grant "
                 "CAP_SYS_NICE\n");
    return 1;
  }
  blockSigpipe();
  tcp_example::installSignalHandlers();

  PeriodicThread thread(periodUs, "control", ScheduleMethod::Sequential, -1, kPriority);
  thread.addTask(
      "controller", [] { controllerCycles.fetch_add(1, std::memory_order_relaxed); }, 0, periodUs);
  thread.start(0);

  ITcpServer* server = nullptr;
  server = newTcpServer(new DiagnosticCommands(&thread, &server));
  int result = 0;
  if (server->bind("any", port) != 0) {
    std::fprintf(stderr, "kelvo-diagnostic-port: cannot listen on port %d: %s\n", port,
                 dynamic_cast<SocketServer*>(server)->getLastError().c_str());
    result = 1;
  } else {
    std::printf("diagnostic port %d\n", dynamic_cast<SocketServer*>(server)->getPort());
    std::fflush(stdout);
    tcp_example::updateUntilStopped(server, seconds);
  }
  shutdownTcpServer(server);  // returns at once; a bare delete would wait for a connection
  delete server;
  thread.stop();  // the destructor neither stops nor joins
  thread.join();
  return result;
}
