#include "HTTP/HTTPRequestParser.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>
#include <vector>

namespace
{

using namespace std::string_literals;
using NVQ::CHTTPRequestParser;
typedef CHTTPRequestParser E; // error codes
typedef std::map<std::string, std::string> Fields;

const int Complete = E::eParseComplete, Incomplete = E::eParseIncomplete, Error = E::eParseError;
const int FieldSyntax = E::eErrorFieldSyntax, HeaderEnd = E::eErrorHeaderEnd;
const char *const NoBody = nullptr;
// Strict rows run with this body bound.
const long c_maxBody = 64;

// How a feed must end. end is where the request ends (complete) or the index
// just past the refused byte (error); line ("method URI"), fields and
// bodySize are checked when given.
struct SEnd {
    bool strict;
    int result, end, code, status;
    std::string line;
    const Fields *fields;
    long bodySize;
    const char *body;
};

// Feeds the wire through growing buffer lengths, each an exact-size heap copy
// (the sanitizers report any read past the length, and a fresh block per
// call shows that the parser keeps no pointer into an older one), checking
// every call's result and consumed count, then the request. The default mode
// completes a size-0 body at the end of a call that stops right after the
// header block, without a body, and on the next byte with an empty one.
void Feed(const std::string &wire, const SEnd &e, const std::vector<int> &lengths, const std::string &mode)
{
    SCOPED_TRACE(mode);
    CHTTPRequestParser parser;
    parser.SetStrict(e.strict);
    if (e.strict)
        parser.SetMaxBodySize(c_maxBody);
    const bool emptyBodySet = !e.strict && e.result == Complete && e.body != NoBody && *e.body == 0;
    bool ended = false, early = false;
    int endConsumed = -1;
    for (const int length : lengths) {
        const std::vector<unsigned char> buffer(wire.begin(), wire.begin() + length);
        int consumed = -1;
        const int result = parser.Parse(buffer.data(), length, consumed);
        int expectedResult = Incomplete, expectedConsumed = length;
        if (ended) {
            // Sticky; after an error consumed is not touched at all.
            expectedResult = e.result;
            expectedConsumed = endConsumed;
        } else if (e.result != Incomplete && length >= e.end) {
            expectedResult = e.result;
            // The default mode reports how far it got when it refuses.
            expectedConsumed = e.result == Complete ? (endConsumed = e.end) : e.strict ? -1 : e.end;
            ended = true;
        } else if (emptyBodySet && length == e.end - 1) {
            expectedResult = Complete;
            expectedConsumed = endConsumed = length;
            ended = early = true;
        }
        ASSERT_EQ(std::make_pair(expectedResult, expectedConsumed), std::make_pair(result, consumed))
            << "buffer length " << length;
    }
    EXPECT_EQ(e.result == Complete, parser.IsCompleteRequest());
    int position = -1;
    const int code = parser.GetLastError(position);
    EXPECT_EQ(e.result == Error ? std::make_pair(e.code, e.end) : std::make_pair(0, 0),
              std::make_pair(code, position));
    EXPECT_EQ(e.strict && e.result == Error ? e.status : 0, e.strict ? parser.GetErrorStatus() : 0);
    if (e.fields == nullptr && e.result != Complete)
        return;
    KZF::CRefCountPtr<NVQ::CHTTPRequest> request = parser.GetRequest();
    ASSERT_FALSE(request.IsNull());
    EXPECT_EQ(e.line, e.line.empty() ? "" : request->GetMethod() + " " + request->GetUri());
    EXPECT_EQ(e.fields ? *e.fields : Fields(), e.fields ? request->GetHeaderFields() : Fields());
    EXPECT_EQ(e.bodySize, e.bodySize < 0 ? -1 : request->GetBodySize());
    const bool noBody = e.body == NoBody || early;
    const char *body = reinterpret_cast<const char *>(request->GetBody());
    ASSERT_EQ(noBody, body == nullptr);
    EXPECT_EQ(noBody ? "" : e.body, std::string(body, noBody ? 0 : request->GetBodySize()));
}

// Whole, split in two at every offset, and one more byte per call; each feed
// ends with a repeated call on the full buffer: the end states are sticky.
void ParseAllWays(const std::string &wire, const SEnd &e)
{
    const int n = static_cast<int>(wire.size());
    Feed(wire, e, {n, n}, "whole");
    std::vector<int> growing;
    for (int length = 0; length <= n; ++length) {
        Feed(wire, e, {length, n, n}, "split at " + std::to_string(length));
        growing.push_back(length);
    }
    growing.push_back(n);
    Feed(wire, e, growing, "one byte per call");
}

// The default mode's own reading of the bytes: rows are name, wire bytes,
// result, unexamined tail (for an error: the bytes after the offending one),
// error code, method, URI, header fields, body size, body.
struct SParseCase {
    const char *name;
    std::string wire;
    int result, unexamined, error;
    std::string method, uri;
    Fields headers;
    long bodySize;
    const char *body;
};

const std::string H = "GET / HTTP/1.1\r\n";
const std::string c_longText(4000, 'a');

// clang-format off
const SParseCase c_cases[] = {
    // Request line.
    {"simple GET", "GET /index.html HTTP/1.1\r\nHost: a\r\n\r\n", Complete, 0, 0, "GET", "/index.html", {{"host", "a"}}, 0, NoBody},
    {"request line then CR LF CR LF", "GET / HTTP/1.0\r\n\r\n\r\n", Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"any method, version not examined", "FOO /x banana\r\n\r\n\r\n", Complete, 0, 0, "FOO", "/x", {}, 0, NoBody},
    {"SPs between words skipped, CR in version dropped", "GET   /a    HT\rTP/1.1\r\n\r\n\r\n", Complete, 0, 0, "GET", "/a", {}, 0, NoBody},
    {"leading SPs skipped", "  GET / HTTP/1.1\r\n\r\n\r\n", Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"leading CR LF belongs to the method", "\r\nGET / HTTP/1.1\r\n\r\n\r\n", Complete, 0, 0, "\r\nGET", "/", {}, 0, NoBody},
    {"TAB is no separator", "GET\t/x HTTP/1.1 v\r\n\r\n\r\n", Complete, 0, 0, "GET\t/x", "HTTP/1.1", {}, 0, NoBody},
    {"URI without version absorbs the line end", "GET /x\r\nHost: a\r\n\r\n", Incomplete, 0, 0, "GET", "/x\r\nHost:", {}, 0, NoBody},
    {"NUL bytes in URI and value", "GET /a\0b HTTP/1.1\r\nX: a\0b\r\n\r\n"s, Complete, 0, 0, "GET", "/a\0b"s, {{"x", "a\0b"s}}, 0, NoBody},
    {"long URI and value", "GET /" + c_longText + " HTTP/1.1\r\nX: " + c_longText + "\r\n\r\n", Complete, 0, 0, "GET", "/" + c_longText, {{"x", c_longText}}, 0, NoBody},

    // Field lines.
    {"LF-only field lines, then CR LF CR LF", H + "Host: a\nX: b\n\r\n\r\n", Complete, 0, 0, "GET", "/", {{"host", "a"}, {"x", "b"}}, 0, NoBody},
    {"bare LF does not count towards the end", H + "Host: a\n\r\n", Incomplete, 0, 0, "GET", "/", {{"host", "a"}}, 0, NoBody},
    {"LF LF does not end the header block", "GET / HTTP/1.1\n\n\n\n", Incomplete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"blank inside a field name", H + "Host example\r\n\r\n", Error, 10, FieldSyntax, "GET", "/", {}, 0, NoBody},
    {"two blanks before the value", H + "Host  example\r\n\r\n", Complete, 0, 0, "GET", "/", {{"host", "example"}}, 0, NoBody},
    {"blank before the colon", H + "Host :example\r\n\r\n", Complete, 0, 0, "GET", "/", {{"host", "example"}}, 0, NoBody},
    {"trailing blank kept", H + "Host: a b \r\n\r\n", Complete, 0, 0, "GET", "/", {{"host", "a b "}}, 0, NoBody},
    {"TAB is part of the value", H + "X: \tv\r\n\r\n", Complete, 0, 0, "GET", "/", {{"x", "\tv"}}, 0, NoBody},
    {"colon inside the value", H + "X: a:b\r\n\r\n", Complete, 0, 0, "GET", "/", {{"x", "a:b"}}, 0, NoBody},
    {"empty value not stored", H + "X: \r\nY:\r\n\r\n", Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"line without colon dropped", H + "X\r\n\r\n", Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"empty value runs on into the next line", H + "X: \nY: b\r\n\r\n", Complete, 0, 0, "GET", "/", {{"x", "Y: b"}}, 0, NoBody},
    {"name runs on into the next line", H + "X\nY: b\r\n\r\n", Error, 7, FieldSyntax, "GET", "/", {}, 0, NoBody},
    {"colon on the next line", H + "X\n: b\r\n\r\n", Complete, 0, 0, "GET", "/", {{"x", "b"}}, 0, NoBody},
    {"bare CR ends the value, rest of line ignored", H + "X: a\rb\r\n\r\n", Complete, 0, 0, "GET", "/", {{"x", "a"}}, 0, NoBody},
    {"folded line becomes a field of its own", H + "A: 1\r\n B: 2\r\n\r\n", Complete, 0, 0, "GET", "/", {{"a", "1"}, {"b", "2"}}, 0, NoBody},
    {"names lower-cased, later value wins", H + "Host: a\r\nHOST: b\r\n\r\n", Complete, 0, 0, "GET", "/", {{"host", "b"}}, 0, NoBody},
    {"colon first in a line", H + ":a: b\r\n\r\n", Complete, 0, 0, "GET", "/", {{":a", "b"}}, 0, NoBody},
    {"bad end of header block", H + "A: b\r\n\rZ", Error, 0, HeaderEnd, "GET", "/", {{"a", "b"}}, 0, NoBody},
    {"CR CR at the end of the header block", H + "\r\n\r\r", Error, 0, HeaderEnd, "GET", "/", {}, 0, NoBody},
    {"error stops examination", H + "A B\r\n\r\n", Error, 4, FieldSyntax, "GET", "/", {}, 0, NoBody},

    // Body.
    {"Content-Length body, later bytes unexamined", H + "Content-Length: 5\r\n\r\nhelloEXTRA", Complete, 5, 0, "GET", "/", {}, 5, "hello"},
    {"body holding line ends", H + "Content-Length: 4\r\n\r\n\r\n\r\n", Complete, 0, 0, "GET", "/", {}, 4, "\r\n\r\n"},
    {"lower-case content-length with body bytes", H + "content-length: 5\r\n\r\nhello", Complete, 4, 0, "GET", "/", {{"content-length", "5"}}, 0, ""},
    {"Content-Length 12abc", H + "Content-Length: 12abc\r\n\r\n0123456789ab", Complete, 0, 0, "GET", "/", {}, 12, "0123456789ab"},
    {"Content-Length x", H + "Content-Length: x\r\n\r\n", Complete, 0, 0, "GET", "/", {}, 0, NoBody},
    {"Content-Length after TAB", H + "Content-Length:\t 3\r\n\r\nabc", Complete, 0, 0, "GET", "/", {}, 3, "abc"},
    {"last Content-Length counts", H + "Content-Length: 9\r\nContent-Length: 2\r\n\r\nabcd", Complete, 2, 0, "GET", "/", {}, 2, "ab"},
    {"size 0 with further bytes", H + "Content-Length: 0\r\n\r\nGET", Complete, 2, 0, "GET", "/", {}, 0, ""},
    {"body without Content-Length", "POST / HTTP/1.1\r\nHost: a\r\n\r\n", Complete, 0, 0, "POST", "/", {{"host", "a"}}, 0, NoBody},
    {"body without Content-Length, in the same buffer", "POST / HTTP/1.1\r\nHost: a\r\n\r\nx=1", Complete, 2, 0, "POST", "/", {{"host", "a"}}, 0, ""},
    {"negative Content-Length is 0", H + "Content-Length: -5\r\n\r\nabc", Complete, 2, 0, "GET", "/", {}, 0, ""},
    {"overflowing Content-Length saturates", H + "Content-Length: 99999999999999999999999\r\n\r\nabc", Incomplete, 0, 0, "GET", "/", {}, LONG_MAX, NoBody},
};
// clang-format on

TEST(HTTPRequestParserTest, WireCasesParseAlikeWholeSplitAndBytewise)
{
    for (const SParseCase &c : c_cases) {
        SCOPED_TRACE(c.name);
        const int end = static_cast<int>(c.wire.size()) - c.unexamined;
        ParseAllWays(c.wire, {false, c.result, end, c.error, 0, c.method + " " + c.uri, &c.headers,
                              c.bodySize, c.body});
    }
}

// Framing in the default mode and in strict mode. A reference outcome is the
// result, the bytes left unexamined at the end, "method URI" and the body; a
// strict one the result, the bytes after the end of the request (complete)
// or after the refused byte (error), the status, the error code and the
// decoded body.
struct SOutcome {
    int result, tail, status, code;
    const char *line;
    const char *body;
};
struct SFramingCase {
    const char *name;
    std::string wire;
    SOutcome reference, strict;
};

const auto Ref = [](int result, int tail, const char *line, const char *body) {
    return SOutcome{result, tail, 0, 0, line, body};
};
const auto Ok = [](int tail, const char *body) { return SOutcome{Complete, tail, 0, 0, nullptr, body}; };
const auto Bad = [](int status, int code, int tail) {
    return SOutcome{Error, tail, status, code, nullptr, NoBody};
};

const std::string P = "POST /p HTTP/1.1\r\nHost: h\r\n";
const std::string TE = P + "Transfer-Encoding: chunked\r\n\r\n";
const char *const Post = "POST /p";
const std::string c_next = "GET /next HTTP/1.1\r\nHost: n\r\n\r\n";

// clang-format off
const SFramingCase c_framingCases[] = {
    // Content-Length.
    {"CL 5", P + "Content-Length: 5\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Ok(0, "hello")},
    {"CL +5", P + "Content-Length: +5\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Bad(400, E::eErrorContentLength, 7)},
    {"CL 35abc", P + "Content-Length: 35abc\r\n\r\nhello", Ref(Incomplete, 0, Post, NoBody), Bad(400, E::eErrorContentLength, 7)},
    {"CL -1", P + "Content-Length: -1\r\n\r\nhello", Ref(Complete, 4, Post, ""), Bad(400, E::eErrorContentLength, 7)},
    {"CL 0x23", P + "Content-Length: 0x23\r\n\r\nhello", Ref(Complete, 4, Post, ""), Bad(400, E::eErrorContentLength, 7)},
    {"CL with OWS around", P + "Content-Length: \t 5 \t\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Ok(0, "hello")},
    {"CL with a blank inside", P + "Content-Length: 5 5\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Bad(400, E::eErrorContentLength, 7)},
    {"CL twice, equal", P + "Content-Length: 5\r\nContent-Length: 5\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Ok(0, "hello")},
    {"CL twice, different", P + "Content-Length: 5\r\nContent-Length: 6\r\n\r\nhello!", Ref(Complete, 0, Post, "hello!"), Bad(400, E::eErrorContentLengthMismatch, 8)},
    {"CL list, equal", P + "Content-Length: 5 ,5\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Ok(0, "hello")},
    {"CL list, different", P + "Content-Length: 5,6\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Bad(400, E::eErrorContentLengthMismatch, 7)},
    {"CL list, empty element", P + "Content-Length: 5,\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Bad(400, E::eErrorContentLength, 7)},
    {"CL huge", P + "Content-Length: 99999999999999999999\r\n\r\nhello", Ref(Incomplete, 0, Post, NoBody), Bad(400, E::eErrorContentLength, 7)},
    {"CL above the bound", P + "Content-Length: 65\r\n\r\nhello", Ref(Incomplete, 0, Post, NoBody), Bad(413, E::eErrorBodyTooLarge, 5)},
    {"CL name in any case", P + "content-LENGTH: 5\r\n\r\nhello", Ref(Complete, 4, Post, ""), Ok(0, "hello")},
    {"CL 0", P + "Content-Length: 0\r\n\r\n", Ref(Complete, 0, Post, NoBody), Ok(0, NoBody)},
    {"no framing: body bytes are the next request", P + "\r\nhello", Ref(Complete, 4, Post, ""), Ok(5, NoBody)},

    // Transfer-Encoding.
    {"chunked", TE + "5\r\nhello\r\n0\r\n\r\n", Ref(Complete, 14, Post, ""), Ok(0, "hello")},
    {"chunked with extensions", TE + "5;a=b;c\r\nhello\r\n6 ; d=\"x y\"\r\n world\r\n0;e\r\n\r\n", Ref(Complete, 43, Post, ""), Ok(0, "hello world")},
    {"chunked with trailers", TE + "5\r\nhello\r\n0\r\nExpires: never\r\nX-Sum:\t1\r\n\r\n", Ref(Complete, 40, Post, ""), Ok(0, "hello")},
    {"chunk sizes in either case", TE + "A\r\n0123456789\r\nb\r\nabcdefghijk\r\n0\r\n\r\n", Ref(Complete, 35, Post, ""), Ok(0, "0123456789abcdefghijk")},
    {"CHUNKED", P + "Transfer-Encoding: CHUNKED\r\n\r\n0\r\n\r\n", Ref(Complete, 4, Post, ""), Ok(0, NoBody)},
    {"chunk data not followed by CR LF", TE + "5\r\nhelloX\r\n0\r\n\r\n", Ref(Complete, 15, Post, ""), Bad(400, E::eErrorChunkDataEnd, 7)},
    {"chunk data followed by LF", TE + "5\r\nhello\n0\r\n\r\n", Ref(Complete, 13, Post, ""), Bad(400, E::eErrorChunkDataEnd, 5)},
    {"chunk size of 16 digits", TE + "0000000000000001\r\n", Ref(Complete, 17, Post, ""), Bad(400, E::eErrorChunkSizeOverflow, 2)},
    {"chunk size above the bound", TE + "41\r\n", Ref(Complete, 3, Post, ""), Bad(413, E::eErrorBodyTooLarge, 2)},
    {"chunked total above the bound", TE + "20\r\n" + std::string(32, 'x') + "\r\n21\r\n", Ref(Complete, 41, Post, ""), Bad(413, E::eErrorBodyTooLarge, 2)},
    {"LF-only chunk lines", TE + "5\nhello\n0\n\n", Ref(Complete, 10, Post, ""), Bad(400, E::eErrorLineEnd, 9)},
    {"chunk line without size", TE + "\r\n0\r\n\r\n", Ref(Complete, 6, Post, ""), Bad(400, E::eErrorChunkSize, 6)},
    {"control byte in a chunk extension", TE + "5;a\x01\r\nhello\r\n0\r\n\r\n", Ref(Complete, 17, Post, ""), Bad(400, E::eErrorChunkExtension, 14)},
    {"folded trailer", TE + "0\r\nX: a\r\n b\r\n\r\n", Ref(Complete, 14, Post, ""), Bad(400, E::eErrorTrailer, 5)},
    {"TE with CL", P + "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\nhello", Ref(Complete, 0, Post, "hello"), Bad(400, E::eErrorLengthAndEncoding, 5)},
    {"TE gzip", P + "Transfer-Encoding: gzip\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorTransferEncoding, 0)},
    {"TE gzip, chunked", P + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n", Ref(Complete, 4, Post, ""), Bad(501, E::eErrorUnsupportedCoding, 5)},
    {"TE gzip then TE chunked", P + "Transfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(501, E::eErrorUnsupportedCoding, 0)},
    {"TE chunked, chunked", P + "Transfer-Encoding: chunked, chunked\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorTransferEncoding, 0)},
    {"TE empty", P + "Transfer-Encoding:\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorTransferEncoding, 2)},
    {"TE in HTTP/1.0", "POST /p HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", Ref(Complete, 4, Post, ""), Bad(400, E::eErrorEncodingInHTTP10, 5)},

    // Request line.
    {"HTTP/1.0 without fields", "GET / HTTP/1.0\r\n\r\n", Ref(Incomplete, 0, "GET /", NoBody), Ok(0, NoBody)},
    {"HTTP/1.1 without Host", "GET / HTTP/1.1\r\n\r\n", Ref(Incomplete, 0, "GET /", NoBody), Bad(400, E::eErrorMissingHost, 0)},
    {"two Host fields", "GET / HTTP/1.1\r\nHost: a\r\nhost: a\r\n\r\n", Ref(Complete, 0, "GET /", NoBody), Bad(400, E::eErrorDuplicateHost, 2)},
    {"leading empty lines", "\r\n\r\nGET / HTTP/1.0\r\n\r\n", Ref(Incomplete, 0, "\r\n\r\nGET /", NoBody), Ok(0, NoBody)},
    {"nine leading empty lines", "\r\n\r\n\r\n\r\n\r\n\r\n\r\n\r\n\r\nGET / HTTP/1.0\r\n\r\n", Ref(Incomplete, 0, "GET /", NoBody), Bad(400, E::eErrorEmptyLines, 18)},
    {"HTTP/1.2 taken as 1.1", "GET / HTTP/1.2\r\nHost: h\r\n\r\n", Ref(Complete, 0, "GET /", NoBody), Ok(0, NoBody)},
    {"HTTP/2.0", "GET / HTTP/2.0\r\nHost: h\r\n\r\n", Ref(Complete, 0, "GET /", NoBody), Bad(505, E::eErrorVersion, 12)},
    {"HTTP/0.9", "GET / HTTP/0.9\r\nHost: h\r\n\r\n", Ref(Complete, 0, "GET /", NoBody), Bad(505, E::eErrorVersion, 12)},
    {"unknown protocol", "GET / HTXP/1.1\r\nHost: h\r\n\r\n", Ref(Complete, 0, "GET /", NoBody), Bad(400, E::eErrorRequestLine, 12)},
    {"version of three digits", "GET / HTTP/1.10\r\nHost: h\r\n\r\n", Ref(Complete, 0, "GET /", NoBody), Bad(400, E::eErrorRequestLine, 13)},
    {"two spaces", "GET  / HTTP/1.1\r\nHost: h\r\n\r\n", Ref(Complete, 0, "GET /", NoBody), Bad(400, E::eErrorRequestLine, 23)},
    {"method not a token", "G(T / HTTP/1.1\r\nHost: h\r\n\r\n", Ref(Complete, 0, "G(T /", NoBody), Bad(400, E::eErrorRequestLine, 25)},
    {"control byte in the target", "GET /a\x01 HTTP/1.1\r\nHost: h\r\n\r\n", Ref(Complete, 0, "GET /a\x01", NoBody), Bad(400, E::eErrorRequestLine, 22)},
    {"bare LF after the request line", "GET / HTTP/1.1\nHost: h\r\n\r\n", Ref(Complete, 0, "GET /", NoBody), Bad(400, E::eErrorLineEnd, 11)},

    // Field lines.
    {"blank before the colon", P + "X : y\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorBlankBeforeColon, 7)},
    {"obs-fold", P + "X: a\r\n b\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorObsFold, 5)},
    {"bare CR in a value", P + "X: a\rb\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorLineEnd, 4)},
    {"NUL in a value", P + "X: a\0b\r\n\r\n"s, Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorFieldValue, 5)},
    {"DEL in a value", P + "X: a\x7f" "b\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorFieldValue, 5)},
    {"ESC in a value", P + "X: a\x1b" "b\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorFieldValue, 5)},
    {"HTAB in a value", P + "X: a\tb\r\n\r\n", Ref(Complete, 0, Post, NoBody), Ok(0, NoBody)},
    {"LF-only field line", P + "X: a\n\r\n", Ref(Incomplete, 0, Post, NoBody), Bad(400, E::eErrorLineEnd, 2)},
    {"field line without colon", P + "X\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorFieldName, 3)},
    {"field name not a token", P + "X@Y: 1\r\n\r\n", Ref(Complete, 0, Post, NoBody), Bad(400, E::eErrorFieldName, 8)},
};
// clang-format on

TEST(HTTPRequestParserTest, FramingInBothModesWholeSplitBytewiseAndPipelined)
{
    for (const SFramingCase &c : c_framingCases) {
        for (const bool strict : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (strict ? ", strict" : ", default mode"));
            const SOutcome &o = strict ? c.strict : c.reference;
            const int end = static_cast<int>(c.wire.size()) - o.tail;
            SEnd e{strict, o.result, end, o.code, o.status, o.line ? o.line : "", nullptr, -1, o.body};
            ParseAllWays(c.wire, e);
            if (o.result == Incomplete)
                continue;
            // A second request behind it. Strict mode never looks past the
            // end; the default mode completes a size-0 body on the next byte.
            SCOPED_TRACE("second request behind");
            const bool strictEnd = strict && o.result == Complete;
            const std::string wire =
                (strictEnd ? c.wire.substr(0, static_cast<size_t>(end)) : c.wire) + c_next;
            if (!strict && o.result == Complete && o.body == NoBody) {
                e.body = "";
                ++e.end;
            }
            ParseAllWays(wire, e);
        }
    }
}

int parse(CHTTPRequestParser &parser, const std::string &wire, int length = -1)
{
    int consumed = -1;
    return parser.Parse(reinterpret_cast<const unsigned char *>(wire.data()),
                        length < 0 ? static_cast<int>(wire.size()) : length, consumed);
}

// What strict mode records: version, chunked, combined field values, the
// query's parameters, and where the body starts.
TEST(HTTPRequestParserTest, StrictRecordsTheRequest)
{
    const std::pair<std::string, Fields> cases[] = {
        {"\r\nPUT /a?x=1 HTTP/1.0\r\nAccept:  a \t\r\nACCEPT: b\r\nX-Empty:\r\nContent-Length: 2\r\n\r\nhi",
         {{"accept", "a, b"}, {"x-empty", ""}}},
        {"PUT /a?x=1 HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nhi\r\n0\r\n\r\n",
         {{"host", "h"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first);
        CHTTPRequestParser parser;
        parser.SetStrict(true);
        const int headerEnd = static_cast<int>(c.first.find("\r\n\r\n")) + 4;
        ASSERT_EQ(Incomplete, parse(parser, c.first, headerEnd));
        EXPECT_TRUE(parser.IsStrict() && parser.IsHeaderComplete());
        EXPECT_EQ(headerEnd, parser.GetBodyStart());
        ASSERT_EQ(Complete, parse(parser, c.first));
        const KZF::CRefCountPtr<NVQ::CHTTPRequest> r = parser.GetRequest();
        const bool chunked = c.first[0] == 'P';
        EXPECT_EQ((Fields{{"x", "1"}}), r->GetRequestParams());
        EXPECT_EQ("PUT 2 " + std::to_string(chunked ? 11 : 10) + (chunked ? " chunked" : ""),
                  r->GetMethod() + " " + std::to_string(r->GetBodySize()) + " " +
                      std::to_string(r->GetHTTPVersion()) + (r->IsChunked() ? " chunked" : ""));
        EXPECT_EQ(c.second, r->GetHeaderFields());
    }
}

// A change of mode, and Reset, take effect from the next request; Reset
// releases the old request and clears an error.
TEST(HTTPRequestParserTest, ModeChangesAndResetTakeEffectBetweenRequests)
{
    const std::string wire = "GET /a?x=1&y=%20 HTTP/2.0\r\n\r\n\r\n";
    CHTTPRequestParser parser;
    ASSERT_EQ(Incomplete, parse(parser, wire, 5));
    parser.SetStrict(true);
    EXPECT_EQ(Complete, parse(parser, wire));
    EXPECT_EQ((Fields{{"x", "1"}, {"y", " "}}), parser.GetRequest()->GetRequestParams());
    KZF::CRefCountPtr<NVQ::CHTTPRequest> kept = parser.GetRequest();
    parser.Reset();
    EXPECT_EQ(1, kept->GetRefCount()) << "the old request is released";
    EXPECT_FALSE(parser.IsCompleteRequest());
    EXPECT_EQ(Error, parse(parser, wire));
    EXPECT_EQ(505, parser.GetErrorStatus());
    parser.SetStrict(false);
    parser.Reset();
    int position = -1;
    EXPECT_EQ(0, parser.GetLastError(position) + position);
    ASSERT_EQ(Complete, parse(parser, "GET /b HTTP/1.1\r\nA: b\r\n\r\n"));
    EXPECT_EQ((Fields{{"a", "b"}}), parser.GetRequest()->GetHeaderFields());
    EXPECT_EQ(nullptr, parser.GetRequest()->GetBody());
}

} // namespace
