#include "NVQSockets/Linux/SocketServerLayer.h"

#include "Support/CapturingLogDevice.h"
#include "Support/TestClient.h"
#include "Support/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#ifdef NVQ_WITH_TLS
#include <openssl/ssl.h>
#endif

namespace
{

using NVQ::INVQDataLayer;
using NVQTest::CTestClient;
using NVQTest::waitFor;

class CTestListener;

// The server side of one test connection: reads what is waiting and hands it
// to the test's behaviour (echo by default).
class CTestConnection : public NVQ::INVQDataLayerNotification
{
  public:
    CTestConnection(CTestListener &owner, INVQDataLayer &layer) : m_owner(owner), m_pLayer(&layer)
    {
        layer.RegisterNotification(*this);
    }
    ~CTestConnection() override { Detach(); }
    void OnDataReceived(INVQDataLayer &layer) override;
    void OnConnectionClosed(INVQDataLayer &layer) override;
    void OnDataSent(INVQDataLayer &) override { ++m_sentNotices; }
    bool OnIdle(INVQDataLayer &layer) override
    {
        // A long exchange that stays: a keep-alive byte of its own each time.
        return m_idleNotices++ < m_keepIdle && layer.SendData("k", 1) == 1;
    }
    void Detach()
    {
        INVQDataLayer *layer = m_pLayer.exchange(nullptr);
        if (layer != nullptr)
            layer->UnregisterNotification(*this);
    }

    CTestListener &m_owner;
    std::atomic<INVQDataLayer *> m_pLayer;
    std::atomic<int> m_inside{0}, m_closes{0}, m_sentNotices{0}, m_idleNotices{0};
    int m_keepIdle = 0;
};

typedef std::function<void(CTestConnection &, INVQDataLayer &, const std::string &)> FOnData;

class CTestListener : public NVQ::INVQMultiPointLayerNotification
{
  public:
    explicit CTestListener(NVQ::CSocketServerLayer &server) : m_server(server)
    {
        server.RegisterNotification(*this);
    }
    ~CTestListener() override { m_server.UnregisterNotification(*this); }

    bool NewConnectionRequested(NVQ::INVQMultiPointLayer &layer, const NVQ::INVQConnectionAddress &first,
                                const NVQ::INVQConnectionAddress &second) override
    {
        if (m_concurrentNew.fetch_add(1) != 0)
            ++m_overlaps;
        KZF::CRefCountPtr<INVQDataLayer> dataLayer = layer.CreateConnectionPoint(first, second);
        if (!dataLayer.IsNull()) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_addresses.push_back(first.ToString() + " " + second.ToString());
            m_connections.push_back(std::make_unique<CTestConnection>(*this, *dataLayer.GetPtr()));
        }
        --m_concurrentNew;
        return !dataLayer.IsNull();
    }
    void OnConnectionClosed(INVQDataLayer &, const NVQ::INVQConnectionAddress &,
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
    FOnData m_onData = [](CTestConnection &, INVQDataLayer &layer, const std::string &bytes) {
        layer.SendData(bytes.data(), static_cast<int>(bytes.size()));
    };
    int m_readLimit = 0; // bytes read per delivery; 0: all that waits
    std::mutex m_mutex;
    std::vector<std::unique_ptr<CTestConnection>> m_connections;
    std::vector<std::string> m_addresses;
    std::atomic<int> m_concurrentNew{0}, m_overlaps{0}, m_dataNotifications{0}, m_closes{0}, m_layerCloses{0};
};

void CTestConnection::OnDataReceived(INVQDataLayer &layer)
{
    if (m_inside.fetch_add(1) != 0)
        ++m_owner.m_overlaps;
    ++m_owner.m_dataNotifications;
    std::string bytes;
    char buffer[4096];
    const int limit = m_owner.m_readLimit > 0 ? m_owner.m_readLimit : static_cast<int>(sizeof(buffer));
    int n;
    while ((n = layer.ReadData(buffer, limit)) > 0) {
        bytes.append(buffer, static_cast<size_t>(n));
        if (m_owner.m_readLimit > 0)
            break; // one helping per delivery
    }
    if (!bytes.empty())
        m_owner.m_onData(*this, layer, bytes);
    --m_inside;
}

void CTestConnection::OnConnectionClosed(INVQDataLayer &)
{
    ++m_closes;
    ++m_owner.m_closes;
    Detach();
}

// Holds deliveries inside the handler until released.
struct SGate {
    void Enter()
    {
        ++m_inside;
        m_released.wait();
    }
    bool WaitInside(int count)
    {
        return waitFor([&] { return m_inside.load() == count; });
    }
    void Release() { m_release.set_value(); }
    std::promise<void> m_release;
    std::shared_future<void> m_released = m_release.get_future().share();
    std::atomic<int> m_inside{0};
};

// Answers only complete lines; anything else leaves its connection inside a request.
void answerLines(CTestConnection &, INVQDataLayer &layer, const std::string &bytes)
{
    if (bytes.find('\n') != std::string::npos)
        layer.SendData("ok", 2);
}

// Writes until a write fails.
void flood(INVQDataLayer &layer, int pieceSize = 65536)
{
    const std::string piece(static_cast<size_t>(pieceSize), 'p');
    while (layer.SendData(piece.data(), pieceSize) > 0) {
    }
}

// Bytes that show where they came from when they arrive out of place.
std::string pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>('a' + i % 23);
    return text;
}

