#include "SocketConnection.h"

#include "EventLoop.h"
#include "SocketServerCore.h"
#include "SocketTransport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace NVQ
{

namespace
{

// The writes of the delivery a thread is running, gathered so that a whole
// answer leaves in one system call. One per thread, made when first needed
// (the plain pointer is the cheap one to test on every write).
struct SDeliveryContext {
    static const size_t c_gatherSize = 65536;
    CSocketConnection *m_pConnection = nullptr;
    size_t m_used = 0;   // bytes of m_gather taken
    size_t m_memory = 0; // memory bytes among the segments
    uint64_t m_fileBytes = 0;
    std::vector<SOutputSegment> m_segments;
    unsigned char m_gather[c_gatherSize];
};
thread_local std::unique_ptr<SDeliveryContext> t_context;
thread_local SDeliveryContext *t_pContext = nullptr;

SDeliveryContext &deliveryContext()
{
    if (t_pContext == nullptr) {
        t_context.reset(new SDeliveryContext());
        t_pContext = t_context.get();
    }
    return *t_pContext;
}

// Connections whose notifications this thread is inside of, innermost last:
// a notification that unregisters itself must not wait for its own delivery.
constexpr int c_maxNesting = 8;
thread_local const CSocketConnection *t_delivering[c_maxNesting];
thread_local int t_depth = 0;

int ownDeliveries(const CSocketConnection *connection)
{
    const int tracked = std::min(t_depth, c_maxNesting);
    return static_cast<int>(std::count(t_delivering, t_delivering + tracked, connection));
}

// Unregistering while another thread delivers is rare; one condition shared
// by every connection keeps the per-connection record small.
std::condition_variable_any s_deliveryEnded;

// Writes at or above this size are sent from the writer's memory (held, or
// sent before the call returns) instead of being copied. Below it, copying
// costs less than what a separate segment costs.
constexpr size_t c_copyLimit = 16384;
// Gathered bytes are sent once this much memory, or this much of files,
// waits; a writer asking IsWritable then learns whether the peer keeps up.
constexpr size_t c_flushMemory = 65536;
constexpr uint64_t c_flushFileBytes = 1u << 20;

// A writer that ignores IsWritable and keeps writing while the peer takes
// nothing is held up (its thread waits, up to the send timeout) once this
// much waits for the peer: memory per connection stays bounded either way.
constexpr size_t c_highWater = 1u << 20;
// Writers on other threads wait on this (with the connection's mutex) for
// their bytes to be taken over by the loop.
std::condition_variable_any s_sideTaken;

} // namespace

CSocketConnection::CSocketConnection(CEventLoop &loop, int fd, const struct sockaddr *remote,
                                     socklen_t remoteLength)
    : m_offLoop(false), m_pendingEvents(0), m_pPrev(nullptr), m_pNext(nullptr), m_pIdlePrev(nullptr),
      m_pIdleNext(nullptr), m_inIdleList(false), m_finished(false), m_loop(loop), m_fd(fd),
      m_pTransport(&CSocketTransport::Plain()), m_localAddress(*this), m_broken(false),
      m_closedByServer(false), m_closeDelivered(false), m_readable(false), m_endSeen(false),
      m_peerClosed(false), m_hangUp(false), m_readPaused(false), m_wantSent(false), m_longLived(false),
      m_receivingBody(false), m_noMoreInput(false), m_tailHeld(false), m_wakeRequested(false),
      m_pendingBytes(0), m_lingering(false), m_readInDelivery(false), m_wroteInDelivery(false),
      m_readCalled(false), m_idleHint(-1), m_wait(eWaitNone), m_deadline(0), m_waitSince(0), m_progress(0),
      m_lastProgress(0), m_pNotification(nullptr), m_activeDeliveries(0), m_unregisterWaiting(false),
      m_sideScheduled(false)
{
    m_remoteAddress.Set(remote, remoteLength);
}

CSocketConnection::~CSocketConnection()
{
    m_queue.Clear();
    m_pTransport->Release();
    const int fd = m_fd.exchange(-1);
    if (fd >= 0)
        ::close(fd);
}

bool CSocketConnection::InOwnDelivery() const
{
    return t_pContext != nullptr && t_pContext->m_pConnection == this;
}

int CSocketConnection::ReadData(void *buffer, int size)
{
    m_readCalled = true;
    const int fd = GetFd();
    if (fd < 0 || size <= 0 || m_peerClosed)
        return 0;
    if (IsBroken())
        return -1;
    // With edge-triggered readiness, a read that left the socket empty means
    // that anything arriving later comes with a new event: until then a read
    // would only find nothing.
    if (!m_readable && !m_pTransport->HasBufferedInput())
        return 0;
    const ssize_t n = m_pTransport->Read(fd, buffer, static_cast<size_t>(size));
    if (n > 0) {
        m_readInDelivery = true;
        // A short read emptied the socket, unless the peer's end of stream
        // (reported with the data, no new event to come) is still to be read.
        if (n < size && !m_endSeen && !m_pTransport->HasBufferedInput())
            m_readable = false;
        return static_cast<int>(n);
    }
    m_readable = false;
    if (n == 0) {
        m_peerClosed = true;
        return 0;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK)
        return 0;
    Break();
    return -1;
}

int CSocketConnection::SendData(const void *data, int size)
{
    if (size < 0)
        return -1;
    return Append(data, static_cast<size_t>(size), nullptr);
}

int CSocketConnection::SendDataHeld(const void *data, int size, KZF::IRefCount *holder)
{
    if (size < 0)
        return -1;
    return Append(data, static_cast<size_t>(size), holder);
}

namespace
{

// Copies a small item into the gather buffer, after the item before it when
// that one is gathered too.
void gather(SDeliveryContext &context, const void *data, size_t size)
{
    unsigned char *target = context.m_gather + context.m_used;
    std::memcpy(target, data, size);
    SOutputSegment *last = context.m_segments.empty() ? nullptr : &context.m_segments.back();
    if (last != nullptr && last->m_kind == SOutputSegment::eGather &&
        last->m_pData + last->m_size == target) {
        last->m_size += size;
    } else {
        SOutputSegment segment;
        std::memset(&segment, 0, sizeof(segment));
        segment.m_kind = SOutputSegment::eGather;
        segment.m_pData = target;
        segment.m_size = size;
        context.m_segments.push_back(segment);
    }
    context.m_used += size;
    context.m_memory += size;
}

} // namespace

int CSocketConnection::Append(const void *data, size_t size, KZF::IRefCount *holder)
{
    // The common write first: a small item of the running delivery, while the
    // peer keeps up, goes into the gather buffer.
    SDeliveryContext *own = t_pContext;
    if (own != nullptr && own->m_pConnection == this && size - 1 < c_copyLimit - 1 && m_queue.IsEmpty() &&
        own->m_used + size <= SDeliveryContext::c_gatherSize && !m_broken.load(std::memory_order_relaxed) &&
        !m_closedByServer.load(std::memory_order_relaxed)) {
        m_wroteInDelivery = true;
        gather(*own, data, size);
        if (own->m_memory >= c_flushMemory && !FlushGathered())
            return -1;
        return static_cast<int>(size);
    }
    if (IsBroken()) {
        // Broken by another thread (StopServer, a timeout) while this one was
        // busy elsewhere: the writer learns of the close now.
        if (InOwnDelivery())
            DeliverConnectionClosed();
        return -1;
    }
    if (IsClosedByServer() || GetFd() < 0)
        return -1;
    if (size == 0)
        return 0;
    if (!InOwnDelivery())
        return AppendFromOtherThread(data, size);
    m_wroteInDelivery = true;
    if (!m_queue.IsEmpty()) {
        // The peer is behind: everything queues after what waits already.
        SOutputSegment segment;
        std::memset(&segment, 0, sizeof(segment));
        segment.m_kind = SOutputSegment::eHeld;
        segment.m_pData = static_cast<const unsigned char *>(data);
        segment.m_size = size;
        if (holder != nullptr && size >= c_copyLimit) {
            holder->AddRef();
            segment.m_pHolder = holder;
        }
        m_queue.AppendSegment(segment);
        if (m_queue.GetBufferedBytes() > c_highWater && !WaitForRoom())
            return -1;
        return static_cast<int>(size);
    }
    SDeliveryContext &context = *t_pContext;
    if (size < c_copyLimit) {
        if (context.m_used + size > SDeliveryContext::c_gatherSize && !FlushGathered())
            return -1;
        if (!m_queue.IsEmpty())
            return Append(data, size, holder);
        gather(context, data, size);
    } else {
        SOutputSegment segment;
        std::memset(&segment, 0, sizeof(segment));
        segment.m_kind = SOutputSegment::eHeld;
        segment.m_pData = static_cast<const unsigned char *>(data);
        segment.m_size = size;
        if (holder != nullptr) {
            holder->AddRef();
            segment.m_pHolder = holder;
        }
        context.m_segments.push_back(segment);
        context.m_memory += size;
        // Lent bytes cannot wait past this call: send them now (what the
        // kernel does not take is copied into the queue).
        if (holder == nullptr)
            return FlushGathered() ? static_cast<int>(size) : -1;
    }
    if (context.m_memory >= c_flushMemory && !FlushGathered())
        return -1;
    return static_cast<int>(size);
}

int64_t CSocketConnection::SendFile(int fd, int64_t offset, int64_t size, KZF::IRefCount *holder)
{
    if (size < 0 || offset < 0)
        return -1;
    if (!InOwnDelivery() || IsBroken() || IsClosedByServer())
        return INVQDataLayer::SendFile(fd, offset, size, holder); // read and write
    if (size == 0)
        return 0;
    m_wroteInDelivery = true;
    SOutputSegment segment;
    std::memset(&segment, 0, sizeof(segment));
    segment.m_kind = SOutputSegment::eFile;
    segment.m_fileFd = fd;
    segment.m_fileOffset = offset;
    segment.m_size = static_cast<size_t>(size);
    if (holder != nullptr) {
        holder->AddRef();
        segment.m_pHolder = holder;
    }
    if (!m_queue.IsEmpty()) {
        m_queue.AppendSegment(segment);
        return size;
    }
    SDeliveryContext &context = *t_pContext;
    SOutputSegment *last = context.m_segments.empty() ? nullptr : &context.m_segments.back();
    if (last != nullptr && last->m_kind == SOutputSegment::eFile && last->m_fileFd == fd &&
        last->m_fileOffset + static_cast<int64_t>(last->m_size) == offset) {
        // The next piece of the same file: one sendfile covers both.
        last->m_size += segment.m_size;
        if (holder != nullptr)
            holder->ReleaseRef();
    } else {
        context.m_segments.push_back(segment);
    }
    context.m_fileBytes += static_cast<uint64_t>(size);
    if (context.m_fileBytes >= c_flushFileBytes && !FlushGathered())
        return -1;
    return size;
}

int CSocketConnection::AppendFromOtherThread(const void *data, size_t size)
{
    // The bytes wait, in order, for the loop to take them over; a writer far
    // ahead of the peer waits for room, up to the send timeout.
    bool schedule;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_sideBuffer.size() > c_highWater &&
            !s_sideTaken.wait_for(lock, std::chrono::milliseconds(m_loop.GetSendTimeoutMs()), [this] {
                return m_sideBuffer.size() <= c_highWater || IsBroken() || IsClosedByServer();
            })) {
            lock.unlock();
            Break();
            m_loop.Post(CEventLoop::eTaskService, this);
            return -1;
        }
        if (IsBroken() || IsClosedByServer())
            return -1;
        m_sideBuffer.append(static_cast<const char *>(data), size);
        m_pendingBytes.fetch_add(size, std::memory_order_relaxed);
        schedule = !m_sideScheduled;
        m_sideScheduled = true;
    }
    if (schedule)
        m_loop.Post(CEventLoop::eTaskSide, this);
    return static_cast<int>(size);
}

