#include "HTTP/HTTPConnectionPoint.h"
#include "HTTP/HTTPLayer.h"

#include "Support/FakeDataLayer.h"
#include "Support/FramingCases.h"
#include "Support/ScriptedHandler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using NVQTest::CFakeDataLayer;
using NVQTest::CScriptedHandler;
using NVQTest::makeResponse;
typedef std::vector<std::string> Items;

const char c_getRoot[] = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";

// One connection point on a fake data layer, with a layer holding the
// test's handlers.
class ConnectionPointTest : public ::testing::Test
{
  protected:
    ConnectionPointTest()
        : m_dataLayer(new CFakeDataLayer()),
          m_point(new NVQ::CHTTPConnectionPoint(*m_dataLayer.GetPtr(), m_layer, 7))
    {
        m_layer.RegisterHandler(m_handler, false);
    }

    CFakeDataLayer &Data() { return *m_dataLayer.GetPtr(); }

    void Request(const std::string &bytes)
    {
        Data().Arrive(bytes);
        Data().DeliverData();
    }

    // The wire form of one complete response.
    std::string Send(const KZF::CRefCountPtr<NVQ::CHTTPResponse> &response)
    {
        Data().ClearRecords();
        m_point->SendResponse(*response.GetPtr());
        return Data().WrittenBytes();
    }

    KZF::CRefCountPtr<CFakeDataLayer> m_dataLayer;
    NVQ::CHTTPLayer m_layer;
    CScriptedHandler m_handler;
    KZF::CRefCountPtr<NVQ::CHTTPConnectionPoint> m_point;
};

TEST_F(ConnectionPointTest, RegistersWithItsDataLayerAndUnregistersWhenDestroyed)
{
    EXPECT_EQ(Items({"register"}), Data().m_trace);
    m_point = static_cast<NVQ::CHTTPConnectionPoint *>(nullptr);
    EXPECT_EQ(Items({"register", "unregister"}), Data().m_trace);
    EXPECT_EQ(nullptr, Data().m_pNotification);
}

// ---- Wire form of responses

TEST_F(ConnectionPointTest, NotFoundAnswerIsThirteenWrites)
{
    NVQ::CNotFoundResponse notFound;
    m_point->SendResponse(notFound);
    const Items items = Data().WrittenItems();
    ASSERT_EQ(13u, items.size());
    EXPECT_EQ(Items({"HTTP/1.1 ", "404 ", "Not found", "\r\n", "Content-Length: ", "406 ", "\r\n",
                     "Keep-Alive", ": ", "timeout=5, max=100", "\r\n", "\r\n"}),
              Items(items.begin(), items.begin() + 12));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(notFound.GetData()), 406), items[12]);
}

TEST_F(ConnectionPointTest, BadRequestAnswerIsThirteenWrites)
{
    NVQ::CBadRequestResponse badRequest;
    m_point->SendResponse(badRequest);
    const Items items = Data().WrittenItems();
    ASSERT_EQ(13u, items.size());
    EXPECT_EQ(Items({"HTTP/1.1 ", "400 ", "Bad Request", "\r\n", "Content-Length: ", "402 ", "\r\n",
                     "Keep-Alive", ": ", "timeout=5, max=100", "\r\n", "\r\n"}),
              Items(items.begin(), items.begin() + 12));
    EXPECT_EQ(402u, items[12].size());
}