std::FILE *fileOf(const std::string &content)
{
    std::FILE *file = std::tmpfile();
    std::fwrite(content.data(), 1, content.size(), file);
    std::fflush(file);
    return file;
}

// Leaves the stack below the caller full of non-zero bytes, as a long-running
// process has it: fields a callee forgets to set then hold garbage.
__attribute__((noinline)) void dirtyStack()
{
    volatile unsigned char junk[32768];
    for (size_t i = 0; i < sizeof(junk); ++i)
        junk[i] = 0xA5;
}

class SocketServerLayerTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_server.StartServer(0, -1, false));
        m_port = m_server.GetPort();
    }
    void TearDown() override { m_server.StopServer(); }
    // Connected and the first bytes sent.
    bool Open(CTestClient &client, const std::string &first)
    {
        return client.Connect(m_port) && client.Send(first);
    }
    bool Echoed(CTestClient &client, const std::string &text)
    {
        return client.Send(text) && client.Receive(text.size()) == text;
    }

    NVQ::CSocketServerLayer m_server;
    CTestListener m_listener{m_server};
    int m_port = 0;
};

TEST_F(SocketServerLayerTest, EchoesOverIPv4AndIPv6AndNamesBothEnds)
{
    // A reader taking small helpings gets all that waits without new events.
    m_listener.m_readLimit = 100;
    CTestClient v4, v6;
    ASSERT_TRUE(v4.Connect(m_port));
    EXPECT_TRUE(Echoed(v4, std::string(5000, 'h')));
    const bool haveIPv6 = v6.Connect(m_port, true);
    if (haveIPv6) {
        EXPECT_TRUE(Echoed(v6, "over six"));
    }
    ASSERT_TRUE(waitFor([&] { return m_listener.ConnectionCount() == (haveIPv6 ? 2u : 1u); }));
    std::lock_guard<std::mutex> lock(m_listener.m_mutex);
    const std::string port = ":" + std::to_string(m_port);
    EXPECT_TRUE(
        ::testing::internal::RE::FullMatch(m_listener.m_addresses[0], "127.0.0.1:[0-9]+ 127.0.0.1" + port))
        << m_listener.m_addresses[0];
    if (haveIPv6) {
        EXPECT_TRUE(::testing::internal::RE::FullMatch(m_listener.m_addresses[1],
                                                       "\\[::1\\]:[0-9]+ \\[::1\\]" + port))
            << m_listener.m_addresses[1];
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
    m_port = m_server.GetPort();
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    EXPECT_TRUE(Echoed(client, "again"));
}

TEST_F(SocketServerLayerTest, SmallAndLargeWritesArriveWholeInOrderOneNotificationAtATime)
{
    const std::string large(300000, 'L');
    m_listener.m_onData = [&](CTestConnection &, INVQDataLayer &layer, const std::string &bytes) {
        if (bytes != "go") { // slow echo: the next bytes arrive while it runs
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            layer.SendData(bytes.data(), static_cast<int>(bytes.size()));
            return;
        }
        for (int i = 0; i < 2000; ++i)
            layer.SendData("abc", 3);
        layer.SendData(large.data(), static_cast<int>(large.size()));
        layer.SendData(nullptr, 0);
        layer.SendData("xyz", 3);
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "go"));
    std::string expected;
    for (int i = 0; i < 2000; ++i)
        expected += "abc";
    EXPECT_EQ(expected + large + "xyz", client.Receive(expected.size() + large.size() + 3));
    std::string sent;
    for (int i = 0; i < 100; ++i) {
        sent += std::to_string(i) + ",";
        ASSERT_TRUE(client.Send(std::to_string(i) + ","));
        if (i % 7 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(sent, client.Receive(sent.size()));
    EXPECT_EQ(0, m_listener.m_overlaps.load());
}

TEST_F(SocketServerLayerTest, StalledExchangesDoNotStallOthersAndLaterStallsReuseTheSpareThreads)
{
    // More exchanges than the pool starts with block at once; all of them
    // must be running together before any is let go. The second time, the
    // threads the first stall left behind take the loops over.
    const int stalled = 8;
    int workers = 0;
    for (int round = 0; round < 2; ++round) {
        SGate gate;
        m_listener.m_onData = [&](CTestConnection &, INVQDataLayer &layer, const std::string &) {
            gate.Enter();
            layer.SendData("done", 4);
        };
        std::vector<CTestClient> clients(stalled);
        for (CTestClient &client : clients)
            ASSERT_TRUE(Open(client, "x"));
        EXPECT_TRUE(gate.WaitInside(stalled)) << gate.m_inside.load() << " of " << stalled << " started";
        gate.Release();
        for (CTestClient &client : clients)
            EXPECT_EQ("done", client.Receive(4));
        EXPECT_GE(m_server.GetWorkerCount(), stalled);
        if (round == 1) {
            EXPECT_EQ(workers, m_server.GetWorkerCount()) << "no thread more than the first stall needed";
        }
        workers = m_server.GetWorkerCount();
    }
}

TEST_F(SocketServerLayerTest, UnregisterAndCloseFromInsideTheDelivery)
{
    m_listener.m_onData = [](CTestConnection &connection, INVQDataLayer &layer, const std::string &) {
        layer.SendData("bye", 3);
        connection.Detach();
        layer.Close();
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "quit"));
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
    // once it is done sending, after a pause longer than the idle timeout.
    // A close that left its bytes unread, or that came before the peer was
    // done, would reset the connection and destroy the answer on its way.
    m_server.SetIdleTimeout(40);
    const std::string answer(50000, 'a');
    std::atomic<bool> answered(false);
    m_listener.m_onData = [&](CTestConnection &connection, INVQDataLayer &layer, const std::string &) {
        layer.SendData(answer.data(), static_cast<int>(answer.size()));
        connection.Detach();
        layer.Close();
        answered = true;
    };
    m_listener.m_readLimit = 1; // the rest of the request stays unread
    CTestClient client;
    ASSERT_TRUE(Open(client, "first"));
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    EXPECT_TRUE(client.Send(std::string(1 << 20, 'x')));
    EXPECT_EQ(answer, client.ReceiveUntilClosed());
    EXPECT_TRUE(client.IsClosed());
    EXPECT_TRUE(waitFor([&] { return answered.load(); })); // the answer's memory stays until it is sent
}

TEST_F(SocketServerLayerTest, PeerCloseIsReportedOnceAndHalfCloseStillGetsTheAnswer)
{
    CTestClient client;
    ASSERT_TRUE(Open(client, "last words"));
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
    m_listener.m_onData = [&](CTestConnection &, INVQDataLayer &, const std::string &) { gate.Enter(); };
    CTestClient client;
    ASSERT_TRUE(Open(client, "hold"));
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
    std::atomic<bool> closedBeforeFailureReturned(false), finished(false);
    m_listener.m_onData = [&](CTestConnection &connection, INVQDataLayer &layer, const std::string &) {
        flood(layer);
        closedBeforeFailureReturned = connection.m_closes.load() == 1;
        EXPECT_EQ(-1, layer.SendData("x", 1)) << "writes after a failure are dropped";
        finished = true;
    };
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    client.SetReceiveBuffer(4096);
    ASSERT_TRUE(client.Send("flood me"));
    ASSERT_TRUE(waitFor([&] { return finished.load(); }, 10000));
    EXPECT_TRUE(closedBeforeFailureReturned) << "the close is delivered at once when a send fails";
    EXPECT_EQ(1, m_listener.m_closes.load());
}

TEST_F(SocketServerLayerTest, NeverCompletedRequestsAndIdleConnectionsAreClosedAfterTheirTimeouts)
{
    m_server.SetRequestTimeout(200);
    m_listener.m_onData = answerLines; // a client that trickles bytes without a line stays in its request
    CTestClient slow, prompt, answered, silent;
    ASSERT_TRUE(slow.Connect(m_port));
    ASSERT_TRUE(prompt.Connect(m_port));
    const auto start = std::chrono::steady_clock::now();
    bool closed = false;
    for (int i = 0; i < 60 && !closed; ++i) {
        slow.Send("x");
        closed = slow.WaitClosed(50);
        EXPECT_TRUE(prompt.Send("line\n") && prompt.Receive(2) == "ok") << "answered lines reset the clock";
    }
    EXPECT_TRUE(closed);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(prompt.IsClosed());

    m_server.SetIdleTimeout(150);
    ASSERT_TRUE(Open(answered, "ping\n"));
    EXPECT_EQ("ok", answered.Receive(2));
    ASSERT_TRUE(silent.Connect(m_port));
    EXPECT_TRUE(answered.WaitClosed(3000));
    EXPECT_TRUE(silent.WaitClosed(3000));
}

TEST_F(SocketServerLayerTest, AtTheCapTheLongestIdleMakesRoomUnlessNoneIsIdle)
{
    m_server.SetMaxConnections(3);
    m_listener.m_onData = answerLines;
    auto served = [](CTestClient &client) { return client.Send("in\n") && client.Receive(2) == "ok"; };
    std::vector<CTestClient> clients(3);
    for (CTestClient &client : clients) {
        ASSERT_TRUE(client.Connect(m_port));
        ASSERT_TRUE(served(client));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    CTestClient newcomer, refused;
    ASSERT_TRUE(newcomer.Connect(m_port));
    EXPECT_TRUE(served(newcomer));
    EXPECT_TRUE(clients[0].WaitClosed(2000)) << "the one idle longest made room";
    EXPECT_TRUE(served(clients[1]));
    // Nobody idle: a newcomer is turned away, and nobody else is harmed.
    for (CTestClient *client : {&clients[1], &clients[2], &newcomer})
        ASSERT_TRUE(client->Send("part"));
    ASSERT_TRUE(waitFor([&] { return m_listener.m_dataNotifications.load() >= 8; }));
    ASSERT_TRUE(refused.Connect(m_port)); // the kernel completes the handshake
    EXPECT_TRUE(refused.WaitClosed(2000));
    for (CTestClient *client : {&clients[1], &clients[2], &newcomer})
        EXPECT_TRUE(client->Send("\n") && client->Receive(2) == "ok");
}

TEST_F(SocketServerLayerTest, LongLivedConnectionsLiveOnIdleNoticesAndNeverMakeRoom)
{
    m_server.SetIdleTimeout(100);
    m_server.SetMaxConnections(1);
    m_listener.m_onData = [](CTestConnection &connection, INVQDataLayer &layer, const std::string &) {
        connection.m_keepIdle = 3;
        layer.SetLongLived();
    };
    CTestClient client, newcomer;
    ASSERT_TRUE(Open(client, "upgrade"));
    ASSERT_TRUE(waitFor([&] { return m_listener.m_dataNotifications > 0; }));
    ASSERT_TRUE(newcomer.Connect(m_port)); // at the cap, and the only other connection is not idle
    EXPECT_TRUE(newcomer.WaitClosed(2000));
    EXPECT_EQ("kkk", client.ReceiveUntilClosed(3000)) << "three keep-alives, then silence ends it";
    EXPECT_TRUE(client.IsClosed());
    EXPECT_EQ(4, m_listener.Connection(0).m_idleNotices.load());
}

TEST_F(SocketServerLayerTest, OtherThreadsSeeWhatWaitsWakeTheWriterSendFilesAndGiveUpOnAStuckPeer)
{
    std::atomic<INVQDataLayer *> layerSeen{nullptr};
    m_listener.m_onData = [&](CTestConnection &, INVQDataLayer &layer, const std::string &) {
        layerSeen = &layer;
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "go"));
    ASSERT_TRUE(waitFor([&] { return layerSeen.load() != nullptr; }));
    // Its own reference: the test writes on after the close unregistered it.
    const KZF::CRefCountPtr<INVQDataLayer> held(layerSeen.load());
    INVQDataLayer &layer = *held.GetPtr();
    // More than both sockets' buffers hold while the peer reads nothing.
    const std::string piece(32 * 1024 * 1024, 'p');
    std::thread([&] { layer.SendData(piece.data(), static_cast<int>(piece.size())); }).join();
    EXPECT_TRUE(waitFor([&] { return layer.GetPendingOutput() > 0; })) << "the peer reads nothing yet";
    EXPECT_EQ(piece.size(), client.Receive(piece.size()).size());
    EXPECT_TRUE(waitFor([&] { return layer.GetPendingOutput() == 0; }));
    std::thread([&] { layer.NotifyWhenWritable(); }).join();
    EXPECT_TRUE(waitFor([&] { return m_listener.Connection(0).m_sentNotices.load() == 1; }));

    // A file sent from another thread goes the plain read-and-write way.
    const std::string content(40000, 'f');
    std::FILE *file = fileOf(content);
    std::thread([&] { EXPECT_EQ(39990, layer.SendFile(fileno(file), 10, 39990, nullptr)); }).join();
    EXPECT_EQ(content.substr(10), client.Receive(39990));
    std::thread([&] { EXPECT_EQ(-1, layer.SendFile(fileno(file), 39999, 2, nullptr)); }).join();
    std::fclose(file);

    // A writer far ahead of a peer that stopped reading waits, then gives up.
    m_server.SetSendTimeout(100);
    std::thread([&] { flood(layer, 1 << 20); }).join();
    EXPECT_TRUE(waitFor([&] { return m_listener.m_closes.load() == 1; }));
}

TEST_F(SocketServerLayerTest, FilePiecesOfOneDeliveryArriveInOrderAndCountAsItsAnswer)
{
    // The first two pieces join into one, past the size that flushes inside
    // the delivery; the third is not the next piece of the file. A request
    // answered by files alone is answered: the request timeout no longer runs.
    m_server.SetRequestTimeout(200);
    const std::string content = pattern(3 << 19);
    std::FILE *file = fileOf(content);
    // By value: the client learns the answer through the socket, which
    // orders nothing for TSan against this frame's stack being reused.
    const int fd = fileno(file);
    m_listener.m_onData = [fd](CTestConnection &, INVQDataLayer &layer, const std::string &) {
        layer.SendFile(fd, 0, 1000, nullptr);
        layer.SendFile(fd, 1000, (1 << 20) + 1000, nullptr);
        layer.SendFile(fd, 10, 20, nullptr);
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "get"));
    const std::string expected = content.substr(0, (1 << 20) + 2000) + content.substr(10, 20);
    EXPECT_EQ(expected, client.Receive(expected.size()));
    EXPECT_EQ("", client.ReceiveUntilClosed(400)) << "nothing more";
    EXPECT_FALSE(client.IsClosed());
    std::fclose(file);
}

