#ifndef NVQ_HTTP_HTTPUPLOADHANDLERINTERNAL_H
#define NVQ_HTTP_HTTPUPLOADHANDLERINTERNAL_H

#include "HTTP/HTTPMultipartParser.h"
#include "HTTP/HTTPUploadHandler.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

// What the two sources of the upload handler share: the record of one
// request's files and the JSON answers. Not installed.

namespace NVQ
{

namespace detail
{

// A complete answer with `json` as its body; null when out of memory.
KZF::CRefCountPtr<CHTTPResponse> jsonAnswer(int code, const std::string &json);

} // namespace detail

// One request's files: a multipart body's file parts or the raw body. Each
// file goes to a temporary of its own; all are renamed into place at the
// end, so a request that fails anywhere leaves none of them.
class CHTTPUploadHandler::CUpload : public IHTTPMultipartSink
{
  public:
    explicit CUpload(const SOptions &options)
        : m_options(options), m_dirFd(-1), m_fd(-1), m_writeBehindFrom(0), m_status(0), m_committed(false)
    {
    }
    ~CUpload() override
    {
        Abort();
        if (m_dirFd >= 0)
            ::close(m_dirFd);
    }

    // False with the answer's status set when the request is refused.
    bool Start(CHTTPRequest &request);
    bool Data(const unsigned char *data, size_t size);
    void End(bool complete);
    int GetStatus() const { return m_status; }
    KZF::CRefCountPtr<CHTTPResponse> Answer();

    bool OnPartBegin(const SPart &part) override;
    bool OnPartData(const unsigned char *data, size_t size) override { return m_fd < 0 || Write(data, size); }
    bool OnPartEnd() override { return m_fd < 0 || CloseFile(); }
    void OnBodyEnd() override {}

  private:
    struct SFile {
        std::string m_name;
        std::string m_temporary;
        uint64_t m_size;
        bool m_placed;
    };

    bool Fail(int status, const char *message);
    bool FailErrno(const char *message);
    bool OpenFile(const std::string &name);
    bool Write(const unsigned char *data, size_t size);
    bool CloseFile();
    bool Commit();
    void Abort();

    const SOptions &m_options;
    int m_dirFd;
    int m_fd;                   // the file being written; -1 while a part is skipped
    uint64_t m_writeBehindFrom; // first byte of m_fd not yet handed to writeback
    std::unique_ptr<CHTTPMultipartParser> m_pParser;
    std::vector<SFile> m_files;
    int m_status; // 0 while going, 200 when stored, else the refusal
    std::string m_message;
    bool m_committed;
};

} // namespace NVQ

#endif
