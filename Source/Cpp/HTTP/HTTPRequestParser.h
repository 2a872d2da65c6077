#ifndef NVQ_HTTP_HTTPREQUESTPARSER_H
#define NVQ_HTTP_HTTPREQUESTPARSER_H

#include "HTTP/HTTPChunkedDecoder.h"
#include "HTTP/HTTPRequest.h"
#include "KZF_Base/Linux/KzfTypes.h"
#include "KZF_Base/Linux/RefCountPtr.h"

namespace NVQ
{

// Incremental parser for one request at a time on one connection. The owner
// appends what arrives to its receive buffer and calls Parse with the whole
// buffer each time; the parser resumes where it stopped, so every byte is
// examined once. It keeps positions, never pointers, so the buffer may move
// or grow between calls. Lenient by default: any method word, an unexamined
// version, no length limits; only two header syntax faults are rejected.
// Strict mode (SetStrict) parses HTTP/1.1 message framing instead: exact
// request line, CR LF line ends, token field names, Content-Length and
// chunked Transfer-Encoding with their smuggling cases refused, and consumed
// exactly at the end of the request so that pipelined requests follow.
// Not thread-safe; logs nothing.
class CHTTPRequestParser
{
  public:
    // Values are compared numerically: 2 to 7 are the request line, 8 to 14
    // the header block, 15 and 16 the body; from 17 up the strict machine.
    enum EParserState {
        eStateError = 0,
        eStateComplete = 1,
        eStateRequestLineStart = 2,
        eStateMethod = 3,
        eStateBeforeUri = 4,
        eStateUri = 5,
        eStateBeforeVersion = 6,
        eStateVersion = 7,
        eStateFieldStart = 8,
        eStateFieldName = 9,
        eStateBeforeColon = 10,
        eStateBeforeValue = 11,
        eStateFieldValue = 12,
        eStateLineFeed = 13,
        eStateLineStart = 14,
        eStateHeaderEnd = 15,
        eStateBody = 16,
        eStateStrictLineStart = 17,
        eStateStrictLeadingLF = 18,
        eStateStrictMethod = 19,
        eStateStrictTarget = 20,
        eStateStrictVersion = 21,
        eStateStrictRequestLineLF = 22,
        eStateStrictFieldStart = 23,
        eStateStrictFieldName = 24,
        eStateStrictBeforeValue = 25,
        eStateStrictFieldValue = 26,
        eStateStrictFieldLF = 27,
        eStateStrictHeaderEndLF = 28,
        eStateStrictBody = 29,
        eStateStrictChunked = 30
    };

    enum EParseResult { eParseComplete = 0, eParseIncomplete = 1, eParseError = 2 };

    enum EErrorCode {
        eErrorNone = 0,
        // A field name, a blank, then a byte that is neither a blank nor ':'.
        eErrorFieldSyntax = 2,
        // The CR of the empty line that ends the header block is not followed by LF.
        eErrorHeaderEnd = 3,
        // Strict mode only, each named for the fault; the status that
        // GetErrorStatus gives is 400 unless noted.
        // Not method SP request-target SP HTTP/d.d CR LF, exactly.
        eErrorRequestLine = 4,
        // A well-formed version other than 1.x: 505.
        eErrorVersion = 5,
        // A CR not followed by LF, or an LF without CR.
        eErrorLineEnd = 6,
        // More than 8 empty lines before the request line.
        eErrorEmptyLines = 7,
        // A field line whose name is empty or not a token, or that has no colon.
        eErrorFieldName = 8,
        eErrorBlankBeforeColon = 9,
        // A field line starting with SP or HTAB.
        eErrorObsFold = 10,
        // A control byte other than HTAB in a field value.
        eErrorFieldValue = 11,
        eErrorDuplicateHost = 12,
        // An HTTP/1.1 request without Host.
        eErrorMissingHost = 13,
        // A Content-Length element that is not 1 to 18 digits.
        eErrorContentLength = 14,
        // Content-Length values that differ.
        eErrorContentLengthMismatch = 15,
        // A coding list that does not end in chunked, names it twice, or
        // holds an empty or non-token element.
        eErrorTransferEncoding = 16,
        // Codings other than chunked before it: 501.
        eErrorUnsupportedCoding = 17,
        // Transfer-Encoding together with Content-Length.
        eErrorLengthAndEncoding = 18,
        // Transfer-Encoding in an HTTP/1.0 request.
        eErrorEncodingInHTTP10 = 19,
        // The body size above SetMaxBodySize: 413.
        eErrorBodyTooLarge = 20,
        // The chunked body; see CHTTPChunkedDecoder::EError.
        eErrorChunkSize = 21,
        eErrorChunkSizeOverflow = 22,
        eErrorChunkExtension = 23,
        eErrorChunkDataEnd = 24,
        eErrorTrailer = 25
    };

