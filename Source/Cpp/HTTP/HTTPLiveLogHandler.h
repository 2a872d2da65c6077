#ifndef NVQ_HTTP_HTTPLIVELOGHANDLER_H
#define NVQ_HTTP_HTTPLIVELOGHANDLER_H

#include "HTTP/IHTTPRequestHandler.h"
#include "HTTP/IWebSocketHandler.h"
#include "HTTP/WebSocketSession.h"
#include "KZF_Base/Linux/RefCount.h"
#include "KZF_Utilities/Linux/Logger.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace NVQ
{

// Streams the process logger's messages to subscribed clients as they are
// logged: over WebSocket, or as Server-Sent Events (text/event-stream) for
// a request that accepts them. A new subscriber first gets the recent
// messages still in the ring, oldest first.
//
// Every message is one JSON object, a WebSocket text message or the data of
// one event (whose id is the message's id):
//   {"id":N,"level":L,"time":"YYYY-MM-DDTHH:MM:SS","text":"<logger line>"}
// A subscriber that falls more than the ring behind loses the oldest
// messages and is told how many, in order, before the next one it gets:
//   {"lost":N}            (an event named "lost" over SSE)
// Logging never waits for a subscriber.
//
// Query parameters: level=N sends only messages of level N and below (every
// level by default); since=ID starts after message ID (SSE: Last-Event-ID
// does the same, so a reconnecting EventSource resumes where it stopped).
//
// Constructing the handler attaches it to the logger; destroying it
// detaches it. Stop the server before destroying it.
class CHTTPLiveLogHandler : public IHTTPRequestHandler,
                            public KZF::ILogOutputDevice,
                            private IWebSocketHandler
{
  public:
    // The ring: what a new subscriber gets and how far one may fall behind.
    static constexpr size_t c_defaultCapacity = 1000;

    explicit CHTTPLiveLogHandler(const KZF::tstring &path = "/log/live", size_t capacity = c_defaultCapacity);
    ~CHTTPLiveLogHandler() override;

    bool CanProcessUri(const KZF::tstring &uri) override;
    KZF::CRefCountPtr<CHTTPResponse> ProcessRequest(CHTTPRequest &request, int connectionID) override;
    KZF::CRefCountPtr<CHTTPResponse> GetAdditionalResponseData(int connectionID) override;
    bool InterruptProcessing() override { return true; }

    bool Init() override { return true; }
    void Terminate() override {}
    void Log(const char *text, unsigned int level, const KZF::CLogger::SLogMessage &message) override;

    // One client's place in the ring. Public for the connection types in
    // the .cpp; its owner unsubscribes it before it goes.
    class CSubscriber
    {
      public:
        CSubscriber(uint64_t next, int maxLevel) : m_next(next), m_maxLevel(maxLevel), m_wakePending(false) {}
        virtual ~CSubscriber() {}
        // Asks for a Pull on the subscriber's own thread. Must not log.
        virtual void Wake() = 0;
        // Hands one piece to the client; false stops the pull. lost: a
        // notice instead of a message.
        virtual bool Deliver(uint64_t id, const std::string &json, bool lost) = 0;
        // True while the client has room for more now.
        virtual bool HasRoom() = 0;

        uint64_t m_next; // the subscriber's thread only
        const int m_maxLevel;
        std::atomic<bool> m_wakePending;
    };

    // Sends what the subscriber has not had yet, within its room; asks to be
    // woken again when it stopped for room. On the subscriber's thread.
    void Pull(CSubscriber &subscriber);
    void Subscribe(CSubscriber &subscriber);
    void Unsubscribe(CSubscriber &subscriber);

  private:
    CHTTPLiveLogHandler(const CHTTPLiveLogHandler &) = delete;
    CHTTPLiveLogHandler &operator=(const CHTTPLiveLogHandler &) = delete;

    struct SEntry {
        uint64_t m_id;
        int m_level;
        std::string m_json;
    };

    // The id a subscriber starts from: after `since` when given, else the
    // oldest in the ring.
    uint64_t StartId(const CHTTPRequest &request, const char *resumeField);

    // IWebSocketHandler
    bool AcceptUpgrade(SUpgrade &upgrade) override;
    void OnOpen(CWebSocketSession &session) override;
    void OnMessage(CWebSocketSession &session, bool isText, const unsigned char *data, size_t size) override;
    void OnClosed(CWebSocketSession &session, int code) override;
    void OnWritable(CWebSocketSession &session) override;

    const KZF::tstring m_path;
    std::mutex m_ringLock; // guards the ring and m_nextId
    std::vector<SEntry> m_ring;
    uint64_t m_nextId;
    std::mutex m_subscribersLock;
    std::vector<CSubscriber *> m_subscribers;
    bool m_attached;
};

} // namespace NVQ

#endif
