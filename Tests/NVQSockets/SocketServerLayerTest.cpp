#include "NVQSockets/Linux/SocketServerLayer.h"

#include "KZF_Utilities/Linux/Logger.h"
#include "Support/CapturingLogDevice.h"
#include "Support/TestClient.h"
#include "Support/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using NVQTest::CTestClient;
using NVQTest::waitFor;

class CTestListener;

// The server side of one test connection: reads what is waiting and hands it
// to the test's behaviour (echo by default).
class CTestConnection : public NVQ::INVQDataLayerNotification
{
  public:
    CTestConnection(CTestListener &owner, NVQ::INVQDataLayer &layer) : m_owner(owner), m_pLayer(&layer)
    {
        layer.RegisterNotification(*this);
    }
    ~CTestConnection() override { Detach(); }

    void OnDataReceived(NVQ::INVQDataLayer &layer) override;
    void OnConnectionClosed(NVQ::INVQDataLayer &layer) override;
    void OnDataSent(NVQ::INVQDataLayer &) override { ++m_sentNotices; }
    bool OnIdle(NVQ::INVQDataLayer &layer) override
    {
        // A long exchange that stays: a keep-alive byte of its own each time.
        if (m_idleNotices++ >= m_keepIdle)
            return false;
        layer.SendData("k", 1);
        return true;
    }

    void Detach()
    {
        NVQ::INVQDataLayer *layer = m_pLayer.exchange(nullptr);
        if (layer != nullptr)
            layer->UnregisterNotification(*this);
    }

    CTestListener &m_owner;
    std::atomic<NVQ::INVQDataLayer *> m_pLayer;
    std::atomic<int> m_inside{0};
    std::atomic<int> m_closes{0};
    std::atomic<int> m_sentNotices{0};
    std::atomic<int> m_idleNotices{0};
    int m_keepIdle = 0;
};

class CTestListener : public NVQ::INVQMultiPointLayerNotification
{
  public:
    typedef std::function<void(CTestConnection &, NVQ::INVQDataLayer &, const std::string &)> FOnData;

    explicit CTestListener(NVQ::CSocketServerLayer &server) : m_server(server)
    {
        m_onData = [](CTestConnection &, NVQ::INVQDataLayer &layer, const std::string &bytes) {
            if (!bytes.empty())
                layer.SendData(bytes.data(), static_cast<int>(bytes.size()));
        };
        server.RegisterNotification(*this);
    }
    ~CTestListener() override { m_server.UnregisterNotification(*this); }

    bool NewConnectionRequested(NVQ::INVQMultiPointLayer &layer, const NVQ::INVQConnectionAddress &first,
                                const NVQ::INVQConnectionAddress &second) override
    {
        if (m_concurrentNew.fetch_add(1) != 0)
            ++m_overlaps;
        KZF::CRefCountPtr<NVQ::INVQDataLayer> dataLayer = layer.CreateConnectionPoint(first, second);
        bool taken = false;
        if (!dataLayer.IsNull()) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_firstAddresses.push_back(first.ToString());
            m_secondAddresses.push_back(second.ToString());
            m_connections.push_back(std::make_unique<CTestConnection>(*this, *dataLayer.GetPtr()));
            taken = true;
        }
        --m_concurrentNew;
        return taken;
    }
    void OnConnectionClosed(NVQ::INVQDataLayer &, const NVQ::INVQConnectionAddress &,
                            const NVQ::INVQConnectionAddress &) override
    {
        ++m_layerCloses;
    }

    size_t ConnectionCount()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_connections.size();
    }
    CTestConnection &Connection(size_t index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return *m_connections.at(index);
    }

    NVQ::CSocketServerLayer &m_server;
    FOnData m_onData;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<CTestConnection>> m_connections;
    std::vector<std::string> m_firstAddresses;
    std::vector<std::string> m_secondAddresses;
    std::atomic<int> m_concurrentNew{0};
    std::atomic<int> m_overlaps{0};
    std::atomic<int> m_dataNotifications{0};
    std::atomic<int> m_closes{0};
    std::atomic<int> m_layerCloses{0};
};