TEST_F(ConnectionPointTest, HeaderBlockShapes)
{
    struct SCase {
        const char *name;
        std::function<void(NVQ::CHTTPResponse &)> fill;
        const char *wire;
    };
    const std::vector<SCase> cases = {
        {"complete with no data", [](NVQ::CHTTPResponse &r) { r.SetCode(204); },
         "HTTP/1.1 204 \r\nContent-Length: 0 \r\n\r\n"},
        {"code never set", [](NVQ::CHTTPResponse &r) { r.SetPhrase("Odd"); },
         "HTTP/1.1 0 Odd\r\nContent-Length: 0 \r\n\r\n"},
        {"negative code", [](NVQ::CHTTPResponse &r) { r.SetCode(-5); },
         "HTTP/1.1 -5 \r\nContent-Length: 0 \r\n\r\n"},
        {"content type",
         [](NVQ::CHTTPResponse &r) {
             r.SetCode(200);
             r.SetPhrase("OK");
             r.SetContentType("text/plain");
             r.SetData(reinterpret_cast<const unsigned char *>("hi"), 2);
         },
         "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 2 \r\n\r\nhi"},
        {"handler's own length beside the computed one",
         [](NVQ::CHTTPResponse &r) {
             r.SetCode(200);
             r.AddHeaderField("Keep-Alive", "timeout=5");
             r.AddHeaderField("Content-Length", "2");
             r.SetData(reinterpret_cast<const unsigned char *>("hi"), 2);
         },
         "HTTP/1.1 200 \r\nContent-Length: 2 \r\nContent-Length: 2\r\nKeep-Alive: timeout=5\r\n\r\nhi"},
        {"first piece of a stream has no computed length",
         [](NVQ::CHTTPResponse &r) {
             r.SetCode(200);
             r.SetPhrase("OK");
             r.SetIsLast(false);
             r.SetData(reinterpret_cast<const unsigned char *>("abc"), 3);
         },
         "HTTP/1.1 200 OK\r\n\r\nabc"},
    };
    for (const SCase &c : cases) {
        KZF::CRefCountPtr<NVQ::CHTTPResponse> response(new NVQ::CHTTPResponse());
        response->SetIsLast(true);
        c.fill(*response.GetPtr());
        EXPECT_EQ(c.wire, Send(response)) << c.name;
    }
}

TEST_F(ConnectionPointTest, TextItemsAreCutAt256Bytes)
{
    KZF::CRefCountPtr<NVQ::CHTTPResponse> response(new NVQ::CHTTPResponse());
    response->SetCode(200);
    response->SetPhrase(std::string(300, 'p'));
    response->SetContentType(std::string(257, 't'));
    response->AddHeaderField(std::string(400, 'n'), std::string(256, 'v'));
    response->SetIsLast(true);
    Send(response);
    const Items items = Data().WrittenItems();
    EXPECT_EQ(std::string(256, 'p'), items[2]);
    EXPECT_EQ(std::string(256, 't'), items[5]);
    EXPECT_EQ(std::string(256, 'n'), items[10]);
    EXPECT_EQ(std::string(256, 'v'), items[12]);
    EXPECT_EQ("\r\n", items[13]);
}

TEST_F(ConnectionPointTest, LargeDataGoesInSlicesOfSixteenMebibytes)
{
    struct SCase {
        long size;
        std::vector<int> slices;
    };
    const SCase cases[] = {
        {40000000, {16777216, 16777216, 6445568}},
        {16777216, {16777216}},
        {16777217, {16777216, 1}},
    };
    for (const SCase &c : cases) {
        KZF::CRefCountPtr<NVQ::CHTTPResponse> response(new NVQ::CHTTPResponse());
        std::string data(static_cast<size_t>(c.size), 'd');
        response->SetData(reinterpret_cast<const unsigned char *>(data.data()), c.size);
        response->SetSendOnlyData(true);
        Data().ClearRecords();
        m_point->SendResponse(*response.GetPtr());
        std::vector<int> sizes;
        for (const CFakeDataLayer::SWrite &write : Data().m_writes)
            sizes.push_back(write.m_size);
        EXPECT_EQ(c.slices, sizes) << c.size;
    }
}

TEST_F(ConnectionPointTest, SendOnlyPiecesWriteOnlyTheirBytes)
{
    EXPECT_EQ("middle", Send(makeResponse(200, "OK", "middle", false, true)));
    EXPECT_EQ(Items({"send"}), Data().m_trace);
    EXPECT_EQ(0, Data().m_closes);

    // The final piece with no data still makes one empty write, then ends
    // the connection.
    Send(makeResponse(0, "", "", true, true));
    ASSERT_EQ(1u, Data().m_writes.size());
    EXPECT_EQ(0, Data().m_writes[0].m_size);
    EXPECT_EQ(Items({"send", "unregister", "close"}), Data().m_trace);
    Data().ClearRecords();
    m_point->SendResponse(*makeResponse(200, "OK", "late", true, false).GetPtr());
    EXPECT_TRUE(Data().m_writes.empty()) << "nothing is written after the connection point detached";
}

