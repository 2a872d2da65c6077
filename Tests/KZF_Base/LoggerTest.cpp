#include "KZF_Utilities/Linux/Logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
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

// Records every delivery; m_onLog runs inside Log (to log again, detach or block there).
class CRecordingDevice : public KZF::ILogOutputDevice
{
  public:
    bool Init() override { return ++m_inits, m_acceptInit; }
    void Terminate() override { ++m_terminates; }
    void Log(const char *text, unsigned int level, const CLogger::SLogMessage &message) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(text);
            m_levels.push_back(level);
            m_texts.push_back(message.m_text);
            m_pointers.push_back(text);
        }
        if (m_onLog)
            m_onLog(message.m_text);
    }
    size_t Count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines.size();
    }

    bool m_acceptInit = true;
    int m_inits = 0, m_terminates = 0;
    std::function<void(const std::string &)> m_onLog;
    std::mutex m_mutex;
    std::vector<std::string> m_lines, m_texts;
    std::vector<unsigned int> m_levels;
    std::vector<const void *> m_pointers;
};

// Keeps the process-wide logger as the test found it.
class LoggerTest : public ::testing::Test
{
  protected:
    void SetUp() override { m_threshold = logger().GetLevelThreshold(); }
    void TearDown() override { logger().SetLevelThreshold(m_threshold); }
    int m_threshold = 0;
};

TEST_F(LoggerTest, OneLineWithTimeLevelLocationFunctionAndTextGoesToEveryDevice)
{
    CRecordingDevice device, second;
    ASSERT_TRUE(logger().AddOutputDevice(&device));
    ASSERT_TRUE(logger().AddOutputDevice(&second));
    logger().LogMessage(8, "/src/Source/Cpp/HTTP/HTTPLayer.cpp", 104, "NewConnectionRequested",
                        CLogger::c_noneObjPtr, "HTTPLayer : create connection point (%s)->(%s)", "a", "b");
    logText(8, "CHTTPLogHandler : received interrupt!\n");
    const std::string longText(5000, 'x');
    logText(1, (longText + "\r\n").c_str());
    ASSERT_TRUE(logger().RemoveOutputDevice(&device));
    ASSERT_TRUE(logger().RemoveOutputDevice(&second));

    ASSERT_EQ(3u, device.m_lines.size());
    EXPECT_TRUE(::testing::internal::RE::FullMatch(
        device.m_lines[0],
        "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\[8\\] HTTPLayer\\.cpp:104 "
        "NewConnectionRequested: HTTPLayer : create connection point \\(a\\)->\\(b\\)"))
        << device.m_lines[0];
    EXPECT_EQ(8u, device.m_levels[0]);
    EXPECT_EQ("HTTPLayer : create connection point (a)->(b)", device.m_texts[0]);
    // Trailing line feeds are dropped, long texts kept whole.
    EXPECT_EQ("CHTTPLogHandler : received interrupt!", device.m_texts[1]);
    EXPECT_EQ(longText, device.m_texts[2]);
    EXPECT_EQ(std::string::npos, device.m_lines[2].find('\n'));
    EXPECT_EQ(longText, device.m_lines[2].substr(device.m_lines[2].size() - longText.size()));
    // Formatted once: both devices see the same buffer.
    EXPECT_EQ(device.m_pointers, second.m_pointers);
    EXPECT_EQ(device.m_lines, second.m_lines);
}

TEST_F(LoggerTest, AttachmentRulesInitTerminateAndThreshold)
{
    CRecordingDevice device, refusing;
    EXPECT_FALSE(logger().RemoveOutputDevice(&device));
    EXPECT_TRUE(logger().AddOutputDevice(&device));
    EXPECT_FALSE(logger().AddOutputDevice(&device));
    EXPECT_EQ(1, device.m_inits);
    EXPECT_TRUE(logger().IsEnabled(1000)) << "every level is delivered by default";
    logger().SetLevelThreshold(4);
    EXPECT_FALSE(logger().IsEnabled(5));
    logText(5, "dropped");
    logText(4, "kept");
    EXPECT_TRUE(logger().RemoveOutputDevice(&device));
    EXPECT_EQ(1, device.m_terminates);
    EXPECT_FALSE(logger().RemoveOutputDevice(&device));
    EXPECT_FALSE(logger().AddOutputDevice(nullptr));
    EXPECT_EQ(std::vector<std::string>{"kept"}, device.m_texts);
    refusing.m_acceptInit = false;
    EXPECT_FALSE(logger().AddOutputDevice(&refusing));
    logText(1, "x");
    EXPECT_TRUE(refusing.m_lines.empty());
}

