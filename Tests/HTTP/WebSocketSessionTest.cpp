#include "HTTP/HTTPLiveLogHandler.h"
#include "HTTP/HTTPServer.h"
#include "HTTP/HTTPWebSocketEndpoint.h"

#include "Support/TestClient.h"
#include "Support/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using NVQTest::CTestClient;
using NVQTest::waitFor;

const std::string c_upgrade = "Upgrade: websocket\r\nConnection: Upgrade\r\n";

// Opens a WebSocket on path and answers the head of the server's answer.
std::string handshake(CTestClient &client, int port, const std::string &path, const std::string &extra = "",
                      const std::string &upgrade = c_upgrade)
{
    if (!client.Connect(port) ||
        !client.Send("GET " + path + " HTTP/1.1\r\nHost: t\r\n" + upgrade +
                     "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n" + extra +
                     "\r\n"))
        return "";
    return client.ReceiveAnswer();
}

// The next frame from the server: opcode, payload; opcode -1 when none came.
std::pair<int, std::string> readFrame(CTestClient &client, int timeoutMs = 10000)
{
    const std::string head = client.Receive(2, timeoutMs);
    if (head.size() < 2)
        return {-1, ""};
    uint64_t size = static_cast<unsigned char>(head[1]) & 0x7F;
    if (size >= 126) {
        const std::string extended = client.Receive(size == 126 ? 2 : 8, timeoutMs);
        size = 0;
        for (const char c : extended)
            size = size << 8 | static_cast<unsigned char>(c);
    }
    return {static_cast<unsigned char>(head[0]) & 0x0F, client.Receive(size, timeoutMs)};
}

std::string maskedFrame(int opcode, const std::string &payload)
{
    std::string out{static_cast<char>(0x80 | opcode), static_cast<char>(0x80 | payload.size()), 0, 0, 0, 0};
    return out + payload; // a zero mask leaves the payload as it is
}

// Keeps the sessions it opens, and sends from wherever the test likes.
class CKeepingHandler : public NVQ::IWebSocketHandler
{
  public:
    bool AcceptUpgrade(SUpgrade &upgrade) override
    {
        m_origin = upgrade.m_origin;
        upgrade.m_chosenProtocol = m_pick;
        return m_accept;
    }
    void OnOpen(NVQ::CWebSocketSession &session) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessions.push_back(&session);
    }
    void OnMessage(NVQ::CWebSocketSession &, bool, const unsigned char *, size_t) override {}
    void OnClosed(NVQ::CWebSocketSession &, int code) override { m_closedWith = code; }
    bool OnSendQueueFull(NVQ::CWebSocketSession &) override { return ++m_fullCount, m_closeWhenFull; }
    // The latest session once there are count of them, else null.
    KZF::CRefCountPtr<NVQ::CWebSocketSession> Session(size_t count = 1)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sessions.size() < count ? nullptr : m_sessions.back();
    }

    bool m_accept = true, m_closeWhenFull = true;
    std::string m_pick, m_origin;
    std::atomic<int> m_closedWith{0}, m_fullCount{0};
    std::mutex m_mutex;
    std::vector<KZF::CRefCountPtr<NVQ::CWebSocketSession>> m_sessions;
};

class WebSocketSessionTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        m_server.RegisterHandler(m_endpoint, false);
        m_server.SetIdleTimeout(300);
        m_server.SetSendTimeout(1000);
        NVQ::SHTTPServerOptions options;
        options.m_port = 0;
        ASSERT_TRUE(m_server.StartServer(options));
        m_port = m_server.GetPort();
    }
    void TearDown() override
    {
        m_server.StopServer();
        m_server.UnregisterHandler(m_endpoint);
    }

    CKeepingHandler m_handler;
    NVQ::CHTTPWebSocketEndpoint m_endpoint{"/ws", m_handler};
    NVQ::CHTTPServer m_server;
    int m_port = 0;
};

