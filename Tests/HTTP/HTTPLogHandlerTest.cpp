#include "HTTP/HTTPLogHandler.h"
#include "HTTP/HTTPLiveLogHandler.h"

#include "HTTP/HTTPServer.h"
#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/KzfTime.h"
#include "KZF_Utilities/Linux/Logger.h"

#include "Support/FakeDataLayer.h"
#include "Support/TestClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using KZF::CLogger;
using NVQ::CHTTPLogHandler;
using NVQ::CHTTPResponse;
using NVQTest::CTestClient;
typedef KZF::CRefCountPtr<CHTTPResponse> ResponsePtr;

// The capture clock of every test here; times are local, so that expected
// stamps read the same in every time zone.
std::atomic<time_t> s_now(0);
time_t testClock()
{
    return s_now.load();
}

// A time of the test's day, 2026-11-16, and its stamp in an answer.
time_t today(int hour, int minute, int second = 0)
{
    struct tm record = {};
    record.tm_year = 2026 - 1900, record.tm_mon = 10, record.tm_mday = 16, record.tm_isdst = -1;
    record.tm_hour = hour, record.tm_min = minute, record.tm_sec = second;
    return std::mktime(&record);
}
std::string stamp(int hour, int minute, int second = 0)
{
    char text[32];
    std::snprintf(text, sizeof(text), "2026-11-16T%02d:%02d:%02d - ", hour, minute, second);
    return text;
}

const char c_pageFormat[] =
    "<!DOCTYPE html><html lang=\"en\"><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
    "charset=UTF-8\"><meta charset=\"utf-8\"><meta name=\"viewport\" content=\"initial-scale=1, "
    "minimum-scale=1, width=device-width\"><title>Error 400 (Bad Request)!!1</title><p><b>400.</b> "
    "<ins>That&apos;s an error.</ins></p><p>%s !</p></body></html>";

// The page as sent: cut to 2047 bytes.
std::string badRequestPage(const std::string &message)
{
    std::string page(c_pageFormat);
    return page.replace(page.find("%s"), 2, message).substr(0, 2047);
}

std::string dataOf(const CHTTPResponse &response)
{
    return std::string(reinterpret_cast<const char *>(response.GetData()),
                       static_cast<size_t>(response.GetDataSize()));
}

// One entry whose line is exactly `size` bytes long.
std::string textForLineOf(size_t size)
{
    return std::string(size - (19 + 3 + 1), 'x');
}

// One handler attached to the logger, with the capture clock fixed at
// 2026-11-16 17:00:00 local time.
class LogHandlerTest : public ::testing::Test
{
  protected:
    LogHandlerTest()
    {
        s_now = today(17, 0);
        KZF::SetTimeSource(&testClock);
    }
    ~LogHandlerTest() override { KZF::SetTimeSource(nullptr); }

    // Captures the text as if the logger delivered it at the given time.
    void Capture(const std::string &text, time_t at = today(17, 0))
    {
        const time_t saved = s_now.exchange(at);
        m_handler.Log(text.c_str(), 8, CLogger::SLogMessage{});
        s_now = saved;
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
        for (ResponsePtr piece = First(query, connectionID); !piece.IsNull() && pieces.size() < 1000;
             piece = m_handler.GetAdditionalResponseData(connectionID)) {
            pieces.push_back(piece);
            if (piece->IsLast())
                break;
        }
        return pieces;
    }

    std::string Next(int connectionID)
    {
        const ResponsePtr piece = m_handler.GetAdditionalResponseData(connectionID);
        return piece.IsNull() ? "<none>" : dataOf(*piece);
    }

    std::string Body(const std::string &query = "", int connectionID = 1)
    {
        std::string body;
        for (const ResponsePtr &piece : Pieces(query, connectionID))
            body += dataOf(*piece);
        return body;
    }

    CHTTPLogHandler m_handler;
};

// ---- Capture