TEST_F(ConnectionPointTest, StreamedAnswerOfTwentyThousandBytes)
{
    const std::string first(8194, 'a');
    const std::string middle(8194, 'b');
    const std::string last(3612, 'c');
    m_handler.m_onProcess = [&](NVQ::CHTTPRequest &, int) {
        KZF::CRefCountPtr<NVQ::CHTTPResponse> response = makeResponse(200, "OK", first, false, false);
        response->AddHeaderField("Content-Length", "20000");
        return response;
    };
    int pulls = 0;
    m_handler.m_onPull = [&](int) {
        ++pulls;
        return pulls == 1 ? makeResponse(200, "OK", middle, false, true)
                          : makeResponse(200, "OK", last, true, true);
    };
    Request(c_getRoot);
    const Items items = Data().WrittenItems();
    ASSERT_EQ(12u, items.size());
    EXPECT_EQ(Items({"HTTP/1.1 ", "200 ", "OK", "\r\n", "Content-Length", ": ", "20000", "\r\n", "\r\n",
                     first, middle, last}),
              items);
    const Items tail(Data().m_trace.end() - 2, Data().m_trace.end());
    EXPECT_EQ(Items({"unregister", "close"}), tail);
    EXPECT_EQ(std::vector<int>({7}), m_handler.ProcessIDs());
    EXPECT_EQ(std::vector<int>({7, 7}), m_handler.PullIDs());
}

TEST_F(ConnectionPointTest, ClosedConnectionWritesNothingAndInterruptsOnEveryAttempt)
{
    Data().DeliverClose();
    Data().ClearRecords();
    m_point->SendResponse(*makeResponse(200, "OK", "x", true, false).GetPtr());
    EXPECT_TRUE(Data().m_writes.empty());
    EXPECT_EQ(0, m_handler.m_interrupts.load()) << "no exchange runs, so there is no handler to tell";
}

// ---- Reception

TEST_F(ConnectionPointTest, RequestInThreeReadsIsAnsweredOnceAfterTheThird)
{
    Request("GET /thr");
    Request("ee HTTP/1.1\r\n");
    EXPECT_TRUE(Data().m_writes.empty());
    Request("\r\n\r\n");
    EXPECT_EQ(std::vector<std::string>({"/three"}), m_handler.m_uris);
    EXPECT_NE(std::string::npos, Data().WrittenBytes().find("OK /three"));
}

TEST_F(ConnectionPointTest, SecondRequestInTheSameReadIsDropped)
{
    Request("GET /one HTTP/1.1\r\n\r\n\r\nGET /two HTTP/1.1\r\n\r\n\r\n");
    EXPECT_EQ(std::vector<std::string>({"/one"}), m_handler.m_uris);
    Request("GET /three HTTP/1.1\r\n\r\n\r\n");
    EXPECT_EQ(std::vector<std::string>({"/one", "/three"}), m_handler.m_uris);
}

TEST_F(ConnectionPointTest, MalformedRequestGets400AndTheConnectionRecovers)
{
    Request("GET / HTTP/1.1\r\nHost example\r\n\r\n");
    EXPECT_EQ(0u, Data().WrittenBytes().find("HTTP/1.1 400 Bad Request\r\n"));
    EXPECT_EQ(0, Data().m_closes);
    Data().ClearRecords();
    Request(c_getRoot);
    EXPECT_EQ(0u, Data().WrittenBytes().find("HTTP/1.1 200 OK\r\n"));
}

TEST_F(ConnectionPointTest, NoHandlerOrNoAnswerGives404)
{
    Request("GET /x HTTP/1.1\r\n\r\n\r\n");
    m_handler.m_prefix = "/only";
    Data().ClearRecords();
    Request("GET /elsewhere HTTP/1.1\r\n\r\n\r\n");
    EXPECT_EQ(0u, Data().WrittenBytes().find("HTTP/1.1 404 Not found\r\n"));
    EXPECT_EQ(1u, m_handler.ProcessIDs().size()) << "no handler took it, so none was asked to process it";

    m_handler.m_prefix = "/";
    m_handler.m_onProcess = [](NVQ::CHTTPRequest &, int) { return KZF::CRefCountPtr<NVQ::CHTTPResponse>(); };
    Data().ClearRecords();
    Request(c_getRoot);
    EXPECT_EQ(0u, Data().WrittenBytes().find("HTTP/1.1 404 Not found\r\n"));
    EXPECT_TRUE(m_handler.PullIDs().empty());
}

