#include "EventLoop.h"

#include "SocketConnection.h"
#include "SocketServerCore.h"
#include "SocketTransport.h"

#include "KZF_Utilities/Linux/Logger.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace NVQ
{

namespace
{

// Accepts per readiness event, so that a flood of connections cannot starve
// the connections already served.
constexpr int c_acceptBurst = 64;
// After running out of file descriptors, accepting pauses this long.
constexpr int c_acceptPauseMs = 100;

// The loop the calling thread owns, and how deep it is in calls into
// notification code.
thread_local CEventLoop *t_pOwnedLoop = nullptr;
thread_local int t_callDepth = 0;
thread_local uint64_t t_callTicket = 0;

// Tickets 0 and 1 are no call and a call taken over by the watchdog.
constexpr uint64_t c_noCall = 0;
constexpr uint64_t c_takenOver = 1;

void signalEventFd(int fd)
{
    const uint64_t one = 1;
    ssize_t written = ::write(fd, &one, sizeof(one));
    (void)written;
}

} // namespace

CEventLoop::CEventLoop(CSocketServerCore &core, int index)
    : m_core(core), m_index(index), m_epollFd(-1), m_wakeFd(-1), m_pListenFds(nullptr), m_listenCount(0),
      m_wakeSignalled(false), m_taskIndex(0), m_batchCount(0), m_batchIndex(0), m_callTicket(c_noCall),
      m_callStartMs(0), m_pCallConnection(nullptr), m_nextTicket(2), m_acceptPausedUntil(0),
      m_pFirst(nullptr), m_pIdleFirst(nullptr), m_pIdleLast(nullptr), m_nextReap(0), m_stopping(false),
      m_count(0), m_idleCount(0), m_oldestIdleSince(c_noIdle), m_stopped(false)
{
}

CEventLoop::~CEventLoop()
{
    Close();
}

bool CEventLoop::Open(const int *listenFds, int listenCount)
{
    m_epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    m_wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_epollFd < 0 || m_wakeFd < 0)
        return false;
    struct epoll_event event;
    event.events = EPOLLIN | EPOLLET;
    event.data.ptr = &m_wakeFd;
    if (::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_wakeFd, &event) != 0)
        return false;
    m_pListenFds = listenFds;
    m_listenCount = listenCount;
    if (!WatchListeners(true))
        return false;
    m_stopping = false;
    m_stopped = false;
    m_nextReap = monotonicMilliseconds() + ReapPeriodMs();
    return true;
}

bool CEventLoop::WatchListeners(bool watch)
{
    m_acceptPausedUntil = 0;
    bool ok = true;
    for (int i = 0; i < m_listenCount; ++i) {
        if (!watch) {
            ::epoll_ctl(m_epollFd, EPOLL_CTL_DEL, m_pListenFds[i], nullptr);
            continue;
        }
        // Every loop watches the listeners; a new connection wakes only one
        // of those waiting, and a busy loop is not among them, so the idler
        // loops take the newcomers.
        struct epoll_event event;
        event.events = EPOLLIN | EPOLLEXCLUSIVE;
        event.data.ptr = const_cast<int *>(&m_pListenFds[i]);
        if (::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_pListenFds[i], &event) != 0 && errno != EEXIST)
            ok = false;
    }
    return ok;
}

void CEventLoop::Close()
{
    std::vector<STask> tasks;
    {
        std::lock_guard<std::mutex> lock(m_inboxMutex);
        tasks.swap(m_inbox);
    }
    tasks.insert(tasks.end(), m_ready.begin(), m_ready.end());
    m_ready.clear();
    tasks.insert(tasks.end(), m_tasks.begin() + static_cast<long>(m_taskIndex), m_tasks.end());
    m_tasks.clear();
    m_taskIndex = 0;
    Drain(tasks);
    for (CSocketConnection *connection : m_finished)
        connection->ReleaseRef();
    m_finished.clear();
    for (int *fd : {&m_epollFd, &m_wakeFd}) {
        if (*fd >= 0)
            ::close(*fd);
        *fd = -1;
    }
}

