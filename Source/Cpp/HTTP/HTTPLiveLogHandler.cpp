#include "HTTP/HTTPLiveLogHandler.h"

#include "HTTP/HTTPWebSocketEndpoint.h"
#include "HTTP/IHTTPConnectionTaker.h"
#include "HTTP/Utf8Validator.h"
#include "KZF_Utilities/Linux/KzfTime.h"
#include "NVQCommon/Linux/INVQNotification.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace NVQ
{

namespace
{

// A subscriber stops pulling while this much waits for its client, and goes
// on when it has gone to the kernel.
constexpr size_t c_room = 64 * 1024;
// Entries taken from the ring under its lock at a time, and batches per
// wake-up: one busy subscriber cannot hold its loop or the loggers.
constexpr size_t c_batch = 64;
constexpr int c_rounds = 4;

// The logger's line as a JSON string. Text that is not UTF-8 has its
// non-ASCII bytes replaced: a WebSocket text message must be UTF-8.
void appendJsonString(std::string &out, const char *text)
{
    const size_t size = std::strlen(text);
    const bool utf8 = CUtf8Validator::IsValid(text, size);
    out += '"';
    for (size_t i = 0; i < size; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", c);
            out += escape;
        } else {
            out += c >= 0x80 && !utf8 ? '?' : static_cast<char>(c);
        }
    }
    out += '"';
}

int readLevel(const CHTTPRequest &request)
{
    KZF::tstring value;
    if (!request.GetRequestParamByName("level", value) || value.empty())
        return INT_MAX;
    return std::atoi(value.c_str());
}

// The WebSocket side: the session's context.
class CWebSocketSubscriber : public KZF::CRefCount_Base, public CHTTPLiveLogHandler::CSubscriber
{
  public:
    CWebSocketSubscriber(uint64_t next, int maxLevel) : CSubscriber(next, maxLevel), m_pSession(nullptr) {}

    void Wake() override { m_pSession->RequestWritable(); }
    bool Deliver(uint64_t, const std::string &json, bool) override
    {
        return m_pSession->SendText(json.data(), json.size());
    }
    bool HasRoom() override { return m_pSession->GetPendingOutput() < c_room; }

    // Set before it subscribes; the session outlives the subscription.
    CWebSocketSession *m_pSession;
};

// The Server-Sent Events side: takes the connection after the 200 answer and
// writes events until the client goes.
class CEventStream : public IHTTPConnectionTaker,
                     public INVQDataLayerNotification,
                     public CHTTPLiveLogHandler::CSubscriber
{
  public:
    CEventStream(CHTTPLiveLogHandler &handler, uint64_t next, int maxLevel)
        : CSubscriber(next, maxLevel), m_handler(handler), m_pConnection(nullptr), m_finished(false)
    {
    }
    ~CEventStream() override
    {
        if (m_pConnection != nullptr)
            m_pConnection->ReleaseRef();
    }

    void TakeConnection(INVQDataLayer &connection, const unsigned char *, size_t, int) override
    {
        const KZF::CRefCountPtr<CEventStream> self(this);
        connection.AddRef();
        m_pConnection = &connection;
        AddRef(); // the registration's hold, dropped by Finish
        connection.RegisterNotification(*this);
        connection.SetLongLived();
        m_handler.Subscribe(*this);
        m_handler.Pull(*this);
    }
    void OnDataReceived(INVQDataLayer &connection) override
    {
        // A client of a stream has nothing to say: read and drop.
        unsigned char scratch[512];
        while (connection.ReadData(scratch, sizeof(scratch)) > 0) {
        }
    }
    void OnDataSent(INVQDataLayer &) override
    {
        const KZF::CRefCountPtr<CEventStream> self(this);
        if (!m_finished)
            m_handler.Pull(*this);
    }
    void OnConnectionClosed(INVQDataLayer &) override
    {
        const KZF::CRefCountPtr<CEventStream> self(this);
        Finish();
    }
    bool OnIdle(INVQDataLayer &connection) override
    {
        // A comment line keeps front servers from closing a quiet stream.
        static const char c_keepAlive[] = ":\n\n";
        return connection.SendData(c_keepAlive, sizeof(c_keepAlive) - 1) >= 0;
    }

    void Wake() override { m_pConnection->NotifyWhenWritable(); }
    bool Deliver(uint64_t id, const std::string &json, bool lost) override
    {
        std::string event;
        event.reserve(json.size() + 40);
        if (lost) {
            event += "event: lost\n";
        } else {
            char line[40];
            std::snprintf(line, sizeof(line), "id: %llu\n", static_cast<unsigned long long>(id));
            event += line;
        }
        event += "data: ";
        event += json;
        event += "\n\n";
        if (m_pConnection->SendData(event.data(), static_cast<int>(event.size())) >= 0)
            return true;
        Finish();
        return false;
    }
    bool HasRoom() override { return m_pConnection->GetPendingOutput() < c_room; }

  private:
    void Finish()
    {
        if (m_finished)
            return;
        m_finished = true;
        m_handler.Unsubscribe(*this);
        m_pConnection->UnregisterNotification(*this);
        m_pConnection->Close();
        ReleaseRef(); // the caller holds a reference of its own
    }

    CHTTPLiveLogHandler &m_handler;
    INVQDataLayer *m_pConnection;
    bool m_finished; // the connection's thread only
};

} // namespace

