#include "NVQSockets/Linux/SocketServerLayer.h"

#include "SocketServerCore.h"

#include <algorithm>

namespace NVQ
{

CSocketServerLayer::CSocketServerLayer(bool localOnly) : m_pCore(new CSocketServerCore(*this, localOnly)) {}

CSocketServerLayer::~CSocketServerLayer()
{
    StopServer();
    delete m_pCore;
    m_pCore = nullptr;
}

bool CSocketServerLayer::StartServer(int port, int backlog, bool ipv4Only)
{
    if (IsServerStarted())
        return false;
    if (!m_pCore->Open(port, backlog, ipv4Only))
        return false;
    if (!StartThread(true)) {
        m_pCore->Close();
        return false;
    }
    return true;
}

void CSocketServerLayer::StopServer()
{
    if (!IsServerStarted())
        return;
    m_pCore->StopLoops();
    StopThread(-1);
    m_pCore->Close();
}

bool CSocketServerLayer::IsServerStarted() const
{
    return GetThreadStatus() == eThreadRunning;
}

int CSocketServerLayer::GetPort() const
{
    return IsServerStarted() ? m_pCore->GetPort() : 0;
}

int CSocketServerLayer::Run()
{
    m_pCore->RunWatchdog();
    return 0;
}

void CSocketServerLayer::OnStopRequested()
{
    m_pCore->WakeWatchdog();
}

KZF::CRefCountPtr<INVQDataLayer>
CSocketServerLayer::CreateConnectionPoint(const INVQConnectionAddress &first,
                                          const INVQConnectionAddress &second)
{
    return m_pCore->CreateConnectionPoint(first, second);
}

void CSocketServerLayer::CloseConnection(INVQDataLayer &connection)
{
    connection.Close();
}

void CSocketServerLayer::SetIdleTimeout(int milliseconds)
{
    m_pCore->m_idleTimeoutMs = std::max(1, milliseconds);
}
void CSocketServerLayer::SetRequestTimeout(int milliseconds)
{
    m_pCore->m_requestTimeoutMs = std::max(1, milliseconds);
}
void CSocketServerLayer::SetSendTimeout(int milliseconds)
{
    m_pCore->m_sendTimeoutMs = std::max(1, milliseconds);
}
void CSocketServerLayer::SetMaxConnections(int count)
{
    m_pCore->m_maxConnections = std::max(0, count);
}
void CSocketServerLayer::SetMaxWorkers(int count)
{
    m_pCore->m_maxWorkers = std::max(1, count);
}
void CSocketServerLayer::SetLoopCount(int count)
{
    m_pCore->m_loopCount = std::max(0, count);
}

int CSocketServerLayer::GetIdleTimeout() const
{
    return m_pCore->m_idleTimeoutMs;
}
int CSocketServerLayer::GetRequestTimeout() const
{
    return m_pCore->m_requestTimeoutMs;
}
int CSocketServerLayer::GetSendTimeout() const
{
    return m_pCore->m_sendTimeoutMs;
}
int CSocketServerLayer::GetMaxConnections() const
{
    return m_pCore->m_maxConnections;
}
int CSocketServerLayer::GetMaxWorkers() const
{
    return m_pCore->m_maxWorkers;
}
int CSocketServerLayer::GetLoopCount() const
{
    return m_pCore->m_loopCount;
}
bool CSocketServerLayer::SetTlsCertificate(const std::string &certificateChain, const std::string &privateKey,
                                           bool fromFiles)
{
    return m_pCore->SetTlsCertificate(certificateChain, privateKey, fromFiles);
}

void CSocketServerLayer::SetTlsSessionTickets(bool on)
{
    m_pCore->SetTlsSessionTickets(on);
}

void CSocketServerLayer::SetTlsPort(int port)
{
    m_pCore->m_tlsPort = std::max(-1, port);
}
int CSocketServerLayer::GetTlsPort() const
{
    return IsServerStarted() ? m_pCore->GetTlsPort() : 0;
}
bool CSocketServerLayer::IsTlsAvailable()
{
#ifdef NVQ_WITH_TLS
    return true;
#else
    return false;
#endif
}

int CSocketServerLayer::GetConnectionCount() const
{
    return m_pCore->m_connectionCount.load();
}
int CSocketServerLayer::GetWorkerCount() const
{
    return m_pCore->GetWorkerCount();
}

} // namespace NVQ
