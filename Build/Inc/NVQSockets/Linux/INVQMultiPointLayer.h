#ifndef NVQSOCKETS_LINUX_INVQMULTIPOINTLAYER_H
#define NVQSOCKETS_LINUX_INVQMULTIPOINTLAYER_H

#include "KZF_Base/Linux/RefCountPtr.h"
#include "NVQCommon/Linux/INVQNotification.h"
#include "NVQSockets/Linux/INVQConnectionAddress.h"
#include "NVQSockets/Linux/INVQDataLayer.h"

#include <mutex>
#include <vector>

namespace NVQ
{

// A layer that produces connections.
class INVQMultiPointLayer
{
  public:
    virtual ~INVQMultiPointLayer() {}

    // The data layer of the connection being accepted, when called from
    // inside NewConnectionRequested with that notification's two addresses;
    // null otherwise.
    virtual KZF::CRefCountPtr<INVQDataLayer> CreateConnectionPoint(const INVQConnectionAddress &first,
                                                                   const INVQConnectionAddress &second) = 0;
    virtual void CloseConnection(INVQDataLayer &connection) = 0;
    virtual void RegisterNotification(const INVQMultiPointLayerNotification &notification) = 0;
    // No delivery to `notification` runs or starts once this returns (apart
    // from one the calling thread is inside of).
    virtual void UnregisterNotification(const INVQMultiPointLayerNotification &notification) = 0;
};

// Notification list and broadcasts shared by multi-point layers.
class CNVQMultiPointLayerBase : public INVQMultiPointLayer
{
  public:
    CNVQMultiPointLayerBase() {}
    ~CNVQMultiPointLayerBase() override;

    void RegisterNotification(const INVQMultiPointLayerNotification &notification) override;
    void UnregisterNotification(const INVQMultiPointLayerNotification &notification) override;

  protected:
    // Asks the registered notifications in order; true when one of them took
    // the connection.
    bool NotifyForNewConnection(const INVQConnectionAddress &first, const INVQConnectionAddress &second);
    void NotifyForConnectionClosed(INVQDataLayer &connection, const INVQConnectionAddress &first,
                                   const INVQConnectionAddress &second);
    bool HasNotifications();

  private:
    // Held across deliveries, so unregistering waits for one under way on
    // another thread; recursive, so a notification may unregister itself.
    std::recursive_mutex m_mutex;
    std::vector<const INVQMultiPointLayerNotification *> m_notifications;
};

} // namespace NVQ

#endif
