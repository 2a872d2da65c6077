// Feeds arbitrary client bytes (and then the client's end of stream) to a
// server-side TLS transport over a socket pair, reading with a buffer size
// the first byte picks, and checks the read(2)-like contract the connection
// relies on: never more than asked, no plain bytes while the handshake runs,
// and once ended or failed the transport stays so.
#include "FuzzTargets.h"

#include "NVQSockets/SocketTransport.h"
#include "NVQSockets/TlsContext.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cerrno>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

std::string pemOf(int (*write)(BIO *, void *), void *object)
{
    BIO *bio = BIO_new(BIO_s_mem());
    write(bio, object);
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(bio, &bytes);
    std::string pem(bytes, static_cast<size_t>(size));
    BIO_free(bio);
    return pem;
}

// A key and self-signed certificate made in memory for this process.
NVQ::CTlsContext *makeContext()
{
    EVP_PKEY *key = EVP_EC_gen("P-256");
    X509 *certificate = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_pubkey(certificate, key);
    X509_NAME *name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("fuzz"), -1,
                               -1, 0);
    X509_set_issuer_name(certificate, name);
    X509_sign(certificate, key, EVP_sha256());
    const std::string chain =
        pemOf([](BIO *bio, void *object) { return PEM_write_bio_X509(bio, static_cast<X509 *>(object)); },
              certificate);
    const std::string privateKey = pemOf(
        [](BIO *bio, void *object) {
            return PEM_write_bio_PrivateKey(bio, static_cast<EVP_PKEY *>(object), nullptr, nullptr, 0,
                                            nullptr, nullptr);
        },
        key);
    X509_free(certificate);
    EVP_PKEY_free(key);
    NVQ::CTlsContext *context = new NVQ::CTlsContext();
    std::string error;
    NVQ_FUZZ_CHECK(context->Load(chain, privateKey, false, error));
    return context;
}

} // namespace

int FuzzTlsRecords(const uint8_t *data, size_t size)
{
    static NVQ::CTlsContext *s_context = makeContext();
    if (size < 1)
        return 0;
    static const size_t c_readSizes[] = {1, 5, 300, 4096, 16384, 65536};
    const size_t readSize = c_readSizes[data[0] % 6];
    int fds[2];
    NVQ_FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) == 0);
    NVQ::CSocketTransport *transport = s_context->NewTransport(fds[0]);
    NVQ_FUZZ_CHECK(transport != nullptr);
    for (size_t sent = 1; sent < size;) {
        const ssize_t n = ::write(fds[1], data + sent, size - sent);
        if (n <= 0)
            break; // the socket pair is full: the rest never arrives
        sent += static_cast<size_t>(n);
    }
    ::shutdown(fds[1], SHUT_WR);
    std::vector<unsigned char> buffer(readSize);
    ssize_t n = 0;
    for (int round = 0; round < 10000; ++round) {
        errno = 0;
        n = transport->Read(fds[0], buffer.data(), readSize);
        NVQ_FUZZ_CHECK(n <= static_cast<ssize_t>(readSize));
        if (n > 0) {
            NVQ_FUZZ_CHECK(!transport->IsHandshaking());
            continue;
        }
        if (n < 0 && errno == EAGAIN && transport->HasBufferedInput())
            continue;
        break;
    }
    if (n == 0 || (n < 0 && errno != EAGAIN))
        NVQ_FUZZ_CHECK(transport->Read(fds[0], buffer.data(), readSize) == n);
    if (!transport->IsHandshaking()) {
        const struct iovec part = {const_cast<char *>("x"), 1};
        transport->Write(fds[0], &part, 1, false);
    }
    transport->EndSession(fds[0]);
    transport->Release();
    ::close(fds[0]);
    ::close(fds[1]);
    return 0;
}
