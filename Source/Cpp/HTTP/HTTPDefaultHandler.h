#ifndef NVQ_HTTP_HTTPDEFAULTHANDLER_H
#define NVQ_HTTP_HTTPDEFAULTHANDLER_H

#include "HTTP/HTTPFileCache.h"
#include "HTTP/IHTTPExchangeEndNotification.h"
#include "HTTP/IHTTPRequestHandler.h"
#include "KZF_Base/Linux/CriticalSection.h"
#include "KZF_Base/Linux/KzfTypes.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>

namespace NVQ
{

// Serves GET requests for regular files below one directory, "index.html"
// standing for a directory, in pieces of 8194 bytes: a file that fits in one
// piece is one complete answer on a kept-alive connection; a larger one is a
// streamed answer announced by the handler's own "Content-Length" field, and
// the connection closes after it. Answers carry no content type.
//
// Paths never leave the directory: a decoded path with a ".." segment, a
// backslash or a NUL byte is refused, whichever escapes spelt it. Links
// inside the directory are followed.
//
// The pieces of a larger file carry a range of the open file rather than a
// copy, so the connection sends them straight from it (sendfile); the file
// closes when the transfer ends, also when its connection drops.
class CHTTPDefaultHandler : public IHTTPRequestHandler, public IHTTPExchangeEndNotification
{
  public:
    // One transfer under way on one connection.
    struct SRequestData {
        CHTTPFileBody *m_pFile; // one reference, held by the entry
        int64_t m_size;         // measured once, when the request starts
        int64_t m_offset;       // bytes handed out so far
    };

    explicit CHTTPDefaultHandler(const KZF::tstring &directory);
    // Closes every stream still open.
    ~CHTTPDefaultHandler() override;

    // Before serving starts: the directory is read without a lock.
    void SetDirectory(const KZF::tstring &directory);

    bool CanProcessUri(const KZF::tstring &uri) override;
    KZF::CRefCountPtr<CHTTPResponse> ProcessRequest(CHTTPRequest &request, int connectionID) override;
    KZF::CRefCountPtr<CHTTPResponse> GetAdditionalResponseData(int connectionID) override;
    // A connection closed: its exchange ends and OnExchangeEnded closes its
    // file; transfers of other connections go on.
    bool InterruptProcessing() override;
    // Closes the transfer of an exchange that ended, however it ended.
    void OnExchangeEnded(int connectionID) override;

    // The file path for a decoded URI: the part before the first '?', one
    // leading '/' dropped, joined to the directory; "index.html" is appended
    // (without a separator) when that names a directory.
    KZF::tstring GetResourcePath(const KZF::tstring &decodedUri);

  private:
    CHTTPDefaultHandler(const CHTTPDefaultHandler &) = delete;
    CHTTPDefaultHandler &operator=(const CHTTPDefaultHandler &) = delete;

    // GetResourcePath without the directory test.
    KZF::tstring GetBasePath(const KZF::tstring &decodedUri);
    // Decodes the URI and maps it with GetBasePath, unless its path would
    // leave the directory.
    bool ResolveBasePath(const KZF::tstring &uri, KZF::tstring &path);
    // The next piece of a transfer; `last` tells whether the transfer is
    // over. No lock: the record belongs to the calling connection's thread.
    KZF::CRefCountPtr<CHTTPResponse> ProcessRequestData(SRequestData &data, bool isFirstPiece, bool &last);
    // The one-piece answer for a file of `size` bytes.
    KZF::CRefCountPtr<CHTTPResponse> MakeCompleteResponse(const unsigned char *data, size_t size);
    // The caller holds m_lock for these two.
    void AddRequest(int connectionID, const SRequestData &requestData);
    void RemoveRequest(int connectionID);

    // Guards the map itself; an entry's record is used only by the thread of
    // its connection.
    KZF::CCriticalSection m_lock;
    KZF::tstring m_directory;
    std::map<int, SRequestData> m_connDataMap;
    std::atomic<int> m_transfers; // entries of m_connDataMap
    CHTTPFileCache m_fileCache;
};

} // namespace NVQ

#endif
