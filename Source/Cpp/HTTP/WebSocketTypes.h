#ifndef NVQ_HTTP_WEBSOCKETTYPES_H
#define NVQ_HTTP_WEBSOCKETTYPES_H

namespace NVQ
{

// Frame opcodes of RFC 6455; the others are reserved.
enum EWebSocketOpcode {
    eWsOpContinuation = 0x0,
    eWsOpText = 0x1,
    eWsOpBinary = 0x2,
    eWsOpClose = 0x8,
    eWsOpPing = 0x9,
    eWsOpPong = 0xA
};

// Close codes the library answers with or reports.
enum EWebSocketCloseCode {
    eWsCloseNormal = 1000,
    eWsCloseGoingAway = 1001,
    eWsCloseProtocolError = 1002,
    eWsCloseUnsupportedData = 1003,
    // Reported for a close frame without a code; never sent.
    eWsCloseNoStatus = 1005,
    // Reported when the connection ended without a close frame; never sent.
    eWsCloseAbnormal = 1006,
    eWsCloseInvalidData = 1007,
    eWsClosePolicyViolation = 1008,
    eWsCloseTooBig = 1009,
    eWsCloseInternalError = 1011
};

// The codes a close frame may carry: the defined ones an endpoint can send
// (1000-1003, 1007-1011) and the registered and private ranges (3000-4999).
inline bool IsWebSocketCloseCodeAllowed(int code)
{
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1011) || (code >= 3000 && code <= 4999);
}

} // namespace NVQ

#endif
