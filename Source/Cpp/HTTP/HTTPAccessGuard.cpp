#include "HTTP/HTTPAccessGuard.h"

#include "HTTP/HTTPHeaderParams.h"
#include "KZF_Utilities/Linux/Hash.h"

#include <new>
#include <time.h>

namespace NVQ
{

namespace
{

const char c_unauthorizedPage[] = "<!DOCTYPE html>\n<html><head><title>401 Unauthorized</title></head>"
                                  "<body><h1>Unauthorized</h1></body></html>\n";
const char c_tooManyPage[] = "<!DOCTYPE html>\n<html><head><title>429 Too Many Requests</title></head>"
                             "<body><h1>Too Many Requests</h1></body></html>\n";
const char c_badRequestPage[] = "<!DOCTYPE html>\n<html><head><title>400 Bad Request</title></head>"
                                "<body><h1>Bad Request</h1></body></html>\n";

KZF::CRefCountPtr<CHTTPResponse> htmlAnswer(int code, const char *phrase, const char *page, size_t size)
{
    CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
    if (response == nullptr)
        return KZF::CRefCountPtr<CHTTPResponse>();
    response->SetCode(code);
    response->SetPhrase(phrase);
    response->SetContentType("text/html");
    response->SetData(reinterpret_cast<const unsigned char *>(page), static_cast<long>(size));
    response->SetIsLast(true);
    return KZF::CRefCountPtr<CHTTPResponse>(response);
}
std::string randomHex()
{
    unsigned char random[16];
    return KZF::RandomBytes(random, sizeof(random)) ? KZF::HexEncode(random, sizeof(random)) : std::string();
}

// "192.0.2.7:51234" -> "192.0.2.7", "[2001:db8::1]:80" -> "2001:db8::1":
// one client's ports all count as that client.
std::string hostOf(const std::string &address)
{
    if (!address.empty() && address[0] == '[')
        return address.substr(1, address.find(']') - 1);
    return address.substr(0, address.rfind(':'));
}

// The scheme token of an Authorization value, compared without case, and
// what follows it.
bool splitScheme(const std::string &value, const char *scheme, std::string &rest)
{
    const size_t end = value.find(' ');
    if (!CHTTPHeaderParams::EqualsNoCase(value.substr(0, end), scheme))
        return false;
    rest = end == std::string::npos ? std::string() : value.substr(end + 1);
    return true;
}

} // namespace

CHTTPAccessGuard::SOptions::SOptions()
    : m_realm("nvq"), m_allowBasic(false), m_allowBasicWithoutTls(false), m_nonceLifetimeSeconds(300),
      m_maxNonces(4096), m_maxFailures(10), m_failureWindowSeconds(60), m_maxClients(1024)
{
}

CHTTPAccessGuard::CHTTPAccessGuard(IHTTPRequestHandler &handler, const SOptions &options)
    : m_handler(handler), m_pBodyHandler(dynamic_cast<IHTTPRequestBodyHandler *>(&handler)),
      m_pEndNotification(dynamic_cast<IHTTPExchangeEndNotification *>(&handler)), m_options(options),
      m_opaque(options.m_opaque.empty() ? randomHex() : options.m_opaque), m_offersSha256(false)
{
}

CHTTPAccessGuard::~CHTTPAccessGuard() {}
int64_t CHTTPAccessGuard::Now() const
{
    if (m_options.m_clock)
        return m_options.m_clock();
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

bool CHTTPAccessGuard::IsGuarded(const KZF::tstring &uri) const
{
    return uri.compare(0, m_options.m_uriPrefix.size(), m_options.m_uriPrefix) == 0;
}

bool CHTTPAccessGuard::IsThrottled(const std::string &address, int64_t now, int64_t &retryAfter)
{
    const auto it = m_clients.find(address);
    if (it == m_clients.end())
        return false;
    retryAfter = it->second.m_windowStart + m_options.m_failureWindowSeconds - now;
    if (retryAfter <= 0) {
        m_clients.erase(it);
        return false;
    }
    return it->second.m_failures >= m_options.m_maxFailures;
}

void CHTTPAccessGuard::CountFailure(const std::string &address, int64_t now)
{
    if (m_clients.size() >= m_options.m_maxClients && m_clients.find(address) == m_clients.end()) {
        // Full: windows that ended go first, else the oldest window. An
        // attacker cycling addresses can only push out other attackers'
        // counts as fast as its own.
        auto oldest = m_clients.begin();
        for (auto it = m_clients.begin(); it != m_clients.end();) {
            if (now - it->second.m_windowStart >= m_options.m_failureWindowSeconds) {
                it = m_clients.erase(it);
                continue;
            }
            if (it->second.m_windowStart < oldest->second.m_windowStart)
                oldest = it;
            ++it;
        }
        if (m_clients.size() >= m_options.m_maxClients)
            m_clients.erase(oldest);
    }
    SClient &client = m_clients.emplace(address, SClient{now, 0}).first->second;
    ++client.m_failures;
}

std::string CHTTPAccessGuard::NewNonce()
{
    const std::string nonce = m_options.m_newNonce ? m_options.m_newNonce() : randomHex();
    const int64_t now = Now();
    KZF::CCriticalSection::CLock lock(m_lock);
    while (!m_nonceOrder.empty()) {
        const auto it = m_nonces.find(m_nonceOrder.front());
        const bool expired =
            it == m_nonces.end() || now - it->second.m_issued > m_options.m_nonceLifetimeSeconds;
        if (!expired && m_nonceOrder.size() < m_options.m_maxNonces)
            break;
        if (it != m_nonces.end())
            m_nonces.erase(it);
        m_nonceOrder.pop_front();
    }
    if (m_nonces.emplace(nonce, SNonce{now, 0, 0}).second)
        m_nonceOrder.push_back(nonce);
    return nonce;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPAccessGuard::Challenge(bool secure, bool stale)
{
    KZF::CRefCountPtr<CHTTPResponse> answer =
        htmlAnswer(401, "Unauthorized", c_unauthorizedPage, sizeof(c_unauthorizedPage) - 1);
    if (answer.IsNull())
        return answer;
    const std::string realm = CHTTPHeaderParams::Quote(m_options.m_realm);
    const std::string rest =
        ", nonce=\"" + NewNonce() + "\", opaque=\"" + m_opaque + "\"" + (stale ? ", stale=true" : "");
    bool sha256 = false;
    {
        KZF::CCriticalSection::CLock lock(m_lock);
        sha256 = m_offersSha256;
    }
    // One line per challenge, preferred first: the names differ in case
    // only, and lines go out in byte order of their names.
    if (sha256)
        answer->AddHeaderField("WWW-Authenticate",
                               "Digest realm=" + realm + ", qop=\"auth\", algorithm=SHA-256" + rest);
    answer->AddHeaderField(sha256 ? "WWW-authenticate" : "WWW-Authenticate",
                           "Digest realm=" + realm + ", qop=\"auth\", algorithm=MD5" + rest);
    if (m_options.m_allowBasic && (secure || m_options.m_allowBasicWithoutTls))
        answer->AddHeaderField("Www-Authenticate", "Basic realm=" + realm + ", charset=\"UTF-8\"");
    return answer;
}
KZF::CRefCountPtr<CHTTPResponse> CHTTPAccessGuard::Check(CHTTPRequest &request)
{
    if (!IsGuarded(request.GetUri()))
        return KZF::CRefCountPtr<CHTTPResponse>();
    const std::string address = hostOf(request.GetRemoteAddress());
    const int64_t now = Now();
    int64_t retryAfter = 0;
    {
        KZF::CCriticalSection::CLock lock(m_lock);
        if (IsThrottled(address, now, retryAfter)) {
            KZF::CRefCountPtr<CHTTPResponse> answer =
                htmlAnswer(429, "Too Many Requests", c_tooManyPage, sizeof(c_tooManyPage) - 1);
            if (!answer.IsNull())
                answer->AddHeaderField("Retry-After", std::to_string(retryAfter));
            return answer;
        }
    }
    KZF::tstring value;
    EVerdict verdict = eVerdictMissing;
    std::string rest;
    if (request.GetHeaderFieldValueByName("authorization", value)) {
        if (splitScheme(value, "Digest", rest))
            verdict = CheckDigest(request, rest);
        else if (splitScheme(value, "Basic", rest))
            verdict = CheckBasic(request, rest);
        else
            verdict = eVerdictDenied;
    }
    if (verdict == eVerdictGranted) {
        // The owner's success forgives that address its mistakes.
        KZF::CCriticalSection::CLock lock(m_lock);
        m_clients.erase(address);
        return KZF::CRefCountPtr<CHTTPResponse>();
    }
    if (verdict == eVerdictMalformed || verdict == eVerdictDenied) {
        KZF::CCriticalSection::CLock lock(m_lock);
        CountFailure(address, now);
    }
    if (verdict == eVerdictMalformed)
        return htmlAnswer(400, "Bad Request", c_badRequestPage, sizeof(c_badRequestPage) - 1);
    return Challenge(request.IsSecure(), verdict == eVerdictStale);
}

bool CHTTPAccessGuard::CanProcessUri(const KZF::tstring &uri)
{
    return m_handler.CanProcessUri(uri);
}

IHTTPRequestBodyHandler::SBodyDecision CHTTPAccessGuard::OnRequestHeaders(CHTTPRequest &request,
                                                                          int connectionID)
{
    SBodyDecision decision;
    KZF::CRefCountPtr<CHTTPResponse> refusal = Check(request);
    if (!refusal.IsNull()) {
        decision.m_choice = eAnswerNow;
        decision.m_answer = refusal;
        return decision;
    }
    if (m_pBodyHandler != nullptr)
        decision = m_pBodyHandler->OnRequestHeaders(request, connectionID);
    // ProcessRequest follows unless the handler answers at once; it must
    // not check again, as the nonce count is spent.
    if (decision.m_choice != eAnswerNow && IsGuarded(request.GetUri())) {
        KZF::CCriticalSection::CLock lock(m_lock);
        m_exchanges[connectionID] = eExchangeAuthorised;
    }
    return decision;
}

bool CHTTPAccessGuard::OnRequestBodyData(const unsigned char *data, size_t size, int connectionID)
{
    if (m_pBodyHandler == nullptr || m_pBodyHandler->OnRequestBodyData(data, size, connectionID))
        return true;
    KZF::CCriticalSection::CLock lock(m_lock);
    const auto it = m_exchanges.find(connectionID);
    if (it != m_exchanges.end())
        it->second = eExchangeBodyRefused;
    return false;
}

void CHTTPAccessGuard::OnRequestBodyEnd(bool complete, int connectionID)
{
    if (m_pBodyHandler != nullptr)
        m_pBodyHandler->OnRequestBodyEnd(complete, connectionID);
    if (complete)
        return;
    // Cut short by the connection, no ProcessRequest follows; after a
    // refusal of the handler's own, one does.
    KZF::CCriticalSection::CLock lock(m_lock);
    const auto it = m_exchanges.find(connectionID);
    if (it != m_exchanges.end() && it->second == eExchangeAuthorised)
        m_exchanges.erase(it);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPAccessGuard::ProcessRequest(CHTTPRequest &request, int connectionID)
{
    bool checked = false;
    {
        KZF::CCriticalSection::CLock lock(m_lock);
        const auto it = m_exchanges.find(connectionID);
        checked = it != m_exchanges.end();
    }
    if (!checked) {
        KZF::CRefCountPtr<CHTTPResponse> refusal = Check(request);
        if (!refusal.IsNull())
            return refusal;
    }
    {
        KZF::CCriticalSection::CLock lock(m_lock);
        m_exchanges[connectionID] = eExchangeDelegated;
    }
    return m_handler.ProcessRequest(request, connectionID);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPAccessGuard::GetAdditionalResponseData(int connectionID)
{
    return m_handler.GetAdditionalResponseData(connectionID);
}

bool CHTTPAccessGuard::InterruptProcessing()
{
    return m_handler.InterruptProcessing();
}

void CHTTPAccessGuard::OnExchangeEnded(int connectionID)
{
    bool delegated = false;
    {
        KZF::CCriticalSection::CLock lock(m_lock);
        const auto it = m_exchanges.find(connectionID);
        if (it != m_exchanges.end()) {
            delegated = it->second == eExchangeDelegated;
            m_exchanges.erase(it);
        }
    }
    if (delegated && m_pEndNotification != nullptr)
        m_pEndNotification->OnExchangeEnded(connectionID);
}

} // namespace NVQ
