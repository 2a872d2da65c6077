#include "HTTP/HTTPDefaultHandler.h"
#include "HTTP/HTTPServer.h"

#include "Support/ScriptedHandler.h"
#include "Support/TlsTestClient.h"
#include "Support/WaitFor.h"

#include <gtest/gtest.h>

#include <openssl/bio.h>

#include <atomic>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

using NVQTest::CTestCertificates;
using NVQTest::CTestClient;
using NVQTest::CTlsTestClient;
using NVQTest::waitFor;

std::string randomBytes(size_t size)
{
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    for (char &c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

// A real client's first flight, taken from a client that writes into
// memory.
std::string clientHello()
{
    SSL_CTX *context = SSL_CTX_new(TLS_client_method());
    SSL *session = SSL_new(context);
    BIO *in = BIO_new(BIO_s_mem());
    BIO *out = BIO_new(BIO_s_mem());
    SSL_set_bio(session, in, out);
    SSL_connect(session);
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(out, &bytes);
    std::string hello(bytes, static_cast<size_t>(size));
    SSL_free(session);
    SSL_CTX_free(context);
    ERR_clear_error();
    return hello;
}

class HTTPSServerTest : public ::testing::Test
{
  protected:
    static void SetUpTestSuite() { s_certificates = new CTestCertificates(); }
    static void TearDownTestSuite()
    {
        delete s_certificates;
        s_certificates = nullptr;
    }

    void SetUp() override
    {
        ASSERT_TRUE(s_certificates->IsOk()) << "the openssl command could not make the test certificates";
        Write("small", "tiny");
        Write("large", randomBytes(3 * 1024 * 1024 + 17));
        m_secureHandler.m_onProcess = [](NVQ::CHTTPRequest &request, int) {
            return NVQTest::makeResponse(200, "OK", request.IsSecure() ? "secure" : "plain", true, false);
        };
        m_server.RegisterHandler(m_secureHandler, true);
        m_server.RegisterHandler(m_files, false);
    }
    void TearDown() override
    {
        m_server.StopServer();
        m_server.UnregisterHandler(m_files);
        m_server.UnregisterHandler(m_secureHandler);
        if (std::system(("rm -rf '" + m_root + "'").c_str()) != 0)
            ADD_FAILURE() << "could not remove " << m_root;
    }
    void Write(const std::string &name, const std::string &bytes)
    {
        std::ofstream(m_root + "/" + name, std::ios::binary) << bytes;
    }
    // Plain HTTP on GetPort, HTTPS on GetTlsPort (tlsPort -1: HTTPS only).
    void Start(int tlsPort = 0, const std::string &name = "first")
    {
        ASSERT_TRUE(m_server.SetTlsCertificate(s_certificates->Chain(name), s_certificates->Key(name), true));
        m_server.SetTlsPort(tlsPort);
        NVQ::SHTTPServerOptions options;
        options.m_port = 0;
        ASSERT_TRUE(m_server.StartServer(options));
    }

    static CTestCertificates *s_certificates;
    static std::string makeRoot()
    {
        char base[] = "/tmp/nvq-https-XXXXXX";
        return mkdtemp(base);
    }

    std::string m_root = makeRoot();
    NVQTest::CScriptedHandler m_secureHandler{"/secure"};
    NVQ::CHTTPDefaultHandler m_files{m_root};
    NVQ::CHTTPServer m_server;
};

CTestCertificates *HTTPSServerTest::s_certificates = nullptr;

TEST(HTTPSCertificateTest, LoadingAcceptsMatchingPemOnlyAndKeepsTheOneInUse)
{
    CTestCertificates certificates;
    ASSERT_TRUE(certificates.IsOk());
    const std::string chain = certificates.Chain("first"), key = certificates.Key("first");
    const std::string chainText = CTestCertificates::Read(chain), keyText = CTestCertificates::Read(key);
    struct SCase {
        const char *name;
        std::string chain, key;
        bool fromFiles, accepted;
    };
    const SCase cases[] = {
        {"files", chain, key, true, true},
        {"memory", chainText, keyText, false, true},
        {"missing chain file", chain + ".none", key, true, false},
        {"missing key file", chain, key + ".none", true, false},
        {"key of another certificate", chain, certificates.Key("second"), true, false},
        {"garbage chain", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", keyText, false,
         false},
        {"empty key", chainText, "", false, false},
        {"key in place of the chain", keyText, keyText, false, false},
    };
    NVQ::CHTTPServer server(true);
    for (const SCase &c : cases)
        EXPECT_EQ(c.accepted, server.SetTlsCertificate(c.chain, c.key, c.fromFiles)) << c.name;
    // A TLS port without any certificate cannot start.
    NVQ::CHTTPServer bare(true);
    bare.SetTlsPort(0);
    NVQ::SHTTPServerOptions options;
    options.m_port = 0;
    EXPECT_FALSE(bare.StartServer(options));
}

TEST_F(HTTPSServerTest, AnswersOverTlsAreTheBytesOfPlainHttp)
{
    Start();
    ASSERT_NE(0, m_server.GetTlsPort());
    ASSERT_NE(m_server.GetPort(), m_server.GetTlsPort());
    const std::string large = CTestCertificates::Read(m_root + "/large");
    // Requests bigger than a TLS record come in several.
    const std::string padded =
        "GET /small HTTP/1.1\r\nHost: t\r\nX-Pad: " + std::string(40000, 'p') + "\r\n\r\n";
    struct SCase {
        const char *name;
        std::string request, expected;
        bool closes;
    };
    const SCase cases[] = {
        {"small file", "GET /small HTTP/1.1\r\nHost: t\r\n\r\n",
         "HTTP/1.1 200 OK\r\nContent-Length: 4 \r\n\r\ntiny", false},
        {"request of several records", padded, "HTTP/1.1 200 OK\r\nContent-Length: 4 \r\n\r\ntiny", false},
        {"404 page", "GET /none HTTP/1.1\r\nHost: t\r\n\r\n", "", false},
        {"streamed file", "GET /large HTTP/1.1\r\nHost: t\r\n\r\n",
         "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(large.size()) + "\r\n\r\n" + large, true},
    };
    for (const SCase &c : cases) {
        CTestClient plain;
        CTlsTestClient secure;
        ASSERT_TRUE(plain.Connect(m_server.GetPort()));
        ASSERT_TRUE(secure.Connect(m_server.GetTlsPort(), s_certificates->Ca())) << c.name;
        EXPECT_EQ("http/1.1", secure.Alpn());
        for (int round = 0; round < (c.closes ? 1 : 2); ++round) { // kept alive
            ASSERT_TRUE(plain.Send(c.request));
            ASSERT_TRUE(secure.Send(c.request));
            const std::string overPlain = c.closes ? plain.ReceiveUntilClosed(20000) : plain.ReceiveAnswer();
            const std::string overTls = c.closes ? secure.ReceiveUntilClosed(20000) : secure.ReceiveAnswer();
            EXPECT_TRUE(overPlain == overTls) << c.name << ": " << overTls.size() << " bytes over TLS";
            if (!c.expected.empty())
                EXPECT_TRUE(c.expected == overTls) << c.name << ": " << overTls.substr(0, 60);
            else
                EXPECT_EQ(0u, overTls.find("HTTP/1.1 404 Not found\r\n")) << c.name;
        }
        EXPECT_EQ(c.closes, secure.IsClosed()) << c.name;
    }
    // The request knows how it came.
    CTestClient plain;
    CTlsTestClient secure;
    ASSERT_TRUE(plain.Connect(m_server.GetPort()));
    ASSERT_TRUE(secure.Connect(m_server.GetTlsPort()));
    plain.Send("GET /secure HTTP/1.1\r\nHost: t\r\n\r\n");
    secure.Send("GET /secure HTTP/1.1\r\nHost: t\r\n\r\n");
    EXPECT_NE(std::string::npos, plain.ReceiveAnswer().find("\r\n\r\nplain"));
    EXPECT_NE(std::string::npos, secure.ReceiveAnswer().find("\r\n\r\nsecure"));
}

TEST_F(HTTPSServerTest, HttpsOnlyServesBothVersionsWithTheWholeChain)
{
    Start(-1);
    EXPECT_EQ(m_server.GetPort(), m_server.GetTlsPort());
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        CTlsTestClient client;
        ASSERT_TRUE(client.Connect(m_server.GetPort(), s_certificates->Ca(), version)) << version;
        EXPECT_EQ(version == TLS1_2_VERSION ? "TLSv1.2" : "TLSv1.3", client.Version());
        EXPECT_EQ(2, client.PeerChainLength());
        client.Send("GET /small HTTP/1.1\r\nHost: t\r\n\r\n");
        EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 4 \r\n\r\ntiny", client.ReceiveAnswer());
    }
    CTestClient plain;
    ASSERT_TRUE(plain.Connect(m_server.GetPort()));
    plain.Send("GET /small HTTP/1.1\r\nHost: t\r\n\r\n");
    EXPECT_EQ("", plain.ReceiveUntilClosed()) << "plain HTTP on the TLS port";
    EXPECT_TRUE(plain.IsClosed());
}

TEST_F(HTTPSServerTest, BadInputEndsInAClosedConnectionAndHarmsNoOther)
{
    m_server.SetRequestTimeout(400);
    Start();
    const std::string hello = clientHello();
    ASSERT_GT(hello.size(), 100u);
    const std::string garbageRecord = std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, '\x5a');
    struct SCase {
        const char *name;
        std::string bytes;
        bool endAfterSending; // else the client stalls and the server must end it
    };
    const SCase cases[] = {
        {"plain HTTP", "GET /small HTTP/1.1\r\nHost: t\r\n\r\n", false},
        {"truncated handshake", hello.substr(0, hello.size() / 2), true},
        {"stalled handshake", hello.substr(0, hello.size() / 2), false},
        {"silent client", "", false},
        {"application data before any handshake", garbageRecord, false},
        {"garbage after the client hello", hello + std::string(300, '\x16'), false},
        {"random bytes", randomBytes(5000), false},
        {"oversized record header", std::string("\x16\x03\x01\xff\xff", 5) + std::string(100, 'x'), false},
    };
    std::vector<std::unique_ptr<CTestClient>> bad;
    for (const SCase &c : cases) {
        bad.emplace_back(new CTestClient());
        ASSERT_TRUE(bad.back()->Connect(m_server.GetTlsPort()));
        if (!c.bytes.empty())
            bad.back()->Send(c.bytes);
        if (c.endAfterSending)
            bad.back()->ShutdownWrite();
    }
    // Meanwhile a good client is served at once.
    CTlsTestClient good;
    ASSERT_TRUE(good.Connect(m_server.GetTlsPort()));
    good.Send("GET /small HTTP/1.1\r\nHost: t\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 4 \r\n\r\ntiny", good.ReceiveAnswer(1000));
    for (size_t i = 0; i < bad.size(); ++i) {
        bad[i]->ReceiveUntilClosed(3000);
        EXPECT_TRUE(bad[i]->IsClosed()) << cases[i].name;
    }
    good.Close();
    EXPECT_TRUE(waitFor([&] { return m_server.GetConnectionCount() == 0; }, 3000));
}

TEST_F(HTTPSServerTest, ReplacedCertificateServesNewcomersWhileOpenConnectionsGoOn)
{
    Start();
    CTlsTestClient before;
    ASSERT_TRUE(before.Connect(m_server.GetTlsPort(), s_certificates->Ca()));
    EXPECT_EQ("first", before.PeerName());
    ASSERT_TRUE(m_server.SetTlsCertificate(CTestCertificates::Read(s_certificates->Chain("second")),
                                           CTestCertificates::Read(s_certificates->Key("second")), false));
    // A failed replacement keeps the certificate in use.
    EXPECT_FALSE(m_server.SetTlsCertificate("not PEM", "not PEM", false));
    CTlsTestClient after;
    ASSERT_TRUE(after.Connect(m_server.GetTlsPort(), s_certificates->Ca()));
    EXPECT_EQ("second", after.PeerName());
    for (CTlsTestClient *client : {&before, &after}) {
        client->Send("GET /small HTTP/1.1\r\nHost: t\r\n\r\n");
        EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 4 \r\n\r\ntiny", client->ReceiveAnswer());
    }
}

TEST_F(HTTPSServerTest, ReplacementsRaceHandshakesOnOtherThreads)
{
    Start();
    std::atomic<bool> done(false);
    std::atomic<int> served(0);
    std::vector<std::thread> clients;
    for (int t = 0; t < 2; ++t) {
        clients.emplace_back([&] {
            for (int i = 0; i < 15; ++i) {
                CTlsTestClient client;
                if (!client.Connect(m_server.GetTlsPort(), s_certificates->Ca()))
                    continue;
                client.Send("GET /small HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n");
                if (client.ReceiveAnswer().find("tiny") != std::string::npos)
                    ++served;
            }
        });
    }
    std::thread replacer([&] {
        for (int i = 0; !done; ++i) {
            const std::string name = i % 2 == 0 ? "second" : "first";
            EXPECT_TRUE(
                m_server.SetTlsCertificate(s_certificates->Chain(name), s_certificates->Key(name), true));
        }
    });
    for (std::thread &client : clients)
        client.join();
    done = true;
    replacer.join();
    EXPECT_EQ(30, served.load());
}

} // namespace
