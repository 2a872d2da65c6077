#include "HTTP/HTTPUploadHandlerInternal.h"

#include "HTTP/HTTPHeaderParams.h"
#include "HTTP/HTTPSyntax.h"
#include "KZF_Utilities/Linux/Hash.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

// One upload request's files: where a raw body goes by name, each file
// written to a hidden temporary, and all of them renamed into place at the
// end or removed.

namespace NVQ
{

namespace
{

using detail::jsonAnswer;

const mode_t c_fileMode = 0644;
const uint64_t c_writeBehindBytes = 4 << 20; // how far writes run ahead of the disk

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

bool isDiskFull(int error)
{
    return error == ENOSPC || error == EDQUOT;
}

} // namespace

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

} // namespace NVQ
