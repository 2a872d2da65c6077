#include "KZF_Utilities/Linux/Logger.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/uio.h>
#include <unistd.h>

namespace KZF
{

// One attached device. `m_active` counts deliveries under way. A detached
// entry is freed by RemoveOutputDevice once they have ended, or, when the
// remover was itself inside a delivery to it, by the last of those.
struct CLogger::SDevice {
    ILogOutputDevice *m_device;
    int m_active;
    bool m_removed;
    bool m_removerWaiting;
};

namespace
{

// Devices this thread is currently delivering to, innermost last: a device
// that logs from inside Log, or detaches itself there, must not wait for its
// own delivery to end.
constexpr int c_maxNesting = 8;
thread_local const void *t_delivering[c_maxNesting];
thread_local int t_depth = 0;

int ownDeliveries(const void *entry)
{
    return static_cast<int>(std::count(t_delivering, t_delivering + std::min(t_depth, c_maxNesting), entry));
}

const char *baseName(const char *path)
{
    if (path == nullptr)
        return "";
    const char *slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

} // namespace

const void *const CLogger::c_noneObjPtr = nullptr;

CLogger &CLogger::GetInstance()
{
    // Never destroyed: devices and threads may still log while static objects
    // of the process are being torn down.
    static CLogger *instance = new CLogger();
    return *instance;
}

CLogger::CLogger() : m_deviceCount(0), m_threshold(INT_MAX) {}

CLogger::~CLogger()
{
    for (SDevice *entry : m_devices)
        delete entry;
}

void CLogger::LogMessage(int level, const char *file, int line, const char *function, const void *object,
                         const char *format, ...)
{
    if (!IsEnabled(level))
        return;
    va_list args;
    va_start(args, format);
    LogMessageV(level, file, line, function, object, format, args);
    va_end(args);
}

void CLogger::LogMessageV(int level, const char *file, int line, const char *function, const void *object,
                          const char *format, va_list args)
{
    if (!IsEnabled(level) || format == nullptr)
        return;

    SLogMessage message;
    message.m_level = level;
    message.m_file = file;
    message.m_line = line;
    message.m_function = function != nullptr ? function : "";
    message.m_object = object;
    clock_gettime(CLOCK_REALTIME, &message.m_time);

    struct tm local;
    localtime_r(&message.m_time.tv_sec, &local);

    // The line is built once, prefix and text in one buffer: on the stack for
    // ordinary messages, on the heap only for long ones.
    char lineBuffer[1024];
    int prefixLength =
        std::snprintf(lineBuffer, sizeof(lineBuffer),
                      "%04d-%02d-%02d %02d:%02d:%02d.%03ld [%d] %s:%d %s: ", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                      message.m_time.tv_nsec / 1000000L, level, baseName(file), line, message.m_function);
    prefixLength = std::clamp(prefixLength, 0, static_cast<int>(sizeof(lineBuffer)) / 2);
    lineBuffer[prefixLength] = '\0';

    va_list copy;
    va_copy(copy, args);
    int textLength =
        std::vsnprintf(lineBuffer + prefixLength, sizeof(lineBuffer) - prefixLength, format, copy);
    va_end(copy);
    textLength = std::max(textLength, 0);

    char *text = lineBuffer;
    std::string heap;
    if (static_cast<size_t>(prefixLength + textLength) >= sizeof(lineBuffer)) {
        heap.resize(static_cast<size_t>(prefixLength + textLength) + 1);
        std::memcpy(&heap[0], lineBuffer, static_cast<size_t>(prefixLength));
        std::vsnprintf(&heap[static_cast<size_t>(prefixLength)], static_cast<size_t>(textLength) + 1, format,
                       args);
        text = &heap[0];
    }
    // One line per message: formats may end in a line feed, devices add their own.
    while (textLength > 0 &&
           (text[prefixLength + textLength - 1] == '\n' || text[prefixLength + textLength - 1] == '\r'))
        --textLength;
    text[prefixLength + textLength] = '\0';
    message.m_text = text + prefixLength;

    Deliver(text, message);
}

void CLogger::Deliver(const char *line, const SLogMessage &message)
{
    // Take every attached device out for this delivery; a small fixed array
    // keeps the path free of allocation (processes attach a handful).
    constexpr size_t c_maxDevices = 16;
    SDevice *taken[c_maxDevices];
    size_t count = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (SDevice *entry : m_devices) {
            if (count == c_maxDevices)
                break;
            ++entry->m_active;
            taken[count++] = entry;
        }
    }
    for (size_t i = 0; i < count; ++i) {
        const bool tracked = t_depth < c_maxNesting;
        if (tracked)
            t_delivering[t_depth] = taken[i];
        ++t_depth;
        taken[i]->m_device->Log(line, static_cast<unsigned int>(message.m_level), message);
        --t_depth;
        Release(taken[i]);
    }
}

void CLogger::Release(SDevice *entry)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    --entry->m_active;
    if (!entry->m_removed)
        return;
    if (entry->m_removerWaiting)
        m_idle.notify_all();
    else if (entry->m_active == 0)
        delete entry;
}

bool CLogger::AddOutputDevice(ILogOutputDevice *device)
{
    if (device == nullptr)
        return false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (SDevice *entry : m_devices) {
            if (entry->m_device == device)
                return false;
        }
    }
    // Init runs outside the lock: a device may log while it starts.
    if (!device->Init())
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (SDevice *entry : m_devices) {
        if (entry->m_device == device)
            return false;
    }
    m_devices.push_back(new SDevice{device, 0, false, false});
    m_deviceCount.store(static_cast<int>(m_devices.size()), std::memory_order_release);
    return true;
}

bool CLogger::RemoveOutputDevice(ILogOutputDevice *device)
{
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto it = std::find_if(m_devices.begin(), m_devices.end(),
                               [device](const SDevice *entry) { return entry->m_device == device; });
        if (it == m_devices.end())
            return false;
        SDevice *entry = *it;
        m_devices.erase(it);
        m_deviceCount.store(static_cast<int>(m_devices.size()), std::memory_order_release);
        entry->m_removed = true;
        // Deliveries of other threads must end; the ones this thread is inside
        // of cannot, and free the entry when they unwind.
        const int own = ownDeliveries(entry);
        entry->m_removerWaiting = true;
        m_idle.wait(lock, [entry, own] { return entry->m_active <= own; });
        entry->m_removerWaiting = false;
        if (entry->m_active == 0)
            delete entry;
    }
    device->Terminate();
    return true;
}

void CStdErrLogDevice::Log(const char *text, unsigned int level, const CLogger::SLogMessage &)
{
    if (static_cast<int>(level) > m_maxLevel.load(std::memory_order_relaxed))
        return;
    struct iovec parts[2];
    parts[0].iov_base = const_cast<char *>(text);
    parts[0].iov_len = std::strlen(text);
    parts[1].iov_base = const_cast<char *>("\n");
    parts[1].iov_len = 1;
    ssize_t written = ::writev(STDERR_FILENO, parts, 2);
    (void)written;
}

} // namespace KZF
