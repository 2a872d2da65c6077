#ifndef NVQSOCKETS_SOCKETTRANSPORT_H
#define NVQSOCKETS_SOCKETTRANSPORT_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>
#include <sys/uio.h>

namespace NVQ
{

// The byte path of one connection. Every call is non-blocking and does what
// it can at once; results follow read(2)/write(2): a count, 0 (end of
// stream, or of the file for SendFile), or -1 with errno set (EAGAIN when
// the socket has nothing to give or no room). The plain socket has no state
// of its own and is shared by every connection; an encrypting transport
// keeps its per-connection state behind the same calls.
class CSocketTransport
{
  public:
    virtual ~CSocketTransport() {}

    virtual ssize_t Read(int fd, void *buffer, size_t size);
    // more: further bytes follow at once (lets the kernel put them in one
    // segment with what comes next).
    virtual ssize_t Write(int fd, const struct iovec *parts, int count, bool more);
    virtual ssize_t SendFile(int fd, int fileFd, int64_t offset, size_t size);
    // Input the transport holds itself, already taken from the socket: it
    // can be read without a new readiness event.
    virtual bool HasBufferedInput() const { return false; }
    // Ends the sending direction after everything written.
    virtual void ShutdownWrite(int fd);
    // Nothing follows what is written from now on but the close: a last
    // partial segment may wait for it and leave with the FIN.
    virtual void HoldTailForClose(int fd);
    // The server closes a connection in good order (the encrypting
    // transport says goodbye in its own protocol); not after a failure.
    virtual void EndSession(int fd) { (void)fd; }
    // Bytes travel encrypted.
    virtual bool IsSecure() const { return false; }
    // The transport is still setting itself up with the peer (a handshake):
    // the connection waits as inside a request, with its time limit.
    virtual bool IsHandshaking() const { return false; }
    // The last Read stopped because the transport must write before it can
    // read on (a handshake message the socket had no room for): the socket
    // turning writable is news for the reading side.
    virtual bool IsReadWaitingForOutput() const { return false; }
    // Released when the connection no longer needs it; the shared plain
    // transport ignores this.
    virtual void Release() {}

    // The stateless plain-socket transport.
    static CSocketTransport &Plain();
};

} // namespace NVQ

#endif
