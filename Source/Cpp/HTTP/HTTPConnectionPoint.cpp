#include "HTTP/HTTPConnectionPoint.h"

#include "HTTP/HTTPLayer.h"
#include "HTTP/IHTTPExchangeEndNotification.h"
#include "KZF_Base/Linux/KzfAssert.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

namespace NVQ
{

namespace
{

enum EReadResult { eReadDrained, eReadHeaderEnd, eReadOverBound, eReadFailed };

const unsigned long c_initialBufferSize = 1024;
const unsigned long c_bufferGrowth = 512;
const int c_minimumFreeSpace = 32;

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
      m_peerDone(false), m_strict(false), m_headOnly(false), m_bodyDecided(false),
      m_maxHeaderBytes(c_defaultMaxHeaderBytes), m_maxBodyBytes(c_defaultMaxBodyBytes),
      m_pDecidedHandler(nullptr), m_pBodyHandler(nullptr), m_bodyState(eBodyMore), m_chunkedBody(false),
      m_bodyRemaining(0), m_bodyLimit(0), m_consumed(0), m_keepAfterStream(false), m_streamDeclared(-1),
      m_streamSent(0), m_pCastHandler(nullptr), m_pEndNotification(nullptr), m_pBodyCastHandler(nullptr),
      m_pBodyCast(nullptr), m_secure(false)
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
            // A peer that asked to close and sent nothing past its request
            // has nothing more to send.
            m_peerDone = !request.IsNull() && consumed == m_receivedSize &&
                         request->HasHeaderToken("connection", "close");
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
    m_peerDone = false;
}

void CHTTPConnectionPoint::UpdateIdle()
{
    if (m_pDataLayer == nullptr)
        return;
    const bool idle = m_exchange.load() == eNoExchange && m_receivedSize == 0;
    m_pDataLayer->SetIdle(idle);
    // A connection waiting between requests holds no receive buffer: idle
    // connections are what a device has thousands of, and the kilobyte
    // comes back from the allocator's per-thread cache with the next
    // request's first bytes. Within a request the buffer grows and is kept.
    if (idle && m_receiveBuffer.GetSize() != 0)
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
    if (m_peerDone)
        dataLayer->SetNoMoreInput();
    dataLayer->Close();
    m_pDataLayer = nullptr;
    // No close notification will come: leave the table now, so that it only
    // holds live connections. The running notification keeps this alive.
    m_pLayer->OnConnectionPointClosed(*this);
}

} // namespace NVQ
