#include "HTTP/HTTPAccessGuard.h"
#include "HTTP/HTTPUploadHandler.h"
#include "Support/ScriptedHandler.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

using NVQ::CHTTPAccessGuard;
using NVQ::IHTTPRequestBodyHandler;

// The example exchange of RFC 7616 section 3.9.1; the responses were
// computed with Python's hashlib (the two for nc=00000001 are the RFC's).
const std::string c_realm = "http-auth@example.org";
const std::string c_nonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
const std::string c_opaque = "FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS";
const std::string c_md5 = "8ca523f5e9506fed4657c9700eebdbec";
const std::string c_md5Nc2 = "4b5d595ecf2db9df612ea5b45cd97101";
const std::string c_sha = "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1";
const std::string c_shaNc2 = "8c8db27f49ff1c202f9fb49fa9d2e9eabf078dcc93db40dfd6527010091d1c8e";
const std::string c_shaNc3 = "54663e8396d8575e63a71a9d8dd8e6f6c41641561b7fcc8e74b87c4512a26d57";
const std::string c_shaWrongPassword = "f39a30940fd0108b4c246b6fc0d8d17d42ebe56aa9cbe0357a6db783b0cd08c5";
const std::string c_shaPut = "7f20401b8f441a61a35d9ba823df93a023817500e0df28aad6528596c4959613";
const std::string c_basic = "Basic TXVmYXNhOkNpcmNsZSBvZiBMaWZl"; // Mufasa:Circle of Life

std::string Digest(const std::string &algorithm, const std::string &nc, const std::string &response,
                   const std::string &user = "Mufasa", const std::string &realm = c_realm,
                   const std::string &uri = "/dir/index.html")
{
    return "Digest username=\"" + user + "\", realm=\"" + realm + "\", uri=\"" + uri +
           "\", algorithm=" + algorithm + ", nonce=\"" + c_nonce + "\", nc=" + nc +
           ", cnonce=\"f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ\", qop=auth, response=\"" + response +
           "\", opaque=\"" + c_opaque + "\"";
}

struct SStep {
    std::string authorization; // empty: none
    int code;                  // 200: the wrapped handler answered
    bool stale = false;
    bool secure = false;
    int64_t advance = 0; // seconds on the clock before the request
    std::string address = "192.0.2.7:5000";
};

struct SFixture {
    SFixture() : handler("/")
    {
        options.m_realm = c_realm, options.m_opaque = c_opaque, options.m_allowBasic = true;
        options.m_newNonce = [] { return c_nonce; };
        options.m_clock = [this] { return now; };
        options.m_maxFailures = 3, options.m_maxClients = 2;
    }
    int64_t now = 1000;
    NVQTest::CScriptedHandler handler;
    CHTTPAccessGuard::SOptions options;
};

KZF::CRefCountPtr<NVQ::CHTTPResponse> Send(CHTTPAccessGuard &guard, const SStep &step, int id = 1,
                                           const std::string &uri = "/dir/index.html")
{
    KZF::CRefCountPtr<NVQ::CHTTPRequest> request(new NVQ::CHTTPRequest());
    request->SetMethod("GET");
    request->SetUri(uri);
    request->SetRemoteAddress(step.address);
    request->SetSecure(step.secure);
    if (!step.authorization.empty())
        request->AddHeaderField("Authorization", step.authorization);
    KZF::CRefCountPtr<NVQ::CHTTPResponse> answer = guard.ProcessRequest(*request, id);
    guard.OnExchangeEnded(id);
    return answer;
}

std::string Field(const KZF::CRefCountPtr<NVQ::CHTTPResponse> &answer, const char *name)
{
    KZF::tstring value;
    answer->GetHeaderFieldValueByName(name, value);
    return value;
}

// Mufasa alone, with the RFC's password in plain text.
void knowMufasa(CHTTPAccessGuard &guard)
{
    guard.SetUserLookup(
        [](const std::string &user, CHTTPAccessGuard::SCredentials &credentials) {
            credentials.m_password = "Circle of Life";
            return user == "Mufasa";
        },
        true);
}

