#include "HTTP/Utf8Validator.h"
#include "HTTP/WebSocketFrameParser.h"
#include "HTTP/WebSocketFrameWriter.h"
#include "HTTP/WebSocketHandshake.h"
#include "HTTP/WebSocketTypes.h"
#include "KZF_Base/Linux/KzfAssert.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using namespace std::string_literals;
using NVQ::CWebSocketFrameParser;

const int More = CWebSocketFrameParser::eResultMore;
const int Paused = CWebSocketFrameParser::eResultPaused;
const int Closed = CWebSocketFrameParser::eResultClosed;
const int Error = CWebSocketFrameParser::eResultError;

// A client frame: first byte b0, masked payload with the key of the RFC examples.
std::string frame(unsigned char b0, const std::string &payload)
{
    const char key[] = "\x37\xfa\x21\x3d";
    std::string out(1, static_cast<char>(b0));
    const size_t n = payload.size();
    if (n < 126) {
        out += static_cast<char>(0x80 | n);
    } else {
        const int bytes = n <= 0xFFFF ? 2 : 8;
        out += static_cast<char>(bytes == 2 ? 0xFE : 0xFF);
        for (int i = bytes - 1; i >= 0; --i)
            out += static_cast<char>(static_cast<uint64_t>(n) >> (8 * i));
    }
    out.append(key, 4);
    for (size_t i = 0; i < n; ++i)
        out += static_cast<char>(payload[i] ^ key[i % 4]);
    return out;
}

std::string closeWith(int code, const std::string &reason = "")
{
    return frame(0x88, std::string{static_cast<char>(code >> 8), static_cast<char>(code)} + reason);
}

struct CRecorder : NVQ::IWebSocketFrameSink {
    std::string m_log;
    bool m_pause = false;
    bool Record(const char *what, const void *data, size_t size)
    {
        m_log += what + std::string(static_cast<const char *>(data), size) + "|";
        return !m_pause;
    }
    bool OnMessage(int opcode, const unsigned char *data, size_t size) override
    {
        return Record(opcode == NVQ::eWsOpText ? "text:" : "binary:", data, size);
    }
    bool OnPing(const unsigned char *data, size_t size) override { return Record("ping:", data, size); }
    bool OnPong(const unsigned char *data, size_t size) override { return Record("pong:", data, size); }
    void OnClose(int code, const char *reason, size_t size) override
    {
        Record(("close:" + std::to_string(code) + ":").c_str(), reason, size);
    }
};

struct SFrameCase {
    const char *name;
    std::string wire;
    std::string events;
    int result;
    int error;
    // Bytes at the end of wire that are never consumed.
    size_t unread;
    size_t maxFrame = 1 << 17;
    size_t maxMessage = 1 << 17;
};

// Feeds wire cut at the given ascending positions (the last is its size), each
// piece an exact-size heap copy; a paused parse is fed the rest of its piece.
void feed(const SFrameCase &c, const std::vector<size_t> &cuts, bool pause, const std::string &mode)
{
    SCOPED_TRACE(std::string(c.name) + ", " + mode);
    CRecorder sink;
    sink.m_pause = pause;
    CWebSocketFrameParser parser(sink, c.maxFrame, c.maxMessage);
    size_t pos = 0;
    int result = More;
    for (size_t cut : cuts) {
        while (pos < cut && (result == More || result == Paused)) {
            const std::vector<unsigned char> piece(c.wire.begin() + pos, c.wire.begin() + cut);
            size_t consumed = 0;
            result = parser.Feed(piece.data(), piece.size(), consumed);
            ASSERT_TRUE(result == More ? consumed == piece.size() : consumed > 0 && consumed <= piece.size());
            ASSERT_TRUE(pause || result != Paused);
            pos += consumed;
        }
    }
    EXPECT_EQ(c.result, result == Paused ? More : result);
    EXPECT_EQ(c.wire.size() - c.unread, pos);
    EXPECT_EQ(c.events, sink.m_log);
    EXPECT_EQ(c.error, parser.GetErrorCode());
    // Closed and Error are sticky.
    size_t consumed = 1;
    EXPECT_EQ(c.result, parser.Feed("\x89\x80", 2, consumed));
    EXPECT_EQ(c.result == More ? 2u : 0u, consumed);
}

