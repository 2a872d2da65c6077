#include "HTTP/HTTPConnectionPoint.h"

#include "HTTP/HTTPLayer.h"
#include "NVQSockets/Linux/INVQConnectionAddress.h"

#include <algorithm>
#include <climits>
#include <cstring>

// The request body side of the connection point: deciding who takes a
// body, the interim answer to an expectation, and feeding a body in pieces
// to the handler that asked for it.

namespace NVQ
{

namespace
{

const char c_continue[] = "HTTP/1.1 100 Continue\r\n\r\n";

// A body taken in pieces is read in helpings of this size, and at most this
// many of them per notification: one upload neither holds much memory nor
// keeps its loop from the other connections.
const unsigned long c_bodyPieceSize = 65536;
const int c_bodyHelpings = 16;

} // namespace

bool CHTTPConnectionPoint::DecideBody(bool complete)
{
    m_bodyDecided = true;
    const KZF::CRefCountPtr<CHTTPRequest> request = m_parser.GetRequest();
    if (request.IsNull())
        return true;
    if (m_strict)
        TakeConnectionOptions(*request);
    // Who asks, for handlers that keep strangers out: made once per
    // connection, copied into each request.
    if (m_remoteAddress.empty() && m_pDataLayer != nullptr) {
        const INVQConnectionAddress *address = m_pDataLayer->GetRemoteAddress();
        if (address != nullptr)
            m_remoteAddress = address->ToString();
        m_secure = m_pDataLayer->IsSecure();
    }
    request->SetRemoteAddress(m_remoteAddress);
    request->SetSecure(m_secure);
    IHTTPRequestHandler *handler = m_pLayer->FindHandler(*request);
    m_pDecidedHandler = handler;
    if (handler != m_pBodyCastHandler) {
        m_pBodyCastHandler = handler;
        m_pBodyCast = dynamic_cast<IHTTPRequestBodyHandler *>(handler);
    }
    IHTTPRequestBodyHandler *bodyHandler = handler != nullptr ? m_pBodyCast : nullptr;
    IHTTPRequestBodyHandler::SBodyDecision decision;
    if (bodyHandler != nullptr)
        decision = bodyHandler->OnRequestHeaders(*request, m_connectionID);
    const long declared = request->IsChunked() ? 0 : std::max(request->GetBodySize(), 0L);
    if (decision.m_choice == IHTTPRequestBodyHandler::eAnswerNow) {
        AnswerNow(decision.m_answer);
        return false;
    }
    if (decision.m_choice == IHTTPRequestBodyHandler::eTakeBody) {
        m_bodyLimit = decision.m_maxBodyBytes;
        if (m_bodyLimit != 0 && static_cast<uint64_t>(declared) > m_bodyLimit) {
            bodyHandler->OnRequestBodyEnd(false, m_connectionID);
            Refuse(413);
            return false;
        }
        if (!complete && !HandleExpectation(*request, handler)) {
            bodyHandler->OnRequestBodyEnd(false, m_connectionID);
            return false;
        }
        m_pBodyHandler = bodyHandler;
        StartBody(*request, complete);
        return false;
    }
    if (declared > m_maxBodyBytes) {
        Refuse(413);
        return false;
    }
    m_parser.SetMaxBodySize(m_maxBodyBytes);
    return !m_strict || complete || HandleExpectation(*request, handler);
}

bool CHTTPConnectionPoint::HandleExpectation(const CHTTPRequest &request, IHTTPRequestHandler *handler)
{
    const char *name = "expect";
    KZF::tstring expectation;
    if (!request.GetHeaderFieldValueByName(name, expectation))
        return true;
    const bool wantsContinue = request.HasHeaderToken(name, "100-continue");
    if (m_strict && (!wantsContinue || request.GetHTTPVersion() != 11)) {
        Refuse(417);
        return false;
    }
    // A client that sent its body already did not wait; one without a body
    // has nothing to wait for.
    if (!wantsContinue || m_receivedSize > m_parser.GetBodyStart() ||
        (request.GetBodySize() == 0 && !request.IsChunked()))
        return true;
    // Only a request some handler takes is worth its body; for any other the
    // final answer goes out at once and the body is never read.
    if (handler == nullptr) {
        if (!m_strict)
            return true;
        Refuse(404);
        return false;
    }
    Write(c_continue, sizeof(c_continue) - 1);
    return true;
}

void CHTTPConnectionPoint::StartBody(CHTTPRequest &request, bool complete)
{
    m_exchange = eRunning;
    m_request = &request;
    m_bodyState = eBodyMore;
    if (complete) {
        // It all came with the header block, decoded by the parser already.
        const long size = request.GetBodySize();
        if (m_bodyLimit != 0 && static_cast<uint64_t>(size) > m_bodyLimit)
            m_bodyState = eBodyTooLarge;
        else if (size > 0 && !m_pBodyHandler->OnRequestBodyData(request.GetBody(), static_cast<size_t>(size),
                                                                m_connectionID))
            m_bodyState = eBodyStopped;
        else
            m_bodyState = eBodyDone;
        request.SetBody(nullptr, 0);
        FinishBody();
        return;
    }
    m_chunkedBody = request.IsChunked();
    if (m_chunkedBody) {
        m_chunkDecoder.Reset();
        m_chunkDecoder.SetMaxBodySize(
            m_bodyLimit != 0 ? static_cast<long>(std::min<uint64_t>(m_bodyLimit, LONG_MAX)) : LONG_MAX);
    } else {
        m_bodyRemaining = static_cast<uint64_t>(std::max(request.GetBodySize(), 0L));
    }
    if (m_pDataLayer != nullptr)
        m_pDataLayer->SetReceivingBody(true);
    // The body bytes that came with the header block go first; the buffer
    // then serves as the helping for the rest.
    const int start = m_parser.GetBodyStart();
    unsigned char *buffer = m_receiveBuffer;
    const int used = FeedBody(buffer + start, m_receivedSize - start);
    const int rest = m_receivedSize - start - used;
    std::memmove(buffer, buffer + start + used, static_cast<size_t>(rest));
    m_receivedSize = rest;
    m_consumed = 0;
    if (m_bodyState == eBodyMore && m_receiveBuffer.GetSize() < c_bodyPieceSize &&
        !m_receiveBuffer.SetSize(c_bodyPieceSize)) {
        m_receivedSize = 0;
        m_bodyState = eBodyCut;
        Detach();
    }
    if (m_bodyState != eBodyMore)
        FinishBody();
}

void CHTTPConnectionPoint::ReceiveBody()
{
    unsigned char *buffer = m_receiveBuffer;
    const int size = static_cast<int>(m_receiveBuffer.GetSize());
    for (int helping = 0; helping < c_bodyHelpings && m_bodyState == eBodyMore; ++helping) {
        if (m_isClosed || m_pDataLayer == nullptr)
            break;
        const int got = m_pDataLayer->ReadData(buffer, size);
        if (got <= 0)
            break;
        const int used = FeedBody(buffer, got);
        // What follows the body is kept for the next request.
        std::memmove(buffer, buffer + used, static_cast<size_t>(got - used));
        m_receivedSize = got - used;
    }
    if (m_bodyState == eBodyMore && (m_isClosed || m_pDataLayer == nullptr))
        m_bodyState = eBodyCut;
    if (m_bodyState != eBodyMore) {
        FinishBody();
        return;
    }
    m_exchange = eBody;
    // A close that came meanwhile found the body running: whoever takes it
    // back from waiting ends it.
    int body = eBody;
    if (m_isClosed && m_exchange.compare_exchange_strong(body, eRunning)) {
        m_bodyState = eBodyCut;
        FinishBody();
    }
}

int CHTTPConnectionPoint::FeedBody(const unsigned char *data, int size)
{
    int used = 0;
    while (m_bodyState == eBodyMore && (used < size || (!m_chunkedBody && m_bodyRemaining == 0))) {
        const unsigned char *piece = data + used;
        size_t pieceSize = 0;
        if (m_chunkedBody) {
            size_t consumed = 0;
            const int result = m_chunkDecoder.Decode(data + used, static_cast<size_t>(size - used), consumed,
                                                     piece, pieceSize);
            used += static_cast<int>(consumed);
            if (result == CHTTPChunkedDecoder::eResultDone)
                m_bodyState = eBodyDone;
            else if (result == CHTTPChunkedDecoder::eResultError)
                m_bodyState = m_chunkDecoder.GetError() == CHTTPChunkedDecoder::eErrorTooLarge
                                  ? eBodyTooLarge
                                  : eBodyMalformed;
        } else {
            pieceSize =
                static_cast<size_t>(std::min<uint64_t>(m_bodyRemaining, static_cast<uint64_t>(size - used)));
            used += static_cast<int>(pieceSize);
            m_bodyRemaining -= pieceSize;
            if (m_bodyRemaining == 0)
                m_bodyState = eBodyDone;
        }
        if (pieceSize > 0) {
            // A refusal of the last piece still fails the body.
            if (!m_pBodyHandler->OnRequestBodyData(piece, pieceSize, m_connectionID))
                m_bodyState = eBodyStopped;
        }
    }
    return used;
}

void CHTTPConnectionPoint::FinishBody()
{
    IHTTPRequestBodyHandler *bodyHandler = m_pBodyHandler;
    m_pBodyHandler = nullptr;
    const int state = m_bodyState;
    m_bodyState = eBodyMore;
    if (m_pDataLayer != nullptr)
        m_pDataLayer->SetReceivingBody(false);
    bodyHandler->OnRequestBodyEnd(state == eBodyDone, m_connectionID);
    const KZF::CRefCountPtr<CHTTPRequest> request = m_request;
    switch (state) {
    case eBodyDone:
        ProcessRequest(request);
        break;
    case eBodyStopped:
        // The rest of the body is never read: nothing after it can be.
        m_detachAfterExchange = true;
        m_receivedSize = 0;
        ProcessRequest(request);
        break;
    case eBodyTooLarge:
        Refuse(413);
        break;
    case eBodyMalformed:
        Refuse(400);
        break;
    default: // the connection is gone
        AddRef();
        EndExchange();
        AfterDispatch();
        ReleaseRef();
        break;
    }
}

} // namespace NVQ
