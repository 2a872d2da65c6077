#include "HTTP/WebSocketFrameWriter.h"

#include "HTTP/WebSocketTypes.h"
#include "KZF_Base/Linux/KzfAssert.h"

#include <cstring>

namespace NVQ
{

namespace
{

size_t writeControl(unsigned char *out, int opcode, const void *data, size_t size)
{
    KZF_ASSERT(size <= CWebSocketFrameWriter::c_maxControlPayload);
    if (size > CWebSocketFrameWriter::c_maxControlPayload)
        size = CWebSocketFrameWriter::c_maxControlPayload;
    const size_t header = CWebSocketFrameWriter::WriteHeader(out, opcode, true, size);
    if (size > 0)
        std::memcpy(out + header, data, size);
    return header + size;
}

} // namespace

size_t CWebSocketFrameWriter::WriteHeader(unsigned char *out, int opcode, bool fin, uint64_t payloadSize)
{
    const bool control = opcode == eWsOpClose || opcode == eWsOpPing || opcode == eWsOpPong;
    const bool data = opcode == eWsOpContinuation || opcode == eWsOpText || opcode == eWsOpBinary;
    const bool valid = data || (control && fin && payloadSize <= c_maxControlPayload);
    KZF_ASSERT(valid);
    if (!valid)
        return 0;
    out[0] = static_cast<unsigned char>((fin ? 0x80 : 0) | opcode);
    if (payloadSize <= 125) {
        out[1] = static_cast<unsigned char>(payloadSize);
        return 2;
    }
    const int bytes = payloadSize <= 0xFFFF ? 2 : 8;
    out[1] = bytes == 2 ? 126 : 127;
    for (int i = 0; i < bytes; ++i)
        out[2 + i] = static_cast<unsigned char>(payloadSize >> (8 * (bytes - 1 - i)));
    return 2 + static_cast<size_t>(bytes);
}

size_t CWebSocketFrameWriter::WriteClose(unsigned char *out, int code, const char *reason, size_t reasonSize)
{
    if (!IsWebSocketCloseCodeAllowed(code))
        return writeControl(out, eWsOpClose, nullptr, 0);
    const size_t room = c_maxControlPayload - 2;
    if (reasonSize > room) {
        // Back up over continuation bytes so the cut never splits a character.
        reasonSize = room;
        while (reasonSize > 0 && (static_cast<unsigned char>(reason[reasonSize]) & 0xC0) == 0x80)
            --reasonSize;
    }
    unsigned char payload[c_maxControlPayload];
    payload[0] = static_cast<unsigned char>(code >> 8);
    payload[1] = static_cast<unsigned char>(code);
    if (reasonSize > 0)
        std::memcpy(payload + 2, reason, reasonSize);
    return writeControl(out, eWsOpClose, payload, 2 + reasonSize);
}

size_t CWebSocketFrameWriter::WritePing(unsigned char *out, const void *data, size_t size)
{
    return writeControl(out, eWsOpPing, data, size);
}

size_t CWebSocketFrameWriter::WritePong(unsigned char *out, const void *data, size_t size)
{
    return writeControl(out, eWsOpPong, data, size);
}

} // namespace NVQ
