#include "NVQSockets/Linux/SocketServerLayer.h"

#include "Support/CapturingLogDevice.h"
#include "Support/TestClient.h"
#include "Support/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#ifdef NVQ_WITH_TLS
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#endif

namespace
{

#ifdef NVQ_WITH_TLS
// OpenSSL's live allocations, counted from before its first one.
std::atomic<long> s_opensslLive{0};
void *countedMalloc(size_t size, const char *, int)
{
    void *block = std::malloc(size);
    s_opensslLive += block != nullptr ? 1 : 0;
    return block;
}
void *countedRealloc(void *block, size_t size, const char *, int)
{
    void *moved = std::realloc(block, size);
    s_opensslLive += block == nullptr && moved != nullptr ? 1 : 0;
    return moved;
}
void countedFree(void *block, const char *, int)
{
    s_opensslLive -= block != nullptr ? 1 : 0;
    std::free(block);
}
const bool s_opensslCounted = CRYPTO_set_mem_functions(countedMalloc, countedRealloc, countedFree) == 1;
#endif

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
    void OnConnectionClosed(INVQDataLayer &) override;
    void OnDataSent(INVQDataLayer &) override { ++m_sentNotices; }
    void Detach()
    {
        if (INVQDataLayer *layer = m_pLayer.exchange(nullptr))
            layer->UnregisterNotification(*this);
    }

    CTestListener &m_owner;
    std::atomic<INVQDataLayer *> m_pLayer;
    std::atomic<int> m_closes{0}, m_sentNotices{0};
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
        KZF::CRefCountPtr<INVQDataLayer> dataLayer = layer.CreateConnectionPoint(first, second);
        ++m_accepted;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_addresses.push_back(first.ToString() + " " + second.ToString());
        m_connections.push_back(std::make_unique<CTestConnection>(*this, *dataLayer.GetPtr()));
        return true;
    }
    void OnConnectionClosed(INVQDataLayer &, const NVQ::INVQConnectionAddress &,
                            const NVQ::INVQConnectionAddress &) override
    {
    }

    NVQ::CSocketServerLayer &m_server;
    FOnData m_onData = [](CTestConnection &, INVQDataLayer &layer, const std::string &bytes) {
        layer.SendData(bytes.data(), static_cast<int>(bytes.size()));
    };
    int m_readLimit = 4096; // bytes read per delivery; less: one helping each time
    std::mutex m_mutex;
    std::vector<std::unique_ptr<CTestConnection>> m_connections;
    std::vector<std::string> m_addresses;
    std::atomic<CTestConnection *> m_pDelivered{nullptr}; // the latest to get bytes
    std::atomic<int> m_accepted{0}, m_deliveriesEnded{0}, m_closes{0};
};

void CTestConnection::OnDataReceived(INVQDataLayer &layer)
{
    std::string bytes;
    char buffer[4096];
    int n;
    while ((n = layer.ReadData(buffer, m_owner.m_readLimit)) > 0) {
        bytes.append(buffer, static_cast<size_t>(n));
        if (m_owner.m_readLimit < static_cast<int>(sizeof(buffer)))
            break; // one helping per delivery
    }
    m_owner.m_pDelivered = this;
    if (!bytes.empty())
        m_owner.m_onData(*this, layer, bytes);
    ++m_owner.m_deliveriesEnded;
}

void CTestConnection::OnConnectionClosed(INVQDataLayer &)
{
    ++m_closes;
    ++m_owner.m_closes;
    Detach();
}

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
    void TearDown() override
    {
        m_server.StopServer();
        if (m_pFile != nullptr)
            std::fclose(m_pFile);
    }
    // Connected and the first bytes sent.
    bool Open(CTestClient &client, const std::string &first)
    {
        return client.Connect(m_port) && client.Send(first);
    }
    bool Echoed(CTestClient &client, const std::string &text)
    {
        return client.Send(text) && client.Receive(text.size()) == text;
    }
    // A temporary file of this content, open until the server has stopped.
    int FileOf(const std::string &content)
    {
        m_pFile = std::tmpfile();
        std::fwrite(content.data(), 1, content.size(), m_pFile);
        std::fflush(m_pFile);
        return fileno(m_pFile);
    }

    NVQ::CSocketServerLayer m_server;
    CTestListener m_listener{m_server};
    int m_port = 0;
    std::FILE *m_pFile = nullptr;
};

