#ifndef NVQ_HTTP_HTTPLOGHANDLER_H
#define NVQ_HTTP_HTTPLOGHANDLER_H

#include "HTTP/IHTTPExchangeEndNotification.h"
#include "HTTP/IHTTPRequestHandler.h"
#include "HTTP/KeyValueMap.h"
#include "KZF_Base/Linux/CriticalSection.h"
#include "KZF_Utilities/Linux/CircularBuffer.h"
#include "KZF_Utilities/Linux/Logger.h"

#include <cstddef>
#include <ctime>
#include <map>
#include <string>

namespace NVQ
{

// Keeps the most recent 1000 messages of the process logger, each with the
// time it arrived, and serves them as plain text on URIs that begin with
// "/proxy/log".
//
// Constructing the handler attaches it to the logger; destroying it detaches
// it. Register it with the server like any other handler; it must outlive
// its registration.
//
// Query parameters (GET only; other methods get the 404 answer):
//   from=T   entries captured at or after T
//   to=T     stop at the first entry captured after T
//   index=N  skip the first N entries that pass the time filters
//   count=N  at most N lines; alone, the N newest entries
// T is HH:MM:SS (today) or YYYY-MM-DDTHH:MM:SS, local time. An invalid value
// gets a 400 page naming the first bad parameter in the order count, from,
// index, to. Each line is "YYYY-MM-DDTHH:MM:SS - <message>\n", oldest first.
// The answer is a snapshot taken when the request arrives, sent in pieces of
// 8194 bytes.
class CHTTPLogHandler : public IHTTPRequestHandler,
                        public KZF::ILogOutputDevice,
                        public IHTTPExchangeEndNotification
{
  public:
    struct SLogEntry {
        time_t m_time;      // when the message arrived
        std::string m_text; // the logger's line, in UTF-8
    };

    // One answer still being sent.
    struct SRequestData {
        std::string m_data; // the whole answer text
        size_t m_offset;    // bytes of m_data already handed out
    };

    // Messages kept; older ones are pushed out.
    static constexpr long c_maxEntries = 1000;

    CHTTPLogHandler();
    ~CHTTPLogHandler() override;

    // Off by default (the page shows the value as received). On, the value
    // an invalid parameter had is shown with & < > " ' as HTML character
    // references (the page is still cut at 2047 bytes) and the page is
    // declared text/html: a value cannot bring markup into the device's
    // origin. Servers in strict mode turn it on. Before serving starts.
    void SetEscapeMarkup(bool escape) { m_escapeMarkup = escape; }

    bool CanProcessUri(const KZF::tstring &uri) override;
    KZF::CRefCountPtr<CHTTPResponse> ProcessRequest(CHTTPRequest &request, int connectionID) override;
    KZF::CRefCountPtr<CHTTPResponse> GetAdditionalResponseData(int connectionID) override;
    // A connection closed: its answer is dropped by OnExchangeEnded; the
    // answers of other connections go on.
    bool InterruptProcessing() override;

    // Both empty the ring.
    bool Init() override;
    void Terminate() override;
    // Captures the text with the current time; level and record are ignored.
    void Log(const char *text, unsigned int level, const KZF::CLogger::SLogMessage &message) override;

    // Drops what is left of the connection's answer, if anything.
    void OnExchangeEnded(int connectionID) override;

  private:
    CHTTPLogHandler(const CHTTPLogHandler &) = delete;
    CHTTPLogHandler &operator=(const CHTTPLogHandler &) = delete;

    bool HandleRequest(const CKeyValueMap &params, SRequestData &requestData, std::string &errorMessage);
    // A parameter's value as the 400 page shows it.
    std::string Shown(const KZF::tstring &value) const;
    // The callers of these hold m_lock.
    void AddRequest(int connectionID, SRequestData &&requestData);
    void RemoveRequest(int connectionID);
    KZF::CRefCountPtr<CHTTPResponse> ProcessRequestData(int connectionID, bool isFirstPiece);

    KZF::CCriticalSection m_lock; // guards m_logBuffer and m_connDataMap
    KZF::CCircularBuffer<SLogEntry, KZF::CStaticAllocator<SLogEntry, c_maxEntries>> m_logBuffer;
    std::map<int, SRequestData> m_connDataMap;
    bool m_escapeMarkup;
};

} // namespace NVQ

#endif
