// Feeds arbitrary bytes to the WebSocket frame parser whole and in random
// slices with random pauses, and checks both against a plain model that reads
// the complete input frame by frame; checks every event against the limits
// and the protocol, and sends each message back through the frame writer.
#include "FuzzTargets.h"

#include "HTTP/Utf8Validator.h"
#include "HTTP/WebSocketFrameParser.h"
#include "HTTP/WebSocketFrameWriter.h"
#include "HTTP/WebSocketTypes.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using NVQ::CWebSocketFrameParser;

// UTF-8 by decoding each character whole, written apart from the validator.
bool referenceUtf8(const std::string &s)
{
    size_t i = 0;
    while (i < s.size()) {
        const unsigned char b = static_cast<unsigned char>(s[i]);
        size_t length = b < 0x80                ? 1
                        : b >= 0xC0 && b < 0xE0 ? 2
                        : b >= 0xE0 && b < 0xF0 ? 3
                        : b >= 0xF0 && b < 0xF8 ? 4
                                                : 0;
        if (length == 0 || i + length > s.size())
            return false;
        uint32_t cp = length == 1 ? b : b & (0x7F >> length);
        for (size_t k = 1; k < length; ++k) {
            const unsigned char c = static_cast<unsigned char>(s[i + k]);
            if ((c & 0xC0) != 0x80)
                return false;
            cp = cp << 6 | (c & 0x3F);
        }
        const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < least[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

struct SOutcome {
    std::string log;
    int result = CWebSocketFrameParser::eResultMore;
    size_t consumed = 0;
    int error = 0;
    std::vector<std::string> binaries; // not compared
    bool operator==(const SOutcome &o) const
    {
        return log == o.log && result == o.result && consumed == o.consumed && error == o.error;
    }
};

struct CSink : NVQ::IWebSocketFrameSink {
    std::string m_log;
    size_t m_maxMessage = 0;
    uint32_t m_random = 0; // nonzero: pause at random
    bool m_ended = false;
    std::vector<std::string> m_binaries;

    bool Next()
    {
        if (m_random == 0)
            return true;
        m_random ^= m_random << 13;
        m_random ^= m_random >> 17;
        m_random ^= m_random << 5;
        return (m_random & 3) != 0;
    }
    bool Record(const std::string &what, const void *data, size_t size)
    {
        NVQ_FUZZ_CHECK(!m_ended && data != nullptr);
        m_log += what + std::to_string(size) + ":" + std::string(static_cast<const char *>(data), size) + "|";
        return Next();
    }
    bool OnMessage(int opcode, const unsigned char *data, size_t size) override
    {
        NVQ_FUZZ_CHECK(opcode == NVQ::eWsOpText || opcode == NVQ::eWsOpBinary);
        NVQ_FUZZ_CHECK(size <= m_maxMessage);
        const std::string text(reinterpret_cast<const char *>(data), size);
        NVQ_FUZZ_CHECK(opcode == NVQ::eWsOpBinary || referenceUtf8(text));
        if (opcode == NVQ::eWsOpBinary)
            m_binaries.push_back(text);
        return Record(opcode == NVQ::eWsOpText ? "text:" : "binary:", data, size);
    }
    bool OnPing(const unsigned char *data, size_t size) override
    {
        NVQ_FUZZ_CHECK(size <= 125);
        return Record("ping:", data, size);
    }
    bool OnPong(const unsigned char *data, size_t size) override
    {
        NVQ_FUZZ_CHECK(size <= 125);
        return Record("pong:", data, size);
    }
    void OnClose(int code, const char *reason, size_t size) override
    {
        NVQ_FUZZ_CHECK(NVQ::IsWebSocketCloseCodeAllowed(code) ||
                       (code == NVQ::eWsCloseNoStatus && size == 0));
        NVQ_FUZZ_CHECK(size <= 123 && referenceUtf8(std::string(reason, size)));
        Record("close:" + std::to_string(code) + ":", reason, size);
        m_ended = true;
    }
};

// The same rules read off the whole input at once: each fault is found at the
// byte where a reader going forward first sees it.
SOutcome model(const uint8_t *d, size_t n, size_t maxFrame, size_t maxMessage)
{
    SOutcome out;
    const auto fail = [&out](int code, size_t at) {
        out.result = CWebSocketFrameParser::eResultError;
        out.error = code;
        out.consumed = at;
        return out;
    };
    int messageOpcode = 0;
    std::string message;
    NVQ::CUtf8Validator utf8;
    size_t pos = 0;
    out.consumed = n;
    while (pos < n) {
        const bool fin = (d[pos] & 0x80) != 0;
        const int opcode = d[pos] & 0x0F;
        const bool control = opcode >= 8;
        const bool known = opcode <= 2 || (opcode >= 8 && opcode <= 10);
        if ((d[pos] & 0x70) != 0 || !known || (control && !fin) || (opcode == 0 && messageOpcode == 0) ||
            ((opcode == 1 || opcode == 2) && messageOpcode != 0))
            return fail(1002, pos + 1);
        if (opcode == 1 || opcode == 2) {
            messageOpcode = opcode;
            message.clear();
        }
        if (pos + 1 == n)
            break;
        const unsigned length7 = d[pos + 1] & 0x7F;
        if ((d[pos + 1] & 0x80) == 0 || (control && length7 > 125))
            return fail(1002, pos + 2);
        const size_t extended = length7 == 126 ? 2 : length7 == 127 ? 8 : 0;
        if (pos + 2 + extended > n)
            break;
        uint64_t length = extended == 0 ? length7 : 0;
        for (size_t k = 0; k < extended; ++k)
            length = length << 8 | d[pos + 2 + k];
        if (extended == 8 && (length >> 63) != 0)
            return fail(1002, pos + 10);
        if (!control && (length > maxFrame || length > maxMessage - message.size()))
            return fail(1009, pos + 2 + extended);
        const size_t header = 2 + extended + 4;
        if (pos + header > n)
            break;
        const uint8_t *key = d + pos + header - 4;
        const size_t available = static_cast<size_t>(std::min<uint64_t>(length, n - pos - header));
        std::string payload(available, '\0');
        for (size_t k = 0; k < available; ++k)
            payload[k] = static_cast<char>(d[pos + header + k] ^ key[k % 4]);
        if (!control && messageOpcode == 1) {
            const size_t valid = utf8.Feed(payload.data(), payload.size());
            if (valid < available)
                return fail(1007, pos + header + valid + 1);
        }
        if (available < length)
            break;
        const size_t end = pos + header + available;
        if (opcode == 9 || opcode == 10) {
            out.log += (opcode == 9 ? "ping:" : "pong:") + std::to_string(available) + ":" + payload + "|";
        } else if (opcode == 8) {
            if (available == 1)
                return fail(1002, end);
            const int code = available == 0 ? 1005 : (uint8_t(payload[0]) << 8 | uint8_t(payload[1]));
            if (available > 0 && !NVQ::IsWebSocketCloseCodeAllowed(code))
                return fail(1002, end);
            const std::string reason = available == 0 ? "" : payload.substr(2);
            if (!NVQ::CUtf8Validator::IsValid(reason.data(), reason.size()))
                return fail(1007, end);
            out.log +=
                "close:" + std::to_string(code) + ":" + std::to_string(reason.size()) + ":" + reason + "|";
            out.result = CWebSocketFrameParser::eResultClosed;
            out.consumed = end;
            return out;
        } else {
            message += payload;
            if (fin) {
                if (messageOpcode == 1 && !utf8.IsComplete())
                    return fail(1007, end);
                out.log += (messageOpcode == 1 ? "text:" : "binary:") + std::to_string(message.size()) + ":" +
                           message + "|";
                messageOpcode = 0;
            }
        }
        pos = end;
    }
    return out;
}

// Feeds pieces of random length from an exact-size heap copy each; a paused
// parse gets the rest of its piece again.
SOutcome run(const uint8_t *d, size_t n, size_t maxFrame, size_t maxMessage, uint32_t random)
{
    CSink sink;
    sink.m_maxMessage = maxMessage;
    sink.m_random = random;
    CWebSocketFrameParser parser(sink, maxFrame, maxMessage);
    SOutcome out;
    size_t pos = 0;
    uint32_t slicer = random * 2654435761u + 1;
    while (pos < n) {
        size_t piece = n - pos;
        if (random != 0) {
            slicer = slicer * 1103515245u + 12345u;
            piece = std::min<size_t>(piece, 1 + (slicer >> 16) % ((slicer & 0x100) != 0 ? 4 : 300));
        }
        const std::vector<uint8_t> copy(d + pos, d + pos + piece);
        size_t consumed = 0;
        out.result = parser.Feed(copy.data(), copy.size(), consumed);
        NVQ_FUZZ_CHECK(consumed <= piece && parser.GetBufferSize() <= maxMessage);
        pos += consumed;
        // Freeing between calls must not lose a message in progress.
        if ((slicer & 0x200) != 0)
            parser.ReleaseBuffer();
        if (out.result == CWebSocketFrameParser::eResultMore)
            NVQ_FUZZ_CHECK(consumed == piece);
        else if (out.result == CWebSocketFrameParser::eResultPaused)
            NVQ_FUZZ_CHECK(consumed > 0 && random != 0);
        else
            break;
    }
    if (out.result == CWebSocketFrameParser::eResultPaused)
        out.result = CWebSocketFrameParser::eResultMore;
    out.log = sink.m_log;
    out.binaries = sink.m_binaries;
    out.consumed = pos;
    out.error = parser.GetErrorCode();
    NVQ_FUZZ_CHECK((out.error == 0) == (out.result != CWebSocketFrameParser::eResultError));
    // Nothing more after the end: no event, no byte.
    size_t consumed = 1;
    const int again = parser.Feed("\x89\x80\0\0\0\0", 6, consumed);
    if (out.result != CWebSocketFrameParser::eResultMore)
        NVQ_FUZZ_CHECK(again == out.result && consumed == 0 && sink.m_log == out.log);
    return out;
}

// A message sent back by the server, masked as a client would, parses to the
// same message.
void checkWriter(const SOutcome &outcome, size_t maxMessage)
{
    for (const std::string &message : outcome.binaries) {
        unsigned char header[NVQ::CWebSocketFrameWriter::c_maxHeaderSize];
        const size_t headerSize =
            NVQ::CWebSocketFrameWriter::WriteHeader(header, NVQ::eWsOpBinary, true, message.size());
        std::string wire(reinterpret_cast<char *>(header), headerSize);
        wire[1] = static_cast<char>(wire[1] | 0x80);
        wire.append(4, '\0');
        wire += message;
        CSink sink;
        sink.m_maxMessage = maxMessage;
        CWebSocketFrameParser parser(sink, message.size(), maxMessage);
        size_t consumed = 0;
        NVQ_FUZZ_CHECK(parser.Feed(wire.data(), wire.size(), consumed) == CWebSocketFrameParser::eResultMore);
        NVQ_FUZZ_CHECK(sink.m_binaries.size() == 1 && sink.m_binaries[0] == message);
    }
}

const size_t c_frameLimits[8] = {0, 1, 3, 16, 125, 126, 65536, SIZE_MAX};
const size_t c_messageLimits[8] = {0, 2, 16, 64, 200, 65536, 1 << 20, SIZE_MAX};

} // namespace

int FuzzWebSocketFrames(const uint8_t *data, size_t size)
{
    if (size < 2 || size > (1u << 16))
        return 0;
    const size_t maxFrame = c_frameLimits[data[0] & 7];
    const size_t maxMessage = c_messageLimits[(data[0] >> 3) & 7];
    const uint32_t random = data[1] + 1u;
    data += 2;
    size -= 2;

    const std::string raw(reinterpret_cast<const char *>(data), size);
    NVQ_FUZZ_CHECK(NVQ::CUtf8Validator::IsValid(data, size) == referenceUtf8(raw));

    const SOutcome whole = run(data, size, maxFrame, maxMessage, 0);
    NVQ_FUZZ_CHECK(whole == model(data, size, maxFrame, maxMessage));
    NVQ_FUZZ_CHECK(whole == run(data, size, maxFrame, maxMessage, random));
    checkWriter(whole, maxMessage);
    return 0;
}
