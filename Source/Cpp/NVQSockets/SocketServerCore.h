#ifndef NVQSOCKETS_SOCKETSERVERCORE_H
#define NVQSOCKETS_SOCKETSERVERCORE_H

#include "KZF_Base/Linux/RefCountPtr.h"
#include "NVQSockets/Linux/INVQDataLayer.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

#ifdef NVQ_WITH_TLS
#include "TlsContext.h"
#endif

namespace NVQ
{

class CEventLoop;
class CSocketConnection;
class CSocketServerLayer;
class CSocketTransport;
class INVQConnectionAddress;

// The workings of CSocketServerLayer: the listening sockets, the event loops,
// the threads that run them, and the watchdog that hands a loop to a fresh
// thread when its owner blocks in a delivery.
class CSocketServerCore
{
  public:
    CSocketServerCore(CSocketServerLayer &layer, bool localOnly);
    ~CSocketServerCore();
    CSocketServerCore(const CSocketServerCore &) = delete;
    CSocketServerCore &operator=(const CSocketServerCore &) = delete;

    // Listening sockets, loops and their threads; the layer's thread then
    // runs RunWatchdog.
    bool Open(int port, int backlog, bool ipv4Only);
    // Closes every connection and waits until all have been settled, while
    // the watchdog still runs.
    void StopLoops();
    // After the layer's thread has left RunWatchdog: ends the threads and
    // releases the loops and listeners (stopping the loops first if needed).
    void Close();
    int GetPort() const { return m_port.load(); }
    int GetTlsPort() const { return m_tlsListenPort.load(); }

    // TLS: the certificate in use (replaced at any time) and, for a
    // listener that serves TLS, the transport of an accepted socket (null
    // when TLS cannot be had).
    bool SetTlsCertificate(const std::string &certificateChain, const std::string &privateKey,
                           bool fromFiles);
    void SetTlsSessionTickets(bool on);
    bool HasTlsCertificate() const;
    bool IsTlsListener(int index) const { return index >= m_tlsFirst; }
    CSocketTransport *NewTlsTransport(int fd);
    // -1: TLS on the main port (when a certificate is set); else its own port.
    std::atomic<int> m_tlsPort{-1};

    // The layer's own thread.
    void RunWatchdog();
    void WakeWatchdog();

    // --- For the loops.
    bool NotifyNewConnection(CSocketConnection &connection);
    void NotifyConnectionClosed(CSocketConnection &connection);
    KZF::CRefCountPtr<INVQDataLayer> CreateConnectionPoint(const INVQConnectionAddress &first,
                                                           const INVQConnectionAddress &second);
    // A thread stands ready to take a loop over, and the cap allows it.
    bool CanAddThread();
    // Gives the loop to the ready thread; false only when none could be had.
    bool StartLoopThread(CEventLoop &loop);
    // The loop holding the connection idle longest; null when none is idle.
    CEventLoop *FindOldestIdle();
    // A newcomer at the cap was admitted (room made) or refused.
    void CountAtCap(bool admitted);
    void LogAcceptFailure(int error);

    std::atomic<int> m_idleTimeoutMs;
    std::atomic<int> m_requestTimeoutMs;
    std::atomic<int> m_sendTimeoutMs;
    std::atomic<int> m_maxConnections;
    std::atomic<int> m_maxWorkers;
    std::atomic<int> m_loopCount;
    std::atomic<int> m_connectionCount;

    int GetWorkerCount() const { return m_threadCount.load(); }

  private:
    struct SThread {
        pthread_t m_thread;
        CEventLoop *m_pLoop = nullptr; // to run; null while spare
        bool m_exited = false;
    };

    int OpenListener(int family, int port, int backlog, int &error);
    // IPv4 and (unless ipv4Only) IPv6 listeners on one port into fds;
    // returns the port, -1 when it cannot be had.
    int OpenPort(int port, int backlog, bool ipv4Only, int *fds, int &count);
    bool SpawnThread(CEventLoop *loop);
    static void *ThreadMain(void *self);
    void ThreadLoop(SThread &self);
    void JoinExitedThreads();

    CSocketServerLayer &m_layer;
    const bool m_localOnly;

    // Plain listeners first, then from m_tlsFirst on those that serve TLS.
    int m_listenFds[4];
    int m_listenCount;
    int m_tlsFirst;
    std::atomic<int> m_port;
    std::atomic<int> m_tlsListenPort;
#ifdef NVQ_WITH_TLS
    CTlsContext m_tls;
#endif
    std::vector<std::unique_ptr<CEventLoop>> m_loops;

    std::mutex m_threadMutex;
    std::condition_variable m_threadChanged;
    std::vector<std::unique_ptr<SThread>> m_threads;
    std::atomic<int> m_threadCount;
    int m_spareCount;
    bool m_stopThreads;

    std::mutex m_watchMutex;
    std::condition_variable m_watchWake;
    bool m_watchWoken;

    std::atomic<int> m_drained;
    std::atomic<int> m_refused;
    std::atomic<int64_t> m_lastCapLogMs;
};

// Milliseconds of the coarse monotonic clock: cheap enough to read per request.
int64_t monotonicMilliseconds();

} // namespace NVQ

#endif
