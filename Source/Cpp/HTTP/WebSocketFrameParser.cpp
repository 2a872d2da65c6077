#include "HTTP/WebSocketFrameParser.h"

#include "HTTP/WebSocketTypes.h"

#include <cstring>
#include <new>

namespace NVQ
{

namespace
{

// XORs the mask into n payload bytes that start at payload offset `offset`.
// The key is laid out twice in memory order from the right phase, so one
// 64-bit XOR covers eight bytes whatever the byte order; memcpy keeps the
// loads and stores legal at any alignment and compiles to single moves.
void unmask(const unsigned char *in, unsigned char *out, size_t n, const unsigned char *key, uint64_t offset)
{
    unsigned char pattern[8];
    for (unsigned j = 0; j < 8; ++j)
        pattern[j] = key[(offset + j) & 3];
    uint64_t word;
    std::memcpy(&word, pattern, 8);
    size_t i = 0;
    for (; n - i >= 8; i += 8) {
        uint64_t v;
        std::memcpy(&v, in + i, 8);
        v ^= word;
        std::memcpy(out + i, &v, 8);
    }
    for (; i < n; ++i)
        out[i] = static_cast<unsigned char>(in[i] ^ pattern[i & 7]);
}

bool isControl(int opcode)
{
    return (opcode & 8) != 0;
}

} // namespace

CWebSocketFrameParser::CWebSocketFrameParser(IWebSocketFrameSink &sink, size_t maxFramePayload,
                                             size_t maxMessageSize)
    : m_sink(sink), m_maxFramePayload(maxFramePayload), m_maxMessageSize(maxMessageSize), m_messageCapacity(0)
{
    Reset();
}

CWebSocketFrameParser::~CWebSocketFrameParser() {}

void CWebSocketFrameParser::Reset()
{
    m_state = eStateHeader;
    m_errorCode = 0;
    m_headerUsed = 0;
    m_headerSize = 2;
    m_opcode = 0;
    m_fin = false;
    m_payloadLeft = 0;
    m_payloadDone = 0;
    m_messageOpcode = 0;
    m_messageSize = 0;
    m_utf8.Reset();
    m_controlSize = 0;
}

void CWebSocketFrameParser::ReleaseBuffer()
{
    if (m_messageOpcode == 0) {
        m_pMessage.reset();
        m_messageCapacity = 0;
    }
}

int CWebSocketFrameParser::Feed(const void *data, size_t size, size_t &consumed)
{
    consumed = 0;
    if (m_state == eStateClosed)
        return eResultClosed;
    if (m_state == eStateError)
        return eResultError;
    const unsigned char *p = static_cast<const unsigned char *>(data);
    size_t i = 0;
    while (i < size) {
        int result = eResultMore;
        if (m_state == eStateHeader) {
            m_header[m_headerUsed++] = p[i++];
            if (const int code = CheckHeaderByte()) {
                result = Fail(code);
            } else if (m_headerUsed == m_headerSize) {
                m_state = eStatePayload;
                m_payloadDone = 0;
                if (m_payloadLeft == 0)
                    result = EndFrame();
            }
        } else {
            const size_t n = size - i < m_payloadLeft ? size - i : static_cast<size_t>(m_payloadLeft);
            unsigned char *target;
            if (isControl(m_opcode)) {
                target = m_control + m_controlSize;
                m_controlSize += n;
            } else {
                if (!Reserve(m_messageSize + n)) {
                    consumed = i;
                    return Fail(eWsCloseInternalError);
                }
                target = m_pMessage.get() + m_messageSize;
                m_messageSize += n;
            }
            unmask(p + i, target, n, m_header + m_headerSize - 4, m_payloadDone);
            if (m_messageOpcode == eWsOpText && !isControl(m_opcode)) {
                // Checked as it arrives: a bad fragment fails before the rest
                // of the message is waited for.
                const size_t valid = m_utf8.Feed(target, n);
                if (valid < n) {
                    consumed = i + valid + 1;
                    return Fail(eWsCloseInvalidData);
                }
            }
            i += n;
            m_payloadDone += n;
            m_payloadLeft -= n;
            if (m_payloadLeft == 0)
                result = EndFrame();
        }
        if (result != eResultMore) {
            consumed = i;
            return result;
        }
    }
    consumed = size;
    return eResultMore;
}

int CWebSocketFrameParser::Fail(int code)
{
    m_state = eStateError;
    m_errorCode = code;
    return eResultError;
}

int CWebSocketFrameParser::CheckHeaderByte()
{
    const size_t index = m_headerUsed - 1;
    const unsigned char b = m_header[index];
    if (index == 0) {
        m_fin = (b & 0x80) != 0;
        m_opcode = b & 0x0F;
        // No extension is negotiated, so no reserved bit may be set.
        if ((b & 0x70) != 0)
            return eWsCloseProtocolError;
        switch (m_opcode) {
        case eWsOpContinuation:
            return m_messageOpcode == 0 ? eWsCloseProtocolError : 0;
        case eWsOpText:
        case eWsOpBinary:
            if (m_messageOpcode != 0)
                return eWsCloseProtocolError;
            m_messageOpcode = m_opcode;
            // The validator needs no reset: a text message either ended on a
            // character boundary or failed the parse for good.
            m_messageSize = 0;
            return 0;
        case eWsOpClose:
        case eWsOpPing:
        case eWsOpPong:
            m_controlSize = 0;
            return m_fin ? 0 : eWsCloseProtocolError;
        default:
            return eWsCloseProtocolError;
        }
    }
    if (index == 1) {
        // Clients must mask every frame.
        if ((b & 0x80) == 0)
            return eWsCloseProtocolError;
        const unsigned length = b & 0x7F;
        if (isControl(m_opcode) && length > 125)
            return eWsCloseProtocolError;
        const size_t extended = length == 126 ? 2 : length == 127 ? 8 : 0;
        m_headerSize = 2 + extended + 4;
        return extended == 0 ? CheckLength(length) : 0;
    }
    if (m_headerSize > 6 && index == m_headerSize - 5) {
        // The last byte of the extended length. Non-minimal encodings are
        // accepted: they cost nothing and some clients send them.
        uint64_t length = 0;
        for (size_t k = 2; k <= index; ++k)
            length = length << 8 | m_header[k];
        if (m_headerSize == 14 && (m_header[2] & 0x80) != 0)
            return eWsCloseProtocolError;
        return CheckLength(length);
    }
    return 0;
}

int CWebSocketFrameParser::CheckLength(uint64_t length)
{
    m_payloadLeft = length;
    if (isControl(m_opcode))
        return 0;
    if (length > m_maxFramePayload || length > m_maxMessageSize - m_messageSize)
        return eWsCloseTooBig;
    return 0;
}

int CWebSocketFrameParser::EndFrame()
{
    m_state = eStateHeader;
    m_headerUsed = 0;
    m_headerSize = 2;
    if (isControl(m_opcode))
        return EndControlFrame();
    if (!m_fin)
        return eResultMore;
    const int opcode = m_messageOpcode;
    m_messageOpcode = 0;
    if (opcode == eWsOpText && !m_utf8.IsComplete())
        return Fail(eWsCloseInvalidData);
    const unsigned char *data = m_pMessage ? m_pMessage.get() : m_control;
    return m_sink.OnMessage(opcode, data, m_messageSize) ? eResultMore : eResultPaused;
}

int CWebSocketFrameParser::EndControlFrame()
{
    if (m_opcode == eWsOpPing)
        return m_sink.OnPing(m_control, m_controlSize) ? eResultMore : eResultPaused;
    if (m_opcode == eWsOpPong)
        return m_sink.OnPong(m_control, m_controlSize) ? eResultMore : eResultPaused;
    int code = eWsCloseNoStatus;
    if (m_controlSize == 1)
        return Fail(eWsCloseProtocolError);
    if (m_controlSize >= 2) {
        code = m_control[0] << 8 | m_control[1];
        if (!IsWebSocketCloseCodeAllowed(code))
            return Fail(eWsCloseProtocolError);
        if (!CUtf8Validator::IsValid(m_control + 2, m_controlSize - 2))
            return Fail(eWsCloseInvalidData);
    }
    m_state = eStateClosed;
    m_sink.OnClose(code, reinterpret_cast<const char *>(m_control) + (m_controlSize >= 2 ? 2 : 0),
                   m_controlSize >= 2 ? m_controlSize - 2 : 0);
    return eResultClosed;
}

bool CWebSocketFrameParser::Reserve(size_t size)
{
    if (size <= m_messageCapacity)
        return true;
    // Grows with the data that actually arrived (a length field alone costs
    // nothing), doubling so a message in many small fragments is not copied
    // once per fragment, and never past the message limit.
    size_t capacity = m_messageCapacity < 128 ? 256 : m_messageCapacity * 2;
    if (capacity > m_maxMessageSize)
        capacity = m_maxMessageSize;
    if (capacity < size)
        capacity = size;
    std::unique_ptr<unsigned char[]> grown(new (std::nothrow) unsigned char[capacity]);
    if (!grown)
        return false;
    if (m_messageSize > 0)
        std::memcpy(grown.get(), m_pMessage.get(), m_messageSize);
    m_pMessage.swap(grown);
    m_messageCapacity = capacity;
    return true;
}

} // namespace NVQ
