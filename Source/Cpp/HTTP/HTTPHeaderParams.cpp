#include "HTTP/HTTPHeaderParams.h"

#include "HTTP/HTTPSyntax.h"

#include <cstring>

namespace NVQ
{

namespace
{

bool isBlank(char ch)
{
    return ch == ' ' || ch == '\t';
}

bool isToken(char ch)
{
    return CHTTPSyntax::Is(static_cast<unsigned char>(ch), CHTTPSyntax::eClassToken);
}

const char *skipBlanks(const char *p, const char *end)
{
    while (p != end && isBlank(*p))
        ++p;
    return p;
}

char lower(char ch)
{
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + ('a' - 'A')) : ch;
}

// A quoted string starting at the opening quote; p ends past the closing one.
bool readQuoted(const char *&p, const char *end, std::string &out)
{
    for (++p; p != end; ++p) {
        const unsigned char ch = static_cast<unsigned char>(*p);
        if (ch == '"') {
            ++p;
            return true;
        }
        // Value bytes only: HTAB, SP, VCHAR, obs-text.
        if (!CHTTPSyntax::Is(ch, CHTTPSyntax::eClassValue))
            return false;
        if (ch == '\\' && p + 1 != end && (p[1] == '"' || p[1] == '\\'))
            ++p;
        out += *p;
    }
    return false;
}

} // namespace

bool CHTTPHeaderParams::Parse(const char *begin, const char *end, char separator, size_t maxParams,
                              std::vector<SParam> &params)
{
    const char *p = begin;
    while (true) {
        p = skipBlanks(p, end);
        if (p == end)
            return true;
        if (*p == separator) {
            ++p;
            continue;
        }
        SParam param;
        while (p != end && isToken(*p))
            param.m_name += lower(*p++);
        p = skipBlanks(p, end);
        if (param.m_name.empty() || p == end || *p != '=')
            return false;
        p = skipBlanks(p + 1, end);
        if (p != end && *p == '"') {
            if (!readQuoted(p, end, param.m_value))
                return false;
        } else {
            while (p != end && isToken(*p))
                param.m_value += *p++;
            if (param.m_value.empty())
                return false;
        }
        p = skipBlanks(p, end);
        if (p != end && *p != separator)
            return false;
        if (Find(params, param.m_name.c_str()) != nullptr || params.size() == maxParams)
            return false;
        params.push_back(std::move(param));
    }
}

bool CHTTPHeaderParams::ParseTyped(const std::string &value, size_t maxParams, std::string &type,
                                   std::vector<SParam> &params)
{
    const char *p = skipBlanks(value.data(), value.data() + value.size());
    const char *end = value.data() + value.size();
    type.clear();
    bool slash = false;
    while (p != end && (isToken(*p) || (*p == '/' && !slash && !type.empty()))) {
        slash = slash || *p == '/';
        type += lower(*p++);
    }
    if (type.empty() || type.back() == '/')
        return false;
    p = skipBlanks(p, end);
    if (p != end && *p != ';')
        return false;
    return Parse(p, end, ';', maxParams, params);
}

const CHTTPHeaderParams::SParam *CHTTPHeaderParams::Find(const std::vector<SParam> &params, const char *name)
{
    for (const SParam &param : params) {
        if (param.m_name == name)
            return &param;
    }
    return nullptr;
}

bool CHTTPHeaderParams::DecodeExtValue(const std::string &value, std::string &out)
{
    const size_t charsetEnd = value.find('\'');
    const size_t languageEnd =
        charsetEnd == std::string::npos ? charsetEnd : value.find('\'', charsetEnd + 1);
    if (languageEnd == std::string::npos || !EqualsNoCase(value.substr(0, charsetEnd), "utf-8"))
        return false;
    out.clear();
    for (size_t i = languageEnd + 1; i < value.size(); ++i) {
        if (value[i] != '%') {
            out += value[i];
            continue;
        }
        const int high = i + 2 < value.size() ? CHTTPSyntax::HexValue(value[i + 1]) : -1;
        const int low = high < 0 ? -1 : CHTTPSyntax::HexValue(value[i + 2]);
        if (low < 0)
            return false;
        out += static_cast<char>(high << 4 | low);
        i += 2;
    }
    return true;
}

std::string CHTTPHeaderParams::Quote(const std::string &text)
{
    std::string out = "\"";
    for (const char ch : text) {
        if (ch == '"' || ch == '\\')
            out += '\\';
        out += ch;
    }
    return out + '"';
}

bool CHTTPHeaderParams::EqualsNoCase(const std::string &a, const char *b)
{
    const size_t length = std::strlen(b);
    if (a.size() != length)
        return false;
    for (size_t i = 0; i < length; ++i) {
        if (lower(a[i]) != lower(b[i]))
            return false;
    }
    return true;
}

} // namespace NVQ
