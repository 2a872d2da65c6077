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

const unsigned long c_initialBufferSize = 1024;
const unsigned long c_bufferGrowth = 512;
const int c_minimumFreeSpace = 32;

} // namespace

// Shared by every connection point; never changed after construction.
CNotFoundResponse s_notFoundResponse;
CBadRequestResponse s_badRequestResponse;

CHTTPConnectionPoint::CHTTPConnectionPoint(INVQDataLayer *dataLayer, CHTTPLayer *layer, int connectionID)
    : m_pDataLayer(dataLayer), m_pLayer(layer), m_pHandler(nullptr), m_receivedSize(0),
      m_connectionID(connectionID), m_isClosed(false)
{
    if (m_pDataLayer != nullptr)
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

void CHTTPConnectionPoint::OnDataReceived(INVQDataLayer &)
{
    AddRef(); // survives the layer dropping it meanwhile

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
                ReleaseRef();
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

    int consumed = 0;
    const int result = m_parser.Parse(m_receiveBuffer, m_receivedSize, consumed);
    if (result == CHTTPRequestParser::eParseComplete) {
        ProcessRequest(m_parser.GetRequest());
        m_parser.Reset();
        m_receivedSize = 0;
    } else if (result == CHTTPRequestParser::eParseError) {
        ProcessRequest(KZF::CRefCountPtr<CHTTPRequest>());
        m_parser.Reset();
        m_receivedSize = 0;
    } else if (overBound) {
        // The request does not fit: answer 400 and end the connection, since
        // the rest of the request would be read as a new one.
        ProcessRequest(KZF::CRefCountPtr<CHTTPRequest>());
        m_parser.Reset();
        m_receivedSize = 0;
        if (!m_isClosed)
            Detach();
    }
    ReleaseRef(); // may destroy this object: nothing may follow
}

void CHTTPConnectionPoint::ProcessRequest(KZF::CRefCountPtr<CHTTPRequest> request)
{
    AddRef();
    if (request.IsNull()) {
        SendResponse(s_badRequestResponse);
        ReleaseRef();
        return;
    }
    IHTTPRequestHandler *handler = m_pLayer != nullptr ? m_pLayer->FindHandler(*request) : nullptr;
    m_pHandler = handler;
    if (handler == nullptr) {
        SendResponse(s_notFoundResponse);
        ReleaseRef();
        return;
    }

    KZF::CRefCountPtr<CHTTPResponse> piece = handler->ProcessRequest(*request, m_connectionID);
    if (piece.IsNull()) {
        SendResponse(s_notFoundResponse);
    } else {
        SendResponse(*piece);
        while (!m_isClosed && !piece->IsLast()) {
            piece = handler->GetAdditionalResponseData(m_connectionID);
            if (piece.IsNull()) {
                // Nothing more: an empty final piece ends the answer and
                // closes the connection.
                CHTTPResponse *end = new CHTTPResponse();
                end->SetSendOnlyData(true);
                end->SetIsLast(true);
                piece = end;
            }
            SendResponse(*piece);
        }
    }
    m_pHandler = nullptr;
    piece = static_cast<CHTTPResponse *>(nullptr);
    IHTTPExchangeEndNotification *endNotification = dynamic_cast<IHTTPExchangeEndNotification *>(handler);
    if (endNotification != nullptr)
        endNotification->OnExchangeEnded(m_connectionID);
    ReleaseRef();
}

void CHTTPConnectionPoint::OnConnectionClosed(INVQDataLayer &connection)
{
    KZF_ASSERT(m_pDataLayer == &connection);
    (void)connection;
    m_isClosed = true;
    IHTTPRequestHandler *handler = m_pHandler;
    if (handler != nullptr)
        handler->InterruptProcessing();
    if (m_pLayer != nullptr)
        m_pLayer->OnConnectionPointClosed(*this); // may destroy this object
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

bool CHTTPConnectionPoint::SendSlices(const unsigned char *data, long size)
{
    while (size > c_maxSliceSize) {
        if (!Write(data, c_maxSliceSize))
            return false;
        data += c_maxSliceSize;
        size -= c_maxSliceSize;
    }
    return Write(data, static_cast<size_t>(size));
}

void CHTTPConnectionPoint::SendResponse(const CHTTPResponse &response)
{
    if (m_isClosed) {
        IHTTPRequestHandler *handler = m_pHandler;
        if (handler != nullptr)
            handler->InterruptProcessing();
        return;
    }
    if (m_pDataLayer == nullptr)
        return;

    if (response.SendOnlyData()) {
        if (SendSlices(response.GetData(), response.GetDataSize()) && response.IsLast())
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
    int length = std::snprintf(buffer, sizeof(buffer), "%d ", response.GetCode());
    if (!Write(c_statusLineStart, sizeof(c_statusLineStart) - 1) ||
        !Write(buffer, std::min<size_t>(length, sizeof(buffer) - 1)) ||
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
        length = std::snprintf(buffer, sizeof(buffer), "%ld ", response.GetDataSize());
        if (!Write(c_contentLengthStart, sizeof(c_contentLengthStart) - 1) ||
            !Write(buffer, std::min<size_t>(length, sizeof(buffer) - 1)) ||
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
    if (response.GetDataSize() > 0)
        SendSlices(response.GetData(), response.GetDataSize());
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
    if (m_pLayer != nullptr)
        m_pLayer->OnConnectionPointClosed(*this);
}

} // namespace NVQ
