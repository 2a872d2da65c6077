#include "HTTP/HTTPContentTypes.h"

#include "KZF_Utilities/Linux/SysUtils.h"

namespace NVQ
{

namespace
{

// Text types name their charset: without it a browser guesses from the
// bytes, and a guess can turn a device page into something else.
const char *const c_builtIn[][2] = {
    {"html", "text/html; charset=utf-8"},
    {"htm", "text/html; charset=utf-8"},
    {"css", "text/css; charset=utf-8"},
    // Module scripts are refused by browsers under any other type.
    {"js", "text/javascript; charset=utf-8"},
    {"mjs", "text/javascript; charset=utf-8"},
    {"json", "application/json"},
    {"map", "application/json"},
    {"svg", "image/svg+xml"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"webp", "image/webp"},
    {"avif", "image/avif"},
    {"ico", "image/x-icon"},
    // WebAssembly.instantiateStreaming accepts nothing else.
    {"wasm", "application/wasm"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"ttf", "font/ttf"},
    {"txt", "text/plain; charset=utf-8"},
    {"xml", "application/xml"},
    {"pdf", "application/pdf"},
    {"mp4", "video/mp4"},
    {"webm", "video/webm"},
    {"zip", "application/zip"},
    {"gz", "application/gzip"},
    {"bin", "application/octet-stream"},
};

// Longer extensions are in no table: a name with one is answered untyped
// without a look-up.
const size_t c_maxExtension = 15;

} // namespace

CHTTPContentTypes::CHTTPContentTypes()
{
    for (const auto &entry : c_builtIn)
        m_types.emplace(entry[0], entry[1]);
}

void CHTTPContentTypes::Set(const KZF::tstring &extension, const KZF::tstring &type)
{
    KZF::tstring key(extension);
    KZF::CSysUtils::ToLower(key);
    if (type.empty())
        m_types.erase(key);
    else
        m_types[key] = type;
}

const KZF::tstring *CHTTPContentTypes::Find(const KZF::tstring &path) const
{
    const size_t dot = path.find_last_of("./");
    if (dot == KZF::tstring::npos || path[dot] != '.' || path.size() - dot - 1 > c_maxExtension)
        return nullptr;
    // Short enough to stay in the string's own storage: no allocation.
    KZF::tstring key(path, dot + 1);
    KZF::CSysUtils::ToLower(key);
    const auto it = m_types.find(key);
    return it == m_types.end() ? nullptr : &it->second;
}

} // namespace NVQ
