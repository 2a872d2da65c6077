#ifndef NVQSOCKETS_LINUX_INVQDATALAYER_H
#define NVQSOCKETS_LINUX_INVQDATALAYER_H

#include "KZF_Base/Linux/RefCount.h"

#include <cstddef>
#include <cstdint>

namespace NVQ
{

class INVQDataLayerNotification;
class INVQConnectionAddress;

// One open connection. Reference counted; it stays valid while a
// notification is registered with it.
class INVQDataLayer : public KZF::CRefCount_Base
{
  public:
    // Copies at most `size` waiting bytes into `buffer` and returns their
    // number: 0 when none are waiting (or the peer has closed), -1 when the
    // connection failed.
    virtual int ReadData(void *buffer, int size) = 0;

    // Writes `size` bytes in order, never waiting for the peer: what the
    // kernel does not take at once stays queued (copied) and goes out as the
    // peer reads. Writes made inside a notification are gathered and put on
    // the wire together. Returns `size`, or -1 when the connection is broken
    // (the bytes are dropped, and the close notification has been delivered).
    virtual int SendData(const void *data, int size) = 0;

    // From now on data and close notifications of this connection go to
    // `notification` (one registration per connection; a new one replaces
    // the old).
    virtual void RegisterNotification(INVQDataLayerNotification &notification) = 0;

    // No delivery to `notification` is under way or will start once this
    // returns, apart from deliveries the calling thread itself is inside of.
    // Allowed from inside a delivery of this connection.
    virtual void UnregisterNotification(INVQDataLayerNotification &notification) = 0;

    // Closes the connection from the server side, after everything written
    // so far has been sent. Call it after UnregisterNotification: the closing
    // party hears nothing of its own close.
    virtual void Close() = 0;

    // What follows extends the operations above for writers that stream
    // large answers; each has a plain fallback, so simple data layers (and
    // test doubles) need not implement them.

    // As SendData, without copying: `holder` keeps the bytes alive while they
    // wait (one reference is taken for as long as they are queued).
    virtual int SendDataHeld(const void *data, int size, KZF::IRefCount *holder)
    {
        (void)holder;
        return SendData(data, size);
    }

    // Queues `size` bytes of the open file `fd` from `offset`; they reach the
    // peer without passing through user memory where the connection allows
    // (sendfile). `holder` keeps the descriptor open while they wait. Ranges
    // of one file that follow each other go out in one call. Returns `size`,
    // or -1 as SendData. The fallback reads the range and writes it.
    virtual int64_t SendFile(int fd, int64_t offset, int64_t size, KZF::IRefCount *holder);

    // True when the connection takes more bytes now. False when earlier bytes
    // still wait for the peer: a writer that produces data on demand stops
    // here, and OnDataSent is delivered once they are gone.
    virtual bool IsWritable() { return true; }

    // While reading is paused no OnDataReceived is delivered; resuming
    // delivers one if bytes arrived meanwhile.
    virtual void PauseReading() {}
    virtual void ResumeReading() {}

    // Tells the connection whether it waits between requests (idle: the idle
    // timeout applies, and it may be closed to make room for a newcomer) or
    // holds part of a request (the request timeout applies).
    virtual void SetIdle(bool idle) { (void)idle; }

    // While set, the request takes its time to arrive (a large upload): the
    // request timeout counts from the last byte read instead of from its
    // first.
    virtual void SetReceivingBody(bool receiving) { (void)receiving; }

    // From now on the connection carries one long exchange (an upgraded
    // protocol, an event stream) instead of requests: only the idle timeout
    // applies, renewed by traffic and by OnIdle, and it is never closed to
    // make room for a newcomer.
    virtual void SetLongLived() {}

    // The peer has said it sends nothing more (an HTTP request that asked to
    // close, read whole): a close from our side then ends the connection at
    // once, with no slow close that reads on while the answer drains.
    virtual void SetNoMoreInput() {}

    // True when the bytes travel encrypted (TLS below this layer).
    virtual bool IsSecure() const { return false; }

    // The peer's address, when the connection knows it.
    virtual const INVQConnectionAddress *GetRemoteAddress() const { return nullptr; }

    // Bytes written and not yet handed to the kernel (copies and held bytes;
    // file ranges are not counted). Safe from any thread: a sender that must
    // not fall behind a slow peer bounds its queue with it.
    virtual size_t GetPendingOutput() const { return 0; }

    // Asks for OnDataSent once everything written so far is in the kernel's
    // hands (soon, when nothing waits). Safe from any thread: a producer on
    // another thread wakes the connection's writer this way.
    virtual void NotifyWhenWritable() {}
};

} // namespace NVQ

#endif
