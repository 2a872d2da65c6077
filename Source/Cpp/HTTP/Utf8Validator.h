#ifndef NVQ_HTTP_UTF8VALIDATOR_H
#define NVQ_HTTP_UTF8VALIDATOR_H

#include <cstddef>

namespace NVQ
{

// Incremental UTF-8 check of a text that arrives in pieces split anywhere,
// even inside a character. Refuses what RFC 3629 refuses: overlong forms,
// surrogates (U+D800-U+DFFF), code points above U+10FFFF, bytes C0, C1,
// F5-FF and stray continuation bytes. Keeps four bytes of state, no copy.
class CUtf8Validator
{
  public:
    CUtf8Validator() { Reset(); }

    void Reset();

    // Checks the next piece. Answers how many of its bytes were accepted:
    // size when all were, else the index of the first byte that no valid text
    // can contain here. A failure is sticky until Reset (nothing more is
    // accepted).
    size_t Feed(const void *data, size_t size);

    bool HasFailed() const { return m_failed; }

    // Nothing invalid so far and the text does not stop inside a character.
    bool IsComplete() const { return !m_failed && m_needed == 0; }

    // One complete text.
    static bool IsValid(const void *data, size_t size);

  private:
    // Continuation bytes still expected, and the range allowed for the next
    // one (narrower than 80-BF right after some lead bytes).
    unsigned char m_needed;
    unsigned char m_low;
    unsigned char m_high;
    bool m_failed;
};

} // namespace NVQ

#endif