TEST_F(SocketServerLayerTest, EchoesOverIPv4AndIPv6AndNamesBothEnds)
{
    m_listener.m_readLimit = 100; // small helpings get all that waits without new events
    CTestClient v4, v6;
    ASSERT_TRUE(v4.Connect(m_port));
    EXPECT_TRUE(Echoed(v4, std::string(5000, 'h')));
    const bool haveIPv6 = v6.Connect(m_port, true);
    EXPECT_TRUE(!haveIPv6 || Echoed(v6, "over six"));
    ASSERT_TRUE(waitFor([&] { return m_listener.m_accepted.load() == (haveIPv6 ? 2 : 1); }));
    std::lock_guard<std::mutex> lock(m_listener.m_mutex);
    const std::string names[] = {"127.0.0.1:[0-9]+ 127.0.0.1:", "\\[::1\\]:[0-9]+ \\[::1\\]:"};
    for (size_t i = 0; i < m_listener.m_addresses.size(); ++i)
        EXPECT_TRUE(
            ::testing::internal::RE::FullMatch(m_listener.m_addresses[i], names[i] + std::to_string(m_port)))
            << m_listener.m_addresses[i];
    for (const auto &connection : m_listener.m_connections)
        EXPECT_EQ(0, connection->m_sentNotices.load()) << "a writable notice nobody asked for";
}

TEST_F(SocketServerLayerTest, StartFailsWhenThePortIsTakenOrTheServerRunsAndRestartsAfterStop)
{
    EXPECT_FALSE(m_server.StartServer(0, -1, false)) << "already running";
    NVQ::CSocketServerLayer second;
    {
        NVQTest::CCapturingDevice device;
        EXPECT_FALSE(second.StartServer(m_port, -1, false));
        EXPECT_EQ(0u,
                  device.Messages().at(0).find("1 StartServer SocketServerLayer : cannot listen on port " +
                                               std::to_string(m_port)));
    }
    EXPECT_FALSE(second.IsServerStarted());
    m_server.StopServer();
    EXPECT_FALSE(m_server.IsServerStarted());
    EXPECT_EQ(0, m_server.GetPort());
    ASSERT_TRUE(m_server.StartServer(0, -1, true));
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_server.GetPort()));
    EXPECT_TRUE(Echoed(client, "again"));
}

TEST_F(SocketServerLayerTest, SmallAndLargeWritesOfOneDeliveryArriveWholeAndInOrder)
{
    const std::string small = pattern(6000), large = pattern(300000);
    m_listener.m_onData = [&](CTestConnection &, INVQDataLayer &layer, const std::string &) {
        for (size_t i = 0; i < small.size(); i += 3)
            layer.SendData(small.data() + i, 3);
        layer.SendData(large.data(), static_cast<int>(large.size()));
        layer.SendData(nullptr, 0);
        layer.SendData("xyz", 3);
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "go"));
    EXPECT_EQ(small + large + "xyz", client.Receive(small.size() + large.size() + 3));
}

TEST_F(SocketServerLayerTest, StalledExchangesDoNotStallOthersAndLaterStallsReuseTheSpareThreads)
{
    // More exchanges than the pool starts with block at once; all of them
    // must be running together before any is let go. The second time, the
    // threads the first stall left behind take the loops over.
    const int stalled = 8;
    std::atomic<int> inside{0};
    std::atomic<bool> released{false};
    m_listener.m_onData = [&](CTestConnection &, INVQDataLayer &layer, const std::string &bytes) {
        if (bytes == "stall") {
            ++inside;
            waitFor([&] { return released.load(); });
        }
        layer.SendData(bytes.data(), static_cast<int>(bytes.size()));
    };
    std::vector<CTestClient> clients(stalled);
    for (CTestClient &client : clients)
        ASSERT_TRUE(client.Connect(m_port));
    int workers[2];
    for (int round = 0; round < 2; ++round) {
        inside = 0;
        released = false;
        for (CTestClient &client : clients)
            ASSERT_TRUE(client.Send("stall"));
        EXPECT_TRUE(waitFor([&] { return inside.load() == stalled; })) << inside.load() << " started";
        released = true;
        for (CTestClient &client : clients)
            EXPECT_EQ("stall", client.Receive(5));
        // A loop answers on a connection only once the stalled thread has
        // handed it back, on its way to becoming a spare.
        for (CTestClient &client : clients)
            EXPECT_TRUE(Echoed(client, "back"));
        workers[round] = m_server.GetWorkerCount();
        EXPECT_GE(workers[round], stalled);
    }
    // Slack for a thread still between its hand-back and the spares when the
    // second stall begins; without reuse, every stall would add one.
    EXPECT_LE(workers[1], workers[0] + 2) << "the second stall did not reuse the first one's threads";
}

