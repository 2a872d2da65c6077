#ifndef NVQSOCKETS_SOCKETSERVERCORE_H
#define NVQSOCKETS_SOCKETSERVERCORE_H

#include "SocketConnection.h"

#include "KZF_Base/Linux/RefCountPtr.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <pthread.h>
#include <vector>

namespace NVQ
{

class CSocketServerLayer;

// The workings of CSocketServerLayer: listening sockets, the epoll set shared
// by the worker pool, the connection list, timeouts and the pool's growth.
class CSocketServerCore
{
  public:
    CSocketServerCore(CSocketServerLayer &layer, bool localOnly);
    ~CSocketServerCore();
    CSocketServerCore(const CSocketServerCore &) = delete;
    CSocketServerCore &operator=(const CSocketServerCore &) = delete;

    // Listening sockets, epoll set and the first workers; the layer's thread
    // then runs RunAcceptor.
    bool Open(int port, int backlog, bool ipv4Only);
    // After the layer's thread has left RunAcceptor: closes every connection,
    // waits until all have been settled, and ends the workers.
    void Close();
    int GetPort() const { return m_port.load(); }

    // The layer's own thread: accepts, enforces timeouts, grows the pool.
    void RunAcceptor();
    void WakeAcceptor();

    KZF::CRefCountPtr<INVQDataLayer> CreateConnectionPoint(const INVQConnectionAddress &first,
                                                           const INVQConnectionAddress &second);
    // Wakes the owner of a connection that another thread closed.
    void ShutdownConnection(CSocketConnection &connection);

    std::atomic<int> m_idleTimeoutMs;
    std::atomic<int> m_requestTimeoutMs;
    std::atomic<int> m_sendTimeoutMs;
    std::atomic<int> m_maxConnections;
    std::atomic<int> m_maxWorkers;

    int GetSendTimeout() const { return m_sendTimeoutMs.load(std::memory_order_relaxed); }
    int GetConnectionCount() const { return m_connectionCount.load(); }
    int GetWorkerCount() const { return m_workerCount.load(); }

  private:
    int OpenListener(int family, int port, int backlog, int &error);
    void AcceptFrom(int listenFd, int64_t now);
    void Reap(int64_t now);
    void WatchWorkers();
    void AlertWatcher();
    bool SpawnWorker();
    void JoinExitedWorkers();
    static void *WorkerMain(void *self);
    void WorkerLoop();
    bool TryRetire();
    void ProcessEvent(CSocketConnection &connection, uint32_t events, SWorkerContext &context);
    void Settle(CSocketConnection &connection, uint32_t events);
    void FinishConnection(CSocketConnection &connection);
    void Link(CSocketConnection &connection);
    void Unlink(CSocketConnection &connection);
    int ReaperPeriodMs() const;

    CSocketServerLayer &m_layer;
    const bool m_localOnly;

    int m_listenFds[2];
    int m_listenCount;
    std::atomic<int> m_port;
    int m_epollFd;
    int m_acceptorWakeFd; // eventfd the acceptor polls: stop requests and worker alerts
    int m_workerStopFd;   // eventfd in the epoll set, readable once workers must end
    int64_t m_acceptPausedUntil;
    CSocketConnection *m_pAccepting; // the connection NewConnectionRequested is about

    std::mutex m_listMutex;
    std::condition_variable m_settled; // with m_listMutex: a connection or event ended while stopping
    CSocketConnection *m_pFirst;
    std::atomic<int> m_connectionCount;
    std::atomic<bool> m_stopping;

    std::mutex m_poolMutex;
    std::vector<pthread_t> m_workers;
    std::vector<pthread_t> m_exitedWorkers;
    int m_minWorkers;
    std::atomic<int> m_workerCount;
    std::atomic<int> m_idleWorkers;
    std::atomic<int> m_busyWorkers;
    std::atomic<unsigned> m_progress;
    std::atomic<bool> m_watcherAlerted;
    std::atomic<bool> m_stopWorkers;
    unsigned m_lastProgress;
    bool m_watchClosely;
    int m_calmChecks;
};

// Milliseconds of the coarse monotonic clock: cheap enough to read per request.
int64_t monotonicMilliseconds();

} // namespace NVQ

#endif
