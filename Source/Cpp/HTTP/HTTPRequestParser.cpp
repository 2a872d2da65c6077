#include "HTTP/HTTPRequestParser.h"

#include "HTTP/HTTPSyntax.h"
#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <climits>
#include <cstring>
#include <new>

namespace
{

// The one header field the parser acts on itself; matched byte for byte, so
// "content-length" is an ordinary field.
const char c_contentLength[] = "Content-Length";

const char c_SP = 0x20;
const char c_CR = 0x0D;
const char c_LF = 0x0A;
const char c_colon = 0x3A;

// TAB is deliberately not a blank anywhere. withLineEnds: CR and LF count as
// blanks too (header block); the request line only skips SP.
inline bool IsBlank(char ch, bool withLineEnds)
{
    return ch == c_SP || (withLineEnds && (ch == c_CR || ch == c_LF));
}

inline bool IsLineEnd(char ch)
{
    return ch == c_CR || ch == c_LF;
}

// Byte classes for skipping over runs of bytes that a state only collects.
enum { eClassSP = 1, eClassCR = 2, eClassLF = 4, eClassColon = 8 };

struct SByteClasses {
    unsigned char classes[256];
    constexpr SByteClasses() : classes()
    {
        classes[static_cast<unsigned char>(c_SP)] = eClassSP;
        classes[static_cast<unsigned char>(c_CR)] = eClassCR;
        classes[static_cast<unsigned char>(c_LF)] = eClassLF;
        classes[static_cast<unsigned char>(c_colon)] = eClassColon;
    }
};
constexpr SByteClasses s_byteClasses;

// Index of the first byte from i on whose class is in stopClasses, or length.
inline int FindClass(const unsigned char *buffer, int i, int length, unsigned char stopClasses)
{
    while (i < length && (s_byteClasses.classes[buffer[i]] & stopClasses) == 0)
        ++i;
    return i;
}

} // namespace