// The notification contract: nothing reaches a notification after UnregisterNotification returns.
TEST_F(SocketServerLayerTest, UnregisterWaitsForADeliveryRunningOnAnotherThread)
{
    std::atomic<bool> inside(false), release(false), unregistered(false);
    m_listener.m_onData = [&](CTestConnection &, INVQDataLayer &, const std::string &) {
        inside = true;
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "hold"));
    ASSERT_TRUE(waitFor([&] { return inside.load(); }));
    std::thread other([&] {
        m_listener.m_pDelivered.load()->Detach();
        unregistered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(unregistered.load()) << "UnregisterNotification returned while its delivery ran";
    release = true;
    other.join();
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
    EXPECT_EQ(answer, client.ReceiveUntilClosed(2000)); // our FIN comes at once, not at the linger limit
    EXPECT_TRUE(client.IsClosed());
    EXPECT_TRUE(waitFor([&] { return answered.load(); })); // the answer's memory stays until it is sent
}

// A server close while the peer's window is full leaves answer bytes in the
// kernel: the connection lingers for a peer that may still send, and ends at
// once for one that said it sends nothing more. Either way the answer
// arrives whole, and kept connections are never held back.
TEST_F(SocketServerLayerTest, AServerCloseLingersUnlessThePeerIsDoneSending)
{
    const std::string answer(256 * 1024, 'a');
    for (const bool done : {false, true}) {
        SCOPED_TRACE(done ? "peer done" : "peer may send");
        m_listener.m_onData = [&](CTestConnection &connection, INVQDataLayer &layer, const std::string &) {
            layer.SendData(answer.data(), static_cast<int>(answer.size()));
            connection.Detach();
            if (done)
                layer.SetNoMoreInput();
            layer.Close();
        };
        const int ended = m_listener.m_deliveriesEnded.load();
        CTestClient client;
        ASSERT_TRUE(client.Connect(m_port));
        ASSERT_TRUE(client.Send("bye"));
        ASSERT_TRUE(waitFor([&] { return m_listener.m_deliveriesEnded.load() > ended; }));
        EXPECT_EQ(done, waitFor([&] { return m_server.GetConnectionCount() == 0; }, 300));
        EXPECT_EQ(answer, client.ReceiveUntilClosed(2000));
    }
    // Twenty answers on a kept connection: a held-back last segment would
    // wait 200 ms each.
    m_listener.m_onData = answerLines;
    CTestClient kept;
    ASSERT_TRUE(kept.Connect(m_port));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(kept.Send("line\n") && kept.Receive(2) == "ok");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
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
    {
        NVQTest::CCapturingDevice device;
        ASSERT_TRUE(newcomer.Connect(m_port));
        EXPECT_TRUE(served(newcomer));
        EXPECT_NE(std::string::npos,
                  device.Messages().at(0).find("closed 1 idle ones to admit newcomers, refused 0"));
    }
    EXPECT_TRUE(clients[0].WaitClosed(2000)) << "the one idle longest made room";
    EXPECT_TRUE(served(clients[1]));
    // Nobody idle: a newcomer is turned away, and nobody else is harmed.
    for (CTestClient *client : {&clients[1], &clients[2], &newcomer})
        ASSERT_TRUE(client->Send("part"));
    ASSERT_TRUE(waitFor([&] { return m_listener.m_deliveriesEnded.load() >= 8; }));
    // A loop files a request as begun just after its delivery returns: give
    // a loaded machine (emulated armhf) time for that before the next accept.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_TRUE(refused.Connect(m_port)); // the kernel completes the handshake
    EXPECT_TRUE(refused.WaitClosed(2000));
    for (CTestClient *client : {&clients[1], &clients[2], &newcomer})
        EXPECT_TRUE(client->Send("\n") && client->Receive(2) == "ok");
}

TEST_F(SocketServerLayerTest, OtherThreadsSeeWhatWaitsWakeTheWriterSendFilesAndGiveUpOnAStuckPeer)
{
    m_listener.m_onData = [](CTestConnection &, INVQDataLayer &, const std::string &) {};
    CTestClient client;
    ASSERT_TRUE(Open(client, "go"));
    ASSERT_TRUE(waitFor([&] { return m_listener.m_pDelivered.load() != nullptr; }));
    CTestConnection &connection = *m_listener.m_pDelivered.load();
    // Its own reference: the test writes on after the close unregistered it.
    const KZF::CRefCountPtr<INVQDataLayer> held(connection.m_pLayer.load());
    INVQDataLayer &layer = *held.GetPtr();
    // More than both sockets' buffers hold while the peer reads nothing.
    const std::string piece(32 * 1024 * 1024, 'p');
    std::thread([&] { layer.SendData(piece.data(), static_cast<int>(piece.size())); }).join();
    EXPECT_TRUE(waitFor([&] { return layer.GetPendingOutput() > 0; })) << "the peer reads nothing yet";
    EXPECT_EQ(piece.size(), client.Receive(piece.size()).size());
    EXPECT_TRUE(waitFor([&] { return layer.GetPendingOutput() == 0; }));
    std::thread([&] { layer.NotifyWhenWritable(); }).join();
    EXPECT_TRUE(waitFor([&] { return connection.m_sentNotices.load() == 1; }));

    // A file sent from another thread goes the plain read-and-write way.
    const std::string content = pattern(40000);
    const int fd = FileOf(content);
    std::thread([&] { EXPECT_EQ(39990, layer.SendFile(fd, 10, 39990, nullptr)); }).join();
    EXPECT_EQ(content.substr(10), client.Receive(39990));
    std::thread([&] { EXPECT_EQ(-1, layer.SendFile(fd, 39999, 2, nullptr)); }).join();

    // A writer far ahead of a peer that stopped reading waits, then gives up.
    m_server.SetSendTimeout(100);
    std::thread([&] { flood(layer, 1 << 20); }).join();
    EXPECT_TRUE(waitFor([&] { return m_listener.m_closes.load() == 1; }));
}

TEST_F(SocketServerLayerTest, AFileShorterThanItsRangeEndsTheConnection)
{
    const int fd = FileOf("ten bytes!");
    m_listener.m_onData = [fd](CTestConnection &, INVQDataLayer &layer, const std::string &) {
        errno = EAGAIN; // as the last read left it: the file's end must not pass for a full socket
        layer.SendFile(fd, 0, 1000, nullptr);
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "go"));
    EXPECT_EQ("ten bytes!", client.Receive(10));
    EXPECT_TRUE(client.WaitClosed(2000)) << "the answer can no longer be what was announced";
}

