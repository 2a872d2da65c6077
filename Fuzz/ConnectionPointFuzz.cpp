// Drives one whole connection, in memory, through the HTTP layer and its
// connection point, with the real file and log handlers behind it. The input
// is a script: bytes arrive in arbitrary pieces, are read in arbitrary sizes,
// the peer may stop taking data (and take it again later), and it may close
// at any moment, also in the middle of a write.
#include "ConnectionPointFuzzLayer.h"
#include "FuzzTargets.h"

#include "HTTP/HTTPDefaultHandler.h"
#include "HTTP/HTTPLayer.h"
#include "HTTP/HTTPLogHandler.h"
#include "HTTP/IHTTPExchangeEndNotification.h"
#include "HTTP/IHTTPRequestBodyHandler.h"
#include "KZF_Utilities/Linux/Logger.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using NVQ::fuzz::COneConnectionLayer;
using NVQ::fuzz::CScriptedConnection;

// Takes bodies under /up as its URI says (take, answer, buffer, limit: at
// most 100 bytes, stop: refuses the body after 10 bytes) and checks the
// order of the calls it gets: headers, pieces, one end, then the answer.
class CBodyHandler : public NVQ::IHTTPRequestHandler,
                     public NVQ::IHTTPRequestBodyHandler,
                     public NVQ::IHTTPExchangeEndNotification
{
  public:
    enum EState { eIdle, eHeaders, eBody, eEnded, eAnswering };

    bool CanProcessUri(const KZF::tstring &uri) override { return uri.compare(0, 3, "/up") == 0; }

    SBodyDecision OnRequestHeaders(NVQ::CHTTPRequest &request, int) override
    {
        NVQ_FUZZ_CHECK(m_state == eIdle);
        const KZF::tstring &uri = request.GetUri();
        SBodyDecision decision;
        m_limit = 0;
        m_stopAfter = 0;
        m_taken = 0;
        if (uri.find("answer") != KZF::tstring::npos) {
            decision.m_choice = eAnswerNow;
            decision.m_answer = Answer(403);
            return decision;
        }
        if (uri.find("buffer") != KZF::tstring::npos) {
            m_state = eEnded; // the answer follows once the whole body is in
            return decision;
        }
        decision.m_choice = eTakeBody;
        if (uri.find("limit") != KZF::tstring::npos)
            m_limit = 100;
        if (uri.find("stop") != KZF::tstring::npos)
            m_stopAfter = 10;
        decision.m_maxBodyBytes = m_limit;
        m_state = eBody;
        return decision;
    }
    bool OnRequestBodyData(const unsigned char *data, size_t size, int) override
    {
        NVQ_FUZZ_CHECK(m_state == eBody && data != nullptr && size > 0);
        m_taken += size;
        NVQ_FUZZ_CHECK(m_limit == 0 || m_taken <= m_limit);
        return m_stopAfter == 0 || m_taken < m_stopAfter;
    }
    void OnRequestBodyEnd(bool complete, int) override
    {
        NVQ_FUZZ_CHECK(m_state == eBody);
        NVQ_FUZZ_CHECK(!complete || m_limit == 0 || m_taken <= m_limit);
        m_state = eEnded;
    }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> ProcessRequest(NVQ::CHTTPRequest &, int) override
    {
        NVQ_FUZZ_CHECK(m_state == eEnded);
        m_state = eAnswering;
        return Answer(200);
    }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> GetAdditionalResponseData(int) override
    {
        return KZF::CRefCountPtr<NVQ::CHTTPResponse>();
    }
    bool InterruptProcessing() override { return true; }
    void OnExchangeEnded(int) override
    {
        NVQ_FUZZ_CHECK(m_state == eAnswering);
        m_state = eIdle;
    }

    // Between connections: a body cut short ended, a refused one was never
    // answered.
    void CheckIdle()
    {
        NVQ_FUZZ_CHECK(m_state == eIdle || m_state == eEnded);
        m_state = eIdle;
    }

  private:
    static KZF::CRefCountPtr<NVQ::CHTTPResponse> Answer(int code)
    {
        KZF::CRefCountPtr<NVQ::CHTTPResponse> answer(new NVQ::CHTTPResponse());
        answer->SetCode(code);
        answer->SetPhrase("Body");
        answer->SetData(reinterpret_cast<const unsigned char *>("{}"), 2);
        answer->SetIsLast(true);
        return answer;
    }

    EState m_state = eIdle;
    uint64_t m_limit = 0;
    uint64_t m_stopAfter = 0;
    uint64_t m_taken = 0;
};

