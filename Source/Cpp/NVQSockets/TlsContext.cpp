#include "TlsContext.h"

#include "TlsTransport.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstring>

namespace NVQ
{

namespace
{

// TLS 1.2 keeps only forward-secret AEAD suites; TLS 1.3's own list is
// OpenSSL's default, which is already that.
const char c_tls12Ciphers[] = "ECDHE+AESGCM:ECDHE+CHACHA20:!aNULL";

const unsigned char c_http11[] = "http/1.1";

int selectAlpn(SSL *, const unsigned char **selected, unsigned char *selectedLength,
               const unsigned char *offered, unsigned int offeredLength, void *)
{
    // Only HTTP/1.1 is spoken here. A client that offers other protocols
    // alone goes on without ALPN rather than failing: it will speak
    // HTTP/1.1 or give up by itself.
    for (unsigned int i = 0; i < offeredLength;) {
        const unsigned int length = offered[i];
        if (length == sizeof(c_http11) - 1 && i + 1 + length <= offeredLength &&
            std::memcmp(offered + i + 1, c_http11, length) == 0) {
            *selected = offered + i + 1;
            *selectedLength = static_cast<unsigned char>(length);
            return SSL_TLSEXT_ERR_OK;
        }
        i += 1 + length;
    }
    return SSL_TLSEXT_ERR_NOACK;
}

// OpenSSL's latest reason, for the log; its error queue is left empty.
std::string lastError(const char *what)
{
    std::string text(what);
    const unsigned long code = ERR_peek_last_error();
    if (code != 0) {
        char reason[256];
        ERR_error_string_n(code, reason, sizeof(reason));
        text += ": ";
        text += reason;
    }
    ERR_clear_error();
    return text;
}

bool useChainFromMemory(SSL_CTX *context, const std::string &pem)
{
    BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    if (bio == nullptr)
        return false;
    X509 *leaf = PEM_read_bio_X509_AUX(bio, nullptr, nullptr, nullptr);
    bool ok = leaf != nullptr && SSL_CTX_use_certificate(context, leaf) == 1;
    X509_free(leaf);
    while (ok) {
        X509 *issuer = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
        if (issuer == nullptr) {
            // The end of the text reads as "no start line": not a failure.
            const unsigned long code = ERR_peek_last_error();
            if (ERR_GET_LIB(code) == ERR_LIB_PEM && ERR_GET_REASON(code) == PEM_R_NO_START_LINE)
                ERR_clear_error();
            else
                ok = false;
            break;
        }
        if (SSL_CTX_add0_chain_cert(context, issuer) != 1) {
            X509_free(issuer);
            ok = false;
        }
    }
    BIO_free(bio);
    return ok;
}

bool useKeyFromMemory(SSL_CTX *context, const std::string &pem)
{
    BIO *bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    if (bio == nullptr)
        return false;
    EVP_PKEY *key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    const bool ok = key != nullptr && SSL_CTX_use_PrivateKey(context, key) == 1;
    EVP_PKEY_free(key);
    BIO_free(bio);
    return ok;
}

SSL_CTX *newServerContext(std::string &error)
{
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    if (context == nullptr) {
        error = lastError("cannot create a TLS context");
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    uint64_t options = SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE |
                       // HTTP frames its own messages: a peer that drops the
                       // connection without close_notify is an ordinary end.
                       SSL_OP_IGNORE_UNEXPECTED_EOF;
#ifdef SSL_OP_ENABLE_KTLS
    // The kernel encrypts where it can, and file bytes then go out with
    // sendfile; OpenSSL falls back by itself where the kernel cannot.
    options |= SSL_OP_ENABLE_KTLS;
#endif
    SSL_CTX_set_options(context, options);
    // Idle connections give their buffers back; writes may be partial and
    // retried from a moved buffer (queued bytes move into copies).
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                  SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // Fewer system calls per record: read what the socket holds at once.
    SSL_CTX_set_read_ahead(context, 1);
    // Resumption by tickets only: a server-side session cache would grow
    // with the clients.
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_cipher_list(context, c_tls12Ciphers);
    SSL_CTX_set_alpn_select_cb(context, selectAlpn, nullptr);
    return context;
}

void useTickets(SSL_CTX *context, bool on)
{
    if (on) {
        SSL_CTX_clear_options(context, SSL_OP_NO_TICKET);
        // One TLS 1.3 ticket is enough for a client's next connection
        // (OpenSSL sends two unless told otherwise).
        SSL_CTX_set_num_tickets(context, 1);
    } else {
        // No resumption at all: every connection makes a full key exchange,
        // and no ticket is handed out that the context's key could open later.
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context, 0);
    }
}

} // namespace

CTlsContext::CTlsContext() : m_pContext(nullptr), m_tickets(true) {}

CTlsContext::~CTlsContext()
{
    SSL_CTX_free(m_pContext);
}

bool CTlsContext::Load(const std::string &certificateChain, const std::string &privateKey, bool fromFiles,
                       std::string &error)
{
    ERR_clear_error();
    SSL_CTX *context = newServerContext(error);
    if (context == nullptr)
        return false;
    bool ok;
    if (fromFiles) {
        ok = SSL_CTX_use_certificate_chain_file(context, certificateChain.c_str()) == 1;
        if (!ok)
            error = lastError(("cannot read the certificate chain " + certificateChain).c_str());
        else if (!(ok = SSL_CTX_use_PrivateKey_file(context, privateKey.c_str(), SSL_FILETYPE_PEM) == 1))
            error = lastError(("cannot read the private key " + privateKey).c_str());
    } else {
        ok = useChainFromMemory(context, certificateChain);
        if (!ok)
            error = lastError("cannot read the certificate chain");
        else if (!(ok = useKeyFromMemory(context, privateKey)))
            error = lastError("cannot read the private key");
    }
    if (ok && !(ok = SSL_CTX_check_private_key(context) == 1))
        error = lastError("the private key does not belong to the certificate");
    if (!ok) {
        SSL_CTX_free(context);
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    useTickets(context, m_tickets);
    std::swap(context, m_pContext);
    // Sessions still open keep the old context alive by their own reference.
    SSL_CTX_free(context);
    return true;
}

bool CTlsContext::IsLoaded() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pContext != nullptr;
}

void CTlsContext::SetSessionTickets(bool on)
{
    // Under the lock that new sessions are made under: they copy the
    // context's settings when they are made.
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tickets = on;
    if (m_pContext != nullptr)
        useTickets(m_pContext, on);
}

CSocketTransport *CTlsContext::NewTransport(int fd)
{
    SSL *session;
    {
        // SSL_new takes its own reference to the context.
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_pContext == nullptr)
            return nullptr;
        session = SSL_new(m_pContext);
    }
    if (session == nullptr || SSL_set_fd(session, fd) != 1) {
        SSL_free(session);
        ERR_clear_error();
        return nullptr;
    }
    SSL_set_accept_state(session);
    return new CTlsTransport(session);
}

} // namespace NVQ