namespace NVQ
{

CHTTPRequestParser::CHTTPRequestParser()
    : m_position(0), m_state(eStateRequestLineStart), m_pBuffer(nullptr), m_bodyStart(0),
      m_lastError(eErrorNone), m_errorPosition(0), m_strict(false), m_strictNext(false),
      m_maxBodySize(LONG_MAX)
{
    Reset();
}

CHTTPRequestParser::~CHTTPRequestParser() {}

void CHTTPRequestParser::Reset()
{
    m_lastError = eErrorNone;
    m_errorPosition = 0;
    m_position = 0;
    m_state = eStateRequestLineStart;
    // The previous request lives on while its other holders keep it.
    m_request = new (std::nothrow) CHTTPRequest();
    // clear() keeps the capacity, so steady traffic stops allocating here.
    m_token.clear();
    m_value.clear();
    m_pBuffer = nullptr;
    m_bodyStart = 0;
    m_strict = m_strictNext;
    if (m_strict) {
        m_state = eStateStrictLineStart;
        m_head = SStrictHead();
    }
    // Only a chunked body that failed halfway leaves bytes here; they are not
    // kept for the life of the connection.
    if (!m_chunkedBody.empty())
        KZF::tstring().swap(m_chunkedBody);
}

void CHTTPRequestParser::SetStrict(bool strict)
{
    m_strictNext = strict;
    // A cycle that has examined nothing has no state to carry over.
    if (m_position == 0 && (m_state == eStateRequestLineStart || m_state == eStateStrictLineStart)) {
        m_strict = strict;
        m_state = strict ? eStateStrictLineStart : eStateRequestLineStart;
        m_head = SStrictHead();
    }
}

int CHTTPRequestParser::GetErrorStatus() const
{
    if (m_state != eStateError)
        return 0;
    switch (m_lastError) {
    case eErrorVersion:
        return 505;
    case eErrorUnsupportedCoding:
        return 501;
    case eErrorBodyTooLarge:
        return 413;
    default:
        return 400;
    }
}

int CHTTPRequestParser::GetLastError(int &position) const
{
    position = m_errorPosition;
    return m_lastError;
}

long CHTTPRequestParser::BodySize() const
{
    const CHTTPRequest *request = m_request.GetPtr();
    return request != nullptr ? request->GetBodySize() : 0;
}

int CHTTPRequestParser::Parse(const unsigned char *buffer, int length, int &consumed)
{
    m_pBuffer = buffer;
    // One test per call sends the error state and the strict states (from 17
    // up) off this path, so the default mode pays nothing for strict mode. A
    // strict request that is complete takes the path below, which only
    // reports consumed as its end.
    if (static_cast<unsigned>(m_state - 1) >= static_cast<unsigned>(eStateBody)) {
        if (m_state == eStateError)
            return eParseError;
        return ParseStrict(length, consumed);
    }

    int i = m_position;
    while (i < length && m_state != eStateError && m_state != eStateComplete) {
        i = TakeOrdinaryRun(i, length);
        if (i >= length)
            break;
        const char ch = static_cast<char>(buffer[i]);
        if (m_state <= eStateVersion)
            ProcessRequestLineChar(ch);
        else if (m_state <= eStateLineStart)
            ProcessHeaderChar(ch);
        else
            ProcessBodyChar(ch, i);
        ++i;
    }
    m_position = i;
    consumed = m_position;

    if (m_state == eStateError) {
        m_errorPosition = i;
        return eParseError;
    }
    // A request without body is complete when the buffer ends right after the
    // header block; otherwise the next byte would complete it (see
    // ProcessBodyChar).
    if (m_state == eStateBody && m_bodyStart == m_position && !m_request.IsNull() && BodySize() == 0) {
        m_state = eStateComplete;
        return eParseComplete;
    }
    return m_state == eStateComplete ? eParseComplete : eParseIncomplete;
}

int CHTTPRequestParser::TakeOrdinaryRun(int i, int length)
{
    // Only bytes that the per-byte step would append (or merely count) are
    // taken here, so the outcome, consumed counts and error positions are
    // exactly those of the byte-by-byte machine.
    const unsigned char *buffer = m_pBuffer;
    int end = i;
    switch (m_state) {
    case eStateMethod:
    case eStateUri: {
        const void *space = std::memchr(buffer + i, c_SP, static_cast<size_t>(length - i));
        end =
            space != nullptr ? static_cast<int>(static_cast<const unsigned char *>(space) - buffer) : length;
        m_token.append(reinterpret_cast<const char *>(buffer) + i, static_cast<size_t>(end - i));
        break;
    }
    case eStateVersion:
        end = FindClass(buffer, i, length, eClassCR | eClassLF);
        m_token.append(reinterpret_cast<const char *>(buffer) + i, static_cast<size_t>(end - i));
        break;
    case eStateFieldName:
        end = FindClass(buffer, i, length, eClassSP | eClassCR | eClassLF | eClassColon);
        m_token.append(reinterpret_cast<const char *>(buffer) + i, static_cast<size_t>(end - i));
        break;
    case eStateFieldValue: {
        // Values are the long part of a header block, so they are scanned with
        // memchr: first to the LF that ends the line, then for a CR before it.
        // The LF scan never passes bytes that the parser would not reach
        // anyway (after a bare CR everything up to the next LF is skipped), so
        // the work stays linear in the bytes consumed.
        const void *lineFeed = std::memchr(buffer + i, c_LF, static_cast<size_t>(length - i));
        end = lineFeed != nullptr ? static_cast<int>(static_cast<const unsigned char *>(lineFeed) - buffer)
                                  : length;
        const void *carriageReturn = std::memchr(buffer + i, c_CR, static_cast<size_t>(end - i));
        if (carriageReturn != nullptr)
            end = static_cast<int>(static_cast<const unsigned char *>(carriageReturn) - buffer);
        m_value.append(reinterpret_cast<const char *>(buffer) + i, static_cast<size_t>(end - i));
        break;
    }
    case eStateBody: {
        // Byte i completes the body when i + 1 - m_bodyStart >= size; in long,
        // because a saturated Content-Length would overflow int arithmetic.
        const long remaining = BodySize() - (static_cast<long>(i) - m_bodyStart);
        if (remaining > 1)
            end =
                remaining - 1 < static_cast<long>(length - i) ? i + static_cast<int>(remaining - 1) : length;
        break;
    }
    default:
        break;
    }
    return end;
}

void CHTTPRequestParser::ProcessRequestLineChar(char ch)
{
    // request-line = method SP+ request-target SP+ version LF; only SP
    // separates, and a CR in the version word is dropped.
    switch (m_state) {
    case eStateRequestLineStart:
        if (ch != c_SP) {
            m_token.assign(1, ch);
            m_state = eStateMethod;
        }
        break;
    case eStateMethod:
        if (ch == c_SP) {
            if (ProcessMethodWord(m_token)) {
                m_token.clear();
                m_state = eStateBeforeUri;
            } else {
                m_state = eStateError;
            }
        } else {
            m_token.push_back(ch);
        }
        break;
    case eStateBeforeUri:
        if (ch != c_SP) {
            m_token.push_back(ch);
            m_state = eStateUri;
        }
        break;
    case eStateUri:
        if (ch == c_SP) {
            ProcessUri(m_token);
            m_token.clear();
            m_state = eStateBeforeVersion;
        } else {
            m_token.push_back(ch);
        }
        break;
    case eStateBeforeVersion:
        if (ch != c_SP) {
            m_token.push_back(ch);
            m_state = eStateVersion;
        }
        break;
    case eStateVersion:
        if (ch == c_LF) {
            ProcessHTTPVersion(m_token);
            m_token.clear();
            m_state = eStateFieldStart;
        } else if (ch != c_CR) {
            m_token.push_back(ch);
        }
        break;
    default:
        // Parse dispatches only request-line states here.
        KZF_ASSERT(m_state >= eStateRequestLineStart && m_state <= eStateVersion);
        break;
    }
}

void CHTTPRequestParser::ProcessHeaderChar(char ch)
{
    // In the header block CR and LF are blanks as well, so a name that is
    // still waiting for its colon, or a value that has not begun, runs on
    // into the next line.
    const bool blank = IsBlank(ch, true);
    switch (m_state) {
    case eStateFieldStart:
        if (!blank) {
            m_token.assign(1, ch);
            m_state = eStateFieldName;
        }
        break;
    case eStateFieldName:
        if (ch == c_colon)
            m_state = eStateBeforeValue;
        else if (blank)
            m_state = eStateBeforeColon;
        else
            m_token.push_back(ch);
        break;
    case eStateBeforeColon:
        if (blank || ch == c_colon) {
            m_value.clear();
            m_state = eStateBeforeValue;
        } else {
            m_lastError = eErrorFieldSyntax;
            m_state = eStateError;
        }
        break;
    case eStateBeforeValue:
        if (!blank) {
            m_value.assign(1, ch);
            m_state = eStateFieldValue;
        }
        break;
    case eStateFieldValue:
        if (IsLineEnd(ch)) {
            if (ProcessHeaderField(m_token, m_value)) {
                m_value.clear();
                m_token.clear();
                m_state = eStateFieldStart;
            } else {
                m_state = eStateError;
            }
        } else {
            m_value.push_back(ch);
        }
        break;
    case eStateLineFeed:
        if (ch == c_LF)
            m_state = eStateLineStart;
        break;
    case eStateLineStart:
        if (ch == c_CR) {
            m_state = eStateHeaderEnd;
        } else if (blank) {
            m_state = eStateFieldStart;
        } else {
            m_token.assign(1, ch);
            m_state = eStateFieldName;
        }
        break;
    default:
        // Parse dispatches only header-block states here.
        KZF_ASSERT(m_state >= eStateFieldStart && m_state <= eStateLineStart);
        return;
    }
    // A CR ends whatever line it is in; only the CR right after a CR LF
    // starts the end of the header block. The header block therefore always
    // ends in CR LF CR LF, while a bare LF only ends a field value.
    if (ch == c_CR && m_state >= eStateFieldStart && m_state <= eStateLineStart)
        m_state = eStateLineFeed;
}

void CHTTPRequestParser::ProcessBodyChar(char ch, int index)
{
    switch (m_state) {
    case eStateHeaderEnd:
        if (ch == c_LF) {
            m_bodyStart = index + 1;
            m_state = eStateBody;
        } else {
            m_lastError = eErrorHeaderEnd;
            m_state = eStateError;
        }
        break;
    case eStateBody:
        if (static_cast<long>(index) + 1 - m_bodyStart >= BodySize()) {
            ProcessRequestBody();
            m_state = eStateComplete;
        }
        break;
    default:
        break;
    }
}

bool CHTTPRequestParser::ProcessMethodWord(const KZF::tstring &word)
{
    CHTTPRequest *request = m_request.GetPtr();
    if (request != nullptr)
        request->SetMethod(word);
    return true;
}

bool CHTTPRequestParser::ProcessUri(const KZF::tstring &uri)
{
    CHTTPRequest *request = m_request.GetPtr();
    if (request != nullptr)
        request->SetUri(uri);
    return true;
}

bool CHTTPRequestParser::ProcessHTTPVersion(const KZF::tstring &)
{
    // The version is neither examined nor kept: every request is answered alike.
    return true;
}

bool CHTTPRequestParser::ProcessHeaderField(const KZF::tstring &name, const KZF::tstring &value)
{
    CHTTPRequest *request = m_request.GetPtr();
    if (request == nullptr)
        return true;
    // _atoi reads like atoi but saturates; the request maps a negative size
    // to 0. A later Content-Length replaces an earlier one.
    if (name.size() == sizeof c_contentLength - 1 && name.compare(c_contentLength) == 0)
        request->SetBodySize(_atoi(value.c_str()));
    else
        request->AddHeaderField(name, value);
    return true;
}

bool CHTTPRequestParser::ProcessRequestBody()
{
    // The body is copied out of the buffer of the call that completes it.
    CHTTPRequest *request = m_request.GetPtr();
    if (request != nullptr)
        request->SetBody(m_pBuffer + m_bodyStart, request->GetBodySize());
    return true;
}

} // namespace NVQ
