#include "HTTP/Utf8Validator.h"

#include <cstdint>
#include <cstring>

namespace NVQ
{

void CUtf8Validator::Reset()
{
    m_needed = 0;
    m_low = 0x80;
    m_high = 0xBF;
    m_failed = false;
}

size_t CUtf8Validator::Feed(const void *data, size_t size)
{
    if (m_failed)
        return 0;
    const unsigned char *p = static_cast<const unsigned char *>(data);
    size_t i = 0;
    while (i < size) {
        const unsigned char b = p[i];
        if (m_needed > 0) {
            if (b < m_low || b > m_high)
                break;
            --m_needed;
            m_low = 0x80;
            m_high = 0xBF;
            ++i;
            continue;
        }
        if (b < 0x80) {
            // Text is mostly ASCII: skip it eight bytes at a time. memcpy keeps
            // the load legal at any alignment; compilers emit one load.
            ++i;
            while (size - i >= 8) {
                uint64_t word;
                std::memcpy(&word, p + i, 8);
                if ((word & 0x8080808080808080ull) != 0)
                    break;
                i += 8;
            }
            continue;
        }
        // The lead byte fixes the length; E0, ED, F0 and F4 narrow the second
        // byte to exclude overlongs, surrogates and code points past U+10FFFF.
        if (b >= 0xC2 && b <= 0xDF) {
            m_needed = 1;
        } else if (b >= 0xE0 && b <= 0xEF) {
            m_needed = 2;
            if (b == 0xE0)
                m_low = 0xA0;
            else if (b == 0xED)
                m_high = 0x9F;
        } else if (b >= 0xF0 && b <= 0xF4) {
            m_needed = 3;
            if (b == 0xF0)
                m_low = 0x90;
            else if (b == 0xF4)
                m_high = 0x8F;
        } else {
            break;
        }
        ++i;
    }
    if (i < size)
        m_failed = true;
    return i;
}

bool CUtf8Validator::IsValid(const void *data, size_t size)
{
    CUtf8Validator validator;
    return validator.Feed(data, size) == size && validator.IsComplete();
}

} // namespace NVQ
