#ifndef NVQ_HTTP_IWEBSOCKETHANDLER_H
#define NVQ_HTTP_IWEBSOCKETHANDLER_H

#include "HTTP/HTTPRequest.h"
#include "HTTP/HTTPResponse.h"
#include "KZF_Base/Linux/KzfTypes.h"
#include "KZF_Base/Linux/RefCount.h"
#include "KZF_Base/Linux/RefCountPtr.h"

#include <cstddef>
#include <vector>

namespace NVQ
{

class CWebSocketSession;

// The application side of WebSocket connections (RFC 6455), served through a
// CHTTPWebSocketEndpoint. The endpoint checks the opening handshake; the
// handler decides whether to take the connection and then hears of its
// messages. Calls for one session never overlap; calls for different
// sessions may run at the same time on different threads. Sending
// (CWebSocketSession) is allowed from any thread, also from these calls.
class IWebSocketHandler
{
  public:
    // An upgrade request that passed the protocol checks.
    struct SUpgrade {
        const CHTTPRequest *m_pRequest;
        // The Origin field ("" when the client sent none): a browser page of
        // another site can open connections too, so check it.
        KZF::tstring m_origin;
        // The subprotocols the client offers, in its order of preference.
        std::vector<KZF::tstring> m_protocols;
        // Out: one of m_protocols to confirm, or empty for none.
        KZF::tstring m_chosenProtocol;
        // Out, on refusal: the answer to give (403 when left null).
        KZF::CRefCountPtr<CHTTPResponse> m_refusal;
        // Out, on acceptance: the application's record of this client, kept
        // by the session (CWebSocketSession::GetContext).
        KZF::CRefCountPtr<KZF::CRefCount_Base> m_context;
    };

    virtual ~IWebSocketHandler() {}

    // True takes the connection; false refuses it with m_refusal.
    virtual bool AcceptUpgrade(SUpgrade &upgrade) = 0;

    // The 101 answer is on its way; messages may be sent from now on. Keep a
    // reference (KZF::CRefCountPtr) to send later from other threads.
    virtual void OnOpen(CWebSocketSession &session) = 0;

    // A whole message; text is valid UTF-8. The bytes are valid only during
    // the call.
    virtual void OnMessage(CWebSocketSession &session, bool isText, const unsigned char *data,
                           size_t size) = 0;

    // The session ended, once per session: the peer's close code (1005 when
    // it gave none), the code the server closed with, or 1006 when the
    // connection dropped without a close handshake. Sends fail from now on.
    virtual void OnClosed(CWebSocketSession &session, int code) = 0;

    // A send found more than the send queue limit waiting for this client.
    // True (the default) closes the session with 1008; false keeps it, and
    // the message that did not fit is dropped (its send answered false).
    virtual bool OnSendQueueFull(CWebSocketSession &session)
    {
        (void)session;
        return true;
    }

    // The bytes sent before CWebSocketSession::RequestWritable have reached
    // the kernel: a writer that produces on demand sends its next part. On
    // the connection's thread.
    virtual void OnWritable(CWebSocketSession &session) { (void)session; }
};

} // namespace NVQ

#endif
