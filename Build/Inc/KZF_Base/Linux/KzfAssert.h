#ifndef KZF_BASE_LINUX_KZFASSERT_H
#define KZF_BASE_LINUX_KZFASSERT_H

// Internal checks.
//
// KZF_ASSERT(condition) guards a condition that the library's own logic (or
// correct use of it by the host) keeps from failing. When bit 0 of
// GetKzfAssertMode() is clear, a failed check reports the condition text,
// file, line and function through the system's assertion-failure routine,
// which ends the process. When the bit is set the check is skipped entirely
// (the condition is not evaluated). Either way the code after a check must
// guard the same condition itself and take the harmless path.
//
// The mode starts from the environment variable KZF_ASSERT_MODE (an integer,
// read once on first use; unset means 0, checks on) and can be changed by the
// host with SetKzfAssertMode.

// Current mode; bit 0 set means internal checks are skipped.
int GetKzfAssertMode();

// Replaces the mode for the whole process.
void SetKzfAssertMode(int mode);

namespace KZF
{
// Reports a failed check; does not return.
[[noreturn]] void AssertionFailed(const char *condition, const char *file, unsigned int line,
                                  const char *function);
} // namespace KZF

// The condition is expanded before it is turned into text, so a check written
// with NULL names its condition as the compiler sees it ("p != __null").
#define KZF_ASSERT_TEXT_(...) #__VA_ARGS__
#define KZF_ASSERT_TEXT(...) KZF_ASSERT_TEXT_(__VA_ARGS__)

#define KZF_ASSERT(...)                                                                                      \
    do {                                                                                                     \
        if ((GetKzfAssertMode() & 1) == 0 && !(__VA_ARGS__))                                                 \
            ::KZF::AssertionFailed(KZF_ASSERT_TEXT(__VA_ARGS__), __FILE__, __LINE__, __func__);              \
    } while (0)

#endif
