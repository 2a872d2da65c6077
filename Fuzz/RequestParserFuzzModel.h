#ifndef NVQ_FUZZ_REQUESTPARSERFUZZMODEL_H
#define NVQ_FUZZ_REQUESTPARSERFUZZMODEL_H

#include "FuzzTargets.h"

#include "HTTP/HTTPRequestParser.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <map>
#include <string>

// The request parser fuzzer's yardstick: what a parsed request says, and a
// plain byte-by-byte model of the parser's state machine to compare with.

namespace NVQ
{
namespace fuzz
{

struct SSnapshot {
    std::string method;
    std::string uri;
    std::map<std::string, std::string> headers;
    std::map<std::string, std::string> params;
    long bodySize = 0;
    bool hasBody = false;
    std::string body;
    int version = 0;
    bool chunked = false;
};

inline SSnapshot Snapshot(const CHTTPRequestParser &parser)
{
    SSnapshot s;
    KZF::CRefCountPtr<NVQ::CHTTPRequest> request = parser.GetRequest();
    NVQ_FUZZ_CHECK(!request.IsNull());
    s.method = request->GetMethod();
    s.uri = request->GetUri();
    s.headers = request->GetHeaderFields();
    s.params = request->GetRequestParams();
    s.bodySize = request->GetBodySize();
    s.hasBody = request->GetBody() != nullptr;
    if (s.hasBody && s.bodySize > 0)
        s.body.assign(reinterpret_cast<const char *>(request->GetBody()), static_cast<size_t>(s.bodySize));
    s.version = request->GetHTTPVersion();
    s.chunked = request->IsChunked();
    return s;
}

inline bool SameRequest(const SSnapshot &a, const SSnapshot &b)
{
    return a.method == b.method && a.uri == b.uri && a.headers == b.headers && a.params == b.params &&
           a.bodySize == b.bodySize && a.hasBody == b.hasBody && a.body == b.body && a.version == b.version &&
           a.chunked == b.chunked;
}

// The state machine exactly as written in its tables, one byte per step, with
// no shortcuts. Parameters are left out: they follow from the URI.
struct SModel {
    int position = 0;
    int state = 2;
    std::string token;
    std::string value;
    int bodyStart = 0;
    int lastError = 0;
    int errorPosition = 0;
    SSnapshot request;

    int Parse(const uint8_t *buffer, int length, int &consumed)
    {
        if (state == 0)
            return 2;
        int i = position;
        for (; i < length && state != 0 && state != 1; ++i)
            Step(buffer, i);
        position = i;
        consumed = i;
        if (state == 0) {
            errorPosition = i;
            return 2;
        }
        if (state == 16 && bodyStart == position && request.bodySize == 0) {
            state = 1;
            return 0;
        }
        return state == 1 ? 0 : 1;
    }

    void Step(const uint8_t *buffer, int i)
    {
        const char c = static_cast<char>(buffer[i]);
        if (state >= 2 && state <= 7)
            LineStep(c);
        else if (state >= 8 && state <= 14)
            HeaderStep(c);
        else if (state == 15) {
            if (c == '\n') {
                bodyStart = i + 1;
                state = 16;
            } else {
                lastError = 3;
                state = 0;
            }
        } else if (state == 16 && static_cast<long>(i) + 1 - bodyStart >= request.bodySize) {
            request.body.assign(reinterpret_cast<const char *>(buffer) + bodyStart,
                                static_cast<size_t>(request.bodySize));
            request.hasBody = true;
            state = 1;
        }
    }

    void LineStep(char c)
    {
        const bool sp = c == ' ';
        switch (state) {
        case 2:
            if (!sp) {
                token = std::string(1, c);
                state = 3;
            }
            break;
        case 3:
            if (sp) {
                request.method = token;
                token.clear();
                state = 4;
            } else
                token += c;
            break;
        case 4:
            if (!sp) {
                token += c;
                state = 5;
            }
            break;
        case 5:
            if (sp) {
                request.uri = token;
                token.clear();
                state = 6;
            } else
                token += c;
            break;
        case 6:
            if (!sp) {
                token += c;
                state = 7;
            }
            break;
        case 7:
            if (c == '\n') {
                token.clear();
                state = 8;
            } else if (c != '\r')
                token += c;
            break;
        }
    }

    void HeaderStep(char c)
    {
        const bool blank = c == ' ' || c == '\r' || c == '\n';
        switch (state) {
        case 8:
            if (!blank) {
                token = std::string(1, c);
                state = 9;
            }
            break;
        case 9:
            if (c == ':')
                state = 11;
            else if (blank)
                state = 10;
            else
                token += c;
            break;
        case 10:
            if (blank || c == ':') {
                value.clear();
                state = 11;
            } else {
                lastError = 2;
                state = 0;
            }
            break;
        case 11:
            if (!blank) {
                value = std::string(1, c);
                state = 12;
            }
            break;
        case 12:
            if (c == '\r' || c == '\n') {
                if (token == "Content-Length") {
                    const long size = _atoi(value.c_str());
                    request.bodySize = size < 0 ? 0 : size;
                } else {
                    std::string name = token;
                    for (char &ch : name)
                        if (ch >= 'A' && ch <= 'Z')
                            ch = static_cast<char>(ch - 'A' + 'a');
                    request.headers[name] = value;
                }
                token.clear();
                value.clear();
                state = 8;
            } else
                value += c;
            break;
        case 13:
            if (c == '\n')
                state = 14;
            break;
        case 14:
            if (c == '\r')
                state = 15;
            else if (c == ' ' || c == '\n')
                state = 8;
            else {
                token = std::string(1, c);
                state = 9;
            }
            break;
        }
        if (c == '\r' && state >= 8 && state <= 14)
            state = 13;
    }
};

} // namespace fuzz
} // namespace NVQ

#endif
