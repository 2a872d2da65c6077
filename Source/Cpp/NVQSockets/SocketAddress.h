#ifndef NVQSOCKETS_SOCKETADDRESS_H
#define NVQSOCKETS_SOCKETADDRESS_H

#include "NVQSockets/Linux/INVQConnectionAddress.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace NVQ
{

class CSocketConnection;

// An IPv4 or IPv6 socket address, printed the usual way; IPv4 addresses
// mapped into IPv6 print as plain IPv4.
class CSocketAddress : public INVQConnectionAddress
{
  public:
    CSocketAddress();
    void Set(const struct sockaddr *address, socklen_t length);
    KZF::tstring ToString() const override;

  private:
    union {
        struct sockaddr m_any;
        struct sockaddr_in m_v4;
        struct sockaddr_in6 m_v6;
    } m_address;
};

// The server's own end of a socket, looked up only when printed: most
// connections are never logged, and the lookup is a system call.
class CLocalSocketAddress : public INVQConnectionAddress
{
  public:
    explicit CLocalSocketAddress(const CSocketConnection &connection) : m_connection(connection) {}
    KZF::tstring ToString() const override;

  private:
    const CSocketConnection &m_connection;
};

} // namespace NVQ

#endif
