#include "HTTP/WebSocketHandshake.h"

#include "KZF_Utilities/Linux/Hash.h"

namespace NVQ
{

namespace
{

const char c_guid[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

} // namespace

KZF::tstring CWebSocketHandshake::ComputeAcceptKey(const KZF::tstring &secWebSocketKey)
{
    KZF::CSha1 sha1;
    sha1.Update(secWebSocketKey.data(), secWebSocketKey.size());
    sha1.Update(c_guid, sizeof(c_guid) - 1);
    unsigned char digest[KZF::CSha1::c_digestSize];
    sha1.Final(digest);
    return KZF::Base64Encode(digest, sizeof(digest));
}

bool CWebSocketHandshake::IsValidClientKey(const KZF::tstring &secWebSocketKey)
{
    std::string decoded;
    return secWebSocketKey.size() == 24 && KZF::Base64Decode(secWebSocketKey, decoded) &&
           decoded.size() == 16;
}

} // namespace NVQ
