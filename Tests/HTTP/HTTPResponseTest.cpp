#include "HTTP/HTTPResponse.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace
{

using NVQ::CHTTPResponse;

std::string DataOf(const CHTTPResponse &response)
{
    return std::string(reinterpret_cast<const char *>(response.GetData()),
                       static_cast<size_t>(response.GetDataSize()));
}

TEST(HTTPResponseTest, SetDataKeepsAPrivateCopyOfTheLatestBlock)
{
    CHTTPResponse response;
    std::unique_ptr<unsigned char[]> first(new unsigned char[4]{'a', 'b', 'c', 'd'});
    ASSERT_TRUE(response.SetData(first.get(), 4));
    first.reset();
    EXPECT_EQ("abcd", DataOf(response));

    std::unique_ptr<unsigned char[]> second(new unsigned char[2]{'x', 'y'});
    ASSERT_TRUE(response.SetData(second.get(), 2));
    second.reset();
    EXPECT_EQ("xy", DataOf(response));

    ASSERT_TRUE(response.SetData(reinterpret_cast<const unsigned char *>(""), 0));
    EXPECT_NE(nullptr, response.GetData());
    EXPECT_EQ(0, response.GetDataSize());
}

TEST(HTTPResponseTest, SetDataRefusesANegativeSize)
{
    CHTTPResponse response;
    ASSERT_TRUE(response.SetData(reinterpret_cast<const unsigned char *>("abc"), 3));
    EXPECT_FALSE(response.SetData(reinterpret_cast<const unsigned char *>("abc"), -1));
    EXPECT_EQ(nullptr, response.GetData());
    EXPECT_EQ(0, response.GetDataSize());
}

TEST(HTTPResponseTest, HeaderFieldsAreExactNamesInByteOrder)
{
    CHTTPResponse response;
    EXPECT_TRUE(response.AddHeaderField("Content-Length", "1"));
    EXPECT_FALSE(response.AddHeaderField("Content-Length", "2"));
    std::string value;
    EXPECT_TRUE(response.GetHeaderFieldValueByName("Content-Length", value));
    EXPECT_EQ("2", value);

    value = "unchanged";
    EXPECT_FALSE(response.GetHeaderFieldValueByName("content-length", value));
    EXPECT_EQ("unchanged", value);

    CHTTPResponse ordered;
    EXPECT_TRUE(ordered.AddHeaderField("b", "1"));
    EXPECT_TRUE(ordered.AddHeaderField("A", "2"));
    EXPECT_TRUE(ordered.AddHeaderField("a", "3"));
    std::vector<std::string> names;
    for (const auto &field : ordered.GetAdditionalHeaders())
        names.push_back(field.first);
    EXPECT_EQ((std::vector<std::string>{"A", "a", "b"}), names);
}

// The pages as they must go on the wire.
const char c_expected404[] =
    "<!DOCTYPE html><html lang=\"en\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
    "charset=UTF-8\"><meta charset=\"utf-8\"><meta name=\"viewport\" content=\"initial-scale=1, "
    "minimum-scale=1, width=device-width\"><title>Error 404 (Not Found)!!1</title><p><b>404.</b> "
    "<ins>That&apos;s an error.</ins></p><p>The requested URL was not found on this server.  "
    "<ins>That&apos;s all we know.</ins></p></body></html>";
const char c_expected400[] =
    "<!DOCTYPE html><html lang=\"en\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
    "charset=UTF-8\"><meta charset=\"utf-8\"><meta name=\"viewport\" content=\"initial-scale=1, "
    "minimum-scale=1, width=device-width\"><title>Error 400 (Bad Request)</title><p><b>400.</b> "
    "<ins>That&apos;s an error.</ins></p><p>The request cannot be served on this server.  "
    "<ins>That&apos;s all we know.</ins></p></body></html>";

TEST(HTTPResponseTest, CannedAnswersAreCompleteFixedPages)
{
    const NVQ::CNotFoundResponse notFound;
    const NVQ::CBadRequestResponse badRequest;
    struct SCase {
        const CHTTPResponse &response;
        int code;
        const char *phrase;
        long size;
        const char *page;
    };
    const SCase cases[] = {
        {notFound, 404, "Not found", 406, c_expected404},
        {badRequest, 400, "Bad Request", 402, c_expected400},
    };
    for (const SCase &c : cases) {
        SCOPED_TRACE(c.code);
        EXPECT_EQ(c.code, c.response.GetCode());
        EXPECT_EQ(c.phrase, c.response.GetPhrase());
        EXPECT_EQ(c.size, c.response.GetDataSize());
        EXPECT_EQ(c.page, DataOf(c.response));
        EXPECT_EQ("", c.response.GetContentType());
        EXPECT_TRUE(c.response.IsLast());
        EXPECT_FALSE(c.response.SendOnlyData());
        EXPECT_EQ((NVQ::CKeyValueMap{{"Keep-Alive", "timeout=5, max=100"}}),
                  c.response.GetAdditionalHeaders());
    }
}

} // namespace
