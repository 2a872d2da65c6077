#ifndef NVQCOMMON_LINUX_INVQNOTIFICATION_H
#define NVQCOMMON_LINUX_INVQNOTIFICATION_H

#include "KZF_Base/Linux/KzfAssert.h"

// Notification interfaces through which the connection framework reaches its
// users. The framework counts its holds on a notification object with
// AddNotificationRef / ReleaseNotificationRef, under its own serialisation;
// the object must not be destroyed while held.

namespace NVQ
{

class INVQDataLayer;
class INVQMultiPointLayer;
class INVQConnectionAddress;

class INVQNotification
{
  public:
    INVQNotification() : m_notificationRef(0) {}
    virtual ~INVQNotification() { KZF_ASSERT(m_notificationRef <= 0); }

    virtual void AddNotificationRef() const { ++m_notificationRef; }
    virtual void ReleaseNotificationRef() const { --m_notificationRef; }

  protected:
    mutable int m_notificationRef;
};

class INVQConnectionClosedNotification : public INVQNotification
{
  public:
    INVQConnectionClosedNotification() {}
    ~INVQConnectionClosedNotification() override {}

    // The connection closed from the client's side or failed.
    virtual void OnConnectionClosed(INVQDataLayer &connection) = 0;
};

class INVQDataLayerNotification : public INVQConnectionClosedNotification
{
  public:
    INVQDataLayerNotification() {}
    ~INVQDataLayerNotification() override {}

    // Bytes are waiting on the connection.
    virtual void OnDataReceived(INVQDataLayer &connection) = 0;
    // The bytes that made the connection report itself not writable are
    // gone: a writer that stopped there goes on.
    virtual void OnDataSent(INVQDataLayer &connection) { (void)connection; }
    // The connection has been idle for the idle timeout. True keeps it open
    // for another period (a long-lived connection that sent a keep-alive of
    // its own); false, the default, closes it as a peer that left.
    virtual bool OnIdle(INVQDataLayer &connection)
    {
        (void)connection;
        return false;
    }
};

class INVQMultiPointLayerNotification : public INVQNotification
{
  public:
    INVQMultiPointLayerNotification() {}
    ~INVQMultiPointLayerNotification() override {}

    // A client connection is being accepted; false when it cannot be served.
    virtual bool NewConnectionRequested(INVQMultiPointLayer &layer, const INVQConnectionAddress &first,
                                        const INVQConnectionAddress &second) = 0;
    // A connection of the layer closed.
    virtual void OnConnectionClosed(INVQDataLayer &connection, const INVQConnectionAddress &first,
                                    const INVQConnectionAddress &second) = 0;
};

} // namespace NVQ

#endif
