// The system routine is declared only while assertions are compiled in.
#undef NDEBUG
#include <cassert>

#include "KZF_Base/Linux/KzfAssert.h"

#include <atomic>
#include <cstdlib>

namespace
{

int readModeFromEnvironment()
{
    const char *text = std::getenv("KZF_ASSERT_MODE");
    return text != nullptr ? std::atoi(text) : 0;
}

std::atomic<int> &assertMode()
{
    static std::atomic<int> mode(readModeFromEnvironment());
    return mode;
}

} // namespace

int GetKzfAssertMode()
{
    return assertMode().load(std::memory_order_relaxed);
}

void SetKzfAssertMode(int mode)
{
    assertMode().store(mode, std::memory_order_relaxed);
}

namespace KZF
{

void AssertionFailed(const char *condition, const char *file, unsigned int line, const char *function)
{
    __assert_fail(condition, file, line, function);
}

} // namespace KZF
