#include "KZF_Utilities/Linux/Thread.h"

#include <chrono>
#include <sys/syscall.h>
#include <unistd.h>

namespace KZF
{

CThread::CThread()
    : m_thread(), m_joinable(false), m_threadId(0), m_status(eThreadNotStarted), m_stopRequested(false)
{
}

CThread::~CThread()
{
    StopThread(-1);
}

void *CThread::Trampoline(void *self)
{
    static_cast<CThread *>(self)->ThreadFunc();
    return nullptr;
}

void CThread::ThreadFunc()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_threadId = static_cast<long>(::syscall(SYS_gettid));
        m_status = eThreadRunning;
    }
    m_changed.notify_all();
    Run();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_status = eThreadFinished;
    }
    m_changed.notify_all();
}

bool CThread::StartThread(bool waitUntilRunning)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_joinable)
        return false;
    m_stopRequested.store(false, std::memory_order_release);
    m_status = eThreadNotStarted;
    if (pthread_create(&m_thread, nullptr, &CThread::Trampoline, this) != 0)
        return false;
    m_joinable = true;
    if (waitUntilRunning)
        m_changed.wait(lock, [this] { return m_status != eThreadNotStarted; });
    return true;
}

bool CThread::WaitForObject(long timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_joinable)
        return true;
    if (pthread_equal(m_thread, pthread_self()))
        return false; // a thread cannot wait for its own end
    auto finished = [this] { return m_status == eThreadFinished; };
    if (timeoutMs < 0)
        m_changed.wait(lock, finished);
    else if (!m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), finished))
        return false;
    if (!m_joinable)
        return true; // another waiter joined it meanwhile
    // Run has returned; joining only collects the thread's last instructions.
    const pthread_t thread = m_thread;
    m_joinable = false;
    lock.unlock();
    pthread_join(thread, nullptr);
    return true;
}

bool CThread::StopThread(long timeoutMs)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_joinable)
            return true;
    }
    m_stopRequested.store(true, std::memory_order_release);
    OnStopRequested();
    return WaitForObject(timeoutMs);
}

long CThread::GetThreadID() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_threadId;
}

CThread::EThreadStatus CThread::GetThreadStatus() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_status;
}

} // namespace KZF