TEST_F(SocketServerLayerTest, PiecesWaitingForASlowPeerKeepOrderCountOnlyMemoryAndGiveTheirHoldersBack)
{
    // Held pieces from the size that is no longer copied take a reference;
    // the file is more than the kernel takes from a peer that reads nothing,
    // so its next range and the small tail join the waiting queue.
    const std::string block = pattern(16384), content = pattern(6 << 20);
    std::FILE *file = fileOf(content);
    KZF::CRefCount_Base holder;
    holder.AddRef(); // the test's own: the queue never destroys it
    std::atomic<long> refsCopied{0}, refsHeld{0};
    std::atomic<size_t> pendingForFile{1};
    const int fd = fileno(file);
    m_listener.m_onData = [&, fd](CTestConnection &, INVQDataLayer &layer, const std::string &) {
        layer.SendDataHeld(block.data(), 16383, &holder);
        refsCopied = holder.GetRefCount();
        layer.SendDataHeld(block.data(), 16384, &holder);
        refsHeld = holder.GetRefCount();
        layer.SendFile(fd, 0, 5 << 20, &holder);
        layer.SendFile(fd, 5 << 20, 1 << 20, &holder);
        pendingForFile = layer.GetPendingOutput();
        dirtyStack();
        layer.SendData("tail", 4);
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "get"));
    const std::string expected = block.substr(0, 16383) + block + content + "tail";
    EXPECT_EQ(expected, client.Receive(expected.size()));
    EXPECT_EQ(1, refsCopied.load());
    EXPECT_EQ(2, refsHeld.load());
    EXPECT_EQ(0u, pendingForFile.load()) << "file ranges cost no memory";
    EXPECT_TRUE(waitFor([&] { return holder.GetRefCount() == 1; })) << holder.GetRefCount();
    std::fclose(file);
}

