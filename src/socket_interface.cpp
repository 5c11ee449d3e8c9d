// The socket interfaces and callback base, and the factories of TCP servers and clients.
#include "mosk/kelvo/socket_interface.h"

#include "mosk/kelvo/socket_client.h"
#include "mosk/kelvo/socket_server.h"

namespace mosk {
namespace kelvo {

TcpCallback::~TcpCallback() = default;
ITcpSocket::~ITcpSocket() = default;
ITcpServer::~ITcpServer() = default;
ITcpClient::~ITcpClient() = default;

ITcpServer* newTcpServer(TcpCallback* prototype) { return new SocketServer(prototype); }

ITcpClient* newTcpClient(TcpCallback* prototype) { return new SocketClient(prototype); }

}  // namespace kelvo
}  // namespace mosk