void CEventLoop::Drain(std::vector<STask> &tasks)
{
    for (STask &task : tasks) {
        if (task.m_pConnection != nullptr)
            task.m_pConnection->ReleaseRef();
    }
    tasks.clear();
}

void CEventLoop::Post(ETask task, CSocketConnection *connection, uint32_t events)
{
    if (connection != nullptr)
        connection->AddRef();
    const STask entry = {task, connection, events};
    // Inside a call the watchdog may hand the loop to another thread at any
    // moment: only the inbox is safe there.
    if (IsOwnerThread() && t_callDepth == 0) {
        m_ready.push_back(entry);
        return;
    }
    bool signal;
    {
        std::lock_guard<std::mutex> lock(m_inboxMutex);
        m_inbox.push_back(entry);
        signal = !m_wakeSignalled;
        m_wakeSignalled = true;
    }
    if (signal && m_wakeFd >= 0)
        signalEventFd(m_wakeFd);
}

void CEventLoop::Kick()
{
    if (m_wakeFd >= 0)
        signalEventFd(m_wakeFd);
}

bool CEventLoop::IsOwnerThread() const
{
    return t_pOwnedLoop == this;
}

void CEventLoop::BeginCall(CSocketConnection *connection)
{
    if (t_pOwnedLoop != this || t_callDepth++ > 0)
        return;
    const uint64_t ticket = m_nextTicket++;
    t_callTicket = ticket;
    m_callStartMs.store(monotonicMilliseconds(), std::memory_order_relaxed);
    m_pCallConnection.store(connection, std::memory_order_relaxed);
    m_callTicket.store(ticket, std::memory_order_release);
}

void CEventLoop::EndCall()
{
    if (t_pOwnedLoop != this || --t_callDepth > 0)
        return;
    uint64_t expected = t_callTicket;
    if (!m_callTicket.compare_exchange_strong(expected, c_noCall, std::memory_order_acq_rel)) {
        // The call blocked long enough for another thread to take the loop
        // over: from here on this thread only finishes its connection.
        t_pOwnedLoop = nullptr;
    }
}

bool CEventLoop::Watch(int64_t now, int stallMs)
{
    uint64_t ticket = m_callTicket.load(std::memory_order_acquire);
    if (ticket == c_noCall || ticket == c_takenOver)
        return false;
    if (now - m_callStartMs.load(std::memory_order_relaxed) < stallMs || !m_core.CanAddThread())
        return true;
    if (!m_callTicket.compare_exchange_strong(ticket, c_takenOver, std::memory_order_acq_rel))
        return false; // the call ended meanwhile
    // The owner is still inside that call and cannot touch the loop any more:
    // its connection stays with it until the call returns.
    CSocketConnection *connection = m_pCallConnection.load(std::memory_order_relaxed);
    connection->m_offLoop.store(true, std::memory_order_release);
    if (!m_core.StartLoopThread(*this)) {
        // No thread to be had: the loop waits for its owner after all.
        connection->m_offLoop.store(false, std::memory_order_release);
        m_callTicket.store(ticket, std::memory_order_release);
    }
    return false;
}

int64_t CEventLoop::GetOldestIdleSince() const
{
    return m_oldestIdleSince.load(std::memory_order_relaxed);
}

int CEventLoop::GetSendTimeoutMs() const
{
    return m_core.m_sendTimeoutMs.load(std::memory_order_relaxed);
}

int CEventLoop::ReapPeriodMs() const
{
    const int shortest = std::min(
        {m_core.m_idleTimeoutMs.load(), m_core.m_requestTimeoutMs.load(), m_core.m_sendTimeoutMs.load()});
    return std::clamp(shortest / 4, 10, 1000);
}

