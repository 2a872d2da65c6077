#include "HTTP/HTTPLogHandler.h"

#include "HTTP/HTTPConnectionPoint.h"
#include "HTTP/HTTPLayer.h"
#include "HTTP/HTTPServer.h"
#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/KzfTime.h"
#include "KZF_Utilities/Linux/Logger.h"

#include "Support/CapturingLogDevice.h"
#include "Support/FakeDataLayer.h"
#include "Support/TestClient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using KZF::CLogger;
using NVQ::CHTTPLogHandler;
using NVQ::CHTTPResponse;
using NVQTest::CTestClient;
typedef KZF::CRefCountPtr<CHTTPResponse> ResponsePtr;
typedef std::vector<std::string> Lines;

// The capture clock of every test here; times are local, so that expected
// stamps read the same in every time zone.
std::atomic<time_t> s_now(0);
time_t testClock()
{
    return s_now.load();
}

time_t localTime(int year, int month, int day, int hour, int minute, int second)
{
    struct tm record = {};
    record.tm_year = year - 1900;
    record.tm_mon = month - 1;
    record.tm_mday = day;
    record.tm_hour = hour;
    record.tm_min = minute;
    record.tm_sec = second;
    record.tm_isdst = -1;
    return std::mktime(&record);
}

// A time of the test's day, 2026-11-16, and its stamp in an answer.
time_t today(int hour, int minute, int second = 0)
{
    return localTime(2026, 11, 16, hour, minute, second);
}
std::string stamp(int hour, int minute, int second = 0)
{
    char text[32];
    std::snprintf(text, sizeof(text), "2026-11-16T%02d:%02d:%02d", hour, minute, second);
    return text;
}

const char c_pageFormat[] =
    "<!DOCTYPE html><html lang=\"en\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
    "charset=UTF-8\"><meta charset=\"utf-8\"><meta name=\"viewport\" content=\"initial-scale=1, "
    "minimum-scale=1, width=device-width\"><title>Error 400 (Bad Request)!!1</title><p><b>400.</b> "
    "<ins>That&apos;s an error.</ins></p><p>%s !</p></body></html>";

std::string badRequestPage(const std::string &message)
{
    std::string page(c_pageFormat);
    return page.replace(page.find("%s"), 2, message);
}

std::string dataOf(const CHTTPResponse &response)
{
    return std::string(reinterpret_cast<const char *>(response.GetData()),
                       static_cast<size_t>(response.GetDataSize()));
}

std::map<std::string, std::string> headersOf(const CHTTPResponse &response)
{
    return std::map<std::string, std::string>(response.GetAdditionalHeaders().begin(),
                                              response.GetAdditionalHeaders().end());
}

// Restores the check mode on every way out of a test.
class CAssertModeScope
{
  public:
    explicit CAssertModeScope(int mode) : m_saved(GetKzfAssertMode()) { SetKzfAssertMode(mode); }
    ~CAssertModeScope() { SetKzfAssertMode(m_saved); }

  private:
    int m_saved;
};

// One handler attached to the logger, with the capture clock fixed at
// 2026-11-16 17:00:00 local time.
class LogHandlerTest : public ::testing::Test
{
  protected:
    LogHandlerTest() : m_fivePm(today(17, 0))
    {
        s_now = m_fivePm;
        KZF::SetTimeSource(&testClock);
    }
    ~LogHandlerTest() override { KZF::SetTimeSource(nullptr); }

    // Captures the text as if the logger delivered it at the given time.
    void Capture(const std::string &text, time_t at)
    {
        s_now = at;
        Capture(text);
        s_now = m_fivePm;
    }
    void Capture(const std::string &text)
    {
        const CLogger::SLogMessage message = {};
        m_handler.Log(text.c_str(), 8, message);
    }

    ResponsePtr First(const std::string &query, int connectionID = 1, const std::string &method = "GET")
    {
        KZF::CRefCountPtr<NVQ::CHTTPRequest> request(new NVQ::CHTTPRequest());
        request->SetMethod(method);
        request->SetUri(query.empty() ? "/proxy/log" : "/proxy/log?" + query);
        return m_handler.ProcessRequest(*request, connectionID);
    }