void feedAllWays(const SFrameCase &c)
{
    const size_t n = c.wire.size();
    feed(c, {n}, false, "whole");
    feed(c, {n}, true, "whole, pausing after each frame");
    // Every offset; for the long rows every offset near both ends.
    for (size_t split = 0; split <= n; split += split < 300 || n - split < 300 ? 1 : 997)
        feed(c, {split, n}, false, "split at " + std::to_string(split));
    std::vector<size_t> bytes;
    for (size_t i = 1; i <= n; ++i)
        bytes.push_back(i);
    feed(c, bytes, false, "byte by byte");
}

TEST(WebSocketCodecTest, ParserDeliversFramesAndRefusesFaults)
{
    std::string bin256, bin64k;
    for (int i = 0; i < 256; ++i)
        bin256 += static_cast<char>(i);
    for (int i = 0; i < 65536; ++i)
        bin64k += static_cast<char>(i * 7);
    const std::string key = "\x37\xfa\x21\x3d";
    std::vector<SFrameCase> cases = {
        {"masked text", "\x81\x85\x37\xfa\x21\x3d\x7f\x9f\x4d\x51\x58", "text:Hello|", More, 0, 0},
        {"fragmented", frame(0x01, "Hel") + frame(0x80, "lo"), "text:Hello|", More, 0, 0},
        {"ping between fragments",
         frame(0x02, "Hel") + frame(0x89, "x") + frame(0x00, "") + frame(0x80, "lo"), "ping:x|binary:Hello|",
         More, 0, 0},
        {"masked pong", "\x8a\x85\x37\xfa\x21\x3d\x7f\x9f\x4d\x51\x58", "pong:Hello|", More, 0, 0},
        {"empty frames", "\x89\x80" + key + frame(0x82, "") + frame(0x81, ""), "ping:|binary:|text:|", More,
         0, 0},
        {"256 bytes", frame(0x82, bin256), "binary:" + bin256 + "|", More, 0, 0},
        {"64 KiB", frame(0x82, bin64k), "binary:" + bin64k + "|", More, 0, 0},
        {"non-minimal length", "\x82\xFE\x00\x02"s + key + "ab", "binary:\x56\x98|", More, 0, 0},
        {"fragments end inside a character",
         frame(0x01, "\xCE\xBA\xE1") + frame(0x00, "\xBD\xB9") + frame(0x80, "\xCF"), "", Error, 1007, 0},
        {"text across fragments", frame(0x01, "\xCE\xBA\xE1") + frame(0x00, "\xBD\xB9") + frame(0x80, "!"),
         "text:\xCE\xBA\xE1\xBD\xB9!|", More, 0, 0},
        {"close, bytes after it unread", closeWith(1000, "bye") + "\x81", "close:1000:bye|", Closed, 0, 1},
        {"empty close", "\x88\x80" + key, "close:1005:|", Closed, 0, 0},
        {"unmasked", "\x89\x05Hello", "", Error, 1002, 5},
        {"RSV1", "\xC1\x80" + key, "", Error, 1002, 5},
        {"RSV3", "\x91\x80" + key, "", Error, 1002, 5},
        {"opcode 3", "\x83\x80" + key, "", Error, 1002, 5},
        {"opcode 0xB", "\x8B\x80" + key, "", Error, 1002, 5},
        {"fragmented ping", "\x09\x80" + key, "", Error, 1002, 5},
        {"126-byte pong", "\x8A\xFE\x00\x7E"s, "", Error, 1002, 2},
        {"continuation first", frame(0x80, "a"), "", Error, 1002, 6},
        {"text inside text", frame(0x01, "a") + frame(0x81, "b"), "", Error, 1002, 6},
        {"binary inside text", frame(0x01, "a") + frame(0x89, "") + frame(0x02, "b"), "ping:|", Error, 1002,
         6},
        {"frame limit", frame(0x82, std::string(11, 'x')), "", Error, 1009, 15, 10, 100},
        {"frame limit, 16-bit length", "\x82\xFE\x01\x00"s, "", Error, 1009, 0, 255},
        {"message limit", frame(0x02, "12345678") + frame(0x80, "123456789"), "", Error, 1009, 13, 10, 16},
        {"64-bit length top bit", "\x82\xFF\x80\0\0\0\0\0\0\0"s + key, "", Error, 1002, 4},
        {"bad byte in first fragment", frame(0x01, "a\xC0\x80") + frame(0x80, "b"), "", Error, 1007, 8},
        {"surrogate", frame(0x81, "\xED\xA0\x80"), "", Error, 1007, 1},
        {"text ends inside a character", frame(0x81, "\xE2\x82"), "", Error, 1007, 0},
        {"one-byte close", frame(0x88, "\x03"), "", Error, 1002, 0},
        {"close reason not UTF-8", closeWith(1000, "\xFF"), "", Error, 1007, 0},
    };
    for (int code : {1000, 1003, 1007, 1011, 3000, 4999})
        cases.push_back(
            {"allowed code", closeWith(code), "close:" + std::to_string(code) + ":|", Closed, 0, 0});
    for (int code : {0, 999, 1004, 1005, 1006, 1012, 1015, 2999, 5000, 65535})
        cases.push_back({"refused code", closeWith(code, "x"), "", Error, 1002, 0});
    for (const SFrameCase &c : cases)
        feedAllWays(c);
}