void WriteFile(const std::string &path, size_t size)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    NVQ_FUZZ_CHECK(fd >= 0);
    std::string bytes(size, 'x');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>('a' + i % 26);
    NVQ_FUZZ_CHECK(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    close(fd);
}

// The server: a site of a few files, among them one that takes several
// pieces, a directory with an index, and a FIFO that must never be opened.
struct SServer {
    std::string directory;
    COneConnectionLayer framework;
    NVQ::CHTTPLayer layer{framework};
    NVQ::CHTTPDefaultHandler *fileHandler = nullptr;
    NVQ::CHTTPLogHandler logHandler;
    CBodyHandler bodyHandler;
    int firstFreeDescriptor = -1;

    SServer()
    {
        char pattern[] = "/tmp/nvq_fuzz_site_XXXXXX";
        NVQ_FUZZ_CHECK(mkdtemp(pattern) != nullptr);
        directory = pattern;
        NVQ_FUZZ_CHECK(mkdir((directory + "/sub").c_str(), 0755) == 0);
        WriteFile(directory + "/index.html", 300);
        WriteFile(directory + "/sub/index.html", 10);
        WriteFile(directory + "/big.bin", 20000);
        WriteFile(directory + "/empty", 0);
        NVQ_FUZZ_CHECK(mkfifo((directory + "/fifo").c_str(), 0644) == 0);
        fileHandler = new NVQ::CHTTPDefaultHandler(directory + "/");
        layer.RegisterHandler(bodyHandler, false);
        layer.RegisterHandler(logHandler, false);
        layer.RegisterHandler(*fileHandler, false);
        KZF::CLogger::GetInstance().AddOutputDevice(&logHandler);
        firstFreeDescriptor = LowestFreeDescriptor();
    }

    static int LowestFreeDescriptor()
    {
        const int fd = open("/dev/null", O_RDONLY);
        NVQ_FUZZ_CHECK(fd >= 0);
        close(fd);
        return fd;
    }

    // Cheap while the lowest free descriptor stays where it was; when it
    // moved (the fuzzer or the C library may keep a descriptor of their
    // own), only descriptors of the site count.
    void CheckNoFileOpen()
    {
        if (LowestFreeDescriptor() == firstFreeDescriptor)
            return;
        DIR *fds = opendir("/proc/self/fd");
        NVQ_FUZZ_CHECK(fds != nullptr);
        while (const dirent *entry = readdir(fds)) {
            char target[4096];
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            const ssize_t length = readlink(link.c_str(), target, sizeof(target) - 1);
            if (length > 0)
                NVQ_FUZZ_CHECK(std::string(target, static_cast<size_t>(length))
                                   .compare(0, directory.size(), directory) != 0);
        }
        closedir(fds);
        firstFreeDescriptor = LowestFreeDescriptor();
    }

    static void RemoveSite()
    {
        const std::string &dir = Get().directory;
        for (const char *name : {"/sub/index.html", "/index.html", "/big.bin", "/empty", "/fifo"})
            unlink((dir + name).c_str());
        rmdir((dir + "/sub").c_str());
        rmdir(dir.c_str());
    }

    // Built once per process and never destroyed: the fuzzer exits without
    // unwinding.
    static SServer &Get()
    {
        static SServer *server = [] {
            SServer *s = new SServer();
            std::atexit(RemoveSite);
            return s;
        }();
        return *server;
    }
};

