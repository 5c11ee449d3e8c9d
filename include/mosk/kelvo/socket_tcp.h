// Socket helpers: the building blocks of the TCP server and client.
//
// createSocket makes an IPv4 TCP socket with the library's fixed options (TCP_NODELAY,
// TCP_QUICKACK, SO_REUSEADDR, no send or receive time-out) in blocking mode. bindToDevice ties a
// socket to a network device ("any", exactly, leaves it untied; anything else is a device name
// of at most 16 characters, a longer one ends the process). getIp reads the socket's own local
// address. blockConnect connects with a time-out in whole seconds; it closes the descriptor on
// every failure (the caller must not close it again) and, when the connect completes at once,
// leaves the socket non-blocking. selectSend and selectRecv wait once for READABILITY (both of
// them: selectSend too waits until data arrives or the peer closes) and then do one write or
// read, returning its result unchanged. blockSigpipe ignores SIGPIPE for the whole process:
// the library sends without MSG_NOSIGNAL, so applications call it once at start-up. format is
// a printf-style formatter limited to 127 characters; longer output ends the process.
//
// Descriptors of 1024 or more must not be passed to the select-based helpers (blockConnect,
// selectSend, selectRecv): the descriptor-set checks end the process.
//
// Threading: no shared state; every function may be called from any thread. None belongs in a
// real-time loop: they make system calls and may block.
#ifndef MOSK_KELVO_SOCKET_TCP_H_
#define MOSK_KELVO_SOCKET_TCP_H_

#include <sys/socket.h>

#include <string>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

// New IPv4 TCP descriptor with the library's options, or -1.
KELVO_EXPORT int createSocket();

// Ties fd to the device `name` unless name is exactly "any". Always returns 0.
KELVO_EXPORT int bindToDevice(int fd, const char* name);

// The local address of fd as dotted text: 0, or -1 with ip unchanged.
KELVO_EXPORT int getIp(int fd, std::string& ip);

// Connects fd to addr (IPv4) within `timeout` seconds: 0, or -1 with errno set and fd closed.
KELVO_EXPORT int blockConnect(const int& fd, sockaddr* addr, const int& timeout);

// Waits until fd is readable, then one write of length bytes: its result, or -1.
KELVO_EXPORT int selectSend(const int& fd, const char* data, int length);

// Waits until fd is readable, then one read of up to length bytes: its result, or -1.
KELVO_EXPORT int selectRecv(const int& fd, char* data, int length);

// Ignores SIGPIPE in the whole process (the previous action is not kept).
KELVO_EXPORT void blockSigpipe();

// printf-style formatting into a string of at most 127 characters (more ends the process).
KELVO_EXPORT std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kelvo
}  // namespace mosk

#endif  // MOSK_KELVO_SOCKET_TCP_H_
