#include "HTTP/HTTPRequest.h"

#include "HTTP/HTTPSyntax.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <strings.h>
#include <utility>

namespace
{

const char c_contentType[] = "content-type";
const char c_formUrlEncoded[] = "application/x-www-form-urlencoded";
const char c_multipartFormData[] = "multipart/form-data";

// Escapes of these bytes are always decoded in values and paths: SP and the
// ASCII punctuation of the two sets below, which together leave out only '%'.
// Escaped letters, digits and '%' stay escaped so that a decoded path can
// never grow new escapes or hide a letter from later checks.
const char c_unsafeChars[] = " \"<>#{}|\\^~[]`";
const char c_reservedChars[] = "$&+,./:;=?@-_!*()'";
const size_t c_unsafeCharsLength = std::strlen(c_unsafeChars);
const size_t c_reservedCharsLength = std::strlen(c_reservedChars);

// Value of a hex digit, or -1.
inline int HexValue(unsigned char ch)
{
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    if (ch >= 'A' && ch <= 'F')
        return ch - 'A' + 10;
    if (ch >= 'a' && ch <= 'f')
        return ch - 'a' + 10;
    return -1;
}

inline bool IsAlwaysDecoded(int b)
{
    if (b < 31 || b == 127)
        return true;
    return std::memchr(c_unsafeChars, b, c_unsafeCharsLength) != nullptr ||
           std::memchr(c_reservedChars, b, c_reservedCharsLength) != nullptr;
}

} // namespace

namespace NVQ
{

CHTTPRequest::CHTTPRequest()
    : m_bodySize(0), m_pBody(nullptr), m_bodyParamsProcessed(false), m_httpVersion(0), m_chunked(false),
      m_secure(false)
{
}

CHTTPRequest::~CHTTPRequest()
{
    delete[] m_pBody;
}

void CHTTPRequest::SetMethod(const KZF::tstring &method)
{
    m_method = method;
}

void CHTTPRequest::SetUri(const KZF::tstring &uri)
{
    m_uri = uri;
    ProcessRequestParamsFromUri();
}

bool CHTTPRequest::AddHeaderField(const KZF::tstring &name, const KZF::tstring &value)
{
    KZF::tstring lowerName(name);
    KZF::CSysUtils::ToLower(lowerName);
    // emplace looks the key up once; a repeated name (rare) then takes the
    // later value.
    const std::pair<CKeyValueMap::iterator, bool> inserted =
        m_headerFields.emplace(std::move(lowerName), value);
    if (!inserted.second)
        inserted.first->second = value;
    return inserted.second;
}

bool CHTTPRequest::CombineHeaderField(const KZF::tstring &lowerName, const KZF::tstring &value)
{
    const std::pair<CKeyValueMap::iterator, bool> inserted = m_headerFields.emplace(lowerName, value);
    if (!inserted.second) {
        inserted.first->second.append(", ", 2);
        inserted.first->second.append(value);
    }
    return inserted.second;
}

bool CHTTPRequest::HasHeaderToken(const KZF::tstring &lowerName, const char *token) const
{
    const CKeyValueMap::const_iterator it = m_headerFields.find(lowerName);
    const size_t tokenLength = token != nullptr ? std::strlen(token) : 0;
    if (it == m_headerFields.end() || tokenLength == 0)
        return false;
    const KZF::tstring &list = it->second;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        if (end == KZF::tstring::npos)
            end = list.size();
        size_t first = start;
        size_t last = end;
        while (first < last &&
               CHTTPSyntax::Is(static_cast<unsigned char>(list[first]), CHTTPSyntax::eClassBlank))
            ++first;
        while (last > first &&
               CHTTPSyntax::Is(static_cast<unsigned char>(list[last - 1]), CHTTPSyntax::eClassBlank))
            --last;
        if (last - first == tokenLength && strncasecmp(list.data() + first, token, tokenLength) == 0)
            return true;
        start = end + 1;
    }
    return false;
}

bool CHTTPRequest::GetHeaderFieldValueByName(const KZF::tstring &name, KZF::tstring &value) const
{
    const CKeyValueMap::const_iterator it = m_headerFields.find(name);
    if (it == m_headerFields.end())
        return false;
    value = it->second;
    return true;
}

bool CHTTPRequest::GetRequestParamByName(const KZF::tstring &name, KZF::tstring &value) const
{
    const CKeyValueMap::const_iterator it = m_requestParams.find(name);
    if (it == m_requestParams.end())
        return false;
    value = it->second;
    return true;
}

void CHTTPRequest::SetBodySize(long size)
{
    // A negative Content-Length must never become an allocation or copy size.
    m_bodySize = size < 0 ? 0 : size;
}

bool CHTTPRequest::SetBody(const unsigned char *data, long size)
{
    delete[] m_pBody;
    m_pBody = nullptr;
    m_bodySize = 0;
    if (size < 0 || (size > 0 && data == nullptr))
        return false;
    m_pBody = new (std::nothrow) unsigned char[static_cast<size_t>(size)];
    if (m_pBody == nullptr)
        return false;
    m_bodySize = size;
    if (size > 0)
        std::memcpy(m_pBody, data, static_cast<size_t>(size));
    return true;
}

void CHTTPRequest::ProcessRequestParamsFromUri()
{
    m_requestParams.clear();
    const KZF::tstring::size_type question = m_uri.find('?');
    if (question == KZF::tstring::npos)
        return;
    const KZF::tstring::size_type start = question + 1;
    ProcessUrlEncodedParams(m_uri.c_str() + start, static_cast<unsigned int>(m_uri.size() - start));
}

