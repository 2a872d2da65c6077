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
typedef KZF::CRefCountPtr<NVQ::CHTTPResponse> Response;

const char c_getRoot[] = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";

// One connection point on a fake data layer, with a layer holding the
// test's handler.
class ConnectionPointTest : public ::testing::Test
{
  protected:
    ConnectionPointTest() { m_layer.RegisterHandler(m_handler, false); }

    CFakeDataLayer &Data() { return *m_dataLayer.GetPtr(); }

    // A fresh connection; the arrivals are delivered each on its own. The
    // answers in short (NVQTest::summarize).
    std::string Serve(const Items &arrivals, bool strict = false)
    {
        m_point = static_cast<NVQ::CHTTPConnectionPoint *>(nullptr);
        m_dataLayer = new CFakeDataLayer();
        m_point = new NVQ::CHTTPConnectionPoint(Data(), m_layer, 7);
        m_point->SetStrict(strict);
        for (const std::string &arrival : arrivals)
            Request(arrival);
        return NVQTest::summarize(Data().WrittenBytes(), Data().m_closes > 0);
    }

    void Request(const std::string &bytes)
    {
        Data().Arrive(bytes);
        Data().DeliverData();
    }

    // The writes of one response, joined by '|'; data items longer than 300
    // bytes only by their size.
    std::string Send(const Response &response)
    {
        Data().m_writes.clear();
        m_point->SendResponse(*response.GetPtr());
        std::string joined;
        for (const CFakeDataLayer::SWrite &write : Data().m_writes)
            joined += (write.m_size > 300 ? "<" + std::to_string(write.m_size) + ">" : write.m_bytes) + "|";
        return joined;
    }

    KZF::CRefCountPtr<CFakeDataLayer> m_dataLayer{new CFakeDataLayer()};
    NVQ::CHTTPLayer m_layer;
    CScriptedHandler m_handler;
    KZF::CRefCountPtr<NVQ::CHTTPConnectionPoint> m_point{new NVQ::CHTTPConnectionPoint(Data(), m_layer, 7)};
};

Response shaped(int code, const std::string &phrase, const std::string &data, bool last,
                const std::string &type, const Items &fields = {})
{
    Response response = makeResponse(code, phrase, data, last, false);
    if (!type.empty())
        response->SetContentType(type);
    for (size_t i = 0; i + 1 < fields.size(); i += 2)
        response->AddHeaderField(fields[i], fields[i + 1]);
    return response;
}

