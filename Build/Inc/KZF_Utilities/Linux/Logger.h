#ifndef KZF_UTILITIES_LINUX_LOGGER_H
#define KZF_UTILITIES_LINUX_LOGGER_H

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <ctime>
#include <mutex>
#include <vector>

namespace KZF
{

class ILogOutputDevice;

// The process-wide logger. A message is formatted once, into one line that
// carries the time, level, source location, function and text, and that line
// is handed to every attached device. Safe from any thread; a device may log
// from inside its own Log.
class CLogger
{
  public:
    // Everything known about one message, for devices that want more than the
    // formatted line.
    struct SLogMessage {
        int m_level;
        const char *m_file; // as the caller gave it (__FILE__)
        int m_line;
        const char *m_function; // bare function name
        const void *m_object;   // the caller's object, or c_noneObjPtr
        struct timespec m_time; // CLOCK_REALTIME when the message was logged
        const char *m_text;     // the formatted message alone, without the prefix
    };

    // The object argument of messages that belong to no object.
    static const void *const c_noneObjPtr;

    static CLogger &GetInstance();

    // Formats and delivers one message when its level is at or below the
    // threshold and a device is attached; costs no formatting otherwise.
    void LogMessage(int level, const char *file, int line, const char *function, const void *object,
                    const char *format, ...) __attribute__((format(printf, 7, 8)));
    void LogMessageV(int level, const char *file, int line, const char *function, const void *object,
                     const char *format, va_list args) __attribute__((format(printf, 7, 0)));

    // Calls the device's Init and attaches it when Init succeeds. A device is
    // attached at most once; false when it already is, or when Init failed.
    bool AddOutputDevice(ILogOutputDevice *device);

    // Detaches the device. When this returns, no delivery to it is under way
    // (other than one this very thread is inside of) and none will start;
    // then the device's Terminate is called. False when it was not attached.
    bool RemoveOutputDevice(ILogOutputDevice *device);

    // Messages whose level is above the threshold are dropped before they are
    // formatted. The default delivers every level.
    void SetLevelThreshold(int level) { m_threshold.store(level, std::memory_order_relaxed); }
    int GetLevelThreshold() const { return m_threshold.load(std::memory_order_relaxed); }

    // True when a message of this level would reach a device.
    bool IsEnabled(int level) const
    {
        return level <= GetLevelThreshold() && m_deviceCount.load(std::memory_order_acquire) > 0;
    }

    CLogger(const CLogger &) = delete;
    CLogger &operator=(const CLogger &) = delete;

  private:
    struct SDevice;

    CLogger();
    ~CLogger();

    void Deliver(const char *line, const SLogMessage &message);
    void Release(SDevice *entry);

    std::mutex m_mutex;             // guards m_devices and every SDevice
    std::condition_variable m_idle; // signalled when a delivery ends
    std::vector<SDevice *> m_devices;
    std::atomic<int> m_deviceCount;
    std::atomic<int> m_threshold;
};

// A sink of formatted log lines.
class ILogOutputDevice
{
  public:
    ILogOutputDevice() {}
    virtual ~ILogOutputDevice() {}

    // Called when the device is attached; false refuses the attachment.
    virtual bool Init() = 0;
    // Called after the device has been detached and no delivery runs.
    virtual void Terminate() = 0;
    // One message: the formatted line (NUL-terminated, no line feed), its
    // level, and the full record.
    virtual void Log(const char *text, unsigned int level, const CLogger::SLogMessage &message) = 0;
};

// Writes each line to standard error, followed by a line feed, in one write
// so that lines of different threads never interleave. Lines above the
// device's own level are skipped.
class CStdErrLogDevice : public ILogOutputDevice
{
  public:
    explicit CStdErrLogDevice(int maxLevel = INT_MAX) : m_maxLevel(maxLevel) {}

    void SetMaxLevel(int level) { m_maxLevel.store(level, std::memory_order_relaxed); }

    bool Init() override { return true; }
    void Terminate() override {}
    void Log(const char *text, unsigned int level, const CLogger::SLogMessage &message) override;

  private:
    std::atomic<int> m_maxLevel;
};

} // namespace KZF

#endif