TEST(HTTPAccessGuardTest, AuthorizationSequences)
{
    const std::string sha1 = Digest("SHA-256", "00000001", c_sha);
    const std::string other = "198.51.100.1:80", wrong = "Basic TXVmYXNhOng=";
    const struct {
        const char *name;
        int challenges; // requests without credentials first: each issues a nonce
        std::vector<SStep> steps;
        size_t maxNonces = 4096;
    } cases[] = {
        // clang-format off
        {"SHA-256", 1, {{sha1, 200}}}, {"MD5", 1, {{Digest("MD5", "00000001", c_md5), 200}}},
        {"wrong password", 1, {{Digest("SHA-256", "00000001", c_shaWrongPassword), 401}}},
        {"wrong user", 1, {{Digest("SHA-256", "00000001", c_sha, "Simba"), 401}}},
        {"wrong realm", 1, {{Digest("SHA-256", "00000001", c_sha, "Mufasa", "other"), 401}}},
        {"wrong URI", 1, {{Digest("SHA-256", "00000001", c_sha, "Mufasa", c_realm, "/x"), 400}}},
        {"stale nonce", 1, {{sha1, 401, true, false, 301}}}, {"nonce never issued", 0, {{sha1, 401, true}}},
        {"replayed nc", 1, {{sha1, 200}, {sha1, 401}}},
        {"nc out of order", 1, {{Digest("SHA-256", "00000002", c_shaNc2), 200}, {sha1, 200}, {sha1, 401}}},
        {"replayed below the highest nc", 1, {{sha1, 200}, {Digest("SHA-256", "00000002", c_shaNc2), 200}, {sha1, 401}}},
        {"algorithm swapped", 1, {{Digest("MD5", "00000001", c_sha), 401}}}, {"empty", 1, {{"Digest ", 400}}},
        {"short nc", 1, {{Digest("SHA-256", "1", c_sha), 400}}},
        {"upper-case hex nc", 1, {{Digest("SHA-256", "0000000F", c_sha), 401}}},
        {"oldest nonce pushed out", 2, {{sha1, 401, true}}, 1}, {"parameter twice", 1, {{sha1 + ", qop=auth", 400}}},
        {"Basic over plain HTTP", 1, {{c_basic, 401}}}, {"Basic over TLS", 1, {{c_basic, 200, false, true}}},
        {"Basic, wrong password", 1, {{wrong, 401, false, true}}},
        {"Basic, not base64", 1, {{"Basic *", 400, false, true}}},
        {"throttled per address, then forgiven", 1,
         {{wrong, 401, false, true}, {wrong, 401, false, true, 0, "192.0.2.7:5001"}, {"Bearer x", 401}, {sha1, 429},
          {sha1, 200, false, false, 0, other}, {Digest("SHA-256", "00000002", c_shaNc2), 200, false, false, 60}}},
        // Two addresses tracked at most: a third one pushes out an ended
        // window, not the (first in order) one still throttled.
        {"full table drops ended windows first", 0,
         {{wrong, 401, false, true, 0, "192.0.2.9:1"}, {wrong, 401, false, true, 1, "192.0.2.1:1"},
          {wrong, 401, false, true, 0, "192.0.2.1:1"}, {wrong, 401, false, true, 0, "192.0.2.1:1"},
          {wrong, 401, false, true, 59, "192.0.2.5:1"}, {c_basic, 429, false, true, 0, "192.0.2.1:1"}}},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SFixture fixture;
        int issued = 0; // the first nonce is the RFC's
        fixture.options.m_newNonce = [&issued] { return issued++ == 0 ? c_nonce : std::to_string(issued); };
        fixture.options.m_maxNonces = c.maxNonces;
        CHTTPAccessGuard guard(fixture.handler, fixture.options);
        knowMufasa(guard);
        for (int i = 0; i < c.challenges; ++i)
            EXPECT_EQ(401, Send(guard, SStep{"", 401})->GetCode());
        size_t delegated = 0;
        for (const SStep &step : c.steps) {
            SCOPED_TRACE(step.authorization);
            fixture.now += step.advance;
            const KZF::CRefCountPtr<NVQ::CHTTPResponse> answer = Send(guard, step);
            EXPECT_EQ(step.code, answer->GetCode());
            delegated += step.code == 200;
            const bool stale = Field(answer, "WWW-Authenticate").find("stale=true") != std::string::npos;
            EXPECT_TRUE(step.code != 401 || step.stale == stale);
        }
        EXPECT_EQ(delegated, fixture.handler.ProcessIDs().size());
        EXPECT_EQ(delegated, fixture.handler.EndedIDs().size());
    }
}