    // Every piece of one answer, pulled the way a connection point does.
    std::vector<ResponsePtr> Pieces(const std::string &query, int connectionID = 1)
    {
        std::vector<ResponsePtr> pieces;
        ResponsePtr piece = First(query, connectionID);
        while (!piece.IsNull()) {
            pieces.push_back(piece);
            if (piece->IsLast() || pieces.size() > 1000)
                break;
            piece = m_handler.GetAdditionalResponseData(connectionID);
        }
        return pieces;
    }

    std::string Body(const std::string &query = "", int connectionID = 1)
    {
        std::string body;
        for (const ResponsePtr &piece : Pieces(query, connectionID))
            body += dataOf(*piece);
        return body;
    }

    const time_t m_fivePm;
    CHTTPLogHandler m_handler;
};

// ---- Capture

TEST_F(LogHandlerTest, KeepsTheNewestThousandMessagesOldestFirst)
{
    for (int i = 1; i <= 1001; ++i)
        Capture("m" + std::to_string(i), today(10, 0));
    std::string expected;
    for (int i = 2; i <= 1001; ++i)
        expected += stamp(10, 0) + " - m" + std::to_string(i) + "\n";
    EXPECT_EQ(expected, Body());

    EXPECT_EQ(stamp(10, 0) + " - m1000\n" + stamp(10, 0) + " - m1001\n", Body("count=2"));
    EXPECT_EQ(stamp(10, 0) + " - m1000\n" + stamp(10, 0) + " - m1001\n", Body("index=998"));
    EXPECT_EQ("", Body("index=1000"));
}

TEST_F(LogHandlerTest, InitAndTerminateEmptyTheRing)
{
    for (bool init : {true, false}) {
        SCOPED_TRACE(init ? "Init" : "Terminate");
        Capture("a");
        Capture("b");
        if (init)
            EXPECT_TRUE(m_handler.Init());
        else
            m_handler.Terminate();
        EXPECT_EQ("", Body());
        Capture("c");
        EXPECT_EQ(stamp(17, 0) + " - c\n", Body());
        m_handler.Terminate();
    }
}

TEST_F(LogHandlerTest, KeepsTheLoggersLineOfEveryLevelWithItsArrivalTime)
{
    CLogger &logger = CLogger::GetInstance();
    for (int level : {1, 8, 1000}) {
        s_now = today(9, level % 60, 7);
        logger.LogMessage(level, "/x/Source.cpp", 42, "Caller", CLogger::c_noneObjPtr, "text %d\n", level);
    }
    std::istringstream body(Body());
    std::string line;
    for (int level : {1, 8, 1000}) {
        ASSERT_TRUE(std::getline(body, line));
        const std::string head = stamp(9, level % 60, 7) + " - ";
        const std::string tail =
            " [" + std::to_string(level) + "] Source.cpp:42 Caller: text " + std::to_string(level);
        EXPECT_EQ(head, line.substr(0, head.size())) << line;
        ASSERT_GE(line.size(), tail.size());
        EXPECT_EQ(tail, line.substr(line.size() - tail.size())) << line;
    }
    EXPECT_FALSE(std::getline(body, line));
}

TEST_F(LogHandlerTest, InterruptNoticeIsCapturedLikeAnyMessage)
{
    NVQTest::CCapturingDevice probe;
    EXPECT_TRUE(m_handler.InterruptProcessing());
    EXPECT_EQ(Lines({"8 InterruptProcessing CHTTPLogHandler : received interrupt!"}), probe.Messages());

    const std::string body = Body();
    const std::string notice = " [8] HTTPLogHandler.cpp:";
    const std::string end = " InterruptProcessing: CHTTPLogHandler : received interrupt!\n";
    EXPECT_EQ(stamp(17, 0) + " - ", body.substr(0, 22));
    EXPECT_NE(std::string::npos, body.find(notice)) << body;
    ASSERT_GE(body.size(), end.size());
    EXPECT_EQ(end, body.substr(body.size() - end.size())) << body;
    EXPECT_EQ(1, std::count(body.begin(), body.end(), '\n'));
}

