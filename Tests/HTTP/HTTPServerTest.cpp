#include "HTTP/HTTPServer.h"

#include "Support/FramingCases.h"
#include "Support/Nginx.h"
#include "Support/ScriptedHandler.h"
#include "Support/TestClient.h"
#include "Support/WaitFor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{

using NVQTest::CScriptedHandler;
using NVQTest::CTestClient;
using NVQTest::makeResponse;
using NVQTest::waitFor;

// The exact answer the scripted handler gives by default.
std::string okAnswer(const std::string &uri)
{
    const std::string body = "OK " + uri;
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + " \r\n\r\n" + body;
}

const auto get = [](const std::string &uri) { return "GET " + uri + " HTTP/1.1\r\nHost: test\r\n\r\n"; };

// A real server on a free port with the test's scripted handler.
class HTTPServerTest : public ::testing::Test
{
  protected:
    HTTPServerTest() { Renew(); }
    ~HTTPServerTest() override { Stop(); }

    // A fresh server, not yet started.
    void Renew()
    {
        Stop();
        m_server.reset(new NVQ::CHTTPServer());
        m_server->RegisterHandler(m_handler, false);
    }
    void Start(bool strict = false)
    {
        NVQ::SHTTPServerOptions options;
        options.m_port = 0;
        options.m_strict = strict;
        ASSERT_TRUE(m_server->StartServer(options));
        m_port = m_server->GetPort();
    }
    void Stop()
    {
        if (m_server) {
            m_server->StopServer();
            m_server->UnregisterHandler(m_handler);
        }
    }
    // Sends the bytes and the end of the request stream; what came back, in short.
    std::string Exchange(const std::string &bytes)
    {
        CTestClient client;
        if (!client.Connect(m_port) || !client.Send(bytes))
            return "no connection";
        client.ShutdownWrite();
        return NVQTest::summarize(client.ReceiveUntilClosed(), false);
    }

    CScriptedHandler m_handler;
    std::unique_ptr<NVQ::CHTTPServer> m_server;
    int m_port = 0;
};

