#ifndef NVQSOCKETS_EVENTLOOP_H
#define NVQSOCKETS_EVENTLOOP_H

#include <sys/epoll.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <mutex>
#include <vector>

namespace NVQ
{

class CSocketConnection;
class CSocketServerCore;

// One event loop: an epoll set (edge-triggered, every connection registered
// once), the connections that belong to it, their timeouts, and an inbox
// through which other threads reach them.
//
// A loop is run by one thread at a time, its owner. Calls into notification
// code are timed; when one blocks for longer than a moment, the watchdog
// makes a fresh thread the owner, and the blocked thread, once its call
// returns, finishes that one connection's work and hands it back through the
// inbox (with any events it had taken and not yet handled).
class CEventLoop
{
  public:
    // Work handed to the owner.
    enum ETask {
        eTaskService,   // do what is due on the connection
        eTaskSide,      // other threads wrote to it
        eTaskReturn,    // back from a blocked delivery, with its events
        eTaskRelease,   // drop the list's reference of a finished connection
        eTaskCloseIdle, // close the oldest idle connection to make room
        eTaskStop       // close everything and end
    };

    CEventLoop(CSocketServerCore &core, int index);
    ~CEventLoop();
    CEventLoop(const CEventLoop &) = delete;
    CEventLoop &operator=(const CEventLoop &) = delete;

    // epoll set and wake-up descriptor, listening sockets added.
    bool Open(const int *listenFds, int listenCount);
    // Once no thread runs the loop any more.
    void Close();

    // The body of the thread that owns the loop; returns when the loop has
    // stopped or the thread lost it.
    void Run();

    // Any thread. A connection given is held until the task is done.
    void Post(ETask task, CSocketConnection *connection = nullptr, uint32_t events = 0);
    // Wakes the owner unconditionally.
    void Kick();
    // The calling thread owns the loop.
    bool IsOwnerThread() const;

    // Around every call into notification code made by the owner.
    void BeginCall(CSocketConnection *connection);
    void EndCall();

    // The watchdog: when the owner has been inside one call for stallMs or
    // longer, hands the loop to a fresh thread (when the core allows one).
    // True while the owner is inside a call it keeps.
    bool Watch(int64_t now, int stallMs);

    int GetSendTimeoutMs() const;
    int GetIdleCount() const { return m_idleCount.load(std::memory_order_relaxed); }
    // When the connection idle longest became idle; c_noIdle when none is.
    static constexpr int64_t c_noIdle = INT64_MAX;
    int64_t GetOldestIdleSince() const;
    int GetIndex() const { return m_index; }
    bool HasStopped() const { return m_stopped.load(std::memory_order_acquire); }
    // For a loop that never got a thread.
    void SetStopped() { m_stopped.store(true, std::memory_order_release); }

  private:
    struct STask {
        ETask m_task;
        CSocketConnection *m_pConnection;
        uint32_t m_events;
    };

    // Both go on from where the loop's owner (or its predecessor) stopped.
    void RunTasks(int64_t now);
    void HandleBatch(int64_t now);
    bool WatchListeners(bool watch);
    // listenIndex: of the listening sockets given to Open.
    void Accept(int listenIndex, int64_t now);
    bool Admit(int64_t now);
    // Service, then settle or finish; a thread that lost the loop hands the
    // connection back instead.
    void Handle(CSocketConnection &connection, int64_t now);
    void Finish(CSocketConnection &connection);
    // Takes up the wait the connection is in now (timeout, idle list).
    void Settle(CSocketConnection &connection, int64_t now);
    void Link(CSocketConnection &connection);
    void Unlink(CSocketConnection &connection);
    void LinkIdle(CSocketConnection &connection);
    void UnlinkIdle(CSocketConnection &connection);
    bool CloseOldestIdle(int64_t now);
    void Expire(int64_t now);
    void BeginStop(int64_t now);
    int ReapPeriodMs() const;
    void Drain(std::vector<STask> &tasks);

    CSocketServerCore &m_core;
    const int m_index;
    int m_epollFd;
    int m_wakeFd;
    const int *m_pListenFds;
    int m_listenCount;

    std::mutex m_inboxMutex;
    std::vector<STask> m_inbox;
    bool m_wakeSignalled;
    std::vector<STask> m_ready; // the owner's own posts, run before the next wait

    // The tasks and the batch of events being worked through, kept here so
    // that a thread taking the loop over can go on with them.
    static const int c_maxEvents = 256;
    std::vector<STask> m_tasks;
    size_t m_taskIndex;
    struct epoll_event m_events[c_maxEvents];
    int m_batchCount;
    int m_batchIndex;

    // The call the owner is inside of: a ticket unique to the call (0: none,
    // 1: taken over by the watchdog), when it began and for which connection.
    std::atomic<uint64_t> m_callTicket;
    std::atomic<int64_t> m_callStartMs;
    std::atomic<CSocketConnection *> m_pCallConnection;
    uint64_t m_nextTicket;
    int64_t m_acceptPausedUntil; // 0 unless accepting pauses (out of descriptors)

    // Owner only.
    CSocketConnection *m_pFirst;
    CSocketConnection *m_pIdleFirst; // idle longest
    CSocketConnection *m_pIdleLast;
    std::vector<CSocketConnection *> m_finished; // list references dropped after the batch
    int64_t m_nextReap;
    bool m_stopping;
    int m_count;
    std::atomic<int> m_idleCount;
    std::atomic<int64_t> m_oldestIdleSince;
    std::atomic<bool> m_stopped;
};

} // namespace NVQ

#endif
