#ifndef NVQ_HTTP_WEBSOCKETHANDSHAKE_H
#define NVQ_HTTP_WEBSOCKETHANDSHAKE_H

#include "KZF_Base/Linux/KzfTypes.h"

namespace NVQ
{

// The key exchange of the WebSocket opening handshake (RFC 6455).
class CWebSocketHandshake
{
  public:
    // Sec-WebSocket-Accept for a client's Sec-WebSocket-Key: base64 of the
    // SHA-1 of the key followed by the protocol's fixed GUID.
    static KZF::tstring ComputeAcceptKey(const KZF::tstring &secWebSocketKey);

    // A client key must be the canonical base64 of 16 bytes (24 characters).
    static bool IsValidClientKey(const KZF::tstring &secWebSocketKey);
};

} // namespace NVQ

#endif