TEST(LogHandlerAttachmentTest, AttachedWhileItLivesOnly)
{
    CLogger &logger = CLogger::GetInstance();
    std::optional<CHTTPLogHandler> handler;
    handler.emplace();
    KZF::ILogOutputDevice *device = &*handler;
    EXPECT_FALSE(logger.AddOutputDevice(device)) << "already attached by its constructor";
    handler.reset();
    // A device still attached would now be handed this message, and removed
    // (and terminated) below.
    logger.LogMessage(1, __FILE__, __LINE__, "f", CLogger::c_noneObjPtr, "after");
    EXPECT_FALSE(logger.RemoveOutputDevice(device));
}

// ---- Answer text and query parameters

TEST_F(LogHandlerTest, EmptyRingGivesOneEmptyCompleteAnswer)
{
    const std::vector<ResponsePtr> pieces = Pieces("");
    ASSERT_EQ(1u, pieces.size());
    const CHTTPResponse &response = *pieces[0];
    EXPECT_EQ(200, response.GetCode());
    EXPECT_EQ("OK", response.GetPhrase());
    EXPECT_TRUE(response.IsLast());
    EXPECT_FALSE(response.SendOnlyData());
    EXPECT_EQ(0, response.GetDataSize());
    EXPECT_EQ("", response.GetContentType());
    EXPECT_TRUE(response.GetAdditionalHeaders().empty());
}

TEST_F(LogHandlerTest, OneLinePerMessageWithItsTextAsStored)
{
    Capture("a", today(17, 0, 1));
    Capture("b\nsecond line\n", today(17, 0, 2));
    Capture("caf\xc3\xa9", today(17, 0, 3));
    EXPECT_EQ("2026-11-16T17:00:01 - a\n"
              "2026-11-16T17:00:02 - b\nsecond line\n\n"
              "2026-11-16T17:00:03 - caf\xc3\xa9\n",
              Body());
}

// Ten entries e0..e9 captured every five minutes from 11:50 to 12:35 of the
// test's day; the rows name the entries each query selects.
TEST_F(LogHandlerTest, QueryFormsSelectEntries)
{
    for (int i = 0; i < 10; ++i)
        Capture("e" + std::to_string(i), today(11, 50) + i * 300);
    const std::vector<int> all = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    const struct {
        const char *query;
        std::vector<int> entries;
    } rows[] = {
        {"", all},
        {"foo=bar", all},
        {"Count=2", all}, // names are case-sensitive
        {"count=2", {8, 9}},
        {"count=20", all},
        {"count=+2", {8, 9}},
        {"count=%202", {8, 9}},
        {"index=", all},
        {"index=0", all},
        {"index=9", {9}},
        {"index=10", {}},
        {"index=2&count=3", {2, 3, 4}},
        {"index=1&count=2", {1, 2}},
        {"from=12:00:00", {2, 3, 4, 5, 6, 7, 8, 9}},
        {"from=11:60:00", {2, 3, 4, 5, 6, 7, 8, 9}},
        {"from=12:36:00", {}},
        {"to=12:10:00", {0, 1, 2, 3, 4}},
        {"to=12:09:59", {0, 1, 2, 3}},
        {"from=2026-11-16T12:00:00&to=2026-11-16T12:30:00", {2, 3, 4, 5, 6, 7, 8}},
        {"from=2026-11-15T23:00:00", all},
        {"from=2026-11-17T00:00:00", {}},
        {"to=2026-11-15T12:10:00", {}},
        {"to=2026-11-17T00:00:00", all},
        {"from=12:05:00&count=2", {3, 4}},
        {"to=12:30:00&count=2", {0, 1}},
        {"index=3&from=12:00:00&count=2", {5, 6}},
        {"index=1&from=12:00:00&to=12:20:00", {3, 4, 5, 6}},
    };
    for (const auto &row : rows) {
        std::string expected;
        for (int i : row.entries) {
            const int minutes = 50 + 5 * i;
            expected += stamp(11 + minutes / 60, minutes % 60) + " - e" + std::to_string(i) + "\n";
        }
        EXPECT_EQ(expected, Body(row.query)) << row.query;
    }
}

