#include "HTTP/HTTPWebSocketEndpoint.h"

#include "HTTP/WebSocketHandshake.h"

#include <cstring>

namespace NVQ
{

namespace
{

KZF::CRefCountPtr<CHTTPResponse> answer(int code, const char *phrase, const char *text)
{
    KZF::CRefCountPtr<CHTTPResponse> response(new CHTTPResponse());
    response->SetCode(code);
    response->SetPhrase(phrase);
    response->SetContentType("text/plain");
    response->SetData(reinterpret_cast<const unsigned char *>(text), static_cast<long>(std::strlen(text)));
    response->SetIsLast(true);
    return response;
}

// Splits a comma-separated field into its trimmed, non-empty elements.
std::vector<KZF::tstring> listElements(const KZF::tstring &value)
{
    std::vector<KZF::tstring> elements;
    size_t start = 0;
    while (start <= value.size()) {
        size_t end = value.find(',', start);
        if (end == KZF::tstring::npos)
            end = value.size();
        size_t first = start;
        size_t last = end;
        while (first < last && (value[first] == ' ' || value[first] == '\t'))
            ++first;
        while (last > first && (value[last - 1] == ' ' || value[last - 1] == '\t'))
            --last;
        if (last > first)
            elements.push_back(value.substr(first, last - first));
        start = end + 1;
    }
    return elements;
}

} // namespace

CHTTPWebSocketEndpoint::CHTTPWebSocketEndpoint(const KZF::tstring &path, IWebSocketHandler &handler,
                                               const CWebSocketSession::SLimits &limits)
    : m_path(path), m_handler(handler), m_limits(limits)
{
}

CHTTPWebSocketEndpoint::~CHTTPWebSocketEndpoint() {}

bool CHTTPWebSocketEndpoint::CanProcessUri(const KZF::tstring &uri)
{
    return uri.compare(0, m_path.size(), m_path) == 0 &&
           (uri.size() == m_path.size() || uri[m_path.size()] == '?');
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPWebSocketEndpoint::CheckUpgrade(const CHTTPRequest &request,
                                                                      KZF::tstring &key)
{
    KZF::tstring version;
    request.GetHeaderFieldValueByName("sec-websocket-version", version);
    if (!request.HasHeaderToken("upgrade", "websocket") || !request.HasHeaderToken("connection", "upgrade") ||
        version != "13") {
        // Also the answer to a plain request: this URI speaks only WebSocket.
        KZF::CRefCountPtr<CHTTPResponse> response =
            answer(426, "Upgrade Required", "This resource is a WebSocket (version 13).\n");
        response->AddHeaderField("Sec-WebSocket-Version", "13");
        response->AddHeaderField("Upgrade", "websocket");
        return response;
    }
    // The lenient parser leaves the version unknown (0): only 1.0 is refused.
    if (request.GetMethod() != "GET" || request.GetHTTPVersion() == 10 ||
        !request.GetHeaderFieldValueByName("sec-websocket-key", key) ||
        !CWebSocketHandshake::IsValidClientKey(key))
        return answer(400, "Bad Request", "Malformed WebSocket handshake.\n");
    return KZF::CRefCountPtr<CHTTPResponse>();
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPWebSocketEndpoint::Upgrade(CHTTPRequest &request,
                                                                 const KZF::tstring &key,
                                                                 IWebSocketHandler &handler,
                                                                 const CWebSocketSession::SLimits &limits)
{
    IWebSocketHandler::SUpgrade upgrade;
    upgrade.m_pRequest = &request;
    request.GetHeaderFieldValueByName("origin", upgrade.m_origin);
    KZF::tstring protocols;
    if (request.GetHeaderFieldValueByName("sec-websocket-protocol", protocols))
        upgrade.m_protocols = listElements(protocols);
    if (!handler.AcceptUpgrade(upgrade)) {
        if (!upgrade.m_refusal.IsNull())
            return upgrade.m_refusal;
        return answer(403, "Forbidden", "WebSocket refused.\n");
    }
    // Only an offered subprotocol can be confirmed; a client closes on any
    // other.
    bool offered = false;
    for (const KZF::tstring &protocol : upgrade.m_protocols)
        offered = offered || protocol == upgrade.m_chosenProtocol;
    if (!offered)
        upgrade.m_chosenProtocol.clear();

    KZF::CRefCountPtr<CHTTPResponse> response(new CHTTPResponse());
    response->SetCode(101);
    response->SetPhrase("Switching Protocols");
    response->SetIsLast(false);
    response->AddHeaderField("Upgrade", "websocket");
    response->AddHeaderField("Connection", "Upgrade");
    response->AddHeaderField("Sec-WebSocket-Accept", CWebSocketHandshake::ComputeAcceptKey(key));
    if (!upgrade.m_chosenProtocol.empty())
        response->AddHeaderField("Sec-WebSocket-Protocol", upgrade.m_chosenProtocol);
    response->SetConnectionTaker(
        new CWebSocketSession(handler, limits, upgrade.m_chosenProtocol, upgrade.m_context.GetPtr()));
    return response;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPWebSocketEndpoint::ProcessRequest(CHTTPRequest &request,
                                                                        int connectionID)
{
    (void)connectionID;
    KZF::tstring key;
    KZF::CRefCountPtr<CHTTPResponse> refusal = CheckUpgrade(request, key);
    if (!refusal.IsNull())
        return refusal;
    return Upgrade(request, key, m_handler, m_limits);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPWebSocketEndpoint::GetAdditionalResponseData(int connectionID)
{
    (void)connectionID;
    return KZF::CRefCountPtr<CHTTPResponse>();
}

} // namespace NVQ
