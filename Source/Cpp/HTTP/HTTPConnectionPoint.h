#ifndef NVQ_HTTP_HTTPCONNECTIONPOINT_H
#define NVQ_HTTP_HTTPCONNECTIONPOINT_H

#include "HTTP/HTTPChunkedDecoder.h"
#include "HTTP/HTTPRequest.h"
#include "HTTP/HTTPRequestParser.h"
#include "HTTP/HTTPResponse.h"
#include "HTTP/IHTTPExchangeEndNotification.h"
#include "HTTP/IHTTPRequestBodyHandler.h"
#include "HTTP/IHTTPRequestHandler.h"
#include "KZF_Base/Linux/DataBuffer.h"
#include "KZF_Base/Linux/RefCount.h"
#include "KZF_Base/Linux/RefCountPtr.h"
#include "NVQCommon/Linux/INVQNotification.h"
#include "NVQSockets/Linux/INVQDataLayer.h"

#include <atomic>
#include <cstdint>

namespace NVQ
{

class CHTTPLayer;

// The HTTP side of one accepted connection: reads what arrives into its
// receive buffer, parses it, runs the exchange for each complete (or rejected)
// request, and writes every answer.
//
// An exchange runs on the thread that delivers the data. When the peer does
// not keep up with a streamed answer, the exchange parks before pulling the
// next piece (reading stops meanwhile) and goes on when the connection
// reports the earlier bytes sent: a slow client holds one piece, never a
// thread. Reference counted: the layer's table holds it, and each running
// notification and dispatch holds it too.
class CHTTPConnectionPoint : private INVQDataLayerNotification, public KZF::CRefCount_Base
{
  public:
    // Default bounds of what is buffered. A header block that does not end
    // within its bound gets the 400 answer, a body above its bound "413
    // Payload Too Large"; either closes the connection, so a client cannot
    // make the buffer grow without bound. Bodies a handler takes in pieces
    // have the handler's own bound instead.
    static constexpr long c_defaultMaxHeaderBytes = 1024 * 1024;
    static constexpr long c_defaultMaxBodyBytes = 1024 * 1024;

    // Registers with the data layer for its data and close notifications.
    CHTTPConnectionPoint(INVQDataLayer &dataLayer, CHTTPLayer &layer, int connectionID);
    ~CHTTPConnectionPoint() override;

    void SetConnectionID(int connectionID) { m_connectionID = connectionID; }

    // Strict HTTP/1.1 (set before the first bytes arrive): framing by the
    // RFC, pipelined requests answered in order, refusals and
    // "Connection: close" end the connection, HEAD answers carry no body,
    // and "Expect: 100-continue" is answered.
    void SetStrict(bool strict);
    // Keep the connection after a streamed answer whose first piece declared
    // a "Content-Length" field that its pieces then matched exactly (set
    // before the first bytes arrive). Off: every streamed answer ends the
    // connection.
    void SetKeepAfterStream(bool keep) { m_keepAfterStream = keep; }
    // The bounds above (set before the first bytes arrive).
    void SetLimits(long maxHeaderBytes, long maxBodyBytes);
    int GetConnectionID() const { return m_connectionID; }

    // Dispatch of one request; a null request stands for one the parser
    // rejected, answered with 400.
    void ProcessRequest(KZF::CRefCountPtr<CHTTPRequest> request);

    // Writes one response or piece (see the wire form in the source).
    void SendResponse(const CHTTPResponse &response);

    void OnDataReceived(INVQDataLayer &connection) override;
    void OnDataSent(INVQDataLayer &connection) override;
    void OnConnectionClosed(INVQDataLayer &connection) override;

  private:
    CHTTPConnectionPoint(const CHTTPConnectionPoint &) = delete;
    CHTTPConnectionPoint &operator=(const CHTTPConnectionPoint &) = delete;

    // eBody: a body is being taken in pieces and no delivery runs.
    enum EExchange { eNoExchange, eRunning, eParked, eBody };
    enum EBodyState { eBodyMore, eBodyDone, eBodyStopped, eBodyTooLarge, eBodyMalformed, eBodyCut };

