#include "HTTP/HTTPUploadHandler.h"

#include "HTTP/HTTPHeaderParams.h"
#include "HTTP/HTTPMultipartParser.h"
#include "HTTP/HTTPSyntax.h"
#include "HTTP/Utf8Validator.h"
#include "KZF_Utilities/Linux/Hash.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace NVQ
{

namespace
{

const size_t c_maxNameBytes = 255; // NAME_MAX of the usual file systems
const mode_t c_fileMode = 0644;
const uint64_t c_writeBehindBytes = 4 << 20; // how far writes run ahead of the disk

bool isUploadMethod(const KZF::tstring &method)
{
    return method == "POST" || method == "PUT";
}

const char *phraseOf(int code)
{
    switch (code) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 405:
        return "Method Not Allowed";
    case 409:
        return "Conflict";
    case 411:
        return "Length Required";
    case 413:
        return "Payload Too Large";
    case 507:
        return "Insufficient Storage";
    default:
        return "Internal Server Error";
    }
}

std::string jsonString(const std::string &text)
{
    static const char c_hex[] = "0123456789abcdef";
    std::string out = "\"";
    for (const char ch : text) {
        const unsigned char byte = static_cast<unsigned char>(ch);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += ch;
        } else if (byte < 0x20) {
            out += "\\u00";
            out += c_hex[byte >> 4];
            out += c_hex[byte & 15];
        } else {
            out += ch;
        }
    }
    return out + '"';
}

KZF::CRefCountPtr<CHTTPResponse> jsonAnswer(int code, const std::string &json)
{
    CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
    if (response == nullptr)
        return KZF::CRefCountPtr<CHTTPResponse>();
    response->SetCode(code);
    response->SetPhrase(phraseOf(code));
    response->SetContentType("application/json");
    response->SetData(reinterpret_cast<const unsigned char *>(json.data()), static_cast<long>(json.size()));
    response->SetIsLast(true);
    if (code == 405)
        response->AddHeaderField("Allow", "POST, PUT");
    return KZF::CRefCountPtr<CHTTPResponse>(response);
}

// Every escape decoded, as browsers encode names ('+' is a space only in a
// query); false for a broken escape.
bool percentDecode(const std::string &text, bool plusIsSpace, std::string &out)
{
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+' && plusIsSpace) {
            out += ' ';
        } else if (text[i] != '%') {
            out += text[i];
        } else {
            const int high = i + 2 < text.size() ? CHTTPSyntax::HexValue(text[i + 1]) : -1;
            const int low = high < 0 ? -1 : CHTTPSyntax::HexValue(text[i + 2]);
            if (low < 0)
                return false;
            out += static_cast<char>(high << 4 | low);
            i += 2;
        }
    }
    return true;
}

bool randomHex(size_t bytes, std::string &out)
{
    unsigned char random[16];
    if (bytes > sizeof(random) || !KZF::RandomBytes(random, bytes))
        return false;
    out = KZF::HexEncode(random, bytes);
    return true;
}

// The stored name of a raw body: ?name=, else the segment after the
// prefix, else a generated one. Empty when an escape is broken.
std::string rawBodyName(const KZF::tstring &uri, const KZF::tstring &prefix)
{
    const size_t query = uri.find('?');
    const size_t pathEnd = query == KZF::tstring::npos ? uri.size() : query;
    std::string name;
    for (size_t item = pathEnd; item < uri.size();) {
        const size_t end = std::min(uri.find('&', item + 1), uri.size());
        if (uri.compare(item + 1, 5, "name=") == 0 && item + 6 <= end)
            return percentDecode(uri.substr(item + 6, end - item - 6), true, name) ? name : std::string();
        item = end;
    }
    if (pathEnd > prefix.size() + 1)
        return percentDecode(uri.substr(prefix.size() + 1, pathEnd - prefix.size() - 1), false, name)
                   ? name
                   : std::string();
    std::string random;
    return randomHex(8, random) ? "upload-" + random + ".bin" : std::string();
}

// Whether the request announces body bytes; without any, no body end may
// be reported before ProcessRequest.
bool hasDeclaredBody(const CHTTPRequest &request)
{
    KZF::tstring value;
    if (request.GetHeaderFieldValueByName("transfer-encoding", value))
        return true;
    return request.GetHeaderFieldValueByName("content-length", value) &&
           std::strtoull(value.c_str(), nullptr, 10) > 0;
}