TEST_F(SocketServerLayerTest, StopServerWakesBlockedSendsEndsWatchingExchangesAndDeliversEveryClose)
{
    // One writer blocks on a peer that never reads; another, like the
    // library's exchanges, ignores SendData's result and stops only once its
    // close notification has arrived.
    std::atomic<int> writing(0);
    m_listener.m_onData = [&](CTestConnection &connection, INVQDataLayer &layer, const std::string &bytes) {
        ++writing;
        if (bytes == "never read")
            flood(layer);
        while (bytes == "watch" && connection.m_closes.load() == 0) {
            layer.SendData("tick", 4);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    CTestClient stuck, watching;
    ASSERT_TRUE(Open(stuck, "never read"));
    ASSERT_TRUE(Open(watching, "watch"));
    std::vector<CTestClient> idle(5);
    for (CTestClient &client : idle)
        ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(waitFor([&] { return writing.load() == 2 && m_listener.ConnectionCount() == 7; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // let the writer block
    const auto start = std::chrono::steady_clock::now();
    m_server.StopServer();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(7, m_listener.m_closes.load());
    EXPECT_EQ(0, m_server.GetConnectionCount());
    for (CTestClient &client : idle)
        EXPECT_TRUE(client.WaitClosed(1000));
}

#ifdef NVQ_WITH_TLS
// A blocking OpenSSL client that checks nothing of the server's certificate.
struct STlsClient {
    STlsClient(int port, const char *alpn)
    {
        SSL_set_alpn_protos(m_pSession.get(), reinterpret_cast<const unsigned char *>(alpn),
                            static_cast<unsigned>(std::strlen(alpn)));
        const struct timeval limit = {5, 0};
        m_ok = m_tcp.Connect(port) &&
               setsockopt(m_tcp.Fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) == 0 &&
               SSL_set_fd(m_pSession.get(), m_tcp.Fd()) == 1 && SSL_connect(m_pSession.get()) == 1;
    }
    std::string Alpn()
    {
        const unsigned char *name = nullptr;
        unsigned size = 0;
        SSL_get0_alpn_selected(m_pSession.get(), &name, &size);
        return std::string(reinterpret_cast<const char *>(name), size);
    }
    bool Send(const std::string &bytes)
    {
        return SSL_write(m_pSession.get(), bytes.data(), static_cast<int>(bytes.size())) ==
               static_cast<int>(bytes.size());
    }
    // Up to count bytes, fewer at the end of the session (m_end: how it ended).
    std::string Receive(size_t count)
    {
        std::string received;
        char buffer[16384];
        int n = 0;
        while (received.size() < count && (n = SSL_read(m_pSession.get(), buffer, sizeof(buffer))) > 0)
            received.append(buffer, static_cast<size_t>(n));
        m_end = n > 0 ? 0 : SSL_get_error(m_pSession.get(), n);
        return received;
    }
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_pContext{SSL_CTX_new(TLS_client_method()),
                                                                 SSL_CTX_free};
    std::unique_ptr<SSL, decltype(&SSL_free)> m_pSession{SSL_new(m_pContext.get()), SSL_free};
    CTestClient m_tcp;
    bool m_ok;
    int m_end = 0;
};

TEST_F(SocketServerLayerTest, TlsPortEchoesSendsFilesAndEndsSessionsWithCloseNotify)
{
    m_server.StopServer();
    char directory[] = "/tmp/nvq-sockets-tls-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    const std::string dir = directory;
    ASSERT_EQ(0,
              std::system(("cd " + dir +
                           " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
                           "-nodes -days 1 -subj /CN=localhost -keyout key.pem -out cert.pem 2> /dev/null && "
                           "openssl req -x509 -newkey rsa:512 -nodes -days 1 -subj /CN=weak -keyout weak.key "
                           "-out weak.pem 2> /dev/null")
                              .c_str()));
    ASSERT_TRUE(m_server.SetTlsCertificate(dir + "/cert.pem", dir + "/key.pem", true));
    // As text too; a chain whose next certificate does not read, or is too
    // weak to be sent, is refused.
    std::ifstream certFile(dir + "/cert.pem"), keyFile(dir + "/key.pem"), weakFile(dir + "/weak.pem");
    std::stringstream cert, key, weak;
    cert << certFile.rdbuf();
    key << keyFile.rdbuf();
    weak << weakFile.rdbuf();
    for (const std::string &next :
         {std::string("-----BEGIN CERTIFICATE-----\nbroken\n-----END CERTIFICATE-----\n"), weak.str()})
        EXPECT_FALSE(m_server.SetTlsCertificate(cert.str() + next, key.str(), false)) << next;
    EXPECT_TRUE(m_server.SetTlsCertificate(cert.str(), key.str(), false));
    EXPECT_EQ(0, std::system(("rm -r " + dir).c_str()));
    m_server.SetTlsPort(0);
    ASSERT_TRUE(m_server.StartServer(0, -1, true));
    const std::string content = pattern(150000);
    std::FILE *file = fileOf(content);
    m_listener.m_onData = [&](CTestConnection &connection, INVQDataLayer &layer, const std::string &bytes) {
        EXPECT_EQ(bytes != "plain", layer.IsSecure());
        if (bytes != "file")
            return (void)layer.SendData(bytes.data(), static_cast<int>(bytes.size()));
        layer.SendFile(fileno(file), 1, static_cast<int64_t>(content.size()) - 1, nullptr);
        connection.Detach();
        layer.Close();
    };
    // HTTP/1.1 is chosen among the offers; a client offering only others goes on without.
    STlsClient echo(m_server.GetTlsPort(), "\x02h2\x08http/1.1");
    ASSERT_TRUE(echo.m_ok);
    EXPECT_EQ("http/1.1", echo.Alpn());
    ASSERT_TRUE(echo.Send(content + content));
    EXPECT_EQ(content + content, echo.Receive(2 * content.size()));
    EXPECT_EQ(1, SSL_SESSION_is_resumable(SSL_get0_session(echo.m_pSession.get()))) << "a ticket came";
    SSL_shutdown(echo.m_pSession.get());
    EXPECT_TRUE(waitFor([&] { return m_listener.m_closes.load() == 1; }))
        << "close_notify ends the connection";

    m_server.SetTlsSessionTickets(false); // while serving: newcomers get no ticket
    STlsClient download(m_server.GetTlsPort(), "\x02h2");
    ASSERT_TRUE(download.m_ok);
    EXPECT_EQ("", download.Alpn());
    ASSERT_TRUE(download.Send("file"));
    EXPECT_EQ(content.substr(1), download.Receive(content.size()));
    EXPECT_EQ(SSL_ERROR_ZERO_RETURN, download.m_end) << "the server said goodbye";
    EXPECT_EQ(0, SSL_SESSION_is_resumable(SSL_get0_session(download.m_pSession.get())));
    std::fclose(file);

    CTestClient plain; // the first port stays plain
    ASSERT_TRUE(plain.Connect(m_server.GetPort()));
    EXPECT_TRUE(Echoed(plain, "plain"));
}
#endif

} // namespace
