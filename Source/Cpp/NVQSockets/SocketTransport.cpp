#include "SocketTransport.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/sendfile.h>
#include <sys/socket.h>

namespace NVQ
{

ssize_t CSocketTransport::Read(int fd, void *buffer, size_t size)
{
    ssize_t n;
    do
        n = ::recv(fd, buffer, size, 0);
    while (n < 0 && errno == EINTR);
    return n;
}

ssize_t CSocketTransport::Write(int fd, const struct iovec *parts, int count, bool more)
{
    struct msghdr message;
    std::memset(&message, 0, sizeof(message));
    message.msg_iov = const_cast<struct iovec *>(parts);
    message.msg_iovlen = static_cast<size_t>(count);
    ssize_t n;
    do
        n = ::sendmsg(fd, &message, MSG_NOSIGNAL | (more ? MSG_MORE : 0));
    while (n < 0 && errno == EINTR);
    return n;
}

ssize_t CSocketTransport::SendFile(int fd, int fileFd, int64_t offset, size_t size)
{
    off_t position = static_cast<off_t>(offset);
    ssize_t n;
    do
        n = ::sendfile(fd, fileFd, &position, size);
    while (n < 0 && errno == EINTR);
    return n;
}

void CSocketTransport::ShutdownWrite(int fd)
{
    ::shutdown(fd, SHUT_WR);
}

void CSocketTransport::HoldTailForClose(int fd)
{
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_CORK, &on, sizeof(on));
}

CSocketTransport &CSocketTransport::Plain()
{
    static CSocketTransport s_plain;
    return s_plain;
}

} // namespace NVQ
