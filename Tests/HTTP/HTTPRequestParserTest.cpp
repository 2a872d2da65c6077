#include "HTTP/HTTPRequestParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace
{

using namespace std::string_literals;
using NVQ::CHTTPRequestParser;
typedef std::map<std::string, std::string> Fields;

const int Complete = CHTTPRequestParser::eParseComplete;
const int Incomplete = CHTTPRequestParser::eParseIncomplete;
const int Error = CHTTPRequestParser::eParseError;
const int FieldSyntax = CHTTPRequestParser::eErrorFieldSyntax;
const int HeaderEnd = CHTTPRequestParser::eErrorHeaderEnd;

const char *const NoBody = nullptr;
const std::string H = "GET / HTTP/1.1\r\n";

struct SParseCase {
    const char *name;
    std::string wire;
    int result;
    // Bytes at the end of wire that are never examined; for an error, those
    // after the offending byte.
    int unexamined;
    int error;
    std::string method;
    std::string uri;
    Fields headers;
    long bodySize;
    // The body bytes, or NoBody when no body is set (pointer stays null).
    const char *body;
};

// An exact-size heap copy: the sanitizers report any read past length, and a
// fresh block per call shows that the parser keeps no pointer into an older one.
std::unique_ptr<unsigned char[]> CopyOf(const std::string &wire, int length)
{
    std::unique_ptr<unsigned char[]> copy(new unsigned char[static_cast<size_t>(length)]);
    std::memcpy(copy.get(), wire.data(), static_cast<size_t>(length));
    return copy;
}

// Feeds one row through a sequence of growing buffer lengths and checks every
// call's result and consumed count, then the request. A body of size 0
// completes at the end of a call that stops right after the header block,
// without a body; with more bytes in the buffer it completes on the next byte
// and sets an empty body. A feed that stops right there legitimately differs.
void Feed(const SParseCase &c, const std::vector<int> &lengths, const std::string &mode)
{
    SCOPED_TRACE(std::string(c.name) + ", " + mode);
    const int n = static_cast<int>(c.wire.size());
    const int end = n - c.unexamined;
    const bool emptyBodySet = c.result == Complete && c.body != NoBody && c.bodySize == 0;
    CHTTPRequestParser parser;
    bool ended = false;
    bool early = false;
    int endConsumed = 0;
    for (const int length : lengths) {
        std::unique_ptr<unsigned char[]> buffer = CopyOf(c.wire, length);
        int consumed = -1;
        const int result = parser.Parse(buffer.get(), length, consumed);
        int expectedResult = Incomplete;
        int expectedConsumed = length;
        if (ended) {
            expectedResult = c.result;
            // After an error consumed is not touched at all.
            expectedConsumed = c.result == Error ? -1 : endConsumed;
        } else if (length >= end && c.result != Incomplete) {
            expectedResult = c.result;
            expectedConsumed = endConsumed = end;
            ended = true;
        } else if (emptyBodySet && length == end - 1) {
            expectedResult = Complete;
            expectedConsumed = endConsumed = end - 1;
            ended = early = true;
        }
        ASSERT_EQ(expectedResult, result) << "buffer length " << length;
        ASSERT_EQ(expectedConsumed, consumed) << "buffer length " << length;
    }
    EXPECT_EQ(c.result == Complete, parser.IsCompleteRequest());
    int position = -1;
    EXPECT_EQ(c.result == Error ? c.error : 0, parser.GetLastError(position));
    EXPECT_EQ(c.result == Error ? end : 0, position);

    KZF::CRefCountPtr<NVQ::CHTTPRequest> request = parser.GetRequest();
    ASSERT_FALSE(request.IsNull());
    EXPECT_EQ(c.method, request->GetMethod());
    EXPECT_EQ(c.uri, request->GetUri());
    EXPECT_EQ(c.headers, request->GetHeaderFields());
    EXPECT_EQ(c.bodySize, request->GetBodySize());
    if (c.body == NoBody || early) {
        EXPECT_EQ(nullptr, request->GetBody());
    } else {
        ASSERT_NE(nullptr, request->GetBody());
        EXPECT_EQ(
            std::string(c.body, static_cast<size_t>(c.bodySize)),
            std::string(reinterpret_cast<const char *>(request->GetBody()), static_cast<size_t>(c.bodySize)));
    }
}

// Whole, split in two at every offset, and one more byte per call; each feed
// ends with a repeated call on the full buffer to check that the end states
// are sticky.
void ExpectParsesAllWays(const SParseCase &c)
{
    const int n = static_cast<int>(c.wire.size());
    Feed(c, {n, n}, "whole");
    for (int split = 0; split <= n; ++split)
        Feed(c, {split, n, n}, "split at " + std::to_string(split));
    std::vector<int> growing;
    for (int length = 0; length <= n; ++length)
        growing.push_back(length);
    growing.push_back(n);
    Feed(c, growing, "one byte per call");
}

const std::string c_longText(4000, 'a');

// Rows: name, wire bytes, result, unexamined tail, error code, method, URI,
// header fields, body size, body.
// clang-format off
const SParseCase c_cases[] = {
    // Request line.
    {"simple GET", "GET /index.html HTTP/1.1\r\nHost: a\r\n\r\n",
     Complete, 0, 0, "GET", "/index.html", {{"host", "a"}}, 0, NoBody},
    {"request line alone needs another CR LF", "GET / HTTP/1.0\r\n\r\n",
     Incomplete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"request line then CR LF CR LF", "GET / HTTP/1.0\r\n\r\n\r\n",
     Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"any method, version not examined", "FOO /x banana\r\n\r\n\r\n",
     Complete, 0, 0, "FOO", "/x", {}, 0, NoBody},
    {"SPs between words skipped, CR in version dropped", "GET   /a    HT\rTP/1.1\r\n\r\n\r\n",
     Complete, 0, 0, "GET", "/a", {}, 0, NoBody},
    {"leading SPs skipped", "  GET / HTTP/1.1\r\n\r\n\r\n",
     Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"leading CR LF belongs to the method", "\r\nGET / HTTP/1.1\r\n\r\n\r\n",
     Complete, 0, 0, "\r\nGET", "/", {}, 0, NoBody},
    {"TAB is no separator", "GET\t/x HTTP/1.1 v\r\n\r\n\r\n",
     Complete, 0, 0, "GET\t/x", "HTTP/1.1", {}, 0, NoBody},
    {"URI without version absorbs the line end", "GET /x\r\nHost: a\r\n\r\n",
     Incomplete, 0, 0, "GET", "/x\r\nHost:", {}, 0, NoBody},
    {"NUL bytes in URI and value", "GET /a\0b HTTP/1.1\r\nX: a\0b\r\n\r\n"s,
     Complete, 0, 0, "GET", "/a\0b"s, {{"x", "a\0b"s}}, 0, NoBody},
    {"long URI and value", "GET /" + c_longText + " HTTP/1.1\r\nX: " + c_longText + "\r\n\r\n",
     Complete, 0, 0, "GET", "/" + c_longText, {{"x", c_longText}}, 0, NoBody},

    // Field lines.
    {"LF-only field lines", H + "Host: a\nX: b\n",
     Incomplete, 0, 0, "GET", "/", {{"host", "a"}, {"x", "b"}}, 0, NoBody},
    {"LF-only field lines, then CR LF CR LF", H + "Host: a\nX: b\n\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"host", "a"}, {"x", "b"}}, 0, NoBody},
    {"bare LF does not count towards the end", H + "Host: a\n\r\n",
     Incomplete, 0, 0, "GET", "/", {{"host", "a"}}, 0, NoBody},
    {"LF LF does not end the header block", "GET / HTTP/1.1\n\n\n\n",
     Incomplete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"blank inside a field name", H + "Host example\r\n\r\n",
     Error, 10, FieldSyntax, "GET", "/", {}, 0, NoBody},
    {"two blanks before the value", H + "Host  example\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"host", "example"}}, 0, NoBody},
    {"blank before the colon", H + "Host :example\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"host", "example"}}, 0, NoBody},
    {"trailing blank kept", H + "Host: a b \r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"host", "a b "}}, 0, NoBody},
    {"TAB is part of the value", H + "X: \tv\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"x", "\tv"}}, 0, NoBody},
    {"colon inside the value", H + "X: a:b\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"x", "a:b"}}, 0, NoBody},
    {"empty value not stored", H + "X: \r\nY:\r\n\r\n",
     Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"line without colon dropped", H + "X\r\n\r\n",
     Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"empty value runs on into the next line", H + "X: \nY: b\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"x", "Y: b"}}, 0, NoBody},
    {"name runs on into the next line", H + "X\nY: b\r\n\r\n",
     Error, 7, FieldSyntax, "GET", "/", {}, 0, NoBody},
    {"colon on the next line", H + "X\n: b\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"x", "b"}}, 0, NoBody},
    {"bare CR ends the value, rest of line ignored", H + "X: a\rb\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"x", "a"}}, 0, NoBody},
    {"folded line becomes a field of its own", H + "A: 1\r\n B: 2\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"a", "1"}, {"b", "2"}}, 0, NoBody},
    {"names lower-cased, later value wins", H + "Host: a\r\nHOST: b\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"host", "b"}}, 0, NoBody},
    {"colon first in a line", H + ":a: b\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{":a", "b"}}, 0, NoBody},
    {"bad end of header block", H + "A: b\r\n\rZ",
     Error, 0, HeaderEnd, "GET", "/", {{"a", "b"}}, 0, NoBody},
    {"CR CR at the end of the header block", H + "\r\n\r\r",
     Error, 0, HeaderEnd, "GET", "/", {}, 0, NoBody},
    {"error stops examination", H + "A B\r\n\r\n",
     Error, 4, FieldSyntax, "GET", "/", {}, 0, NoBody},

    // Body.
    {"Content-Length body, later bytes unexamined", H + "Content-Length: 5\r\n\r\nhelloEXTRA",
     Complete, 5, 0, "GET", "/", {}, 5, "hello"},
    {"body holding line ends", H + "Content-Length: 4\r\n\r\n\r\n\r\n",
     Complete, 0, 0, "GET", "/", {}, 4, "\r\n\r\n"},
    {"lower-case content-length is an ordinary field", H + "content-length: 5\r\n\r\n",
     Complete, 0, 0, "GET", "/", {{"content-length", "5"}}, 0, NoBody},
    {"lower-case content-length with body bytes", H + "content-length: 5\r\n\r\nhello",
     Complete, 4, 0, "GET", "/", {{"content-length", "5"}}, 0, ""},
    {"Content-Length 12abc", H + "Content-Length: 12abc\r\n\r\n0123456789ab",
     Complete, 0, 0, "GET", "/", {}, 12, "0123456789ab"},
    {"Content-Length x", H + "Content-Length: x\r\n\r\n",
     Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"Content-Length after TAB", H + "Content-Length:\t 3\r\n\r\nabc",
     Complete, 0, 0, "GET", "/", {}, 3, "abc"},
    {"last Content-Length counts", H + "Content-Length: 9\r\nContent-Length: 2\r\n\r\nabcd",
     Complete, 2, 0, "GET", "/", {}, 2, "ab"},
    {"size 0 with further bytes", H + "Content-Length: 0\r\n\r\nGET",
     Complete, 2, 0, "GET", "/", {}, 0, ""},
    {"body without Content-Length", "POST / HTTP/1.1\r\nHost: a\r\n\r\n",
     Complete, 0, 0, "POST", "/", {{"host", "a"}}, 0, NoBody},
    {"body without Content-Length, in the same buffer", "POST / HTTP/1.1\r\nHost: a\r\n\r\nx=1",
     Complete, 2, 0, "POST", "/", {{"host", "a"}}, 0, ""},
    {"negative Content-Length is 0", H + "Content-Length: -5\r\n\r\nabc",
     Complete, 2, 0, "GET", "/", {}, 0, ""},
    {"overflowing Content-Length saturates", H + "Content-Length: 99999999999999999999999\r\n\r\nabc",
     Incomplete, 0, 0, "GET", "/", {}, LONG_MAX, NoBody},
    {"body bytes awaited", H + "Content-Length: 5\r\n\r\nhell",
     Incomplete, 0, 0, "GET", "/", {}, 5, NoBody},
};
// clang-format on

TEST(HTTPRequestParserTest, WireCasesParseAlikeWholeSplitAndBytewise)
{
    for (const SParseCase &c : c_cases)
        ExpectParsesAllWays(c);
}

TEST(HTTPRequestParserTest, QueryParametersComeFromTheUri)
{
    const std::string wire = "GET /a?x=1&y=%20 HTTP/1.1\r\n\r\n\r\n";
    CHTTPRequestParser parser;
    int consumed = 0;
    ASSERT_EQ(Complete, parser.Parse(reinterpret_cast<const unsigned char *>(wire.data()),
                                     static_cast<int>(wire.size()), consumed));
    EXPECT_EQ((Fields{{"x", "1"}, {"y", " "}}), parser.GetRequest()->GetRequestParams());
}

TEST(HTTPRequestParserTest, ResetStartsAFreshRequestAndReleasesTheOldOne)
{
    const std::string first = "POST /a HTTP/1.1\r\nContent-Length: 2\r\n\r\nhi";
    const std::string second = "GET /b HTTP/1.1\r\n\r\n\r\n";
    CHTTPRequestParser parser;
    int consumed = 0;
    ASSERT_EQ(Complete, parser.Parse(reinterpret_cast<const unsigned char *>(first.data()),
                                     static_cast<int>(first.size()), consumed));
    KZF::CRefCountPtr<NVQ::CHTTPRequest> kept = parser.GetRequest();
    EXPECT_EQ(kept.GetPtr(), parser.GetRequest().GetPtr());
    EXPECT_EQ(2, kept->GetRefCount());

    parser.Reset();
    EXPECT_NE(kept.GetPtr(), parser.GetRequest().GetPtr());
    EXPECT_EQ(1, kept->GetRefCount());
    EXPECT_EQ("/a", kept->GetUri());
    EXPECT_FALSE(parser.IsCompleteRequest());

    ASSERT_EQ(Complete, parser.Parse(reinterpret_cast<const unsigned char *>(second.data()),
                                     static_cast<int>(second.size()), consumed));
    EXPECT_EQ(static_cast<int>(second.size()), consumed);
    EXPECT_EQ("/b", parser.GetRequest()->GetUri());
    EXPECT_EQ(nullptr, parser.GetRequest()->GetBody());
}

TEST(HTTPRequestParserTest, ResetClearsAnError)
{
    const std::string bad = H + "A B\r\n\r\n";
    const std::string good = H + "A: b\r\n\r\n";
    CHTTPRequestParser parser;
    int consumed = 0;
    ASSERT_EQ(Error, parser.Parse(reinterpret_cast<const unsigned char *>(bad.data()),
                                  static_cast<int>(bad.size()), consumed));
    parser.Reset();
    int position = -1;
    EXPECT_EQ(0, parser.GetLastError(position));
    EXPECT_EQ(0, position);
    ASSERT_EQ(Complete, parser.Parse(reinterpret_cast<const unsigned char *>(good.data()),
                                     static_cast<int>(good.size()), consumed));
    EXPECT_EQ((Fields{{"a", "b"}}), parser.GetRequest()->GetHeaderFields());
}

TEST(HTTPRequestParserTest, MegabyteUriInPieces)
{
    // A 1 MiB URI in 4 KiB pieces: consumed tracks the buffer and the word
    // is collected once, whatever the piece boundaries.
    const std::string uri = "/" + std::string(1 << 20, 'u');
    const std::string wire = "GET " + uri + " HTTP/1.1\r\nX: y\r\n\r\n";
    CHTTPRequestParser parser;
    int consumed = 0;
    int result = Incomplete;
    const int n = static_cast<int>(wire.size());
    for (int length = 4096;; length += 4096) {
        length = std::min(n, length);
        result = parser.Parse(reinterpret_cast<const unsigned char *>(wire.data()), length, consumed);
        if (result != Incomplete || length == n)
            break;
        ASSERT_EQ(length, consumed);
    }
    EXPECT_EQ(Complete, result);
    EXPECT_EQ(n, consumed);
    EXPECT_EQ(uri, parser.GetRequest()->GetUri());
}

} // namespace
