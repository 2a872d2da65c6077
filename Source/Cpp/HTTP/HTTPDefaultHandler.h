#ifndef NVQ_HTTP_HTTPDEFAULTHANDLER_H
#define NVQ_HTTP_HTTPDEFAULTHANDLER_H

#include "HTTP/HTTPContentTypes.h"
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
//
// SetOptions turns on what browsers and caches expect of a web server
// (content types, HEAD, validators, ranges, precompressed variants,
// Cache-Control); with every option off the answers are the ones above.
class CHTTPDefaultHandler : public IHTTPRequestHandler, public IHTTPExchangeEndNotification
{
  public:
    // One transfer under way on one connection.
    struct SRequestData {
        CHTTPFileBody *m_pFile; // one reference, held by the entry
        int64_t m_end;          // where the answer ends, measured once
        int64_t m_offset;       // where the next piece starts
    };

    // Each field is off (or empty) by default.
    struct SFileOptions {
        // Content-Type from the file name's extension: the built-in table of
        // the web's common types, with m_extraTypes (extension without the
        // dot -> type; an empty type removes one) added or overriding.
        bool m_contentTypes = false;
        std::map<KZF::tstring, KZF::tstring> m_extraTypes;
        // HEAD gets the header block of the GET answer, and no body.
        bool m_head = false;
        // ETag (inode, size, modification time) and Last-Modified;
        // If-None-Match and If-Modified-Since give 304 Not Modified.
        bool m_validators = false;
        // One "bytes=" range gives 206 (If-Range honoured), an unsatisfiable
        // one 416; several ranges get the whole file.
        bool m_ranges = false;
        // "name.br" or "name.gz", when the client accepts that coding and the
        // file exists, served with Content-Encoding; every answer then
        // carries "Vary: Accept-Encoding".
        bool m_precompressed = false;
        // A Cache-Control value for every answer (empty: none)...
        KZF::tstring m_cacheControl;
        // ...and a year's immutable max-age instead for names that carry a
        // content hash ("app.3f9a1c2e.js", "index-B2x9KqZ1.css": 8 or more
        // letters, digits or '_', at least one of each kind, between '.' or
        // '-' and the extension).
        bool m_hashedImmutable = false;
        // Bytes per piece of a larger file; a file (or range) up to this size
        // is one complete answer sent from the file. 8194 when 0.
        int64_t m_pieceSize = 0;
        // A file found is taken to stay as found for this many milliseconds:
        // asked for again within them (on the same thread), it costs no stat,
        // and a small one no file access at all. A change or removal may go
        // unseen that long; a missing file is looked for every time, so a
        // new one is served at once. 0: every request looks.
        int64_t m_lookupLifetimeMs = 0;

        // Everything on: Cache-Control "no-cache" (stored, revalidated each
        // time), hashed names immutable, 1 MiB pieces, lookups trusted 1 s.
        static SFileOptions Web();
    };

    explicit CHTTPDefaultHandler(const KZF::tstring &directory);
    // Closes every stream still open.
    ~CHTTPDefaultHandler() override;

    // Before serving starts: the directory is read without a lock.
    void SetDirectory(const KZF::tstring &directory);
    // Before serving starts, like SetDirectory.
    void SetOptions(const SFileOptions &options);

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
    // The answer with any option on. `looked`: `path` is final and `status`
    // its stat; otherwise `path` is the mapped URI, opened here.
    KZF::CRefCountPtr<CHTTPResponse> ProcessWithOptions(const CHTTPRequest &request, int connectionID,
                                                        KZF::tstring &path, struct stat &status, bool looked);
    // Starts a transfer of [offset, end) of an open file; the first piece.
    KZF::CRefCountPtr<CHTTPResponse> StartTransfer(int connectionID, int fd, int64_t offset, int64_t end);
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
    SFileOptions m_options;
    bool m_anyOption;    // any web option on: the reference path is left
    int64_t m_pieceSize; // m_options.m_pieceSize, or 8194
    CHTTPContentTypes m_types;
};

} // namespace NVQ

#endif