    // Reads what waits, parses, and dispatches what is complete.
    void Receive();
    // Parses what is buffered and answers it; in strict mode request after
    // request, until one parks or nothing complete is left.
    void ProcessBuffered(bool overBound);
    // Reads what waits up to the bound, stopping early where a header block
    // ends with more input left; answers an EReadResult.
    int ReadWaiting();
    // Strict mode: what the request asks of the connection.
    void TakeConnectionOptions(const CHTTPRequest &request);
    // The header block is complete: its handler chooses what happens to the
    // body. False when the request was answered already.
    bool DecideBody(bool complete);
    // The body in pieces: reading, feeding, and the end of it.
    void StartBody(CHTTPRequest &request, bool complete);
    void ReceiveBody();
    int FeedBody(const unsigned char *data, int size);
    void FinishBody();
    // The answer of a handler that refused the body.
    void AnswerNow(const KZF::CRefCountPtr<CHTTPResponse> &answer);
    // Strict mode: an answer of its own for a request refused before any
    // handler saw it; the connection closes after it.
    void Refuse(int status);
    bool HandleExpectation(const CHTTPRequest &request, IHTTPRequestHandler *handler);
    // The record to write in place of `response` in strict mode: one that
    // announces the close when the connection ends after it.
    const CHTTPResponse &Announced(const CHTTPResponse &response);
    // The first piece of a streamed answer whose declared length, once
    // matched, keeps the connection.
    bool KeepsAfterStream(const CHTTPResponse &response) const;
    // Pulls and writes pieces until the answer is complete; false when it
    // parked because the peer is behind.
    bool RunPulls();
    // The end of an exchange, however it ended.
    void EndExchange();
    // After a dispatch: the next request starts afresh.
    void AfterDispatch();
    void UpdateIdle();

    // Each is false once a write failed: the connection is gone.
    bool Write(const void *data, size_t length);
    bool SendText(const char *text, size_t length, char (&buffer)[256]);
    bool SendData(const CHTTPResponse &response);
    // Gives the connection to the taker of the response just written.
    void HandOver();
    // Ends this side of the connection: no notification arrives any more, the
    // connection is closed, and the layer's table lets go of this point.
    void Detach();

    INVQDataLayer *m_pDataLayer;
    CHTTPLayer *m_pLayer;
    // Shared with the close path, which may run on another thread: the flag
    // is set before the handler is interrupted.
    std::atomic<IHTTPRequestHandler *> m_pHandler;
    CHTTPRequestParser m_parser;
    KZF::CDataBuffer<unsigned char, KZF::CFakeSynchronizationObject> m_receiveBuffer;
    int m_receivedSize;
    int m_connectionID;
    std::atomic<bool> m_isClosed;
    // The exchange in progress: its request and the piece written last.
    std::atomic<int> m_exchange;
    KZF::CRefCountPtr<CHTTPRequest> m_request;
    KZF::CRefCountPtr<CHTTPResponse> m_piece;
    bool m_detachAfterExchange; // close once the answer is out
    bool m_peerDone;            // the request asked to close and was read whole
    bool m_strict;
    bool m_headOnly;    // strict: the header block alone is written
    bool m_bodyDecided; // the handler of this request has been chosen
    long m_maxHeaderBytes;
    long m_maxBodyBytes;
    IHTTPRequestHandler *m_pDecidedHandler;
    // The body taken in pieces.
    IHTTPRequestBodyHandler *m_pBodyHandler;
    int m_bodyState;
    bool m_chunkedBody;
    uint64_t m_bodyRemaining; // with a Content-Length
    uint64_t m_bodyLimit;     // 0: none
    CHTTPChunkedDecoder m_chunkDecoder;
    int m_consumed; // strict: bytes of the buffered request; the rest is the next one
    bool m_keepAfterStream;
    int64_t m_streamDeclared; // the running stream's declared length, or -1
    int64_t m_streamSent;     // and the bytes its pieces carried so far
    // The handler last asked for its exchange end notice, and the notice.
    IHTTPRequestHandler *m_pCastHandler;
    IHTTPExchangeEndNotification *m_pEndNotification;
    IHTTPRequestHandler *m_pBodyCastHandler;
    IHTTPRequestBodyHandler *m_pBodyCast;
    KZF::tstring m_remoteAddress;
    bool m_secure;
};

} // namespace NVQ

#endif
