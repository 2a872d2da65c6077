#ifndef KZF_BASE_LINUX_CRITICALSECTION_H
#define KZF_BASE_LINUX_CRITICALSECTION_H

#include <pthread.h>

namespace KZF
{

// Recursive mutex: the holder may enter again and must leave as often as it
// entered. Taken only through CLock, so every lock is held for one scope.
class CCriticalSection
{
  public:
    class CLock
    {
      public:
        explicit CLock(CCriticalSection &section) : m_section(section) { m_section.Enter(); }
        ~CLock() { m_section.Leave(); }
        CLock(const CLock &) = delete;
        CLock &operator=(const CLock &) = delete;

      private:
        CCriticalSection &m_section;
    };

    CCriticalSection()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~CCriticalSection() { pthread_mutex_destroy(&m_mutex); }
    CCriticalSection(const CCriticalSection &) = delete;
    CCriticalSection &operator=(const CCriticalSection &) = delete;

    void Enter() { pthread_mutex_lock(&m_mutex); }
    void Leave() { pthread_mutex_unlock(&m_mutex); }

  private:
    pthread_mutex_t m_mutex;
};

} // namespace KZF

#endif