TEST_F(SocketServerLayerTest, PiecesWaitingForASlowPeerKeepOrderCountOnlyMemoryAndGiveTheirHoldersBack)
{
    // Held pieces from the size that is no longer copied take a reference;
    // the file is more than the kernel takes from a peer that reads nothing,
    // so its next range and the small tail join the waiting queue.
    const std::string block = pattern(16384), content = pattern(6 << 20);
    const int fd = FileOf(content);
    KZF::CRefCount_Base holder;
    holder.AddRef(); // the test's own: the queue never destroys it
    std::atomic<long> refsCopied{0}, refsHeld{0};
    std::atomic<size_t> pendingForFile{1};
    m_listener.m_onData = [&, fd](CTestConnection &, INVQDataLayer &layer, const std::string &) {
        layer.SendDataHeld(block.data(), 16383, &holder);
        refsCopied = holder.GetRefCount();
        layer.SendDataHeld(block.data(), 16384, &holder);
        refsHeld = holder.GetRefCount();
        layer.SendFile(fd, 0, 5 << 20, &holder);
        layer.SendFile(fd, 5 << 20, 1 << 20, &holder);
        layer.SendFile(fd, 10, 20, &holder); // not the next piece of the file
        pendingForFile = layer.GetPendingOutput();
        dirtyStack();
        layer.SendData("tail", 4);
    };
    CTestClient client;
    ASSERT_TRUE(Open(client, "get"));
    const std::string expected = block.substr(0, 16383) + block + content + content.substr(10, 20) + "tail";
    EXPECT_EQ(expected, client.Receive(expected.size()));
    EXPECT_EQ(1, refsCopied.load());
    EXPECT_EQ(2, refsHeld.load());
    EXPECT_EQ(0u, pendingForFile.load()) << "file ranges cost no memory";
    EXPECT_TRUE(waitFor([&] { return holder.GetRefCount() == 1; })) << holder.GetRefCount();
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
    std::vector<CTestClient> idle(5);
    for (CTestClient &client : idle)
        ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(Open(stuck, "never read"));
    ASSERT_TRUE(waitFor([&] { return writing.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // let the writer block
    // The stop comes before the watching exchange's loop has been given to
    // another thread: stopping must wait and let that happen.
    ASSERT_TRUE(Open(watching, "watch"));
    ASSERT_TRUE(waitFor([&] { return writing.load() == 2 && m_listener.m_accepted.load() == 7; }));
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
        const unsigned char *name = nullptr;
        unsigned size = 0;
        SSL_get0_alpn_selected(m_pSession.get(), &name, &size);
        m_alpn.assign(reinterpret_cast<const char *>(name), size);
    }
    // Sends all, then up to count bytes back, fewer at the end of the session (m_end: how it ended).
    std::string Exchange(const std::string &bytes, size_t count)
    {
        std::string received;
        char buffer[16384];
        int n = SSL_write(m_pSession.get(), bytes.data(), static_cast<int>(bytes.size()));
        while (received.size() < count && (n = SSL_read(m_pSession.get(), buffer, sizeof(buffer))) > 0)
            received.append(buffer, static_cast<size_t>(n));
        m_end = n > 0 ? 0 : SSL_get_error(m_pSession.get(), n);
        return received;
    }
    bool Resumable() { return SSL_SESSION_is_resumable(SSL_get0_session(m_pSession.get())) == 1; }
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_pContext{SSL_CTX_new(TLS_client_method()),
                                                                 SSL_CTX_free};
    std::unique_ptr<SSL, decltype(&SSL_free)> m_pSession{SSL_new(m_pContext.get()), SSL_free};
    CTestClient m_tcp;
    bool m_ok;
    std::string m_alpn;
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
    auto text = [&](const char *name) {
        std::ifstream file(dir + name);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    for (const std::string &next :
         {std::string("-----BEGIN CERTIFICATE-----\nbroken\n-----END CERTIFICATE-----\n"), text("/weak.pem")})
        EXPECT_FALSE(m_server.SetTlsCertificate(text("/cert.pem") + next, text("/key.pem"), false)) << next;
    EXPECT_TRUE(m_server.SetTlsCertificate(text("/cert.pem"), text("/key.pem"), false));
    // A device renewing its certificate again and again keeps no old ones.
    const std::string cert = text("/cert.pem"), key = text("/key.pem");
    const long live = s_opensslLive.load();
    for (int i = 0; i < 20; ++i)
        m_server.SetTlsCertificate(cert, key, false);
    EXPECT_TRUE(!s_opensslCounted || s_opensslLive.load() - live < 20) << s_opensslLive.load() - live;
    EXPECT_EQ(0, std::system(("rm -r " + dir).c_str()));
    m_server.SetTlsPort(0);
    ASSERT_TRUE(m_server.StartServer(0, -1, true));
    const std::string content = pattern(150000);
    const int fd = FileOf(content);
    m_listener.m_onData = [&, fd](CTestConnection &connection, INVQDataLayer &layer,
                                  const std::string &bytes) {
        EXPECT_EQ(bytes != "plain", layer.IsSecure());
        if (bytes != "file")
            return (void)layer.SendData(bytes.data(), static_cast<int>(bytes.size()));
        layer.SendFile(fd, 1, static_cast<int64_t>(content.size()) - 1, nullptr);
        connection.Detach();
        layer.Close();
    };
    // HTTP/1.1 is chosen among the offers; a client offering only others goes on without.
    STlsClient echo(m_server.GetTlsPort(), "\x02h2\x08http/1.1");
    ASSERT_TRUE(echo.m_ok);
    EXPECT_EQ("http/1.1", echo.m_alpn);
    EXPECT_EQ(content + content, echo.Exchange(content + content, 2 * content.size()));
    EXPECT_TRUE(echo.Resumable()) << "a ticket came";
    SSL_shutdown(echo.m_pSession.get());
    EXPECT_TRUE(waitFor([&] { return m_listener.m_closes.load() == 1; }))
        << "close_notify ends the connection";

    m_server.SetTlsSessionTickets(false); // while serving: newcomers get no ticket
    STlsClient download(m_server.GetTlsPort(), "\x02h2");
    ASSERT_TRUE(download.m_ok);
    EXPECT_EQ("", download.m_alpn);
    EXPECT_EQ(content.substr(1), download.Exchange("file", content.size()));
    EXPECT_EQ(SSL_ERROR_ZERO_RETURN, download.m_end) << "the server said goodbye";
    EXPECT_FALSE(download.Resumable());

    CTestClient plain; // the first port stays plain
    ASSERT_TRUE(plain.Connect(m_server.GetPort()));
    EXPECT_TRUE(Echoed(plain, "plain"));
}
#endif

} // namespace