bool CSocketConnection::WaitForRoom()
{
    // Only writers that ignore IsWritable get here. The loop is held up
    // meanwhile, and moves on to another thread if this takes a while.
    const int fd = GetFd();
    const int64_t deadline = monotonicMilliseconds() + m_loop.GetSendTimeoutMs();
    while (m_queue.GetBufferedBytes() > c_highWater / 2) {
        uint64_t moved = 0;
        const int result = m_queue.Send(*m_pTransport, fd, moved);
        m_progress += moved;
        if (result == 1)
            break;
        const int64_t left = deadline - monotonicMilliseconds();
        struct pollfd waitFor = {fd, POLLOUT, 0};
        if (result < 0 || IsBroken() || left <= 0 || ::poll(&waitFor, 1, static_cast<int>(left)) < 0 ||
            (waitFor.revents & (POLLERR | POLLHUP)) != 0) {
            Fail();
            return false;
        }
    }
    return true;
}

bool CSocketConnection::FlushGathered()
{
    SDeliveryContext &context = *t_pContext;
    std::vector<SOutputSegment> &segments = context.m_segments;
    if (segments.empty())
        return !IsBroken();
    bool ok = !IsBroken();
    size_t first = 0;
    if (ok) {
        int result = 0;
        if (m_queue.IsEmpty()) {
            uint64_t moved = 0;
            HoldTailIfClosing();
            result = sendSegments(*m_pTransport, GetFd(), segments.data(), segments.size(), first, moved);
            m_progress += moved;
        }
        if (result < 0) {
            ok = false;
        } else {
            // The peer is behind: the rest waits in the queue (gathered bytes
            // copied, held ones with their references).
            for (; first < segments.size(); ++first)
                m_queue.AppendSegment(segments[first]);
        }
    }
    for (; first < segments.size(); ++first)
        releaseSegment(segments[first]);
    segments.clear();
    context.m_used = 0;
    context.m_memory = 0;
    context.m_fileBytes = 0;
    if (!ok)
        Fail();
    if (!m_queue.IsEmpty() || m_pendingBytes.load(std::memory_order_relaxed) != 0)
        CountPending();
    return ok;
}

