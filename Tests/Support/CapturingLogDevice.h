#ifndef TESTS_SUPPORT_CAPTURINGLOGDEVICE_H
#define TESTS_SUPPORT_CAPTURINGLOGDEVICE_H

// Attached to the logger for its lifetime; keeps "<level> <function> <text>"
// of every message.

#include "KZF_Utilities/Linux/Logger.h"

#include <mutex>
#include <string>
#include <vector>

namespace NVQTest
{

class CCapturingDevice : public KZF::ILogOutputDevice
{
  public:
    CCapturingDevice() { KZF::CLogger::GetInstance().AddOutputDevice(this); }
    ~CCapturingDevice() override { KZF::CLogger::GetInstance().RemoveOutputDevice(this); }
    bool Init() override { return true; }
    void Terminate() override {}
    void Log(const char *, unsigned int level, const KZF::CLogger::SLogMessage &message) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(std::to_string(level) + " " + message.m_function + " " + message.m_text);
    }
    std::vector<std::string> Messages()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

    std::mutex m_mutex;
    std::vector<std::string> m_messages;
};

} // namespace NVQTest

#endif