TEST_F(ConnectionPointTest, BufferGrowsInStepsWheneverFewerThan32BytesAreFree)
{
    // A 5000-byte request at once: reads of 1024, then of the room left after
    // each growth of 512 bytes.
    std::string request = "GET /big HTTP/1.1\r\nX: " + std::string(5000 - 28, 'v') + "\r\n\r\n\r\n";
    ASSERT_EQ(5000u, request.size());
    Request(request);
    EXPECT_EQ(std::vector<std::string>({"/big"}), m_handler.m_uris);
    const std::vector<int> &reads = Data().m_readSizes;
    ASSERT_GE(reads.size(), 3u);
    EXPECT_EQ(1024, reads[0]);
    EXPECT_EQ(512, reads[1]);
    int total = 0;
    for (size_t i = 0; i + 1 < reads.size(); ++i)
        total += reads[i];
    EXPECT_EQ(1024 + 512 * 8, total) << "grown 8 times to hold 5000 bytes";
}

TEST_F(ConnectionPointTest, ExactlyThirtyTwoFreeBytesNeedNoGrowth)
{
    // An unfinished request line keeps every byte buffered.
    Request(std::string(1024 - 32, 'x'));
    Data().m_readSizes.clear();
    Request("y"); // 32 free: read into them as they are
    ASSERT_FALSE(Data().m_readSizes.empty());
    EXPECT_EQ(32, Data().m_readSizes[0]);

    Data().m_readSizes.clear();
    Request("z"); // now 31 free: grown by 512 before the read
    ASSERT_FALSE(Data().m_readSizes.empty());
    EXPECT_EQ(31 + 512, Data().m_readSizes[0]);
}

TEST_F(ConnectionPointTest, NotificationWithNothingToReadAnswersNothing)
{
    Data().DeliverData();
    EXPECT_TRUE(Data().m_writes.empty());
    EXPECT_TRUE(m_handler.ProcessIDs().empty());
}

TEST_F(ConnectionPointTest, RequestBeyondTheBoundGets400AndTheConnectionCloses)
{
    std::string huge =
        "GET /huge HTTP/1.1\r\nX: " + std::string(NVQ::CHTTPConnectionPoint::c_defaultMaxHeaderBytes, 'h');
    Request(huge);
    EXPECT_EQ(0u, Data().WrittenBytes().find("HTTP/1.1 400 Bad Request\r\n"));
    EXPECT_EQ(1, Data().m_closes);
    EXPECT_EQ(nullptr, Data().m_pNotification);
    EXPECT_TRUE(m_handler.ProcessIDs().empty());
    int largest = 0;
    for (int size : Data().m_readSizes)
        largest = std::max(largest, size);
    EXPECT_LE(largest, NVQ::CHTTPConnectionPoint::c_defaultMaxHeaderBytes);
}

TEST_F(ConnectionPointTest, RequestJustUnderTheBoundIsServed)
{
    const std::string head = "POST /upload HTTP/1.1\r\nContent-Length: ";
    const int body = static_cast<int>(NVQ::CHTTPConnectionPoint::c_defaultMaxBodyBytes) - 100;
    const std::string request =
        head + std::to_string(body) + "\r\n\r\n" + std::string(static_cast<size_t>(body), 'b');
    Request(request);
    EXPECT_EQ(std::vector<std::string>({"/upload"}), m_handler.m_uris);
    EXPECT_EQ(0, Data().m_closes);
}

// ---- The exchange

TEST_F(ConnectionPointTest, CompleteAnswerEndsTheExchangeAndKeepsTheConnection)
{
    Request(c_getRoot);
    Request(c_getRoot);
    EXPECT_EQ(std::vector<int>({7, 7}), m_handler.ProcessIDs());
    EXPECT_TRUE(m_handler.PullIDs().empty());
    EXPECT_EQ(std::vector<int>({7, 7}), m_handler.EndedIDs());
    EXPECT_EQ(0, Data().m_closes);
}

