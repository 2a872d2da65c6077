#include "KZF_Utilities/Linux/Thread.h"
#include "KZF_Base/Linux/CriticalSection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace
{

// Runs until asked to stop, or once and ends by itself.
class CTestThread : public KZF::CThread
{
  public:
    explicit CTestThread(bool waits) : m_waits(waits) {}
    ~CTestThread() override { StopThread(-1); }
    const bool m_waits;
    std::atomic<long> m_runThreadId{0};
    std::atomic<int> m_runs{0};
    std::atomic<bool> m_woken{false};

  protected:
    int Run() override
    {
        ++m_runs;
        m_runThreadId = static_cast<long>(::syscall(SYS_gettid));
        while (m_waits && !IsStopRequested())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return 0;
    }
    void OnStopRequested() override { m_woken = true; }
};

TEST(ThreadTest, RunsOnItsOwnThreadUntilStoppedAndCanStartAgain)
{
    CTestThread thread(true);
    EXPECT_EQ(KZF::CThread::eThreadNotStarted, thread.GetThreadStatus());
    ASSERT_TRUE(thread.StartThread(true));
    EXPECT_EQ(KZF::CThread::eThreadRunning, thread.GetThreadStatus());
    EXPECT_FALSE(thread.StartThread(false)) << "a started thread cannot start again";
    EXPECT_NE(0, thread.GetThreadID());
    EXPECT_NE(static_cast<long>(::syscall(SYS_gettid)), thread.GetThreadID());
    EXPECT_FALSE(thread.WaitForObject(20)) << "the thread waits for its stop request";
    EXPECT_TRUE(thread.StopThread(-1));
    EXPECT_TRUE(thread.m_woken);
    EXPECT_EQ(KZF::CThread::eThreadFinished, thread.GetThreadStatus());
    EXPECT_EQ(thread.GetThreadID(), thread.m_runThreadId.load());
    EXPECT_TRUE(thread.StopThread(-1)) << "stopping twice is harmless";
    ASSERT_TRUE(thread.StartThread(true));
    EXPECT_FALSE(thread.IsStopRequested());
    EXPECT_TRUE(thread.StopThread(1000));
}

TEST(ThreadTest, WaitForObjectCollectsAThreadThatEndedByItself)
{
    CTestThread thread(false);
    EXPECT_TRUE(thread.WaitForObject(0)) << "a thread never started counts as ended";
    ASSERT_TRUE(thread.StartThread(false));
    EXPECT_TRUE(thread.WaitForObject(-1));
    EXPECT_EQ(1, thread.m_runs.load());
    EXPECT_EQ(KZF::CThread::eThreadFinished, thread.GetThreadStatus());
}

TEST(CriticalSectionTest, HolderReentersAndOthersWaitForTheLastLeave)
{
    // Whether another thread is still shut out can only be seen by letting it
    // try for a while; the pauses only make a missing block visible.
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
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_FALSE(otherEntered);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(otherEntered) << "one Leave must not release a section entered twice";
    }
    other.join();
    EXPECT_TRUE(otherEntered);
    long counter = 0;
    std::thread threads[4];
    for (std::thread &thread : threads) {
        thread = std::thread([&] {
            for (int i = 0; i < 10000; ++i) {
                KZF::CCriticalSection::CLock lock(section);
                ++counter;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(40000, counter);
}

} // namespace