// Every answer starts with a status line and a header block; complete
// answers carry their length, and the one without a length runs to the end
// of the output, after which the connection must be over. An interim 100
// has no body (a handler that takes bodies gets one in either mode), and in
// strict mode neither has an answer to HEAD (the next answer follows its
// header block at once).
void CheckAnswers(const std::string &out, bool ended, bool strict)
{
    size_t pos = 0;
    while (pos < out.size()) {
        NVQ_FUZZ_CHECK(out.compare(pos, 9, "HTTP/1.1 ") == 0);
        if (pos + 13 > out.size()) {
            NVQ_FUZZ_CHECK(ended); // cut by the peer leaving
            return;
        }
        for (size_t i = pos + 9; i < pos + 12; ++i)
            NVQ_FUZZ_CHECK(out[i] >= '0' && out[i] <= '9');
        NVQ_FUZZ_CHECK(out[pos + 12] == ' ');
        const size_t headerEnd = out.find("\r\n\r\n", pos);
        if (headerEnd == std::string::npos) {
            NVQ_FUZZ_CHECK(ended); // cut by the peer leaving
            return;
        }
        const std::string header = out.substr(pos, headerEnd + 2 - pos);
        if (header.compare(9, 4, "100 ") == 0 ||
            (strict && (headerEnd + 4 == out.size() || out.compare(headerEnd + 4, 9, "HTTP/1.1 ") == 0))) {
            pos = headerEnd + 4;
            continue;
        }
        const size_t lengthField = header.find("\r\nContent-Length: ");
        if (lengthField == std::string::npos) {
            NVQ_FUZZ_CHECK(ended);
            return;
        }
        const size_t length = std::strtoul(header.c_str() + lengthField + 18, nullptr, 10);
        pos = headerEnd + 4 + length;
        if (pos > out.size())
            NVQ_FUZZ_CHECK(ended);
    }
}

} // namespace

// Script: byte 0 picks how the peer may leave during a write (its value
// modulo 3) and the mode (strict HTTP/1.1 when its value divided by 3 is
// odd), byte 1 at which write; then operations, each one byte whose low three
// bits choose it and whose upper five bits are its parameter p:
//   0  the next (1 + next byte) bytes arrive as one piece
//   1  the framework delivers a data notification
//   2  reads return at most p bytes from now on (0: no limit)
//   3  the peer closes the connection
//   4  the peer stops taking data once p * 512 bytes wait (0: takes all)
//   5  the peer takes what waits
//   6, 7 as 1
int FuzzConnectionPoint(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    SServer &server = SServer::Get();
    server.logHandler.Init(); // the same input gives the same log page

    const auto breakMode = static_cast<CScriptedConnection::EBreak>(data[0] % 3);
    server.layer.SetStrict((data[0] / 3) % 2 == 1);
    KZF::CRefCountPtr<CScriptedConnection> connection(new CScriptedConnection(breakMode, data[1]));
    NVQ_FUZZ_CHECK(server.framework.Accept(connection.GetPtr()));
    NVQ_FUZZ_CHECK(server.layer.GetConnectionPointCount() == 1);

    size_t pos = 2;
    while (pos < size) {
        const uint8_t op = data[pos++];
        const unsigned parameter = op >> 3;
        switch (op & 7) {
        case 0: {
            if (pos >= size)
                break;
            const size_t wanted = 1 + data[pos++];
            const size_t length = std::min(wanted, size - pos);
            connection->m_pending.emplace_back(reinterpret_cast<const char *>(data + pos), length);
            pos += length;
            break;
        }
        case 1:
            connection->DeliverData();
            break;
        case 2:
            connection->m_readLimit = parameter;
            break;
        case 3:
            connection->DeliverClose();
            break;
        case 4:
            connection->m_stallLimit = parameter * 512;
            break;
        case 5:
            connection->Drain();
            break;
        default:
            connection->DeliverData();
            break;
        }
    }
    // Whatever waits reaches the peer, which then goes away (unless somebody
    // closed before).
    connection->m_stallLimit = 0;
    connection->Drain();
    const bool ended = connection->Ended();
    connection->DeliverClose();
    connection->DropQueue();

    NVQ_FUZZ_CHECK(server.layer.GetConnectionPointCount() == 0);
    server.bodyHandler.CheckIdle();
    CheckAnswers(connection->m_output, ended, (data[0] / 3) % 2 == 1);
    // Every file a transfer opened has been closed again.
    server.CheckNoFileOpen();
    return 0;
}
