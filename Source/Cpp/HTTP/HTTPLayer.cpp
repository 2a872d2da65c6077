#include "HTTP/HTTPLayer.h"

#include "HTTP/HTTPConnectionPoint.h"
#include "KZF_Utilities/Linux/Logger.h"

#include <climits>

namespace NVQ
{

CHTTPLayer::CHTTPLayer(INVQMultiPointLayer &layer)
    : m_pMultiPointLayer(&layer), m_lastConnectionID(0), m_strict(false),
      m_maxHeaderBytes(CHTTPConnectionPoint::c_defaultMaxHeaderBytes),
      m_maxBodyBytes(CHTTPConnectionPoint::c_defaultMaxBodyBytes), m_keepAfterStream(false)
{
    m_pMultiPointLayer->RegisterNotification(*this);
}

CHTTPLayer::CHTTPLayer()
    : m_pMultiPointLayer(nullptr), m_lastConnectionID(0), m_strict(false),
      m_maxHeaderBytes(CHTTPConnectionPoint::c_defaultMaxHeaderBytes),
      m_maxBodyBytes(CHTTPConnectionPoint::c_defaultMaxBodyBytes), m_keepAfterStream(false)
{
}

CHTTPLayer::~CHTTPLayer()
{
    if (m_pMultiPointLayer != nullptr)
        m_pMultiPointLayer->UnregisterNotification(*this);
}

int CHTTPLayer::NextConnectionID()
{
    // Delivered one new connection at a time, so the counter needs no lock.
    // After the largest int it starts again at 1, skipping IDs still in use:
    // handlers key their state by ID, so two live connections must never share
    // one.
    for (;;) {
        m_lastConnectionID = m_lastConnectionID == INT_MAX ? 1 : m_lastConnectionID + 1;
        KZF::CCriticalSection::CLock lock(m_lock);
        if (m_connectionPoints.find(m_lastConnectionID) == m_connectionPoints.end())
            return m_lastConnectionID;
    }
}

bool CHTTPLayer::NewConnectionRequested(INVQMultiPointLayer &layer, const INVQConnectionAddress &first,
                                        const INVQConnectionAddress &second)
{
    KZF::CRefCountPtr<INVQDataLayer> dataLayer = layer.CreateConnectionPoint(first, second);
    KZF::CLogger &logger = KZF::CLogger::GetInstance();
    // The addresses are printed only when the message goes anywhere: turning
    // them into text is the costliest step of accepting a connection.
    if (logger.IsEnabled(8))
        logger.LogMessage(8, __FILE__, __LINE__, "NewConnectionRequested", KZF::CLogger::c_noneObjPtr,
                          "HTTPLayer : create connection point (%s)->(%s)", first.ToString().c_str(),
                          second.ToString().c_str());
    if (dataLayer.IsNull()) {
        logger.LogMessage(1, __FILE__, __LINE__, "NewConnectionRequested", KZF::CLogger::c_noneObjPtr,
                          "HTTPLayer : create connection point failed");
        return false;
    }
    const int connectionID = NextConnectionID();
    KZF::CRefCountPtr<CHTTPConnectionPoint> connectionPoint(
        new CHTTPConnectionPoint(*dataLayer.GetPtr(), *this, connectionID));
    bool result = false;
    if (!connectionPoint.IsNull()) {
        connectionPoint->SetStrict(m_strict);
        connectionPoint->SetKeepAfterStream(m_keepAfterStream);
        connectionPoint->SetLimits(m_maxHeaderBytes, m_maxBodyBytes);
        KZF::CCriticalSection::CLock lock(m_lock);
        m_connectionPoints.insert(std::make_pair(connectionID, connectionPoint));
        result = true;
    }
    return result;
}

void CHTTPLayer::OnConnectionClosed(INVQDataLayer &, const INVQConnectionAddress &,
                                    const INVQConnectionAddress &)
{
    // Connection points leave the table through their own close notification.
}

IHTTPRequestHandler *CHTTPLayer::FindHandler(const CHTTPRequest &request)
{
    for (IHTTPRequestHandler *handler : m_handlers) {
        if (handler->CanProcessUri(request.GetUri()))
            return handler;
    }
    KZF::CLogger::GetInstance().LogMessage(8, __FILE__, __LINE__, "FindHandler", KZF::CLogger::c_noneObjPtr,
                                           "HTTPLayer - no handler for request.");
    return nullptr;
}

void CHTTPLayer::RegisterHandler(const IHTTPRequestHandler &handler, bool atFront)
{
    IHTTPRequestHandler *pHandler = const_cast<IHTTPRequestHandler *>(&handler);
    if (atFront)
        m_handlers.push_front(pHandler);
    else
        m_handlers.push_back(pHandler);
}

bool CHTTPLayer::UnregisterHandler(const IHTTPRequestHandler &handler)
{
    for (auto it = m_handlers.begin(); it != m_handlers.end(); ++it) {
        if (*it == &handler) {
            m_handlers.erase(it);
            return true;
        }
    }
    return false;
}

void CHTTPLayer::OnConnectionPointClosed(CHTTPConnectionPoint &connectionPoint)
{
    // Erasing may destroy the connection point right here, with the lock
    // held; the lock is recursive and nothing on that path waits for it.
    KZF::CCriticalSection::CLock lock(m_lock);
    auto it = m_connectionPoints.find(connectionPoint.GetConnectionID());
    if (it != m_connectionPoints.end() && it->second.GetPtr() == &connectionPoint)
        m_connectionPoints.erase(it);
}

size_t CHTTPLayer::GetConnectionPointCount()
{
    KZF::CCriticalSection::CLock lock(m_lock);
    return m_connectionPoints.size();
}

} // namespace NVQ
