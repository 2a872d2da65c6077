#include "HTTP/HTTPResponse.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace
{

using NVQ::CHTTPResponse;

std::string dataOf(const CHTTPResponse &response)
{
    const unsigned char *data = response.GetData();
    return data == nullptr ? "<null>"
                           : std::string(reinterpret_cast<const char *>(data),
                                         static_cast<size_t>(response.GetDataSize()));
}

const auto bytes = [](const char *text) { return reinterpret_cast<const unsigned char *>(text); };

// The references held on the file, the caller's own one included.
long references(NVQ::CHTTPFileBody &file)
{
    const long count = file.AddRef();
    file.ReleaseRef();
    return count - 1;
}

TEST(HTTPResponseTest, DataIsAPrivateCopyOrAHeldFileRangeOfTheLatestSet)
{
    CHTTPResponse response;
    std::string block = "abcd";
    ASSERT_TRUE(response.SetData(bytes(block.c_str()), 4));
    block = "ABCD";
    EXPECT_EQ("abcd", dataOf(response));
    ASSERT_TRUE(response.SetData(bytes("xy"), 2));
    EXPECT_EQ("xy", dataOf(response));
    ASSERT_TRUE(response.SetData(bytes(""), 0));
    EXPECT_EQ("", dataOf(response));
    EXPECT_FALSE(response.SetData(bytes("abc"), -1));
    EXPECT_EQ(nullptr, response.GetData());
    EXPECT_EQ(0, response.GetDataSize());

    std::FILE *temporary = std::tmpfile();
    ASSERT_EQ(6u, std::fwrite("012345", 1, 6, temporary));
    std::fflush(temporary);
    KZF::CRefCountPtr<NVQ::CHTTPFileBody> file(new NVQ::CHTTPFileBody(::dup(fileno(temporary))));
    std::fclose(temporary);
    {
        CHTTPResponse held;
        ASSERT_TRUE(held.SetFileData(file.GetPtr(), 1, 3));
        ASSERT_TRUE(held.SetFileData(file.GetPtr(), 2, 3)); // the same file again
        EXPECT_EQ(2, references(*file));
        errno = EINTR; // left from earlier: no reason to read again
        EXPECT_EQ("234", dataOf(held));
        EXPECT_EQ(2, held.GetFileOffset());
        EXPECT_FALSE(held.SetFileData(file.GetPtr(), -1, 3));
        EXPECT_FALSE(held.SetFileData(file.GetPtr(), 0, -1));
        EXPECT_EQ(1, references(*file)) << "a refused range holds nothing";
        EXPECT_EQ(nullptr, held.GetFileBody());
        ASSERT_TRUE(held.SetFileData(file.GetPtr(), 4, 5));
        EXPECT_EQ("<null>", dataOf(held)) << "fewer bytes in the file than the range";
        ASSERT_TRUE(held.SetData(bytes("m"), 1));
        EXPECT_EQ(1, references(*file)) << "memory data lets the file go";
        ASSERT_TRUE(held.SetFileData(file.GetPtr(), 6, 0)); // an empty range is an answer too
    }
    EXPECT_EQ(1, references(*file)) << "and so does the end of the answer";
}

TEST(HTTPResponseTest, HeaderFieldsAreExactNamesInByteOrder)
{
    CHTTPResponse response;
    EXPECT_TRUE(response.AddHeaderField("b", "1") && response.AddHeaderField("A", "2"));
    EXPECT_FALSE(response.AddHeaderField("b", "3")) << "replaced: not a new field";
    EXPECT_TRUE(response.AddHeaderField("a", "4"));
    std::string value = "unchanged";
    EXPECT_FALSE(response.GetHeaderFieldValueByName("B", value));
    EXPECT_EQ("unchanged", value);
    EXPECT_TRUE(response.GetHeaderFieldValueByName("b", value));
    EXPECT_EQ("3", value);
    EXPECT_EQ((NVQ::CKeyValueMap{{"A", "2"}, {"a", "4"}, {"b", "3"}}), response.GetAdditionalHeaders());
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

// The rest of their wire form is in the connection point's rows.
TEST(HTTPResponseTest, CannedAnswersCarryTheseFixedPages)
{
    EXPECT_EQ(c_expected404, dataOf(NVQ::CNotFoundResponse()));
    EXPECT_EQ(c_expected400, dataOf(NVQ::CBadRequestResponse()));
}

} // namespace