bool CSocketConnection::IsWritable()
{
    if (IsBroken() || IsClosedByServer() || !InOwnDelivery())
        return true; // writes are dropped or wait on their own; the writer learns of a close otherwise
    if (m_queue.IsEmpty()) {
        const SDeliveryContext &context = *t_pContext;
        if (context.m_memory < c_flushMemory && context.m_fileBytes < c_flushFileBytes)
            return true;
        if (!FlushGathered())
            return true;
        if (m_queue.IsEmpty())
            return true;
    }
    m_wantSent = true;
    return false;
}

void CSocketConnection::PauseReading()
{
    m_readPaused = true;
}

void CSocketConnection::ResumeReading()
{
    if (!m_readPaused)
        return;
    m_readPaused = false;
    // Bytes that arrived meanwhile came with their event already: look again.
    if (m_readable)
        m_loop.Post(CEventLoop::eTaskService, this);
}

void CSocketConnection::SetIdle(bool idle)
{
    m_idleHint = idle ? 1 : 0;
}

size_t CSocketConnection::GetPendingOutput() const
{
    return m_pendingBytes.load(std::memory_order_relaxed);
}

void CSocketConnection::CountPending()
{
    size_t side;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        side = m_sideBuffer.size();
    }
    m_pendingBytes.store(m_queue.GetBufferedBytes() + side, std::memory_order_relaxed);
}