// The exact writes of the default answers: one per text item.
TEST_F(ConnectionPointTest, ResponsesGoOutAsTheseWrites)
{
    const std::string p(256, 'p'), t(256, 't'), n(256, 'n'), v(256, 'v');
    const std::pair<Response, std::string> cases[] = {
        {new NVQ::CNotFoundResponse(),
         "HTTP/1.1 |404 |Not found|\r\n|Content-Length: |406 |\r\n|Keep-Alive|: "
         "|timeout=5, max=100|\r\n|\r\n|<406>|"},
        {new NVQ::CBadRequestResponse(),
         "HTTP/1.1 |400 |Bad Request|\r\n|Content-Length: |402 |\r\n|Keep-Alive|: "
         "|timeout=5, max=100|\r\n|\r\n|<402>|"},
        {shaped(204, "", "", true, ""), "HTTP/1.1 |204 ||\r\n|Content-Length: |0 |\r\n|\r\n|"},
        {shaped(0, "Odd", "", true, ""), "HTTP/1.1 |0 |Odd|\r\n|Content-Length: |0 |\r\n|\r\n|"},
        {shaped(-5, "", "", true, ""), "HTTP/1.1 |-5 ||\r\n|Content-Length: |0 |\r\n|\r\n|"},
        {shaped(200, "OK", "hi", true, "text/plain"),
         "HTTP/1.1 |200 |OK|\r\n|Content-Type: |text/plain|\r\n|Content-Length: |2 |\r\n|\r\n|hi|"},
        // The handler's own length beside the computed one.
        {shaped(200, "", "hi", true, "", {"Keep-Alive", "timeout=5", "Content-Length", "2"}),
         "HTTP/1.1 |200 ||\r\n|Content-Length: |2 |\r\n|Content-Length|: |2|\r\n|Keep-Alive|: "
         "|timeout=5|\r\n|\r\n|hi|"},
        // The first piece of a stream has no computed length.
        {shaped(200, "OK", "abc", false, ""), "HTTP/1.1 |200 |OK|\r\n|\r\n|abc|"},
        // Text items are cut at 256 bytes.
        {shaped(200, p + "x", "", true, t + "x", {std::string(400, 'n'), v}),
         "HTTP/1.1 |200 |" + p + "|\r\n|Content-Type: |" + t + "|\r\n|Content-Length: |0 |\r\n|" + n +
             "|: |" + v + "|\r\n|\r\n|"},
        // Large data goes in slices of 16 MiB.
        {makeResponse(0, "", std::string(16777216, 'd'), false, true), "<16777216>|"},
        {makeResponse(0, "", std::string(16777216, 'd') + "e", false, true), "<16777216>|e|"},
        // The final send-only piece with no data still makes one empty write,
        // then ends the connection: nothing goes out after it.
        {makeResponse(0, "", "", true, true), "|"},
        {makeResponse(200, "OK", "late", true, false), ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.second, Send(c.first));
    EXPECT_EQ(1, Data().m_closes);
    EXPECT_EQ(nullptr, Data().m_pNotification);
}

// Conversations with the default handler ("OK <uri>"): the arrivals, each
// delivered on its own, and the answers.
TEST_F(ConnectionPointTest, Conversations)
{
    struct SCase {
        const char *name;
        Items arrivals;
        std::string answers;
    };
    const std::string big = "GET /big HTTP/1.1\r\nX: " + std::string(5000, 'v') + "\r\n\r\n\r\n";
    const std::string huge =
        "GET /huge HTTP/1.1\r\nX: " + std::string(NVQ::CHTTPConnectionPoint::c_defaultMaxHeaderBytes, 'h');
    const long body = NVQ::CHTTPConnectionPoint::c_defaultMaxBodyBytes - 100;
    const std::string upload = "POST /upload HTTP/1.1\r\nContent-Length: " + std::to_string(body) +
                               "\r\n\r\n" + std::string(static_cast<size_t>(body), 'b');
    const SCase cases[] = {
        {"in three reads", {"GET /thr", "ee HTTP/1.1\r\n", "\r\n\r\n"}, "200 OK /three; "},
        {"second request in the same read dropped",
         {"GET /one HTTP/1.1\r\n\r\n\r\nGET /two HTTP/1.1\r\n\r\n\r\n", "GET /three HTTP/1.1\r\n\r\n\r\n"},
         "200 OK /one; 200 OK /three; "},
        {"malformed, then recovers",
         {"GET / HTTP/1.1\r\nHost example\r\n\r\n", c_getRoot},
         "400 page; 200 OK /; "},
        {"nothing to read", {""}, ""},
        {"no handler takes it", {"GET elsewhere HTTP/1.1\r\n\r\n\r\n"}, "404 page; "},
        {"grows past 5000 bytes", {big}, "200 OK /big; "},
        {"body just under the bound", {upload}, "200 OK /upload; "},
        {"header beyond the bound", {huge}, "400 page; closed"},
    };
    for (const SCase &c : cases)
        EXPECT_EQ(c.answers, Serve(c.arrivals)) << c.name;
    EXPECT_EQ(Items({"/three", "/one", "/three", "/", "/big", "/upload"}), m_handler.m_uris);
    EXPECT_EQ(std::vector<int>(6, 7), m_handler.EndedIDs());
    EXPECT_TRUE(m_handler.PullIDs().empty());
    EXPECT_EQ(nullptr, Data().m_pNotification) << "closed after the refused header";
    for (int size : Data().m_readSizes)
        EXPECT_LE(size, NVQ::CHTTPConnectionPoint::c_defaultMaxHeaderBytes);
}

// ---- The exchange

TEST_F(ConnectionPointTest, StreamIsPulledUntilThePieceMarkedLastOrANullOne)
{
    const std::string first(8194, 'a'), middle(8194, 'b'), last(3612, 'c');
    m_handler.m_onProcess = [&](NVQ::CHTTPRequest &, int) {
        Response response = makeResponse(200, "OK", first, false, false);
        response->AddHeaderField("Content-Length", "20000");
        return response;
    };
    int pulls = 0;
    m_handler.m_onPull = [&](int) {
        return ++pulls == 1 ? makeResponse(200, "OK", middle, false, true)
                            : makeResponse(200, "OK", last, true, true);
    };
    Request(c_getRoot);
    EXPECT_EQ(Items({"HTTP/1.1 ", "200 ", "OK", "\r\n", "Content-Length", ": ", "20000", "\r\n", "\r\n",
                     first, middle, last}),
              Data().WrittenItems());
    EXPECT_TRUE(Data().m_closes == 1 && Data().m_pNotification == nullptr);
    EXPECT_EQ(std::vector<int>({7}), m_handler.ProcessIDs());
    EXPECT_EQ(std::vector<int>({7, 7}), m_handler.PullIDs());
    EXPECT_EQ(std::vector<int>({7}), m_handler.EndedIDs());

    // A null piece ends the answer with an empty final piece.
    pulls = 0;
    m_handler.m_onProcess = [](NVQ::CHTTPRequest &, int) {
        return makeResponse(200, "OK", "first", false, false);
    };
    m_handler.m_onPull = [&](int) {
        return ++pulls == 1 ? makeResponse(200, "OK", "m1", false, true) : Response();
    };
    EXPECT_EQ("200 firstm1; closed", Serve({c_getRoot}));
    EXPECT_EQ(0, Data().m_writes.back().m_size);
    EXPECT_EQ(2, pulls);
    EXPECT_EQ(std::vector<int>({7, 7}), m_handler.EndedIDs());
    // No answer at all: 404, and nothing is pulled.
    m_handler.m_onProcess = [](NVQ::CHTTPRequest &, int) { return Response(); };
    EXPECT_EQ("404 page; ", Serve({c_getRoot}));
    EXPECT_EQ(4u, m_handler.PullIDs().size());
}

// The connection hears that the peer sends nothing more only when the
// request that ends it asked to close and nothing followed it.
TEST_F(ConnectionPointTest, ThePeerIsDoneWhenItsLastRequestAskedToCloseAndNothingFollowed)
{
    m_handler.m_onProcess = [](NVQ::CHTTPRequest &request, int) {
        // "/s" streams (and so closes in the reference mode); others are whole.
        return makeResponse(200, "OK", "x", request.GetUri() != "/s", false);
    };
    const std::string a = "GET /a HTTP/1.1\r\nHost: a\r\n", stream = "GET /s HTTP/1.1\r\nHost: a\r\n";
    const std::string close = "Connection: keep-alive, Close\r\n\r\n";
    const struct {
        const char *name;
        Items arrivals;
        bool strict, done;
    } cases[] = {
        {"asked to close", {stream + close}, false, true},
        {"a later request was cut",
         {a + close, a + std::string(NVQ::CHTTPConnectionPoint::c_defaultMaxHeaderBytes, 'h')},
         false,
         false},
        {"keep-alive", {stream + "\r\n"}, false, false},
        {"strict, asked to close", {a + close}, true, true},
        {"strict, HTTP/1.0 without asking", {"GET /a HTTP/1.0\r\n\r\n"}, true, false},
        {"strict, bytes behind the request", {stream + close + "GET"}, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        m_handler.m_onPull = [](int) { return makeResponse(200, "OK", "y", true, true); };
        Serve(c.arrivals, c.strict);
        EXPECT_EQ(1, Data().m_closes);
        EXPECT_EQ(c.done, Data().m_noMoreInput);
    }
}

// A slow peer holds the pulls until it is writable again; a stream that
// matched its declared length then keeps the connection when asked to.
TEST_F(ConnectionPointTest, StreamToASlowPeerWaitsUntilItIsWritable)
{
    std::string declared = "10";
    m_handler.StreamPieces({"first", "m1", "end"});
    m_handler.m_onProcess = [&](NVQ::CHTTPRequest &, int) {
        m_handler.m_nextPiece = 1;
        Response response = makeResponse(200, "OK", "first", false, false);
        response->AddHeaderField("Content-Length", declared);
        return response;
    };
    // Strict: the request that came behind it is answered once it is done.
    for (const bool strict : {false, true}) {
        Serve({}, strict);
        m_point->SetKeepAfterStream(true);
        Data().m_writable = false;
        Request(strict ? std::string(c_getRoot) + c_getRoot : c_getRoot);
        EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfirst", Data().WrittenBytes());
        Data().m_writable = true;
        Data().m_pNotification->OnDataSent(Data());
        if (!strict)
            Request(c_getRoot);
        EXPECT_EQ("200 firstm1end; 200 firstm1end; ",
                  NVQTest::summarize(Data().WrittenBytes(), Data().m_closes > 0));
    }
    EXPECT_EQ(std::vector<int>(4, 7), m_handler.EndedIDs());
    // Only plain digits, 18 at most, that match keep it.
    for (const char *length : {"000000000000000010", "0000000000000000010", "9", "1x", ""}) {
        declared = length;
        Serve({});
        m_point->SetKeepAfterStream(true);
        Request(c_getRoot);
        EXPECT_EQ(declared.size() == 18 ? 0 : 1, Data().m_closes) << length;
    }
}

TEST_F(ConnectionPointTest, FailedWriteDropsTheRestOfTheAnswer)
{
    // Write 0 is the status line's start, 5 the end of the header block,
    // 6 the first piece's data, 7 a later piece.
    for (int failing : {0, 3, 5, 6, 7}) {
        SCOPED_TRACE(failing);
        m_handler.StreamPieces({"first", "m1", "m2", "end"});
        Serve({});
        Data().m_failFromWrite = failing;
        Request(c_getRoot);
        EXPECT_EQ(1, Data().m_failedWrites) << "nothing is written after a write failed";
        EXPECT_EQ(static_cast<size_t>(failing), Data().m_writes.size());
        EXPECT_EQ(0, Data().m_closes) << "the framework closes a broken connection itself";
    }
    EXPECT_EQ(std::vector<int>(5, 7), m_handler.EndedIDs());
}

// ---- Framing: the same bytes in the lenient reference mode and in strict mode

TEST_F(ConnectionPointTest, FramingCasesInBothModesWholeSplitAndFollowed)
{
    m_handler.m_onProcess = NVQTest::echoRequest;
    for (const NVQTest::SFraming &c : NVQTest::c_framings) {
        SCOPED_TRACE(c.name);
        const std::string &bytes = c.bytes;
        // A request arrives in pieces as it likes: in both modes the answer
        // is the same whichever byte ends the first piece.
        Items single;
        for (size_t split = 0; split < bytes.size(); ++split) {
            const Items pieces = {bytes.substr(0, split), bytes.substr(split)};
            EXPECT_EQ(c.reference, Serve(pieces, false)) << "split at " << split;
            EXPECT_EQ(c.strict, Serve(pieces, true)) << "split at " << split;
            single.push_back(bytes.substr(split, 1));
        }
        EXPECT_EQ(c.strict, Serve(single, true)) << "byte by byte";
        // Strict: a request behind it in the same read is answered next,
        // unless the connection ended.
        const std::string strict = c.strict;
        const bool closes = strict.find("closed") != std::string::npos;
        EXPECT_EQ(closes ? strict : strict + "200 GET /next; ", Serve({bytes + NVQTest::c_next}, true));
    }
}

TEST_F(ConnectionPointTest, ExpectContinueOnlyForABodyThatWillBeRead)
{
    m_handler.m_onProcess = NVQTest::echoRequest;
    const std::string head = NVQTest::c_post + "Content-Length: 3\r\nExpect: 100-continue\r\n\r\n";
    EXPECT_EQ("100; 200 POST /a xyz; ", Serve({head, "xyz"}, true));
    EXPECT_EQ("200 POST /a xyz; ", Serve({head + "xyz"}, true)) << "a client that did not wait";
    EXPECT_EQ("200 POST /a xyz; ", Serve({head, "xyz"}, false)) << "reference: never";
    std::string unknown = head;
    unknown.replace(unknown.find("100-continue"), 12, "something");
    EXPECT_EQ("417 page; closed", Serve({unknown}, true));
    std::string nobody = head;
    nobody.replace(0, 7, "POST nobody"); // a target no handler takes
    EXPECT_EQ("404 page; closed", Serve({nobody}, true)) << "no handler: the body is never read";
}

} // namespace
