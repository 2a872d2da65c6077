#ifndef NVQ_HTTP_HTTPMULTIPARTPARSER_H
#define NVQ_HTTP_HTTPMULTIPARTPARSER_H

#include "HTTP/IHTTPMultipartSink.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace NVQ
{

// Incremental parser of a multipart/form-data body (RFC 7578, RFC 2046),
// fed the decoded body in pieces of any size. Part data comes back as spans
// of the input; only a part's header block (bounded) and at most the
// delimiter's length of held-back bytes are kept, so memory does not grow
// with the parts. Preamble and epilogue are skipped. Every line end must be
// CR LF: an LF alone in a header block or a delimiter line is an error, and
// LF-only delimiters are not delimiters. Not thread-safe.
class CHTTPMultipartParser
{
  public:
    enum EResult { eResultMore = 0, eResultDone = 1, eResultError = 2, eResultStopped = 3 };

    enum EError {
        eErrorNone = 0,
        // No multipart/form-data Content-Type with a valid boundary.
        eErrorContentType = 1,
        // A delimiter followed by something other than blanks and CR LF, or "--".
        eErrorDelimiter = 2,
        // A CR without LF or an LF without CR in a header block or delimiter line.
        eErrorLineEnd = 3,
        // A header line that is not `token: value`, or holds control bytes.
        eErrorHeaderSyntax = 4,
        // A header block above SLimits::m_maxHeaderBytes.
        eErrorHeaderTooLarge = 5,
        // More than SLimits::m_maxHeaderFields fields, or a field name twice.
        eErrorHeaderFields = 6,
        // No Content-Disposition form-data with a name, or a malformed one.
        eErrorDisposition = 7,
        // More than SLimits::m_maxParts parts.
        eErrorTooManyParts = 8,
        // Finish before the close delimiter.
        eErrorTruncated = 9
    };

    struct SLimits {
        SLimits() : m_maxParts(256), m_maxHeaderBytes(8192), m_maxHeaderFields(16) {}
        size_t m_maxParts;
        size_t m_maxHeaderBytes; // of one part's header block, CR LFs included
        size_t m_maxHeaderFields;
    };

    // Takes the request's Content-Type value; without a usable boundary the
    // parser starts failed with eErrorContentType.
    CHTTPMultipartParser(IHTTPMultipartSink &sink, const std::string &contentType,
                         const SLimits &limits = SLimits());

    // The boundary of a `multipart/form-data; boundary=...` value (quoted or
    // not, 1 to 70 characters of the RFC 2046 set, not ending in a space).
    static bool ExtractBoundary(const std::string &contentType, std::string &boundary);

    // Parses the next piece. Returns eResultMore while the body goes on,
    // eResultDone once the close delimiter is seen (later bytes are the
    // epilogue), eResultError or eResultStopped; these three are sticky.
    int Feed(const unsigned char *data, size_t size);
    // The body is complete: eResultDone, or eErrorTruncated if the close
    // delimiter was not seen.
    int Finish();

    int GetError() const { return m_error; }
    // Offset in the body of the byte that failed (the body size for
    // eErrorTruncated, 0 for eErrorContentType).
    uint64_t GetErrorPosition() const { return m_errorPosition; }
    size_t GetPartCount() const { return m_parts; }

  private:
    int Fail(int error, uint64_t position);
    int Stop();
    size_t Match(const unsigned char *data, size_t size, bool emit);
    bool HeaderByte(unsigned char ch, uint64_t position);
    bool HeaderLine(uint64_t position);
    bool EndHeaders(uint64_t position);

    IHTTPMultipartSink &m_sink;
    SLimits m_limits;
    std::string m_delimiter; // CR LF "--" boundary
    int m_state;
    int m_error;
    uint64_t m_errorPosition;
    uint64_t m_offset; // body bytes before the current piece
    size_t m_matched;  // delimiter bytes matched so far
    size_t m_held;     // of those, bytes from earlier pieces
    size_t m_parts;
    bool m_stopped;
    std::string m_line;
    size_t m_headerBytes;
    IHTTPMultipartSink::SPart m_part;
};

} // namespace NVQ

#endif
