#include "SocketAddress.h"

#include "SocketConnection.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>

namespace NVQ
{

CSocketAddress::CSocketAddress()
{
    std::memset(&m_address, 0, sizeof(m_address));
}

void CSocketAddress::Set(const struct sockaddr *address, socklen_t length)
{
    std::memset(&m_address, 0, sizeof(m_address));
    if (address != nullptr)
        std::memcpy(&m_address, address, std::min<size_t>(length, sizeof(m_address)));
}

KZF::tstring CSocketAddress::ToString() const
{
    char host[INET6_ADDRSTRLEN] = "";
    char text[INET6_ADDRSTRLEN + 16];
    if (m_address.m_any.sa_family == AF_INET) {
        inet_ntop(AF_INET, &m_address.m_v4.sin_addr, host, sizeof(host));
        std::snprintf(text, sizeof(text), "%s:%u", host, ntohs(m_address.m_v4.sin_port));
    } else if (m_address.m_any.sa_family == AF_INET6) {
        const struct in6_addr &ip = m_address.m_v6.sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&ip)) {
            inet_ntop(AF_INET, &ip.s6_addr[12], host, sizeof(host));
            std::snprintf(text, sizeof(text), "%s:%u", host, ntohs(m_address.m_v6.sin6_port));
        } else {
            inet_ntop(AF_INET6, &ip, host, sizeof(host));
            std::snprintf(text, sizeof(text), "[%s]:%u", host, ntohs(m_address.m_v6.sin6_port));
        }
    } else {
        return KZF::tstring("unknown");
    }
    return KZF::tstring(text);
}

KZF::tstring CLocalSocketAddress::ToString() const
{
    struct sockaddr_storage storage;
    socklen_t length = sizeof(storage);
    const int fd = m_connection.GetFd();
    if (fd < 0 || getsockname(fd, reinterpret_cast<struct sockaddr *>(&storage), &length) != 0)
        return KZF::tstring("unknown");
    CSocketAddress address;
    address.Set(reinterpret_cast<struct sockaddr *>(&storage), length);
    return address.ToString();
}

} // namespace NVQ