    CHTTPRequestParser();
    virtual ~CHTTPRequestParser();

    // Examines buffer[m_position .. length-1] and answers an EParseResult.
    // buffer must start with the first byte of the request on every call of a
    // cycle, and bytes already examined must not change. consumed is set to
    // the number of bytes examined since Reset (an index into buffer), except
    // after an error, when it is left as it is. In strict mode a complete
    // request sets it to the index just past its last byte; nothing after that
    // is examined, so the owner parses the rest as the next request. Complete
    // and error are sticky until Reset.
    int Parse(const unsigned char *buffer, int length, int &consumed);

    // Starts a new cycle on a fresh, empty request.
    void Reset();

    bool IsCompleteRequest() const { return m_state == eStateComplete; }

    // Strict mode on or off (default off). It governs the cycle that starts at
    // the next Reset, or the current one while it has examined nothing.
    void SetStrict(bool strict);
    bool IsStrict() const { return m_strictNext; }
    // Strict mode: a body above this many bytes (Content-Length, or the
    // chunked total while it is decoded) fails with 413. Read where each
    // header block ends, and by a chunked body being decoded; default LONG_MAX.
    void SetMaxBodySize(long bytes)
    {
        m_maxBodySize = bytes < 0 ? 0 : bytes;
        m_chunkedDecoder.SetMaxBodySize(m_maxBodySize);
    }

    // True once the header block has ended, and then the index of the first
    // body byte (raw, before any chunked decoding).
    bool IsHeaderComplete() const { return m_bodyStart > 0; }
    int GetBodyStart() const { return m_bodyStart; }

    // After eParseError, the status to answer with: 400, or in strict mode
    // 413, 501 or 505 as noted at EErrorCode. 0 when there is no error.
    int GetErrorStatus() const;

    // The request being filled; the same object until Reset. Complete only
    // once Parse has answered eParseComplete.
    KZF::CRefCountPtr<CHTTPRequest> GetRequest() const { return m_request; }

    // The EErrorCode of the last failure, and in position the index just past
    // the byte that caused it; 0 and 0 when there was none.
    int GetLastError(int &position) const;

  private:
    CHTTPRequestParser(const CHTTPRequestParser &) = delete;
    CHTTPRequestParser &operator=(const CHTTPRequestParser &) = delete;

    // Appends the run of bytes from index i that the current state would only
    // collect or count, and answers the index of the first byte that needs a
    // step of its own (or length).
    int TakeOrdinaryRun(int i, int length);
    long BodySize() const;

    void ProcessRequestLineChar(char ch);
    void ProcessHeaderChar(char ch);
    void ProcessBodyChar(char ch, int index);
    bool ProcessMethodWord(const KZF::tstring &word);
    bool ProcessUri(const KZF::tstring &uri);
    bool ProcessHTTPVersion(const KZF::tstring &version);
    bool ProcessHeaderField(const KZF::tstring &name, const KZF::tstring &value);
    bool ProcessRequestBody();

    // The strict machine: the same positions and buffer rules as above, its
    // own states and steps.
    int ParseStrict(int length, int &consumed);
    int TakeStrictRun(int i, int length);
    void ProcessStrictChar(unsigned char ch, int index);
    int ProcessStrictVersion();
    int ProcessStrictField();
    int ProcessContentLength(const KZF::tstring &value);
    int ProcessTransferCodings(const KZF::tstring &value);
    int ProcessStrictHeaderEnd();
    int TakeStrictBody(int length);
    int TakeChunkedBody(int i, int length);
    void Refuse(int error);

    // What the strict header block has said about framing and Host.
    struct SStrictHead {
        int m_emptyLines = 0;
        int m_version = 0;
        long m_contentLength = -1;
        int m_codings = 0;
        int m_chunkedCodings = 0;
        bool m_lastCodingChunked = false;
        bool m_hasTransferEncoding = false;
        bool m_hasHost = false;
    };

    int m_position;
    int m_state;
    KZF::tstring m_token;
    KZF::tstring m_value;
    const unsigned char *m_pBuffer;
    int m_bodyStart;
    KZF::CRefCountPtr<CHTTPRequest> m_request;
    int m_lastError;
    int m_errorPosition;

    bool m_strict;
    bool m_strictNext;
    long m_maxBodySize;
    SStrictHead m_head;
    CHTTPChunkedDecoder m_chunkedDecoder;
    // Decoded chunk data until the body is complete; released then.
    KZF::tstring m_chunkedBody;
};

} // namespace NVQ

#endif