TEST_F(ConnectionPointTest, StreamIsPulledUntilThePieceMarkedLast)
{
    m_handler.StreamPieces({"first", "m1", "m2", "end"});
    Request(c_getRoot);
    EXPECT_EQ(std::vector<int>({7}), m_handler.ProcessIDs());
    EXPECT_EQ(std::vector<int>({7, 7, 7}), m_handler.PullIDs());
    EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\nfirstm1m2end", Data().WrittenBytes());
    EXPECT_EQ(1, Data().m_closes);
    EXPECT_EQ(std::vector<int>({7}), m_handler.EndedIDs());
}

TEST_F(ConnectionPointTest, NullPieceEndsTheAnswerWithAnEmptyFinalPiece)
{
    m_handler.m_onProcess = [](NVQ::CHTTPRequest &, int) {
        return makeResponse(200, "OK", "first", false, false);
    };
    int pulls = 0;
    m_handler.m_onPull = [&](int) {
        return ++pulls == 1 ? makeResponse(200, "OK", "m1", false, true)
                            : KZF::CRefCountPtr<NVQ::CHTTPResponse>();
    };
    Request(c_getRoot);
    const std::vector<CFakeDataLayer::SWrite> &writes = Data().m_writes;
    ASSERT_FALSE(writes.empty());
    EXPECT_EQ(0, writes.back().m_size);
    EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\nfirstm1", Data().WrittenBytes());
    EXPECT_EQ(1, Data().m_closes);
    EXPECT_EQ(2, pulls);
    EXPECT_EQ(std::vector<int>({7}), m_handler.EndedIDs());
}

TEST_F(ConnectionPointTest, OnlyTheFrontMostAcceptingHandlerIsAsked)
{
    CScriptedHandler front("/");
    front.m_onProcess = [](NVQ::CHTTPRequest &, int) { return makeResponse(200, "Front", "", true, false); };
    m_layer.RegisterHandler(front, true);
    const int before = m_handler.m_canProcessCalls.load();
    Request(c_getRoot);
    EXPECT_EQ(1u, front.ProcessIDs().size());
    EXPECT_TRUE(m_handler.ProcessIDs().empty());
    EXPECT_EQ(before, m_handler.m_canProcessCalls.load()) << "handlers behind the chosen one are not asked";
    m_layer.UnregisterHandler(front);
}

TEST_F(ConnectionPointTest, CloseDuringAStreamInterruptsAndStopsThePulls)
{
    m_handler.StreamPieces({"first", "m1", "m2", "m3", "end"});
    int pulls = 0;
    m_handler.m_onPull = [&](int) {
        if (++pulls == 2)
            Data().DeliverClose(); // the peer goes away while this piece is made
        return makeResponse(200, "OK", "m" + std::to_string(pulls), false, true);
    };
    Request(c_getRoot);
    EXPECT_EQ(2, pulls) << "no pull after the closed flag was set";
    EXPECT_EQ("HTTP/1.1 200 OK\r\n\r\nfirstm1", Data().WrittenBytes())
        << "the piece made after the close is dropped";
    EXPECT_EQ(2, m_handler.m_interrupts.load()) << "once from the close, once from the send path";
    EXPECT_EQ(std::vector<int>({7}), m_handler.EndedIDs());
}

TEST_F(ConnectionPointTest, FailedWriteDropsTheRestOfTheAnswer)
{
    // Write 0 is the status line's start, 5 the end of the header block,
    // 6 the first piece's data, 7 a later piece.
    for (int failing : {0, 3, 5, 6, 7}) {
        SCOPED_TRACE(failing);
        KZF::CRefCountPtr<CFakeDataLayer> data(new CFakeDataLayer());
        NVQ::CHTTPLayer layer;
        CScriptedHandler handler;
        handler.StreamPieces({"first", "m1", "m2", "end"});
        layer.RegisterHandler(handler, false);
        KZF::CRefCountPtr<NVQ::CHTTPConnectionPoint> point(
            new NVQ::CHTTPConnectionPoint(*data.GetPtr(), layer, 1));
        data->m_failFromWrite = failing;
        data->Arrive(c_getRoot);
        data->DeliverData();
        EXPECT_EQ(1, data->m_failedWrites) << "nothing is written after a write failed";
        EXPECT_EQ(static_cast<size_t>(failing), data->m_writes.size());
        EXPECT_EQ(0, data->m_closes) << "the framework closes a broken connection itself";
        EXPECT_EQ(std::vector<int>({1}), handler.EndedIDs());
    }
}

