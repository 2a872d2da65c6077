#ifndef NVQSOCKETS_LINUX_INVQDATALAYER_H
#define NVQSOCKETS_LINUX_INVQDATALAYER_H

#include "KZF_Base/Linux/RefCount.h"

namespace NVQ
{

class INVQDataLayerNotification;

// One open connection. Reference counted; it stays valid while a
// notification is registered with it.
class INVQDataLayer : public KZF::CRefCount_Base
{
  public:
    // Copies at most `size` waiting bytes into `buffer` and returns their
    // number: 0 when none are waiting (or the peer has closed), -1 when the
    // connection failed.
    virtual int ReadData(void *buffer, int size) = 0;

    // Writes `size` bytes in order. Small writes made inside a notification
    // are gathered and put on the wire together when the notification ends
    // (or earlier when they fill the buffer); large ones go out without a
    // copy. Waits while the peer does not take data, up to the send timeout.
    // Returns `size`, or -1 when the connection is broken (the bytes are
    // dropped, and the close notification has been delivered).
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
};

} // namespace NVQ

#endif