void CTestConnection::OnDataReceived(NVQ::INVQDataLayer &layer)
{
    if (m_inside.fetch_add(1) != 0)
        ++m_owner.m_overlaps;
    ++m_owner.m_dataNotifications;
    std::string bytes;
    char buffer[4096];
    int n;
    while ((n = layer.ReadData(buffer, sizeof(buffer))) > 0)
        bytes.append(buffer, static_cast<size_t>(n));
    m_owner.m_onData(*this, layer, bytes);
    --m_inside;
}

void CTestConnection::OnConnectionClosed(NVQ::INVQDataLayer &)
{
    ++m_closes;
    ++m_owner.m_closes;
    Detach();
}

// Holds deliveries inside the handler until released.
struct SGate {
    void Enter()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_inside;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_release; });
    }
    bool WaitInside(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_inside == count; });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_release = true;
        m_changed.notify_all();
    }
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_inside = 0;
    bool m_release = false;
};

class SocketServerLayerTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_server.StartServer(0, -1, false));
        m_port = m_server.GetPort();
        ASSERT_GT(m_port, 0);
    }
    void TearDown() override { m_server.StopServer(); }

    NVQ::CSocketServerLayer m_server;
    CTestListener m_listener{m_server};
    int m_port = 0;
};

TEST_F(SocketServerLayerTest, EchoesOverIPv4AndIPv6AndNamesBothEnds)
{
    CTestClient v4;
    ASSERT_TRUE(v4.Connect(m_port));
    ASSERT_TRUE(v4.Send("hello"));
    EXPECT_EQ("hello", v4.Receive(5));

    CTestClient v6;
    const bool haveIPv6 = v6.Connect(m_port, true);
    if (haveIPv6) {
        ASSERT_TRUE(v6.Send("over six"));
        EXPECT_EQ("over six", v6.Receive(8));
    }

    ASSERT_TRUE(waitFor([&] { return m_listener.ConnectionCount() == (haveIPv6 ? 2u : 1u); }));
    std::lock_guard<std::mutex> lock(m_listener.m_mutex);
    const std::string port = ":" + std::to_string(m_port);
    EXPECT_EQ(0u, m_listener.m_firstAddresses[0].find("127.0.0.1:"));
    EXPECT_EQ("127.0.0.1" + port, m_listener.m_secondAddresses[0]);
    if (haveIPv6) {
        EXPECT_EQ(0u, m_listener.m_firstAddresses[1].find("[::1]:"));
        EXPECT_EQ("[::1]" + port, m_listener.m_secondAddresses[1]);
    }
}

TEST_F(SocketServerLayerTest, StartFailsWhenThePortIsTakenOrTheServerRunsAndRestartsAfterStop)
{
    EXPECT_FALSE(m_server.StartServer(0, -1, false)) << "already running";
    NVQ::CSocketServerLayer second;
    {
        NVQTest::CCapturingDevice device;
        EXPECT_FALSE(second.StartServer(m_port, -1, false));
        ASSERT_EQ(1u, device.Messages().size());
        EXPECT_EQ(0u, device.Messages()[0].find("1 StartServer SocketServerLayer : cannot listen on port " +
                                                std::to_string(m_port)))
            << device.Messages()[0];
    }
    EXPECT_FALSE(second.IsServerStarted());

    m_server.StopServer();
    EXPECT_FALSE(m_server.IsServerStarted());
    EXPECT_EQ(0, m_server.GetPort());
    ASSERT_TRUE(m_server.StartServer(0, -1, true));
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_server.GetPort()));
    ASSERT_TRUE(client.Send("again"));
    EXPECT_EQ("again", client.Receive(5));
}

