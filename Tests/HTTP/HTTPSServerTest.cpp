#include "HTTP/HTTPServer.h"

#include "Support/ScriptedHandler.h"
#include "Support/TestClient.h"
#include "Support/WaitFor.h"

#include <gtest/gtest.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

// Clients that speak TLS properly are in the end-to-end tests (curl,
// Python, Chromium); these cover what only the library's own knobs reach.

namespace
{

using NVQTest::CTestClient;

// Two self-signed certificates for localhost, "first" and "second", made
// with the openssl command in a temporary directory.
struct SCertificates {
    SCertificates()
    {
        char base[] = "/tmp/nvq-tls-XXXXXX";
        m_dir = mkdtemp(base);
        m_ok = std::system(("cd '" + m_dir +
                            "' && for n in first second; do openssl req -x509 -newkey ec -pkeyopt "
                            "ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=$n -keyout $n.key -out "
                            "$n.pem > /dev/null 2>&1 || exit 1; done")
                               .c_str()) == 0;
    }
    ~SCertificates() { m_ok = std::system(("rm -rf '" + m_dir + "'").c_str()) == 0; }
    std::string Path(const std::string &file) const { return m_dir + "/" + file; }
    std::string Text(const std::string &file) const
    {
        std::stringstream text;
        text << std::ifstream(Path(file)).rdbuf();
        return text.str();
    }
    std::string m_dir;
    bool m_ok;
};

// A real client's first flight, from a client that writes into memory.
std::string clientHello()
{
    SSL_CTX *context = SSL_CTX_new(TLS_client_method());
    SSL *session = SSL_new(context);
    SSL_set_bio(session, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_connect(session);
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(SSL_get_wbio(session), &bytes);
    const std::string hello(bytes, static_cast<size_t>(size));
    SSL_free(session);
    SSL_CTX_free(context);
    ERR_clear_error();
    return hello;
}

const auto anyPort = [] {
    NVQ::SHTTPServerOptions options;
    options.m_port = 0;
    return options;
};

TEST(HTTPSServerTest, CertificatesAreTakenOnlyWhenChainAndKeyBelongTogether)
{
    SCertificates files;
    ASSERT_TRUE(files.m_ok) << "the openssl command could not make the test certificates";
    struct SCase {
        const char *name;
        std::string chain, key;
        bool fromFiles, accepted;
    };
    const SCase cases[] = {
        {"files", files.Path("first.pem"), files.Path("first.key"), true, true},
        {"memory", files.Text("second.pem"), files.Text("second.key"), false, true},
        {"missing chain file", files.Path("none.pem"), files.Path("first.key"), true, false},
        {"missing key file", files.Path("first.pem"), files.Path("none.key"), true, false},
        {"key of another certificate", files.Path("first.pem"), files.Path("second.key"), true, false},
        {"damaged chain", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n",
         files.Text("first.key"), false, false},
        {"empty key", files.Text("first.pem"), "", false, false},
        {"key for the chain", files.Text("first.key"), files.Text("first.key"), false, false},
    };
    NVQ::CHTTPServer server(true);
    // A TLS port needs a certificate.
    server.SetTlsPort(0);
    EXPECT_FALSE(server.StartServer(anyPort()));
    for (const SCase &c : cases)
        EXPECT_EQ(c.accepted, server.SetTlsCertificate(c.chain, c.key, c.fromFiles)) << c.name;
    // HTTPS only: the one port is the TLS port.
    server.SetTlsPort(-1);
    ASSERT_TRUE(server.StartServer(anyPort()));
    EXPECT_EQ(server.GetPort(), server.GetTlsPort());
    server.StopServer();
}

TEST(HTTPSServerTest, BadInputEndsInAClosedConnectionAndHoldsUpNobody)
{
    SCertificates files;
    ASSERT_TRUE(files.m_ok);
    NVQTest::CScriptedHandler handler;
    NVQ::CHTTPServer server(true);
    server.RegisterHandler(handler, false);
    server.SetRequestTimeout(400); // a handshake must end within it
    ASSERT_TRUE(server.SetTlsCertificate(files.Path("first.pem"), files.Path("first.key"), true));
    server.SetTlsPort(0);
    ASSERT_TRUE(server.StartServer(anyPort()));
    const std::string hello = clientHello();
    ASSERT_GT(hello.size(), 100u);
    struct SCase {
        const char *name;
        std::string bytes;
        bool endAfterSending; // else the client stalls and the server ends it
    };
    const SCase cases[] = {
        {"plain HTTP", "GET / HTTP/1.1\r\nHost: t\r\n\r\n", false},
        {"truncated handshake", hello.substr(0, hello.size() / 2), true},
        {"stalled handshake", hello.substr(0, hello.size() / 2), false},
        {"silent client", "", false},
        {"application data before a handshake", std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'z'),
         false},
        {"garbage after the client hello", hello + std::string(300, '\x16'), false},
        {"oversized record", std::string("\x16\x03\x01\xff\xff", 5) + std::string(100, 'x'), false},
    };
    std::vector<std::unique_ptr<CTestClient>> clients;
    for (const SCase &c : cases) {
        clients.emplace_back(new CTestClient());
        ASSERT_TRUE(clients.back()->Connect(server.GetTlsPort()));
        if (!c.bytes.empty())
            clients.back()->Send(c.bytes);
        if (c.endAfterSending)
            clients.back()->ShutdownWrite();
    }
    CTestClient plain;
    ASSERT_TRUE(plain.Connect(server.GetPort()));
    plain.Send("GET /x HTTP/1.1\r\nHost: t\r\n\r\n");
    EXPECT_NE(std::string::npos, plain.ReceiveAnswer(300).find("OK /x")) << "served at once meanwhile";
    for (size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(std::string::npos, clients[i]->ReceiveUntilClosed(3000).find("HTTP/")) << cases[i].name;
        EXPECT_TRUE(clients[i]->IsClosed()) << cases[i].name;
    }
    plain.Close();
    EXPECT_TRUE(NVQTest::waitFor([&] { return server.GetConnectionCount() == 0; }, 3000));
    server.StopServer();
    server.UnregisterHandler(handler);
}

} // namespace
