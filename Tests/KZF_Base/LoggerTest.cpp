#include "KZF_Utilities/Linux/Logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using KZF::CLogger;

CLogger &logger()
{
    return CLogger::GetInstance();
}

void logText(int level, const char *text)
{
    logger().LogMessage(level, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "%s", text);
}

// Records every delivery, from any thread; m_onLog runs inside Log, outside the lock.
class CRecordingDevice : public KZF::ILogOutputDevice
{
  public:
    bool Init() override { return ++m_inits, m_acceptInit; }
    void Terminate() override { ++m_terminates; }
    void Log(const char *line, unsigned int, const CLogger::SLogMessage &message) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(line);
            m_texts.push_back(message.m_text);
        }
        if (m_onLog)
            m_onLog();
    }

    bool m_acceptInit = true;
    int m_inits = 0, m_terminates = 0;
    std::function<void()> m_onLog;
    std::mutex m_mutex;
    std::vector<std::string> m_lines, m_texts;
};

// Beside a recording device, the standard error device: it shows only the
// levels up to its own.
TEST(LoggerTest, OneLineWithTimeLevelLocationFunctionAndTextGoesToEveryDevice)
{
    CRecordingDevice device;
    KZF::CStdErrLogDevice stdErr(4);
    ::testing::internal::CaptureStderr();
    ASSERT_TRUE(logger().AddOutputDevice(&device) && logger().AddOutputDevice(&stdErr));
    logger().LogMessage(8, "/src/Source/Cpp/HTTP/HTTPLayer.cpp", 104, "NewConnectionRequested",
                        CLogger::c_noneObjPtr, "HTTPLayer : create connection point (%s)->(%s)", "a", "b");
    logText(8, "CHTTPLogHandler : received interrupt!\n");
    const std::string longText(5000, 'x');
    logText(1, (longText + "\r\n").c_str());
    logger().RemoveOutputDevice(&device);
    logger().RemoveOutputDevice(&stdErr);
    const std::string output = ::testing::internal::GetCapturedStderr();

    // Trailing line feeds are dropped, long texts kept whole.
    ASSERT_EQ((std::vector<std::string>{"HTTPLayer : create connection point (a)->(b)",
                                        "CHTTPLogHandler : received interrupt!", longText}),
              device.m_texts);
    EXPECT_TRUE(::testing::internal::RE::FullMatch(
        device.m_lines[0], "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\[8\\] "
                           "HTTPLayer\\.cpp:104 NewConnectionRequested: HTTPLayer : create connection "
                           "point \\(a\\)->\\(b\\)"))
        << device.m_lines[0];
    EXPECT_EQ(" f: " + longText, device.m_lines[2].substr(device.m_lines[2].size() - longText.size() - 4));
    EXPECT_EQ(device.m_lines[2] + "\n", output);
}

TEST(LoggerTest, AttachmentRulesInitTerminateAndThreshold)
{
    CRecordingDevice device, refusing;
    const int threshold = logger().GetLevelThreshold();
    EXPECT_TRUE(logger().AddOutputDevice(&device));
    EXPECT_FALSE(logger().AddOutputDevice(&device));
    logger().SetLevelThreshold(4);
    logText(5, "dropped");
    logText(4, "kept");
    logger().SetLevelThreshold(threshold);
    EXPECT_TRUE(logger().RemoveOutputDevice(&device));
    EXPECT_FALSE(logger().RemoveOutputDevice(&device));
    EXPECT_EQ(1, device.m_inits);
    EXPECT_EQ(1, device.m_terminates);
    EXPECT_FALSE(logger().AddOutputDevice(nullptr));
    EXPECT_EQ(std::vector<std::string>{"kept"}, device.m_texts);
    refusing.m_acceptInit = false;
    EXPECT_FALSE(logger().AddOutputDevice(&refusing));
}

TEST(LoggerTest, DeviceMayLogOrDetachFromInsideItsOwnLog)
{
    // Nested deeper than the deliveries a thread keeps track of: the thread's
    // bookkeeping must come out of it intact for the detaching device after.
    CRecordingDevice echoing, leaving;
    echoing.m_onLog = [&] {
        if (echoing.m_texts.size() < 10)
            logText(1, "inner");
    };
    leaving.m_onLog = [&] { logger().RemoveOutputDevice(&leaving); };
    ASSERT_TRUE(logger().AddOutputDevice(&echoing));
    logText(1, "outer");
    logger().RemoveOutputDevice(&echoing);
    EXPECT_EQ(10u, echoing.m_texts.size());
    ASSERT_TRUE(logger().AddOutputDevice(&leaving));
    logText(1, "one");
    logText(1, "two");
    EXPECT_EQ(std::vector<std::string>{"one"}, leaving.m_texts);
    EXPECT_EQ(1, leaving.m_terminates);
}

TEST(LoggerTest, RemoveWaitsForADeliveryUnderWay)
{
    CRecordingDevice device;
    std::promise<void> entered, release;
    device.m_onLog = [&] {
        entered.set_value();
        release.get_future().wait();
    };
    ASSERT_TRUE(logger().AddOutputDevice(&device));
    std::thread logging([] { logText(1, "held"); });
    entered.get_future().wait();
    std::atomic<bool> removed(false);
    std::thread removing([&] { removed = logger().RemoveOutputDevice(&device); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(removed) << "RemoveOutputDevice returned while a delivery was under way";
    release.set_value();
    removing.join();
    logging.join();
}

TEST(LoggerTest, ConcurrentLoggingWhileDevicesComeAndGo)
{
    CRecordingDevice steady;
    ASSERT_TRUE(logger().AddOutputDevice(&steady));
    std::vector<std::thread> loggers;
    for (int t = 0; t < 4; ++t) {
        loggers.emplace_back([] {
            for (int i = 0; i < 2000; ++i)
                logText(5, "worker");
        });
    }
    for (int round = 0; round < 200; ++round) {
        CRecordingDevice transient; // gone when a delivery to it could still be under way
        ASSERT_TRUE(logger().AddOutputDevice(&transient) && logger().RemoveOutputDevice(&transient));
    }
    for (std::thread &thread : loggers)
        thread.join();
    logger().RemoveOutputDevice(&steady);
    EXPECT_EQ(8000u, steady.m_texts.size());
}

} // namespace
