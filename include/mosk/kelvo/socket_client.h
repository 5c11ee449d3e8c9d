// TCP client: SocketClient keeps one outgoing IPv4 connection alive on its own receiving
// thread, reconnecting after every loss, and hands length-prefixed frames to its callback.
//
// connect(ip, port, timeoutMs) starts the receiving thread, which connects (each attempt may
// take up to 100 s), delivers frames, and after a failure or a loss retries once a second,
// without limit, until stopped. timeoutMs 0 returns 0 at once (connecting goes on in the
// background); > 0 waits once and returns 0 only if connected before the deadline; < 0 waits in
// steps of 100 ms until connected (and never returns if the client was stopped before). A
// second connect while the thread exists returns -1, but its address is used from the next
// attempt on. A connected client returns 0 at once.
//
// Receiving ALWAYS uses the 4-byte big-endian length prefix: setRecvPolicy stores the policy
// and nothing reads it. Each frame is handed over in place, header included, with length
// N + 4. A frame whose declared length runs past the received bytes is held back and completed
// by the following receives, then handed over whole; bytes that were not received are never
// handed over. Frames longer than 4096 bytes (header included) cannot be held: their bytes are
// dropped as they arrive and the next frame is read after them. Nothing held back survives a
// reconnection: each connection starts with an empty buffer.
//
// stop(shut) hazards: stop holds the client's mutex while it joins the receiving thread.
// - Call stop only after connect has returned, from the thread that called connect, and
//   never from a callback of this client (that would join the calling thread).
// - stop(true) while connected gives onDisconnected then onStopped. The shutdown comes before
//   the running flag is cleared; stop marks the client as stopping before anything else, so
//   the receiving thread never starts a new attempt after the lost connection (a successful
//   one would be waited for by nothing but the peer), and an attempt already under way that
//   succeeds is closed without onConnected.
// - stop(false) while connected waits until the PEER closes.
// - While no server answers, stop waits for the attempt in progress: at most about 1 s when
//   the peer refuses, up to 100 s when nothing answers at all (an unreachable address).
// A stopped client cannot be reused: a later connect starts a thread that ends at once with
// onStopped. The destructor calls stop(true) and never deletes the callback: the application
// owns it (getTcpCallback()).
//
// The receiving thread has a stack of kTcpThreadStackSize (256 KiB) unless setThreadStackSize
// chose another size before connect; the callbacks may use up to the size less 16 KiB (the
// thread's static TLS and the library's frames lie above them). connect allocates the receive
// buffer before it starts the thread, and the thread allocates nothing itself: under
// mlockall(MCL_FUTURE) a client costs its stack and guard page in locked memory (about 270 KiB
// of VmLck), plus a heap arena only if a callback allocates (see socket_server.h, "Locked
// memory").
//
// Threading: onConnected runs on the receiving thread under the client's mutex (so it must
// not call connect or stop); the other events on the receiving thread without it; onUpdate on
// the caller of update(). send may be called from any thread, including the callbacks.
//
// Deriving from SocketClient: the receiving thread calls the callback only, never a virtual
// function of the client, so overrides (getState, getFd, ...) run on the application's threads
// and a derived client may be destroyed while connected: its destructor runs before the base
// destructor's stop(true) ends the receiving thread, without a race.
#ifndef MOSK_KELVO_SOCKET_CLIENT_H_
#define MOSK_KELVO_SOCKET_CLIENT_H_

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>  // Kept: unused here since the threads got bounded stacks; includers use it

#include "mosk/kelvo/export.h"
#include "mosk/kelvo/socket_interface.h"

namespace mosk {
namespace kelvo {

class SocketThread;

class KELVO_EXPORT SocketClient : public ITcpClient, public ITcpSocket {
 public:
  // The callback is prototype->newInstance(this) when prototype is not null; the prototype is
  // deleted here.
  explicit SocketClient(TcpCallback* prototype);
  ~SocketClient() override;
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;

  int getFd() const override;
  int connect(const char* ip, const int& port, const int& timeout) override;
  // Calls the callback's onUpdate when connected. Returns 0.
  int update() override;
  // -1 with the last error "send failed: Not connected" unless Connected; one send(2) otherwise.
  int send(const char* data, const int& length) override;
  TcpState getState() const override;
  int stop(const bool& shut) override;
  void join() override;
  std::string getLastError() const override;
  void setRecvPolicy(const TcpReceivePolicy& policy) override;  // Kept: stored, never consulted
  TcpCallback* getTcpCallback() const override;

  // Additions. The receiving thread's stack for the next connect, rounded up to whole pages;
  // 0 restores the platform's default (what std::thread gives: RLIMIT_STACK, usually 8 MiB).
  // Returns 0, or -1 for a size below kTcpMinThreadStackSize (64 KiB), which leaves the
  // setting unchanged. A size the system cannot provide makes connect throw std::system_error.
  int setThreadStackSize(size_t bytes);
  size_t getThreadStackSize() const;  // kTcpThreadStackSize until set

 private:
  void receivingLoop();
  void end();
  bool connectOnce();
  void receiveUntilLost(char* buffer);
  void setLastError(const std::string& text);
  void closeFd();

  std::atomic<int> fd_{-1};
  std::atomic<bool> running_{true};
  std::atomic<bool> stopping_{false};  // set first thing by stop: no new connect attempt
  // Server address: port (network order) in the high 32 bits, IPv4 address (network order) in
  // the low 32, so that connect can replace it while the receiving thread reads it.
  std::atomic<uint64_t> server_{0};
  std::atomic<TcpState> state_{TcpState::Idle};
  mutable std::mutex errorMutex_;  // guards lastError_ only
  std::string lastError_;
  std::atomic<TcpReceivePolicy> policy_{TcpReceivePolicy::Raw};
  SocketThread* thread_ = nullptr;
  TcpCallback* callback_ = nullptr;
  std::mutex mutex_;
  std::condition_variable condition_;
  std::mutex fdMutex_;  // orders shutdown against close, so a reused number is never shut down
  std::atomic<size_t> threadStackSize_{kTcpThreadStackSize};
  // Allocated by the first connect, before the receiving thread starts, and kept until the
  // client is destroyed: the receiving thread never allocates.
  std::unique_ptr<char[]> buffer_;
};

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_SOCKET_CLIENT_H_
