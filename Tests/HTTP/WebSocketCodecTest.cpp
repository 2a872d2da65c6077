#include "HTTP/Utf8Validator.h"
#include "HTTP/WebSocketFrameParser.h"
#include "HTTP/WebSocketFrameWriter.h"
#include "HTTP/WebSocketHandshake.h"
#include "HTTP/WebSocketTypes.h"
#include "KZF_Base/Linux/KzfAssert.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

namespace
{

using namespace std::string_literals;
using NVQ::CWebSocketFrameParser;
typedef NVQ::CWebSocketFrameWriter W;

typedef CWebSocketFrameParser P;
const int More = P::eResultMore, Paused = P::eResultPaused, Closed = P::eResultClosed,
          Error = P::eResultError;
// The masking key of the RFC examples.
const std::string key = "\x37\xfa\x21\x3d";

// A client frame: the writer's header for b0, with the mask bit and key
// added, then the masked payload.
std::string frame(unsigned char b0, const std::string &payload)
{
    unsigned char header[W::c_maxHeaderSize];
    const size_t n = W::WriteHeader(header, b0 & 0x0F, (b0 & 0x80) != 0, payload.size());
    std::string out = std::string(reinterpret_cast<char *>(header), n) + key;
    out[1] = static_cast<char>(out[1] | 0x80);
    for (size_t i = 0; i < payload.size(); ++i)
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
    bool Record(const std::string &what, const void *data, size_t size)
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
        Record("close:" + std::to_string(code) + ":", reason, size);
    }
};

struct SFrameCase {
    const char *name;
    std::string wire;
    std::string events;
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
    size_t pos = 0, consumed = 0;
    int result = More;
    for (size_t cut : cuts) {
        while (pos < cut && (result == More || result == Paused)) {
            const std::vector<unsigned char> piece(c.wire.begin() + pos, c.wire.begin() + cut);
            result = parser.Feed(piece.data(), piece.size(), consumed);
            ASSERT_TRUE(result == More ? consumed == piece.size()
                                       : consumed > 0 && (pause || result != Paused));
            pos += consumed;
            // The message buffer grows with the data, not with a length field.
            ASSERT_GE(std::max<size_t>(256, 2 * pos), parser.GetBufferSize());
        }
    }
    const int expected = c.error != 0 ? Error : c.events.find("close:") != std::string::npos ? Closed : More;
    EXPECT_EQ(expected, result == Paused ? More : result);
    EXPECT_EQ(c.wire.size() - c.unread, pos);
    EXPECT_EQ(c.events, sink.m_log);
    EXPECT_EQ(c.error, parser.GetErrorCode());
}

