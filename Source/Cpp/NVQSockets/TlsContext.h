#ifndef NVQSOCKETS_TLSCONTEXT_H
#define NVQSOCKETS_TLSCONTEXT_H

#include <mutex>
#include <string>

struct ssl_ctx_st;

namespace NVQ
{

class CSocketTransport;

// The server's TLS settings and certificate: one OpenSSL context, replaced
// whole when a new certificate is loaded. Sessions hold a reference to the
// context they started with, so a replacement never disturbs a connection
// already open.
class CTlsContext
{
  public:
    CTlsContext();
    ~CTlsContext();
    CTlsContext(const CTlsContext &) = delete;
    CTlsContext &operator=(const CTlsContext &) = delete;

    // Builds a context from a PEM certificate chain (leaf first) and its
    // private key, given as file names or as the PEM text itself, and puts
    // it in place of the present one. False, with the reason in `error`,
    // when they cannot be read or do not belong together (the present
    // context then stays).
    bool Load(const std::string &certificateChain, const std::string &privateKey, bool fromFiles,
              std::string &error);
    bool IsLoaded() const;
    // Whether clients may resume sessions with tickets (on at first), for
    // the context in place and every one loaded later.
    void SetSessionTickets(bool on);

    // The transport of a newly accepted socket, using the context in place
    // now; null when none is loaded or OpenSSL refuses.
    CSocketTransport *NewTransport(int fd);

  private:
    mutable std::mutex m_mutex;
    ssl_ctx_st *m_pContext;
    bool m_tickets;
};

} // namespace NVQ

#endif
