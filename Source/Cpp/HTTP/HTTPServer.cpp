#include "HTTP/HTTPServer.h"

#include "HTTP/HTTPLayer.h"
#include "KZF_Base/Linux/KzfAssert.h"

namespace NVQ
{

CHTTPServer::CHTTPServer(bool localOnly) : CSocketServerLayer(localOnly), m_httpLayer(nullptr)
{
    m_httpLayer = new CHTTPLayer(*this);
}

CHTTPServer::~CHTTPServer()
{
    // Stopping is the host's duty (StopServer before destruction); the layer
    // releases the connection points it still holds.
    if (m_httpLayer != nullptr)
        delete m_httpLayer;
    m_httpLayer = nullptr;
}

bool CHTTPServer::StartServer(const SHTTPServerOptions &options)
{
    if (m_httpLayer != nullptr) {
        m_httpLayer->SetStrict(options.m_strict);
        m_httpLayer->SetKeepAfterStream(options.m_keepAfterStream);
        m_httpLayer->SetLimits(options.m_maxHeaderBytes, options.m_maxBodyBytes);
    }
    return CSocketServerLayer::StartServer(options.m_port, -1, false);
}

void CHTTPServer::StopServer()
{
    CSocketServerLayer::StopServer();
}

bool CHTTPServer::IsServerStarted() const
{
    return CSocketServerLayer::IsServerStarted();
}

void CHTTPServer::RegisterHandler(const IHTTPRequestHandler &handler, bool atFront)
{
    KZF_ASSERT(m_httpLayer);
    if (m_httpLayer != nullptr)
        m_httpLayer->RegisterHandler(handler, atFront);
}

bool CHTTPServer::UnregisterHandler(const IHTTPRequestHandler &handler)
{
    KZF_ASSERT(m_httpLayer);
    if (m_httpLayer == nullptr)
        return false;
    return m_httpLayer->UnregisterHandler(handler);
}

} // namespace NVQ
