#ifndef KZF_UTILITIES_LINUX_SYSUTILS_H
#define KZF_UTILITIES_LINUX_SYSUTILS_H

#include "KZF_Base/Linux/KzfTypes.h"

#include <cstdint>
#include <string>

namespace KZF
{

class CSysUtils
{
  public:
    // Lower-cases the ASCII letters A to Z in place; other bytes stay.
    static void ToLower(tstring &text);

    // tstring is a byte string, so both conversions keep the bytes as they are.
    static tstring UTF8ToTString(const std::string &text);
    static std::string TStringToUTF8(const tstring &text);

    // Plain ASCII: every byte from 0x80 up becomes '?'.
    static std::string TStringToAscii(const tstring &text);

    static tstring Int64ToString(int64_t value);

    // The directory, one '/', and the name. Trailing slashes of the directory
    // are not doubled; an empty directory stands for the current one (".").
    static tstring MakeFullPath(const tstring &directory, const tstring &name);

    // True only for a regular file (after following links): a FIFO or device
    // must never be opened by a file server.
    static bool FileExists(const tstring &path);
    static bool DirectoryExists(const tstring &path);
};

} // namespace KZF

// Reads a decimal integer the way atoi does (leading white space, an optional
// sign, digits up to the first other byte, 0 when there are none), but
// saturates at LONG_MAX / LONG_MIN instead of overflowing.
long _atoi(const char *text);

#endif
