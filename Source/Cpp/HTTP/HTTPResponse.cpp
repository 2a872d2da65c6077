#include "HTTP/HTTPResponse.h"

#include <cstring>
#include <new>

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

CHTTPResponse::CHTTPResponse()
    : m_code(0), m_pData(nullptr), m_dataSize(0), m_isLast(false), m_sendOnlyData(false)
{
}

CHTTPResponse::~CHTTPResponse()
{
    delete[] m_pData;
}

bool CHTTPResponse::SetData(const unsigned char *data, long size)
{
    delete[] m_pData;
    m_pData = nullptr;
    m_dataSize = 0;
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

} // namespace NVQ
