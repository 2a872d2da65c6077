#ifndef NVQ_HTTP_HTTPSYNTAX_H
#define NVQ_HTTP_HTTPSYNTAX_H

namespace NVQ
{

// Byte classes of the HTTP/1.1 message grammar, one table look-up each; used
// by the strict request parser and the chunked decoder.
class CHTTPSyntax
{
  public:
    enum EClass {
        // tchar: what tokens (method, field names, codings) are made of.
        eClassToken = 1,
        // Visible bytes: VCHAR and obs-text (0x21-0x7E, 0x80-0xFF).
        eClassVisible = 2,
        // What a field value may hold: visible bytes, SP and HTAB.
        eClassValue = 4,
        // OWS: SP and HTAB.
        eClassBlank = 8,
        eClassHex = 16,
        eClassDigit = 32
    };

    static bool Is(unsigned char ch, int classes) { return (s_table.m_classes[ch] & classes) != 0; }

    // 0 to 15 for a hex digit of either case; -1 for anything else.
    static int HexValue(unsigned char ch)
    {
        if (ch >= '0' && ch <= '9')
            return ch - '0';
        const int lower = ch | 0x20;
        return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
    }

  private:
    struct STable {
        unsigned char m_classes[256];
        constexpr STable() : m_classes()
        {
            for (int ch = 0x21; ch < 0x100; ++ch) {
                if (ch != 0x7F)
                    m_classes[ch] = eClassVisible | eClassValue;
            }
            m_classes[0x20] = m_classes[0x09] = eClassValue | eClassBlank;
            const char extraTokenChars[] = "!#$%&'*+-.^_`|~";
            for (const char *p = extraTokenChars; *p != 0; ++p)
                m_classes[static_cast<unsigned char>(*p)] |= eClassToken;
            for (int ch = '0'; ch <= '9'; ++ch)
                m_classes[ch] |= eClassToken | eClassHex | eClassDigit;
            for (int ch = 'a'; ch <= 'z'; ++ch) {
                m_classes[ch] |= eClassToken;
                m_classes[ch - 0x20] |= eClassToken;
                if (ch <= 'f') {
                    m_classes[ch] |= eClassHex;
                    m_classes[ch - 0x20] |= eClassHex;
                }
            }
        }
    };
    static const STable s_table;
};

// Defined after the class: the table's constructor can run at compile time
// only once the class is complete.
inline constexpr CHTTPSyntax::STable CHTTPSyntax::s_table{};

} // namespace NVQ

#endif