CHTTPLiveLogHandler::CHTTPLiveLogHandler(const KZF::tstring &path, size_t capacity)
    : m_path(path), m_ring(capacity > 0 ? capacity : 1), m_nextId(1), m_attached(false)
{
    m_attached = KZF::CLogger::GetInstance().AddOutputDevice(this);
}

CHTTPLiveLogHandler::~CHTTPLiveLogHandler()
{
    if (m_attached)
        KZF::CLogger::GetInstance().RemoveOutputDevice(this);
}

bool CHTTPLiveLogHandler::CanProcessUri(const KZF::tstring &uri)
{
    return uri.compare(0, m_path.size(), m_path) == 0 &&
           (uri.size() == m_path.size() || uri[m_path.size()] == '?');
}

void CHTTPLiveLogHandler::Log(const char *text, unsigned int level, const KZF::CLogger::SLogMessage &message)
{
    // Formatted once, here, on the logging thread; subscribers copy it.
    const struct tm local = KZF::localtime(message.m_time.tv_sec);
    char head[96];
    std::string json;
    json.reserve(std::strlen(text) + 96);
    {
        std::lock_guard<std::mutex> lock(m_ringLock);
        const uint64_t id = m_nextId++;
        std::snprintf(head, sizeof(head),
                      "{\"id\":%llu,\"level\":%u,\"time\":\"%04d-%02d-%02dT%02d:%02d:%02d\",\"text\":",
                      static_cast<unsigned long long>(id), level, local.tm_year + 1900, local.tm_mon + 1,
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
        json += head;
        appendJsonString(json, text);
        json += '}';
        SEntry &entry = m_ring[(id - 1) % m_ring.size()];
        entry.m_id = id;
        entry.m_level = static_cast<int>(level > INT_MAX ? INT_MAX : level);
        entry.m_json.swap(json);
    }
    // Each subscriber is woken once until it has pulled: a burst of messages
    // costs one wake-up per subscriber, and none waits for a client.
    std::lock_guard<std::mutex> lock(m_subscribersLock);
    for (CSubscriber *subscriber : m_subscribers) {
        if (static_cast<int>(level) <= subscriber->m_maxLevel && !subscriber->m_wakePending.exchange(true))
            subscriber->Wake();
    }
}

void CHTTPLiveLogHandler::Subscribe(CSubscriber &subscriber)
{
    std::lock_guard<std::mutex> lock(m_subscribersLock);
    m_subscribers.push_back(&subscriber);
}

void CHTTPLiveLogHandler::Unsubscribe(CSubscriber &subscriber)
{
    std::lock_guard<std::mutex> lock(m_subscribersLock);
    m_subscribers.erase(std::remove(m_subscribers.begin(), m_subscribers.end(), &subscriber),
                        m_subscribers.end());
}

void CHTTPLiveLogHandler::Pull(CSubscriber &subscriber)
{
    // Cleared first: a message logged from here on wakes the subscriber again.
    subscriber.m_wakePending = false;
    std::vector<std::pair<uint64_t, std::string>> batch;
    for (int round = 0; round < c_rounds; ++round) {
        if (!subscriber.HasRoom())
            break;
        uint64_t lost = 0;
        batch.clear();
        {
            std::lock_guard<std::mutex> lock(m_ringLock);
            const uint64_t oldest = m_nextId > m_ring.size() ? m_nextId - m_ring.size() : 1;
            if (subscriber.m_next < oldest) {
                lost = oldest - subscriber.m_next;
                subscriber.m_next = oldest;
            }
            while (subscriber.m_next < m_nextId && batch.size() < c_batch) {
                const SEntry &entry = m_ring[(subscriber.m_next - 1) % m_ring.size()];
                ++subscriber.m_next;
                if (entry.m_level <= subscriber.m_maxLevel)
                    batch.emplace_back(entry.m_id, entry.m_json);
            }
        }
        if (lost > 0) {
            char notice[48];
            std::snprintf(notice, sizeof(notice), "{\"lost\":%llu}", static_cast<unsigned long long>(lost));
            if (!subscriber.Deliver(0, notice, true))
                return;
        }
        for (const auto &item : batch) {
            if (!subscriber.Deliver(item.first, item.second, false))
                return;
        }
        if (lost == 0 && batch.size() < c_batch) {
            // Caught up, unless the batch ended on filtered entries.
            std::lock_guard<std::mutex> lock(m_ringLock);
            if (subscriber.m_next >= m_nextId)
                return;
        }
    }
    // More waits, or the client needs to catch up first: go on once what was
    // written has reached the kernel.
    subscriber.m_wakePending = true;
    subscriber.Wake();
}

uint64_t CHTTPLiveLogHandler::StartId(const CHTTPRequest &request, const char *resumeField)
{
    KZF::tstring value;
    bool resume = request.GetRequestParamByName("since", value);
    if (!resume && resumeField != nullptr)
        resume = request.GetHeaderFieldValueByName(resumeField, value);
    std::lock_guard<std::mutex> lock(m_ringLock);
    const uint64_t oldest = m_nextId > m_ring.size() ? m_nextId - m_ring.size() : 1;
    if (!resume || value.empty())
        return oldest;
    const unsigned long long since = std::strtoull(value.c_str(), nullptr, 10);
    return since >= m_nextId ? m_nextId : since + 1;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPLiveLogHandler::ProcessRequest(CHTTPRequest &request, int connectionID)
{
    (void)connectionID;
    KZF::tstring accept;
    request.GetHeaderFieldValueByName("accept", accept);
    if (!request.HasHeaderToken("upgrade", "websocket") &&
        accept.find("text/event-stream") != KZF::tstring::npos && request.GetMethod() == "GET") {
        KZF::CRefCountPtr<CHTTPResponse> response(new CHTTPResponse());
        response->SetCode(200);
        response->SetPhrase("OK");
        response->SetContentType("text/event-stream");
        response->AddHeaderField("Cache-Control", "no-cache");
        response->SetIsLast(false);
        response->SetConnectionTaker(
            new CEventStream(*this, StartId(request, "last-event-id"), readLevel(request)));
        return response;
    }
    KZF::tstring key;
    KZF::CRefCountPtr<CHTTPResponse> refusal = CHTTPWebSocketEndpoint::CheckUpgrade(request, key);
    if (!refusal.IsNull())
        return refusal;
    return CHTTPWebSocketEndpoint::Upgrade(request, key, *this, CWebSocketSession::SLimits());
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPLiveLogHandler::GetAdditionalResponseData(int connectionID)
{
    (void)connectionID;
    return KZF::CRefCountPtr<CHTTPResponse>();
}

bool CHTTPLiveLogHandler::AcceptUpgrade(SUpgrade &upgrade)
{
    upgrade.m_context =
        new CWebSocketSubscriber(StartId(*upgrade.m_pRequest, nullptr), readLevel(*upgrade.m_pRequest));
    return true;
}

void CHTTPLiveLogHandler::OnOpen(CWebSocketSession &session)
{
    CWebSocketSubscriber *subscriber = static_cast<CWebSocketSubscriber *>(session.GetContext());
    subscriber->m_pSession = &session;
    Subscribe(*subscriber);
    Pull(*subscriber);
}

void CHTTPLiveLogHandler::OnMessage(CWebSocketSession &, bool, const unsigned char *, size_t) {}

void CHTTPLiveLogHandler::OnClosed(CWebSocketSession &session, int)
{
    Unsubscribe(*static_cast<CWebSocketSubscriber *>(session.GetContext()));
}

void CHTTPLiveLogHandler::OnWritable(CWebSocketSession &session)
{
    Pull(*static_cast<CWebSocketSubscriber *>(session.GetContext()));
}

} // namespace NVQ