void CEventLoop::Run()
{
    t_pOwnedLoop = this;
    t_callDepth = 0;
    // A thread that takes the loop over goes on where its predecessor got
    // stuck: the rest of its tasks, then the rest of its batch of events.
    RunTasks(monotonicMilliseconds());
    HandleBatch(monotonicMilliseconds());
    while (t_pOwnedLoop == this) {
        int64_t now = monotonicMilliseconds();
        m_tasks.swap(m_ready);
        RunTasks(now);
        if (t_pOwnedLoop != this)
            return;
        if (m_stopping && m_count == 0) {
            m_stopped.store(true, std::memory_order_release);
            t_pOwnedLoop = nullptr;
            m_core.WakeWatchdog();
            return;
        }
        int timeout = m_ready.empty() ? static_cast<int>(std::max<int64_t>(0, m_nextReap - now)) : 0;
        if (m_acceptPausedUntil != 0) {
            if (now >= m_acceptPausedUntil)
                WatchListeners(true);
            else
                timeout = std::min(timeout, static_cast<int>(m_acceptPausedUntil - now));
        }
        const int ready = ::epoll_wait(m_epollFd, m_events, c_maxEvents, timeout);
        if (ready < 0 && errno != EINTR) {
            KZF::CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "Run", KZF::CLogger::c_noneObjPtr,
                                                   "SocketServerLayer : epoll_wait failed: %s",
                                                   std::strerror(errno));
            return;
        }
        m_batchCount = std::max(ready, 0);
        m_batchIndex = 0;
        now = monotonicMilliseconds();
        HandleBatch(now);
        if (t_pOwnedLoop != this)
            return;
        for (CSocketConnection *connection : m_finished)
            connection->ReleaseRef();
        m_finished.clear();
        if (now >= m_nextReap) {
            Expire(now);
            m_nextReap = now + ReapPeriodMs();
        }
    }
}

void CEventLoop::HandleBatch(int64_t now)
{
    // The index moves on before an event is handled: should its handling
    // block, the thread that takes over starts at the next one. (A thread
    // that lost the loop must not even look at the batch any more: the
    // owner check comes first.)
    while (t_pOwnedLoop == this && m_batchIndex < m_batchCount) {
        const struct epoll_event &event = m_events[m_batchIndex++];
        void *ptr = event.data.ptr;
        if (ptr == &m_wakeFd) {
            uint64_t value;
            while (::read(m_wakeFd, &value, sizeof(value)) > 0) {
            }
            if (m_taskIndex == m_tasks.size()) {
                m_tasks.clear();
                m_taskIndex = 0;
                std::lock_guard<std::mutex> lock(m_inboxMutex);
                m_tasks.swap(m_inbox);
                m_wakeSignalled = false;
            }
            RunTasks(now);
        } else if (ptr >= m_pListenFds && ptr < m_pListenFds + m_listenCount) {
            if (!m_stopping)
                Accept(static_cast<int>(static_cast<const int *>(ptr) - m_pListenFds), now);
        } else {
            CSocketConnection &connection = *static_cast<CSocketConnection *>(ptr);
            if (connection.m_finished)
                continue;
            if (connection.m_offLoop.load(std::memory_order_acquire)) {
                connection.m_pendingEvents.fetch_or(event.events, std::memory_order_acq_rel);
                if (event.events & (EPOLLERR | EPOLLHUP)) {
                    // The blocked delivery may be waiting for exactly this:
                    // tell it now, as a peer close would.
                    connection.Break();
                    connection.DeliverConnectionClosed();
                }
                continue;
            }
            connection.OnEvents(event.events);
            Handle(connection, now);
        }
    }
}