TEST_F(HTTPServerTest, OneConnectionServesRequestAfterRequestWithTheseExactAnswers)
{
    const std::string notFound =
        "HTTP/1.1 404 Not found\r\nContent-Length: 406 \r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
    const std::string badRequest =
        "HTTP/1.1 400 Bad Request\r\nContent-Length: 402 \r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
    CScriptedHandler front("/known/front");
    front.m_onProcess = [](NVQ::CHTTPRequest &, int) { return makeResponse(200, "Front", "f", true, false); };
    m_server->RegisterHandler(front, true);
    m_handler.m_prefix = "/known";
    EXPECT_FALSE(m_server->IsServerStarted());
    Start();
    EXPECT_TRUE(m_server->IsServerStarted());
    // Request, the head of the answer, the size of the body after it.
    const std::pair<std::string, std::string> cases[] = {
        {get("/known"), okAnswer("/known")},
        {get("/known?x=1"), okAnswer("/known?x=1")},
        {get("/known/front"), "HTTP/1.1 200 Front\r\nContent-Length: 1 \r\n\r\nf"},
        {"GET / HTTP/1.1\r\nHost example\r\n\r\n", badRequest},
        {get("/unknown"), notFound},
        {get("/known"), okAnswer("/known")},
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    for (const auto &c : cases) {
        ASSERT_TRUE(client.Send(c.first));
        EXPECT_EQ(c.second, client.Receive(c.second.size())) << c.first;
        client.Receive(c.second == notFound ? 406 : c.second == badRequest ? 402 : 0);
    }
    EXPECT_FALSE(client.IsClosed());
    const std::vector<int> ids = m_handler.ProcessIDs();
    EXPECT_EQ(3u, ids.size());
    EXPECT_EQ(1u, std::set<int>(ids.begin(), ids.end()).size()) << "one connection, one ID";
    Stop();
    EXPECT_FALSE(m_server->IsServerStarted());
    EXPECT_TRUE(m_server->UnregisterHandler(front));
    EXPECT_FALSE(m_server->UnregisterHandler(front));
}

// An endless stream ends when its client leaves, when its client stops
// reading (at the send timeout), and when the server stops.
TEST_F(HTTPServerTest, EndlessStreamEndsWhenTheClientLeavesOrStallsOrTheServerStops)
{
    const std::string piece(65536, 's');
    m_handler.m_onProcess = [&](NVQ::CHTTPRequest &, int) {
        return makeResponse(200, "OK", piece, false, false);
    };
    m_handler.m_onPull = [&](int) { return makeResponse(200, "OK", piece, false, true); };
    m_server->SetSendTimeout(200);
    Start();
    std::vector<CTestClient> clients(6);
    for (size_t i = 0; i < clients.size(); ++i) {
        ASSERT_TRUE(clients[i].Connect(m_port));
        ASSERT_TRUE(clients[i].Send(get("/forever")));
        if (i == 0) {
            clients[0].Receive(200000);
            clients[0].Close();
            ASSERT_TRUE(waitFor([&] { return m_handler.EndedIDs().size() == 1; }));
            const size_t after = m_handler.PullIDs().size();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_EQ(after, m_handler.PullIDs().size()) << "no pull after the client left";
        } else if (i == 1) {
            const int interrupts = m_handler.m_interrupts.load();
            ASSERT_TRUE(waitFor([&] { return m_handler.EndedIDs().size() == 2; }, 10000));
            EXPECT_GT(m_handler.m_interrupts.load(), interrupts);
        }
    }
    ASSERT_TRUE(waitFor([&] { return m_handler.ProcessIDs().size() == 6; }));
    const auto begin = std::chrono::steady_clock::now();
    m_server->StopServer();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_EQ(6u, m_handler.EndedIDs().size()) << "every exchange has ended when StopServer returns";
    EXPECT_EQ(0, m_server->GetConnectionCount());
}

// ---- Strict HTTP/1.1 over real sockets, with a handler that echoes each
// request; "/slow" takes a while first, as a handler with real work does.

void echoing(CScriptedHandler &handler)
{
    handler.m_onProcess = [](NVQ::CHTTPRequest &request, int id) {
        if (request.GetUri() == "/slow")
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        return NVQTest::echoRequest(request, id);
    };
}

TEST_F(HTTPServerTest, FramingCasesOverRealSockets)
{
    echoing(m_handler);
    for (const bool strict : {false, true}) {
        Renew();
        Start(strict);
        for (const NVQTest::SFraming &c : NVQTest::c_framings) {
            const std::string expected = std::string(strict ? c.strict : c.reference);
            const std::string open = expected.substr(0, expected.find("closed"));
            EXPECT_EQ(open, Exchange(c.bytes)) << c.name << (strict ? " strict" : "");
            if (strict && open == expected) {
                EXPECT_EQ(open + "200 GET /next; ", Exchange(c.bytes + NVQTest::c_next)) << c.name;
            }
        }
    }
}

// nginx in front, with an upstream keep-alive pool and request buffering off,
// and an attacker whose chunked body holds a request, sent in two writes.
// A server that ignores the chunked framing reads that request as the next
// one on the pooled connection, and the next client gets its answer.
TEST_F(HTTPServerTest, NoRequestIsSmuggledThroughNginxInStrictMode)
{
    if (::access("/usr/sbin/nginx", X_OK) != 0)
        GTEST_SKIP() << "nginx is not installed";
    const std::string attackHead =
        "POST /slow HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\n";
    const std::string attackTail =
        "36\r\nGET /SMUGGLED HTTP/1.1\r\nHost: a\r\nContent-Length: 8\r\n\r\n\r\n0\r\n\r\n";
    echoing(m_handler);
    for (const bool strict : {false, true}) {
        Renew();
        Start(strict);
        NVQTest::CNginx nginx;
        ASSERT_TRUE(nginx.Start("upstream nvq { server 127.0.0.1:" + std::to_string(m_port) +
                                "; keepalive 4; }\nserver { listen 127.0.0.1:{port}; location / { proxy_pass "
                                "http://nvq; proxy_http_version 1.1; proxy_set_header Connection \"\"; "
                                "proxy_request_buffering off; } }\n"))
            << nginx.Log();
        const int tries = strict ? 50 : 10;
        int poisoned = 0;
        for (int i = 0; i < tries; ++i) {
            CTestClient attacker, victim;
            ASSERT_TRUE(attacker.Connect(nginx.Port()));
            ASSERT_TRUE(attacker.Send(attackHead));
            std::this_thread::sleep_for(std::chrono::milliseconds(5)); // while /slow is being answered
            ASSERT_TRUE(attacker.Send(attackTail));
            attacker.ReceiveAnswer(2000);
            ASSERT_TRUE(victim.Connect(nginx.Port()));
            ASSERT_TRUE(victim.Send("GET /victim HTTP/1.1\r\nHost: a\r\n\r\n"));
            poisoned += victim.ReceiveAnswer(2000).find("GET /victim") == std::string::npos;
        }
        if (strict) {
            EXPECT_EQ(0, poisoned) << "of " << tries << " victims";
        } else {
            EXPECT_GT(poisoned, 0) << "the lenient mode is open to it: the test must see that";
        }
    }
}

} // namespace