TEST_F(LogHandlerTest, ToEndsTheScanWhileFromOnlySkips)
{
    // A thread that waited for the lock can leave an earlier time behind a
    // later one; the scan does not look past the first entry after "to".
    Capture("early", today(12, 0));
    Capture("late", today(12, 40));
    Capture("inverted", today(12, 10));
    EXPECT_EQ(stamp(12, 0) + " - early\n", Body("to=12:30:00"));
    EXPECT_EQ(stamp(12, 40) + " - late\n" + stamp(12, 10) + " - inverted\n", Body("from=12:05:00"));
}

TEST_F(LogHandlerTest, InvalidValuesGetTheHandlersOwnBadRequestPage)
{
    ASSERT_EQ(329u, sizeof(c_pageFormat)) << "the test's copy of the page";
    Capture("kept");
    const struct {
        const char *query;
        const char *message;
    } rows[] = {
        {"from=12:00", "Invalid 'from' time specified: 12:00"},
        {"from=2026-11-16%2012:00:00", "Invalid 'from' time specified: 2026-11-16 12:00:00"},
        {"from=ab:cd:ef", "Invalid 'from' time specified: ab:cd:ef"},
        {"from=", "Invalid 'from' time specified: "},
        {"from=2026-11-16Tab:00:00", "Invalid 'from' time specified: 2026-11-16Tab:00:00"},
        {"to=12:00:00:00", "Invalid 'to' time specified: 12:00:00:00"},
        {"to=2026-11-16X12:00:00", "Invalid 'to' time specified: 2026-11-16X12:00:00"},
        {"index=-1", "Invalid 'index' specified: -1"},
        {"index=3x", "Invalid 'index' specified: 3x"},
        {"index=abc", "Invalid 'index' specified: abc"},
        {"count=0", "Invalid 'count' specified: 0"},
        {"count=", "Invalid 'count' specified: "},
        {"count=abc", "Invalid 'count' specified: abc"},
        {"count=-2", "Invalid 'count' specified: -2"},
        {"count=2.5", "Invalid 'count' specified: 2.5"},
        {"count=%C3%A9", "Invalid 'count' specified: ??"},
        {"count=%3Cb%3E", "Invalid 'count' specified: <b>"},
        // The first invalid value in key order (count, from, index, to) wins.
        {"from=xx&count=abc", "Invalid 'count' specified: abc"},
        {"to=yy&from=xx", "Invalid 'from' time specified: xx"},
        {"to=yy&index=-1", "Invalid 'index' specified: -1"},
        {"index=1&to=yy&count=1", "Invalid 'to' time specified: yy"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.query);
        const std::vector<ResponsePtr> pieces = Pieces(row.query, 5);
        ASSERT_EQ(1u, pieces.size());
        const CHTTPResponse &response = *pieces[0];
        EXPECT_EQ(400, response.GetCode());
        EXPECT_EQ("Bad Request", response.GetPhrase());
        EXPECT_TRUE(response.IsLast());
        EXPECT_FALSE(response.SendOnlyData());
        EXPECT_EQ("", response.GetContentType());
        EXPECT_EQ((std::map<std::string, std::string>{{"Keep-Alive", "timeout=5, max=100"}}),
                  headersOf(response));
        EXPECT_EQ(badRequestPage(row.message), dataOf(response));
    }
    EXPECT_EQ(stamp(17, 0) + " - kept\n", Body()) << "a rejected query changes nothing";
}

TEST_F(LogHandlerTest, BadRequestPageIsCutAt2047Bytes)
{
    const std::string value(3000, 'x');
    const ResponsePtr response = First("count=" + value);
    ASSERT_FALSE(response.IsNull());
    EXPECT_EQ(badRequestPage("Invalid 'count' specified: " + value).substr(0, 2047), dataOf(*response));
}

