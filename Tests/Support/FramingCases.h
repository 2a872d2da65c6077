#ifndef TESTS_SUPPORT_FRAMINGCASES_H
#define TESTS_SUPPORT_FRAMINGCASES_H

// Request framing cases as wire bytes, with what the lenient reference mode
// and the strict mode answer to each; and the summary of a wire output they
// are compared with. Answers come from a handler that echoes the request.

#include "Support/ScriptedHandler.h"

#include <string>
#include <vector>

namespace NVQTest
{

// Answers "<method> <uri>[ <body>]".
inline KZF::CRefCountPtr<NVQ::CHTTPResponse> echoRequest(NVQ::CHTTPRequest &request, int)
{
    std::string echo = request.GetMethod() + " " + request.GetUri();
    if (request.GetBody() != nullptr && request.GetBodySize() > 0)
        echo += " " + std::string(reinterpret_cast<const char *>(request.GetBody()),
                                  static_cast<size_t>(request.GetBodySize()));
    return makeResponse(200, "OK", echo, true, false);
}

// The wire output in short: each answer as its code and body (a canned page
// as "page"), and "closed" when the server ended the connection.
inline std::string summarize(const std::string &wire, bool closed)
{
    std::string summary;
    size_t pos = 0;
    while (pos + 12 <= wire.size()) {
        const size_t head = wire.find("\r\n\r\n", pos);
        const size_t next = wire.find("HTTP/1.1 ", head == std::string::npos ? wire.size() : head);
        std::string body = head == std::string::npos ? "cut" : wire.substr(head + 4, next - head - 4);
        if (body.compare(0, 9, "<!DOCTYPE") == 0)
            body = "page";
        summary += wire.substr(pos + 9, 3) + (body.empty() ? "" : " " + body) + "; ";
        pos = next == std::string::npos ? wire.size() : next;
    }
    return summary + (closed ? "closed" : "");
}

struct SFraming {
    const char *name;
    std::string bytes;
    const char *reference;
    const char *strict;
};

inline const std::string c_host = "Host: a\r\n";
inline const std::string c_post = "POST /a HTTP/1.1\r\n" + c_host;
inline const std::string c_chunked = "Transfer-Encoding: chunked\r\n";

inline const std::vector<SFraming> c_framings = {
    {"plain", "GET /a HTTP/1.1\r\n" + c_host + "\r\n", "200 GET /a; ", "200 GET /a; "},
    {"length", c_post + "Content-Length: 3\r\n\r\nxyz", "200 POST /a xyz; ", "200 POST /a xyz; "},
    {"length +5", c_post + "Content-Length: +5\r\n\r\nhello", "200 POST /a hello; ", "400 page; closed"},
    {"length 35abc", c_post + "Content-Length: 35abc\r\n\r\nxyz", "", "400 page; closed"},
    {"length -1", c_post + "Content-Length: -1\r\n\r\nxyz", "200 POST /a; ", "400 page; closed"},
    {"length 0x23", c_post + "Content-Length: 0x23\r\n\r\nxyz", "200 POST /a; ", "400 page; closed"},
    {"two lengths", c_post + "Content-Length: 3\r\nContent-Length: 5\r\n\r\nhello", "200 POST /a hello; ",
     "400 page; closed"},
    {"length in lower case", c_post + "content-length: 3\r\n\r\nxyz", "200 POST /a; ", "200 POST /a xyz; "},
    {"chunked", c_post + c_chunked + "\r\n3\r\nxyz\r\n0\r\n\r\n", "200 POST /a; ", "200 POST /a xyz; "},
    {"chunked with extension and trailer",
     c_post + c_chunked + "\r\n3;e=1\r\nxyz\r\n2\r\nab\r\n0\r\nT: t\r\n\r\n", "200 POST /a; ",
     "200 POST /a xyzab; "},
    {"chunked and length", c_post + c_chunked + "Content-Length: 3\r\n\r\n3\r\nxyz\r\n0\r\n\r\n",
     "200 POST /a 3\r\n; ", "400 page; closed"},
    {"other coding", c_post + "Transfer-Encoding: gzip, chunked\r\n\r\n3\r\nxyz\r\n0\r\n\r\n",
     "200 POST /a; ", "501 page; closed"},
    {"folded line", "GET /a HTTP/1.1\r\n" + c_host + "X: 1\r\n 2\r\n\r\n", "200 GET /a; ",
     "400 page; closed"},
    {"blank before colon", "GET /a HTTP/1.1\r\nHost : a\r\n\r\n", "200 GET /a; ", "400 page; closed"},
    {"no header fields", "GET /a HTTP/1.0\r\n\r\n", "", "200 GET /a; closed"},
    {"connection close", "GET /a HTTP/1.1\r\n" + c_host + "Connection: close\r\n\r\n", "200 GET /a; ",
     "200 GET /a; closed"},
    {"1.0 kept alive", "GET /a HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", "200 GET /a; ", "200 GET /a; "},
    {"head", "HEAD /a HTTP/1.1\r\n" + c_host + "\r\n", "200 HEAD /a; ", "200; "},
    {"version 2", "GET /a HTTP/2.0\r\n" + c_host + "\r\n", "200 GET /a; ", "505 page; closed"},
    {"no host", "GET /a HTTP/1.1\r\n\r\n", "", "400 page; closed"},
    {"NUL in a value", "GET /a HTTP/1.1\r\n" + c_host + std::string("X: a\0b\r\n\r\n", 10), "200 GET /a; ",
     "400 page; closed"},
    {"bare CR in a value", "GET /a HTTP/1.1\r\n" + c_host + "X: a\rb\r\n\r\n", "200 GET /a; ",
     "400 page; closed"},
};

inline const std::string c_next = "GET /next HTTP/1.1\r\nHost: a\r\n\r\n";

} // namespace NVQTest

#endif
