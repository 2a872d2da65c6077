#include "SocketServerCore.h"

#include "EventLoop.h"

#include "NVQSockets/Linux/SocketServerLayer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <pthread.h>
#include <utility>
#include <vector>

// The server's threads: one per loop, spare ones that take over a loop
// whose delivery stalls, and the watchdog that notices the stall.

namespace NVQ
{

namespace
{

// A delivery running this long holds its loop up: the loop moves on to
// another thread.
constexpr int c_stallMs = 20;
// The watchdog looks this often while a loop is inside a delivery, and this
// seldom while none is (no busy wake-ups on an idle device).
constexpr int c_watchIntervalMs = 10;
constexpr int c_restIntervalMs = 50;
// A spare thread (one that took a loop over once and got its connection
// back) waits this long for another turn before it exits.
constexpr int c_spareLifetimeMs = 10000;
// Loop threads: deliveries need little, and small stacks keep many of them
// affordable on 32-bit devices.
constexpr size_t c_threadStackSize = 512 * 1024;

} // namespace

bool CSocketServerCore::SpawnThread(CEventLoop *loop)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, c_threadStackSize);
    std::unique_ptr<SThread> thread(new SThread());
    thread->m_pLoop = loop;
    std::lock_guard<std::mutex> lock(m_threadMutex);
    const int result = pthread_create(&thread->m_thread, &attributes, &CSocketServerCore::ThreadMain,
                                      new std::pair<CSocketServerCore *, SThread *>(this, thread.get()));
    pthread_attr_destroy(&attributes);
    if (result != 0) {
        errno = result;
        return false;
    }
    ++m_threadCount;
    if (loop == nullptr)
        ++m_spareCount;
    m_threads.push_back(std::move(thread));
    return true;
}

void *CSocketServerCore::ThreadMain(void *argument)
{
    std::unique_ptr<std::pair<CSocketServerCore *, SThread *>> pair(
        static_cast<std::pair<CSocketServerCore *, SThread *> *>(argument));
    pair->first->ThreadLoop(*pair->second);
    return nullptr;
}

void CSocketServerCore::ThreadLoop(SThread &self)
{
    // A write to a peer that has gone raises SIGPIPE where the call cannot
    // ask for it not to (sendfile); the result says the same.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    std::unique_lock<std::mutex> lock(m_threadMutex);
    for (;;) {
        if (self.m_pLoop != nullptr) {
            CEventLoop *loop = self.m_pLoop;
            lock.unlock();
            // Runs until the loop stops, or until this thread blocks in a
            // delivery and another takes the loop over (this one then
            // finishes its connection and hands it back first).
            loop->Run();
            lock.lock();
            self.m_pLoop = nullptr;
            ++m_spareCount;
            m_threadChanged.notify_all();
            continue;
        }
        if (m_stopThreads)
            break;
        const bool woken = m_threadChanged.wait_for(lock, std::chrono::milliseconds(c_spareLifetimeMs),
                                                    [&] { return self.m_pLoop != nullptr || m_stopThreads; });
        // One spare is kept; the others leave after a while unused.
        if (!woken && m_spareCount > 1)
            break;
    }
    --m_spareCount;
    --m_threadCount;
    self.m_exited = true;
    m_threadChanged.notify_all();
}

void CSocketServerCore::JoinExitedThreads()
{
    std::vector<std::unique_ptr<SThread>> exited;
    {
        std::lock_guard<std::mutex> lock(m_threadMutex);
        for (auto it = m_threads.begin(); it != m_threads.end();) {
            if ((*it)->m_exited) {
                exited.push_back(std::move(*it));
                it = m_threads.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto &thread : exited)
        pthread_join(thread->m_thread, nullptr);
}

bool CSocketServerCore::CanAddThread()
{
    {
        std::lock_guard<std::mutex> lock(m_threadMutex);
        if (m_stopThreads)
            return false;
        const int busy = m_threadCount.load() - m_spareCount;
        if (busy >= std::max(m_maxWorkers.load(), static_cast<int>(m_loops.size())))
            return false;
        if (m_spareCount > 0)
            return true;
    }
    // Made before the loop is taken from its owner, so that taking it over
    // cannot fail half-way.
    return SpawnThread(nullptr);
}

bool CSocketServerCore::StartLoopThread(CEventLoop &loop)
{
    {
        std::lock_guard<std::mutex> lock(m_threadMutex);
        for (auto &thread : m_threads) {
            if (thread->m_pLoop == nullptr && !thread->m_exited) {
                thread->m_pLoop = &loop;
                --m_spareCount;
                break;
            }
        }
    }
    m_threadChanged.notify_all();
    return true;
}

void CSocketServerCore::RunWatchdog()
{
    std::unique_lock<std::mutex> lock(m_watchMutex);
    while (!m_layer.IsStopRequested()) {
        lock.unlock();
        const int64_t now = monotonicMilliseconds();
        bool inCall = false;
        for (auto &loop : m_loops)
            inCall = loop->Watch(now, c_stallMs) || inCall;
        JoinExitedThreads();
        lock.lock();
        m_watchWoken = false;
        m_watchWake.wait_for(lock, std::chrono::milliseconds(inCall ? c_watchIntervalMs : c_restIntervalMs),
                             [this] { return m_watchWoken || m_layer.IsStopRequested(); });
    }
}

void CSocketServerCore::WakeWatchdog()
{
    {
        std::lock_guard<std::mutex> lock(m_watchMutex);
        m_watchWoken = true;
    }
    m_watchWake.notify_all();
    {
        // Close waits on this for the loops to stop.
        std::lock_guard<std::mutex> lock(m_threadMutex);
    }
    m_threadChanged.notify_all();
}

} // namespace NVQ
