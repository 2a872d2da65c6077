#include "HTTP/HTTPRequest.h"
#include "HTTP/HTTPHeaderParams.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Fails a nothrow array allocation of this size (see HTTPRequestBodyTest).
extern std::atomic<size_t> s_refusedArraySize;

namespace
{

using namespace std::string_literals;
using NVQ::CHTTPRequest;
typedef std::map<std::string, std::string> Params;

typedef std::pair<std::string, std::string> Pair;

// Single upper-case escapes are all in the loop; the rows are the rest.
TEST(HTTPRequestTest, UriDecodeDecodesSpacePunctuationAndControlBytesInPairedEscapesOnly)
{
    for (int b = 0; b < 256; ++b) {
        char escape[4];
        std::snprintf(escape, sizeof escape, "%%%02X", b);
        const bool punctuation = b > 0x20 && b < 0x7F && std::ispunct(b) && b != '%';
        const bool decoded = b < 0x1F || b == 0x7F || b == ' ' || punctuation;
        EXPECT_EQ(decoded ? std::string(1, static_cast<char>(b)) : std::string(escape),
                  CHTTPRequest::UriDecode(escape))
            << escape;
    }
    // clang-format off
    const Pair cases[] = {
        {"plain/path", "plain/path"}, {"%zz", "%zz"}, {"%", "%"}, {"%4", "%4"}, {"+", "+"}, {"a%2Fb", "a/b"},
        {"%2f%2e%2E", "/.."}, {"%7e", "~"}, {"%2541", "%2541"}, {"%41%42", "AB"}, {"%41%42%43", "AB%43"},
        {"%C3%A9", "\xC3\xA9"}, {"%E2%82%AC", "\xE2\x82%AC"}, {"%41%4", "%41%4"}, {"%41%4g", "%41%4g"},
        {"%4%41", "%4%41"}, {"%%20", "% "}, {"%2%20", "%2 "}, {"x%", "x%"},
    };
    // clang-format on
    for (const Pair &c : cases)
        EXPECT_EQ(c.second, CHTTPRequest::UriDecode(c.first)) << c.first;
}

TEST(HTTPRequestTest, NamesDecodeOnlyTheTenUpperCaseEscapes)
{
    // clang-format off
    const Pair cases[] = {
        {"%3D", "="}, {"%3d", "%3d"}, {"%20", "%20"}, {"%41", "%41"},
        {"%24%26%2B%2C%2F%3A%3B%3D%3F%40", "$&+,/:;=?@"}, {"a%2Bb%2B", "a+b+"}, {"%253D", "%253D"},
        {"%%3D", "%="}, {"plain", "plain"},
    };
    // clang-format on
    for (const Pair &c : cases) {
        std::string name = c.first;
        removePercentEscapes(name);
        EXPECT_EQ(c.second, name) << c.first;
    }
}

TEST(HTTPRequestTest, QueryPairsSplitOnAmpersandAfterTheEqualsSign)
{
    struct SCase {
        std::string uri;
        Params params;
    };
    // clang-format off
    const SCase cases[] = {
        {"/a?x=1&y=2", {{"x", "1"}, {"y", "2"}}}, {"/a", {}}, {"/a=b", {}}, {"/a?", {}}, {"/a?x=1&x=2", {{"x", "1"}}},
        {"/a?x=%zz&y=%&z=%4", {{"x", "%zz"}, {"y", "%"}, {"z", "%4"}}},
        {"/a?x=%20&y=%2B&z=+", {{"x", " "}, {"y", "+"}, {"z", "+"}}}, {"/a?%3D=1", {{"=", "1"}}},
        {"/a?%3d=1&%20=2", {{"%3d", "1"}, {"%20", "2"}}}, {"/a?a&b=1", {{"a&b", "1"}}},
        {"/a?a=1&&b=2", {{"a", "1"}, {"&b", "2"}}}, {"/a?a=1&b", {{"a", "1"}}}, {"/a?a=&b=2", {{"a", ""}, {"b", "2"}}},
        {"/a?=x", {{"", "x"}}}, {"/a?a==b", {{"a", "=b"}}}, {"/a?q=1?r=2", {{"q", "1?r=2"}}},
        {"/a?x=1#frag", {{"x", "1#frag"}}}, {"/a?x=1&", {{"x", "1"}}}, {"/a?x=a\0b&y\0z=2"s, {{"x", "a"}, {"y", "2"}}},
    };
    // clang-format on
    for (const SCase &c : cases) {
        CHTTPRequest request;
        request.SetUri(c.uri);
        EXPECT_EQ(c.params, request.GetRequestParams()) << c.uri;
    }
    // Pairs from a text of a given size: nothing beyond it is read.
    char text[] = "x=1&y=2";
    CHTTPRequest request;
    request.ProcessUrlEncodedParams(text, 3);
    request.ProcessUrlEncodedParams(text + 4, 0);
    EXPECT_EQ((Params{{"x", "1"}}), request.GetRequestParams());
}

// Names of parameters match exactly, names of fields in lower case; a
// combined field is a list of tokens in any case.
TEST(HTTPRequestTest, ParameterAndHeaderLookupsAndTokenLists)
{
    CHTTPRequest request;
    request.SetUri("/a?x=1");
    request.SetUri("/b?Name=v");
    EXPECT_EQ((Params{{"Name", "v"}}), request.GetRequestParams()) << "rebuilt for the new URI";
    EXPECT_TRUE(request.AddHeaderField("Content-Type", "text/plain"));
    EXPECT_FALSE(request.AddHeaderField("CONTENT-TYPE", "text/html"));
    std::string value = "unchanged";
    EXPECT_FALSE(request.GetRequestParamByName("name", value) ||
                 request.GetHeaderFieldValueByName("Content-Type", value));
    EXPECT_EQ("unchanged", value);
    EXPECT_TRUE(request.GetRequestParamByName("Name", value));
    EXPECT_EQ("v", value);
    EXPECT_TRUE(request.GetHeaderFieldValueByName("content-type", value));
    EXPECT_EQ("text/html", value) << "the later value wins";
    EXPECT_TRUE(request.CombineHeaderField("connection", "keep-alive"));
    EXPECT_FALSE(request.CombineHeaderField("connection", " Upgrade ,\tCLOSE,,"));
    EXPECT_EQ((Params{{"connection", "keep-alive,  Upgrade ,\tCLOSE,,"}, {"content-type", "text/html"}}),
              request.GetHeaderFields());
    const std::pair<const char *, bool> cases[] = {
        {"close", true}, {"upgrade", true}, {"keep-alive", true}, {"Keep-Alive", true},
        {"clos", false}, {"keep", false},   {"alive", false},     {"", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.second, request.HasHeaderToken("connection", c.first)) << c.first;
    EXPECT_FALSE(request.HasHeaderToken("Connection", "close") ||
                 request.HasHeaderToken("expect", "100-continue"));
}

struct SBodyCase {
    const char *name;
    const char *contentType; // nullptr: no content-type field
    std::string uri, body;
    bool result;
    Params params;
};

TEST(HTTPRequestTest, FormBodiesAddParametersOnlyForTheBareFormType)
{
    const char *const form = "application/x-www-form-urlencoded";
    // clang-format off
    const SBodyCase cases[] = {
        {"form type in any case", "Application/X-WWW-Form-Urlencoded", "/", "x=1&y=%2F", true,
         {{"x", "1"}, {"y", "/"}}},
        {"type with a charset", "application/x-www-form-urlencoded; charset=UTF-8", "/", "x=1", true, {}},
        {"no content type", nullptr, "/", "x=1", false, {}},
        {"no content type, empty body", nullptr, "/", "", true, {}},
        {"multipart", "multipart/form-data", "/", "x=1", true, {}},
        {"other type", "text/plain", "/", "x=1", true, {}},
        {"URI parameter wins", form, "/a?x=uri", "x=body&y=2", true, {{"x", "uri"}, {"y", "2"}}},
        {"body ends inside a value", form, "/", "x=12", true, {{"x", "12"}}},
    };
    // clang-format on
    for (const SBodyCase &c : cases) {
        SCOPED_TRACE(c.name);
        CHTTPRequest request;
        request.SetUri(c.uri);
        if (c.contentType != nullptr)
            request.AddHeaderField("Content-Type", c.contentType);
        // An exact-size body: parameters must never read past its end.
        std::unique_ptr<unsigned char[]> body(new unsigned char[c.body.size()]);
        std::memcpy(body.get(), c.body.data(), c.body.size());
        ASSERT_TRUE(request.SetBody(body.get(), static_cast<long>(c.body.size())));
        body.reset();

        EXPECT_EQ(c.result, request.ProcessRequestParamsFromBody());
        EXPECT_EQ(c.params, request.GetRequestParams());
        // Once per request, whatever the first result.
        request.GetRequestParams().clear();
        EXPECT_TRUE(request.ProcessRequestParamsFromBody());
        EXPECT_TRUE(request.GetRequestParams().empty());
    }
}

TEST(HTTPRequestTest, SetBodyCopiesReplacesAndRefusesNegativeSizesAndFailedAllocations)
{
    CHTTPRequest request;
    EXPECT_EQ(nullptr, request.GetBody());
    ASSERT_TRUE(request.SetBody(reinterpret_cast<const unsigned char *>(""), 0));
    EXPECT_NE(nullptr, request.GetBody());
    for (const std::string text : {"abc", "de"}) {
        std::unique_ptr<unsigned char[]> copy(new unsigned char[text.size()]);
        std::memcpy(copy.get(), text.data(), text.size());
        ASSERT_TRUE(request.SetBody(copy.get(), static_cast<long>(text.size())));
    }
    EXPECT_EQ("de", std::string(reinterpret_cast<const char *>(request.GetBody()), request.GetBodySize()));
    for (const long size : {-3L, 3L}) {
        s_refusedArraySize = 3;
        EXPECT_FALSE(request.SetBody(reinterpret_cast<const unsigned char *>("abc"), size));
        s_refusedArraySize = 0;
        EXPECT_EQ(nullptr, request.GetBody());
        EXPECT_EQ(0, request.GetBodySize());
        ASSERT_TRUE(request.SetBody(reinterpret_cast<const unsigned char *>("x"), 1));
    }
    for (const long size : {-1L, LONG_MIN, LONG_MAX}) {
        request.SetBodySize(size);
        EXPECT_EQ(size < 0 ? 0 : size, request.GetBodySize());
    }
}

TEST(HTTPRequestTest, StringHelpers)
{
    const auto replaced = [](std::string text, const std::string &from, const std::string &to) {
        replaceOccurances(text, from, to);
        return text;
    };
    std::string escaped = "a\\b\\\\c\\";
    removeEscapes(escaped);
    EXPECT_TRUE(isEscape(92) && !isEscape('/') && !isEscape(0));
    // Inserted text is never scanned again. GetSubString stops at a NUL and
    // at len: a text that is not NUL-terminated is read only as far as len.
    const char unterminated[3] = {'a', 'b', 'c'};
    // clang-format off
    const Pair cases[] = {
        {"aaaaaa", replaced("aaa", "a", "aa")}, {"axax", replaced("abcabc", "bc", "x")}, {"", replaced("abab", "ab", "")},
        {"aXXb", replaced("aXb", "X", "XX")}, {"abc", replaced("abc", "", "z")}, {"abc", replaced("abc", "d", "z")},
        {"abc", escaped}, {"ell", GetSubString("hello", 1, 3)}, {"llo", GetSubString("hello", 2, 100)},
        {"", GetSubString("hello", 5, 3)}, {"", GetSubString("hello", 1, 0)}, {"he", GetSubString("he\0llo", 0, 6)},
        {"abc", GetSubString(unterminated, 0, 3)}, {"bc", GetSubString(unterminated, 1, 2)},
    };
    // clang-format on
    for (const Pair &c : cases)
        EXPECT_EQ(c.first, c.second);
}

// Parameter lists in header values: "type|name=value|..." or "refused".
TEST(HTTPRequestTest, HeaderParamsAsTypedLists)
{
    std::vector<std::pair<std::string, std::string>> cases = {
        {"Text/HTML; Charset=UTF-8", "text/html|charset=UTF-8"},
        {" form-data ; name=\"a b\" ; filename=\"c:\\x\\\"y\\\\\";",
         "form-data|name=a b|filename=c:\\x\"y\\"},
        {"a; x=1;; y = \"\"", "a|x=1|y="},
        {"a; p1=1; p2=2; p3=3", "a|p1=1|p2=2|p3=3"}};
    for (const char *refused : {"a; x=\"open", "a; x=\"esc\\\"", "a; x=\"\x01\"", "a; x", "a; x=", "a; x=1 y",
                                "a; x=1; X=2", "a/", "/a", "a/b/c", "a b", "", "a; p1=1; p2=2; p3=3; p4=4"})
        cases.push_back({refused, "refused"});
    for (const auto &c : cases) {
        std::string type;
        std::vector<NVQ::CHTTPHeaderParams::SParam> params;
        const bool parsed = NVQ::CHTTPHeaderParams::ParseTyped(c.first, 3, type, params);
        for (const auto &param : params)
            type += "|" + param.m_name + "=" + param.m_value;
        EXPECT_EQ(c.second, parsed ? type : "refused") << c.first;
    }
    // Extended values (name*=): UTF-8 only, every escape a pair of hex digits.
    const std::pair<const char *, const char *> values[] = {{"UTF-8''a%20b%e2%82%AC", "a b\xE2\x82\xAC"},
                                                            {"utf-8'en'%41", "A"},
                                                            {"UTF-8''%4", "refused"},
                                                            {"UTF-8''%g0", "refused"},
                                                            {"UTF-8''%0g", "refused"},
                                                            {"ISO-8859-1''a", "refused"},
                                                            {"UTF-8'a", "refused"}};
    for (const auto &c : values) {
        std::string out;
        EXPECT_EQ(c.second, NVQ::CHTTPHeaderParams::DecodeExtValue(c.first, out) ? out : "refused")
            << c.first;
    }
    EXPECT_EQ("\"a\\\"b\\\\c\"", NVQ::CHTTPHeaderParams::Quote("a\"b\\c"));
}

} // namespace
