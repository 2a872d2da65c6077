#include "HTTP/HTTPRequest.h"
#include "HTTP/HTTPHeaderParams.h"

#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace
{

using namespace std::string_literals;
using NVQ::CHTTPRequest;
typedef std::map<std::string, std::string> Params;

struct SDecodeCase {
    std::string in;
    std::string out;
};

TEST(HTTPRequestTest, UriDecodeKeepsAllButPunctuationControlAndPairedEscapes)
{
    // clang-format off
    const SDecodeCase cases[] = {
        {"plain/path", "plain/path"}, {"%zz", "%zz"}, {"%", "%"}, {"%4", "%4"}, {"%20", " "},
        {"%2B", "+"}, {"+", "+"}, {"a%2Fb", "a/b"}, {"%2f%2e%2E", "/.."}, {"%7e", "~"}, {"%41", "%41"},
        {"%30", "%30"}, {"%25", "%25"}, {"%2541", "%2541"}, {"%41%42", "AB"}, {"%41%42%43", "AB%43"},
        {"%C3%A9", "\xC3\xA9"}, {"%E2%82%AC", "\xE2\x82%AC"}, {"%00", "\0"s}, {"%1F", "%1F"},
        {"%1E", "\x1E"}, {"%7F", "\x7F"}, {"%80", "%80"}, {"%41%4", "%41%4"}, {"%41%4g", "%41%4g"},
        {"%4%41", "%4%41"}, {"%%20", "% "}, {"%2%20", "%2 "}, {"x%", "x%"}, {"%2", "%2"},
    };
    // clang-format on
    for (const SDecodeCase &c : cases)
        EXPECT_EQ(c.out, CHTTPRequest::UriDecode(c.in)) << c.in;
}

TEST(HTTPRequestTest, UriDecodeDecodesExactlySpacePunctuationAndControlBytesAlone)
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
}