void CSocketConnection::NotifyWhenWritable()
{
    m_wakeRequested.store(true);
    m_loop.Post(CEventLoop::eTaskService, this);
}

void CSocketConnection::Fail()
{
    Break();
    m_queue.Clear();
    // The close is reported at once, on the writing thread, so that an
    // exchange for a peer that is gone stops at its next step.
    DeliverConnectionClosed();
}

bool CSocketConnection::IsSecure() const
{
    return m_pTransport->IsSecure();
}

void CSocketConnection::TakeSideBuffer()
{
    // While the peer is far behind, the bytes stay where they are and their
    // writers wait.
    if (m_queue.GetBufferedBytes() > c_highWater)
        return;
    std::string bytes;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_sideScheduled)
            return;
        bytes.swap(m_sideBuffer);
        m_sideScheduled = false;
    }
    s_sideTaken.notify_all();
    if (!bytes.empty() && !IsBroken())
        m_queue.AppendCopy(bytes.data(), bytes.size());
    CountPending();
}

template <class TCall> void CSocketConnection::Deliver(TCall call)
{
    // No lock on this path: a delivery counts itself in before it looks at
    // the registration, and UnregisterNotification clears the registration
    // before it looks at the count, so one of the two always sees the other
    // (both sequentially consistent).
    m_activeDeliveries.fetch_add(1);
    INVQDataLayerNotification *notification = m_pNotification.load();
    if (notification != nullptr) {
        // The writes of this delivery gather in the thread's context, unless
        // an outer delivery of this connection gathers them already.
        SDeliveryContext &context = deliveryContext();
        const bool ownsContext = context.m_pConnection == nullptr;
        if (ownsContext)
            context.m_pConnection = this;
        const bool tracked = t_depth < c_maxNesting;
        if (tracked)
            t_delivering[t_depth] = this;
        ++t_depth;
        m_loop.BeginCall(this);
        call(*notification);
        m_loop.EndCall();
        // Still counted as this thread's own while the gathered writes go
        // out: a failed send reports the close from here, and a notification
        // that unregisters in it must not wait for this delivery to end.
        if (ownsContext) {
            if (context.m_pConnection == this)
                FlushGathered();
            context.m_pConnection = nullptr;
        }
        --t_depth;
    }
    m_activeDeliveries.fetch_sub(1);
    if (m_unregisterWaiting.load() > 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        s_deliveryEnded.notify_all();
    }
}

