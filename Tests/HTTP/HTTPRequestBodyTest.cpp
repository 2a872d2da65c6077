#include "HTTP/HTTPConnectionPoint.h"
#include "HTTP/HTTPLayer.h"
#include "HTTP/IHTTPConnectionTaker.h"
#include "HTTP/IHTTPRequestBodyHandler.h"

#include "Support/FakeDataLayer.h"
#include "Support/ScriptedHandler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <string>
#include <vector>

// A nothrow array allocation of this size fails, as when memory runs out
// (0: none). HTTPRequestTest uses it too.
std::atomic<size_t> s_refusedArraySize{0};

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    if (size != 0 && size == s_refusedArraySize.load())
        return nullptr;
    try {
        return ::operator new[](size);
    } catch (...) {
        return nullptr;
    }
}

namespace
{

using NVQ::IHTTPRequestBodyHandler;
using NVQTest::CFakeDataLayer;
using NVQTest::makeResponse;

// Takes bodies as scripted, keeps what it was shown, and answers with the
// number of body bytes it got.
class CBodyHandler : public NVQTest::CScriptedHandler, public IHTTPRequestBodyHandler
{
  public:
    CBodyHandler()
    {
        m_onProcess = [this](NVQ::CHTTPRequest &request, int) {
            return makeResponse(200, "OK", "got " + std::to_string(m_body.size()) + " " + request.GetUri(),
                                true, false);
        };
    }
    SBodyDecision OnRequestHeaders(NVQ::CHTTPRequest &request, int) override
    {
        m_headers.push_back(request.GetMethod() + " " + request.GetUri() + " from " +
                            request.GetRemoteAddress() + (request.IsSecure() ? " secure" : ""));
        SBodyDecision decision;
        decision.m_choice = m_choice;
        decision.m_maxBodyBytes = m_limit;
        if (m_choice == eAnswerNow && m_withAnswer)
            decision.m_answer = makeResponse(401, "Unauthorized", "who?", true, false);
        return decision;
    }
    bool OnRequestBodyData(const unsigned char *data, size_t size, int) override
    {
        m_body.append(reinterpret_cast<const char *>(data), size);
        m_largestPiece = std::max(m_largestPiece, size);
        return m_stopAfter == 0 || m_body.size() < m_stopAfter;
    }
    void OnRequestBodyEnd(bool complete, int) override { m_ends.push_back(complete); }

    EBodyChoice m_choice = eTakeBody;
    bool m_withAnswer = true;
    uint64_t m_limit = 0;
    size_t m_stopAfter = 0; // refuse the rest once this many bytes came
    std::vector<std::string> m_headers;
    std::string m_body;
    size_t m_largestPiece = 0;
    std::vector<bool> m_ends;
};

class RequestBodyTest : public ::testing::Test
{
  protected:
    RequestBodyTest() { m_layer.RegisterHandler(m_handler, false); }

    // A fresh connection point; bytes arrive in the given pieces, each
    // delivered on its own.
    void Run(bool strict, const std::vector<std::string> &pieces)
    {
        m_point = static_cast<NVQ::CHTTPConnectionPoint *>(nullptr);
        m_data = new CFakeDataLayer();
        m_point = new NVQ::CHTTPConnectionPoint(*m_data.GetPtr(), m_layer, 3);
        m_point->SetStrict(strict);
        m_point->SetLimits(4096, m_bufferedBound);
        for (const std::string &piece : pieces) {
            m_data->Arrive(piece);
            m_data->DeliverData();
        }
    }

