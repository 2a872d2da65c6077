#include "KZF_Utilities/Linux/SysUtils.h"

#include <climits>
#include <sys/stat.h>

namespace KZF
{

void CSysUtils::ToLower(tstring &text)
{
    for (char &c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
}

tstring CSysUtils::UTF8ToTString(const std::string &text)
{
    return text;
}

std::string CSysUtils::TStringToUTF8(const tstring &text)
{
    return text;
}

std::string CSysUtils::TStringToAscii(const tstring &text)
{
    std::string result(text);
    for (char &c : result) {
        if (static_cast<unsigned char>(c) >= 0x80)
            c = '?';
    }
    return result;
}

tstring CSysUtils::Int64ToString(int64_t value)
{
    return std::to_string(value);
}

tstring CSysUtils::MakeFullPath(const tstring &directory, const tstring &name)
{
    tstring path = directory.empty() ? tstring(".") : directory;
    // Keep a lone "/" (the root) as it is; drop other trailing slashes so the
    // join adds exactly one.
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    if (path != "/")
        path += '/';
    path += name;
    return path;
}

bool CSysUtils::FileExists(const tstring &path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool CSysUtils::DirectoryExists(const tstring &path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace KZF

long _atoi(const char *text)
{
    if (text == nullptr)
        return 0;
    const char *p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
        ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = *p == '-';
        ++p;
    }
    // Accumulate towards the sign's side so LONG_MIN is reachable.
    long value = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        const int digit = *p - '0';
        if (negative) {
            if (value < (LONG_MIN + digit) / 10)
                return LONG_MIN;
            value = value * 10 - digit;
        } else {
            if (value > (LONG_MAX - digit) / 10)
                return LONG_MAX;
            value = value * 10 + digit;
        }
    }
    return value;
}