TEST(HTTPAccessGuardTest, ChallengesAndUsersFile)
{
    SFixture fixture;
    CHTTPAccessGuard guard(fixture.handler, fixture.options);
    char path[] = "/tmp/nvq-users-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "# htdigest\n\nMufasa:" << c_realm << ":3D78807DEFE7DE2157E2B0B6573A855F\r\n"
                        << "Mufasa:elsewhere:00000000000000000000000000000000\n";
    ASSERT_TRUE(guard.LoadUsersFile(path));

    // MD5 hashes alone: SHA-256 is neither offered nor accepted.
    KZF::CRefCountPtr<NVQ::CHTTPResponse> answer = Send(guard, SStep{"", 401, false, true});
    EXPECT_EQ("Digest realm=\"" + c_realm + "\", qop=\"auth\", algorithm=MD5, nonce=\"" + c_nonce +
                  "\", opaque=\"" + c_opaque + "\"",
              Field(answer, "WWW-Authenticate"));
    EXPECT_EQ("Basic realm=\"" + c_realm + "\", charset=\"UTF-8\"", Field(answer, "Www-Authenticate"));
    EXPECT_EQ("", Field(answer, "WWW-authenticate"));
    EXPECT_EQ(401, Send(guard, SStep{Digest("SHA-256", "00000001", c_sha), 0})->GetCode());
    EXPECT_EQ(200, Send(guard, SStep{Digest("MD5", "00000001", c_md5), 0})->GetCode());
    EXPECT_EQ(200, Send(guard, SStep{c_basic, 0, false, true})->GetCode());

    // A broken file changes nothing; a SHA-256 line brings SHA-256 first.
    for (const std::string &broken : {":" + c_realm + ":3D78807DEFE7DE2157E2B0B6573A855F",
                                      "Mufasa:" + c_realm + ":xyz", "#" + std::string(1 << 20, 'x')}) {
        std::ofstream(path) << broken << "\n";
        EXPECT_FALSE(guard.LoadUsersFile(path)) << broken.substr(0, 40);
    }
    EXPECT_EQ(200, Send(guard, SStep{Digest("MD5", "00000002", c_md5Nc2), 0})->GetCode());
    std::ofstream(path) << "Mufasa:" << c_realm
                        << ":7987c64c30e25f1b74be53f966b49b90f2808aa92faf9a00262392d7b4794232\n";
    ASSERT_TRUE(guard.LoadUsersFile(path));
    answer = Send(guard, SStep{"", 401});
    EXPECT_NE(std::string::npos, Field(answer, "WWW-Authenticate").find("algorithm=SHA-256"));
    EXPECT_NE(std::string::npos, Field(answer, "WWW-authenticate").find("algorithm=MD5"));
    EXPECT_EQ("", Field(answer, "Www-Authenticate")); // no Basic over plain HTTP
    // The same nonce again (fixed here): counts 1 and 2 are spent.
    EXPECT_EQ(200, Send(guard, SStep{Digest("SHA-256", "00000003", c_shaNc3), 0})->GetCode());
    unlink(path);
}

TEST(HTTPAccessGuardTest, BodiesGoToTheWrappedHandlerOnceAuthorised)
{
    char directory[] = "/tmp/nvq-guarded-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory));
    NVQ::CHTTPUploadHandler::SOptions uploadOptions;
    uploadOptions.m_directory = directory;
    NVQ::CHTTPUploadHandler upload(uploadOptions);
    SFixture fixture;
    fixture.options.m_uriPrefix = "/upload";
    CHTTPAccessGuard guard(upload, fixture.options);
    knowMufasa(guard);

    KZF::CRefCountPtr<NVQ::CHTTPRequest> request(new NVQ::CHTTPRequest());
    request->SetMethod("PUT");
    request->SetUri("/upload/x");
    IHTTPRequestBodyHandler::SBodyDecision decision = guard.OnRequestHeaders(*request, 4);
    EXPECT_EQ(IHTTPRequestBodyHandler::eAnswerNow, decision.m_choice);
    EXPECT_EQ(401, decision.m_answer->GetCode());

    // Checked once, at the header block: ProcessRequest spends no nc again.
    request->AddHeaderField("Authorization",
                            Digest("SHA-256", "00000001", c_shaPut, "Mufasa", c_realm, "/upload/x"));
    decision = guard.OnRequestHeaders(*request, 4);
    EXPECT_EQ(IHTTPRequestBodyHandler::eTakeBody, decision.m_choice);
    EXPECT_TRUE(guard.OnRequestBodyData(reinterpret_cast<const unsigned char *>("data"), 4, 4));
    guard.OnRequestBodyEnd(true, 4);
    const KZF::CRefCountPtr<NVQ::CHTTPResponse> answer = guard.ProcessRequest(*request, 4);
    guard.OnExchangeEnded(4);
    EXPECT_EQ(std::string("{\"stored\":[{\"name\":\"x\",\"size\":4}]}"),
              std::string(reinterpret_cast<const char *>(answer->GetData()), answer->GetDataSize()));
    unlink((std::string(directory) + "/x").c_str());
    rmdir(directory);

    // Outside the prefix nothing is asked for.
    SFixture open;
    open.options.m_uriPrefix = "/admin";
    CHTTPAccessGuard partial(open.handler, open.options);
    EXPECT_EQ(200, Send(partial, SStep{"", 0}, 2, "/index.html")->GetCode());
    EXPECT_EQ(401, Send(partial, SStep{"", 0}, 3, "/admin/x")->GetCode());
    EXPECT_EQ(std::vector<int>{2}, open.handler.EndedIDs());
}

} // namespace