bool CHTTPRequest::ProcessRequestParamsFromBody()
{
    if (m_bodyParamsProcessed)
        return true;
    m_bodyParamsProcessed = true;
    if (m_bodySize == 0)
        return true;
    const CKeyValueMap::const_iterator it = m_headerFields.find(c_contentType);
    if (it == m_headerFields.end())
        return false;
    KZF::tstring type(it->second);
    KZF::CSysUtils::ToLower(type);
    // Only the bare type matches: a charset parameter makes it unknown.
    if (type == c_formUrlEncoded) {
        // The announced size can differ from what SetBody holds when a caller
        // set it by hand; never read a body that is not there.
        if (m_pBody != nullptr && m_bodySize > 0)
            ProcessUrlEncodedParams(reinterpret_cast<char *>(m_pBody),
                                    static_cast<unsigned int>(std::min<unsigned long>(
                                        static_cast<unsigned long>(m_bodySize), UINT_MAX)));
        return true;
    }
    if (type == c_multipartFormData)
        return true; // recognised, but multipart bodies are not supported
    return true;
}

template <class T> void CHTTPRequest::ProcessUrlEncodedParams(T *data, unsigned int size)
{
    const char *text = data;
    if (text == nullptr)
        return;
    unsigned int start = 0;
    for (;;) {
        // The '=' search runs across '&' on purpose: "a&b=1" names a&b.
        if (start >= size)
            return;
        const void *equals = std::memchr(text + start, '=', size - start);
        if (equals == nullptr)
            return;
        const unsigned int eq = static_cast<unsigned int>(static_cast<const char *>(equals) - text);
        KZF::tstring name = GetSubString(text + start, 0, static_cast<long>(eq - start));
        removePercentEscapes(name);

        const unsigned int valueStart = eq + 1;
        const void *ampersand = std::memchr(text + valueStart, '&', size - valueStart);
        const bool last = ampersand == nullptr;
        const unsigned int amp =
            last ? size : static_cast<unsigned int>(static_cast<const char *>(ampersand) - text);
        KZF::tstring value =
            CHTTPRequest::UriDecode(GetSubString(text + valueStart, 0, static_cast<long>(amp - valueStart)));

        // emplace keeps an existing entry: the first occurrence of a name wins.
        m_requestParams.emplace(std::move(name), std::move(value));
        if (last)
            return;
        start = amp + 1;
    }
}

template void CHTTPRequest::ProcessUrlEncodedParams<char>(char *data, unsigned int size);
template void CHTTPRequest::ProcessUrlEncodedParams<const char>(const char *data, unsigned int size);

KZF::tstring CHTTPRequest::UriDecode(const KZF::tstring &in)
{
    const size_t length = in.size();
    std::string out;
    out.reserve(length);
    size_t index = 0;
    while (index < length) {
        const unsigned char ch = static_cast<unsigned char>(in[index]);
        ++index;
        if (ch != '%' || index + 2 > length) {
            out.push_back(static_cast<char>(ch));
            continue;
        }
        const int high = HexValue(static_cast<unsigned char>(in[index]));
        const int low = HexValue(static_cast<unsigned char>(in[index + 1]));
        if (high < 0 || low < 0) {
            // The two bytes are looked at again as ordinary bytes.
            out.push_back('%');
            continue;
        }
        const int b = high * 16 + low;
        if (IsAlwaysDecoded(b)) {
            out.push_back(static_cast<char>(b));
            index += 2;
            continue;
        }
        // Two escapes in a row are decoded together whatever they hold, so a
        // two-byte UTF-8 sequence comes through as its bytes.
        if (index + 4 < length && in[index + 2] == '%') {
            const int high2 = HexValue(static_cast<unsigned char>(in[index + 3]));
            const int low2 = HexValue(static_cast<unsigned char>(in[index + 4]));
            if (high2 >= 0 && low2 >= 0) {
                out.push_back(static_cast<char>(b));
                out.push_back(static_cast<char>(high2 * 16 + low2));
                index += 5;
                continue;
            }
        }
        out.push_back('%');
    }
    return KZF::CSysUtils::UTF8ToTString(out);
}

} // namespace NVQ

void removePercentEscapes(KZF::tstring &text)
{
    if (text.find('%') == KZF::tstring::npos)
        return;
    static const char *const c_escapes[][2] = {
        {"%24", "$"}, {"%26", "&"}, {"%2B", "+"}, {"%2C", ","}, {"%2F", "/"},
        {"%3A", ":"}, {"%3B", ";"}, {"%3D", "="}, {"%3F", "?"}, {"%40", "@"},
    };
    for (const auto &escape : c_escapes)
        replaceOccurances(text, escape[0], escape[1]);
}

void replaceOccurances(KZF::tstring &text, const KZF::tstring &from, const KZF::tstring &to)
{
    if (from.empty())
        return;
    KZF::tstring::size_type pos = 0;
    while ((pos = text.find(from, pos)) != KZF::tstring::npos) {
        text.replace(pos, from.size(), to);
        pos += to.size();
    }
}

KZF::tstring GetSubString(const char *text, int pos, long len)
{
    if (text == nullptr || pos < 0 || len <= 0)
        return KZF::tstring();
    // strnlen bounds the scan: a body is not NUL-terminated.
    const size_t end = static_cast<size_t>(pos) + static_cast<size_t>(len);
    const size_t textLength = strnlen(text, end);
    if (textLength <= static_cast<size_t>(pos))
        return KZF::tstring();
    return KZF::CSysUtils::UTF8ToTString(std::string(text + pos, textLength - static_cast<size_t>(pos)));
}

void removeEscapes(KZF::tstring &text)
{
    text.erase(std::remove_if(text.begin(), text.end(), [](char ch) { return isEscape(ch); }), text.end());
}

bool isEscape(int ch)
{
    return ch == '\\';
}
