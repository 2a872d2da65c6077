#ifndef NVQSOCKETS_TLSTRANSPORT_H
#define NVQSOCKETS_TLSTRANSPORT_H

#include "SocketTransport.h"

struct ssl_st;

namespace NVQ
{

// TLS over one accepted socket (OpenSSL, server side). The handshake runs
// inside the first reads: it needs no thread of its own and no extra event,
// and its would-block states come out as EAGAIN like any other. Owned by
// its connection (Release deletes it).
class CTlsTransport : public CSocketTransport
{
  public:
    // Takes over the session, already bound to the socket.
    explicit CTlsTransport(ssl_st *session);
    ~CTlsTransport() override;
    CTlsTransport(const CTlsTransport &) = delete;
    CTlsTransport &operator=(const CTlsTransport &) = delete;

    ssize_t Read(int fd, void *buffer, size_t size) override;
    ssize_t Write(int fd, const struct iovec *parts, int count, bool more) override;
    ssize_t SendFile(int fd, int fileFd, int64_t offset, size_t size) override;
    bool HasBufferedInput() const override;
    void ShutdownWrite(int fd) override;
    // Records are not held back: the goodbye is a record of its own.
    void HoldTailForClose(int fd) override { (void)fd; }
    void EndSession(int fd) override;
    void Release() override { delete this; }
    bool IsSecure() const override { return true; }
    bool IsHandshaking() const override;
    bool IsReadWaitingForOutput() const override { return m_readWantsWrite; }

  private:
    // Maps an OpenSSL result of `result` (<= 0) to the read(2)-like result.
    ssize_t Result(int result, bool reading);
    // One record's worth or less of plain bytes; what Write does per part.
    ssize_t WriteBytes(const void *data, size_t size);

    ssl_st *m_pSession;
    bool m_readWantsWrite;
    bool m_failed;      // a fatal error: no more calls into the session
    bool m_endOfInput;  // the peer's close_notify or end of stream was read
    bool m_goodbyeSaid; // close_notify sent
    bool m_socketEmpty; // the last socket read of this Read found no more
};

} // namespace NVQ

#endif