TEST_F(LoggerTest, DeviceMayLogOrDetachFromInsideItsOwnLog)
{
    // Nested deeper than the deliveries a thread keeps track of: the thread's
    // bookkeeping must come out of it intact for the detaching device after.
    CRecordingDevice echoing, leaving;
    echoing.m_onLog = [&](const std::string &) {
        if (echoing.Count() < 10)
            logText(1, "inner");
    };
    bool removed = false;
    leaving.m_onLog = [&](const std::string &) { removed = logger().RemoveOutputDevice(&leaving); };
    ASSERT_TRUE(logger().AddOutputDevice(&echoing));
    logText(1, "outer");
    logger().RemoveOutputDevice(&echoing);
    EXPECT_EQ(10u, echoing.Count());
    EXPECT_EQ("inner", echoing.m_texts[9]);
    ASSERT_TRUE(logger().AddOutputDevice(&leaving));
    logText(1, "one");
    logText(1, "two");
    EXPECT_TRUE(removed);
    EXPECT_EQ(std::vector<std::string>{"one"}, leaving.m_texts);
    EXPECT_EQ(1, leaving.m_terminates);
}

TEST_F(LoggerTest, RemoveWaitsForADeliveryUnderWay)
{
    CRecordingDevice device;
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    device.m_onLog = [&](const std::string &) {
        entered.set_value();
        released.wait();
    };
    ASSERT_TRUE(logger().AddOutputDevice(&device));
    std::thread logging([] { logText(1, "held"); });
    entered.get_future().wait();
    std::atomic<bool> removed(false);
    std::thread removing([&] {
        logger().RemoveOutputDevice(&device);
        removed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(removed) << "RemoveOutputDevice returned while a delivery was under way";
    release.set_value();
    removing.join();
    logging.join();
}

TEST_F(LoggerTest, ConcurrentLoggingWhileDevicesComeAndGo)
{
    CRecordingDevice steady;
    ASSERT_TRUE(logger().AddOutputDevice(&steady));
    std::vector<std::thread> loggers;
    for (int t = 0; t < 4; ++t) {
        loggers.emplace_back([t] {
            for (int i = 0; i < 2000; ++i)
                logger().LogMessage(5, __FILE__, __LINE__, "worker", CLogger::c_noneObjPtr, "%d %d", t, i);
        });
    }
    for (int round = 0; round < 200; ++round) {
        CRecordingDevice transient;
        ASSERT_TRUE(logger().AddOutputDevice(&transient));
        std::this_thread::yield();
        ASSERT_TRUE(logger().RemoveOutputDevice(&transient));
        const size_t seen = transient.Count();
        std::this_thread::yield();
        EXPECT_EQ(seen, transient.Count()) << "a delivery started after the removal returned";
    }
    for (std::thread &thread : loggers)
        thread.join();
    logger().RemoveOutputDevice(&steady);
    EXPECT_EQ(8000u, steady.Count());
}

TEST_F(LoggerTest, StdErrDeviceWritesWholeLinesUpToItsLevel)
{
    KZF::CStdErrLogDevice device(4);
    ::testing::internal::CaptureStderr();
    ASSERT_TRUE(logger().AddOutputDevice(&device));
    logText(4, "shown 1");
    logText(5, "hidden");
    logger().RemoveOutputDevice(&device);
    const std::string output = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, output.find("shown 1\n"));
    EXPECT_EQ(std::string::npos, output.find("hidden"));
    EXPECT_EQ(1, std::count(output.begin(), output.end(), '\n'));
}

} // namespace
