#include "HTTP/HTTPConnectionPoint.h"

#include <algorithm>
#include <cstring>

// Writing answers out: the header block item by item, then the data in
// slices, from memory or straight from a file.

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

bool CHTTPConnectionPoint::KeepsAfterStream(const CHTTPResponse &response) const
{
    return m_keepAfterStream && !response.SendOnlyData() && !response.IsLast() &&
           declaredLength(response) >= 0;
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

} // namespace NVQ
