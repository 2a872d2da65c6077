#include "KZF_Base/Linux/KzfAssert.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace
{

// The harmless path the convention asks for: the check, then the code's own
// guard of the same condition.
int guardedDivide(int a, int b)
{
    KZF_ASSERT(b != 0);
    if (b == 0)
        return 0;
    return a / b;
}

TEST(KzfAssertTest, AFailedCheckReportsAndEndsTheProcessUnlessChecksAreOffBySetterOrEnvironment)
{
    const int saved = GetKzfAssertMode();
    EXPECT_DEATH(guardedDivide(1, 0), "KzfAssertTest.cpp:.*guardedDivide.*Assertion `b != 0' failed");
    // Checks off: the harmless path, without evaluating the condition.
    SetKzfAssertMode(1);
    EXPECT_EQ(0, guardedDivide(1, 0));
    int evaluations = 0;
    KZF_ASSERT(++evaluations > 100);
    EXPECT_EQ(0, evaluations);
    SetKzfAssertMode(saved);
    // The environment variable is read once, when the mode is first used. The
    // threadsafe death-test style runs the statement in a freshly started copy
    // of this program, which reads the environment it inherits from here.
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    ASSERT_EQ(0, setenv("KZF_ASSERT_MODE", "1", 1));
    EXPECT_EXIT(
        {
            KZF_ASSERT(false);
            std::exit(GetKzfAssertMode() == 1 ? 7 : 8);
        },
        ::testing::ExitedWithCode(7), "");
    unsetenv("KZF_ASSERT_MODE");
    ::testing::FLAGS_gtest_death_test_style = "fast";
}

} // namespace
