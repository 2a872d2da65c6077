#include "KZF_Base/Linux/CriticalSection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace
{

// Whether another thread is still shut out can only be observed by letting it
// try for a while; the pause only makes a missing block visible.
void letOtherThreadTry()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

TEST(CriticalSectionTest, HolderReentersAndOthersWaitForTheLastLeave)
{
    KZF::CCriticalSection section;
    std::atomic<bool> otherEntered(false);
    std::thread other;
    {
        KZF::CCriticalSection::CLock outer(section);
        {
            KZF::CCriticalSection::CLock inner(section); // must not block
            other = std::thread([&] {
                KZF::CCriticalSection::CLock lock(section);
                otherEntered = true;
            });
            letOtherThreadTry();
            EXPECT_FALSE(otherEntered);
        }
        letOtherThreadTry();
        EXPECT_FALSE(otherEntered) << "one Leave must not release a section entered twice";
    }
    other.join();
    EXPECT_TRUE(otherEntered);
}

TEST(CriticalSectionTest, SerialisesIncrementsFromManyThreads)
{
    KZF::CCriticalSection section;
    long counter = 0;
    std::thread threads[4];
    for (std::thread &thread : threads) {
        thread = std::thread([&] {
            for (int i = 0; i < 10000; ++i) {
                KZF::CCriticalSection::CLock lock(section);
                KZF::CCriticalSection::CLock again(section);
                ++counter;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(40000, counter);
}

} // namespace
