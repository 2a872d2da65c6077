#include "KZF_Utilities/Linux/Logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using KZF::CLogger;

class CRecordingDevice : public KZF::ILogOutputDevice
{
  public:
    bool Init() override
    {
        ++m_inits;
        return m_acceptInit;
    }
    void Terminate() override { ++m_terminates; }
    void Log(const char *text, unsigned int level, const CLogger::SLogMessage &message) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(text);
        m_levels.push_back(level);
        m_texts.push_back(message.m_text);
        m_pointers.push_back(text);
    }
    std::vector<std::string> Lines()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    bool m_acceptInit = true;
    int m_inits = 0;
    int m_terminates = 0;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
    std::vector<unsigned int> m_levels;
    std::vector<std::string> m_texts;
    std::vector<const void *> m_pointers;
};

// Keeps the process-wide logger as the test found it.
class LoggerTest : public ::testing::Test
{
  protected:
    void SetUp() override { m_threshold = CLogger::GetInstance().GetLevelThreshold(); }
    void TearDown() override { CLogger::GetInstance().SetLevelThreshold(m_threshold); }
    int m_threshold = 0;
};

TEST_F(LoggerTest, LineCarriesTimeLevelLocationFunctionAndText)
{
    CRecordingDevice device;
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&device));
    CLogger::GetInstance().LogMessage(8, "/src/Source/Cpp/HTTP/HTTPLayer.cpp", 104, "NewConnectionRequested",
                                      CLogger::c_noneObjPtr, "HTTPLayer : create connection point (%s)->(%s)",
                                      "a", "b");
    ASSERT_TRUE(CLogger::GetInstance().RemoveOutputDevice(&device));

    ASSERT_EQ(1u, device.m_lines.size());
    EXPECT_TRUE(::testing::internal::RE::FullMatch(
        device.m_lines[0],
        "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\[8\\] HTTPLayer\\.cpp:104 "
        "NewConnectionRequested: HTTPLayer : create connection point \\(a\\)->\\(b\\)"))
        << device.m_lines[0];
    EXPECT_EQ(8u, device.m_levels[0]);
    EXPECT_EQ("HTTPLayer : create connection point (a)->(b)", device.m_texts[0]);
}

TEST_F(LoggerTest, TrailingLineFeedsAreDroppedAndLongTextsKeptWhole)
{
    CRecordingDevice device;
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&device));
    CLogger::GetInstance().LogMessage(8, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr,
                                      "CHTTPLogHandler : received interrupt!\n");
    const std::string longText(5000, 'x');
    CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "%s\r\n",
                                      longText.c_str());
    CLogger::GetInstance().RemoveOutputDevice(&device);

    ASSERT_EQ(2u, device.m_texts.size());
    EXPECT_EQ("CHTTPLogHandler : received interrupt!", device.m_texts[0]);
    EXPECT_EQ(longText, device.m_texts[1]);
    EXPECT_EQ(std::string::npos, device.m_lines[1].find('\n'));
    EXPECT_EQ(longText, device.m_lines[1].substr(device.m_lines[1].size() - longText.size()));
}

TEST_F(LoggerTest, OneFormattedLineIsHandedToEveryDevice)
{
    CRecordingDevice first;
    CRecordingDevice second;
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&first));
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&second));
    CLogger::GetInstance().LogMessage(3, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "n=%d", 5);
    CLogger::GetInstance().RemoveOutputDevice(&first);
    CLogger::GetInstance().RemoveOutputDevice(&second);
    ASSERT_EQ(1u, first.m_pointers.size());
    ASSERT_EQ(1u, second.m_pointers.size());
    EXPECT_EQ(first.m_pointers[0], second.m_pointers[0]);
    EXPECT_EQ(first.m_lines[0], second.m_lines[0]);
}

TEST_F(LoggerTest, ThresholdDropsHigherLevels)
{
    CRecordingDevice device;
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&device));
    EXPECT_TRUE(CLogger::GetInstance().IsEnabled(1000)) << "every level is delivered by default";
    CLogger::GetInstance().SetLevelThreshold(4);
    CLogger::GetInstance().LogMessage(8, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "dropped");
    CLogger::GetInstance().LogMessage(4, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "kept");
    CLogger::GetInstance().RemoveOutputDevice(&device);
    ASSERT_EQ(1u, device.m_texts.size());
    EXPECT_EQ("kept", device.m_texts[0]);
}

TEST_F(LoggerTest, AttachmentRulesAndInitTerminateCalls)
{
    CRecordingDevice device;
    EXPECT_FALSE(CLogger::GetInstance().RemoveOutputDevice(&device));
    EXPECT_TRUE(CLogger::GetInstance().AddOutputDevice(&device));
    EXPECT_FALSE(CLogger::GetInstance().AddOutputDevice(&device));
    EXPECT_EQ(1, device.m_inits);
    EXPECT_TRUE(CLogger::GetInstance().RemoveOutputDevice(&device));
    EXPECT_EQ(1, device.m_terminates);
    EXPECT_FALSE(CLogger::GetInstance().RemoveOutputDevice(&device));
    EXPECT_FALSE(CLogger::GetInstance().AddOutputDevice(nullptr));

    CRecordingDevice refusing;
    refusing.m_acceptInit = false;
    EXPECT_FALSE(CLogger::GetInstance().AddOutputDevice(&refusing));
    CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "x");
    EXPECT_TRUE(refusing.m_lines.empty());
}

