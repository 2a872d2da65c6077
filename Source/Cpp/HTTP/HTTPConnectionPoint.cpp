#include "HTTP/HTTPConnectionPoint.h"

#include "HTTP/HTTPLayer.h"
#include "HTTP/IHTTPExchangeEndNotification.h"
#include "KZF_Base/Linux/KzfAssert.h"

#include <algorithm>
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
      m_strict(false), m_headOnly(false), m_expectHandled(false), m_consumed(0), m_pCastHandler(nullptr),
      m_pEndNotification(nullptr)
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
    // A body must fit the receive buffer with its header block.
    m_parser.SetMaxBodySize(c_maxRequestSize);
}

void CHTTPConnectionPoint::OnDataReceived(INVQDataLayer &)
{
    AddRef(); // survives the layer dropping it meanwhile
    // A parked exchange has the connection; reading waits for its end.
    if (m_exchange.load() == eNoExchange)
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
    // Read everything waiting, growing the buffer in steps while fewer than
    // 32 bytes are free, but never beyond the request bound.
    bool overBound = false;
    for (;;) {
        const unsigned long size = m_receiveBuffer.GetSize();
        if (size - static_cast<unsigned long>(m_receivedSize) <
            static_cast<unsigned long>(c_minimumFreeSpace)) {
            if (size + c_bufferGrowth > static_cast<unsigned long>(c_maxRequestSize)) {
                overBound = true;
                break;
            }
            if (!m_receiveBuffer.SetSize(size + c_bufferGrowth)) {
                // Out of memory. A failed resize leaves the buffer empty, so
                // the request's first bytes are gone: the connection cannot
                // go on, and nothing is answered.
                m_receivedSize = 0;
                m_parser.Reset();
                m_receiveBuffer.SetSize(c_initialBufferSize);
                if (!m_isClosed)
                    Detach();
                return;
            }
        }
        if (m_pDataLayer == nullptr)
            break;
        unsigned char *free = static_cast<unsigned char *>(m_receiveBuffer) + m_receivedSize;
        const int got =
            m_pDataLayer->ReadData(free, static_cast<int>(m_receiveBuffer.GetSize()) - m_receivedSize);
        if (got <= 0)
            break;
        m_receivedSize += got;
    }
    ProcessBuffered(overBound);
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
            if (overBound) {
                // The request does not fit: answer 400 and end the
                // connection, since the rest of it would be read as a new one.
                if (m_strict) {
                    Refuse(400);
                } else {
                    m_detachAfterExchange = true;
                    ProcessRequest(KZF::CRefCountPtr<CHTTPRequest>());
                }
            } else if (m_strict && m_parser.IsHeaderComplete() && !m_expectHandled) {
                HandleExpectation();
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

void CHTTPConnectionPoint::HandleExpectation()
{
    m_expectHandled = true;
    const KZF::CRefCountPtr<CHTTPRequest> request = m_parser.GetRequest();
    KZF::tstring expectation;
    if (request.IsNull() || !request->GetHeaderFieldValueByName("expect", expectation))
        return;
    if (!request->HasHeaderToken("expect", "100-continue") || request->GetHTTPVersion() != 11) {
        Refuse(417);
        return;
    }
    // A client that sent its body already did not wait; one without a body
    // has nothing to wait for.
    if (m_receivedSize > m_parser.GetBodyStart() || (request->GetBodySize() == 0 && !request->IsChunked()))
        return;
    // Only a request some handler takes is worth its body; for any other the
    // final answer goes out at once and the body is never read.
    if (m_pLayer->FindHandler(*request) == nullptr) {
        Refuse(404);
        return;
    }
    Write(c_continue, sizeof(c_continue) - 1);
}

const CHTTPResponse &CHTTPConnectionPoint::Announced(const CHTTPResponse &response)
{
    // A complete answer on a connection that stays open, and every
    // send-only piece, go as they are.
    if (!m_strict || response.SendOnlyData() || (response.IsLast() && !m_detachAfterExchange))
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
        if (m_pDataLayer != nullptr)
            request->SetSecure(m_pDataLayer->IsSecure());
        IHTTPRequestHandler *handler = m_pLayer->FindHandler(*request);
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
    m_expectHandled = false;
    if (m_detachAfterExchange) {
        m_detachAfterExchange = false;
        m_receivedSize = 0;
        if (!m_isClosed)
            Detach();
    }
}

void CHTTPConnectionPoint::UpdateIdle()
{
    if (m_pDataLayer != nullptr)
        m_pDataLayer->SetIdle(m_exchange.load() == eNoExchange && m_receivedSize == 0);
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
        if (SendData(response) && response.IsLast())
            Detach();
        return;
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
    if (response.IsLast()) {
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
    if (response.GetDataSize() > 0 && !m_headOnly)
        SendData(response);
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
