// TCP server: SocketServer listens on one IPv4 port and makes a SocketClientProxy, with its own
// receiving thread, for every accepted connection.
//
// Server life: bind(device, port) starts the accepting thread (state Connected); the
// application calls update() periodically (it reaps finished connections, printing
// "[<size>] delete client <fd>" and "[<size>] erase client " to standard error for each, then
// calls onUpdate of every connected one); stop() stops the connections and waits for the
// accepting thread. A server is meant to be bound once.
//
// Shutting down: stop(), join() and the destructor wait until ONE MORE connection arrives,
// because nothing wakes the accepting thread's blocked accept. stop() also drops finished
// connections from the list without deleting them, and the destructor deletes none. Always
// call shutdownTcpServer(server) (or SocketServer::shutdown()) before deleting a server: it
// returns promptly, ends every thread the server started and deletes every connection; the
// destructor then has nothing left to wait for. bind(..., 0) lets the kernel choose the port;
// getPort() tells which.
//
// Binding again: a second bind() drops every connection from the list WITHOUT deleting it (the
// application must delete those itself, e.g. through the ITcpSocket pointers newInstance
// received) and starts a second accepting thread; the first keeps accepting on the first port.
// stop(), join() and the destructor wait for the newest accepting thread only; shutdown() also
// wakes and joins the earlier ones and closes their listening sockets.
//
// Server-side connection (SocketClientProxy), per policy, on its receiving thread:
// - LengthPrefixed (the default): every whole frame inside one receive is handed over in place,
//   header included: 00 00 00 02 'h' 'i' 00 00 00 01 'x' gives (6 bytes at the first header),
//   then (5 bytes at the second). Frames are never reassembled: a frame cut by a receive
//   boundary is dropped with the rest of that receive, and its tail, when it arrives, is read
//   as if it began with a header. A header of 2^31 - 3 or more can never fit in a receive: it
//   is dropped the same way, with the rest of its receive. Keep frames at most 4096 bytes,
//   header included, and expect loss when a peer sends faster than it is read.
// - Lines: the receive is split at CR and LF; every token but the LAST of each receive is
//   delivered, and each delivery carries all earlier tokens of the same receive before the new
//   one: "a\r\nbb\r\nc\r\n" gives "a" then "abb"; "a\r\n" alone gives nothing. A command is
//   therefore delivered only when another token follows it in the SAME receive; an empty line
//   typed afterwards arrives as a receive of its own and delivers nothing. Send one command per
//   write followed by a second token, e.g. a dot after a carriage return, all in one write:
//   printf 'status\r.\n' | nc -q 1 host port (interactively in nc: type the command,
//   Ctrl-V Ctrl-M, a dot, then Enter). "status\n.\n" works too when it arrives in one piece,
//   but line-buffered writers may send it as two writes.
// - Raw: every receive (at most 4096 bytes) as it is.
// Other policy values make the loop receive nothing and spin until stopped.
//
// Threads and their stacks: bind starts the accepting thread (newInstance runs there) and each
// accepted connection starts its receiving thread (onConnected, onReceived, onDisconnected,
// onStopped run there). Each has a stack of kTcpThreadStackSize (256 KiB) unless
// setThreadStackSize chose another size before bind. The thread's static TLS and the
// library's frames (with the 4 KiB receive buffer) lie above a callback: about 10 KiB on a
// receiving thread, 6 KiB on the accepting thread, more if the program has large thread_local
// objects; an echo or a diagnostic answer built from a few strings reaches 13 KiB deep in all.
// newInstance and the callbacks may use up to the size less 16 KiB (240 KiB by default): keep
// large buffers in the callback object or on the heap, allocated in newInstance or earlier,
// not in local arrays and not on the receiving thread (see "Locked memory" below). Running
// past the end of the stack ends the process (it hits the guard page). Under ThreadSanitizer,
// which keeps about 0.8 MiB of its own at the top of every thread's stack, ask for 1 MiB more.
//
// Locked memory: under mlockall(MCL_CURRENT | MCL_FUTURE) each connection locks its stack and
// guard page (260 KiB of VmLck, 256 KiB resident) and the few KiB its objects take on the
// heap; with the platform's 8 MiB stack it was 8 MiB resident per connection. The library
// allocates nothing on a receiving thread. A thread that does allocate (the accepting thread,
// because newInstance returns a new object; a callback that builds strings) gets a heap arena
// of its own from glibc (up to 8 arenas per core): 64 MiB of locked address space (VmLck,
// which counts against RLIMIT_MEMLOCK) and 132 KiB resident each. Calling
// mallopt(M_ARENA_MAX, 1) at start-up, before any thread starts, keeps every thread in the
// main heap; the library never changes that setting itself.
//
// Connection limit: setConnectionLimit(n) bounds the connections in the list (connected, or
// finished and not yet reaped by update/dump); a connection arriving while n are listed is
// accepted and closed at once (the peer reads end of file), without newInstance or a thread,
// and counted by getRefusedConnectionCount(). The default, 0, is unlimited.
//
// Threading: the accepting thread constructs connections (newInstance runs there) and appends
// them to the list; update, dump, stop, join and shutdown belong to one application thread.
// onDisconnected, onStopped and onUpdate run under the connection's recursive state lock, so
// they may call getState or send on the same connection; onConnected and onReceived run
// without it. The flags, states and the list are safe to read from any thread.
//
// Deriving from SocketClientProxy or SocketServer: the receiving and accepting threads call the
// callbacks only, never a virtual function of the connection itself, so overrides run on the
// application's threads, and a derived connection's constructor and destructor never race
// with its receiving thread (which starts inside SocketClientProxy's constructor).
#ifndef MOSK_KELVO_SOCKET_SERVER_H_
#define MOSK_KELVO_SOCKET_SERVER_H_

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>  // Kept: unused here since the threads got bounded stacks; includers use it
#include <vector>