TEST_F(LogHandlerTest, EscapingShowsMarkupAsText)
{
    m_handler.SetEscapeMarkup(true);
    const struct {
        const char *query;
        const char *shown;
    } rows[] = {
        {"from=%26", "&amp;"},
        {"from=%3C", "&lt;"},
        {"from=%3E", "&gt;"},
        {"from=%22", "&quot;"},
        {"from=%27", "&#39;"},
        {"from=plain", "plain"},
        {"from=%3Cscript%3Ealert(1)%3C%2Fscript%3E", "&lt;script&gt;alert(1)&lt;/script&gt;"},
    };
    for (const auto &row : rows) {
        const ResponsePtr response = First(row.query);
        ASSERT_FALSE(response.IsNull());
        EXPECT_EQ(badRequestPage(std::string("Invalid 'from' time specified: ") + row.shown),
                  dataOf(*response))
            << row.query;
        EXPECT_EQ("text/html; charset=utf-8", response->GetContentType());
    }
    // The cut comes after the escaping.
    const std::string value(1000, '<');
    std::string shown;
    for (size_t i = 0; i < value.size(); ++i)
        shown += "&lt;";
    EXPECT_EQ(badRequestPage("Invalid 'count' specified: " + shown).substr(0, 2047),
              dataOf(*First("count=" + std::string(1000, '<'))));
}

TEST_F(LogHandlerTest, OnlyGetIsAnswered)
{
    Capture("a");
    for (const char *method : {"POST", "HEAD", "get", "PUT"})
        EXPECT_TRUE(First("", 1, method).IsNull()) << method;
}

