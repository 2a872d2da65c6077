#ifndef TESTS_SUPPORT_FAKEMULTIPOINTLAYER_H
#define TESTS_SUPPORT_FAKEMULTIPOINTLAYER_H

// A multi-point layer without sockets: a test "accepts" connections whose
// data layers are fakes.

#include "NVQSockets/Linux/INVQMultiPointLayer.h"
#include "Support/FakeDataLayer.h"

#include <string>
#include <vector>

namespace NVQTest
{

class CFakeMultiPointLayer : public NVQ::INVQMultiPointLayer
{
  public:
    KZF::CRefCountPtr<NVQ::INVQDataLayer> CreateConnectionPoint(const NVQ::INVQConnectionAddress &,
                                                                const NVQ::INVQConnectionAddress &) override
    {
        return m_next;
    }
    void CloseConnection(NVQ::INVQDataLayer &) override {}
    void RegisterNotification(const NVQ::INVQMultiPointLayerNotification &notification) override
    {
        m_pNotification = const_cast<NVQ::INVQMultiPointLayerNotification *>(&notification);
    }
    void UnregisterNotification(const NVQ::INVQMultiPointLayerNotification &notification) override
    {
        if (m_pNotification == &notification)
            m_pNotification = nullptr;
        ++m_unregistrations;
    }

    // A client connects; the new connection's data layer, or null when the
    // framework has none to give.
    CFakeDataLayer *Accept(bool withDataLayer = true)
    {
        CFakeDataLayer *dataLayer = withDataLayer ? new CFakeDataLayer() : nullptr;
        m_next = dataLayer;
        m_accepted.push_back(dataLayer);
        m_results.push_back(m_pNotification->NewConnectionRequested(*this, m_remote, m_local));
        m_next = static_cast<NVQ::INVQDataLayer *>(nullptr);
        return dataLayer;
    }

    NVQ::INVQMultiPointLayerNotification *m_pNotification = nullptr;
    KZF::CRefCountPtr<NVQ::INVQDataLayer> m_next;
    std::vector<KZF::CRefCountPtr<CFakeDataLayer>> m_accepted;
    std::vector<bool> m_results;
    int m_unregistrations = 0;
    CFakeAddress m_remote{"192.0.2.1:5000"};
    CFakeAddress m_local{"192.0.2.2:7070"};
};

} // namespace NVQTest

#endif
