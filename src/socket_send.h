// What both connected-socket kinds share: the send (one send(2), no retry, no lock) and the
// re-arming of quick acknowledgements after a receive.
#ifndef KELVO_SRC_SOCKET_SEND_H_
#define KELVO_SRC_SOCKET_SEND_H_

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace mosk {
namespace kelvo {
namespace internal {

// -1 with "send failed: Not connected" unless `connected`; otherwise one send of `length`
// bytes: 0 for any count (a partial one included), -1 with "send failed: <strerror>".
template <class SetError>
int sendOnce(bool connected, int fd, const char* data, int length, SetError&& setError) {
  if (!connected) {
    setError("send failed: Not connected");
    return -1;
  }
  if (::send(fd, data, static_cast<size_t>(length), 0) == -1) {
    setError(std::string("send failed: ") + std::strerror(errno));
    return -1;
  }
  return 0;
}

// Turns on quick acknowledgement on fd; it is not sticky, so the receiving loops set it again
// after each receive.
inline void armQuickAck(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof(one));
}

}  // namespace internal
}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SRC_SOCKET_SEND_H_
