#ifndef NVQ_HTTP_HTTPRESPONSE_H
#define NVQ_HTTP_HTTPRESPONSE_H

#include "HTTP/IHTTPConnectionTaker.h"
#include "HTTP/KeyValueMap.h"
#include "KZF_Base/Linux/KzfTypes.h"
#include "KZF_Base/Linux/RefCount.h"
#include "KZF_Base/Linux/RefCountPtr.h"

#include <cstdint>

namespace NVQ
{

// An open file whose bytes responses carry without copying them: the pieces
// of one transfer share it, and the descriptor closes with the last of them
// (also when a connection drops the pieces still waiting for a slow peer).
class CHTTPFileBody : public KZF::CRefCount_Base
{
  public:
    // Takes over the descriptor.
    explicit CHTTPFileBody(int fd) : m_fd(fd) {}
    ~CHTTPFileBody() override;
    int GetFd() const { return m_fd; }

  private:
    CHTTPFileBody(const CHTTPFileBody &) = delete;
    CHTTPFileBody &operator=(const CHTTPFileBody &) = delete;

    int m_fd;
};

// What a handler answers: status, optional content type, further header
// fields and a block of bytes, plus where the record sits in its answer:
//   SendOnlyData  IsLast
//   false         true    complete answer (a Content-Length is computed)
//   false         false   first piece of a streamed answer
//   true          false   middle piece: bytes only
//   true          true    final piece: bytes only, then the connection closes
// Filled by one thread, then only read; shared through
// KZF::CRefCountPtr<CHTTPResponse>.
class CHTTPResponse : public KZF::CRefCount_Base
{
  public:
    CHTTPResponse();
    ~CHTTPResponse() override;

    void SetPhrase(const KZF::tstring &phrase) { m_phrase = phrase; }
    const KZF::tstring &GetPhrase() const { return m_phrase; }

    void SetCode(int code) { m_code = code; }
    int GetCode() const { return m_code; }

    // Empty means that no Content-Type line is written.
    void SetContentType(const KZF::tstring &type) { m_contentType = type; }
    const KZF::tstring &GetContentType() const { return m_contentType; }

    // Replaces the data with a private copy of size bytes; the caller's buffer
    // may be freed at once. False, with no data left, when size is negative or
    // the memory cannot be had. Size 0 gives an empty, non-null block.
    bool SetData(const unsigned char *data, long size);
    // Replaces the data with `size` bytes of `file` from `offset`, left in the
    // file: the connection sends them from there (sendfile). GetData reads
    // them in when someone asks for them in memory. False for a negative
    // range or no file.
    bool SetFileData(CHTTPFileBody *file, int64_t offset, long size);
    // The bytes in memory (read from the file first for file data; null when
    // that fails or no data was ever set).
    const unsigned char *GetData() const;
    long GetDataSize() const { return m_dataSize; }
    // The file of file data, or null; and where its bytes start.
    CHTTPFileBody *GetFileBody() const { return m_pFile; }
    int64_t GetFileOffset() const { return m_fileOffset; }

    void SetIsLast(bool isLast) { m_isLast = isLast; }
    bool IsLast() const { return m_isLast; }

    void SetSendOnlyData(bool sendOnlyData) { m_sendOnlyData = sendOnlyData; }
    bool SendOnlyData() const { return m_sendOnlyData; }

    // The header block alone goes out, with no computed length and no data,
    // for an answer that is complete (IsLast) without a body: HEAD, 304. A
    // "Content-Length" field of the handler's own may tell what a GET would
    // carry.
    void SetHeadersOnly(bool headersOnly) { m_headersOnly = headersOnly; }
    bool IsHeadersOnly() const { return m_headersOnly; }

    // Names are exact and case-sensitive. True when the name is new; false
    // when an earlier value of that name was replaced.
    bool AddHeaderField(const KZF::tstring &name, const KZF::tstring &value);
    // Leaves value untouched and answers false when the name is missing.
    bool GetHeaderFieldValueByName(const KZF::tstring &name, KZF::tstring &value);
    // Iterates in ascending byte order of the names: the order on the wire.
    const CKeyValueMap &GetAdditionalHeaders() const { return m_additionalHeaders; }

    // On the first response of an exchange, not marked last: after its
    // header block the connection goes to `taker` (see IHTTPConnectionTaker)
    // and no piece is pulled.
    void SetConnectionTaker(IHTTPConnectionTaker *taker) { m_pTaker = taker; }
    IHTTPConnectionTaker *GetConnectionTaker() const { return m_pTaker.GetPtr(); }

  private:
    CHTTPResponse(const CHTTPResponse &) = delete;
    CHTTPResponse &operator=(const CHTTPResponse &) = delete;

    KZF::tstring m_phrase;
    int m_code;
    KZF::tstring m_contentType;
    mutable unsigned char *m_pData; // read in on demand for file data
    long m_dataSize;
    bool m_isLast;
    bool m_sendOnlyData;
    bool m_headersOnly;
    CKeyValueMap m_additionalHeaders;
    CHTTPFileBody *m_pFile; // one reference, or null
    int64_t m_fileOffset;
    KZF::CRefCountPtr<IHTTPConnectionTaker> m_pTaker;
};

// The complete 404 answer ("Not found") with its fixed HTML page.
class CNotFoundResponse : public CHTTPResponse
{
  public:
    CNotFoundResponse();
    ~CNotFoundResponse() override;
};

// The complete 400 answer ("Bad Request") with its fixed HTML page.
class CBadRequestResponse : public CHTTPResponse
{
  public:
    CBadRequestResponse();
    ~CBadRequestResponse() override;
};

// A complete error answer after which the server closes the connection
// ("Connection: close"), with a short HTML page of its own; the strict mode's
// refusals.
class CHTTPClosingErrorResponse : public CHTTPResponse
{
  public:
    CHTTPClosingErrorResponse(int code, const char *phrase);
    ~CHTTPClosingErrorResponse() override;
};

} // namespace NVQ

#endif
