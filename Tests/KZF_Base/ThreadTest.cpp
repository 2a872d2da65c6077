#include "KZF_Utilities/Linux/Thread.h"
#include "KZF_Base/Linux/CriticalSection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace
{

// Runs until asked to stop or, with m_waits off, ends by itself.
class CTestThread : public KZF::CThread
{
  public:
    ~CTestThread() override { StopThread(-1); }
    std::atomic<bool> m_waits{true};
    std::atomic<long> m_runThreadId{0};
    std::atomic<bool> m_woken{false};

  protected:
    int Run() override
    {
        m_runThreadId = static_cast<long>(::syscall(SYS_gettid));
        while (m_waits && !IsStopRequested())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return 0;
    }
    void OnStopRequested() override { m_woken = true; }
};

TEST(ThreadTest, RunsOnItsOwnThreadUntilStoppedOrItEndsAndCanStartAgain)
{
    CTestThread thread;
    EXPECT_TRUE(thread.WaitForObject(0)) << "a thread never started counts as ended";
    ASSERT_TRUE(thread.StartThread(true));
    EXPECT_EQ(KZF::CThread::eThreadRunning, thread.GetThreadStatus());
    EXPECT_FALSE(thread.StartThread(false)) << "a started thread cannot start again";
    EXPECT_FALSE(thread.WaitForObject(20)) << "the thread waits for its stop request";
    EXPECT_TRUE(thread.StopThread(-1));
    EXPECT_TRUE(thread.m_woken);
    EXPECT_EQ(KZF::CThread::eThreadFinished, thread.GetThreadStatus());
    EXPECT_EQ(thread.GetThreadID(), thread.m_runThreadId.load());
    EXPECT_TRUE(thread.StopThread(-1)) << "stopping twice is harmless";
    thread.m_waits = false;
    ASSERT_TRUE(thread.StartThread(false));
    EXPECT_TRUE(thread.WaitForObject(-1));
    EXPECT_FALSE(thread.IsStopRequested());
    EXPECT_EQ(KZF::CThread::eThreadFinished, thread.GetThreadStatus());
}

TEST(CriticalSectionTest, HolderReentersAndOthersAreShutOut)
{
    KZF::CCriticalSection section;
    long counter = 0;
    std::thread threads[4];
    for (std::thread &thread : threads) {
        thread = std::thread([&] {
            for (int i = 0; i < 10000; ++i) {
                KZF::CCriticalSection::CLock lock(section), again(section);
                ++counter;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(40000, counter);
}

} // namespace