TEST(WebSocketCodecTest, ParserDeliversFramesAndRefusesFaults)
{
    std::string bin64k;
    for (int i = 0; i < 65536; ++i)
        bin64k += static_cast<char>(i * 7);
    const std::string bin256 = bin64k.substr(0, 256);
    const std::string utf8 = "\xCE\xBA\xE1\xBD\xB9"; // two characters, the second cut between fragments
    std::vector<SFrameCase> cases = {
        {"masked text", "\x81\x85\x37\xfa\x21\x3d\x7f\x9f\x4d\x51\x58", "text:Hello|", 0, 0},
        {"fragmented", frame(0x01, "Hel") + frame(0x80, "lo"), "text:Hello|", 0, 0},
        {"ping inside", frame(0x02, "Hel") + frame(0x89, "x") + frame(0, "") + frame(0x80, "lo"),
         "ping:x|binary:Hello|", 0, 0},
        {"masked pong", "\x8a\x85\x37\xfa\x21\x3d\x7f\x9f\x4d\x51\x58", "pong:Hello|", 0, 0},
        {"empty frames", frame(0x89, "") + frame(0x82, "") + frame(0x81, ""), "ping:|binary:|text:|", 0, 0},
        {"256 bytes", frame(0x82, bin256), "binary:" + bin256 + "|", 0, 0},
        {"64 KiB", frame(0x82, bin64k), "binary:" + bin64k + "|", 0, 0},
        {"1 GiB announced, 4 bytes sent", "\x82\xFF\0\0\0\0\x3F\xFF\xFF\xFF"s + key + "abcd", "", 0, 0,
         1 << 30, 1 << 30},
        {"non-minimal length", "\x82\xFE\x00\x02"s + key + "ab", "binary:\x56\x98|", 0, 0},
        {"text across fragments",
         frame(0x01, utf8.substr(0, 3)) + frame(0, utf8.substr(3)) + frame(0x80, "!"), "text:" + utf8 + "!|",
         0, 0},
        {"close, bytes after it unread", closeWith(1000, "bye") + "\x81", "close:1000:bye|", 0, 1},
        {"empty close", frame(0x88, ""), "close:1005:|", 0, 0},
        {"unmasked", "\x89\x05Hello", "", 1002, 5},
        {"126-byte pong", "\x8A\xFE\x00\x7E"s, "", 1002, 2},
        {"continuation first", frame(0x80, "a"), "", 1002, 6},
        {"text inside text", frame(0x01, "a") + frame(0x81, "b"), "", 1002, 6},
        {"binary inside text", frame(0x01, "a") + frame(0x89, "") + frame(0x02, "b"), "ping:|", 1002, 6},
        {"frame limit", frame(0x82, std::string(11, 'x')), "", 1009, 15, 10, 100},
        {"frame limit, 16-bit length", "\x82\xFE\x01\x00"s, "", 1009, 0, 255},
        {"message limit", frame(0x02, "12345678") + frame(0x80, "123456789"), "", 1009, 13, 10, 16},
        {"64-bit length top bit", "\x82\xFF\x80\0\0\0\0\0\0\0"s + key, "", 1002, 4},
        {"bad byte in first fragment", frame(0x01, "a\xC0\x80") + frame(0x80, "b"), "", 1007, 8},
        {"surrogate", frame(0x81, "\xED\xA0\x80"), "", 1007, 1},
        {"text ends inside a character", frame(0x01, utf8.substr(0, 3)) + frame(0x80, ""), "", 1007, 0},
        {"one-byte close", frame(0x88, "\x03"), "", 1002, 0},
        {"close reason not UTF-8", closeWith(1000, "\xFF"), "", 1007, 0},
    };
    // RSV1, RSV3, opcodes 3 and 0xB, a ping without FIN.
    for (const char *first : {"\xC1", "\x91", "\x83", "\x8B", "\x09"})
        cases.push_back({"bad first byte", first + "\x80"s + key, "", 1002, 5});
    for (int code : {1000, 1003, 1007, 1011, 3000, 4999})
        cases.push_back({"allowed code", closeWith(code), "close:" + std::to_string(code) + ":|", 0, 0});
    for (int code : {0, 999, 1004, 1005, 1006, 1012, 1015, 2999, 5000, 65535})
        cases.push_back({"refused code", closeWith(code, "x"), "", 1002, 0});
    for (const SFrameCase &c : cases) {
        const size_t n = c.wire.size();
        std::vector<size_t> bytes(n);
        std::iota(bytes.begin(), bytes.end(), 1);
        feed(c, bytes, false, "byte by byte");
        feed(c, {n}, true, "whole, pausing after each frame");
        // Every offset (0: whole); in the 64 KiB row every offset near its ends.
        for (size_t split = 0; split <= n; split += split < 300 || n - split < 300 ? 1 : 997)
            feed(c, {split, n}, false, "split at " + std::to_string(split));
    }
}

