#include "KZF_Utilities/Linux/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

// Runs until asked to stop; OnStopRequested wakes it.
class CWaitingThread : public KZF::CThread
{
  public:
    ~CWaitingThread() override { StopThread(-1); }

    std::atomic<long> m_runThreadId{0};
    std::atomic<bool> m_woken{false};

  protected:
    int Run() override
    {
        m_runThreadId = static_cast<long>(::syscall(SYS_gettid));
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, [this] { return IsStopRequested(); });
        return 0;
    }
    void OnStopRequested() override
    {
        m_woken = true;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_wake.notify_all();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
};

TEST(ThreadTest, RunsOnItsOwnThreadUntilStopped)
{
    CWaitingThread thread;
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
}

TEST(ThreadTest, CanStartAgainAfterItEnded)
{
    CWaitingThread thread;
    ASSERT_TRUE(thread.StartThread(true));
    ASSERT_TRUE(thread.StopThread(1000));
    ASSERT_TRUE(thread.StartThread(true));
    EXPECT_FALSE(thread.IsStopRequested());
    EXPECT_TRUE(thread.StopThread(1000));
}

class CQuickThread : public KZF::CThread
{
  public:
    ~CQuickThread() override { StopThread(-1); }
    std::atomic<int> m_runs{0};

  protected:
    int Run() override
    {
        ++m_runs;
        return 0;
    }
};

TEST(ThreadTest, WaitForObjectCollectsAThreadThatEndedByItself)
{
    CQuickThread thread;
    EXPECT_TRUE(thread.WaitForObject(0)) << "a thread never started counts as ended";
    ASSERT_TRUE(thread.StartThread(false));
    EXPECT_TRUE(thread.WaitForObject(-1));
    EXPECT_EQ(1, thread.m_runs.load());
    EXPECT_EQ(KZF::CThread::eThreadFinished, thread.GetThreadStatus());
}

} // namespace