TEST_F(ConnectionPointTest, RequestDispatchedAfterTheCloseStillReachesItsHandler)
{
    // The close is reported while the request's bytes are still waiting.
    Data().Arrive(c_getRoot);
    Data().DeliverClose();
    Data().DeliverData();
    EXPECT_EQ(1u, m_handler.ProcessIDs().size());
    EXPECT_TRUE(Data().m_writes.empty());
    EXPECT_EQ(1, m_handler.m_interrupts.load()) << "the send path tells the handler";
}

TEST_F(ConnectionPointTest, CloseBetweenExchangesCallsNoHandler)
{
    Request(c_getRoot);
    Data().DeliverClose();
    EXPECT_EQ(0, m_handler.m_interrupts.load());
    EXPECT_EQ(1u, m_handler.ProcessIDs().size());
}

} // namespace

// ---- Framing: the same bytes in the lenient reference mode and in strict mode

namespace
{

using NVQTest::c_framings;
using NVQTest::c_host;
using NVQTest::c_next;
using NVQTest::c_post;
using NVQTest::SFraming;

// Serves the arrivals, each delivered on its own, to a handler that echoes
// method, URI and body.
std::string serve(bool strict, const std::vector<std::string> &arrivals)
{
    KZF::CRefCountPtr<CFakeDataLayer> data(new CFakeDataLayer());
    NVQ::CHTTPLayer layer;
    CScriptedHandler handler;
    handler.m_onProcess = NVQTest::echoRequest;
    layer.RegisterHandler(handler, false);
    KZF::CRefCountPtr<NVQ::CHTTPConnectionPoint> point(
        new NVQ::CHTTPConnectionPoint(*data.GetPtr(), layer, 1));
    point->SetStrict(strict);
    for (const std::string &arrival : arrivals) {
        data->Arrive(arrival);
        data->DeliverData();
    }
    return NVQTest::summarize(data->WrittenBytes(), data->m_closes > 0);
}

} // namespace

TEST(ConnectionPointFramingTest, EachCaseInBothModesWholeSplitAndFollowed)
{
    for (const SFraming &c : c_framings) {
        const std::string &bytes = c.bytes;
        EXPECT_EQ(c.reference, serve(false, {bytes})) << c.name;
        EXPECT_EQ(c.strict, serve(true, {bytes})) << c.name;
        // A request arrives in pieces as it likes: in both modes the answer
        // is the same whichever byte ends the first piece.
        std::vector<std::string> single;
        for (size_t split = 1; split < bytes.size(); ++split) {
            EXPECT_EQ(c.reference, serve(false, {bytes.substr(0, split), bytes.substr(split)}))
                << c.name << " split at " << split;
            EXPECT_EQ(c.strict, serve(true, {bytes.substr(0, split), bytes.substr(split)}))
                << c.name << " split at " << split;
            single.push_back(bytes.substr(split - 1, 1));
        }
        single.push_back(bytes.substr(bytes.size() - 1));
        EXPECT_EQ(c.strict, serve(true, single)) << c.name << " byte by byte";
        // Strict: a request behind it in the same read is answered next,
        // unless the connection ended.
        const std::string strict = c.strict;
        const bool closes = strict.find("closed") != std::string::npos;
        EXPECT_EQ(closes ? strict : strict + "200 GET /next; ", serve(true, {bytes + c_next})) << c.name;
    }
}

TEST(ConnectionPointFramingTest, ExpectContinueOnlyForABodyThatWillBeRead)
{
    const std::string head = c_post + "Content-Length: 3\r\nExpect: 100-continue\r\n\r\n";
    EXPECT_EQ("100; 200 POST /a xyz; ", serve(true, {head, "xyz"}));
    EXPECT_EQ("200 POST /a xyz; ", serve(true, {head + "xyz"})) << "a client that did not wait";
    EXPECT_EQ("200 POST /a xyz; ", serve(false, {head, "xyz"})) << "reference: never";
    std::string unknown = head;
    unknown.replace(unknown.find("100-continue"), 12, "something");
    EXPECT_EQ("417 page; closed", serve(true, {unknown}));
    std::string nobody = head;
    nobody.replace(0, 7, "POST nobody"); // a target no handler takes
    EXPECT_EQ("404 page; closed", serve(true, {nobody})) << "no handler: the body is never read";
}