TEST(WebSocketCodecTest, MessageBufferGrowsFromDataNotFromTheLengthField)
{
    CRecorder sink;
    CWebSocketFrameParser parser(sink, 1 << 30, 1 << 30);
    const std::string head = "\x82\xFF\x00\x00\x00\x00\x3F\xFF\xFF\xFF\x00\x00\x00\x00"s;
    size_t consumed = 0;
    EXPECT_EQ(More, parser.Feed(head.data(), head.size(), consumed));
    EXPECT_EQ(More, parser.Feed("abcd", 4, consumed));
    EXPECT_GE(256u, parser.GetBufferSize());
    parser.ReleaseBuffer(); // a message is in progress: kept
    EXPECT_LT(0u, parser.GetBufferSize());
    parser.Reset();
    parser.ReleaseBuffer();
    EXPECT_EQ(0u, parser.GetBufferSize());
    const std::string ping = frame(0x89, "x");
    EXPECT_EQ(More, parser.Feed(ping.data(), ping.size(), consumed));
    EXPECT_EQ("ping:x|", sink.m_log);
}

TEST(WebSocketCodecTest, Utf8ValidatorAtEverySplit)
{
    struct SCase {
        std::string text;
        int bad; // index of the first refused byte, -1 when none
        bool complete;
    };
    const SCase cases[] = {
        {"", -1, true},
        {"\xCE\xBA\xE1\xBD\xB9\xCF\x83\xCE\xBC\xCE\xB5", -1, true},
        {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xED\x9F\xBF\xEE\x80\x80", -1, true},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", -1, true},
        {"abcdefghijklmnopq\xC3\xA9rstuvwxyz0123456789\x80", 38, false},
        {"\xE2\x82", -1, false},
        {"\xF0\x90\x80", -1, false},
        {"\xC0\x80", 0, false},
        {"\xC1\xBF", 0, false},
        {"\xE0\x9F\xBF", 1, false},
        {"\xF0\x8F\xBF\xBF", 1, false},
        {"\xED\xA0\x80", 1, false},
        {"\xED\xBF\xBF", 1, false},
        {"\xF4\x90\x80\x80", 1, false},
        {"\xF5\x80\x80\x80", 0, false},
        {"a\xFF", 1, false},
        {"\x80", 0, false},
        {"\xC2\x41", 1, false},
        {"\xE1\x80\xC0", 2, false},
    };
    for (const SCase &c : cases) {
        const size_t n = c.text.size();
        const size_t accepted = c.bad < 0 ? n : static_cast<size_t>(c.bad);
        EXPECT_EQ(c.bad < 0 && c.complete, NVQ::CUtf8Validator::IsValid(c.text.data(), n));
        for (size_t step = 1; step <= 2; ++step) {
            for (size_t split = 0; split <= n; ++split) {
                NVQ::CUtf8Validator validator;
                size_t total = validator.Feed(c.text.data(), split);
                for (size_t i = split; i < n && total == i; i += step)
                    total += validator.Feed(c.text.data() + i, std::min(step, n - i));
                EXPECT_EQ(accepted, total) << c.text << " split " << split << " step " << step;
                EXPECT_EQ(c.bad >= 0, validator.HasFailed()) << c.text;
                EXPECT_EQ(c.bad < 0 && c.complete, validator.IsComplete()) << c.text;
            }
        }
    }
}

