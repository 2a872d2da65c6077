#ifndef NVQ_HTTP_HTTPHEADERPARAMS_H
#define NVQ_HTTP_HTTPHEADERPARAMS_H

#include <cstddef>
#include <string>
#include <vector>

namespace NVQ
{

// Parameter lists inside header field values: `type; a=b; c="d"` (media
// types, Content-Disposition) and `a=b, c="d"` (Digest credentials).
class CHTTPHeaderParams
{
  public:
    struct SParam {
        std::string m_name;  // lower case
        std::string m_value; // quotes and escapes removed
    };

    // Parses `name=value` items separated by `separator`, blanks allowed
    // around each part and empty items skipped. Names are tokens, values
    // tokens or quoted strings; in a quoted string a backslash escapes only
    // '"' and '\' and stays literal before anything else (browsers send file
    // names with unescaped backslashes). False on a name given twice, more
    // than maxParams items, a missing '=', or a byte out of place.
    static bool Parse(const char *begin, const char *end, char separator, size_t maxParams,
                      std::vector<SParam> &params);

    // `token *( ";" param )`: the leading token (a media type may hold one
    // '/') comes back in lower case.
    static bool ParseTyped(const std::string &value, size_t maxParams, std::string &type,
                           std::vector<SParam> &params);

    // The parameter of that (lower-case) name, or null.
    static const SParam *Find(const std::vector<SParam> &params, const char *name);

    // An RFC 8187 ext-value in UTF-8 (`UTF-8'lang'%e2%82%ac`), percent
    // decoding undone; other charsets and malformed escapes give false.
    static bool DecodeExtValue(const std::string &value, std::string &out);

    // The text as a quoted string, '"' and '\' escaped.
    static std::string Quote(const std::string &text);

    // ASCII case-insensitive equality.
    static bool EqualsNoCase(const std::string &a, const char *b);
};

} // namespace NVQ

#endif