bool isDiskFull(int error)
{
    return error == ENOSPC || error == EDQUOT;
}

} // namespace

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

bool CHTTPUploadHandler::CUpload::Fail(int status, const char *message)
{
    if (m_status == 0) {
        m_status = status;
        m_message = message;
    }
    Abort();
    return false;
}

bool CHTTPUploadHandler::CUpload::FailErrno(const char *message)
{
    return Fail(isDiskFull(errno) ? 507 : 500, isDiskFull(errno) ? "no space left" : message);
}

bool CHTTPUploadHandler::CUpload::Start(CHTTPRequest &request)
{
    // A declared size above a limit is refused before a byte is stored.
    KZF::tstring value;
    uint64_t length = 0;
    if (request.GetHeaderFieldValueByName("content-length", value))
        length = std::strtoull(value.c_str(), nullptr, 10);
    if (m_options.m_maxTotalBytes != 0 && length > m_options.m_maxTotalBytes)
        return Fail(413, "body too large");
    m_dirFd = ::open(m_options.m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_dirFd < 0)
        return Fail(500, "upload directory unavailable");
    value.clear();
    request.GetHeaderFieldValueByName("content-type", value);
    std::string type;
    std::vector<CHTTPHeaderParams::SParam> params;
    if (CHTTPHeaderParams::ParseTyped(value, 16, type, params) && type == "multipart/form-data") {
        m_pParser.reset(new (std::nothrow) CHTTPMultipartParser(*this, value));
        if (m_pParser == nullptr)
            return Fail(500, "out of memory");
        return m_pParser->GetError() == 0 || Fail(400, "bad multipart boundary");
    }
    if (m_options.m_maxFileBytes != 0 && length > m_options.m_maxFileBytes)
        return Fail(413, "file too large");
    const std::string name = rawBodyName(request.GetUri(), m_options.m_uriPrefix);
    if (!IsSafeFileName(name))
        return Fail(400, "bad file name");
    return OpenFile(name);
}

bool CHTTPUploadHandler::CUpload::Data(const unsigned char *data, size_t size)
{
    if (m_status != 0)
        return false;
    if (m_pParser == nullptr)
        return Write(data, size);
    if (m_pParser->Feed(data, size) == CHTTPMultipartParser::eResultError)
        return Fail(400, "malformed multipart body");
    return m_status == 0;
}

