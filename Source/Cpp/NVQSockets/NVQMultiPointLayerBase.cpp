#include "NVQSockets/Linux/INVQMultiPointLayer.h"

#include <algorithm>

namespace NVQ
{

CNVQMultiPointLayerBase::~CNVQMultiPointLayerBase()
{
    for (const INVQMultiPointLayerNotification *notification : m_notifications)
        notification->ReleaseNotificationRef();
}

void CNVQMultiPointLayerBase::RegisterNotification(const INVQMultiPointLayerNotification &notification)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    notification.AddNotificationRef();
    m_notifications.push_back(&notification);
}

void CNVQMultiPointLayerBase::UnregisterNotification(const INVQMultiPointLayerNotification &notification)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    auto it = std::find(m_notifications.begin(), m_notifications.end(), &notification);
    if (it == m_notifications.end())
        return;
    m_notifications.erase(it);
    notification.ReleaseNotificationRef();
}

bool CNVQMultiPointLayerBase::HasNotifications()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return !m_notifications.empty();
}

bool CNVQMultiPointLayerBase::NotifyForNewConnection(const INVQConnectionAddress &first,
                                                     const INVQConnectionAddress &second)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    // By index: a notification may unregister itself while it is asked.
    for (size_t i = 0; i < m_notifications.size(); ++i) {
        INVQMultiPointLayerNotification *notification =
            const_cast<INVQMultiPointLayerNotification *>(m_notifications[i]);
        if (notification->NewConnectionRequested(*this, first, second))
            return true;
    }
    return false;
}

void CNVQMultiPointLayerBase::NotifyForConnectionClosed(INVQDataLayer &connection,
                                                        const INVQConnectionAddress &first,
                                                        const INVQConnectionAddress &second)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (size_t i = 0; i < m_notifications.size(); ++i) {
        INVQMultiPointLayerNotification *notification =
            const_cast<INVQMultiPointLayerNotification *>(m_notifications[i]);
        notification->OnConnectionClosed(connection, first, second);
    }
}

} // namespace NVQ
