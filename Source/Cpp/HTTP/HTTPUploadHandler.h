#ifndef NVQ_HTTP_HTTPUPLOADHANDLER_H
#define NVQ_HTTP_HTTPUPLOADHANDLER_H

#include "HTTP/IHTTPExchangeEndNotification.h"
#include "HTTP/IHTTPRequestBodyHandler.h"
#include "HTTP/IHTTPRequestHandler.h"
#include "KZF_Base/Linux/CriticalSection.h"
#include "KZF_Base/Linux/KzfTypes.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace NVQ
{

// Stores files that clients POST or PUT below one directory, streamed to
// disk in the pieces they arrive in:
//   multipart/form-data  every part with a file name becomes a file of that
//                        name (parts without one, and empty file inputs,
//                        are skipped);
//   any other body       one file named by the ?name= parameter, else by the
//                        URI's segment after the prefix ("/upload/fw.bin"),
//                        else "upload-<random hex>.bin".
// A file is written to a hidden temporary in the same directory, synced,
// and renamed into place only once the whole request body has arrived
// intact; a request cut short, refused or malformed leaves no file behind.
// File names are single path components: no '/', '\', NUL or control
// bytes, valid UTF-8, at most 255 bytes, not starting with '.'.
//
// Answers are JSON (application/json): 200 {"stored":[{"name":"a.bin",
// "size":123}]}; 400 (malformed form, bad name), 405 (other methods), 409
// (the name exists and replacing is off), 413 (a file or the body above its
// limit), 500, 507 (disk full) as {"error":"..."}.
//
// Works with the body in pieces (IHTTPRequestBodyHandler) and, where the
// server buffers the body instead, with the buffered body in ProcessRequest.
class CHTTPUploadHandler : public IHTTPRequestHandler,
                           public IHTTPRequestBodyHandler,
                           public IHTTPExchangeEndNotification
{
  public:
    struct SOptions {
        SOptions();
        KZF::tstring m_directory; // must exist; files go straight into it
        KZF::tstring m_uriPrefix; // "/upload": the prefix itself and what is below it
        uint64_t m_maxFileBytes;  // per stored file (0: no limit)
        uint64_t m_maxTotalBytes; // per request body (0: no limit)
        bool m_replaceExisting;   // true: a new file replaces one of its name
    };

    explicit CHTTPUploadHandler(const SOptions &options);
    // Removes the temporaries of uploads still under way.
    ~CHTTPUploadHandler() override;

    bool CanProcessUri(const KZF::tstring &uri) override;
    KZF::CRefCountPtr<CHTTPResponse> ProcessRequest(CHTTPRequest &request, int connectionID) override;
    // Answers are complete in one piece: always null.
    KZF::CRefCountPtr<CHTTPResponse> GetAdditionalResponseData(int connectionID) override;
    bool InterruptProcessing() override;

    SBodyDecision OnRequestHeaders(CHTTPRequest &request, int connectionID) override;
    bool OnRequestBodyData(const unsigned char *data, size_t size, int connectionID) override;
    void OnRequestBodyEnd(bool complete, int connectionID) override;

    void OnExchangeEnded(int connectionID) override;

    // Whether a client's file name may be used as is (see above).
    static bool IsSafeFileName(const std::string &name);

  private:
    class CUpload; // one request's files

    CHTTPUploadHandler(const CHTTPUploadHandler &) = delete;
    CHTTPUploadHandler &operator=(const CHTTPUploadHandler &) = delete;

    // The upload of a connection, or null; and taking it out of the table.
    CUpload *Find(int connectionID);
    std::unique_ptr<CUpload> Take(int connectionID);

    const SOptions m_options;
    // Guards the table only: an upload is used by its connection's thread.
    KZF::CCriticalSection m_lock;
    std::map<int, std::unique_ptr<CUpload>> m_uploads;
};

} // namespace NVQ

#endif
