// The send both connected-socket kinds share: one send(2), no retry, no lock.
#ifndef KELVO_SOCKET_SEND_H_
#define KELVO_SOCKET_SEND_H_

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace mosk {
namespace kelvo {

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

}  // namespace kelvo
}  // namespace mosk

#endif  // KELVO_SOCKET_SEND_H_
