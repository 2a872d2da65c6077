#include "HTTP/HTTPRequestParser.h"

#include "HTTP/HTTPSyntax.h"
#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <climits>
#include <strings.h>

namespace
{

const char c_SP = 0x20;
const char c_CR = 0x0D;
const char c_LF = 0x0A;

// Strict mode. Lower-case names, as the fields are matched after ToLower.
const char c_lowerContentLength[] = "content-length";
const char c_transferEncoding[] = "transfer-encoding";
const char c_host[] = "host";
const char c_chunked[] = "chunked";
const char c_httpSlash[] = "HTTP/";
// RFC 9112 asks to skip at least one empty line before a request line; a few
// more are tolerated, an endless stream of them is not.
const int c_maxEmptyLines = 8;
// HTTP/d.d
const size_t c_versionLength = 8;
// 18 decimal digits stay below LONG_MAX, so a length is read without overflow
// checks.
const size_t c_maxLengthDigits = 18;

inline int skipClass(const unsigned char *buffer, int i, int length, int classes)
{
    while (i < length && NVQ::CHTTPSyntax::Is(buffer[i], classes))
        ++i;
    return i;
}

// One element of a comma-separated list from index i: OWS element OWS, then
// ',' (more is set) or the end of the list. The element is the run of bytes of
// the given classes at [start, end). False when it is empty or followed by
// anything else, so empty elements ("a,,b", "a,") are refused too.
bool nextListElement(const KZF::tstring &list, size_t &i, size_t &start, size_t &end, int classes, bool &more)
{
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(list.data());
    const size_t n = list.size();
    while (i < n && NVQ::CHTTPSyntax::Is(bytes[i], NVQ::CHTTPSyntax::eClassBlank))
        ++i;
    start = i;
    while (i < n && NVQ::CHTTPSyntax::Is(bytes[i], classes))
        ++i;
    end = i;
    while (i < n && NVQ::CHTTPSyntax::Is(bytes[i], NVQ::CHTTPSyntax::eClassBlank))
        ++i;
    more = i < n && bytes[i] == ',';
    if (more)
        ++i;
    return end > start && (more || i == n);
}

int chunkedError(int decoderError)
{
    typedef NVQ::CHTTPChunkedDecoder D;
    typedef NVQ::CHTTPRequestParser P;
    switch (decoderError) {
    case D::eErrorSizeOverflow:
        return P::eErrorChunkSizeOverflow;
    case D::eErrorExtension:
        return P::eErrorChunkExtension;
    case D::eErrorLineEnd:
        return P::eErrorLineEnd;
    case D::eErrorDataEnd:
        return P::eErrorChunkDataEnd;
    case D::eErrorTrailer:
        return P::eErrorTrailer;
    case D::eErrorTooLarge:
        return P::eErrorBodyTooLarge;
    default:
        return P::eErrorChunkSize;
    }
}

} // namespace

