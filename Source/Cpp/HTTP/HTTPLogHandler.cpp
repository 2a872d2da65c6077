#include "HTTP/HTTPLogHandler.h"

#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/KzfTime.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace NVQ
{

namespace
{

const KZF::tstring s_logHandlerUri("/proxy/log");

// Clients match this page byte for byte, unclosed head and all.
const char s_badRequestPageFormat[] =
    "<!DOCTYPE html><html lang=\"en\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
    "charset=UTF-8\"><meta charset=\"utf-8\"><meta name=\"viewport\" content=\"initial-scale=1, "
    "minimum-scale=1, width=device-width\"><title>Error 400 (Bad Request)!!1</title><p><b>400.</b> "
    "<ins>That&apos;s an error.</ins></p><p>%s !</p></body></html>";

// The static file handler sends pieces of the same size.
const size_t c_pieceSize = 8194;
const size_t c_badRequestPageSize = 2048;

const char c_timeFormat[] = "%04d-%02d-%02dT%02d:%02d:%02d";

// "HH:MM:SS" (today) or "YYYY-MM-DDTHH:MM:SS", local time. Fields not given,
// the daylight-saving flag among them, keep the current values, and mktime
// normalises out-of-range ones (25:00:00 is 01:00:00 of the next day).
bool ParseTime(const KZF::tstring &value, time_t *result)
{
    struct tm record = KZF::localtime(KZF::time());
    if (value.size() == 8) {
        if (std::sscanf(value.c_str(), "%02d:%02d:%02d", &record.tm_hour, &record.tm_min, &record.tm_sec) !=
            3)
            return false;
    } else if (value.size() == 19 && value[10] == 'T') {
        if (std::sscanf(value.c_str(), "%4d-%02d-%02dT%02d:%02d:%02d", &record.tm_year, &record.tm_mon,
                        &record.tm_mday, &record.tm_hour, &record.tm_min, &record.tm_sec) != 6)
            return false;
        record.tm_mon -= 1;
        record.tm_year -= 1900;
    } else {
        return false;
    }
    *result = KZF::mktime(record);
    return true;
}

KZF::tstring FormatTime(time_t time)
{
    const struct tm record = KZF::localtime(time);
    char buffer[128];
    std::snprintf(buffer, sizeof(buffer), c_timeFormat, record.tm_year + 1900, record.tm_mon + 1,
                  record.tm_mday, record.tm_hour, record.tm_min, record.tm_sec);
    return buffer;
}

// strtol in base 10 over the whole value; the empty value reads as 0.
bool parseWholeNumber(const KZF::tstring &value, long &number)
{
    const char *begin = value.c_str();
    char *end = nullptr;
    number = std::strtol(begin, &end, 10);
    return end == begin + value.size();
}

// The characters that could start markup or end an attribute, as HTML
// character references.
std::string escapeMarkup(const std::string &text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&#39;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

void appendLine(std::string &text, const CHTTPLogHandler::SLogEntry &entry)
{
    text += FormatTime(entry.m_time);
    text += " - ";
    text += entry.m_text;
    text += '\n';
}

} // namespace

CHTTPLogHandler::CHTTPLogHandler() : m_logBuffer(c_maxEntries), m_escapeMarkup(false)
{
    KZF::CLogger::GetInstance().AddOutputDevice(static_cast<KZF::ILogOutputDevice *>(this));
}

CHTTPLogHandler::~CHTTPLogHandler()
{
    // Waits for deliveries under way: none may reach the ring once it goes.
    KZF::CLogger::GetInstance().RemoveOutputDevice(static_cast<KZF::ILogOutputDevice *>(this));
}

bool CHTTPLogHandler::CanProcessUri(const KZF::tstring &uri)
{
    return uri.compare(0, s_logHandlerUri.size(), s_logHandlerUri) == 0;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPLogHandler::ProcessRequest(CHTTPRequest &request, int connectionID)
{
    if (request.GetMethod() != "GET")
        return KZF::CRefCountPtr<CHTTPResponse>();

    SRequestData requestData;
    std::string errorMessage;
    if (HandleRequest(request.GetRequestParams(), requestData, errorMessage)) {
        KZF::CCriticalSection::CLock lock(m_lock);
        AddRequest(connectionID, std::move(requestData));
        return ProcessRequestData(connectionID, true);
    }

    char page[c_badRequestPageSize];
    std::snprintf(page, sizeof(page), s_badRequestPageFormat,
                  errorMessage.empty() ? "The request format is invalid!" : errorMessage.c_str());
    CHTTPResponse *response = new CHTTPResponse();
    KZF::CRefCountPtr<CHTTPResponse> result(response);
    response->SetCode(400);
    response->SetPhrase("Bad Request");
    if (m_escapeMarkup)
        response->SetContentType("text/html; charset=utf-8");
    response->SetData(reinterpret_cast<const unsigned char *>(page), static_cast<long>(std::strlen(page)));
    response->AddHeaderField("Keep-Alive", "timeout=5, max=100");
    response->SetIsLast(true);
    return result;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPLogHandler::GetAdditionalResponseData(int connectionID)
{
    KZF::CCriticalSection::CLock lock(m_lock);
    return ProcessRequestData(connectionID, false);
}

bool CHTTPLogHandler::InterruptProcessing()
{
    // It does not say which connection closed; the exchange end notice that
    // follows does, and drops that answer alone (a flag here would cut every
    // other client's answer too). No lock: this may run while an exchange of
    // this handler holds it, and the notice comes back through Log.
    KZF::CLogger::GetInstance().LogMessage(8, __FILE__, __LINE__, "InterruptProcessing",
                                           KZF::CLogger::c_noneObjPtr,
                                           "CHTTPLogHandler : received interrupt!\n");
    return true;
}

bool CHTTPLogHandler::Init()
{
    KZF::CCriticalSection::CLock lock(m_lock);
    m_logBuffer.ClearAll();
    return true;
}

void CHTTPLogHandler::Terminate()
{
    KZF::CCriticalSection::CLock lock(m_lock);
    m_logBuffer.ClearAll();
}

void CHTTPLogHandler::Log(const char *text, unsigned int, const KZF::CLogger::SLogMessage &)
{
    // Everything but the append happens before the lock, so loggers on other
    // threads wait only for one entry copy.
    SLogEntry entry;
    entry.m_text = KZF::CSysUtils::TStringToUTF8(KZF::tstring(text != nullptr ? text : ""));
    entry.m_time = KZF::time();
    KZF::CCriticalSection::CLock lock(m_lock);
    m_logBuffer.AddElementAtEnd(entry);
}

void CHTTPLogHandler::OnExchangeEnded(int connectionID)
{
    // An answer cut short would otherwise stay until the handler goes, since
    // connection IDs are never reused.
    KZF::CCriticalSection::CLock lock(m_lock);
    RemoveRequest(connectionID);
}

std::string CHTTPLogHandler::Shown(const KZF::tstring &value) const
{
    const std::string text = KZF::CSysUtils::TStringToAscii(value);
    return m_escapeMarkup ? escapeMarkup(text) : text;
}

bool CHTTPLogHandler::HandleRequest(const CKeyValueMap &params, SRequestData &requestData,
                                    std::string &errorMessage)
{
    errorMessage.clear();
    requestData.m_data.clear();
    requestData.m_offset = 0;

    time_t from = 0;
    time_t to = 0;
    long index = 0;
    long count = 0;
    bool hasFrom = false;
    bool hasTo = false;
    bool hasIndex = false;
    bool hasCount = false;

    // The map iterates in byte order of the keys (count, from, index, to): the
    // first invalid value in that order is the one reported.
    for (const auto &param : params) {
        const KZF::tstring &key = param.first;
        const KZF::tstring &value = param.second;
        if (key == "from") {
            if (!ParseTime(value, &from)) {
                errorMessage = "Invalid 'from' time specified: " + Shown(value);
                return false;
            }
            hasFrom = true;
        } else if (key == "to") {
            if (!ParseTime(value, &to)) {
                errorMessage = "Invalid 'to' time specified: " + Shown(value);
                return false;
            }
            hasTo = true;
        } else if (key == "index") {
            if (!parseWholeNumber(value, index) || index < 0) {
                errorMessage = "Invalid 'index' specified: " + Shown(value);
                return false;
            }
            hasIndex = true;
        } else if (key == "count") {
            if (!parseWholeNumber(value, count) || count < 1) {
                errorMessage = "Invalid 'count' specified: " + Shown(value);
                return false;
            }
            hasCount = true;
        }
    }

    std::string &text = requestData.m_data;
    KZF::CCriticalSection::CLock lock(m_lock);
    const long total = m_logBuffer.GetCount();

    if (hasCount && !hasFrom && !hasTo && !hasIndex) {
        // The newest count entries, oldest first.
        const long first = total - std::min(count, total);
        for (long i = first; i < total; ++i) {
            const SLogEntry *entry = m_logBuffer.GetElement(i);
            KZF_ASSERT(entry);
            if (entry != nullptr)
                appendLine(text, *entry);
        }
        return true;
    }

    long written = 0;
    for (long i = 0; i < total; ++i) {
        const SLogEntry *entry = m_logBuffer.GetElement(i);
        KZF_ASSERT(entry);
        if (entry == nullptr)
            continue;
        // Entries are in arrival order, so the first one after "to" ends the
        // scan (threads may invert neighbours by the time they waited for the
        // lock; those are not looked for).
        if (to > 0 && entry->m_time > to)
            break;
        if (entry->m_time < from)
            continue;
        if (index > 0) {
            --index;
            continue;
        }
        appendLine(text, *entry);
        if (count > 0 && ++written == count)
            break;
    }
    return true;
}

void CHTTPLogHandler::AddRequest(int connectionID, SRequestData &&requestData)
{
    // Moved, not copied: a copy of a long answer would hold up every logging
    // thread for far more than one piece.
    RemoveRequest(connectionID);
    m_connDataMap.emplace(connectionID, std::move(requestData));
}

void CHTTPLogHandler::RemoveRequest(int connectionID)
{
    m_connDataMap.erase(connectionID);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPLogHandler::ProcessRequestData(int connectionID, bool isFirstPiece)
{
    const std::map<int, SRequestData>::iterator it = m_connDataMap.find(connectionID);
    KZF_ASSERT(it != m_connDataMap.end());
    if (it == m_connDataMap.end())
        return KZF::CRefCountPtr<CHTTPResponse>();

    SRequestData &requestData = it->second;
    const size_t length = requestData.m_data.size();
    bool last = false;
    KZF::CRefCountPtr<CHTTPResponse> result;
    // The first piece is produced even for an empty answer: the client gets
    // one complete, empty response.
    if (requestData.m_offset < length || isFirstPiece) {
        CHTTPResponse *response = new CHTTPResponse();
        result = response;
        const size_t piece = std::min(length - requestData.m_offset, c_pieceSize);
        response->SetCode(200);
        response->SetPhrase("OK");
        // A single piece is marked last and gets its length computed when it
        // is written; a stream announces the whole length up front.
        if (isFirstPiece && length > c_pieceSize)
            response->AddHeaderField("Content-Length",
                                     KZF::CSysUtils::Int64ToString(static_cast<int64_t>(length)));
        if (!response->SetData(reinterpret_cast<const unsigned char *>(requestData.m_data.data()) +
                                   requestData.m_offset,
                               static_cast<long>(piece)))
            KZF_ASSERT(false);
        requestData.m_offset += piece;
        last = requestData.m_offset == length;
        response->SetSendOnlyData(!isFirstPiece);
        response->SetIsLast(last);
    } else {
        last = true;
    }
    if (last)
        m_connDataMap.erase(it);
    return result;
}

} // namespace NVQ
