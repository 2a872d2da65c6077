#include "EventLoop.h"

#include "SocketConnection.h"
#include "SocketServerCore.h"

#include <vector>

// A loop's connection lists: linking and unlinking, the idle list kept
// oldest first, making room at the connection cap, deadlines, and closing
// everything at a stop.

namespace NVQ
{

void CEventLoop::Settle(CSocketConnection &connection, int64_t now)
{
    // An idle connection keeps its place in the idle list: the one idle
    // longest is the first to make room at the cap.
    connection.Settle(now, m_core.m_idleTimeoutMs.load(std::memory_order_relaxed),
                      m_core.m_requestTimeoutMs.load(std::memory_order_relaxed),
                      m_core.m_sendTimeoutMs.load(std::memory_order_relaxed));
    if (connection.GetWait() == CSocketConnection::eWaitIdle && !connection.IsLongLived())
        LinkIdle(connection);
    else
        UnlinkIdle(connection);
}

bool CEventLoop::Admit(int64_t now)
{
    if (m_core.m_connectionCount.load(std::memory_order_relaxed) < m_core.m_maxConnections.load())
        return true;
    // At the cap: the connection idle longest makes room, ours or another
    // loop's; a newcomer is refused only when none is idle.
    CEventLoop *oldest = m_core.FindOldestIdle();
    if (oldest == this)
        CloseOldestIdle(now);
    else if (oldest != nullptr)
        oldest->Post(eTaskCloseIdle);
    m_core.CountAtCap(oldest != nullptr);
    return oldest != nullptr;
}

bool CEventLoop::CloseOldestIdle(int64_t now)
{
    CSocketConnection *oldest = m_pIdleFirst;
    if (oldest == nullptr)
        return false;
    oldest->Break();
    Handle(*oldest, now);
    return true;
}

void CEventLoop::Link(CSocketConnection &connection)
{
    connection.m_pPrev = nullptr;
    connection.m_pNext = m_pFirst;
    if (m_pFirst != nullptr)
        m_pFirst->m_pPrev = &connection;
    m_pFirst = &connection;
    ++m_count;
    m_core.m_connectionCount.fetch_add(1, std::memory_order_relaxed);
}

void CEventLoop::Unlink(CSocketConnection &connection)
{
    if (connection.m_pPrev != nullptr)
        connection.m_pPrev->m_pNext = connection.m_pNext;
    else
        m_pFirst = connection.m_pNext;
    if (connection.m_pNext != nullptr)
        connection.m_pNext->m_pPrev = connection.m_pPrev;
    connection.m_pPrev = connection.m_pNext = nullptr;
    --m_count;
    m_core.m_connectionCount.fetch_sub(1, std::memory_order_relaxed);
}

void CEventLoop::LinkIdle(CSocketConnection &connection)
{
    if (connection.m_inIdleList)
        return;
    connection.m_inIdleList = true;
    connection.m_pIdleNext = nullptr;
    connection.m_pIdlePrev = m_pIdleLast;
    if (m_pIdleLast != nullptr) {
        m_pIdleLast->m_pIdleNext = &connection;
    } else {
        m_pIdleFirst = &connection;
        m_oldestIdleSince.store(connection.GetIdleSince(), std::memory_order_relaxed);
    }
    m_pIdleLast = &connection;
    m_idleCount.fetch_add(1, std::memory_order_relaxed);
}

void CEventLoop::UnlinkIdle(CSocketConnection &connection)
{
    if (!connection.m_inIdleList)
        return;
    connection.m_inIdleList = false;
    if (connection.m_pIdlePrev != nullptr) {
        connection.m_pIdlePrev->m_pIdleNext = connection.m_pIdleNext;
    } else {
        m_pIdleFirst = connection.m_pIdleNext;
        m_oldestIdleSince.store(m_pIdleFirst != nullptr ? m_pIdleFirst->GetIdleSince() : c_noIdle,
                                std::memory_order_relaxed);
    }
    if (connection.m_pIdleNext != nullptr)
        connection.m_pIdleNext->m_pIdlePrev = connection.m_pIdlePrev;
    else
        m_pIdleLast = connection.m_pIdlePrev;
    connection.m_pIdlePrev = connection.m_pIdleNext = nullptr;
    m_idleCount.fetch_sub(1, std::memory_order_relaxed);
}

void CEventLoop::Expire(int64_t now)
{
    std::vector<CSocketConnection *> due;
    for (CSocketConnection *c = m_pFirst; c != nullptr; c = c->m_pNext) {
        if (!c->m_offLoop.load(std::memory_order_relaxed) && c->GetWait() != CSocketConnection::eWaitNone &&
            c->GetDeadline() <= now)
            due.push_back(c);
    }
    for (CSocketConnection *connection : due) {
        if (connection->GetWait() == CSocketConnection::eWaitLinger) {
            connection->AddRef();
            Finish(*connection);
            connection->ReleaseRef();
        } else if (connection->GetWait() == CSocketConnection::eWaitIdle &&
                   connection->DeliverIdle(now, m_core.m_idleTimeoutMs.load(std::memory_order_relaxed))) {
            // Kept (a long exchange sent a keep-alive of its own): whatever it
            // wrote goes out now.
            Handle(*connection, now);
        } else {
            // Idle too long, a request too slow, or a peer that takes nothing:
            // closed as if the peer had gone.
            connection->Break();
            Handle(*connection, now);
        }
    }
}

void CEventLoop::BeginStop(int64_t now)
{
    if (m_stopping)
        return;
    m_stopping = true;
    WatchListeners(false);
    std::vector<CSocketConnection *> all;
    for (CSocketConnection *c = m_pFirst; c != nullptr; c = c->m_pNext) {
        c->AddRef();
        all.push_back(c);
    }
    for (CSocketConnection *connection : all) {
        connection->Break();
        if (connection->m_offLoop.load(std::memory_order_acquire)) {
            // Its delivery blocks on another thread, maybe in a write that
            // waits for the peer (woken by the shut-down socket) or for the
            // close itself. It comes back, and is finished, when it returns.
            connection->ShutdownSocket();
            connection->DeliverConnectionClosed();
        } else {
            Handle(*connection, now);
        }
        connection->ReleaseRef();
    }
}

} // namespace NVQ