TEST_F(LogHandlerTest, KeepsTheNewestThousandMessagesOldestFirstUntilInitOrTerminate)
{
    for (int i = 1; i <= 1001; ++i)
        Capture("m" + std::to_string(i), today(10, 0));
    std::string expected;
    for (int i = 2; i <= 1001; ++i)
        expected += stamp(10, 0) + "m" + std::to_string(i) + "\n";
    EXPECT_EQ(expected, Body());
    EXPECT_EQ(stamp(10, 0) + "m1000\n" + stamp(10, 0) + "m1001\n", Body("count=2"));
    EXPECT_EQ(stamp(10, 0) + "m1000\n" + stamp(10, 0) + "m1001\n", Body("index=998"));
    EXPECT_EQ("", Body("index=1000"));
    EXPECT_TRUE(m_handler.Init());
    EXPECT_EQ("", Body());
    Capture("b");
    m_handler.Terminate();
    EXPECT_EQ("", Body());
    Capture("c");
    EXPECT_EQ(stamp(17, 0) + "c\n", Body());
}

// The logger's lines of every level, the handler's own interrupt notice
// among them, each with its arrival time.
TEST_F(LogHandlerTest, KeepsTheLoggersLinesWithTheirArrivalTimes)
{
    Capture("a", today(17, 0, 1));
    Capture("b\nsecond line\n", today(17, 0, 2));
    Capture("caf\xc3\xa9", today(17, 0, 3));
    EXPECT_EQ(stamp(17, 0, 1) + "a\n" + stamp(17, 0, 2) + "b\nsecond line\n\n" + stamp(17, 0, 3) +
                  "caf\xc3\xa9\n",
              Body());
    m_handler.Init();
    for (int level : {1, 1000})
        CLogger::GetInstance().LogMessage(level, "/x/Source.cpp", 42, "Caller", CLogger::c_noneObjPtr,
                                          "text %d\n", level);
    EXPECT_TRUE(m_handler.InterruptProcessing());
    std::istringstream body(Body());
    std::string line;
    for (const std::string tail :
         {" [1] Source.cpp:42 Caller: text 1", " [1000] Source.cpp:42 Caller: text 1000",
          " InterruptProcessing: CHTTPLogHandler : received interrupt!"}) {
        ASSERT_TRUE(std::getline(body, line));
        EXPECT_EQ(0u, line.find(stamp(17, 0))) << line;
        EXPECT_EQ(tail, line.substr(line.size() - std::min(line.size(), tail.size()))) << line;
    }
    EXPECT_FALSE(std::getline(body, line));
}

// ---- Queries