TEST(WebSocketCodecTest, Utf8ValidatorAtEverySplit)
{
    // The index of the first refused byte of each text; -1 valid, -2 valid but cut inside a character.
    const std::pair<int, std::vector<std::string>> cases[] = {
        {-1,
         {"", "\xCE\xBA\xE1\xBD\xB9\xCF\x83\xCE\xBC\xCE\xB5", "\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF",
          "\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"}},
        {-2, {"\xE2\x82", "\xF0\x90\x80"}},
        {0, {"\xC0\x80", "\xC1\xBF", "\xF5\x80\x80\x80", "\x80"}},
        {1,
         {"\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "a\xFF",
          "\xC2\x41"}},
        {2, {"\xE1\x80\xC0"}},
        {38, {"abcdefghijklmnopq\xC3\xA9rstuvwxyz0123456789\x80"}}};
    for (const auto &row : cases) {
        const int bad = row.first;
        for (const std::string &text : row.second) {
            const size_t n = text.size();
            EXPECT_EQ(bad == -1, NVQ::CUtf8Validator::IsValid(text.data(), n)) << text;
            // Split anywhere, then the rest byte by byte or at once.
            for (size_t step : {size_t(1), n + 1}) {
                for (size_t split = 0; split <= n; ++split) {
                    NVQ::CUtf8Validator v;
                    size_t total = v.Feed(text.data(), split);
                    for (size_t i = split; i < n && total == i; i += step)
                        total += v.Feed(text.data() + i, std::min(step, n - i));
                    EXPECT_EQ(bad < 0 ? n : size_t(bad), total) << text << " split " << split;
                    EXPECT_TRUE(v.HasFailed() == (bad >= 0) && v.IsComplete() == (bad == -1)) << text;
                }
            }
        }
    }
}

TEST(WebSocketCodecTest, WriterBuildsServerFramesAndHandshakeKeys)
{
    unsigned char out[W::c_maxControlFrameSize];
    const auto text = [&out](size_t n) { return std::string(reinterpret_cast<char *>(out), n); };
    const auto header = [&](int opcode, bool fin, uint64_t size) {
        return text(W::WriteHeader(out, opcode, fin, size));
    };
    const std::string reason = std::string(122, 'a') + "\xC3\xA9";
    const int savedMode = GetKzfAssertMode();
    SetKzfAssertMode(1); // caller errors: check the harmless path
    // clang-format off
    const std::pair<std::string, std::string> cases[] = {
        {"\x02\x7D", header(NVQ::eWsOpBinary, false, 125)},
        {"\x80\x7E\xFF\xFF", header(NVQ::eWsOpContinuation, true, 65535)},
        {"\x81\x7F\x01\x02\x03\x04\x05\x06\x07\x08", header(NVQ::eWsOpText, true, 0x0102030405060708ull)},
        {"", header(NVQ::eWsOpPing, false, 0)}, {"", header(NVQ::eWsOpPong, true, 126)}, {"", header(3, true, 0)},
        {"\x88\x05\x03\xE8"s + "bye", text(W::WriteClose(out, 1000, "bye", 3))},
        {"\x88\x00"s, text(W::WriteClose(out, 1005, "lost", 4))},
        {"\x89\x05Hello", text(W::WritePing(out, "Hello", 5))},
        {"\x8A\x00"s, text(W::WritePong(out, "", 0))},
        // 122 + a two-byte character exceeds 123: the whole character goes.
        {"\x88\x7C\x0F\xA0" + std::string(122, 'a'), text(W::WriteClose(out, 4000, reason.data(), 124))},
        {"s3pPLMBiTxaQ9kYGzzhZRbK+xOo=", NVQ::CWebSocketHandshake::ComputeAcceptKey("dGhlIHNhbXBsZSBub25jZQ==")},
    };
    // clang-format on
    SetKzfAssertMode(savedMode);
    for (const auto &c : cases)
        EXPECT_EQ(c.first, c.second);
    EXPECT_TRUE(NVQ::CWebSocketHandshake::IsValidClientKey("dGhlIHNhbXBsZSBub25jZQ=="));
    for (const char *key : {"dGhlIHNhbXBsZSBub25jZQ", "dGhlIHNhbXBsZSBub25jZR==", "AAAAAAAAAAAAAAAAAAAAAAAA",
                            "AAAAAAAAAAAAAAAAAAAA", " dGhlIHNhbXBsZSBub25jZQ==", ""})
        EXPECT_FALSE(NVQ::CWebSocketHandshake::IsValidClientKey(key)) << key;
}

} // namespace