#include "mosk/kelvo/export.h"
#include "mosk/kelvo/socket_interface.h"

namespace mosk {
namespace kelvo {

class SocketThread;

// One accepted connection. Owns the descriptor (closed by its receiving loop), its callback
// (deleted with it) and its receiving thread.
class KELVO_EXPORT SocketClientProxy : public ITcpSocket {
 public:
  // Asks prototype->newInstance(this) for the callback, then starts receiving on a thread with
  // a stack of kTcpThreadStackSize.
  SocketClientProxy(const int& fd, TcpCallback* prototype);
  // The same with a receiving thread's stack of threadStackSize bytes (0: the platform's
  // default; the server passes its setThreadStackSize value). If the thread cannot start, the
  // callback is deleted again and std::system_error is thrown; fd stays open.
  SocketClientProxy(const int& fd, TcpCallback* prototype, size_t threadStackSize);
  // stop(true), join the receiving thread, delete the callback.
  ~SocketClientProxy() override;
  SocketClientProxy(const SocketClientProxy&) = delete;
  SocketClientProxy& operator=(const SocketClientProxy&) = delete;

  // The connection's descriptor; -1 once its receiving loop has closed it.
  int getFd() const override;
  // One send(2) of `length` bytes, no retry. Returns 0 for any count sent (a partial one too);
  // -1 with the last error "send failed: Not connected" unless Connected, or "send failed:
  // <strerror>" when send fails. It asks the virtual getState() and getFd(), so a derived
  // connection's overrides decide; getState() takes the state lock that is held around every
  // callback (recursive: an echo sent from inside a callback does not wait for it).
  int send(const char* data, const int& length) override;
  // Idle until the receiving thread runs, Connected while it receives, then Disconnected (the
  // peer closed or a receive failed) or Stopped (after stop()).
  TcpState getState() const override;
  // Takes effect at the next receive. A value outside the enumeration receives nothing.
  void setRecvPolicy(const TcpReceivePolicy& policy) override;
  // The callback newInstance returned for this connection; deleted with it.
  TcpCallback* getTcpCallback() const override;

  // Shuts the socket down if `shut`, then clears the running flag: the receiving loop ends at
  // its next check. Returns 0.
  int stop(const bool& shut);
  // Calls the callback's onUpdate under the state lock.
  void onUpdate();
  // The last send error, or empty (an addition: the interface has no getter).
  std::string getLastError() const;

 private:
  void receivingLoop();
  void receiveRaw(char* buffer, bool& ended);
  void receiveLengthPrefixed(char* buffer, int& offset, int& fill, bool& ended);
  void receiveLines(char* buffer, bool& ended);
  void finish();
  void setLastError(const std::string& text);