TEST_F(LogHandlerTest, TakesUrisThatBeginWithTheEndpoint)
{
    const struct {
        const char *uri;
        bool taken;
    } rows[] = {
        {"/proxy/log", true},
        {"/proxy/log?count=5", true},
        {"/proxy/logs", true},
        {"/proxy/log/x", true},
        {"/a/proxy/log", false},
        {"/proxy/lo", false},
        {"/PROXY/LOG", false},
        {"", false},
        {"/", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.taken, m_handler.CanProcessUri(row.uri)) << row.uri;
}

// ---- Pieces

// One entry whose line is exactly `size` bytes long.
std::string textForLineOf(size_t size)
{
    return std::string(size - (19 + 3 + 1), 'x');
}

TEST_F(LogHandlerTest, AnswersGoOutInPiecesOf8194Bytes)
{
    const struct {
        size_t size;
        std::vector<long> pieces;
    } rows[] = {
        {100, {100}}, {8194, {8194}}, {8195, {8194, 1}}, {16388, {8194, 8194}}, {20000, {8194, 8194, 3612}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.size);
        m_handler.Init();
        Capture(textForLineOf(row.size));
        const std::string expected = stamp(17, 0) + " - " + textForLineOf(row.size) + "\n";
        const std::vector<ResponsePtr> pieces = Pieces("", 3);
        ASSERT_EQ(row.pieces.size(), pieces.size());
        std::string body;
        for (size_t i = 0; i < pieces.size(); ++i) {
            const CHTTPResponse &piece = *pieces[i];
            EXPECT_EQ(row.pieces[i], piece.GetDataSize()) << i;
            EXPECT_EQ(200, piece.GetCode());
            EXPECT_EQ("OK", piece.GetPhrase());
            EXPECT_EQ(i > 0, piece.SendOnlyData()) << i;
            EXPECT_EQ(i + 1 == pieces.size(), piece.IsLast()) << i;
            std::map<std::string, std::string> headers;
            if (i == 0 && row.size > 8194)
                headers["Content-Length"] = std::to_string(row.size);
            EXPECT_EQ(headers, headersOf(piece)) << i;
            body += dataOf(piece);
        }
        EXPECT_EQ(expected, body);
    }
}

TEST_F(LogHandlerTest, NoAnswerIsPendingAfterItsLastPiece)
{
    Capture(textForLineOf(8195));
    ASSERT_EQ(2u, Pieces("", 4).size());
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(m_handler.GetAdditionalResponseData(4), "it != m_connDataMap.end\\(\\)");
    ::testing::FLAGS_gtest_death_test_style = "fast";
    CAssertModeScope checksOff(1);
    EXPECT_TRUE(m_handler.GetAdditionalResponseData(4).IsNull());
}

TEST_F(LogHandlerTest, AnswerIsASnapshotOfTheRing)
{
    Capture(textForLineOf(10000));
    Capture(textForLineOf(10000));
    const std::string expected = Body();
    ASSERT_EQ(20000u, expected.size());

    const ResponsePtr first = First("", 2);
    ASSERT_FALSE(first.IsNull());
    for (int i = 0; i < 1000; ++i)
        Capture("newer " + std::to_string(i));
    m_handler.Init();
    std::string body = dataOf(*first);
    for (ResponsePtr piece = m_handler.GetAdditionalResponseData(2); !piece.IsNull();
         piece = m_handler.GetAdditionalResponseData(2)) {
        body += dataOf(*piece);
        if (piece->IsLast())
            break;
    }
    EXPECT_EQ(expected, body);
}

TEST_F(LogHandlerTest, NewRequestOnAConnectionReplacesItsPendingAnswer)
{
    Capture(textForLineOf(20000), today(8, 0));
    Capture("short", today(9, 0));
    ASSERT_FALSE(First("", 6).IsNull());
    // The old answer is still pending; the new one is answered from scratch.
    const ResponsePtr second = First("from=09:00:00", 6);
    ASSERT_FALSE(second.IsNull());
    EXPECT_EQ(stamp(9, 0) + " - short\n", dataOf(*second));
    EXPECT_TRUE(second->IsLast());
}

TEST_F(LogHandlerTest, InterruptLeavesEveryAnswerInFlight)
{
    // It does not say which connection closed: the exchange end notice does.
    Capture(textForLineOf(30000));
    const std::string full = Body("", 9);
    ASSERT_FALSE(First("", 1).IsNull());
    ASSERT_FALSE(First("", 2).IsNull());
    EXPECT_TRUE(m_handler.InterruptProcessing());
    const ResponsePtr next = m_handler.GetAdditionalResponseData(1);
    ASSERT_FALSE(next.IsNull());
    EXPECT_EQ(full.substr(8194, 8194), dataOf(*next));
    m_handler.OnExchangeEnded(1);
    EXPECT_FALSE(m_handler.GetAdditionalResponseData(2).IsNull());
}

TEST_F(LogHandlerTest, EndedExchangeReleasesItsPendingAnswer)
{
    Capture(textForLineOf(20000));
    ASSERT_FALSE(First("", 1).IsNull());
    ASSERT_FALSE(First("", 2).IsNull());
    m_handler.OnExchangeEnded(1);
    m_handler.OnExchangeEnded(3); // none pending: nothing happens
    CAssertModeScope checksOff(1);
    EXPECT_TRUE(m_handler.GetAdditionalResponseData(1).IsNull());
    EXPECT_FALSE(m_handler.GetAdditionalResponseData(2).IsNull()) << "other connections keep theirs";
}

// The connection point tells the handler when an exchange it cut short ends.
TEST_F(LogHandlerTest, ClientLeavingMidAnswerReleasesItThroughTheConnectionPoint)
{
    Capture(textForLineOf(30000));
    NVQ::CHTTPLayer layer;
    layer.RegisterHandler(m_handler, false);
    KZF::CRefCountPtr<NVQTest::CFakeDataLayer> data(new NVQTest::CFakeDataLayer());
    KZF::CRefCountPtr<NVQ::CHTTPConnectionPoint> point(
        new NVQ::CHTTPConnectionPoint(*data.GetPtr(), layer, 7));
    bool closed = false;
    data->m_onSend = [&closed](NVQTest::CFakeDataLayer &connection) {
        if (!closed && connection.WrittenBytes().size() > 8194) {
            closed = true;
            connection.DeliverClose();
        }
    };
    data->Arrive("GET /proxy/log HTTP/1.1\r\nHost: a\r\n\r\n");
    data->DeliverData();
    ASSERT_TRUE(closed);

    ASSERT_FALSE(First("index=5", 8).IsNull()); // clears the interrupt
    CAssertModeScope checksOff(1);
    EXPECT_TRUE(m_handler.GetAdditionalResponseData(7).IsNull());
    layer.UnregisterHandler(m_handler);
}

// ---- Over a real connection

std::string get(const std::string &uri)
{
    return "GET " + uri + " HTTP/1.1\r\nHost: test\r\n\r\n";
}

class LogHandlerServerTest : public LogHandlerTest
{
  protected:
    void Start()
    {
        m_server.RegisterHandler(m_handler, false);
        NVQ::SHTTPServerOptions options;
        options.m_port = 0;
        ASSERT_TRUE(m_server.StartServer(options));
        m_port = m_server.GetPort();
    }
    void TearDown() override
    {
        m_server.StopServer();
        m_server.UnregisterHandler(m_handler);
    }

    NVQ::CHTTPServer m_server;
    int m_port = 0;
};

TEST_F(LogHandlerServerTest, AnswersOnTheWire)
{
    Capture("first", today(8, 0));
    Capture(textForLineOf(10000), today(8, 1));
    Capture(textForLineOf(10000), today(8, 2));
    Start(); // the server's own notices land after these entries
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_port));

    ASSERT_TRUE(client.Send(get("/proxy/log?index=0&count=1")));
    const std::string line = stamp(8, 0) + " - first\n";
    const std::string small =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(line.size()) + " \r\n\r\n" + line;
    EXPECT_EQ(small, client.Receive(small.size()));

    ASSERT_TRUE(client.Send(get("/proxy/log?count=x")));
    const std::string page = badRequestPage("Invalid 'count' specified: x");
    const std::string bad = "HTTP/1.1 400 Bad Request\r\nContent-Length: " + std::to_string(page.size()) +
                            " \r\nKeep-Alive: timeout=5, max=100\r\n\r\n" + page;
    EXPECT_EQ(bad, client.Receive(bad.size()));

    const std::string notFound = "HTTP/1.1 404 Not found\r\nContent-Length: 406 \r\n";
    for (const char *request : {"POST /proxy/log HTTP/1.1\r\nHost: test\r\nContent-Length: 0\r\n\r\n",
                                "HEAD /proxy/log HTTP/1.1\r\nHost: test\r\n\r\n"}) {
        ASSERT_TRUE(client.Send(request));
        const std::string head = client.Receive(notFound.size());
        EXPECT_EQ(notFound, head) << request;
        client.Receive(std::string("Keep-Alive: timeout=5, max=100\r\n\r\n").size() + 406);
    }

    ASSERT_TRUE(client.Send(get("/proxy/log?from=08:01:00&to=08:02:00")));
    const std::string body =
        stamp(8, 1) + " - " + textForLineOf(10000) + "\n" + stamp(8, 2) + " - " + textForLineOf(10000) + "\n";
    EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 20000\r\n\r\n" + body, client.ReceiveUntilClosed());
    EXPECT_TRUE(client.IsClosed()) << "a streamed answer ends with the connection";
}

