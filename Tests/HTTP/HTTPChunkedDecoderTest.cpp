#include "HTTP/HTTPChunkedDecoder.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace
{

using NVQ::CHTTPChunkedDecoder;

typedef CHTTPChunkedDecoder D;

// Decodes input as far as it goes, gathering the data spans into body.
int decodeAll(CHTTPChunkedDecoder &decoder, const unsigned char *input, size_t length, size_t &used,
              std::string &body)
{
    int result = D::eResultMore;
    for (used = 0; result == D::eResultMore && used < length;) {
        size_t consumed = 0, dataSize = 0;
        const unsigned char *data = nullptr;
        result = decoder.Decode(input + used, length - used, consumed, data, dataSize);
        body.append(reinterpret_cast<const char *>(data), dataSize);
        used += consumed;
    }
    return result;
}

// The framing cases run through the request parser's table; these are the
// decoder's own bounds: name, input, error, the bytes after the end of the
// body or after the refused byte, and the body.
TEST(HTTPChunkedDecoderTest, LineAndTrailerBoundsWholeAndOneByteAPiece)
{
    const std::string line = "1;" + std::string(4094, 'x');           // 4096 bytes before CR LF
    const std::string field = "a:" + std::string(8186, 'v') + "\r\n"; // with the final CR LF: 8192
    const std::string head = "1\r\na\r\n0\r\n";
    std::string fields32;
    for (int i = 0; i < 32; ++i)
        fields32 += "a: b\r\n";
    const struct {
        const char *name;
        std::string input;
        int error;
        size_t tail;
    } cases[] = {
        {"chunk line at the bound", line + "\r\na\r\n0\r\n\r\n", D::eErrorNone, 0},
        {"chunk line above it", line + "x\r\na\r\n0\r\n\r\n", D::eErrorExtension, 10},
        {"32 trailer fields", head + fields32 + "\r\n", D::eErrorNone, 0},
        {"33 trailer fields", head + fields32 + "a: b\r\n\r\n", D::eErrorTrailer, 2},
        {"trailer section at 8 KiB", head + field + "\r\n", D::eErrorNone, 0},
        {"trailer section above it", head + "b" + field + "\r\n", D::eErrorTrailer, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const int expected = c.error == D::eErrorNone ? D::eResultDone : D::eResultError;
        const std::string body = c.error == D::eErrorExtension ? "" : "a";
        CHTTPChunkedDecoder whole, bytewise;
        size_t used = 0;
        std::string decoded;
        EXPECT_EQ(expected, decodeAll(whole, reinterpret_cast<const unsigned char *>(c.input.data()),
                                      c.input.size(), used, decoded));
        EXPECT_EQ(c.input.size() - c.tail, used);
        EXPECT_EQ(c.error, whole.GetError());
        EXPECT_EQ(body, decoded);
        // One byte per call, each in its own allocation, as a streamed body
        // arrives: nothing before the current piece may be read again.
        decoded.clear();
        int result = D::eResultMore;
        size_t offered = 0;
        while (offered < c.input.size() && result == D::eResultMore) {
            std::unique_ptr<unsigned char[]> byte(
                new unsigned char[1]{static_cast<unsigned char>(c.input[offered++])});
            result = decodeAll(bytewise, byte.get(), 1, used, decoded);
        }
        EXPECT_EQ(expected, result);
        EXPECT_EQ(c.input.size() - c.tail, offered);
        EXPECT_EQ(body, decoded);
        EXPECT_EQ(static_cast<long>(body.size()), bytewise.GetDecodedSize());
    }
}

} // namespace