TEST(HTTPRequestTest, NamesDecodeOnlyTheTenUpperCaseEscapes)
{
    // clang-format off
    const SDecodeCase cases[] = {
        {"%3D", "="}, {"%3d", "%3d"}, {"%20", "%20"}, {"%41", "%41"},
        {"%24%26%2B%2C%2F%3A%3B%3D%3F%40", "$&+,/:;=?@"}, {"a%2Bb%2B", "a+b+"}, {"%253D", "%253D"},
        {"%%3D", "%="}, {"plain", "plain"},
    };
    // clang-format on
    for (const SDecodeCase &c : cases) {
        std::string name = c.in;
        removePercentEscapes(name);
        EXPECT_EQ(c.out, name) << c.in;
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
}

TEST(HTTPRequestTest, ParameterAndHeaderLookupsAreExact)
{
    CHTTPRequest request;
    request.SetUri("/a?x=1");
    request.SetUri("/b?Name=v");
    EXPECT_EQ((Params{{"Name", "v"}}), request.GetRequestParams()) << "rebuilt for the new URI";
    EXPECT_TRUE(request.AddHeaderField("Content-Type", "text/plain"));
    EXPECT_FALSE(request.AddHeaderField("CONTENT-TYPE", "text/html"));
    EXPECT_EQ((Params{{"content-type", "text/html"}}), request.GetHeaderFields()) << "the later value wins";
    std::string value = "unchanged";
    EXPECT_FALSE(request.GetRequestParamByName("name", value));
    EXPECT_FALSE(request.GetHeaderFieldValueByName("Content-Type", value));
    EXPECT_EQ("unchanged", value);
    EXPECT_TRUE(request.GetRequestParamByName("Name", value));
    EXPECT_EQ("v", value);
    EXPECT_TRUE(request.GetHeaderFieldValueByName("content-type", value));
    EXPECT_EQ("text/html", value);
}

struct SBodyCase {
    const char *name;
    const char *contentType; // nullptr: no content-type field
    std::string uri;
    std::string body;
    bool result;
    Params params;
};

TEST(HTTPRequestTest, CombinedFieldsAreListsOfTokensInAnyCase)
{
    CHTTPRequest request;
    EXPECT_TRUE(request.CombineHeaderField("connection", "keep-alive"));
    EXPECT_FALSE(request.CombineHeaderField("connection", " Upgrade ,\tCLOSE,,"));
    EXPECT_EQ((Params{{"connection", "keep-alive,  Upgrade ,\tCLOSE,,"}}), request.GetHeaderFields());
    const std::pair<const char *, bool> cases[] = {
        {"close", true}, {"upgrade", true}, {"keep-alive", true}, {"Keep-Alive", true},
        {"clos", false}, {"keep", false},   {"alive", false},     {"", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.second, request.HasHeaderToken("connection", c.first)) << c.first;
    EXPECT_FALSE(request.HasHeaderToken("Connection", "close"));
    EXPECT_FALSE(request.HasHeaderToken("expect", "100-continue"));
}

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

TEST(HTTPRequestTest, UrlEncodedParamsReadNothingBeyondTheSize)
{
    char text[] = "x=1&y=2";
    CHTTPRequest request;
    request.ProcessUrlEncodedParams(text, 3);
    request.ProcessUrlEncodedParams(text + 4, 0);
    EXPECT_EQ((Params{{"x", "1"}}), request.GetRequestParams());
}

TEST(HTTPRequestTest, SetBodyCopiesReplacesAndRefusesNegativeSizes)
{
    CHTTPRequest request;
    EXPECT_EQ(nullptr, request.GetBody());
    ASSERT_TRUE(request.SetBody(reinterpret_cast<const unsigned char *>(""), 0));
    EXPECT_NE(nullptr, request.GetBody());
    std::unique_ptr<unsigned char[]> first(new unsigned char[3]{'a', 'b', 'c'});
    ASSERT_TRUE(request.SetBody(first.get(), 3));
    first.reset();
    std::unique_ptr<unsigned char[]> second(new unsigned char[2]{'d', 'e'});
    ASSERT_TRUE(request.SetBody(second.get(), 2));
    second.reset();
    EXPECT_EQ("de", std::string(reinterpret_cast<const char *>(request.GetBody()), request.GetBodySize()));
    EXPECT_FALSE(request.SetBody(reinterpret_cast<const unsigned char *>("abc"), -3));
    EXPECT_EQ(nullptr, request.GetBody());
    EXPECT_EQ(0, request.GetBodySize());
    for (const long size : {-1L, LONG_MIN, LONG_MAX}) {
        request.SetBodySize(size);
        EXPECT_EQ(size < 0 ? 0 : size, request.GetBodySize());
    }
}

// The sanitizers' allocators abort on such a request unless told otherwise.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NVQ_SANITIZED_ALLOCATOR
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define NVQ_SANITIZED_ALLOCATOR
#endif
#endif
// Only where no process can have LONG_MAX bytes: a 32-bit one may get 2 GiB.
#if !defined(NVQ_SANITIZED_ALLOCATOR) && LONG_MAX > INT_MAX
TEST(HTTPRequestTest, SetBodyReportsAFailedAllocation)
{
    CHTTPRequest request;
    ASSERT_TRUE(request.SetBody(reinterpret_cast<const unsigned char *>("abc"), 3));
    EXPECT_FALSE(request.SetBody(reinterpret_cast<const unsigned char *>("abc"), LONG_MAX));
    EXPECT_EQ(nullptr, request.GetBody());
    EXPECT_EQ(0, request.GetBodySize());
}
#endif

TEST(HTTPRequestTest, ReplaceOccurancesNeverRescansInsertedText)
{
    struct SCase {
        std::string text, from, to, out;
    };
    const SCase cases[] = {
        {"aaa", "a", "aa", "aaaaaa"}, {"abcabc", "bc", "x", "axax"}, {"abab", "ab", "", ""},
        {"aXb", "X", "XX", "aXXb"},   {"abc", "", "z", "abc"},       {"abc", "d", "z", "abc"},
    };
    for (const SCase &c : cases) {
        std::string text = c.text;
        replaceOccurances(text, c.from, c.to);
        EXPECT_EQ(c.out, text) << c.text << " " << c.from << "->" << c.to;
    }
}

TEST(HTTPRequestTest, RemoveEscapesAndGetSubString)
{
    std::string text = "a\\b\\\\c\\";
    removeEscapes(text);
    EXPECT_EQ("abc", text);
    EXPECT_TRUE(isEscape(92) && !isEscape('/') && !isEscape(0));
    // Stops at a NUL and at len: a text that is not NUL-terminated is read
    // only as far as len.
    const char unterminated[3] = {'a', 'b', 'c'};
    const std::pair<std::string, std::string> cases[] = {
        {"ell", GetSubString("hello", 1, 3)},     {"llo", GetSubString("hello", 2, 100)},
        {"", GetSubString("hello", 5, 3)},        {"", GetSubString("hello", 1, 0)},
        {"he", GetSubString("he\0llo", 0, 6)},    {"abc", GetSubString(unterminated, 0, 3)},
        {"bc", GetSubString(unterminated, 1, 2)},
    };
    for (const auto &c : cases)
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
