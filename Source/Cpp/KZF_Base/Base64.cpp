#include "KZF_Utilities/Linux/Hash.h"

namespace KZF
{

namespace
{

constexpr char c_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// 0-63 for the alphabet, 64 for '=', 255 for everything else. Built at
// compile time, so it is ready before any static constructor runs.
struct SDecodeTable {
    unsigned char m_value[256] = {};
    constexpr SDecodeTable()
    {
        for (unsigned char &v : m_value)
            v = 255;
        for (unsigned i = 0; i < 64; ++i)
            m_value[static_cast<unsigned char>(c_alphabet[i])] = static_cast<unsigned char>(i);
        m_value[static_cast<unsigned char>('=')] = 64;
    }
};

constexpr SDecodeTable s_decode;

} // namespace

std::string Base64Encode(const void *data, size_t size)
{
    const unsigned char *p = static_cast<const unsigned char *>(data);
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const uint32_t v = uint32_t(p[i]) << 16 | uint32_t(p[i + 1]) << 8 | p[i + 2];
        out += c_alphabet[v >> 18];
        out += c_alphabet[(v >> 12) & 63];
        out += c_alphabet[(v >> 6) & 63];
        out += c_alphabet[v & 63];
    }
    if (i < size) {
        const uint32_t v = uint32_t(p[i]) << 16 | (i + 1 < size ? uint32_t(p[i + 1]) << 8 : 0);
        out += c_alphabet[v >> 18];
        out += c_alphabet[(v >> 12) & 63];
        out += i + 1 < size ? c_alphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

bool Base64Decode(const std::string &text, std::string &out)
{
    const size_t n = text.size();
    if (n % 4 != 0)
        return false;
    std::string result;
    result.reserve(n / 4 * 3);
    for (size_t i = 0; i < n; i += 4) {
        unsigned char v[4];
        for (int k = 0; k < 4; ++k)
            v[k] = s_decode.m_value[static_cast<unsigned char>(text[i + k])];
        const bool last = i + 4 == n;
        // Padding only at the very end: "xx==" or "xxx=".
        const int pad = last && v[3] == 64 ? (v[2] == 64 ? 2 : 1) : 0;
        for (int k = 0; k < 4 - pad; ++k) {
            if (v[k] > 63)
                return false;
        }
        const uint32_t bits =
            uint32_t(v[0]) << 18 | uint32_t(v[1]) << 12 | uint32_t(v[2] & 63) << 6 | (v[3] & 63);
        // Unused bits must be zero, so every byte string has exactly one text.
        if ((pad == 2 && (bits & 0xffff) != 0) || (pad == 1 && (bits & 0xff) != 0))
            return false;
        result += static_cast<char>(bits >> 16);
        if (pad < 2)
            result += static_cast<char>(bits >> 8);
        if (pad < 1)
            result += static_cast<char>(bits);
    }
    out.swap(result);
    return true;
}

} // namespace KZF