  SocketThread* thread_ = nullptr;
  TcpCallback* callback_ = nullptr;
  std::atomic<bool> running_{true};
  std::atomic<int> fd_;
  std::atomic<TcpReceivePolicy> policy_{TcpReceivePolicy::LengthPrefixed};
  mutable std::recursive_mutex stateMutex_;
  TcpState state_ = TcpState::Idle;
  mutable std::mutex errorMutex_;  // guards lastError_ only
  std::string lastError_;
  std::mutex fdMutex_;  // orders shutdown against close, so a reused number is never shut down
  // The Lines accumulator, reserved for one whole receive by the constructor so that the
  // receiving thread never allocates.
  std::string lines_;
};

class KELVO_EXPORT SocketServer : public ITcpServer {
 public:
  // Keeps `prototype` (deleted by the destructor) and does nothing else: bind() starts it.
  explicit SocketServer(TcpCallback* prototype);
  // Deletes the prototype, then stop(): waits for one more connection unless shutdown() ran.
  ~SocketServer() override;
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  // Listens on `port` (host order) on all addresses, tied to device `name` ("any": all
  // devices), and starts the accepting thread. Returns 0; -1 if no socket could be made, or with
  // the last error holding strerror of a failed bind or listen. Throws std::system_error if the
  // accepting thread cannot start.
  int bind(const char* name, const int& port) override;
  // dump(), then onUpdate of every connected connection. Returns 0.
  int update() override;
  // Stops connected connections, drops the others from the list without deleting them, clears
  // the running flag and joins the accepting thread (which ends only at the next accept).
  // Returns 0.
  int stop() override;
  // Waits for the newest accepting thread to end (at its next accept once stopped); returns at
  // once if there is none or it was joined already.
  void join() override;
  // Deletes finished (Disconnected or Stopped) connections, printing "[<size>] delete client
  // <fd>" and "[<size>] erase client " to standard error for each.
  void dump() override;
  // Idle until bound, Connected while accepting, Stopped once the accepting thread has ended.
  TcpState getState() const override;
  // The connections in the list: connected ones and finished ones not yet reaped.
  size_t getAcceptSocketCount() const override;

  // Additions. shutdown() ends the server promptly: it stops every connection, clears the
  // running flag, shuts the listening socket down so that the accepting thread ends at once,
  // joins it and deletes every connection (their callbacks' onDisconnected or onStopped run on
  // their own threads first). Returns 0; safe to call twice, or on a server never bound.
  int shutdown();
  // The strerror text of the last failed bind, listen or accept, or of a connection thread
  // that could not start.
  std::string getLastError() const;
  // The port the server listens on (host order), or 0: useful after bind(..., 0).
  int getPort() const;
  // The stack of the threads this server starts from now on: the accepting thread (at bind)
  // and each connection's receiving thread. Rounded up to whole pages; 0 restores the
  // platform's default (what std::thread gives: RLIMIT_STACK, usually 8 MiB). Returns 0, or -1
  // for a size below kTcpMinThreadStackSize (64 KiB), which leaves the setting unchanged. Set
  // it before bind; a change after bind applies to the connections accepted afterwards. A
  // size the system cannot provide makes bind throw std::system_error, and makes each
  // connection be closed and counted as refused (getLastError() says why).
  int setThreadStackSize(size_t bytes);
  size_t getThreadStackSize() const;  // kTcpThreadStackSize until set
  // At most `maximum` connections in the list (0, the default: no limit). A connection that
  // arrives while `maximum` are listed is closed at once and counted. Takes effect at the next
  // accept; call update() to reap finished connections and make room.
  void setConnectionLimit(size_t maximum);
  size_t getConnectionLimit() const;  // 0 (no limit) until set
  // Connections closed at once on arrival since construction: past the connection limit, or
  // because their receiving thread could not start.
  uint64_t getRefusedConnectionCount() const;

 private:
  void acceptingLoop();
  void acceptConnection(int fd);
  bool atConnectionLimit() const;
  void setLastError(const char* text);
  SocketClientProxy* entryAt(size_t index) const;
  void eraseAt(size_t index);
  std::vector<SocketClientProxy*> takeAll();
  void joinRetired();

  std::atomic<int> listenFd_{-1};
  std::atomic<bool> running_{true};
  SocketThread* thread_ = nullptr;
  sockaddr_in address_{};
  // The accepting thread appends while the application thread reads and removes; the lock is
  // held only for those vector operations, never across a callback or a join.
  mutable std::mutex listMutex_;
  std::vector<SocketClientProxy*> clients_;
  TcpCallback* prototype_ = nullptr;
  std::atomic<TcpState> state_{TcpState::Idle};
  mutable std::mutex errorMutex_;
  std::string lastError_;
  // Accepting threads and listening sockets of earlier binds, ended only by shutdown().
  std::vector<SocketThread*> retiredThreads_;
  std::vector<int> retiredListenFds_;
  std::atomic<size_t> threadStackSize_{kTcpThreadStackSize};
  std::atomic<size_t> connectionLimit_{0};
  std::atomic<uint64_t> refusedConnections_{0};
};

// Prompt shutdown through the interface: SocketServer::shutdown() when `server` is a
// SocketServer (every server newTcpServer makes), else -1.
KELVO_EXPORT int shutdownTcpServer(ITcpServer* server);

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_SOCKET_SERVER_H_