TEST_F(WebSocketSessionTest, UpgradeDecisions)
{
    struct {
        const char *name;
        bool accept;
        std::string pick, offer, expected, unexpected, upgrade;
    } cases[] = {
        {"picks an offered protocol", true, "b", "Sec-WebSocket-Protocol: a, b\r\n",
         "HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: "
         "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\nSec-WebSocket-Protocol: b\r\nUpgrade: websocket\r\n\r\n",
         "Protocol: a", c_upgrade},
        {"a protocol not offered is dropped", true, "c", "Sec-WebSocket-Protocol: a\r\n", "101",
         "Sec-WebSocket-Protocol", c_upgrade},
        {"refused", false, "", "", "HTTP/1.1 403 Forbidden", "Upgrade", c_upgrade},
        {"no Connection: upgrade", true, "", "", "HTTP/1.1 426", "101", "Upgrade: websocket\r\n"},
        {"no Upgrade: websocket", true, "", "", "HTTP/1.1 426", "101", "Connection: Upgrade\r\n"},
    };
    for (const auto &c : cases) {
        m_handler.m_accept = c.accept;
        m_handler.m_pick = c.pick;
        m_handler.m_origin.clear();
        CTestClient client;
        const std::string head =
            handshake(client, m_port, "/ws", c.offer + "Origin: http://device\r\n", c.upgrade);
        EXPECT_NE(std::string::npos, head.find(c.expected)) << c.name << "\n" << head;
        EXPECT_EQ(std::string::npos, head.find(c.unexpected)) << c.name << "\n" << head;
        EXPECT_EQ(c.upgrade == c_upgrade ? "http://device" : "", m_handler.m_origin) << c.name;
    }
}

TEST_F(WebSocketSessionTest, FramesFromManyThreadsArriveWholeAndInOrderPerThread)
{
    m_handler.m_closeWhenFull = false;
    CTestClient client;
    ASSERT_NE(std::string::npos, handshake(client, m_port, "/ws").find("101"));
    ASSERT_TRUE(waitFor([&] { return !m_handler.Session().IsNull(); }));
    const KZF::CRefCountPtr<NVQ::CWebSocketSession> session = m_handler.Session();
    const int threads = 4, messages = 200;
    std::vector<std::thread> senders;
    for (int t = 0; t < threads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < messages; ++i) {
                // Sizes on both sides of the one-piece frame on the stack.
                std::string text = std::to_string(t) + " " + std::to_string(i) + " ";
                text.resize(i % 3 == 0 ? 6000 : 40, static_cast<char>('a' + t));
                while (!session->SendText(text.data(), text.size()))
                    std::this_thread::yield(); // the queue is full until the client reads on
            }
        });
    }
    std::vector<int> next(threads, 0);
    for (int n = 0; n < threads * messages; ++n) {
        const auto frame = readFrame(client);
        ASSERT_EQ(1, frame.first);
        const int t = std::stoi(frame.second), i = std::stoi(frame.second.substr(frame.second.find(' ') + 1));
        ASSERT_EQ(next[t]++, i);
        ASSERT_EQ(i % 3 == 0 ? 6000u : 40u, frame.second.size());
        ASSERT_EQ(std::string::npos, frame.second.find_first_not_of(static_cast<char>('a' + t), 8));
    }
    for (std::thread &sender : senders)
        sender.join();
}

TEST_F(WebSocketSessionTest, ClientThatFallsBehindIsClosedOrReportedAsTheHandlerChooses)
{
    for (const bool close : {true, false}) {
        m_handler.m_closeWhenFull = close;
        m_handler.m_fullCount = 0;
        CTestClient client;
        client.SetReceiveBuffer(4096);
        ASSERT_NE(std::string::npos, handshake(client, m_port, "/ws").find("101"));
        ASSERT_TRUE(waitFor([&] { return !m_handler.Session(close ? 1 : 2).IsNull(); }));
        const KZF::CRefCountPtr<NVQ::CWebSocketSession> session = m_handler.Session();
        // The client reads nothing: another thread's sends stop being taken,
        // and never hold the sender. A frame above the bound goes while
        // nothing waits.
        const std::string block(16384, 'x'), big((1 << 20) + 1, 'p');
        std::thread([&] {
            EXPECT_TRUE(session->SendBinary(big.data(), big.size()));
            while (session->SendBinary(block.data(), block.size())) {
            }
        }).join();
        EXPECT_EQ(1, m_handler.m_fullCount.load());
        EXPECT_EQ(!close, session->IsOpen());
        if (close) {
            ASSERT_TRUE(waitFor([&] { return m_handler.m_closedWith == 1008; }, 10000));
        }
    }
}