TEST_F(SocketServerLayerTest, SmallAndLargeWritesArriveWholeAndInOrder)
{
    const std::string large(300000, 'L');
    m_listener.m_onData = [&](CTestConnection &, NVQ::INVQDataLayer &layer, const std::string &bytes) {
        if (bytes.empty())
            return;
        for (int i = 0; i < 2000; ++i)
            layer.SendData("abc", 3);
        layer.SendData(large.data(), static_cast<int>(large.size()));
        layer.SendData(nullptr, 0);
        layer.SendData("xyz", 3);
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("go"));
    std::string expected;
    for (int i = 0; i < 2000; ++i)
        expected += "abc";
    expected += large + "xyz";
    EXPECT_EQ(expected, client.Receive(expected.size()));
}

TEST_F(SocketServerLayerTest, OneDataNotificationAtATimePerConnection)
{
    m_listener.m_onData = [](CTestConnection &, NVQ::INVQDataLayer &layer, const std::string &bytes) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (!bytes.empty())
            layer.SendData(bytes.data(), static_cast<int>(bytes.size()));
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    std::string sent;
    for (int i = 0; i < 100; ++i) {
        const std::string piece = std::to_string(i) + ",";
        ASSERT_TRUE(client.Send(piece));
        sent += piece;
        if (i % 7 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(sent, client.Receive(sent.size()));
    EXPECT_EQ(0, m_listener.m_overlaps.load());
}

TEST_F(SocketServerLayerTest, StalledExchangesDoNotStallOthers)
{
    // More exchanges than the pool starts with block at once; all of them
    // must be running together before any is let go.
    const int stalled = 8;
    SGate gate;
    m_listener.m_onData = [&](CTestConnection &, NVQ::INVQDataLayer &layer, const std::string &bytes) {
        if (bytes.empty())
            return;
        gate.Enter();
        layer.SendData("done", 4);
    };
    std::vector<CTestClient> clients(stalled);
    for (CTestClient &client : clients) {
        ASSERT_TRUE(client.Connect(m_port));
        ASSERT_TRUE(client.Send("x"));
    }
    EXPECT_TRUE(gate.WaitInside(stalled)) << gate.m_inside << " of " << stalled << " exchanges started";
    gate.Release();
    for (CTestClient &client : clients)
        EXPECT_EQ("done", client.Receive(4));
    EXPECT_GE(m_server.GetWorkerCount(), stalled);
}

TEST_F(SocketServerLayerTest, UnregisterAndCloseFromInsideTheDelivery)
{
    m_listener.m_onData = [](CTestConnection &connection, NVQ::INVQDataLayer &layer,
                             const std::string &bytes) {
        if (bytes.empty())
            return;
        layer.SendData("bye", 3);
        connection.Detach();
        layer.Close();
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("quit"));
    EXPECT_EQ("bye", client.ReceiveUntilClosed());
    EXPECT_TRUE(client.IsClosed());
    client.Close();
    ASSERT_TRUE(waitFor([&] { return m_listener.m_layerCloses.load() == 1; }));
    EXPECT_EQ(0, m_listener.m_closes.load()) << "the closing party hears nothing of its own close";
    EXPECT_TRUE(waitFor([&] { return m_server.GetConnectionCount() == 0; }));
}

TEST_F(SocketServerLayerTest, ServerCloseKeepsTheAnswerWhenThePeerIsStillSending)
{
    // The peer sends far more than is ever read, and reads the answer only
    // once it is done sending. A close that left its bytes unread would reset
    // the connection and destroy the answer on its way.
    const std::string answer(200000, 'a');
    std::atomic<bool> answered(false);
    m_listener.m_onData = [&](CTestConnection &connection, NVQ::INVQDataLayer &layer,
                              const std::string &bytes) {
        if (bytes.empty())
            return;
        layer.SendData(answer.data(), static_cast<int>(answer.size()));
        connection.Detach();
        layer.Close();
        answered = true;
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("first"));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(client.Send(std::string(1 << 20, 'x')));
    EXPECT_EQ(answer, client.ReceiveUntilClosed());
    EXPECT_TRUE(client.IsClosed());
    EXPECT_TRUE(waitFor([&] { return answered.load(); })); // the answer's memory stays until it is sent
}

TEST_F(SocketServerLayerTest, PeerCloseIsReportedOnceAndHalfCloseStillGetsTheAnswer)
{
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("last words"));
    client.ShutdownWrite();
    EXPECT_EQ("last words", client.ReceiveUntilClosed());
    ASSERT_TRUE(waitFor([&] { return m_listener.m_closes.load() == 1; }));
    EXPECT_TRUE(waitFor([&] { return m_server.GetConnectionCount() == 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(1, m_listener.m_closes.load());
    EXPECT_EQ(1, m_listener.m_layerCloses.load());
}

TEST_F(SocketServerLayerTest, UnregisterWaitsForADeliveryOnAnotherThread)
{
    SGate gate;
    m_listener.m_onData = [&](CTestConnection &, NVQ::INVQDataLayer &, const std::string &bytes) {
        if (!bytes.empty())
            gate.Enter();
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("hold"));
    ASSERT_TRUE(gate.WaitInside(1));
    std::atomic<bool> unregistered(false);
    std::thread other([&] {
        m_listener.Connection(0).Detach();
        unregistered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(unregistered) << "UnregisterNotification returned while its delivery ran";
    gate.Release();
    other.join();
}

TEST_F(SocketServerLayerTest, ClientThatNeverReadsBreaksTheConnectionAfterTheSendTimeout)
{
    m_server.SetSendTimeout(200);
    std::atomic<bool> closedBeforeFailureReturned(false);
    std::atomic<bool> finished(false);
    m_listener.m_onData = [&](CTestConnection &connection, NVQ::INVQDataLayer &layer,
                              const std::string &bytes) {
        if (bytes.empty())
            return;
        const std::string piece(65536, 'p');
        while (layer.SendData(piece.data(), static_cast<int>(piece.size())) > 0) {
        }
        closedBeforeFailureReturned = connection.m_closes.load() == 1;
        EXPECT_EQ(-1, layer.SendData("x", 1)) << "writes after a failure are dropped";
        finished = true;
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    const int small = 4096;
    setsockopt(client.Fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    ASSERT_TRUE(client.Send("flood me"));
    ASSERT_TRUE(waitFor([&] { return finished.load(); }, 10000));
    EXPECT_TRUE(closedBeforeFailureReturned) << "the close is delivered at once when a send fails";
    EXPECT_EQ(1, m_listener.m_closes.load());
}

TEST_F(SocketServerLayerTest, IdleConnectionsAreClosedAfterTheIdleTimeout)
{
    m_server.SetIdleTimeout(150);
    CTestClient answered;
    ASSERT_TRUE(answered.Connect(m_port));
    ASSERT_TRUE(answered.Send("ping"));
    EXPECT_EQ("ping", answered.Receive(4));
    CTestClient silent;
    ASSERT_TRUE(silent.Connect(m_port));
    EXPECT_TRUE(answered.WaitClosed(3000));
    EXPECT_TRUE(silent.WaitClosed(3000));
    EXPECT_TRUE(waitFor([&] { return m_listener.m_closes.load() == 2; }));
}

TEST_F(SocketServerLayerTest, RequestThatNeverCompletesIsGivenUp)
{
    m_server.SetRequestTimeout(200);
    // Answers only complete lines; a client that trickles bytes without one
    // keeps the request open.
    m_listener.m_onData = [](CTestConnection &, NVQ::INVQDataLayer &layer, const std::string &bytes) {
        if (bytes.find('\n') != std::string::npos)
            layer.SendData("ok", 2);
    };
    CTestClient slow;
    ASSERT_TRUE(slow.Connect(m_port));
    const auto start = std::chrono::steady_clock::now();
    bool closed = false;
    for (int i = 0; i < 60 && !closed; ++i) {
        slow.Send("x");
        closed = slow.WaitClosed(50);
    }
    EXPECT_TRUE(closed);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

    CTestClient prompt;
    ASSERT_TRUE(prompt.Connect(m_port));
    for (int i = 0; i < 6; ++i) { // answered lines keep resetting the clock
        ASSERT_TRUE(prompt.Send("line\n"));
        ASSERT_EQ("ok", prompt.Receive(2));
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
    EXPECT_FALSE(prompt.IsClosed());
}

TEST_F(SocketServerLayerTest, AtTheCapTheLongestIdleMakesRoomUnlessNoneIsIdle)
{
    m_server.SetMaxConnections(3);
    // Lines are answered; anything else leaves its connection inside a request.
    m_listener.m_onData = [](CTestConnection &, NVQ::INVQDataLayer &layer, const std::string &bytes) {
        if (bytes.find('\n') != std::string::npos)
            layer.SendData("ok", 2);
    };
    auto served = [](CTestClient &client) { return client.Send("in\n") && client.Receive(2) == "ok"; };
    std::vector<CTestClient> clients(3);
    for (CTestClient &client : clients) {
        ASSERT_TRUE(client.Connect(m_port));
        ASSERT_TRUE(served(client));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    CTestClient newcomer;
    ASSERT_TRUE(newcomer.Connect(m_port));
    EXPECT_TRUE(served(newcomer));
    EXPECT_TRUE(clients[0].WaitClosed(2000)) << "the one idle longest made room";
    EXPECT_TRUE(served(clients[1]));

    // Nobody idle: a newcomer is turned away, and nobody else is harmed.
    for (CTestClient *client : {&clients[1], &clients[2], &newcomer})
        ASSERT_TRUE(client->Send("part"));
    ASSERT_TRUE(waitFor([&] { return m_listener.m_dataNotifications.load() >= 8; }));
    CTestClient refused;
    ASSERT_TRUE(refused.Connect(m_port)); // the kernel completes the handshake
    EXPECT_TRUE(refused.WaitClosed(2000));
    for (CTestClient *client : {&clients[1], &clients[2], &newcomer}) {
        ASSERT_TRUE(client->Send("\n"));
        EXPECT_EQ("ok", client->Receive(2));
    }
}

TEST_F(SocketServerLayerTest, LongLivedConnectionsLiveOnIdleNoticesAndNeverMakeRoom)
{
    m_server.SetIdleTimeout(100);
    m_server.SetMaxConnections(1);
    m_listener.m_onData = [](CTestConnection &connection, NVQ::INVQDataLayer &layer, const std::string &) {
        connection.m_keepIdle = 3;
        layer.SetLongLived();
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("upgrade"));
    ASSERT_TRUE(
        waitFor([&] { return m_listener.ConnectionCount() == 1 && m_listener.m_dataNotifications > 0; }));
    CTestClient newcomer; // at the cap, and the only other connection is not idle
    ASSERT_TRUE(newcomer.Connect(m_port));
    EXPECT_TRUE(newcomer.WaitClosed(2000));
    EXPECT_EQ("kkk", client.ReceiveUntilClosed(3000)) << "three keep-alives, then silence ends it";
    EXPECT_TRUE(client.IsClosed());
    EXPECT_EQ(4, m_listener.Connection(0).m_idleNotices.load());
}

TEST_F(SocketServerLayerTest, OtherThreadsSeeWhatWaitsAndWakeTheWriter)
{
    std::atomic<NVQ::INVQDataLayer *> layerSeen{nullptr};
    m_listener.m_onData = [&](CTestConnection &, NVQ::INVQDataLayer &layer, const std::string &) {
        layerSeen = &layer;
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("go"));
    ASSERT_TRUE(waitFor([&] { return layerSeen.load() != nullptr; }));
    NVQ::INVQDataLayer &layer = *layerSeen.load();
    // More than both sockets' buffers hold while the peer reads nothing.
    const std::string piece(32 * 1024 * 1024, 'p');
    std::thread producer([&] { layer.SendData(piece.data(), static_cast<int>(piece.size())); });
    producer.join();
    EXPECT_TRUE(waitFor([&] { return layer.GetPendingOutput() > 0; })) << "the peer reads nothing yet";
    EXPECT_EQ(piece.size(), client.Receive(piece.size()).size());
    EXPECT_TRUE(waitFor([&] { return layer.GetPendingOutput() == 0; }));
    std::thread([&] { layer.NotifyWhenWritable(); }).join();
    EXPECT_TRUE(waitFor([&] { return m_listener.Connection(0).m_sentNotices.load() == 1; }));
}

TEST_F(SocketServerLayerTest, StopServerWakesABlockedSendAndDeliversEveryClose)
{
    std::atomic<bool> writing(false);
    m_listener.m_onData = [&](CTestConnection &, NVQ::INVQDataLayer &layer, const std::string &bytes) {
        if (bytes.empty())
            return;
        writing = true;
        const std::string piece(65536, 'p');
        while (layer.SendData(piece.data(), static_cast<int>(piece.size())) > 0) {
        }
    };
    CTestClient stuck;
    ASSERT_TRUE(stuck.Connect(m_port));
    ASSERT_TRUE(stuck.Send("never read"));
    std::vector<CTestClient> idle(5);
    for (CTestClient &client : idle)
        ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(waitFor([&] { return writing.load() && m_listener.ConnectionCount() == 6; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // let the writer block

    const auto start = std::chrono::steady_clock::now();
    m_server.StopServer();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(6, m_listener.m_closes.load());
    EXPECT_EQ(0, m_server.GetConnectionCount());
    for (CTestClient &client : idle)
        EXPECT_TRUE(client.WaitClosed(1000));
}

TEST_F(SocketServerLayerTest, StopServerEndsAnExchangeThatOnlyWatchesForTheClose)
{
    // Like the library's exchanges: it ignores SendData's result and stops
    // only once the close notification has arrived.
    std::atomic<bool> writing(false);
    m_listener.m_onData = [&](CTestConnection &connection, NVQ::INVQDataLayer &layer,
                              const std::string &bytes) {
        if (bytes.empty())
            return;
        writing = true;
        while (connection.m_closes.load() == 0) {
            layer.SendData("tick", 4);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("start"));
    ASSERT_TRUE(waitFor([&] { return writing.load(); }));
    m_server.StopServer();
    EXPECT_EQ(1, m_listener.m_closes.load());
}

TEST_F(SocketServerLayerTest, HoldsManyIdleConnectionsWithAFewThreads)
{
    NVQTest::raiseFileLimit();
    const int count = 2000;
    std::vector<CTestClient> clients(count);
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(clients[i].Connect(m_port)) << i;
        ASSERT_TRUE(clients[i].Send("r"));
        ASSERT_EQ("r", clients[i].Receive(1)) << i;
    }
    EXPECT_EQ(count, m_server.GetConnectionCount());
    EXPECT_LE(m_server.GetWorkerCount(), 8);
    m_server.StopServer();
    EXPECT_EQ(count, m_listener.m_closes.load());
}

TEST(NotificationTest, ReferenceCountChecksOnDestruction)
{
    struct CProbe : public NVQ::INVQNotification {
        int Count() const { return m_notificationRef; }
    };
    {
        CProbe probe;
        probe.AddNotificationRef();
        probe.AddNotificationRef();
        probe.ReleaseNotificationRef();
        probe.ReleaseNotificationRef();
        EXPECT_EQ(0, probe.Count());
    }
    const auto leaveOneHeld = [] { CProbe().AddNotificationRef(); };
    EXPECT_DEATH(leaveOneHeld(), "m_notificationRef <= 0");
    const int saved = GetKzfAssertMode();
    SetKzfAssertMode(1);
    leaveOneHeld();
    SetKzfAssertMode(saved);
}

} // namespace