void CEventLoop::RunTasks(int64_t now)
{
    while (t_pOwnedLoop == this && m_taskIndex < m_tasks.size()) {
        const STask task = m_tasks[m_taskIndex++];
        CSocketConnection *connection = task.m_pConnection;
        switch (task.m_task) {
        case eTaskStop:
            BeginStop(now);
            break;
        case eTaskCloseIdle:
            CloseOldestIdle(now);
            break;
        case eTaskRelease:
            // The list's reference of a connection finished by a thread that
            // lost the loop: dropped after this batch like any other.
            m_finished.push_back(connection);
            connection = nullptr;
            break;
        case eTaskReturn:
            // Back from a blocked delivery: what happened meanwhile is looked
            // at now.
            connection->m_offLoop.store(false, std::memory_order_release);
            connection->OnEvents(connection->m_pendingEvents.exchange(0) | task.m_events);
            Handle(*connection, now);
            break;
        case eTaskService:
        case eTaskSide:
            if (!connection->m_finished) {
                if (connection->m_offLoop.load(std::memory_order_acquire))
                    connection->m_pendingEvents.fetch_or(EPOLLOUT);
                else
                    Handle(*connection, now);
            }
            break;
        }
        if (connection != nullptr)
            connection->ReleaseRef();
    }
    if (t_pOwnedLoop == this && m_taskIndex == m_tasks.size()) {
        m_tasks.clear();
        m_taskIndex = 0;
    }
}

void CEventLoop::Handle(CSocketConnection &connection, int64_t now)
{
    connection.AddRef();
    const CSocketConnection::EServiceResult result = connection.Service(now);
    if (t_pOwnedLoop != this) {
        // This thread lost the loop during a delivery: the connection goes
        // back to the new owner, which settles it.
        Post(eTaskReturn, &connection);
    } else if (result == CSocketConnection::eFinish) {
        Finish(connection);
    } else {
        Settle(connection, now);
    }
    connection.ReleaseRef();
}

void CEventLoop::Accept(int listenIndex, int64_t now)
{
    const int listenFd = m_pListenFds[listenIndex];
    const bool tls = m_core.IsTlsListener(listenIndex);
    for (int burst = 0; burst < c_acceptBurst && t_pOwnedLoop == this; ++burst) {
        struct sockaddr_storage remote;
        socklen_t remoteLength = sizeof(remote);
        const int fd = ::accept4(listenFd, reinterpret_cast<struct sockaddr *>(&remote), &remoteLength,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO)
                continue;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // The waiting connection would report itself again at once:
                // stop watching the listeners for a moment.
                m_core.LogAcceptFailure(errno);
                WatchListeners(false);
                m_acceptPausedUntil = now + c_acceptPauseMs;
            }
            return;
        }
        if (!Admit(now)) {
            ::close(fd);
            continue;
        }
        // TCP_NODELAY comes from the listening socket.
        CSocketTransport *transport = nullptr;
        if (tls && (transport = m_core.NewTlsTransport(fd)) == nullptr) {
            ::close(fd);
            continue;
        }
        CSocketConnection *connection =
            new CSocketConnection(*this, fd, reinterpret_cast<struct sockaddr *>(&remote), remoteLength);
        if (transport != nullptr)
            connection->SetTransport(transport);
        connection->AddRef(); // the list's reference
        Link(*connection);
        struct epoll_event event;
        event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
        event.data.ptr = connection;
        if (::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
            connection->Break();
            Finish(*connection);
            continue;
        }
        BeginCall(connection);
        const bool taken = m_core.NotifyNewConnection(*connection);
        EndCall();
        if (t_pOwnedLoop != this) {
            Post(eTaskReturn, connection);
            return;
        }
        if (!taken || !connection->IsRegistered()) {
            connection->Break();
            Finish(*connection); // nobody will ever read it
            continue;
        }
        Settle(*connection, now);
    }
}

void CEventLoop::Finish(CSocketConnection &connection)
{
    if (connection.m_finished)
        return;
    connection.m_finished = true;
    if (connection.m_inIdleList)
        UnlinkIdle(connection);
    Unlink(connection);
    BeginCall(&connection);
    m_core.NotifyConnectionClosed(connection);
    EndCall();
    connection.CloseSocket();
    // The list's reference goes once the batch is done: events of this batch
    // may still name the connection. A thread that lost the loop meanwhile
    // hands it to the new owner, whose batch may name it too.
    if (t_pOwnedLoop == this) {
        m_finished.push_back(&connection);
    } else {
        Post(eTaskRelease, &connection);
        connection.ReleaseRef();
    }
}

} // namespace NVQ