TEST_F(WebSocketSessionTest, QuietConnectionIsPingedAndDroppedWhenThePingGoesUnanswered)
{
    CTestClient client;
    ASSERT_NE(std::string::npos, handshake(client, m_port, "/ws").find("101"));
    for (int round = 0; round < 2; ++round) {
        const auto ping = readFrame(client, 2000);
        ASSERT_EQ(9, ping.first);
        ASSERT_TRUE(client.Send(maskedFrame(10, ping.second)));
    }
    EXPECT_EQ(9, readFrame(client, 2000).first);
    EXPECT_TRUE(client.WaitClosed(2000));
    EXPECT_TRUE(waitFor([&] { return m_handler.m_closedWith == 1006; }));
}

// 100 subscribers while 4 threads log 50,000 messages: one in ten reads
// along, the others read nothing until the logging is over. Logging never
// waits for them, and each accounts for every message: received, or counted
// in a lost notice.
TEST(LiveLogTest, EverySubscriberGetsEachMessageOrItsExactLoss)
{
    NVQ::CHTTPLiveLogHandler live("/live");
    NVQ::CHTTPServer server;
    server.RegisterHandler(live, false);
    NVQ::SHTTPServerOptions options;
    options.m_port = 0;
    ASSERT_TRUE(server.StartServer(options));
    const int subscribers = 100;
    std::vector<CTestClient> clients(subscribers);
    for (CTestClient &client : clients)
        ASSERT_NE(std::string::npos, handshake(client, server.GetPort(), "/live").find("101"));
    std::vector<uint64_t> lostTotal(subscribers, 0);
    const auto log = [](const char *format, int t, int n) {
        KZF::CLogger::GetInstance().LogMessage(5, __FILE__, __LINE__, "test", KZF::CLogger::c_noneObjPtr,
                                               format, t, n);
    };
    std::vector<std::thread> readers, loggers;
    const auto read = [&](int i) {
        readers.emplace_back([&, i] {
            for (uint64_t last = 0, lost = 0;;) {
                const auto frame = readFrame(clients[i], 30000);
                ASSERT_EQ(1, frame.first) << "subscriber " << i;
                const std::string &json = frame.second;
                if (json.compare(0, 8, "{\"lost\":") == 0) {
                    lost += std::stoull(json.substr(8));
                    lostTotal[i] += std::stoull(json.substr(8));
                    continue;
                }
                const uint64_t id = std::stoull(json.substr(6));
                ASSERT_TRUE(last == 0 || last + lost + 1 == id) << "subscriber " << i << ": " << id;
                last = id;
                lost = 0;
                if (json.find("all logged") != std::string::npos)
                    return;
            }
        });
    };
    for (int i = 0; i < subscribers; i += 10)
        read(i);
    for (int t = 0; t < 4; ++t)
        loggers.emplace_back([&log, t] {
            for (int n = 0; n < 12500; ++n)
                log("logger %d message %d", t, n);
        });
    for (std::thread &logger : loggers)
        logger.join();
    log("all logged", 0, 0);
    // The others wake up to what is left in the ring.
    for (int i = 0; i < subscribers; ++i)
        if (i % 10 != 0)
            read(i);
    for (std::thread &reader : readers)
        reader.join();
    uint64_t idleLost = 0;
    for (int i = 1; i < subscribers; ++i)
        idleLost += i % 10 != 0 ? lostTotal[i] : 0;
    EXPECT_GT(idleLost, 0u) << "the idle ones lost some";
    server.StopServer();
    server.UnregisterHandler(live);
}

} // namespace
