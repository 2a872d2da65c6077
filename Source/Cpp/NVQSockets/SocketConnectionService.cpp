#include "SocketConnection.h"

#include "EventLoop.h"
#include "SocketTransport.h"

#include <cerrno>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

// The loop's side of a connection: its epoll events, the service that reads
// and writes on them, the timeouts, and the graceful close.

namespace NVQ
{

namespace
{

// Bytes read and dropped per event while closing gracefully, so that one
// chatty peer cannot hold a loop.
constexpr size_t c_lingerDrainLimit = 65536;
// A connection closed by the server reads and drops the peer's bytes for at
// most this long before its socket is closed anyway.
constexpr int c_lingerTimeoutMs = 5000;
// Deliveries of input per service: enough for a reader that drains in one,
// few enough that one busy connection cannot hold the loop.
constexpr int c_inputRounds = 4;

} // namespace

void CSocketConnection::OnEvents(uint32_t events)
{
    if (events & EPOLLIN)
        m_readable = true;
    // A handshake that stopped for room in the socket goes on now.
    if ((events & EPOLLOUT) && m_pTransport->IsReadWaitingForOutput())
        m_readable = true;
    if (events & EPOLLRDHUP) {
        m_readable = true;
        m_endSeen = true;
    }
    if (events & (EPOLLERR | EPOLLHUP)) {
        // What is still waiting is read first; the close follows.
        m_readable = true;
        m_endSeen = true;
        m_hangUp = true;
    }
}

void CSocketConnection::ShutdownSocket()
{
    const int fd = GetFd();
    if (fd >= 0)
        ::shutdown(fd, SHUT_RDWR);
}

CSocketConnection::EServiceResult CSocketConnection::Service(int64_t now)
{
    if (m_finished)
        return eFinish;
    TakeSideBuffer();
    if (!m_queue.IsEmpty() && !IsBroken()) {
        uint64_t moved = 0;
        HoldTailIfClosing();
        const int result = m_queue.Send(*m_pTransport, GetFd(), moved);
        m_progress += moved;
        if (result < 0)
            Fail();
        CountPending();
    }
    if (m_wakeRequested.exchange(false))
        m_wantSent = true;
    if (m_wantSent && m_queue.IsEmpty() && !IsBroken() && !IsClosedByServer()) {
        m_wantSent = false;
        DeliverDataSent();
    }
    // Input, as long as the notification takes it (a few rounds at most, so
    // one busy connection cannot hold the loop).
    int round = 0;
    for (; round < c_inputRounds; ++round) {
        if (!m_readable || m_readPaused || m_wantSent || m_peerClosed || IsBroken() || IsClosedByServer())
            break;
        m_readCalled = false;
        DeliverDataReceived();
        if (!m_readCalled)
            break; // it does not want input now
    }
    // A reader that takes input in bounded helpings (a streamed upload) is
    // served again after the other connections had their turn: no new event
    // would come for bytes already waiting.
    if (round == c_inputRounds && m_readable && !m_readPaused && !m_peerClosed && !IsBroken())
        m_loop.Post(CEventLoop::eTaskService, this);
    if (IsClosedByServer()) {
        if (IsBroken())
            return eFinish;
        return m_queue.IsEmpty() && Linger(now) ? eFinish : eKeep;
    }
    // A hang-up or error ends the connection once the input before it is
    // read; a plain end of input once the answers in flight are out.
    if (IsBroken() || (m_hangUp && (!m_readable || m_readPaused)) ||
        (m_peerClosed && m_queue.IsEmpty() && !m_wantSent)) {
        DeliverConnectionClosed();
        return eFinish;
    }
    if (!IsRegistered()) {
        // Nobody will ever read it.
        Break();
        return eFinish;
    }
    return eKeep;
}

bool CSocketConnection::Settle(int64_t now, int idleTimeoutMs, int requestTimeoutMs, int sendTimeoutMs)
{
    EWait wait;
    if (m_lingering) {
        wait = eWaitLinger;
    } else if (!m_queue.IsEmpty()) {
        wait = eWaitSending;
    } else if (m_pTransport->IsHandshaking()) {
        // A peer that stalls its handshake is a slow request.
        wait = eWaitRequest;
    } else if (m_receivingBody) {
        // A long body: the request timeout counts from the last byte read.
        wait = eWaitRequest;
        if (m_readInDelivery && m_wait == eWaitRequest)
            m_deadline = now + requestTimeoutMs;
    } else if (m_longLived) {
        // Traffic keeps a long exchange alive; only silence ends it.
        wait = eWaitIdle;
        if (m_readInDelivery || m_wroteInDelivery)
            m_deadline = now + idleTimeoutMs;
    } else {
        bool idle;
        if (m_idleHint >= 0)
            idle = m_idleHint == 1;
        else if (m_wroteInDelivery)
            idle = true; // an answer ends the request
        else if (m_readInDelivery)
            idle = false; // bytes without an answer start (or continue) one
        else
            idle = m_wait != eWaitRequest;
        wait = idle ? eWaitIdle : eWaitRequest;
    }
    m_readInDelivery = false;
    m_wroteInDelivery = false;
    const bool changed = wait != m_wait;
    if (changed) {
        m_wait = wait;
        m_waitSince = now;
        switch (wait) {
        case eWaitIdle:
            m_deadline = now + idleTimeoutMs;
            break;
        case eWaitRequest:
            m_deadline = now + requestTimeoutMs;
            break;
        case eWaitSending:
            m_deadline = now + sendTimeoutMs;
            m_lastProgress = m_progress;
            break;
        case eWaitLinger:
            m_deadline = now + c_lingerTimeoutMs;
            break;
        default:
            break;
        }
    } else if (wait == eWaitSending && m_progress != m_lastProgress) {
        // The send timeout counts from the last byte the peer took.
        m_lastProgress = m_progress;
        m_deadline = now + sendTimeoutMs;
    }
    return changed && wait == eWaitIdle;
}

bool CSocketConnection::NeedsLinger() const
{
    // Closing a socket with unread input sends a reset, and so does a closed
    // socket that input reaches later, which destroys whatever of the answer
    // the kernel still holds. Only a peer that may still be sending while
    // the answer is on its way needs the slow close; one that promised to
    // send nothing more does not.
    if (m_peerClosed)
        return false;
    if (m_readable || m_pTransport->HasBufferedInput())
        return true;
    if (m_noMoreInput)
        return false;
    int unsent = 0;
    return ::ioctl(GetFd(), SIOCOUTQ, &unsent) != 0 || unsent > 0;
}

bool CSocketConnection::Linger(int64_t now)
{
    const int fd = GetFd();
    if (fd < 0)
        return true;
    if (!m_lingering) {
        if (!NeedsLinger())
            return true;
        // Our FIN goes out after everything written; the peer's own bytes
        // are then read and dropped until it closes.
        m_lingering = true;
        m_deadline = now + c_lingerTimeoutMs;
        m_pTransport->ShutdownWrite(fd);
    }
    unsigned char scratch[4096];
    for (size_t drained = 0; drained < c_lingerDrainLimit;) {
        const ssize_t n = m_pTransport->Read(fd, scratch, sizeof(scratch));
        if (n > 0) {
            drained += static_cast<size_t>(n);
            continue;
        }
        m_readable = false;
        return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
    return false;
}

} // namespace NVQ
