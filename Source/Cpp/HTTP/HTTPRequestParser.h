#ifndef NVQ_HTTP_HTTPREQUESTPARSER_H
#define NVQ_HTTP_HTTPREQUESTPARSER_H

#include "HTTP/HTTPRequest.h"
#include "KZF_Base/Linux/KzfTypes.h"
#include "KZF_Base/Linux/RefCountPtr.h"

namespace NVQ
{

// Incremental parser for one request at a time on one connection. The owner
// appends what arrives to its receive buffer and calls Parse with the whole
// buffer each time; the parser resumes where it stopped, so every byte is
// examined once. It keeps positions, never pointers, so the buffer may move
// or grow between calls. Lenient by design: any method word, an unexamined
// version, no length limits; only two header syntax faults are rejected.
// Not thread-safe; logs nothing.
class CHTTPRequestParser
{
  public:
    // Values are compared numerically: 2 to 7 are the request line, 8 to 14
    // the header block, 15 and 16 the body.
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
        eStateBody = 16
    };

    enum EParseResult { eParseComplete = 0, eParseIncomplete = 1, eParseError = 2 };

    enum EErrorCode {
        eErrorNone = 0,
        // A field name, a blank, then a byte that is neither a blank nor ':'.
        eErrorFieldSyntax = 2,
        // The CR of the empty line that ends the header block is not followed by LF.
        eErrorHeaderEnd = 3
    };

    CHTTPRequestParser();
    virtual ~CHTTPRequestParser();

    // Examines buffer[m_position .. length-1] and answers an EParseResult.
    // buffer must start with the first byte of the request on every call of a
    // cycle, and bytes already examined must not change. consumed is set to
    // the number of bytes examined since Reset (an index into buffer), except
    // after an error, when it is left as it is. Complete and error are sticky
    // until Reset.
    int Parse(const unsigned char *buffer, int length, int &consumed);

    // Starts a new cycle on a fresh, empty request.
    void Reset();

    bool IsCompleteRequest() const { return m_state == eStateComplete; }

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

    int m_position;
    int m_state;
    KZF::tstring m_token;
    KZF::tstring m_value;
    const unsigned char *m_pBuffer;
    int m_bodyStart;
    KZF::CRefCountPtr<CHTTPRequest> m_request;
    int m_lastError;
    int m_errorPosition;
};

} // namespace NVQ

#endif
