#include "TlsTransport.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace NVQ
{

namespace
{

// File bytes without kernel TLS are read in pieces of this size into a
// buffer of the loop thread (made when first needed) and encrypted from
// there: the one copy the missing kernel support costs.
constexpr size_t c_filePiece = 65536;
thread_local std::unique_ptr<unsigned char[]> t_filePiece;

int clampToInt(size_t size)
{
    return static_cast<int>(std::min<size_t>(size, INT_MAX));
}

// Watches the socket reads OpenSSL makes: one that got fewer bytes than it
// asked for left the socket empty (see Read).
long watchSocketReads(BIO *bio, int operation, const char *, size_t length, int, long, int result,
                      size_t *processed)
{
    if (operation == (BIO_CB_READ | BIO_CB_RETURN)) {
        bool *empty = reinterpret_cast<bool *>(BIO_get_callback_arg(bio));
        *empty = result <= 0 || processed == nullptr || *processed < length;
    }
    return result;
}

} // namespace

CTlsTransport::CTlsTransport(ssl_st *session)
    : m_pSession(session), m_readWantsWrite(false), m_failed(false), m_endOfInput(false),
      m_goodbyeSaid(false), m_socketEmpty(false)
{
    BIO *socket = SSL_get_rbio(session);
    BIO_set_callback_arg(socket, reinterpret_cast<char *>(&m_socketEmpty));
    BIO_set_callback_ex(socket, watchSocketReads);
}

CTlsTransport::~CTlsTransport()
{
    SSL_free(m_pSession);
}

ssize_t CTlsTransport::Result(int result, bool reading)
{
    switch (SSL_get_error(m_pSession, result)) {
    case SSL_ERROR_WANT_READ:
        errno = EAGAIN;
        return -1;
    case SSL_ERROR_WANT_WRITE:
        if (reading)
            m_readWantsWrite = true;
        errno = EAGAIN;
        return -1;
    case SSL_ERROR_ZERO_RETURN:
        // The peer's close_notify, or its plain end of stream (unexpected
        // ends are accepted: HTTP frames its own messages).
        if (reading) {
            m_endOfInput = true;
            return 0;
        }
        errno = EPIPE;
        return -1;
    case SSL_ERROR_SYSCALL:
        m_failed = true;
        if (errno == 0 || errno == EAGAIN)
            errno = ECONNRESET;
        break;
    default:
        // Not TLS, a damaged record, a failed handshake: the connection
        // ends (OpenSSL has sent its alert where it could).
        m_failed = true;
        errno = EPROTO;
        break;
    }
    ERR_clear_error();
    return -1;
}

ssize_t CTlsTransport::Read(int, void *buffer, size_t size)
{
    if (m_failed) {
        errno = EPROTO;
        return -1;
    }
    if (m_endOfInput)
        return 0;
    ERR_clear_error();
    m_readWantsWrite = false;
    // A short read must mean an empty socket (readiness is edge-triggered),
    // and SSL_read gives one record at a time: records are read until the
    // buffer is full or OpenSSL needs the socket. An end or a failure met
    // after some bytes is kept for the next call (HasBufferedInput says so).
    // Once a socket read of this call came up short and OpenSSL holds
    // nothing more, another round would only cost a read that finds nothing.
    unsigned char *target = static_cast<unsigned char *>(buffer);
    size_t total = 0;
    m_socketEmpty = false;
    while (total < size) {
        const int n = SSL_read(m_pSession, target + total, clampToInt(size - total));
        if (n <= 0) {
            const ssize_t result = Result(n, true);
            if (total == 0)
                return result;
            break;
        }
        total += static_cast<size_t>(n);
        if (m_socketEmpty && SSL_has_pending(m_pSession) == 0)
            break;
    }
    return static_cast<ssize_t>(total);
}

ssize_t CTlsTransport::WriteBytes(const void *data, size_t size)
{
    const int n = SSL_write(m_pSession, data, clampToInt(size));
    return n > 0 ? n : Result(n, false);
}

ssize_t CTlsTransport::Write(int, const struct iovec *parts, int count, bool)
{
    if (m_failed) {
        errno = EPIPE;
        return -1;
    }
    ERR_clear_error();
    // Every part is encrypted from where it lies (no gathering copy): the
    // header block of a small answer is one part already. Partial writes
    // give one record per call; a record the socket had no room for stays
    // with OpenSSL, and the caller offers the same bytes again (the queue
    // keeps them in order, maybe moved to a copy), as OpenSSL requires.
    size_t total = 0;
    for (int i = 0; i < count; ++i) {
        const unsigned char *data = static_cast<const unsigned char *>(parts[i].iov_base);
        size_t left = parts[i].iov_len;
        while (left > 0) {
            const ssize_t n = WriteBytes(data, left);
            if (n < 0)
                return total > 0 ? static_cast<ssize_t>(total) : n;
            total += static_cast<size_t>(n);
            data += n;
            left -= static_cast<size_t>(n);
        }
    }
    return static_cast<ssize_t>(total);
}

ssize_t CTlsTransport::SendFile(int, int fileFd, int64_t offset, size_t size)
{
    if (m_failed) {
        errno = EPIPE;
        return -1;
    }
    ERR_clear_error();
#ifndef OPENSSL_NO_KTLS
    if (BIO_get_ktls_send(SSL_get_wbio(m_pSession))) {
        const ossl_ssize_t n = SSL_sendfile(m_pSession, fileFd, static_cast<off_t>(offset), size, 0);
        return n >= 0 ? static_cast<ssize_t>(n) : Result(-1, false);
    }
#endif
    if (!t_filePiece)
        t_filePiece.reset(new unsigned char[c_filePiece]);
    ssize_t got;
    do
        got = ::pread(fileFd, t_filePiece.get(), std::min(size, c_filePiece), static_cast<off_t>(offset));
    while (got < 0 && errno == EINTR);
    if (got <= 0)
        return got; // the end of the file, or its failure, as sendfile tells them
    // Bytes read and not taken are simply read again next time, from the
    // same offset: a retried record sees the same length.
    size_t sent = 0;
    while (sent < static_cast<size_t>(got)) {
        const ssize_t n = WriteBytes(t_filePiece.get() + sent, static_cast<size_t>(got) - sent);
        if (n < 0)
            return sent > 0 ? static_cast<ssize_t>(sent) : n;
        sent += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(sent);
}

bool CTlsTransport::HasBufferedInput() const
{
    return m_failed || m_endOfInput || SSL_has_pending(m_pSession) == 1;
}

void CTlsTransport::EndSession(int)
{
    if (m_failed || m_goodbyeSaid || !SSL_is_init_finished(m_pSession))
        return;
    m_goodbyeSaid = true;
    // One attempt: close_notify goes out if the socket has room; the peer's
    // answer is not awaited.
    SSL_shutdown(m_pSession);
    ERR_clear_error();
}

void CTlsTransport::ShutdownWrite(int fd)
{
    EndSession(fd);
    ::shutdown(fd, SHUT_WR);
}

bool CTlsTransport::IsHandshaking() const
{
    return !m_failed && !SSL_is_init_finished(m_pSession);
}

} // namespace NVQ
