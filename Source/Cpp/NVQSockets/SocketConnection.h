#ifndef NVQSOCKETS_SOCKETCONNECTION_H
#define NVQSOCKETS_SOCKETCONNECTION_H

#include "SocketAddress.h"
#include "SocketOutput.h"

#include "NVQCommon/Linux/INVQNotification.h"
#include "NVQSockets/Linux/INVQDataLayer.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace NVQ
{

class CEventLoop;
class CSocketTransport;

// One accepted TCP connection: the data layer handed to the library.
//
// Ownership: the loop's connection list holds one reference while the socket
// is open, and a registered notification holds one until it unregisters, so
// the object outlives every party that may still call it.
//
// Threads: a connection belongs to its loop. Only the thread that owns the
// loop reads, writes, closes the socket or changes the connection's state,
// with one exception: when a delivery blocks and the loop moves on to a fresh
// thread, the blocked thread keeps the connection ("off the loop") until its
// delivery ends and then hands it back. Other threads write through a locked
// side buffer, and close or break a connection by posting to its loop.
class CSocketConnection : public INVQDataLayer
{
  public:
    // What the owner has to do after Service.
    enum EServiceResult { eKeep, eFinish };

    CSocketConnection(CEventLoop &loop, int fd, const struct sockaddr *remote, socklen_t remoteLength);
    ~CSocketConnection() override;

    int ReadData(void *buffer, int size) override;
    int SendData(const void *data, int size) override;
    int SendDataHeld(const void *data, int size, KZF::IRefCount *holder) override;
    int64_t SendFile(int fd, int64_t offset, int64_t size, KZF::IRefCount *holder) override;
    bool IsWritable() override;
    void PauseReading() override;
    void ResumeReading() override;
    void SetIdle(bool idle) override;
    void SetLongLived() override { m_longLived = true; }
    void SetReceivingBody(bool receiving) override { m_receivingBody = receiving; }
    void SetNoMoreInput() override { m_noMoreInput = true; }
    size_t GetPendingOutput() const override;
    void NotifyWhenWritable() override;
    const INVQConnectionAddress *GetRemoteAddress() const override { return &m_remoteAddress; }
    bool IsSecure() const override;
    void RegisterNotification(INVQDataLayerNotification &notification) override;
    void UnregisterNotification(INVQDataLayerNotification &notification) override;
    void Close() override;

    // Replaces the plain byte path before the connection is served; the
    // connection releases it.
    void SetTransport(CSocketTransport *transport) { m_pTransport = transport; }

    int GetFd() const { return m_fd.load(std::memory_order_acquire); }
    CEventLoop &GetLoop() const { return m_loop; }
    const CSocketAddress &GetRemoteSocketAddress() const { return m_remoteAddress; }
    const CLocalSocketAddress &GetLocalAddress() const { return m_localAddress; }
    bool IsRegistered();

    // --- The owning thread's side.

    // Readiness reported by epoll.
    void OnEvents(uint32_t events);
    // Does what is due: sends what waits, delivers input, output drained and
    // close notifications, lingers after a server close. eFinish once the
    // connection is over (the loop then finishes it).
    EServiceResult Service(int64_t now);
    // Moves bytes other threads wrote into the queue.
    void TakeSideBuffer();
    // Publishes what waits, for GetPendingOutput.
    void CountPending();
    // Forces the connection closed (stop, timeout, room at the cap): the
    // close notification follows at the next Service.
    void Break() { m_broken.store(true, std::memory_order_release); }
    // Wakes a delivery of this connection that waits for the peer on another
    // thread (StopServer).
    void ShutdownSocket();
    // The waiting that applies now and until when; called by the owner after
    // Service.
    enum EWait { eWaitNone, eWaitIdle, eWaitRequest, eWaitSending, eWaitLinger };
    EWait GetWait() const { return m_wait; }
    int64_t GetIdleSince() const { return m_waitSince; }
    int64_t GetDeadline() const { return m_deadline; }
    // Re-evaluates the wait after Service; true when it became idle just now.
    bool Settle(int64_t now, int idleTimeoutMs, int requestTimeoutMs, int sendTimeoutMs);

    // Delivers the close notification unless it was delivered already. Safe
    // while a delivery of this connection blocks on another thread.
    void DeliverConnectionClosed();
    // The idle timeout passed: true when the notification keeps the
    // connection (its deadline is then renewed).
    bool DeliverIdle(int64_t now, int idleTimeoutMs);
    bool IsLongLived() const { return m_longLived; }
    // The server's close, accepted from any thread.
    bool IsClosedByServer() const { return m_closedByServer.load(std::memory_order_acquire); }
    bool IsBroken() const { return m_broken.load(std::memory_order_acquire); }

    // Off the loop: set when the loop moved on while a delivery of this
    // connection blocked; events arriving meanwhile wait in m_pendingEvents.
    std::atomic<bool> m_offLoop;
    std::atomic<uint32_t> m_pendingEvents;

    // Links of the loop's lists (owner only): every connection, and the idle
    // ones by the time they became idle.
    CSocketConnection *m_pPrev;
    CSocketConnection *m_pNext;
    CSocketConnection *m_pIdlePrev;
    CSocketConnection *m_pIdleNext;
    bool m_inIdleList;
    bool m_finished;

    // Closes the socket (once). Owner only, once the connection is unlinked.
    void CloseSocket();

  private:
    template <class TCall> void Deliver(TCall call);
    void DeliverDataReceived();
    void DeliverDataSent();
    // Bytes of one write, from the delivering thread or another one.
    int Append(const void *data, size_t size, KZF::IRefCount *holder);
    int AppendFromOtherThread(const void *data, size_t size);
    // Holds a writer that ignores IsWritable until the peer has taken most of
    // what waits; false (connection failed) after the send timeout.
    bool WaitForRoom();
    int AppendFile(int fd, int64_t offset, int64_t size, KZF::IRefCount *holder);
    bool InOwnDelivery() const;
    // Sends the delivery's gathered writes; what does not go moves into the
    // queue. False when the connection failed.
    bool FlushGathered();
    // A failed write: drop what waits, report the close at once.
    void Fail();
    // After the server's close: sends the FIN and drops what the peer still
    // sends. True once the connection can go.
    bool Linger(int64_t now);
    bool NeedsLinger() const;
    // Before a send on a connection the server has closed.
    void HoldTailIfClosing();

    CEventLoop &m_loop;
    std::atomic<int> m_fd;
    CSocketTransport *m_pTransport;
    CSocketAddress m_remoteAddress;
    CLocalSocketAddress m_localAddress;
    COutputQueue m_queue;

    std::atomic<bool> m_broken;
    std::atomic<bool> m_closedByServer;
    std::atomic<bool> m_closeDelivered;

    bool m_readable;   // input may wait: an event came and no read drained it yet
    bool m_endSeen;    // the peer's end of stream was reported (it may follow unread data)
    bool m_peerClosed; // a read found the end of the stream
    bool m_hangUp;     // the socket reported an error or a hang-up
    bool m_readPaused;
    bool m_wantSent; // IsWritable answered false: OnDataSent is owed
    bool m_longLived;
    bool m_receivingBody;
    bool m_noMoreInput;
    bool m_tailHeld;                    // the transport holds partial segments for the FIN
    std::atomic<bool> m_wakeRequested;  // NotifyWhenWritable from another thread
    std::atomic<size_t> m_pendingBytes; // queue and side buffer, for GetPendingOutput
    bool m_lingering;
    bool m_readInDelivery;  // since the last Settle
    bool m_wroteInDelivery; // since the last Settle
    bool m_readCalled;      // the running input delivery read
    signed char m_idleHint; // -1 unknown (guess from reads and writes), 0 in a request, 1 idle
    EWait m_wait;
    int64_t m_deadline;
    int64_t m_waitSince;     // when the present wait began
    uint64_t m_progress;     // bytes sent in all
    uint64_t m_lastProgress; // m_progress when the send deadline was last set

    // Deliveries take no lock (see Deliver); the mutex serialises
    // registration changes and the side buffer.
    std::atomic<INVQDataLayerNotification *> m_pNotification;
    std::atomic<int> m_activeDeliveries;
    std::atomic<int> m_unregisterWaiting;
    std::mutex m_mutex; // guards the fields below
    bool m_sideScheduled;
    std::string m_sideBuffer; // bytes other threads wrote, in order
};

} // namespace NVQ

#endif
