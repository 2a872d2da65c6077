#ifndef TESTS_SUPPORT_WAITFOR_H
#define TESTS_SUPPORT_WAITFOR_H

#include <chrono>
#include <thread>

namespace NVQTest
{

// Polls until the predicate holds; false when it still does not after the
// timeout. For outcomes that other threads bring about.
template <class TPredicate> bool waitFor(TPredicate predicate, int timeoutMs = 5000)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace NVQTest

#endif