// Ten entries e0..e9 captured every five minutes from 11:50 to 12:35 of the
// test's day, then e10 of 12:00, as a thread that waited for the lock leaves
// an earlier time behind a later one: "to" ends the scan at the first entry
// after it, "from" only skips. The rows name the entries each query selects.
TEST_F(LogHandlerTest, QueryFormsSelectEntries)
{
    for (int i = 0; i < 10; ++i)
        Capture("e" + std::to_string(i), today(11, 50) + i * 300);
    Capture("e10", today(12, 0));
    const std::vector<int> all = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const struct {
        const char *query;
        std::vector<int> entries;
    } rows[] = {
        // clang-format off
        {"", all}, {"foo=bar", all}, {"Count=2", all}, // names are case-sensitive
        {"count=2", {9, 10}}, {"count=20", all}, {"count=+2", {9, 10}}, {"count=%202", {9, 10}},
        {"index=", all}, {"index=0", all}, {"index=10", {10}}, {"index=11", {}},
        {"index=2&count=3", {2, 3, 4}}, {"index=1&count=2", {1, 2}},
        {"from=12:00:00", {2, 3, 4, 5, 6, 7, 8, 9, 10}}, {"from=11:60:00", {2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {"from=12:36:00", {}}, {"to=12:10:00", {0, 1, 2, 3, 4}}, {"to=12:09:59", {0, 1, 2, 3}},
        {"from=2026-11-16T12:00:00&to=2026-11-16T12:30:00", {2, 3, 4, 5, 6, 7, 8}},
        {"from=2026-11-15T23:00:00", all}, {"from=2026-11-17T00:00:00", {}},
        {"to=2026-11-15T12:10:00", {}}, {"to=2026-11-17T00:00:00", all},
        {"from=12:05:00&count=2", {3, 4}}, {"to=12:30:00&count=2", {0, 1}},
        {"index=3&from=12:00:00&count=2", {5, 6}}, {"index=1&from=12:00:00&to=12:20:00", {3, 4, 5, 6}},
        // clang-format on
    };
    for (const auto &row : rows) {
        std::string expected;
        for (int i : row.entries) {
            const int minutes = i < 10 ? 50 + 5 * i : 60;
            expected += stamp(11 + minutes / 60, minutes % 60) + "e" + std::to_string(i) + "\n";
        }
        EXPECT_EQ(expected, Body(row.query)) << row.query;
    }
}

TEST_F(LogHandlerTest, InvalidValuesGetTheHandlersOwnBadRequestPage)
{
    Capture("kept");
    const std::string longValue(3000, 'x'), markup(1000, '<');
    std::string markupShown;
    for (size_t i = 0; i < markup.size(); ++i)
        markupShown += "&lt;";
    const struct {
        std::string query, message;
        bool escape = false;
    } rows[] = {
        // clang-format off
        {"from=12:00", "Invalid 'from' time specified: 12:00"}, {"index=-1", "Invalid 'index' specified: -1"},
        {"from=2026-11-16Tab:00:00", "Invalid 'from' time specified: 2026-11-16Tab:00:00"},
        {"to=2026-11-16X12:00:00", "Invalid 'to' time specified: 2026-11-16X12:00:00"},
        {"index=3x", "Invalid 'index' specified: 3x"}, {"count=0", "Invalid 'count' specified: 0"},
        {"count=", "Invalid 'count' specified: "}, {"count=%3Cb%3E", "Invalid 'count' specified: <b>"},
        {"count=" + longValue, "Invalid 'count' specified: " + longValue},
        // The first invalid value in key order (count, from, index, to) wins.
        {"from=xx&count=abc", "Invalid 'count' specified: abc"}, {"to=yy&index=-1", "Invalid 'index' specified: -1"},
        // With escaping on, markup shows as text (the cut comes after it).
        {"from=%26%3C%3E%22%27plain", "Invalid 'from' time specified: &amp;&lt;&gt;&quot;&#39;plain", true},
        {"count=" + markup, "Invalid 'count' specified: " + markupShown, true},
        // clang-format on
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.query.substr(0, 40));
        m_handler.SetEscapeMarkup(row.escape);
        const std::vector<ResponsePtr> pieces = Pieces(row.query, 5);
        ASSERT_EQ(1u, pieces.size());
        const CHTTPResponse &response = *pieces[0];
        EXPECT_EQ(400, response.GetCode());
        EXPECT_EQ(row.escape ? "text/html; charset=utf-8" : "", response.GetContentType());
        EXPECT_EQ(badRequestPage(row.message), dataOf(response));
    }
    EXPECT_EQ(stamp(17, 0) + "kept\n", Body()) << "a rejected query changes nothing";
}

// ---- Pieces

// An answer is taken from the ring when asked for, and stays pending until
// its last piece, a new request on its connection or the end of its
// exchange. An interrupt does not say which connection closed: the exchange
// end notice does, and releases that answer alone.
TEST_F(LogHandlerTest, PendingAnswers)
{
    Capture(textForLineOf(10000), today(8, 0));
    Capture(textForLineOf(10000), today(8, 0));
    Capture("short", today(9, 0));
    const std::string full = Body();
    for (int id : {1, 2, 3, 4})
        ASSERT_FALSE(First("", id).IsNull());
    for (int i = 0; i < 1000; ++i)
        Capture("newer " + std::to_string(i));
    m_handler.Init();
    EXPECT_TRUE(m_handler.InterruptProcessing());
    const ResponsePtr middle = m_handler.GetAdditionalResponseData(1); // bytes only
    ASSERT_FALSE(middle.IsNull());
    EXPECT_TRUE(middle->SendOnlyData() && !middle->IsLast() && middle->GetAdditionalHeaders().empty());
    EXPECT_EQ(full.substr(8194, 8194), dataOf(*middle));
    EXPECT_EQ(full.substr(16388), Next(1));

    Capture("again", today(9, 0));
    EXPECT_EQ(stamp(9, 0) + "again\n", Body("count=1", 2)) << "a new request replaces the pending answer";
    m_handler.OnExchangeEnded(3);
    m_handler.OnExchangeEnded(5); // none pending: nothing happens
    const int checks = GetKzfAssertMode();
    SetKzfAssertMode(1); // off: the released answers are looked for
    EXPECT_EQ("<none>", Next(1)) << "none after the last";
    EXPECT_EQ("<none>", Next(2));
    EXPECT_EQ("<none>", Next(3));
    SetKzfAssertMode(checks);
    EXPECT_EQ(full.substr(8194, 8194), Next(4)) << "other connections keep theirs";
}

// ---- Over a real connection

std::string get(const std::string &uri)
{
    return "GET " + uri + " HTTP/1.1\r\nHost: test\r\n\r\n";
}

// The answers byte for byte: complete ones up to 8194 bytes on a kept
// connection, longer ones streamed with the handler's own length, closing it.
TEST_F(LogHandlerTest, AnswersOnTheWire)
{
    const std::string big = textForLineOf(10000), line8194 = textForLineOf(8194),
                      line8195 = textForLineOf(8195);
    Capture("first", today(8, 0));
    Capture(big, today(8, 1));
    Capture(big, today(8, 1, 1));
    Capture(line8194, today(8, 2));
    Capture(line8195, today(8, 3));
    NVQ::CHTTPServer server; // its own notices land after these entries
    server.RegisterHandler(m_handler, false);
    NVQ::SHTTPServerOptions options;
    options.m_port = 0;
    ASSERT_TRUE(server.StartServer(options));

    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: ",
                      page = badRequestPage("Invalid 'count' specified: x");
    const std::string notFound =
        "HTTP/1.1 404 Not found\r\nContent-Length: 406 \r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
    const struct {
        std::string request, answerStart;
        bool closes = false;
    } rows[] = {
        // clang-format off
        {get("/proxy/log?from=07:00:00&to=07:00:00"), ok + "0 \r\n\r\n"},
        {get("/proxy/log/x?from=07:00:00&to=07:00:00"), ok + "0 \r\n\r\n"}, // any URI that begins with the endpoint
        {get("/proxy/log?index=0&count=1"), ok + "28 \r\n\r\n" + stamp(8, 0) + "first\n"},
        {get("/proxy/log?from=08:02:00&to=08:02:00"), ok + "8194 \r\n\r\n" + stamp(8, 2) + line8194 + "\n"},
        {get("/proxy/log?count=x"), "HTTP/1.1 400 Bad Request\r\nContent-Length: " + std::to_string(page.size()) + " \r\nKeep-Alive: timeout=5, max=100\r\n\r\n" + page},
        {"POST /proxy/log HTTP/1.1\r\nHost: test\r\nContent-Length: 0\r\n\r\n", notFound},
        {"HEAD /proxy/log HTTP/1.1\r\nHost: test\r\n\r\n", notFound}, {get("/PROXY/LOG"), notFound}, {get("/a/proxy/log"), notFound},
        {get("/proxy/log?from=08:03:00&to=08:03:00"), ok + "8195\r\n\r\n" + stamp(8, 3) + line8195 + "\n", true},
        {get("/proxy/log?from=08:01:00&to=08:01:01"), ok + "20000\r\n\r\n" + stamp(8, 1) + big + "\n" + stamp(8, 1, 1) + big + "\n", true},
        // clang-format on
    };
    CTestClient client;
    for (const auto &row : rows) {
        ASSERT_TRUE((client.Fd() >= 0 && !client.IsClosed()) || client.Connect(server.GetPort()));
        ASSERT_TRUE(client.Send(row.request));
        const std::string answer = client.ReceiveAnswer();
        EXPECT_EQ(row.answerStart, answer.substr(0, row.answerStart.size())) << row.request;
        EXPECT_EQ(row.closes, client.WaitClosed(row.closes ? 5000 : 0)) << row.request;
    }
    server.StopServer();
    server.UnregisterHandler(m_handler);
}

#if NVQ_WITH_WEBSOCKET
// ---- The live log

class CLiveSink : public NVQ::CHTTPLiveLogHandler::CSubscriber
{
  public:
    CLiveSink() : CSubscriber(1, 5) {}
    void Wake() override { ++m_wakes; }
    bool Deliver(uint64_t id, const std::string &json, bool) override
    {
        m_json[id] = json;
        return true;
    }
    bool HasRoom() override { return true; }
    int m_wakes = 0;
    std::map<uint64_t, std::string> m_json;
};

// A subscriber of levels up to 5 is woken once per pull, by its levels
// only; an event stream starts after the id it resumes from.
TEST(LiveLogTest, LevelsWakeUpsAndResumption)
{
    NVQ::CHTTPLiveLogHandler live("/live", 3);
    CLiveSink sink;
    live.Subscribe(sink);
    KZF::CLogger::SLogMessage message{};
    message.m_time.tv_sec = today(17, 0, 1);
    const std::pair<const char *, unsigned> logged[] = {{"a", 8}, {"b\"\xc3\xa9", 3}, {"c", 5}, {"d", 1}};
    const int wakes[] = {0, 1, 1, 2};
    for (int i = 0; i < 4; ++i) {
        live.Log(logged[i].first, logged[i].second, message);
        EXPECT_EQ(wakes[i], sink.m_wakes) << i;
        if (i == 2)
            live.Pull(sink);
    }
    live.Pull(sink);
    live.Unsubscribe(sink);
    EXPECT_EQ("{\"id\":2,\"level\":3,\"time\":\"2026-11-16T17:00:01\",\"text\":\"b\\\"\xc3\xa9\"}",
              sink.m_json[2]);
    ASSERT_EQ(3u, sink.m_json.size());
    const struct {
        const char *query, *lastEventId;
        uint64_t first;
    } rows[] = {{"", nullptr, 2}, {"?since=", nullptr, 2}, {"?since=2", nullptr, 3}, {"?since=9", nullptr, 5},
                {"", "3", 4},     {"?since=3", "1", 4}};
    for (const auto &row : rows) {
        NVQ::CHTTPRequest request;
        request.SetMethod("GET");
        request.SetUri(std::string("/live") + row.query);
        request.AddHeaderField("Accept", "text/event-stream");
        if (row.lastEventId != nullptr)
            request.AddHeaderField("Last-Event-ID", row.lastEventId);
        const ResponsePtr answer = live.ProcessRequest(request, 1);
        KZF::CRefCountPtr<NVQTest::CFakeDataLayer> connection(new NVQTest::CFakeDataLayer());
        answer->GetConnectionTaker()->TakeConnection(*connection, nullptr, 0, 0);
        std::string expected;
        for (uint64_t id = row.first; id <= 4; ++id)
            expected += "id: " + std::to_string(id) + "\ndata: " + sink.m_json[id] + "\n\n";
        EXPECT_EQ(expected, connection->WrittenBytes()) << row.query;
        connection->DeliverClose();
    }
}
#endif

} // namespace
