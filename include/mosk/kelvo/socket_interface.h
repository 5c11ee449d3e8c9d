// The TCP vocabulary: one connected socket (ITcpSocket), a server (ITcpServer), a client
// (ITcpClient), the application's callback (TcpCallback), the receive framing
// (TcpReceivePolicy) and the socket state (TcpState), plus the two factories.
//
// The callback given to a factory is a prototype: every socket asks it for its own callback
// object with newInstance(socket) and sends all its events there (keep the socket pointer to
// reply with send). newInstance must never return null.
// Kept: ownership differs between the kinds of socket:
// - a server keeps its prototype for its whole life and deletes it in its destructor;
// - a client calls newInstance in its constructor and deletes the prototype at once (do not use
//   it afterwards); a client built with a null prototype has no callback at all;
// - a server-side connection deletes its callback when it is deleted; a client never deletes
//   its callback: the application owns it and reaches it through getTcpCallback().
//
// Framings (the server-side connection; a client always receives length-prefixed frames):
// - LengthPrefixed: 4-byte big-endian length N, then N bytes; the whole frame is handed over,
//   header included, with length N + 4. Bytes 00 00 00 02 'h' 'i' arrive as one message of 6
//   bytes starting at the header. A frame cut by a receive boundary is dropped (see
//   socket_server.h).
// - Lines: text split at CR and LF; the last piece of every receive is never delivered, so end
//   a command with an empty line (see socket_server.h).
// - Raw: every received chunk (at most 4096 bytes) as it is.
//
// Threads: onConnected, onDisconnected, onReceived and onStopped run on the socket's own
// receiving thread, onUpdate on the thread that calls update(), newInstance on the thread that
// creates the socket (the server's accepting thread, or the client's constructor). data passed
// to onReceived is valid only during the call.
#ifndef MOSK_KELVO_SOCKET_INTERFACE_H_
#define MOSK_KELVO_SOCKET_INTERFACE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

enum class TcpReceivePolicy : int32_t { LengthPrefixed = 0, Lines = 1, Raw = 2 };

// Connection/client: Idle (not yet receiving / never connected), Connected, Disconnected (the
// peer closed or a receive failed), Stopped (ended by stop). Server: Idle (not bound),
// Connected (listening), Stopped (accepting ended).
enum class TcpState : int32_t { Idle = 0, Connected = 1, Disconnected = 2, Stopped = 3 };

// Stack size of every thread the TCP classes start (a server's accepting thread, each server
// connection's receiving thread, a client's receiving thread) unless setThreadStackSize
// (SocketServer, SocketClient) chose another before bind or connect. The stack also holds the
// thread's static TLS and the library's own frames; what is left for newInstance (on the
// accepting thread) and the callbacks is given in socket_server.h. Under
// mlockall(MCL_FUTURE) every byte of it is locked and resident for as long as the thread
// exists, which is why it is not the platform's default (8 MiB on most systems).
constexpr size_t kTcpThreadStackSize = 256 * 1024;
// The smallest stack setThreadStackSize accepts (0 aside, which means the platform's default).
constexpr size_t kTcpMinThreadStackSize = 64 * 1024;

class ITcpSocket;

class KELVO_EXPORT TcpCallback {
 public:
  virtual ~TcpCallback();
  virtual TcpCallback* newInstance(ITcpSocket* socket) = 0;
  virtual void onConnected() = 0;
  virtual void onDisconnected() = 0;
  virtual void onReceived(const char* data, const int& length) = 0;
  virtual void onUpdate() = 0;
  virtual void onStopped() = 0;
};

class KELVO_EXPORT ITcpSocket {
 public:
  virtual ~ITcpSocket();
  virtual int getFd() const = 0;  // -1 when closed
  // 0 once the bytes are handed to the kernel (a partial count included), -1 on failure.
  virtual int send(const char* data, const int& length) = 0;
  virtual TcpState getState() const = 0;
  virtual void setRecvPolicy(const TcpReceivePolicy& policy) = 0;
  virtual TcpCallback* getTcpCallback() const = 0;
};

class KELVO_EXPORT ITcpServer {
 public:
  virtual ~ITcpServer();
  virtual int bind(const char* name, const int& port) = 0;  // name: a device, or "any"
  virtual int update() = 0;
  virtual int stop() = 0;
  virtual void join() = 0;
  virtual void dump() = 0;
  virtual TcpState getState() const = 0;
  virtual size_t getAcceptSocketCount() const = 0;
};

class KELVO_EXPORT ITcpClient {
 public:
  virtual ~ITcpClient();
  virtual int getFd() const = 0;
  virtual int connect(const char* ip, const int& port, const int& timeout) = 0;  // timeout: ms
  virtual int update() = 0;
  virtual int send(const char* data, const int& length) = 0;
  virtual TcpState getState() const = 0;
  virtual int stop(const bool& shut) = 0;
  virtual void join() = 0;
  virtual std::string getLastError() const = 0;
};

// A new SocketServer owned by the caller; nothing starts until bind.
KELVO_EXPORT ITcpServer* newTcpServer(TcpCallback* prototype);

// A new SocketClient owned by the caller; nothing starts until connect. The prototype is
// deleted inside (see above).
KELVO_EXPORT ITcpClient* newTcpClient(TcpCallback* prototype);

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_SOCKET_INTERFACE_H_
