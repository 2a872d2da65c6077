#include "HTTP/HTTPMultipartParser.h"

#include "HTTP/HTTPHeaderParams.h"
#include "HTTP/HTTPSyntax.h"

#include <cstring>

namespace NVQ
{

namespace
{

enum EState {
    eStatePreamble,     // before the first delimiter: skipped
    eStateData,         // inside a part's content
    eStateDelimiterEnd, // the first byte after a delimiter
    eStatePadding,      // blanks after a delimiter
    eStateCloseDash,    // one '-' after a delimiter
    eStateDelimiterLF,  // the CR of the delimiter line seen
    eStateHeaderLine,   // inside a header line
    eStateHeaderLF,     // the CR of a header line seen
    eStateDone,         // after the close delimiter: the epilogue
    eStateFailed
};

// Parameters of Content-Type and Content-Disposition values; real senders
// use two or three.
const size_t c_maxValueParams = 16;
const size_t c_maxBoundary = 70;

bool isBoundaryChar(char ch)
{
    if ((ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z'))
        return true;
    return std::strchr("'()+_,-./:=? ", ch) != nullptr && ch != 0;
}

bool isBlank(unsigned char ch)
{
    return ch == ' ' || ch == '\t';
}

std::string trimBlanks(const std::string &text, size_t begin)
{
    size_t end = text.size();
    while (begin < end && isBlank(static_cast<unsigned char>(text[begin])))
        ++begin;
    while (end > begin && isBlank(static_cast<unsigned char>(text[end - 1])))
        --end;
    return text.substr(begin, end - begin);
}

} // namespace

CHTTPMultipartParser::CHTTPMultipartParser(IHTTPMultipartSink &sink, const std::string &contentType,
                                           const SLimits &limits)
    : m_sink(sink), m_limits(limits), m_state(eStatePreamble), m_error(eErrorNone), m_errorPosition(0),
      m_offset(0), m_matched(0), m_held(0), m_parts(0), m_stopped(false), m_headerBytes(0)
{
    std::string boundary;
    if (!ExtractBoundary(contentType, boundary)) {
        Fail(eErrorContentType, 0);
        return;
    }
    m_delimiter = "\r\n--" + boundary;
    // The first delimiter may open the body without the line end that
    // belongs to every other one: count that line end as seen, and as held
    // (the preamble emits nothing, so nothing is taken from the piece).
    m_matched = 2;
    m_held = 2;
}

bool CHTTPMultipartParser::ExtractBoundary(const std::string &contentType, std::string &boundary)
{
    std::string type;
    std::vector<CHTTPHeaderParams::SParam> params;
    if (!CHTTPHeaderParams::ParseTyped(contentType, c_maxValueParams, type, params) ||
        type != "multipart/form-data")
        return false;
    const CHTTPHeaderParams::SParam *param = CHTTPHeaderParams::Find(params, "boundary");
    if (param == nullptr || param->m_value.empty() || param->m_value.size() > c_maxBoundary ||
        param->m_value.back() == ' ')
        return false;
    for (const char ch : param->m_value) {
        if (!isBoundaryChar(ch))
            return false;
    }
    boundary = param->m_value;
    return true;
}

int CHTTPMultipartParser::Fail(int error, uint64_t position)
{
    m_state = eStateFailed;
    m_error = error;
    m_errorPosition = position;
    return eResultError;
}

int CHTTPMultipartParser::Stop()
{
    m_state = eStateFailed;
    m_stopped = true;
    return eResultStopped;
}

// Looks for the delimiter in the content of a part (emit) or the preamble.
// Every byte that cannot begin the delimiter is content; the bytes of a
// partial match at the end of the piece are held back by count only, since
// they equal the start of the delimiter. Because the delimiter holds a CR
// only at its start, a failed partial match can only restart at the failing
// byte itself. Returns the bytes used: up to the end of the delimiter when
// it was found (m_matched is then its full length), else all.
size_t CHTTPMultipartParser::Match(const unsigned char *data, size_t size, bool emit)
{
    const size_t length = m_delimiter.size();
    size_t i = 0;
    while (i < size) {
        if (m_matched == 0) {
            const void *cr = std::memchr(data + i, '\r', size - i);
            if (cr == nullptr) {
                i = size;
                break;
            }
            i = static_cast<size_t>(static_cast<const unsigned char *>(cr) - data) + 1;
            m_matched = 1;
            continue;
        }
        if (data[i] == static_cast<unsigned char>(m_delimiter[m_matched])) {
            ++i;
            if (++m_matched == length)
                break;
            continue;
        }
        // Held bytes turn out to be content; they come before this piece.
        if (m_held > 0 && emit &&
            !m_sink.OnPartData(reinterpret_cast<const unsigned char *>(m_delimiter.data()), m_held)) {
            m_stopped = true;
            return i;
        }
        m_held = 0;
        m_matched = 0;
    }
    const size_t inPiece = m_matched - m_held;
    const size_t content = i - inPiece;
    if (m_matched == length) {
        m_held = 0;
    } else {
        // Bytes of this piece in the partial match are held; older held
        // bytes stay held as well.
        m_held = m_matched;
    }
    if (emit && content > 0 && !m_sink.OnPartData(data, content))
        m_stopped = true;
    return i;
}

int CHTTPMultipartParser::Feed(const unsigned char *data, size_t size)
{
    if (m_state == eStateFailed)
        return m_stopped ? eResultStopped : eResultError;
    size_t i = 0;
    while (i < size && m_state != eStateDone) {
        const uint64_t position = m_offset + i;
        if (m_state == eStatePreamble || m_state == eStateData) {
            const bool inPart = m_state == eStateData;
            i += Match(data + i, size - i, inPart);
            if (m_stopped)
                return Stop();
            if (m_matched != m_delimiter.size())
                continue;
            m_matched = 0;
            m_state = eStateDelimiterEnd;
            if (inPart && !m_sink.OnPartEnd())
                return Stop();
            continue;
        }
        const unsigned char ch = data[i++];
        switch (m_state) {
        case eStateDelimiterEnd:
            if (ch == '-') {
                m_state = eStateCloseDash;
                break;
            }
            [[fallthrough]];
        case eStatePadding:
            if (isBlank(ch)) {
                m_state = eStatePadding;
            } else if (ch == '\r') {
                m_state = eStateDelimiterLF;
            } else {
                return Fail(ch == '\n' ? eErrorLineEnd : eErrorDelimiter, position);
            }
            break;
        case eStateCloseDash:
            if (ch != '-')
                return Fail(eErrorDelimiter, position);
            m_state = eStateDone;
            m_sink.OnBodyEnd();
            break;
        case eStateDelimiterLF:
            if (ch != '\n')
                return Fail(eErrorLineEnd, position);
            if (m_parts == m_limits.m_maxParts)
                return Fail(eErrorTooManyParts, position);
            m_part = IHTTPMultipartSink::SPart();
            m_line.clear();
            m_headerBytes = 0;
            m_state = eStateHeaderLine;
            break;
        case eStateHeaderLine:
        case eStateHeaderLF:
            if (!HeaderByte(ch, position))
                return m_stopped ? Stop() : eResultError;
            break;
        default:
            break;
        }
    }
    m_offset += size;
    return m_state == eStateDone ? eResultDone : eResultMore;
}

// One byte of a header block, CR LF line ends only; the block is bounded as
// a whole, CR LFs included, so a part cannot hold memory with empty space.
bool CHTTPMultipartParser::HeaderByte(unsigned char ch, uint64_t position)
{
    if (++m_headerBytes > m_limits.m_maxHeaderBytes) {
        Fail(eErrorHeaderTooLarge, position);
        return false;
    }
    if (m_state == eStateHeaderLF) {
        if (ch != '\n') {
            Fail(eErrorLineEnd, position);
            return false;
        }
        m_state = eStateHeaderLine;
        if (m_line.empty())
            return EndHeaders(position);
        const bool ok = HeaderLine(position);
        m_line.clear();
        return ok;
    }
    if (ch == '\r') {
        m_state = eStateHeaderLF;
        return true;
    }
    if (ch == '\n') {
        Fail(eErrorLineEnd, position);
        return false;
    }
    if (!CHTTPSyntax::Is(ch, CHTTPSyntax::eClassValue)) {
        Fail(eErrorHeaderSyntax, position);
        return false;
    }
    m_line += static_cast<char>(ch);
    return true;
}

// `token ":" OWS value OWS`; no folded lines (a line that starts with a
// blank has no name and fails here).
bool CHTTPMultipartParser::HeaderLine(uint64_t position)
{
    size_t colon = 0;
    while (colon < m_line.size() &&
           CHTTPSyntax::Is(static_cast<unsigned char>(m_line[colon]), CHTTPSyntax::eClassToken))
        ++colon;
    if (colon == 0 || colon == m_line.size() || m_line[colon] != ':') {
        Fail(eErrorHeaderSyntax, position);
        return false;
    }
    std::string name = m_line.substr(0, colon);
    for (char &c : name) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c + ('a' - 'A'));
    }
    if (m_part.m_fields.size() == m_limits.m_maxHeaderFields ||
        !m_part.m_fields.emplace(name, trimBlanks(m_line, colon + 1)).second) {
        Fail(eErrorHeaderFields, position);
        return false;
    }
    return true;
}

bool CHTTPMultipartParser::EndHeaders(uint64_t position)
{
    CKeyValueMap::const_iterator disposition = m_part.m_fields.find("content-disposition");
    std::string type;
    std::vector<CHTTPHeaderParams::SParam> params;
    if (disposition == m_part.m_fields.end() ||
        !CHTTPHeaderParams::ParseTyped(disposition->second, c_maxValueParams, type, params) ||
        type != "form-data") {
        Fail(eErrorDisposition, position);
        return false;
    }
    const CHTTPHeaderParams::SParam *name = CHTTPHeaderParams::Find(params, "name");
    if (name == nullptr) {
        Fail(eErrorDisposition, position);
        return false;
    }
    m_part.m_name = name->m_value;
    const CHTTPHeaderParams::SParam *extended = CHTTPHeaderParams::Find(params, "filename*");
    const CHTTPHeaderParams::SParam *filename = CHTTPHeaderParams::Find(params, "filename");
    if (extended != nullptr) {
        if (!CHTTPHeaderParams::DecodeExtValue(extended->m_value, m_part.m_filename)) {
            Fail(eErrorDisposition, position);
            return false;
        }
        m_part.m_hasFilename = true;
    } else if (filename != nullptr) {
        m_part.m_filename = filename->m_value;
        m_part.m_hasFilename = true;
    }
    CKeyValueMap::const_iterator contentType = m_part.m_fields.find("content-type");
    if (contentType != m_part.m_fields.end())
        m_part.m_contentType = contentType->second;
    ++m_parts;
    m_state = eStateData;
    if (!m_sink.OnPartBegin(m_part)) {
        m_stopped = true;
        return false;
    }
    return true;
}

int CHTTPMultipartParser::Finish()
{
    if (m_state == eStateDone)
        return eResultDone;
    if (m_state == eStateFailed)
        return m_stopped ? eResultStopped : eResultError;
    return Fail(eErrorTruncated, m_offset);
}

} // namespace NVQ