    KZF::CRefCountPtr<CFakeDataLayer> m_data;
    KZF::CRefCountPtr<NVQ::CHTTPConnectionPoint> m_point;
    NVQ::CHTTPLayer m_layer;
    CBodyHandler m_handler;
    long m_bufferedBound = 1024;
};

const char c_post[] = "POST /u HTTP/1.1\r\nHost: a\r\n";

// How a case ends: answered on a kept connection, or closed; a refusal is
// closed too, and how much of the body the handler saw before it depends on
// where the reads fall (nothing, when the parser refuses the whole request
// first): only its answer, its close and that no body ended complete count.
enum EEnd { eKept, eClosed, eRefused };

// The request after c_post, the start of what is written, and what the
// handler was shown.
struct SBodyCase {
    const char *m_name;
    bool m_strictOnly;
    IHTTPRequestBodyHandler::EBodyChoice m_choice;
    uint64_t m_limit;
    size_t m_stopAfter;
    std::string m_request, m_answer, m_body;
    std::vector<bool> m_ends;
    EEnd m_end;
};

typedef IHTTPRequestBodyHandler H;
const std::string c_chunked = "Transfer-Encoding: chunked\r\n\r\n";

// clang-format off
const SBodyCase c_cases[] = {
    {"length", false, H::eTakeBody, 0, 0, "Content-Length: 10\r\n\r\n0123456789", "HTTP/1.1 200 OK\r\nContent-Length: 9 \r\n\r\ngot 10 /u", "0123456789", {true}, eKept},
    {"chunked", true, H::eTakeBody, 0, 0, c_chunked + "4;x=1\r\nabcd\r\n2\r\nef\r\n0\r\nT: v\r\n\r\n", "HTTP/1.1 200 OK", "abcdef", {true}, eKept},
    {"two chunked bodies", true, H::eTakeBody, 0, 0, c_chunked + "2\r\nab\r\n0\r\n\r\n" + c_post + c_chunked + "1\r\nc\r\n0\r\n\r\n", "HTTP/1.1 200 OK", "abc", {true, true}, eKept},
    {"length over the handler's bound", false, H::eTakeBody, 5, 0, "Content-Length: 10\r\n\r\n0123456789", "HTTP/1.1 413 Payload Too Large", "", {}, eRefused},
    {"chunks over the handler's bound", true, H::eTakeBody, 5, 0, c_chunked + "4\r\nabcd\r\n4\r\nefgh\r\n0\r\n\r\n", "HTTP/1.1 413 Payload Too Large", "", {}, eRefused},
    {"malformed chunk", true, H::eTakeBody, 0, 0, c_chunked + "4\r\nabcdXY", "HTTP/1.1 400 Bad Request", "", {}, eRefused},
    {"handler stops the body", false, H::eTakeBody, 0, 1, "Content-Length: 3\r\n\r\nxyz", "HTTP/1.1 200 OK", "", {}, eRefused},
    {"answered at once", false, H::eAnswerNow, 0, 0, "Content-Length: 3\r\n\r\nxyz", "HTTP/1.1 401 Unauthorized", "", {}, eClosed},
    {"buffered within the server's bound", false, H::eBufferBody, 0, 0, "Content-Length: 3\r\n\r\nxyz", "HTTP/1.1 200 OK\r\nContent-Length: 8 \r\n\r\ngot 0 /u", "", {}, eKept},
    {"buffered beyond the server's bound", false, H::eBufferBody, 0, 0, "Content-Length: 2000\r\n\r\nxyz", "HTTP/1.1 413 Payload Too Large", "", {}, eClosed},
};
// clang-format on

// Every case in both modes, whole, split at every offset and byte by byte:
// where the reads fall must not matter.
TEST_F(RequestBodyTest, BodiesReachTheHandlerAsDecidedWhereverTheReadsFall)
{
    for (const SBodyCase &c : c_cases) {
        const std::string request = c_post + c.m_request;
        std::vector<std::vector<std::string>> feeds;
        std::vector<std::string> bytes;
        for (size_t cut = 0; cut < request.size(); ++cut) {
            feeds.push_back({request.substr(0, cut), request.substr(cut)});
            bytes.push_back(request.substr(cut, 1));
        }
        feeds.push_back(bytes);
        for (bool strict : {false, true}) {
            for (size_t f = 0; f < feeds.size() && (strict || !c.m_strictOnly); ++f) {
                m_handler.m_choice = c.m_choice;
                m_handler.m_limit = c.m_limit;
                m_handler.m_stopAfter = c.m_stopAfter;
                m_handler.m_body.clear();
                m_handler.m_ends.clear();
                Run(strict, feeds[f]);
                SCOPED_TRACE(std::string(c.m_name) + (strict ? ", strict" : "") + ", feed " +
                             std::to_string(f));
                EXPECT_EQ(0u, m_data->WrittenBytes().find(c.m_answer)) << m_data->WrittenBytes();
                if (c.m_end == eRefused) {
                    EXPECT_EQ(m_handler.m_ends.end(),
                              std::find(m_handler.m_ends.begin(), m_handler.m_ends.end(), true));
                } else {
                    EXPECT_EQ(c.m_body, m_handler.m_body);
                    EXPECT_EQ(c.m_ends, m_handler.m_ends);
                }
                EXPECT_EQ(c.m_end == eKept ? 0 : 1, m_data->m_closes);
                EXPECT_FALSE(m_data->m_receivingBody);
            }
        }
    }
}

TEST_F(RequestBodyTest, ContinueIsSentOnlyForABodyTheHandlerTakes)
{
    const std::string head = std::string(c_post) + "Expect: 100-continue\r\nContent-Length: 3\r\n\r\n";
    for (bool strict : {false, true}) {
        m_handler.m_choice = H::eTakeBody;
        Run(strict, {head, "abc"});
        EXPECT_EQ(0u, m_data->WrittenBytes().find("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK"))
            << strict << m_data->WrittenBytes();
        // An answer at once, and one without an answer: 404.
        m_handler.m_choice = H::eAnswerNow;
        for (const bool withAnswer : {true, false}) {
            m_handler.m_withAnswer = withAnswer;
            Run(strict, {head});
            EXPECT_EQ(0u, m_data->WrittenBytes().find(withAnswer ? "HTTP/1.1 401" : "HTTP/1.1 404 "))
                << strict;
            EXPECT_EQ(1, m_data->m_closes) << strict;
        }
        m_handler.m_withAnswer = true;
    }
}

TEST_F(RequestBodyTest, LargeBodyIsReadInBoundedHelpingsAndTheNextRequestFollows)
{
    const size_t size = 3 * 1024 * 1024;
    const std::string body(size, 'b');
    m_bufferedBound = NVQ::CHTTPConnectionPoint::c_defaultMaxBodyBytes;
    Run(true, {});
    m_data->Arrive(std::string(c_post) + "Content-Length: " + std::to_string(size) + "\r\n\r\n" + body +
                   "GET /next HTTP/1.1\r\nHost: a\r\n\r\n");
    int deliveries = 0;
    while (!m_data->m_pending.empty() && deliveries < 100) {
        m_data->DeliverData();
        ++deliveries;
    }
    EXPECT_GE(deliveries, 3) << "one notification reads a bounded share of the body";
    EXPECT_LE(m_handler.m_largestPiece, 65536u);
    for (int size : m_data->m_readSizes)
        EXPECT_LE(size, 65536);
    EXPECT_EQ(body, m_handler.m_body);
    const std::string written = m_data->WrittenBytes();
    EXPECT_NE(std::string::npos, written.find("got 3145728 /u"));
    EXPECT_NE(std::string::npos, written.find("/next")) << "the request after the body is answered";
}

// Cut short by the peer's close, or for want of memory for the body's
// buffer: the body ends incomplete and unanswered.
TEST_F(RequestBodyTest, BodyCutShortEndsIncompleteWithoutAnAnswer)
{
    const std::string request = std::string(c_post) + "Content-Length: 10\r\n\r\n01234";
    Run(false, {request});
    EXPECT_TRUE(m_data->m_receivingBody) << "the request timeout counts from the last byte";
    m_data->DeliverClose();
    EXPECT_EQ(std::vector<std::string>({"POST /u from 192.0.2.7:51234"}), m_handler.m_headers);
    EXPECT_EQ("01234", m_handler.m_body);
    s_refusedArraySize = 65536;
    Run(false, {request});
    s_refusedArraySize = 0;
    EXPECT_EQ(1, m_data->m_closes) << "without a buffer the connection ends";
    EXPECT_EQ(std::vector<bool>({false, false}), m_handler.m_ends);
    EXPECT_TRUE(m_handler.ProcessIDs().empty());
    EXPECT_EQ("", m_data->WrittenBytes());
}

class CTaker : public NVQ::IHTTPConnectionTaker
{
  public:
    void TakeConnection(NVQ::INVQDataLayer &connection, const unsigned char *buffered, size_t size,
                        int connectionID) override
    {
        m_pConnection = &connection;
        m_buffered.assign(reinterpret_cast<const char *>(buffered), size);
        m_connectionID = connectionID;
    }
    NVQ::INVQDataLayer *m_pConnection = nullptr;
    std::string m_buffered;
    int m_connectionID = 0;
};

TEST_F(RequestBodyTest, AnAnswerWithATakerHandsTheConnectionOverAfterItsHeaderBlock)
{
    KZF::CRefCountPtr<CTaker> taker(new CTaker());
    m_handler.m_choice = H::eBufferBody;
    m_handler.m_onProcess = [&](NVQ::CHTTPRequest &, int) {
        KZF::CRefCountPtr<NVQ::CHTTPResponse> answer =
            makeResponse(101, "Switching Protocols", "", false, false);
        answer->AddHeaderField("Upgrade", "websocket");
        answer->SetConnectionTaker(taker.GetPtr());
        return answer;
    };
    for (bool strict : {false, true}) {
        taker->m_pConnection = nullptr;
        Run(strict, {"GET /ws HTTP/1.1\r\nHost: a\r\n\r\nframe"});
        EXPECT_EQ("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n", m_data->WrittenBytes())
            << strict;
        EXPECT_EQ(m_data.GetPtr(), taker->m_pConnection) << strict;
        EXPECT_EQ(strict ? "frame" : "", taker->m_buffered)
            << "only strict parsing knows where the request ended";
        EXPECT_EQ(3, taker->m_connectionID);
        EXPECT_EQ(0, m_data->m_closes) << strict;
        EXPECT_TRUE(m_handler.PullIDs().empty());
        EXPECT_EQ(std::vector<int>(strict ? 2 : 1, 3), m_handler.EndedIDs()) << "the exchange ends at once";
    }
}

} // namespace
