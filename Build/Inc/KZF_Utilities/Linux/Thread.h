#ifndef KZF_UTILITIES_LINUX_THREAD_H
#define KZF_UTILITIES_LINUX_THREAD_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <pthread.h>

namespace KZF
{

// A thread whose body is the derived class's Run. Start it once with
// StartThread; StopThread asks Run to end (Run polls IsStopRequested, and a
// derived class can wake it in OnStopRequested) and joins it.
class CThread
{
  public:
    enum EThreadStatus { eThreadNotStarted, eThreadRunning, eThreadFinished };

    CThread();
    // A thread still running is stopped and joined here; a derived class
    // whose Run uses its own members must stop the thread in its own
    // destructor, before they are gone.
    virtual ~CThread();
    CThread(const CThread &) = delete;
    CThread &operator=(const CThread &) = delete;

    // Waits up to timeoutMs (negative: without limit) for the thread to end;
    // true when it has ended (or was never started).
    virtual bool WaitForObject(long timeoutMs);
    // Kernel thread id of the running thread; 0 before it started.
    virtual long GetThreadID() const;
    virtual EThreadStatus GetThreadStatus() const;
    // Starts the thread; false when it is already started or cannot be
    // created. With waitUntilRunning, returns only once Run has been entered.
    virtual bool StartThread(bool waitUntilRunning);
    // Requests the end and waits up to timeoutMs (negative: without limit);
    // true when the thread has ended.
    virtual bool StopThread(long timeoutMs);

    bool IsStopRequested() const { return m_stopRequested.load(std::memory_order_acquire); }

  protected:
    // The thread's body; its result is kept as the exit code.
    virtual int Run() = 0;
    // Called by StopThread on the stopping thread, after the request is set;
    // wake Run here if it may be blocked.
    virtual void OnStopRequested() {}
    virtual void ThreadFunc();

  private:
    static void *Trampoline(void *self);

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    pthread_t m_thread;
    bool m_joinable;
    long m_threadId;
    EThreadStatus m_status;
    std::atomic<bool> m_stopRequested;
};

} // namespace KZF

#endif