TEST(WebSocketCodecTest, WriterBuildsServerFrames)
{
    typedef NVQ::CWebSocketFrameWriter W;
    struct SCase {
        int opcode;
        bool fin;
        uint64_t size;
        std::string header;
    };
    const SCase cases[] = {
        {NVQ::eWsOpText, true, 5, "\x81\x05"},
        {NVQ::eWsOpBinary, true, 126, "\x82\x7E\x00\x7E"s},
        {NVQ::eWsOpBinary, false, 65535, "\x02\x7E\xFF\xFF"},
        {NVQ::eWsOpContinuation, true, 65536, "\x80\x7F\0\0\0\0\0\x01\0\0"s},
        {NVQ::eWsOpText, true, 0x0102030405060708ull, "\x81\x7F\x01\x02\x03\x04\x05\x06\x07\x08"},
        {NVQ::eWsOpPong, true, 125, "\x8A\x7D"},
        {NVQ::eWsOpPing, false, 0, ""},
        {NVQ::eWsOpPing, true, 126, ""},
        {3, true, 0, ""},
    };
    const int savedMode = GetKzfAssertMode();
    SetKzfAssertMode(1); // the refused rows are caller errors; see the harmless path
    for (const SCase &c : cases) {
        unsigned char out[W::c_maxHeaderSize];
        const size_t n = W::WriteHeader(out, c.opcode, c.fin, c.size);
        EXPECT_EQ(c.header, std::string(reinterpret_cast<char *>(out), n)) << c.opcode << " " << c.size;
    }
    SetKzfAssertMode(savedMode);

    unsigned char out[W::c_maxControlFrameSize];
    const auto text = [&out](size_t n) { return std::string(reinterpret_cast<char *>(out), n); };
    EXPECT_EQ("\x88\x05\x03\xE8"
              "bye",
              text(W::WriteClose(out, 1000, "bye", 3)));
    EXPECT_EQ("\x88\x00"s, text(W::WriteClose(out, 1005, "lost", 4)));
    EXPECT_EQ("\x89\x05Hello", text(W::WritePing(out, "Hello", 5)));
    EXPECT_EQ("\x8A\x00"s, text(W::WritePong(out, "", 0)));
    // 122 + a two-byte character exceeds 123: the whole character goes.
    const std::string reason = std::string(122, 'a') + "\xC3\xA9";
    EXPECT_EQ("\x88\x7C\x0F\xA0" + std::string(122, 'a'), text(W::WriteClose(out, 4000, reason.data(), 124)));
}

TEST(WebSocketCodecTest, HandshakeKeys)
{
    EXPECT_EQ("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=",
              NVQ::CWebSocketHandshake::ComputeAcceptKey("dGhlIHNhbXBsZSBub25jZQ=="));
    EXPECT_TRUE(NVQ::CWebSocketHandshake::IsValidClientKey("dGhlIHNhbXBsZSBub25jZQ=="));
    for (const char *key : {"dGhlIHNhbXBsZSBub25jZQ", "dGhlIHNhbXBsZSBub25jZR==", "AAAAAAAAAAAAAAAAAAAAAAAA",
                            "AAAAAAAAAAAAAAAAAAAA", " dGhlIHNhbXBsZSBub25jZQ==", ""})
        EXPECT_FALSE(NVQ::CWebSocketHandshake::IsValidClientKey(key)) << key;
}

} // namespace