namespace NVQ
{

// The strict machine. Like the default one it resumes at m_position and
// takes runs of ordinary bytes in bulk, so every byte is examined once
// whatever the pieces; unlike it, a request ends exactly at its last byte and
// nothing after that is looked at.

void CHTTPRequestParser::Refuse(int error)
{
    m_lastError = error;
    m_state = eStateError;
}

int CHTTPRequestParser::ParseStrict(int length, int &consumed)
{
    int i = m_position;
    while (i < length && m_state > eStateComplete) {
        if (m_state == eStateStrictBody) {
            i = TakeStrictBody(length);
        } else if (m_state == eStateStrictChunked) {
            i = TakeChunkedBody(i, length);
        } else {
            i = TakeStrictRun(i, length);
            if (i < length) {
                ProcessStrictChar(m_pBuffer[i], i);
                ++i;
            }
        }
    }
    m_position = i;
    if (m_state == eStateError) {
        m_errorPosition = i;
        return eParseError;
    }
    consumed = i;
    return m_state == eStateComplete ? eParseComplete : eParseIncomplete;
}

int CHTTPRequestParser::TakeStrictRun(int i, int length)
{
    const unsigned char *buffer = m_pBuffer;
    int end = i;
    switch (m_state) {
    case eStateStrictMethod:
    case eStateStrictFieldName:
        end = skipClass(buffer, i, length, CHTTPSyntax::eClassToken);
        m_token.append(reinterpret_cast<const char *>(buffer) + i, static_cast<size_t>(end - i));
        break;
    case eStateStrictTarget:
        end = skipClass(buffer, i, length, CHTTPSyntax::eClassVisible);
        m_token.append(reinterpret_cast<const char *>(buffer) + i, static_cast<size_t>(end - i));
        break;
    case eStateStrictBeforeValue:
        i = skipClass(buffer, i, length, CHTTPSyntax::eClassBlank);
        if (i == length || !CHTTPSyntax::Is(buffer[i], CHTTPSyntax::eClassVisible))
            return i;
        m_state = eStateStrictFieldValue;
        [[fallthrough]];
    case eStateStrictFieldValue:
        end = skipClass(buffer, i, length, CHTTPSyntax::eClassValue);
        m_value.append(reinterpret_cast<const char *>(buffer) + i, static_cast<size_t>(end - i));
        break;
    default:
        break;
    }
    return end;
}

void CHTTPRequestParser::ProcessStrictChar(unsigned char ch, int index)
{
    // Every byte that reaches this step ended a run: a separator, a line end,
    // or a byte that has no place where it stands.
    CHTTPRequest *request = m_request.GetPtr();
    int error = eErrorNone;
    switch (m_state) {
    case eStateStrictLineStart:
        if (ch == c_CR) {
            m_state = eStateStrictLeadingLF;
        } else if (CHTTPSyntax::Is(ch, CHTTPSyntax::eClassToken)) {
            m_token.assign(1, static_cast<char>(ch));
            m_state = eStateStrictMethod;
        } else {
            error = ch == c_LF ? eErrorLineEnd : eErrorRequestLine;
        }
        break;
    case eStateStrictLeadingLF:
        if (ch != c_LF)
            error = eErrorLineEnd;
        else if (++m_head.m_emptyLines > c_maxEmptyLines)
            error = eErrorEmptyLines;
        else
            m_state = eStateStrictLineStart;
        break;
    case eStateStrictMethod: // request-line = method SP request-target SP HTTP-version CRLF
        if (ch != c_SP) {
            error = eErrorRequestLine;
            break;
        }
        if (request != nullptr)
            request->SetMethod(m_token);
        m_token.clear();
        m_state = eStateStrictTarget;
        break;
    case eStateStrictTarget:
        if (ch != c_SP || m_token.empty()) {
            error = eErrorRequestLine;
            break;
        }
        if (request != nullptr)
            request->SetUri(m_token);
        m_token.clear();
        m_state = eStateStrictVersion;
        break;
    case eStateStrictVersion:
        if (ch == c_CR) {
            error = ProcessStrictVersion();
            m_state = eStateStrictRequestLineLF;
        } else if (ch == c_LF) {
            error = eErrorLineEnd;
        } else if (m_token.size() < c_versionLength) {
            m_token.push_back(static_cast<char>(ch));
        } else {
            error = eErrorRequestLine;
        }
        break;
    case eStateStrictRequestLineLF:
    case eStateStrictFieldLF:
        if (ch != c_LF) {
            error = eErrorLineEnd;
            break;
        }
        if (m_state == eStateStrictFieldLF)
            error = ProcessStrictField();
        m_token.clear();
        m_value.clear();
        m_state = eStateStrictFieldStart;
        break;
    case eStateStrictFieldStart:
        if (ch == c_CR) {
            m_state = eStateStrictHeaderEndLF;
        } else if (CHTTPSyntax::Is(ch, CHTTPSyntax::eClassToken)) {
            m_token.assign(1, static_cast<char>(ch));
            m_state = eStateStrictFieldName;
        } else if (CHTTPSyntax::Is(ch, CHTTPSyntax::eClassBlank)) {
            // obs-fold: a proxy may have joined the line to the one above.
            error = eErrorObsFold;
        } else {
            error = ch == c_LF ? eErrorLineEnd : eErrorFieldName;
        }
        break;
    case eStateStrictFieldName: // field-line = field-name ":" OWS field-value OWS CRLF
        if (ch == ':') {
            KZF::CSysUtils::ToLower(m_token);
            // Value runs append, so a value left by a refused request must
            // not lead the next one.
            m_value.clear();
            m_state = eStateStrictBeforeValue;
        } else if (CHTTPSyntax::Is(ch, CHTTPSyntax::eClassBlank)) {
            error = eErrorBlankBeforeColon;
        } else {
            error = ch == c_LF ? eErrorLineEnd : eErrorFieldName;
        }
        break;
    case eStateStrictBeforeValue:
    case eStateStrictFieldValue:
        // The run took every value byte, so this is the line end or a
        // control byte (NUL, a bare LF, DEL, ...).
        if (ch == c_CR) {
            const size_t last = m_value.find_last_not_of(" \t");
            m_value.erase(last == KZF::tstring::npos ? 0 : last + 1);
            m_state = eStateStrictFieldLF;
        } else {
            error = ch == c_LF ? eErrorLineEnd : eErrorFieldValue;
        }
        break;
    case eStateStrictHeaderEndLF:
        if (ch != c_LF) {
            error = eErrorLineEnd;
            break;
        }
        m_bodyStart = index + 1;
        error = ProcessStrictHeaderEnd();
        break;
    default:
        // ParseStrict dispatches only header states here.
        KZF_ASSERT(m_state >= eStateStrictLineStart && m_state <= eStateStrictHeaderEndLF);
        break;
    }
    if (error != eErrorNone)
        Refuse(error);
}

int CHTTPRequestParser::ProcessStrictVersion()
{
    // HTTP-version = "HTTP/" DIGIT "." DIGIT, case-sensitive. A well-formed
    // version of another major number is answered 505, anything else 400.
    const KZF::tstring &version = m_token;
    const unsigned char *v = reinterpret_cast<const unsigned char *>(version.data());
    if (version.size() != c_versionLength || version.compare(0, sizeof c_httpSlash - 1, c_httpSlash) != 0 ||
        !CHTTPSyntax::Is(v[5], CHTTPSyntax::eClassDigit) || v[6] != '.' ||
        !CHTTPSyntax::Is(v[7], CHTTPSyntax::eClassDigit))
        return eErrorRequestLine;
    if (v[5] != '1')
        return eErrorVersion;
    m_head.m_version = v[7] == '0' ? 10 : 11;
    CHTTPRequest *request = m_request.GetPtr();
    if (request != nullptr)
        request->SetHTTPVersion(m_head.m_version);
    return eErrorNone;
}

int CHTTPRequestParser::ProcessStrictField()
{
    // The framing fields steer the parser and stay out of the field map, as
    // Content-Length does in the default mode.
    if (m_token == c_lowerContentLength)
        return ProcessContentLength(m_value);
    if (m_token == c_transferEncoding)
        return ProcessTransferCodings(m_value);
    if (m_token == c_host) {
        if (m_head.m_hasHost)
            return eErrorDuplicateHost;
        m_head.m_hasHost = true;
    }
    CHTTPRequest *request = m_request.GetPtr();
    if (request != nullptr)
        request->CombineHeaderField(m_token, m_value);
    return eErrorNone;
}

int CHTTPRequestParser::ProcessContentLength(const KZF::tstring &value)
{
    // Content-Length = 1*DIGIT. A list or repeated field of one value is that
    // value (RFC 9110 8.6); differing values could frame the message two ways.
    size_t i = 0;
    size_t start = 0;
    size_t end = 0;
    bool more = true;
    while (more) {
        if (!nextListElement(value, i, start, end, CHTTPSyntax::eClassDigit, more) ||
            end - start > c_maxLengthDigits)
            return eErrorContentLength;
        long length = 0;
        for (size_t d = start; d < end; ++d)
            length = length * 10 + (value[d] - '0');
        if (m_head.m_contentLength >= 0 && m_head.m_contentLength != length)
            return eErrorContentLengthMismatch;
        m_head.m_contentLength = length;
    }
    return eErrorNone;
}

int CHTTPRequestParser::ProcessTransferCodings(const KZF::tstring &value)
{
    // Repeated fields count as one list; only its shape is kept, and the
    // header end judges it.
    m_head.m_hasTransferEncoding = true;
    size_t i = 0;
    size_t start = 0;
    size_t end = 0;
    bool more = true;
    while (more) {
        if (!nextListElement(value, i, start, end, CHTTPSyntax::eClassToken, more))
            return eErrorTransferEncoding;
        const bool chunked = end - start == sizeof c_chunked - 1 &&
                             strncasecmp(value.data() + start, c_chunked, end - start) == 0;
        ++m_head.m_codings;
        if (chunked)
            ++m_head.m_chunkedCodings;
        m_head.m_lastCodingChunked = chunked;
    }
    return eErrorNone;
}

int CHTTPRequestParser::ProcessStrictHeaderEnd()
{
    // RFC 9112 6.1 and 6.3. Transfer-Encoding beside Content-Length, or in
    // HTTP/1.0, is the classic request smuggling shape: refused, not
    // repaired. Only chunked is decoded, and it must come last, once.
    const SStrictHead &head = m_head;
    if (head.m_hasTransferEncoding) {
        if (head.m_contentLength >= 0)
            return eErrorLengthAndEncoding;
        if (head.m_version == 10)
            return eErrorEncodingInHTTP10;
        if (!head.m_lastCodingChunked || head.m_chunkedCodings > 1)
            return eErrorTransferEncoding;
    }
    if (head.m_version == 11 && !head.m_hasHost)
        return eErrorMissingHost;
    CHTTPRequest *request = m_request.GetPtr();
    if (head.m_hasTransferEncoding) {
        if (head.m_codings > 1)
            return eErrorUnsupportedCoding;
        m_chunkedDecoder.Reset();
        m_chunkedDecoder.SetMaxBodySize(m_maxBodySize);
        if (request != nullptr)
            request->SetChunked(true);
        m_state = eStateStrictChunked;
    } else if (head.m_contentLength > 0) {
        if (head.m_contentLength > m_maxBodySize)
            return eErrorBodyTooLarge;
        if (request != nullptr)
            request->SetBodySize(head.m_contentLength);
        m_state = eStateStrictBody;
    } else {
        m_state = eStateComplete;
    }
    return eErrorNone;
}

int CHTTPRequestParser::TakeStrictBody(int length)
{
    const long size = m_head.m_contentLength;
    if (static_cast<long>(length) - m_bodyStart < size)
        return length;
    CHTTPRequest *request = m_request.GetPtr();
    if (request != nullptr)
        request->SetBody(m_pBuffer + m_bodyStart, size);
    m_state = eStateComplete;
    return m_bodyStart + static_cast<int>(size);
}

int CHTTPRequestParser::TakeChunkedBody(int i, int length)
{
    while (i < length) {
        size_t used = 0;
        const unsigned char *data = nullptr;
        size_t dataSize = 0;
        const int result =
            m_chunkedDecoder.Decode(m_pBuffer + i, static_cast<size_t>(length - i), used, data, dataSize);
        i += static_cast<int>(used);
        if (dataSize > 0)
            m_chunkedBody.append(reinterpret_cast<const char *>(data), dataSize);
        if (result == CHTTPChunkedDecoder::eResultError) {
            Refuse(chunkedError(m_chunkedDecoder.GetError()));
            break;
        }
        if (result == CHTTPChunkedDecoder::eResultDone) {
            // The spans lay scattered in the caller's buffer, so the body is
            // gathered here and copied into the request once.
            CHTTPRequest *request = m_request.GetPtr();
            if (request != nullptr && !m_chunkedBody.empty())
                request->SetBody(reinterpret_cast<const unsigned char *>(m_chunkedBody.data()),
                                 static_cast<long>(m_chunkedBody.size()));
            KZF::tstring().swap(m_chunkedBody);
            m_state = eStateComplete;
            break;
        }
    }
    return i;
}

} // namespace NVQ