// A device that logs from inside its own Log, like the log handler's notices.
class CEchoingDevice : public CRecordingDevice
{
  public:
    void Log(const char *text, unsigned int level, const CLogger::SLogMessage &message) override
    {
        CRecordingDevice::Log(text, level, message);
        if (std::strcmp(message.m_text, "outer") == 0)
            CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "Log", CLogger::c_noneObjPtr, "inner");
    }
};

TEST_F(LoggerTest, DeviceMayLogFromInsideItsOwnLog)
{
    CEchoingDevice device;
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&device));
    CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "outer");
    CLogger::GetInstance().RemoveOutputDevice(&device);
    ASSERT_EQ(2u, device.m_texts.size());
    EXPECT_EQ("outer", device.m_texts[0]);
    EXPECT_EQ("inner", device.m_texts[1]);
}

// A device that detaches itself while a delivery to it runs on its own thread.
class CSelfRemovingDevice : public CRecordingDevice
{
  public:
    void Log(const char *text, unsigned int level, const CLogger::SLogMessage &message) override
    {
        CRecordingDevice::Log(text, level, message);
        m_removed = CLogger::GetInstance().RemoveOutputDevice(this);
    }
    bool m_removed = false;
};

TEST_F(LoggerTest, DeviceMayDetachItselfFromInsideLog)
{
    CSelfRemovingDevice device;
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&device));
    CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "one");
    CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "two");
    EXPECT_TRUE(device.m_removed);
    EXPECT_EQ(1u, device.m_texts.size());
    EXPECT_EQ(1, device.m_terminates);
}

// Blocks inside Log until released, to hold a delivery open.
class CBlockingDevice : public KZF::ILogOutputDevice
{
  public:
    bool Init() override { return true; }
    void Terminate() override {}
    void Log(const char *, unsigned int, const CLogger::SLogMessage &) override
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_inside = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_release; });
        m_inside = false;
    }
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_inside = false;
    bool m_release = false;
};

TEST_F(LoggerTest, RemoveWaitsForADeliveryUnderWay)
{
    CBlockingDevice device;
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&device));
    std::thread logging(
        [] { CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "held"); });
    {
        std::unique_lock<std::mutex> lock(device.m_mutex);
        device.m_changed.wait(lock, [&] { return device.m_inside; });
    }
    std::atomic<bool> removed(false);
    std::thread removing([&] {
        CLogger::GetInstance().RemoveOutputDevice(&device);
        removed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(removed) << "RemoveOutputDevice returned while a delivery was under way";
    {
        std::lock_guard<std::mutex> lock(device.m_mutex);
        device.m_release = true;
    }
    device.m_changed.notify_all();
    removing.join();
    logging.join();
    EXPECT_TRUE(removed);
    EXPECT_FALSE(device.m_inside);
}

// Counts deliveries and flags any that starts after its removal returned.
class CCountingDevice : public KZF::ILogOutputDevice
{
  public:
    bool Init() override { return true; }
    void Terminate() override {}
    void Log(const char *, unsigned int, const CLogger::SLogMessage &) override
    {
        if (m_detached.load())
            m_lateDeliveries.fetch_add(1);
        m_deliveries.fetch_add(1);
    }
    std::atomic<bool> m_detached{false};
    std::atomic<int> m_deliveries{0};
    std::atomic<int> m_lateDeliveries{0};
};

TEST_F(LoggerTest, ConcurrentLoggingWhileDevicesComeAndGo)
{
    CCountingDevice steady;
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&steady));
    std::atomic<bool> stop(false);
    std::vector<std::thread> loggers;
    const int perThread = 2000;
    for (int t = 0; t < 4; ++t) {
        loggers.emplace_back([t] {
            for (int i = 0; i < perThread; ++i)
                CLogger::GetInstance().LogMessage(5, __FILE__, __LINE__, "worker", CLogger::c_noneObjPtr,
                                                  "thread %d message %d", t, i);
        });
    }
    int rounds = 0;
    while (rounds < 200) {
        CCountingDevice transient;
        ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&transient));
        std::this_thread::yield();
        ASSERT_TRUE(CLogger::GetInstance().RemoveOutputDevice(&transient));
        transient.m_detached = true;
        std::this_thread::yield();
        EXPECT_EQ(0, transient.m_lateDeliveries.load());
        ++rounds;
    }
    for (std::thread &thread : loggers)
        thread.join();
    CLogger::GetInstance().RemoveOutputDevice(&steady);
    EXPECT_EQ(4 * perThread, steady.m_deliveries.load());
}

TEST_F(LoggerTest, StdErrDeviceWritesWholeLinesUpToItsLevel)
{
    int pipeEnds[2];
    ASSERT_EQ(0, pipe(pipeEnds));
    const int savedStderr = dup(STDERR_FILENO);
    dup2(pipeEnds[1], STDERR_FILENO);

    KZF::CStdErrLogDevice device(4);
    ASSERT_TRUE(CLogger::GetInstance().AddOutputDevice(&device));
    CLogger::GetInstance().LogMessage(4, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "shown %d", 1);
    CLogger::GetInstance().LogMessage(8, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "hidden");
    CLogger::GetInstance().RemoveOutputDevice(&device);

    dup2(savedStderr, STDERR_FILENO);
    close(savedStderr);
    close(pipeEnds[1]);
    std::string output;
    char buffer[512];
    ssize_t n;
    while ((n = read(pipeEnds[0], buffer, sizeof(buffer))) > 0)
        output.append(buffer, static_cast<size_t>(n));
    close(pipeEnds[0]);

    EXPECT_NE(std::string::npos, output.find("shown 1\n"));
    EXPECT_EQ(std::string::npos, output.find("hidden"));
    EXPECT_EQ(1, std::count(output.begin(), output.end(), '\n'));
}

} // namespace
