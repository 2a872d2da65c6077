#include "HTTP/HTTPChunkedDecoder.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace
{

using NVQ::CHTTPChunkedDecoder;

// The framing cases run through the request parser's table; these are the
// decoder's own bounds.
struct SBoundCase {
    const char *name;
    std::string input;
    int error;
    // Bytes after the end of the body, or after the refused byte.
    size_t tail;
    std::string body;
};

std::string Repeat(const std::string &text, int times)
{
    std::string out;
    for (int i = 0; i < times; ++i)
        out += text;
    return out;
}

// Decodes input as far as it goes, gathering the data spans.
int DecodeAll(CHTTPChunkedDecoder &decoder, const unsigned char *input, size_t length, size_t &used,
              std::string &body)
{
    int result = CHTTPChunkedDecoder::eResultMore;
    used = 0;
    while (result == CHTTPChunkedDecoder::eResultMore && used < length) {
        size_t consumed = 0;
        const unsigned char *data = nullptr;
        size_t dataSize = 0;
        result = decoder.Decode(input + used, length - used, consumed, data, dataSize);
        body.append(reinterpret_cast<const char *>(data), dataSize);
        used += consumed;
    }
    return result;
}

TEST(HTTPChunkedDecoderTest, LineAndTrailerBoundsWholeAndOneByteAPiece)
{
    const std::string line = "1;" + std::string(4094, 'x');           // 4096 bytes before CR LF
    const std::string field = "a:" + std::string(8186, 'v') + "\r\n"; // with the final CR LF: 8192
    const std::string head = "1\r\na\r\n0\r\n";
    // clang-format off
    const SBoundCase cases[] = {
        {"chunk line at the bound", line + "\r\na\r\n0\r\n\r\n", CHTTPChunkedDecoder::eErrorNone, 0, "a"},
        {"chunk line above it", line + "x\r\na\r\n0\r\n\r\n", CHTTPChunkedDecoder::eErrorExtension, 10, ""},
        {"32 trailer fields", head + Repeat("a: b\r\n", 32) + "\r\n", CHTTPChunkedDecoder::eErrorNone, 0, "a"},
        {"33 trailer fields", head + Repeat("a: b\r\n", 33) + "\r\n", CHTTPChunkedDecoder::eErrorTrailer, 2, "a"},
        {"trailer section at 8 KiB", head + field + "\r\n", CHTTPChunkedDecoder::eErrorNone, 0, "a"},
        {"trailer section above it", head + "b" + field + "\r\n", CHTTPChunkedDecoder::eErrorTrailer, 0, "a"},
    };
    // clang-format on
    for (const SBoundCase &c : cases) {
        SCOPED_TRACE(c.name);
        const int expected = c.error == CHTTPChunkedDecoder::eErrorNone ? CHTTPChunkedDecoder::eResultDone
                                                                        : CHTTPChunkedDecoder::eResultError;
        CHTTPChunkedDecoder whole;
        size_t used = 0;
        std::string body;
        EXPECT_EQ(expected, DecodeAll(whole, reinterpret_cast<const unsigned char *>(c.input.data()),
                                      c.input.size(), used, body));
        EXPECT_EQ(c.input.size() - c.tail, used);
        EXPECT_EQ(c.error, whole.GetError());
        EXPECT_EQ(c.body, body);

        // One byte per call, each in its own allocation, as a streamed body
        // arrives: nothing before the current piece may be read again.
        CHTTPChunkedDecoder bytewise;
        body.clear();
        int result = CHTTPChunkedDecoder::eResultMore;
        size_t offered = 0;
        while (offered < c.input.size() && result == CHTTPChunkedDecoder::eResultMore) {
            std::unique_ptr<unsigned char[]> byte(new unsigned char[1]);
            byte[0] = static_cast<unsigned char>(c.input[offered++]);
            result = DecodeAll(bytewise, byte.get(), 1, used, body);
        }
        EXPECT_EQ(expected, result);
        EXPECT_EQ(c.input.size() - c.tail, offered);
        EXPECT_EQ(c.body, body);
        EXPECT_EQ(static_cast<long>(c.body.size()), bytewise.GetDecodedSize());
    }
}

} // namespace
