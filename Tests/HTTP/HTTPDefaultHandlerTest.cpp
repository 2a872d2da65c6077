#include "HTTP/HTTPDefaultHandler.h"
#include "HTTP/HTTPDate.h"
#include "HTTP/HTTPServer.h"

#include "Support/TestClient.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{

using NVQTest::CTestClient;

int openDescriptors()
{
    int count = 0;
    DIR *directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr)
        ++count;
    closedir(directory);
    return count;
}

std::string randomBytes(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char &c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

// A served directory in a temporary place, with a secret file beside it
// that no request may reach.
class CSite
{
  public:
    CSite()
    {
        char base[] = "/tmp/nvq-files-XXXXXX";
        m_base = mkdtemp(base);
        m_root = m_base + "/site";
        mkdir(m_root.c_str(), 0755);
        mkdir((m_root + "/sub").c_str(), 0755);
        Write(m_base + "/secret.txt", "secret");
        // clang-format off
        const char *files[][2] = {
            {"index.html", "<p>home</p>"}, {"sub/index.html", "<p>sub</p>"}, {"a b.txt", "spaced"}, {"a", "just a"},
            {"x\\y.txt", "backslash"}, {"...txt", "dots"}, {"app.3f9a1c2e.js", "js"}};
        // clang-format on
        for (const auto &file : files)
            Write(m_root + "/" + file[0], file[1]);
        for (size_t size : {0, 1, 8194, 8195, 20000})
            Write(m_root + "/f" + std::to_string(size), randomBytes(size, static_cast<unsigned>(size)));
        Write(m_root + "/large", randomBytes(3 * 1024 * 1024 + 17, 7));
        symlink((m_root + "/a").c_str(), (m_root + "/link").c_str());
        mkfifo((m_root + "/fifo").c_str(), 0644);
    }
    ~CSite()
    {
        std::string command = "rm -rf '" + m_base + "'";
        if (system(command.c_str()) != 0)
            ADD_FAILURE() << "could not remove " << m_base;
    }
    void Write(const std::string &path, const std::string &bytes)
    {
        std::ofstream(path, std::ios::binary) << bytes;
    }
    std::string Read(const std::string &name)
    {
        std::ifstream in(m_root + "/" + name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    std::string m_base;
    std::string m_root;
};

class DefaultHandlerTest : public ::testing::Test
{
  protected:
    KZF::CRefCountPtr<NVQ::CHTTPResponse> Get(const std::string &uri, int id,
                                              const std::string &method = "GET", const char *range = nullptr,
                                              NVQ::CHTTPDefaultHandler *handler = nullptr)
    {
        NVQ::CHTTPRequest request;
        request.SetMethod(method);
        request.SetUri(uri);
        if (range != nullptr)
            request.AddHeaderField("Range", range);
        return (handler != nullptr ? *handler : m_handler).ProcessRequest(request, id);
    }

    CSite m_site;
    NVQ::CHTTPDefaultHandler m_handler{m_site.m_root};
};

TEST_F(DefaultHandlerTest, UrisMapToFilesBelowTheDirectoryAndNoFurther)
{
    const struct {
        const char *uri;
        bool accepted;
    } rows[] = {
        // clang-format off
        {"/", true}, {"/index.html?x=1", true}, {"/sub/", true},
        {"/sub", false}, // "sub" + "index.html" names no file
        {"/a%20b.txt", true}, {"/a%3Fb.txt", true}, // decoded before the cut: looks for "a"
        {"/f1", true}, {"/missing", false}, {"/link", true}, {"/...txt", true}, {"/fifo", false},
        {"//sub/index.html", true}, // one leading '/' is dropped, the path stays inside
        // Traversal in every spelling.
        {"/../secret.txt", false}, {"/%2e%2e/secret.txt", false}, {"/%2E%2E/secret.txt", false},
        {"/.%2e/secret.txt", false}, {"/%2e./secret.txt", false}, {"/sub/../../secret.txt", false},
        {"/..%2Fsecret.txt", false}, {"/%2e%2e%2fsecret.txt", false}, {"//../secret.txt", false},
        {"/%2E%2E%2F%2E%2E%2Fsite/index.html", false}, {"/sub/%2e%2e/index.html", false},
        {"/..%5Csecret.txt", false}, {"/x%5Cy.txt", false}, {"/x\\y.txt", false}, {"/index.html%00.png", false},
        {"/..", false}, {"/sub/..", false}, {"/%2e%2e", false}, {"/sub/..?x=/", false},
        // clang-format on
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.accepted, m_handler.CanProcessUri(row.uri)) << row.uri;
        EXPECT_EQ(row.accepted, !Get(row.uri, 1).IsNull()) << row.uri;
    }
    EXPECT_EQ(m_site.m_root + "/sub/index.html", m_handler.GetResourcePath("/sub/?x"));
    EXPECT_EQ(m_site.m_root + "/a", m_handler.GetResourcePath("/a"));
}

TEST_F(DefaultHandlerTest, TransfersReleaseTheirStreams)
{
    const int before = openDescriptors();
    ASSERT_FALSE(Get("/f20000", 1).IsNull());
    EXPECT_EQ(before + 1, openDescriptors());
    ASSERT_FALSE(Get("/f20000", 1).IsNull()) << "a second GET replaces the first transfer";
    EXPECT_EQ(before + 1, openDescriptors());
    EXPECT_TRUE(Get("/f0", 1).IsNull() && Get("/f1", 1, "POST").IsNull() && Get("/f1", 1, "get").IsNull());
    EXPECT_EQ(before, openDescriptors()) << "any other request ends it; no answer, no stream left open";
    ASSERT_FALSE(Get("/f20000", 1).IsNull());
    ASSERT_FALSE(Get("/f8195", 2).IsNull());
    EXPECT_EQ(before + 2, openDescriptors());
    EXPECT_TRUE(m_handler.InterruptProcessing()); // says no more than that some connection closed
    m_handler.OnExchangeEnded(1);                 // cut short: released at once
    EXPECT_EQ(before + 1, openDescriptors());
    ASSERT_FALSE(m_handler.GetAdditionalResponseData(2).IsNull()); // the last piece closes it
    EXPECT_EQ(before, openDescriptors());
    m_handler.OnExchangeEnded(2); // already gone: harmless
    EXPECT_EQ(before, openDescriptors());
    {
        NVQ::CHTTPDefaultHandler handler(m_site.m_root);
        ASSERT_FALSE(Get("/large", 1, "GET", nullptr, &handler).IsNull());
        ASSERT_FALSE(Get("/large", 2, "GET", nullptr, &handler).IsNull());
        EXPECT_EQ(before + 2, openDescriptors());
    }
    EXPECT_EQ(before, openDescriptors()) << "the handler closes every stream when it goes";
}

// Each option alone leaves the reference path: what it adds is there.
TEST_F(DefaultHandlerTest, EachOptionAloneTakesEffect)
{
    using SOptions = NVQ::CHTTPDefaultHandler::SFileOptions;
    const struct {
        const char *method, *uri, *field;
        void (*set)(SOptions &);
        const char *range = nullptr;
    } rows[] = {
        {"HEAD", "/f1", "Content-Length", [](SOptions &o) { o.m_head = true; }},
        {"GET", "/f1", "ETag", [](SOptions &o) { o.m_validators = true; }},
        {"GET", "/f1", "Content-Range", [](SOptions &o) { o.m_ranges = true; }, "bytes=0-0 \t"},
        {"GET", "/f1", "Vary", [](SOptions &o) { o.m_precompressed = true; }},
        {"GET", "/f1", "Cache-Control", [](SOptions &o) { o.m_cacheControl = "no-cache"; }},
        {"GET", "/app.3f9a1c2e.js", "Cache-Control", [](SOptions &o) { o.m_hashedImmutable = true; }},
    };
    for (const auto &row : rows) {
        SOptions options;
        row.set(options);
        m_handler.SetOptions(options);
        const KZF::CRefCountPtr<NVQ::CHTTPResponse> answer = Get(row.uri, 1, row.method, row.range);
        KZF::tstring value;
        EXPECT_TRUE(!answer.IsNull() && answer->GetHeaderFieldValueByName(row.field, value)) << row.field;
    }
}

// A trusted lookup spares the file system only for files it found, only
// for the same path, and only for its lifetime. A small file old enough for
// the content cache (only a link gives one here) is then not even opened, so
// within the lifetime its removal goes unseen.
TEST_F(DefaultHandlerTest, FoundFilesAreTrustedForTheLookupLifetimeOnly)
{
    struct stat old;
    if (stat("/etc/os-release", &old) != 0 || old.st_size > 8194 || time(nullptr) - old.st_ctime < 10)
        GTEST_SKIP() << "no small, old file to link to";
    CSite other; // the same names in another directory, on the same thread
    const struct {
        int64_t lifetimeMs;
        int waitMs;
        bool web, removedStillServed;
    } rows[] = {{0, 0, false, false}, {60000, 0, false, true}, {60000, 0, true, true}, {1, 30, false, false}};
    int round = 0;
    for (const auto &row : rows) {
        const std::string name = "/t" + std::to_string(round++);
        NVQ::CHTTPDefaultHandler::SFileOptions options;
        options.m_lookupLifetimeMs = row.lifetimeMs;
        options.m_validators = row.web;
        m_handler.SetOptions(options);
        NVQ::CHTTPDefaultHandler otherHandler(other.m_root);
        otherHandler.SetOptions(options);

        EXPECT_FALSE(m_handler.CanProcessUri(name)) << "nothing there yet";
        symlink("/etc/os-release", (m_site.m_root + name).c_str());
        EXPECT_TRUE(m_handler.CanProcessUri(name)) << row.lifetimeMs << ": a miss is never kept";
        EXPECT_FALSE(otherHandler.CanProcessUri(name)) << row.lifetimeMs << ": another directory's file";
        ASSERT_FALSE(Get(name, 1).IsNull());
        unlink((m_site.m_root + name).c_str());
        usleep(row.waitMs * 1000);
        EXPECT_EQ(row.removedStillServed, m_handler.CanProcessUri(name)) << row.lifetimeMs;
        EXPECT_EQ(row.removedStillServed, !Get(name, 1).IsNull()) << row.lifetimeMs << row.web;
        // Found files fill the table; paths never found share their slots.
        for (const char *found : {"/", "/sub/", "/a", "/f0", "/f1", "/f8194", "/f8195", "/f20000", "/large"})
            EXPECT_TRUE(m_handler.CanProcessUri(found)) << found;
        for (char c = 'a'; c <= 'z'; ++c)
            EXPECT_FALSE(m_handler.CanProcessUri(name + c)) << "a path that is not one found";
    }
}

// ---- Over real sockets

class DefaultHandlerServerTest : public DefaultHandlerTest
{
  protected:
    void SetUp() override { Start(false); }
    // The reference server, or the strict one that keeps connections after
    // streamed answers.
    void Start(bool strict)
    {
        m_server.RegisterHandler(m_handler, false);
        NVQ::SHTTPServerOptions options;
        options.m_port = 0;
        options.m_strict = options.m_keepAfterStream = strict;
        ASSERT_TRUE(m_server.StartServer(options));
    }
    void TearDown() override
    {
        m_server.StopServer();
        m_server.UnregisterHandler(m_handler);
    }
    // Sizes past 4 GiB wrap in a 32-bit off_t, long or size_t: /beyond4g is a
    // sparse file of 4 GiB + 3 bytes with "bcd" across the 4 GiB mark.
    void MakeBeyondFourGiB()
    {
        const int fd = ::open((m_site.m_root + "/beyond4g").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        const off_t fourGiB = static_cast<off_t>(int64_t{1} << 32);
        ASSERT_TRUE(fd >= 0 && ::ftruncate(fd, fourGiB + 3) == 0 && ::pwrite(fd, "bcd", 3, fourGiB - 1) == 3);
        ::close(fd);
    }

    NVQ::CHTTPServer m_server;
};

// The default answers byte for byte: complete ones on a kept connection,
// streamed ones closing it.
TEST_F(DefaultHandlerServerTest, AnswersInTheirWireForm)
{
    const std::string notFound = "HTTP/1.1 404 Not found\r\nContent-Length: 406 \r\n";
    const struct {
        const char *method, *uri;
        std::string answerStart;
        bool closes = false;
    } rows[] = {
        {"GET", "/f1", "HTTP/1.1 200 OK\r\nContent-Length: 1 \r\n\r\n" + m_site.Read("f1")},
        {"GET", "/f8194", "HTTP/1.1 200 OK\r\nContent-Length: 8194 \r\n\r\n" + m_site.Read("f8194")},
        {"GET", "/f8194", "HTTP/1.1 200 OK\r\nContent-Length: 8194 \r\n\r\n" + m_site.Read("f8194")},
        {"GET", "/", "HTTP/1.1 200 OK\r\nContent-Length: 11 \r\n\r\n<p>home</p>"},
        {"GET", "/sub/", "HTTP/1.1 200 OK\r\nContent-Length: 10 \r\n\r\n<p>sub</p>"},
        {"GET", "/a%20b.txt", "HTTP/1.1 200 OK\r\nContent-Length: 6 \r\n\r\nspaced"},
        {"POST", "/a", notFound},
        {"GET", "/f0", notFound},
        {"GET", "/../secret.txt", notFound},
        {"GET", "/%2E%2e/secret.txt", notFound},
        {"GET", "/sub/..%2f..%2fsecret.txt", notFound},
        {"GET", "/fifo", notFound},
        {"GET", "/f8195", "HTTP/1.1 200 OK\r\nContent-Length: 8195\r\n\r\n" + m_site.Read("f8195"), true},
        {"GET", "/f20000", "HTTP/1.1 200 OK\r\nContent-Length: 20000\r\n\r\n" + m_site.Read("f20000"), true},
        {"GET", "/large", "HTTP/1.1 200 OK\r\nContent-Length: 3145745\r\n\r\n" + m_site.Read("large"), true},
    };
    CTestClient client;
    for (const auto &row : rows) {
        ASSERT_TRUE((client.Fd() >= 0 && !client.IsClosed()) || client.Connect(m_server.GetPort()));
        client.Send(std::string(row.method) + " " + row.uri + " HTTP/1.1\r\nHost: t\r\n\r\n");
        const std::string answer = client.ReceiveAnswer();
        EXPECT_TRUE(answer.compare(0, row.answerStart.size(), row.answerStart) == 0)
            << row.method << " " << row.uri << ": " << answer.substr(0, 60);
        EXPECT_EQ(std::string::npos, answer.find("secret")) << row.uri;
        EXPECT_EQ(row.closes, client.WaitClosed(row.closes ? 5000 : 0)) << row.uri;
    }
}

TEST_F(DefaultHandlerServerTest, SparseFileBeyondFourGiBIsAnnouncedExactly)
{
    ASSERT_NO_FATAL_FAILURE(MakeBeyondFourGiB());
    CTestClient client;
    ASSERT_TRUE(client.Connect(m_server.GetPort()));
    client.Send("GET /beyond4g HTTP/1.1\r\nHost: t\r\n\r\n");
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 4294967299\r\n\r\n";
    EXPECT_EQ(head + std::string(1000, '\0'), client.Receive(head.size() + 1000, 20000));
}

} // namespace

// ---- With every web option, as nvq-httpd --web serves

class WebFilesServerTest : public DefaultHandlerServerTest
{
  protected:
    void SetUp() override
    {
        // clang-format off
        const std::pair<std::string, const char *> files[] = {
            {"sub/-a1234567.js", "hash first"}, {"sub/app.v2.js", "no hash"}, {"sub/css", "no extension"},
            {"sub/x." + std::string(63, 'z') + "1.js", "longest hash"}, {"style.css", "body{}"}, {"style.css.gz", "GZ"},
            {"style.css.br", "BR"}};
        // clang-format on
        for (const auto &file : files)
            m_site.Write(m_site.m_root + "/" + file.first, file.second);
        mkdir((m_site.m_root + "/a.gz").c_str(), 0755);               // a variant that is no file
        mkfifo((m_site.m_root + "/sub/index.html.gz").c_str(), 0644); // nor is a FIFO
        NVQ::CHTTPDefaultHandler::SFileOptions web = NVQ::CHTTPDefaultHandler::SFileOptions::Web();
        web.m_extraTypes["JS"] = "application/javascript";
        m_handler.SetOptions(web);
        Start(true);
        ASSERT_TRUE(m_client.Connect(m_server.GetPort()));
    }
    // Header block and body of one answer on the kept connection.
    std::pair<std::string, std::string> Exchange(const std::string &method, const std::string &uri,
                                                 const std::string &fields = "")
    {
        m_client.Send(method + " " + uri + " HTTP/1.1\r\nHost: t\r\n" + fields + "\r\n");
        if (method != "HEAD") {
            const std::string answer = m_client.ReceiveAnswer(20000);
            const size_t end = answer.find("\r\n\r\n") + 4;
            return {answer.substr(0, end), answer.substr(end)};
        }
        std::string head;
        while (head.find("\r\n\r\n") == std::string::npos && !m_client.IsClosed())
            head += m_client.Receive(1);
        return {head, ""};
    }
    std::string Tag(const std::string &uri)
    {
        const std::string head = Exchange("GET", uri).first;
        const size_t at = head.find("ETag: ") + 6;
        return head.substr(at, head.find("\r\n", at) - at);
    }

    CTestClient m_client;
};

TEST_F(WebFilesServerTest, AnswersOnOneKeptConnection)
{
    char now[NVQ::CHTTPDate::c_length + 1];
    ASSERT_TRUE(NVQ::CHTTPDate::Format(::time(nullptr), now));
    const std::string tagA = Tag("/a"), tagF = Tag("/f20000"), since = "If-Modified-Since: ";
    const std::string f20000 = m_site.Read("f20000"), large = m_site.Read("large");
    struct SCase {
        const char *name, *method, *uri;
        std::string fields;
        const char *status;
        std::vector<std::string> present, absent;
        std::string body;
    };
    const std::string type = "Content-Type: ", range = "Range: bytes=";
    const std::string longest = "/sub/x." + std::string(63, 'z') + "1.js";
    // clang-format off
    const SCase cases[] = {
        {"hashed, host type", "GET", "/app.3f9a1c2e.js", "", "200 OK", {type + "application/javascript\r\nContent-Length: 2 \r\n", "Cache-Control: public, max-age=31536000, immutable\r\n", "ETag: \"", "Last-Modified: ", "Accept-Ranges: bytes\r\n", "Vary: Accept-Encoding\r\n"}, {}, "js"},
        {"hash at the start of the name", "GET", "/sub/-a1234567.js", "", "200", {"immutable"}, {}, "hash first"},
        {"64-byte hash", "GET", longest.c_str(), "", "200", {"immutable"}, {}, "longest hash"},
        {"too short for a hash", "GET", "/sub/app.v2.js", "", "200", {"Cache-Control: no-cache\r\n"}, {"immutable"}, "no hash"},
        {"no extension", "GET", "/sub/css", "", "200", {}, {"Content-Type"}, "no extension"},
        {"untyped", "GET", "/a", "", "200", {"Cache-Control: no-cache\r\n"}, {"Content-Type"}, "just a"},
        {"HEAD, stream", "HEAD", "/large", "", "200 OK", {"Content-Length: 3145745\r\n"}, {}, ""},
        {"HEAD, index", "HEAD", "/sub/", "", "200", {type + "text/html", "Content-Length: 10\r\n"}, {}, ""},
        {"tag", "GET", "/a", "If-None-Match: \"x\", W/" + tagA + "\r\n", "304 Not Modified", {"ETag: " + tagA + "\r\n", "Cache-Control: no-cache"}, {"Content-Length", "Content-Type"}, ""},
        {"tags over dates", "GET", "/a", "If-None-Match: \"x\"\r\n" + since + now + "\r\n", "200", {}, {}, "just a"},
        {"unchanged since", "GET", "/a", since + now + "\r\n", "304", {}, {}, ""},
        {"changed since", "GET", "/a", since + "Thu, 01 Jan 1970 00:00:00 GMT\r\n", "200", {}, {}, "just a"},
        {"date ahead", "GET", "/a", since + "Sun, 01 Jan 2999 00:00:00 GMT\r\n", "200", {}, {}, "just a"},
        {"range", "GET", "/f20000", range + "100-199\r\n", "206 Partial Content", {"Content-Range: bytes 100-199/20000\r\n"}, {}, f20000.substr(100, 100)},
        {"suffix", "GET", "/f20000", range + "-5\r\n", "206", {"bytes 19995-19999/20000"}, {}, f20000.substr(19995)},
        {"several", "GET", "/f20000", range + "0-0,5-6\r\n", "200", {}, {"Content-Range"}, f20000},
        {"no number", "GET", "/a", range + "-\r\n", "200", {}, {}, "just a"},
        {"empty suffix", "GET", "/a", range + "-0\r\n", "416", {}, {}, ""},
        {"unsatisfiable", "GET", "/f20000", range + "20000-\r\n", "416", {"Content-Range: bytes */20000\r\n", "Content-Length: 0 \r\n"}, {}, ""},
        {"backwards", "GET", "/f20000", range + "5-1\r\n", "200", {}, {}, f20000},
        {"stale If-Range", "GET", "/f20000", range + "1-2\r\nIf-Range: \"old\"\r\n", "200", {}, {}, f20000},
        {"If-Range", "GET", "/f20000", range + "1-2\r\nIf-Range: " + tagF + "\r\n", "206", {}, {}, f20000.substr(1, 2)},
        {"gzip", "GET", "/style.css", "Accept-Encoding: br;q=0, gzip\r\n", "200", {"Content-Encoding: gzip\r\n", type + "text/css"}, {}, "GZ"},
        {"blank before a weight", "GET", "/style.css", "Accept-Encoding: gzip ;q=0.5\r\n", "200", {"Content-Encoding: gzip\r\n"}, {}, "GZ"},
        {"br first", "GET", "/style.css", "Accept-Encoding: *\r\n", "200", {"Content-Encoding: br\r\n"}, {}, "BR"},
        {"refused", "GET", "/style.css", "Accept-Encoding: gzip;q=0, br;q=0.0\r\n", "200", {}, {"Content-Encoding"}, "body{}"},
        {"no file", "GET", "/a", "Accept-Encoding: gzip\r\n", "200", {}, {"Content-Encoding"}, "just a"},
        {"FIFO", "GET", "/sub/", "Accept-Encoding: gzip\r\n", "200", {}, {}, "<p>sub</p>"},
        {"streamed range", "GET", "/large", range + "1-\r\n", "206", {"Content-Length: 3145744\r\n"}, {"Connection"}, large.substr(1)},
        {"streamed", "GET", "/large", "", "200", {"Content-Length: 3145745\r\n"}, {"Connection"}, large},
        {"kept after them", "GET", "/a", "", "200", {}, {}, "just a"},
    };
    // clang-format on
    for (const SCase &c : cases) {
        const std::pair<std::string, std::string> answer = Exchange(c.method, c.uri, c.fields);
        EXPECT_EQ(0u, answer.first.find(std::string("HTTP/1.1 ") + c.status))
            << c.name << ": " << answer.first;
        for (const std::string &field : c.present)
            EXPECT_NE(std::string::npos, answer.first.find(field)) << c.name << ": " << field;
        for (const std::string &field : c.absent)
            EXPECT_EQ(std::string::npos, answer.first.find(field)) << c.name << ": " << field;
        EXPECT_TRUE(c.body == answer.second) << c.name << ": " << answer.second.size() << " bytes";
        ASSERT_FALSE(m_client.IsClosed()) << c.name;
    }
}

TEST_F(WebFilesServerTest, RangeBeyondFourGiBReadsTheBytesThere)
{
    ASSERT_NO_FATAL_FAILURE(MakeBeyondFourGiB());
    const auto answer = Exchange("GET", "/beyond4g", "Range: bytes=4294967295-4294967297\r\n");
    EXPECT_NE(std::string::npos,
              answer.first.find("Content-Range: bytes 4294967295-4294967297/4294967299\r\n"));
    EXPECT_EQ("bcd", answer.second);
}