TEST_F(LogHandlerServerTest, ClientsLeavingNeverCutAnotherAnswer)
{
    // A full ring; one client reads its long answer in small pieces while
    // others ask for theirs and leave mid-answer.
    // (The server's own notices fill the last places.)
    for (int i = 0; i < 990; ++i)
        Capture(textForLineOf(200 + i % 7), today(8, 0) + i);
    const std::string body = Body("to=08:59:59", 99);
    Start();
    CTestClient slow;
    ASSERT_TRUE(slow.Connect(m_port));
    slow.SetReceiveBuffer(16384);
    ASSERT_TRUE(slow.Send(get("/proxy/log?to=08:59:59")));
    std::string received = slow.Receive(500);
    for (int i = 0; i < 20; ++i) {
        CTestClient leaving;
        ASSERT_TRUE(leaving.Connect(m_port));
        leaving.SetReceiveBuffer(4096);
        ASSERT_TRUE(leaving.Send(get("/proxy/log")));
        ASSERT_EQ(9000u, leaving.Receive(9000).size());
        leaving.Abort();
        received += slow.Receive(500);
    }
    received += slow.ReceiveUntilClosed(20000);
    EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body,
              received);
}

// Loggers on several threads while clients fetch the log: every answer is
// made of whole lines, and each thread's messages appear in the order it
// logged them. Meant for TSan as much as for the assertions.
TEST_F(LogHandlerServerTest, ConcurrentLoggingWhileAnswersAreServed)
{
    Start();
    const int loggers = 4;
    const int messages = 3000;
    std::atomic<bool> stop(false);
    std::vector<std::thread> threads;
    for (int t = 0; t < loggers; ++t) {
        threads.emplace_back([t, &stop] {
            for (int i = 0; i < messages && !stop; ++i)
                CLogger::GetInstance().LogMessage(8, __FILE__, __LINE__, "logger", CLogger::c_noneObjPtr,
                                                  "t%d n%d", t, i);
        });
    }
    std::atomic<int> badAnswers(0);
    std::atomic<int> checkedLines(0);
    std::vector<std::thread> clients;
    for (int c = 0; c < 3; ++c) {
        clients.emplace_back([this, &badAnswers, &checkedLines] {
            for (int r = 0; r < 15; ++r) {
                CTestClient client;
                if (!client.Connect(m_port) || !client.Send(get("/proxy/log"))) {
                    ++badAnswers;
                    return;
                }
                const std::string answer = client.ReceiveUntilClosed(10000);
                const size_t start = answer.find("\r\n\r\n");
                if (start == std::string::npos) {
                    ++badAnswers;
                    continue;
                }
                std::istringstream body(answer.substr(start + 4));
                std::string line;
                std::map<int, int> lastSeen;
                int lines = 0;
                while (std::getline(body, line)) {
                    ++lines;
                    if (line.compare(0, 22, stamp(17, 0) + " - ") != 0) {
                        ++badAnswers;
                        break;
                    }
                    int thread = -1;
                    int number = -1;
                    const size_t at = line.rfind("logger: t");
                    if (at != std::string::npos &&
                        std::sscanf(line.c_str() + at, "logger: t%d n%d", &thread, &number) == 2) {
                        auto seen = lastSeen.find(thread);
                        if (seen != lastSeen.end() && seen->second >= number)
                            ++badAnswers;
                        lastSeen[thread] = number;
                        ++checkedLines;
                    }
                }
                if (lines > 1000 || answer.back() != '\n')
                    ++badAnswers;
            }
        });
    }
    for (std::thread &client : clients)
        client.join();
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(0, badAnswers.load());
    EXPECT_GT(checkedLines.load(), 0);
}

// Direct calls from many threads at once, interrupts and clears included:
// nothing to assert beyond a clean run under the sanitizers.
TEST_F(LogHandlerTest, CaptureQueriesInterruptsAndEndsRaceCleanly)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 3000; ++i)
                Capture("t" + std::to_string(t) + " " + std::string(static_cast<size_t>(i % 100), 'x'));
        });
    }
    for (int c = 0; c < 3; ++c) {
        threads.emplace_back([this, c] {
            for (int r = 0; r < 30; ++r) {
                const int id = 100 * (c + 1) + r;
                for (ResponsePtr piece = First(r % 2 ? "" : "count=500", id);
                     !piece.IsNull() && !piece->IsLast(); piece = m_handler.GetAdditionalResponseData(id)) {
                }
                m_handler.OnExchangeEnded(id);
            }
        });
    }
    threads.emplace_back([this] {
        for (int i = 0; i < 50; ++i) {
            m_handler.InterruptProcessing();
            if (i % 10 == 0)
                m_handler.Init();
            std::this_thread::yield();
        }
    });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
