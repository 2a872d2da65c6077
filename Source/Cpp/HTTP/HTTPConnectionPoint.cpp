#include "HTTP/HTTPConnectionPoint.h"

#include "HTTP/HTTPLayer.h"
#include "HTTP/IHTTPExchangeEndNotification.h"
#include "KZF_Base/Linux/KzfAssert.h"
#include "NVQSockets/Linux/INVQConnectionAddress.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

namespace NVQ
{

namespace
{

const char c_statusLineStart[] = "HTTP/1.1 ";
const char c_lineEnd[] = "\r\n";
const char c_contentTypeStart[] = "Content-Type: ";
const char c_contentLengthStart[] = "Content-Length: ";
const char c_fieldSeparator[] = ": ";

// No single write carries more data than this.
const long c_maxSliceSize = 16777216;
// Data from this size on is handed to the connection without a copy (the
// response itself keeps it alive while it waits for the peer).
const long c_heldDataSize = 16384;

const char c_continue[] = "HTTP/1.1 100 Continue\r\n\r\n";

// A body taken in pieces is read in helpings of this size, and at most this
// many of them per notification: one upload neither holds much memory nor
// keeps its loop from the other connections.
const unsigned long c_bodyPieceSize = 65536;
const int c_bodyHelpings = 16;

enum EReadResult { eReadDrained, eReadHeaderEnd, eReadOverBound, eReadFailed };

const unsigned long c_initialBufferSize = 1024;
const unsigned long c_bufferGrowth = 512;
const int c_minimumFreeSpace = 32;

// The decimal digits of `value` and one space, as "%ld " would print them,
// without the cost of printf on every answer. `out` has room for 22 bytes.
size_t formatNumber(char *out, long value)
{
    char digits[24];
    size_t count = 0;
    unsigned long magnitude =
        value < 0 ? 0UL - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
    do {
        digits[count++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    size_t length = 0;
    if (value < 0)
        out[length++] = '-';
    while (count > 0)
        out[length++] = digits[--count];
    out[length++] = ' ';
    return length;
}

// The value of a "Content-Length" field of a handler's own: digits only (18
// at most, so no sum overflows); -1 for anything else.
int64_t declaredLength(const CHTTPResponse &response)
{
    const CKeyValueMap &fields = response.GetAdditionalHeaders();
    const CKeyValueMap::const_iterator it = fields.find("Content-Length");
    if (it == fields.end() || it->second.empty() || it->second.size() > 18)
        return -1;
    int64_t value = 0;
    for (const char c : it->second) {
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

} // namespace

// Shared by every connection point; never changed after construction.
CNotFoundResponse s_notFoundResponse;
CBadRequestResponse s_badRequestResponse;

namespace
{

// The strict mode's answers that end the connection.
const CHTTPResponse &closingAnswer(int status)
{
    static const CHTTPClosingErrorResponse s_badRequest(400, "Bad Request");
    static const CHTTPClosingErrorResponse s_notFound(404, "Not Found");
    static const CHTTPClosingErrorResponse s_tooLarge(413, "Payload Too Large");
    static const CHTTPClosingErrorResponse s_expectation(417, "Expectation Failed");
    static const CHTTPClosingErrorResponse s_notImplemented(501, "Not Implemented");
    static const CHTTPClosingErrorResponse s_version(505, "HTTP Version Not Supported");
    switch (status) {
    case 404:
        return s_notFound;
    case 413:
        return s_tooLarge;
    case 417:
        return s_expectation;
    case 501:
        return s_notImplemented;
    case 505:
        return s_version;
    default:
        return s_badRequest;
    }
}

} // namespace

CHTTPConnectionPoint::CHTTPConnectionPoint(INVQDataLayer &dataLayer, CHTTPLayer &layer, int connectionID)
    : m_pDataLayer(&dataLayer), m_pLayer(&layer), m_pHandler(nullptr), m_receivedSize(0),
      m_connectionID(connectionID), m_isClosed(false), m_exchange(eNoExchange), m_detachAfterExchange(false),
      m_strict(false), m_headOnly(false), m_bodyDecided(false), m_maxHeaderBytes(c_defaultMaxHeaderBytes),
      m_maxBodyBytes(c_defaultMaxBodyBytes), m_pDecidedHandler(nullptr), m_pBodyHandler(nullptr),
      m_bodyState(eBodyMore), m_chunkedBody(false), m_bodyRemaining(0), m_bodyLimit(0), m_consumed(0),
      m_keepAfterStream(false), m_streamDeclared(-1), m_streamSent(0), m_pCastHandler(nullptr),
      m_pEndNotification(nullptr), m_pBodyCastHandler(nullptr), m_pBodyCast(nullptr), m_secure(false)
{
    m_pDataLayer->RegisterNotification(*this);
    m_receiveBuffer.SetSize(c_initialBufferSize);
    m_receivedSize = 0;
    m_isClosed = false;
}

CHTTPConnectionPoint::~CHTTPConnectionPoint()
{
    if (m_pDataLayer != nullptr)
        m_pDataLayer->UnregisterNotification(*this);
}

void CHTTPConnectionPoint::SetStrict(bool strict)
{
    m_strict = strict;
    m_parser.SetStrict(strict);
    // The body's bound is set once its handler has chosen how to take it.
    m_parser.SetMaxBodySize(LONG_MAX);
}

void CHTTPConnectionPoint::SetLimits(long maxHeaderBytes, long maxBodyBytes)
{
    m_maxHeaderBytes = std::max(maxHeaderBytes, static_cast<long>(c_initialBufferSize));
    m_maxBodyBytes = std::max(maxBodyBytes, 0L);
}

void CHTTPConnectionPoint::OnDataReceived(INVQDataLayer &)
{
    AddRef(); // survives the layer dropping it meanwhile
    // A parked exchange has the connection; reading waits for its end. A
    // body taken in pieces is read on.
    int body = eBody;
    if (m_exchange.compare_exchange_strong(body, eRunning) || m_exchange.load() == eNoExchange)
        Receive();
    UpdateIdle();
    ReleaseRef(); // may destroy this object: nothing may follow
}

void CHTTPConnectionPoint::OnDataSent(INVQDataLayer &)
{
    AddRef();
    int parked = eParked;
    if (m_exchange.compare_exchange_strong(parked, eRunning) && RunPulls()) {
        EndExchange();
        AfterDispatch();
        // Requests that came with this one are answered now, and the bytes
        // that came while the answer went out are read.
        if (m_strict && m_receivedSize > 0)
            ProcessBuffered(false);
        if (m_pDataLayer != nullptr && m_exchange.load() == eNoExchange)
            m_pDataLayer->ResumeReading();
    }
    UpdateIdle();
    ReleaseRef();
}

void CHTTPConnectionPoint::Receive()
{
    for (;;) {
        if (m_pBodyHandler != nullptr) {
            ReceiveBody();
            // Past the body, what follows is the next request.
            if (m_exchange.load() != eNoExchange || m_isClosed || m_pDataLayer == nullptr)
                return;
            continue;
        }
        const int read = ReadWaiting();
        if (read == eReadFailed)
            return;
        ProcessBuffered(read == eReadOverBound);
        if (m_pBodyHandler != nullptr && m_exchange.load() == eRunning)
            continue;
        // A header block that ended with input left: its body is read now
        // as its handler chose.
        if (read != eReadHeaderEnd || m_pDataLayer == nullptr || m_isClosed ||
            m_exchange.load() != eNoExchange)
            return;
    }
}

int CHTTPConnectionPoint::ReadWaiting()
{
    // Read everything waiting, growing the buffer in steps while fewer than
    // 32 bytes are free, but never beyond the bound: the header block's until
    // it has ended, then that and the body's.
    if (m_receiveBuffer.GetSize() == 0 && !m_receiveBuffer.SetSize(c_initialBufferSize)) {
        if (!m_isClosed)
            Detach();
        return eReadFailed;
    }
    for (;;) {
        const unsigned long size = m_receiveBuffer.GetSize();
        if (size - static_cast<unsigned long>(m_receivedSize) <
            static_cast<unsigned long>(c_minimumFreeSpace)) {
            const long bound = m_bodyDecided ? m_maxHeaderBytes + m_maxBodyBytes : m_maxHeaderBytes;
            if (static_cast<long>(size + c_bufferGrowth) > bound)
                return eReadOverBound;
            if (!m_receiveBuffer.SetSize(size + c_bufferGrowth)) {
                // Out of memory. A failed resize leaves the buffer empty, so
                // the request's first bytes are gone: the connection cannot
                // go on, and nothing is answered.
                m_receivedSize = 0;
                m_parser.Reset();
                m_receiveBuffer.SetSize(c_initialBufferSize);
                if (!m_isClosed)
                    Detach();
                return eReadFailed;
            }
        }
        if (m_pDataLayer == nullptr)
            return eReadDrained;
        unsigned char *free = static_cast<unsigned char *>(m_receiveBuffer) + m_receivedSize;
        const int room = static_cast<int>(m_receiveBuffer.GetSize()) - m_receivedSize;
        const int got = m_pDataLayer->ReadData(free, room);
        if (got <= 0)
            return eReadDrained;
        m_receivedSize += got;
        if (got == room && !m_bodyDecided && !m_parser.IsHeaderComplete()) {
            // More may wait. Where the header block ends, its handler decides
            // how the body is read before any of it is.
            int consumed = 0;
            if (m_parser.Parse(m_receiveBuffer, m_receivedSize, consumed) ==
                    CHTTPRequestParser::eParseIncomplete &&
                m_parser.IsHeaderComplete())
                return eReadHeaderEnd;
        }
    }
}

void CHTTPConnectionPoint::ProcessBuffered(bool overBound)
{
    while (m_pDataLayer != nullptr) {
        int consumed = 0;
        const int result = m_parser.Parse(m_receiveBuffer, m_receivedSize, consumed);
        if (result == CHTTPRequestParser::eParseComplete) {
            m_consumed = consumed;
            const KZF::CRefCountPtr<CHTTPRequest> request = m_parser.GetRequest();
            if (m_strict && !request.IsNull())
                TakeConnectionOptions(*request);
            // A request its body handler took was answered already.
            if (request.IsNull() || m_bodyDecided || DecideBody(true))
                ProcessRequest(request);
            // Strict: the bytes after the request are the next one.
            if (!m_strict || m_isClosed || m_exchange.load() != eNoExchange || m_receivedSize == 0)
                return;
        } else if (result == CHTTPRequestParser::eParseError) {
            if (m_strict)
                Refuse(m_parser.GetErrorStatus());
            else
                ProcessRequest(KZF::CRefCountPtr<CHTTPRequest>());
            return;
        } else {
            if (overBound && m_parser.IsHeaderComplete()) {
                // The body does not fit (its length was not known, or its
                // coding takes more room than its bytes).
                Refuse(413);
            } else if (overBound) {
                // The request does not fit: answer 400 and end the
                // connection, since the rest of it would be read as a new one.
                if (m_strict) {
                    Refuse(400);
                } else {
                    m_detachAfterExchange = true;
                    ProcessRequest(KZF::CRefCountPtr<CHTTPRequest>());
                }
            } else if (m_parser.IsHeaderComplete() && !m_bodyDecided) {
                DecideBody(false);
            }
            return;
        }
    }
}

void CHTTPConnectionPoint::TakeConnectionOptions(const CHTTPRequest &request)
{
    m_headOnly = request.GetMethod() == "HEAD";
    // HTTP/1.0 closes unless it asks to keep the connection; either version
    // closes when it asks to.
    if (request.HasHeaderToken("connection", "close") ||
        (request.GetHTTPVersion() == 10 && !request.HasHeaderToken("connection", "keep-alive")))
        m_detachAfterExchange = true;
}

void CHTTPConnectionPoint::Refuse(int status)
{
    AddRef();
    m_exchange = eRunning;
    m_consumed = m_receivedSize; // nothing after a refused request is read as a request
    m_detachAfterExchange = true;
    SendResponse(closingAnswer(status));
    EndExchange();
    AfterDispatch();
    ReleaseRef();
}

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

void CHTTPConnectionPoint::AnswerNow(const KZF::CRefCountPtr<CHTTPResponse> &answer)
{
    AddRef();
    m_exchange = eRunning;
    m_consumed = m_receivedSize; // the body is not read: nothing after it is a request
    m_detachAfterExchange = true;
    m_piece = answer;
    if (answer.IsNull())
        SendResponse(m_strict ? closingAnswer(404) : s_notFoundResponse);
    else
        SendResponse(*answer);
    EndExchange();
    AfterDispatch();
    ReleaseRef();
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

const CHTTPResponse &CHTTPConnectionPoint::Announced(const CHTTPResponse &response)
{
    // A complete answer on a connection that stays open (or a stream that
    // keeps it), every send-only piece, and an answer that hands the
    // connection over go as they are.
    if (!m_strict || response.SendOnlyData() ||
        ((response.IsLast() || KeepsAfterStream(response)) && !m_detachAfterExchange) ||
        response.GetConnectionTaker() != nullptr)
        return response;
    if (&response == &s_notFoundResponse || &response == &s_badRequestResponse)
        return closingAnswer(response.GetCode());
    if (response.GetRefCount() > 0) {
        KZF::tstring value;
        CHTTPResponse &record = const_cast<CHTTPResponse &>(response);
        if (!record.GetHeaderFieldValueByName("Connection", value))
            record.AddHeaderField("Connection", "close");
    }
    return response;
}

bool CHTTPConnectionPoint::KeepsAfterStream(const CHTTPResponse &response) const
{
    return m_keepAfterStream && !response.SendOnlyData() && !response.IsLast() &&
           declaredLength(response) >= 0;
}

void CHTTPConnectionPoint::ProcessRequest(KZF::CRefCountPtr<CHTTPRequest> request)
{
    AddRef();
    m_exchange = eRunning;
    m_request = request;
    if (request.IsNull()) {
        SendResponse(s_badRequestResponse);
    } else {
        IHTTPRequestHandler *handler = m_bodyDecided ? m_pDecidedHandler : m_pLayer->FindHandler(*request);
        m_pHandler = handler;
        if (handler == nullptr) {
            SendResponse(s_notFoundResponse);
        } else {
            m_piece = handler->ProcessRequest(*request, m_connectionID);
            if (m_piece.IsNull()) {
                SendResponse(s_notFoundResponse);
            } else if (m_headOnly) {
                // The header block is the answer; a stream's pieces are
                // never pulled, and with no length known the connection ends.
                if (!m_piece->IsLast())
                    m_detachAfterExchange = true;
                SendResponse(*m_piece);
            } else if (m_piece->GetConnectionTaker() != nullptr && !m_piece->IsLast()) {
                SendResponse(*m_piece);
                HandOver();
                ReleaseRef();
                return;
            } else {
                SendResponse(*m_piece);
                if (!RunPulls()) {
                    ReleaseRef(); // parked: OnDataSent or the close goes on
                    return;
                }
            }
        }
    }
    EndExchange();
    AfterDispatch();
    ReleaseRef();
}

bool CHTTPConnectionPoint::RunPulls()
{
    IHTTPRequestHandler *handler = m_pHandler;
    while (!m_isClosed && !m_piece->IsLast()) {
        // The next piece is pulled only once the earlier ones are in the
        // kernel's hands: a slow peer holds one piece, not the whole answer.
        if (m_pDataLayer != nullptr && !m_pDataLayer->IsWritable()) {
            m_pDataLayer->PauseReading();
            int running = eRunning;
            m_exchange.compare_exchange_strong(running, eParked);
            // A close that came meanwhile may have missed the parked state:
            // whoever takes it back from parked ends the exchange.
            int parked = eParked;
            if (m_isClosed && m_exchange.compare_exchange_strong(parked, eRunning))
                break;
            return false;
        }
        m_piece = handler->GetAdditionalResponseData(m_connectionID);
        if (m_piece.IsNull()) {
            // Nothing more: an empty final piece ends the answer and closes
            // the connection.
            CHTTPResponse *end = new CHTTPResponse();
            end->SetSendOnlyData(true);
            end->SetIsLast(true);
            m_piece = end;
        }
        SendResponse(*m_piece);
    }
    return true;
}

void CHTTPConnectionPoint::EndExchange()
{
    IHTTPRequestHandler *handler = m_pHandler.exchange(nullptr);
    m_piece = static_cast<CHTTPResponse *>(nullptr);
    m_request = static_cast<CHTTPRequest *>(nullptr);
    m_streamDeclared = -1;
    m_exchange = eNoExchange;
    if (handler != nullptr) {
        // Handlers are few and a connection mostly asks the same one: the
        // cast is made once per change of handler.
        if (handler != m_pCastHandler) {
            m_pCastHandler = handler;
            m_pEndNotification = dynamic_cast<IHTTPExchangeEndNotification *>(handler);
        }
        if (m_pEndNotification != nullptr)
            m_pEndNotification->OnExchangeEnded(m_connectionID);
    }
}

void CHTTPConnectionPoint::AfterDispatch()
{
    m_parser.Reset();
    if (m_strict && m_consumed < m_receivedSize) {
        // Pipelined: what follows the request is the start of the next one.
        unsigned char *buffer = m_receiveBuffer;
        std::memmove(buffer, buffer + m_consumed, static_cast<size_t>(m_receivedSize - m_consumed));
        m_receivedSize -= m_consumed;
    } else {
        // Bytes that followed the request in the buffer go with it.
        m_receivedSize = 0;
    }
    m_consumed = 0;
    m_headOnly = false;
    m_bodyDecided = false;
    m_pDecidedHandler = nullptr;
    m_parser.SetMaxBodySize(LONG_MAX);
    if (m_detachAfterExchange) {
        m_detachAfterExchange = false;
        m_receivedSize = 0;
        if (!m_isClosed)
            Detach();
    }
}

void CHTTPConnectionPoint::UpdateIdle()
{
    if (m_pDataLayer == nullptr)
        return;
    const bool idle = m_exchange.load() == eNoExchange && m_receivedSize == 0;
    m_pDataLayer->SetIdle(idle);
    // An idle TLS connection already costs OpenSSL's session state; its
    // receive buffer need not add a kilobyte more while it waits. Next to
    // the record crypto the allocation per request is lost in the noise,
    // and plain connections keep their buffer as they always did.
    if (idle && m_receiveBuffer.GetSize() != 0 && m_pDataLayer->IsSecure())
        m_receiveBuffer.SetSize(0);
}

void CHTTPConnectionPoint::OnConnectionClosed(INVQDataLayer &connection)
{
    KZF_ASSERT(m_pDataLayer == &connection);
    (void)connection;
    AddRef();
    m_isClosed = true;
    IHTTPRequestHandler *handler = m_pHandler;
    if (handler != nullptr)
        handler->InterruptProcessing();
    // A body waiting for more bytes will not get them.
    int body = eBody;
    if (m_exchange.compare_exchange_strong(body, eRunning)) {
        m_bodyState = eBodyCut;
        FinishBody();
    }
    // A parked exchange will not be resumed: it ends here. One that runs on
    // another thread sees the flag and ends itself.
    int parked = eParked;
    if (m_exchange.compare_exchange_strong(parked, eRunning))
        EndExchange();
    m_pLayer->OnConnectionPointClosed(*this);
    ReleaseRef(); // may destroy this object
}

bool CHTTPConnectionPoint::Write(const void *data, size_t length)
{
    return m_pDataLayer->SendData(data, static_cast<int>(length)) >= 0;
}

bool CHTTPConnectionPoint::SendText(const char *text, size_t length, char (&buffer)[256])
{
    // Text items pass through a fixed buffer: none longer than 256 bytes
    // reaches the wire.
    const size_t kept = std::min(length, sizeof(buffer));
    std::memcpy(buffer, text, kept);
    return Write(buffer, kept);
}

bool CHTTPConnectionPoint::SendData(const CHTTPResponse &response)
{
    long size = response.GetDataSize();
    CHTTPFileBody *file = response.GetFileBody();
    // A response with a counted reference lives on the heap and can keep its
    // bytes alive while they wait; the shared canned answers are small.
    KZF::IRefCount *holder = size >= c_heldDataSize && response.GetRefCount() > 0
                                 ? const_cast<CHTTPResponse *>(&response)
                                 : nullptr;
    int64_t offset = response.GetFileOffset();
    const unsigned char *data = file == nullptr ? response.GetData() : nullptr;
    // No single write carries more than a slice; the last one carries the
    // rest, even when that is nothing.
    for (;;) {
        const long slice = std::min(size, c_maxSliceSize);
        bool ok;
        if (file != nullptr)
            ok = m_pDataLayer->SendFile(file->GetFd(), offset, slice, file) >= 0;
        else if (holder != nullptr)
            ok = m_pDataLayer->SendDataHeld(data, static_cast<int>(slice), holder) >= 0;
        else
            ok = Write(data, static_cast<size_t>(slice));
        if (!ok)
            return false;
        size -= slice;
        if (size == 0)
            return true;
        offset += slice;
        if (data != nullptr)
            data += slice;
    }
}

void CHTTPConnectionPoint::SendResponse(const CHTTPResponse &given)
{
    const CHTTPResponse &response = Announced(given);
    if (m_isClosed) {
        IHTTPRequestHandler *handler = m_pHandler;
        if (handler != nullptr)
            handler->InterruptProcessing();
        return;
    }
    if (m_pDataLayer == nullptr)
        return;

    if (response.SendOnlyData()) {
        m_streamSent += response.GetDataSize();
        // A stream of unknown or unmatched length is delimited by the close.
        if (SendData(response) && response.IsLast() &&
            (m_streamDeclared < 0 || m_streamSent != m_streamDeclared))
            Detach();
        return;
    }
    const bool headersOnly = response.IsHeadersOnly() || m_headOnly;
    if (!response.IsLast()) {
        m_streamDeclared = KeepsAfterStream(response) ? declaredLength(response) : -1;
        m_streamSent = headersOnly ? 0 : response.GetDataSize();
    }

    // Wire form: status line; Content-Type when set; the computed length on
    // complete answers (digits, a space, CR LF); the additional fields in
    // byte order of their names; the empty line; the data. Each item is its
    // own write: the framework gathers them into one segment. A failed write
    // means the connection is gone and its close delivered: the rest of the
    // answer is dropped.
    char buffer[256];
    size_t length = formatNumber(buffer, response.GetCode());
    if (!Write(c_statusLineStart, sizeof(c_statusLineStart) - 1) || !Write(buffer, length) ||
        !SendText(response.GetPhrase().data(), response.GetPhrase().size(), buffer) ||
        !Write(c_lineEnd, sizeof(c_lineEnd) - 1))
        return;
    if (!response.GetContentType().empty()) {
        if (!Write(c_contentTypeStart, sizeof(c_contentTypeStart) - 1) ||
            !SendText(response.GetContentType().data(), response.GetContentType().size(), buffer) ||
            !Write(c_lineEnd, sizeof(c_lineEnd) - 1))
            return;
    }
    if (response.IsLast() && !response.IsHeadersOnly()) {
        length = formatNumber(buffer, response.GetDataSize());
        if (!Write(c_contentLengthStart, sizeof(c_contentLengthStart) - 1) || !Write(buffer, length) ||
            !Write(c_lineEnd, sizeof(c_lineEnd) - 1))
            return;
    }
    for (const auto &field : response.GetAdditionalHeaders()) {
        if (!SendText(field.first.data(), field.first.size(), buffer) ||
            !Write(c_fieldSeparator, sizeof(c_fieldSeparator) - 1) ||
            !SendText(field.second.data(), field.second.size(), buffer) ||
            !Write(c_lineEnd, sizeof(c_lineEnd) - 1))
            return;
    }
    if (!Write(c_lineEnd, sizeof(c_lineEnd) - 1))
        return;
    if (response.GetDataSize() > 0 && !headersOnly)
        SendData(response);
}

void CHTTPConnectionPoint::HandOver()
{
    const KZF::CRefCountPtr<IHTTPConnectionTaker> taker(m_piece->GetConnectionTaker());
    INVQDataLayer *dataLayer = m_pDataLayer;
    // What the client sent after the request is the taker's (strict parsing
    // knows where the request ended; the lenient one drops the rest).
    std::string rest;
    if (m_strict && m_consumed < m_receivedSize)
        rest.assign(reinterpret_cast<const char *>(static_cast<unsigned char *>(m_receiveBuffer)) +
                        m_consumed,
                    static_cast<size_t>(m_receivedSize - m_consumed));
    m_detachAfterExchange = false;
    EndExchange();
    AfterDispatch();
    m_receivedSize = 0;
    if (m_isClosed || dataLayer == nullptr || m_pDataLayer == nullptr)
        return;
    // Until the taker registers, a close still comes here and is handled as
    // any other.
    dataLayer->AddRef();
    taker->TakeConnection(*dataLayer, reinterpret_cast<const unsigned char *>(rest.data()), rest.size(),
                          m_connectionID);
    m_pDataLayer = nullptr;
    dataLayer->ReleaseRef();
    // No notification of this connection reaches this point any more: leave
    // the table as a closed one would.
    m_pLayer->OnConnectionPointClosed(*this);
}

void CHTTPConnectionPoint::Detach()
{
    INVQDataLayer *dataLayer = m_pDataLayer;
    if (dataLayer == nullptr)
        return;
    dataLayer->UnregisterNotification(*this);
    dataLayer->Close();
    m_pDataLayer = nullptr;
    // No close notification will come: leave the table now, so that it only
    // holds live connections. The running notification keeps this alive.
    m_pLayer->OnConnectionPointClosed(*this);
}

} // namespace NVQ