void CHTTPUploadHandler::CUpload::End(bool complete)
{
    if (m_status != 0)
        return;
    if (!complete) {
        Fail(400, "body cut short");
        return;
    }
    if (m_pParser != nullptr) {
        if (m_pParser->Finish() != CHTTPMultipartParser::eResultDone) {
            Fail(400, "malformed multipart body");
            return;
        }
    } else if (!CloseFile()) {
        return;
    }
    if (Commit())
        m_status = 200;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPUploadHandler::CUpload::Answer()
{
    if (m_status == 0)
        Fail(400, "body incomplete");
    if (m_status != 200)
        return jsonAnswer(m_status, "{\"error\":" + jsonString(m_message) + "}");
    std::string json = "{\"stored\":[";
    for (const SFile &file : m_files) {
        if (json.back() == '}')
            json += ',';
        json += "{\"name\":" + jsonString(file.m_name) + ",\"size\":" + std::to_string(file.m_size) + "}";
    }
    return jsonAnswer(200, json + "]}");
}

bool CHTTPUploadHandler::CUpload::OnPartBegin(const SPart &part)
{
    // Plain form fields and file inputs left empty store nothing.
    if (!part.m_hasFilename || part.m_filename.empty()) {
        m_fd = -1;
        return true;
    }
    if (!IsSafeFileName(part.m_filename))
        return Fail(400, "bad file name");
    for (const SFile &file : m_files) {
        if (file.m_name == part.m_filename)
            return Fail(400, "file name given twice");
    }
    return OpenFile(part.m_filename);
}

// The temporary is hidden (stored names never start with '.') and created
// exclusively, so it can neither be a link planted in the directory nor a
// file another upload writes.
bool CHTTPUploadHandler::CUpload::OpenFile(const std::string &name)
{
    std::string random;
    if (!randomHex(8, random))
        return Fail(500, "no random source");
    m_files.push_back(SFile{name, ".upload-" + random + ".part", 0, false});
    m_fd = ::openat(m_dirFd, m_files.back().m_temporary.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, c_fileMode);
    if (m_fd < 0) {
        m_files.pop_back();
        return FailErrno("cannot create file");
    }
    m_writeBehindFrom = 0;
    return true;
}

bool CHTTPUploadHandler::CUpload::Write(const unsigned char *data, size_t size)
{
    SFile &file = m_files.back();
    if (m_options.m_maxFileBytes != 0 && size > m_options.m_maxFileBytes - file.m_size)
        return Fail(413, "file too large");
    file.m_size += size;
    while (size > 0) {
        const ssize_t n = ::write(m_fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return FailErrno("write failed");
        data += n;
        size -= static_cast<size_t>(n);
    }
    // Writeback starts while the body still arrives, so the sync before the
    // rename waits for the last few megabytes instead of the whole file and
    // the page cache never holds a whole firmware image dirty.
    if (file.m_size - m_writeBehindFrom >= c_writeBehindBytes) {
        ::sync_file_range(m_fd, static_cast<off64_t>(m_writeBehindFrom),
                          static_cast<off64_t>(file.m_size - m_writeBehindFrom), SYNC_FILE_RANGE_WRITE);
        m_writeBehindFrom = file.m_size;
    }
    return true;
}

bool CHTTPUploadHandler::CUpload::CloseFile()
{
    // Synced before the rename, so a power cut leaves the old file or the
    // complete new one, never a short one under the final name.
    const bool synced = ::fsync(m_fd) == 0;
    const int error = errno;
    ::close(m_fd);
    m_fd = -1;
    errno = error;
    return synced || FailErrno("sync failed");
}

bool CHTTPUploadHandler::CUpload::Commit()
{
    for (SFile &file : m_files) {
        const char *from = file.m_temporary.c_str();
        const char *to = file.m_name.c_str();
        if (m_options.m_replaceExisting) {
            // A link or directory of that name is replaced, never followed;
            // renaming onto a directory fails.
            if (::renameat(m_dirFd, from, m_dirFd, to) != 0)
                return FailErrno("cannot store file");
        } else {
            // link() refuses an existing name atomically, where a test
            // before rename() would race with another upload.
            if (::linkat(m_dirFd, from, m_dirFd, to, 0) != 0)
                return errno == EEXIST ? Fail(409, "file exists") : FailErrno("cannot store file");
            ::unlinkat(m_dirFd, from, 0);
        }
        file.m_placed = true;
    }
    m_committed = true;
    ::fsync(m_dirFd);
    return true;
}

void CHTTPUploadHandler::CUpload::Abort()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
    if (m_committed)
        return;
    for (const SFile &file : m_files) {
        if (!file.m_placed)
            ::unlinkat(m_dirFd, file.m_temporary.c_str(), 0);
    }
    m_files.clear();
}

CHTTPUploadHandler::SOptions::SOptions()
    : m_uriPrefix("/upload"), m_maxFileBytes(0), m_maxTotalBytes(0), m_replaceExisting(true)
{
}

CHTTPUploadHandler::CHTTPUploadHandler(const SOptions &options) : m_options(options) {}

CHTTPUploadHandler::~CHTTPUploadHandler() {}

bool CHTTPUploadHandler::IsSafeFileName(const std::string &name)
{
    if (name.empty() || name.size() > c_maxNameBytes || name[0] == '.')
        return false;
    for (const char ch : name) {
        const unsigned char byte = static_cast<unsigned char>(ch);
        if (byte < 0x20 || byte == 0x7F || ch == '/' || ch == '\\')
            return false;
    }
    return CUtf8Validator::IsValid(name.data(), name.size());
}

bool CHTTPUploadHandler::CanProcessUri(const KZF::tstring &uri)
{
    const KZF::tstring &prefix = m_options.m_uriPrefix;
    if (uri.compare(0, prefix.size(), prefix) != 0)
        return false;
    return uri.size() == prefix.size() || uri[prefix.size()] == '/' || uri[prefix.size()] == '?';
}

CHTTPUploadHandler::CUpload *CHTTPUploadHandler::Find(int connectionID)
{
    KZF::CCriticalSection::CLock lock(m_lock);
    std::map<int, std::unique_ptr<CUpload>>::iterator it = m_uploads.find(connectionID);
    return it == m_uploads.end() ? nullptr : it->second.get();
}

std::unique_ptr<CHTTPUploadHandler::CUpload> CHTTPUploadHandler::Take(int connectionID)
{
    std::unique_ptr<CUpload> upload;
    KZF::CCriticalSection::CLock lock(m_lock);
    std::map<int, std::unique_ptr<CUpload>>::iterator it = m_uploads.find(connectionID);
    if (it != m_uploads.end()) {
        upload = std::move(it->second);
        m_uploads.erase(it);
    }
    return upload;
}

IHTTPRequestBodyHandler::SBodyDecision CHTTPUploadHandler::OnRequestHeaders(CHTTPRequest &request,
                                                                            int connectionID)
{
    SBodyDecision decision;
    // Other methods are answered 405 by ProcessRequest, on a connection
    // that stays open.
    if (!isUploadMethod(request.GetMethod()))
        return decision;
    // Only the strict parser decodes chunked bodies; the lenient one would
    // store an empty file and read the chunks as requests.
    KZF::tstring coding;
    if (request.GetHeaderFieldValueByName("transfer-encoding", coding) && !request.IsChunked()) {
        decision.m_choice = eAnswerNow;
        decision.m_answer = jsonAnswer(411, "{\"error\":\"a chunked body needs the strict HTTP/1.1 mode\"}");
        return decision;
    }
    std::unique_ptr<CUpload> upload(new (std::nothrow) CUpload(m_options));
    if (upload == nullptr || !upload->Start(request)) {
        decision.m_choice = eAnswerNow;
        decision.m_answer =
            upload == nullptr ? jsonAnswer(500, "{\"error\":\"out of memory\"}") : upload->Answer();
        return decision;
    }
    decision.m_choice = eTakeBody;
    decision.m_maxBodyBytes = m_options.m_maxTotalBytes;
    KZF::CCriticalSection::CLock lock(m_lock);
    // A leftover of an earlier exchange on this connection is dropped, and
    // its temporaries with it.
    m_uploads[connectionID] = std::move(upload);
    return decision;
}

bool CHTTPUploadHandler::OnRequestBodyData(const unsigned char *data, size_t size, int connectionID)
{
    CUpload *upload = Find(connectionID);
    return upload != nullptr && upload->Data(data, size);
}

void CHTTPUploadHandler::OnRequestBodyEnd(bool complete, int connectionID)
{
    CUpload *upload = Find(connectionID);
    if (upload == nullptr)
        return;
    // Cut short by the connection rather than refused here: no
    // ProcessRequest follows, so nothing may stay behind.
    if (!complete && upload->GetStatus() == 0) {
        Take(connectionID);
        return;
    }
    upload->End(complete);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPUploadHandler::ProcessRequest(CHTTPRequest &request, int connectionID)
{
    if (!isUploadMethod(request.GetMethod()))
        return jsonAnswer(405, "{\"error\":\"method not allowed\"}");
    std::unique_ptr<CUpload> upload = Take(connectionID);
    if (upload != nullptr && upload->GetStatus() == 0 && !hasDeclaredBody(request))
        upload->End(true);
    if (upload == nullptr) {
        // The server buffered the body instead of handing it over in pieces.
        upload.reset(new (std::nothrow) CUpload(m_options));
        if (upload == nullptr)
            return jsonAnswer(500, "{\"error\":\"out of memory\"}");
        if (upload->Start(request)) {
            if (request.GetBody() != nullptr && request.GetBodySize() > 0)
                upload->Data(request.GetBody(), static_cast<size_t>(request.GetBodySize()));
            upload->End(true);
        }
    }
    return upload->Answer();
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPUploadHandler::GetAdditionalResponseData(int)
{
    return KZF::CRefCountPtr<CHTTPResponse>();
}

bool CHTTPUploadHandler::InterruptProcessing()
{
    // Nothing runs between calls; the exchange's end cleans up.
    return true;
}

void CHTTPUploadHandler::OnExchangeEnded(int connectionID)
{
    Take(connectionID);
}

} // namespace NVQ
