#ifndef TESTS_SUPPORT_TLSTESTCLIENT_H
#define TESTS_SUPPORT_TLSTESTCLIENT_H

// The test client over TLS (OpenSSL, blocking with timeouts), and test
// certificates made at run time with the openssl command.

#include "Support/TestClient.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/time.h>

namespace NVQTest
{

class CTlsTestClient : public CTestClient
{
  public:
    CTlsTestClient() : m_pContext(SSL_CTX_new(TLS_client_method())) {}
    ~CTlsTestClient() override
    {
        Close();
        SSL_CTX_free(m_pContext);
    }

    // TCP, then the handshake. caFile: verify the server against it.
    bool Connect(int port, const std::string &caFile = std::string(), int maxVersion = 0)
    {
        if (!CTestClient::Connect(port))
            return false;
        const struct timeval limit = {5, 0};
        ::setsockopt(Fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        if (maxVersion != 0)
            SSL_CTX_set_max_proto_version(m_pContext, maxVersion);
        if (!caFile.empty()) {
            SSL_CTX_load_verify_locations(m_pContext, caFile.c_str(), nullptr);
            SSL_CTX_set_verify(m_pContext, SSL_VERIFY_PEER, nullptr);
        }
        m_pSession = SSL_new(m_pContext);
        SSL_set_fd(m_pSession, Fd());
        SSL_set_tlsext_host_name(m_pSession, "localhost");
        if (!caFile.empty())
            SSL_set1_host(m_pSession, "localhost");
        static const unsigned char alpn[] = "\x02h2\x08http/1.1";
        SSL_set_alpn_protos(m_pSession, alpn, sizeof(alpn) - 1);
        const bool ok = SSL_connect(m_pSession) == 1;
        ERR_clear_error();
        return ok;
    }

    // The common name of the server's certificate, and its chain's length.
    std::string PeerName() const
    {
        X509 *peer = SSL_get1_peer_certificate(m_pSession);
        char name[256] = "";
        if (peer != nullptr)
            X509_NAME_get_text_by_NID(X509_get_subject_name(peer), NID_commonName, name, sizeof(name));
        X509_free(peer);
        return name;
    }
    int PeerChainLength() const
    {
        STACK_OF(X509) *chain = SSL_get_peer_cert_chain(m_pSession);
        return chain == nullptr ? 0 : sk_X509_num(chain);
    }
    std::string Alpn() const
    {
        const unsigned char *protocol = nullptr;
        unsigned int length = 0;
        SSL_get0_alpn_selected(m_pSession, &protocol, &length);
        return std::string(reinterpret_cast<const char *>(protocol), length);
    }
    std::string Version() const { return SSL_get_version(m_pSession); }

    void Close() override
    {
        SSL_free(m_pSession);
        m_pSession = nullptr;
        CTestClient::Close();
    }

  protected:
    ssize_t WriteBytes(const char *data, size_t size) override
    {
        const int n = SSL_write(m_pSession, data, static_cast<int>(size));
        ERR_clear_error();
        return n > 0 ? n : -1;
    }
    ssize_t ReadBytes(char *buffer, size_t size) override
    {
        const int n = SSL_read(m_pSession, buffer, static_cast<int>(size));
        ERR_clear_error();
        return n > 0 ? n : 0; // any failure ends the stream for the test
    }
    bool HasBufferedInput() const override { return m_pSession != nullptr && SSL_pending(m_pSession) > 0; }

  private:
    SSL_CTX *m_pContext;
    SSL *m_pSession = nullptr;
};

// A test CA and two server certificates it signed (common names "first" and
// "second", both for localhost), in a temporary directory removed at the end.
class CTestCertificates
{
  public:
    CTestCertificates()
    {
        char base[] = "/tmp/nvq-tls-XXXXXX";
        m_dir = mkdtemp(base);
        const std::string script =
            "set -e; cd '" + m_dir +
            "'; new() { openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout $1.key "
            "-subj /CN=$1 \"${@:2}\"; }; "
            "new ca -x509 -days 2 -out ca.pem; "
            "printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\\n' > ext; "
            "for n in first second; do new $n -out $n.csr; "
            "openssl x509 -req -in $n.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile ext "
            "-out $n.pem; cat ca.pem >> $n.pem; done";
        std::ofstream(m_dir + "/make.sh") << script;
        m_ok = std::system(("bash '" + m_dir + "/make.sh' > /dev/null 2>&1").c_str()) == 0;
    }
    ~CTestCertificates()
    {
        if (std::system(("rm -rf '" + m_dir + "'").c_str()) != 0)
            m_ok = false;
    }
    bool IsOk() const { return m_ok; }
    // name: "first" or "second"; the chain file holds the CA after the leaf.
    std::string Chain(const std::string &name) const { return m_dir + "/" + name + ".pem"; }
    std::string Key(const std::string &name) const { return m_dir + "/" + name + ".key"; }
    std::string Ca() const { return m_dir + "/ca.pem"; }
    static std::string Read(const std::string &path)
    {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

  private:
    std::string m_dir;
    bool m_ok;
};

} // namespace NVQTest

#endif