void CSocketConnection::DeliverDataReceived()
{
    Deliver([this](INVQDataLayerNotification &notification) { notification.OnDataReceived(*this); });
}

void CSocketConnection::DeliverDataSent()
{
    Deliver([this](INVQDataLayerNotification &notification) { notification.OnDataSent(*this); });
}

void CSocketConnection::DeliverConnectionClosed()
{
    if (m_closeDelivered.exchange(true))
        return;
    Deliver([this](INVQDataLayerNotification &notification) { notification.OnConnectionClosed(*this); });
}

bool CSocketConnection::DeliverIdle(int64_t now, int idleTimeoutMs)
{
    bool keep = false;
    Deliver([this, &keep](INVQDataLayerNotification &notification) { keep = notification.OnIdle(*this); });
    if (keep)
        m_deadline = now + idleTimeoutMs;
    return keep;
}

bool CSocketConnection::IsRegistered()
{
    return m_pNotification.load() != nullptr;
}

void CSocketConnection::RegisterNotification(INVQDataLayerNotification &notification)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        INVQDataLayerNotification *previous = m_pNotification.load();
        if (previous == &notification)
            return;
        m_pNotification.store(&notification);
        notification.AddNotificationRef();
        if (previous != nullptr) {
            // The replaced registration hands its hold on the connection over.
            previous->ReleaseNotificationRef();
            return;
        }
    }
    AddRef(); // the registration keeps the connection alive
}

void CSocketConnection::UnregisterNotification(INVQDataLayerNotification &notification)
{
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const bool registered = m_pNotification.load() == &notification;
        if (registered)
            m_pNotification.store(nullptr);
        const int own = ownDeliveries(this);
        m_unregisterWaiting.fetch_add(1);
        s_deliveryEnded.wait(lock, [this, own] { return m_activeDeliveries.load() <= own; });
        m_unregisterWaiting.fetch_sub(1);
        if (!registered)
            return;
        notification.ReleaseNotificationRef();
    }
    ReleaseRef(); // may destroy this connection: nothing may follow
}

void CSocketConnection::Close()
{
    if (m_closedByServer.exchange(true))
        return;
    // Everything written so far still goes out first; the owner closes the
    // socket once it has. From another thread, the owner is told.
    if (!InOwnDelivery())
        m_loop.Post(CEventLoop::eTaskService, this);
}

void CSocketConnection::HoldTailIfClosing()
{
    // The answer's last bytes and the FIN share a segment, as they would
    // were the close part of the last write.
    if (m_tailHeld || !IsClosedByServer())
        return;
    m_tailHeld = true;
    m_pTransport->HoldTailForClose(GetFd());
}

void CSocketConnection::CloseSocket()
{
    m_queue.Clear();
    const int fd = m_fd.exchange(-1);
    if (fd < 0)
        return;
    // An orderly end, not after a failure nor to a peer that has gone.
    if (!IsBroken() && !m_peerClosed && !m_hangUp)
        m_pTransport->EndSession(fd);
    ::close(fd);
}

} // namespace NVQ
