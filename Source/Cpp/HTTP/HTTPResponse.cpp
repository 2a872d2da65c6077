#include "HTTP/HTTPResponse.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <unistd.h>

namespace
{

// The pages carry their own content type in a meta element, so the canned
// answers send no Content-Type field.
const char c_notFoundPage[] =
    "<!DOCTYPE html><html lang=\"en\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
    "charset=UTF-8\"><meta charset=\"utf-8\"><meta name=\"viewport\" content=\"initial-scale=1, "
    "minimum-scale=1, width=device-width\"><title>Error 404 (Not Found)!!1</title><p><b>404.</b> "
    "<ins>That&apos;s an error.</ins></p><p>The requested URL was not found on this server.  "
    "<ins>That&apos;s all we know.</ins></p></body></html>";

const char c_badRequestPage[] =
    "<!DOCTYPE html><html lang=\"en\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
    "charset=UTF-8\"><meta charset=\"utf-8\"><meta name=\"viewport\" content=\"initial-scale=1, "
    "minimum-scale=1, width=device-width\"><title>Error 400 (Bad Request)</title><p><b>400.</b> "
    "<ins>That&apos;s an error.</ins></p><p>The request cannot be served on this server.  "
    "<ins>That&apos;s all we know.</ins></p></body></html>";

const char c_keepAlive[] = "Keep-Alive";
const char c_keepAliveValue[] = "timeout=5, max=100";

} // namespace

namespace NVQ
{

CHTTPFileBody::~CHTTPFileBody()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

CHTTPResponse::CHTTPResponse()
    : m_code(0), m_pData(nullptr), m_dataSize(0), m_isLast(false), m_sendOnlyData(false),
      m_headersOnly(false), m_pFile(nullptr), m_fileOffset(0)
{
}

CHTTPResponse::~CHTTPResponse()
{
    delete[] m_pData;
    if (m_pFile != nullptr)
        m_pFile->ReleaseRef();
}

bool CHTTPResponse::SetFileData(CHTTPFileBody *file, int64_t offset, long size)
{
    if (file != nullptr)
        file->AddRef(); // before the old one goes: it may be the same
    delete[] m_pData;
    m_pData = nullptr;
    m_dataSize = 0;
    if (m_pFile != nullptr)
        m_pFile->ReleaseRef();
    m_pFile = nullptr;
    m_fileOffset = 0;
    if (file == nullptr || offset < 0 || size < 0) {
        if (file != nullptr)
            file->ReleaseRef();
        return false;
    }
    m_pFile = file;
    m_fileOffset = offset;
    m_dataSize = size;
    return true;
}

const unsigned char *CHTTPResponse::GetData() const
{
    if (m_pData != nullptr || m_pFile == nullptr)
        return m_pData;
    unsigned char *data = new (std::nothrow) unsigned char[static_cast<size_t>(m_dataSize) + 1];
    if (data == nullptr)
        return nullptr;
    long done = 0;
    while (done < m_dataSize) {
        const ssize_t n = ::pread(m_pFile->GetFd(), data + done, static_cast<size_t>(m_dataSize - done),
                                  static_cast<off_t>(m_fileOffset + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            delete[] data;
            return nullptr;
        }
        done += n;
    }
    m_pData = data;
    return m_pData;
}

bool CHTTPResponse::SetData(const unsigned char *data, long size)
{
    delete[] m_pData;
    m_pData = nullptr;
    m_dataSize = 0;
    if (m_pFile != nullptr) {
        m_pFile->ReleaseRef();
        m_pFile = nullptr;
        m_fileOffset = 0;
    }
    if (size < 0 || (size > 0 && data == nullptr))
        return false;
    m_pData = new (std::nothrow) unsigned char[static_cast<size_t>(size)];
    if (m_pData == nullptr)
        return false;
    m_dataSize = size;
    if (size > 0)
        std::memcpy(m_pData, data, static_cast<size_t>(size));
    return true;
}

bool CHTTPResponse::AddHeaderField(const KZF::tstring &name, const KZF::tstring &value)
{
    return m_additionalHeaders.insert_or_assign(name, value).second;
}

bool CHTTPResponse::GetHeaderFieldValueByName(const KZF::tstring &name, KZF::tstring &value)
{
    const CKeyValueMap::const_iterator it = m_additionalHeaders.find(name);
    if (it == m_additionalHeaders.end())
        return false;
    value = it->second;
    return true;
}

CNotFoundResponse::CNotFoundResponse()
{
    SetCode(404);
    SetPhrase("Not found");
    SetData(reinterpret_cast<const unsigned char *>(c_notFoundPage),
            static_cast<long>(std::strlen(c_notFoundPage)));
    AddHeaderField(c_keepAlive, c_keepAliveValue);
    SetIsLast(true);
}

CNotFoundResponse::~CNotFoundResponse() {}

CBadRequestResponse::CBadRequestResponse()
{
    SetCode(400);
    SetPhrase("Bad Request");
    SetData(reinterpret_cast<const unsigned char *>(c_badRequestPage),
            static_cast<long>(std::strlen(c_badRequestPage)));
    AddHeaderField(c_keepAlive, c_keepAliveValue);
    SetIsLast(true);
}

CBadRequestResponse::~CBadRequestResponse() {}

CHTTPClosingErrorResponse::CHTTPClosingErrorResponse(int code, const char *phrase)
{
    SetCode(code);
    SetPhrase(phrase);
    SetContentType("text/html; charset=utf-8");
    char page[512];
    const int length = std::snprintf(
        page, sizeof(page),
        "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>Error %d (%s)</title>"
        "</head><body><p><b>%d.</b> The request cannot be served on this server.</p></body></html>",
        code, phrase, code);
    SetData(reinterpret_cast<const unsigned char *>(page), length);
    AddHeaderField("Connection", "close");
    SetIsLast(true);
}

CHTTPClosingErrorResponse::~CHTTPClosingErrorResponse() {}

} // namespace NVQ
