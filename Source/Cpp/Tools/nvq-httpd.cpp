// nvq-httpd: the demo host application.
//
// Serves a directory (the sample site by default), the log on /proxy/log and
// its live stream on /log/live (WebSocket, or Server-Sent Events), echoing
// log lines up to a level to standard error. Stops cleanly on SIGINT or
// SIGTERM, also while clients are downloading; WebSocket echo clients are
// told first (1001) and their close answers awaited for up to 2 s.

#if NVQ_WITH_UPLOADS
#include "HTTP/HTTPAccessGuard.h"
#include "HTTP/HTTPUploadHandler.h"
#endif
#include "HTTP/HTTPDefaultHandler.h"
#include "HTTP/HTTPLogHandler.h"
#include "HTTP/HTTPServer.h"
#if NVQ_WITH_WEBSOCKET
#include "HTTP/HTTPLiveLogHandler.h"
#include "HTTP/HTTPWebSocketEndpoint.h"
#endif
#include "HTTP/IHTTPExchangeEndNotification.h"
#include "KZF_Utilities/Linux/Logger.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <vector>

#ifndef NVQ_DEFAULT_ROOT
#define NVQ_DEFAULT_ROOT "www"
#endif

namespace
{

const char c_usage[] =
    "usage: nvq-httpd [options]\n"
    "  --port N           TCP port to listen on (default 7070)\n"
    "  --root DIR         directory to serve (default: the sample site, " NVQ_DEFAULT_ROOT ")\n"
    "  --log-level N      highest log level echoed to standard error (default 4)\n"
    "  --capture-level N  highest log level /proxy/log and /log/live capture\n"
    "                     (default: every level)\n"
    "  --loops N          event loops serving connections (default: one per core)\n"
#if NVQ_WITH_WEBSOCKET
    "  --ws-echo          WebSocket echo on /ws/echo (every message sent back as it\n"
    "                     came; for tests and benchmarks)\n"
#endif
    "  --strict           strict HTTP/1.1 (RFC 9112 framing, pipelining, keep-alive\n"
    "                     rules), and the log's error page escapes what it shows\n"
    "  --web              web-ready file serving (content types, HEAD, ETag and\n"
    "                     Last-Modified with 304, ranges, precompressed .br/.gz,\n"
    "                     Cache-Control, kept connections after large files),\n"
    "                     with --strict\n"
#if NVQ_WITH_UPLOADS
    "  --upload-dir DIR   store files POSTed or PUT to /upload in DIR\n"
    "  --auth-file FILE   ask for credentials (Digest; users as htdigest writes them,\n"
    "                     realm of the first line) everywhere but the front page\n"
    "  --auth-basic       also accept Basic credentials, even over plain HTTP\n"
#endif
    "  --help             this text\n";

// Listed only when the library was built with TLS (scripts look for them).
const char c_tlsUsage[] = "  --tls-cert FILE    HTTPS with this PEM certificate chain (leaf first); SIGHUP\n"
                          "                     reads it and the key again\n"
                          "  --tls-key FILE     the PEM private key of --tls-cert\n"
                          "  --tls-port N       HTTPS on this port, plain HTTP stays on --port (default:\n"
                          "                     with --tls-cert, --port serves HTTPS only)\n";

struct SSettings {
    int m_port = 7070;
    std::string m_root = NVQ_DEFAULT_ROOT;
    int m_logLevel = 4;
    int m_captureLevel = INT_MAX;
    int m_loops = 0;
    bool m_strict = false;
    bool m_web = false;
    std::string m_uploadDir;
    std::string m_authFile;
    bool m_authBasic = false;
    bool m_wsEcho = false;
    std::string m_tlsCert;
    std::string m_tlsKey;
    int m_tlsPort = -1;
};

bool readInt(const char *text, int low, int high, int &value)
{
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || number < low || number > high)
        return false;
    value = static_cast<int>(number);
    return true;
}

// One flag: a switch (no value), a number within bounds, or a text.
struct SFlag {
    const char *m_name;
    bool *m_pSwitch;
    int *m_pNumber;
    int m_low, m_high;
    std::string *m_pText;
};

// Returns 0 to go on, 1 for --help, -1 (after printing why) for bad flags.
int parseArguments(int argc, char **argv, SSettings &settings)
{
    const SFlag flags[] = {
        {"--port", nullptr, &settings.m_port, 0, 65535, nullptr},
        {"--root", nullptr, nullptr, 0, 0, &settings.m_root},
        {"--log-level", nullptr, &settings.m_logLevel, 0, INT_MAX, nullptr},
        {"--capture-level", nullptr, &settings.m_captureLevel, 0, INT_MAX, nullptr},
        {"--loops", nullptr, &settings.m_loops, 0, 64, nullptr},
        {"--strict", &settings.m_strict, nullptr, 0, 0, nullptr},
        {"--web", &settings.m_web, nullptr, 0, 0, nullptr},
#if NVQ_WITH_UPLOADS
        {"--upload-dir", nullptr, nullptr, 0, 0, &settings.m_uploadDir},
        {"--auth-file", nullptr, nullptr, 0, 0, &settings.m_authFile},
        {"--auth-basic", &settings.m_authBasic, nullptr, 0, 0, nullptr},
#endif
#if NVQ_WITH_WEBSOCKET
        {"--ws-echo", &settings.m_wsEcho, nullptr, 0, 0, nullptr},
#endif
        {"--tls-cert", nullptr, nullptr, 0, 0, &settings.m_tlsCert},
        {"--tls-key", nullptr, nullptr, 0, 0, &settings.m_tlsKey},
        {"--tls-port", nullptr, &settings.m_tlsPort, 0, 65535, nullptr},
    };
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--help" || name == "-h")
            return 1;
        const SFlag *flag = nullptr;
        for (const SFlag &candidate : flags) {
            if (name == candidate.m_name)
                flag = &candidate;
        }
        if (flag == nullptr) {
            std::fprintf(stderr, "nvq-httpd: unknown flag '%s' (see --help)\n", name.c_str());
            return -1;
        }
        if (flag->m_pSwitch != nullptr) {
            *flag->m_pSwitch = true;
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "nvq-httpd: %s needs a value (see --help)\n", name.c_str());
            return -1;
        }
        const char *value = argv[++i];
        if (flag->m_pText != nullptr) {
            *flag->m_pText = value;
        } else if (!readInt(value, flag->m_low, flag->m_high, *flag->m_pNumber)) {
            std::fprintf(stderr, "nvq-httpd: bad value '%s' for %s (%d to %d)\n", value, name.c_str(),
                         flag->m_low, flag->m_high);
            return -1;
        }
    }
    return 0;
}

// Lets a busy device serve as many connections as its hard limit allows.
void raiseOpenFileLimit()
{
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Keeps the last failure logged while the server starts, so that a refused
// start is reported in one line of our own.
class CStartFailureDevice : public KZF::ILogOutputDevice
{
  public:
    bool Init() override { return true; }
    void Terminate() override {}
    void Log(const char *, unsigned int level, const KZF::CLogger::SLogMessage &message) override
    {
        if (level <= 1)
            m_text = message.m_text;
    }
    std::string m_text;
};

#if NVQ_WITH_UPLOADS
// The sample site's front page and what it loads stay open to everyone when
// the rest asks for credentials.
class CPublicPages : public NVQ::IHTTPRequestHandler, public NVQ::IHTTPExchangeEndNotification
{
  public:
    explicit CPublicPages(NVQ::CHTTPDefaultHandler &files) : m_files(files) {}
    bool CanProcessUri(const KZF::tstring &uri) override
    {
        const KZF::tstring path = uri.substr(0, uri.find('?'));
        for (const char *page : {"/", "/index.html", "/style.css", "/app.js", "/logo.png"}) {
            if (path == page)
                return m_files.CanProcessUri(uri);
        }
        return false;
    }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> ProcessRequest(NVQ::CHTTPRequest &request,
                                                         int connectionID) override
    {
        return m_files.ProcessRequest(request, connectionID);
    }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> GetAdditionalResponseData(int connectionID) override
    {
        return m_files.GetAdditionalResponseData(connectionID);
    }
    bool InterruptProcessing() override { return m_files.InterruptProcessing(); }
    void OnExchangeEnded(int connectionID) override { m_files.OnExchangeEnded(connectionID); }

  private:
    NVQ::CHTTPDefaultHandler &m_files;
};

// The realm of the first user line of an htdigest file ("" when none).
std::string realmOf(const std::string &path)
{
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const size_t user = line.find(':');
        const size_t realm = user == std::string::npos ? user : line.find(':', user + 1);
        if (!line.empty() && line[0] != '#' && realm != std::string::npos)
            return line.substr(user + 1, realm - user - 1);
    }
    return std::string();
}

#endif

#if NVQ_WITH_WEBSOCKET
// Sends every message back as it came, from the connection's own thread. On
// stop, its clients are told (1001) and their answers awaited a moment.
class CEchoHandler : public NVQ::IWebSocketHandler
{
  public:
    bool AcceptUpgrade(SUpgrade &) override { return true; }
    void OnOpen(NVQ::CWebSocketSession &session) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessions.insert(KZF::CRefCountPtr<NVQ::CWebSocketSession>(&session));
    }
    void OnMessage(NVQ::CWebSocketSession &session, bool isText, const unsigned char *data,
                   size_t size) override
    {
        if (isText)
            session.SendText(reinterpret_cast<const char *>(data), size);
        else
            session.SendBinary(data, size);
    }
    void OnClosed(NVQ::CWebSocketSession &session, int) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sessions.erase(KZF::CRefCountPtr<NVQ::CWebSocketSession>(&session));
        m_closed.notify_all();
    }
    void CloseAll(int waitMs)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const std::set<KZF::CRefCountPtr<NVQ::CWebSocketSession>> open = m_sessions;
        lock.unlock();
        for (const auto &session : open)
            session->Close(1001, "server stopping");
        lock.lock();
        m_closed.wait_for(lock, std::chrono::milliseconds(waitMs), [this] { return m_sessions.empty(); });
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_closed;
    std::set<KZF::CRefCountPtr<NVQ::CWebSocketSession>> m_sessions;
};
#endif

} // namespace

int main(int argc, char **argv)
{
    SSettings settings;
    const int parsed = parseArguments(argc, argv, settings);
    if (parsed != 0) {
        if (parsed > 0) {
            std::fputs(c_usage, stdout);
            if (NVQ::CSocketServerLayer::IsTlsAvailable())
                std::fputs(c_tlsUsage, stdout);
        }
        return parsed > 0 ? 0 : 2;
    }
    settings.m_strict = settings.m_strict || settings.m_web;
    if (settings.m_tlsCert.empty() != settings.m_tlsKey.empty() ||
        (settings.m_tlsPort >= 0 && settings.m_tlsCert.empty())) {
        std::fprintf(stderr, "nvq-httpd: --tls-cert and --tls-key go together (and --tls-port needs them)\n");
        return 2;
    }
    if (!KZF::CSysUtils::DirectoryExists(settings.m_root)) {
        std::fprintf(stderr, "nvq-httpd: '%s' is not a directory\n", settings.m_root.c_str());
        return 2;
    }
#if NVQ_WITH_UPLOADS
    if (!settings.m_uploadDir.empty() && !KZF::CSysUtils::DirectoryExists(settings.m_uploadDir)) {
        std::fprintf(stderr, "nvq-httpd: '%s' is not a directory\n", settings.m_uploadDir.c_str());
        return 2;
    }
    if (!settings.m_authFile.empty() && realmOf(settings.m_authFile).empty()) {
        std::fprintf(stderr, "nvq-httpd: '%s' is not a users file (user:realm:hash lines)\n",
                     settings.m_authFile.c_str());
        return 2;
    }
#endif
    raiseOpenFileLimit();

    // Every thread the server starts inherits this mask, so the signals reach
    // only sigwait below.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    KZF::CLogger &logger = KZF::CLogger::GetInstance();
    // Levels neither echoed nor captured are dropped before they are
    // formatted: a quiet server spends nothing on its notices.
    logger.SetLevelThreshold(std::max(settings.m_logLevel, settings.m_captureLevel));
    NVQ::CHTTPLogHandler *logHandler = new NVQ::CHTTPLogHandler();
    logHandler->SetEscapeMarkup(settings.m_strict);
    NVQ::CHTTPDefaultHandler *fileHandler = new NVQ::CHTTPDefaultHandler(settings.m_root);
    if (settings.m_web)
        fileHandler->SetOptions(NVQ::CHTTPDefaultHandler::SFileOptions::Web());
    NVQ::CHTTPServer *server = new NVQ::CHTTPServer();
    std::vector<NVQ::IHTTPRequestHandler *> handlers;
#if NVQ_WITH_WEBSOCKET
    CEchoHandler echoHandler;
    NVQ::CHTTPWebSocketEndpoint echoEndpoint("/ws/echo", echoHandler);
    NVQ::CHTTPLiveLogHandler liveLogHandler("/log/live");
    if (settings.m_wsEcho)
        handlers.push_back(&echoEndpoint);
#endif
#if NVQ_WITH_UPLOADS
    std::unique_ptr<NVQ::CHTTPUploadHandler> uploadHandler;
    if (!settings.m_uploadDir.empty()) {
        NVQ::CHTTPUploadHandler::SOptions uploads;
        uploads.m_directory = settings.m_uploadDir;
        uploadHandler.reset(new NVQ::CHTTPUploadHandler(uploads));
        handlers.push_back(uploadHandler.get());
    }
#endif
#if NVQ_WITH_WEBSOCKET
    handlers.push_back(&liveLogHandler);
#endif
    handlers.push_back(logHandler);
    handlers.push_back(fileHandler);
    bool usersLoaded = true;
#if NVQ_WITH_UPLOADS
    std::unique_ptr<CPublicPages> publicPages;
    std::vector<std::unique_ptr<NVQ::CHTTPAccessGuard>> guards;
    if (!settings.m_authFile.empty()) {
        NVQ::CHTTPAccessGuard::SOptions access;
        access.m_realm = realmOf(settings.m_authFile);
        access.m_allowBasic = settings.m_authBasic;
        access.m_allowBasicWithoutTls = settings.m_authBasic;
        for (NVQ::IHTTPRequestHandler *&handler : handlers) {
            guards.emplace_back(new NVQ::CHTTPAccessGuard(*handler, access));
            usersLoaded = usersLoaded && guards.back()->LoadUsersFile(settings.m_authFile);
            handler = guards.back().get();
        }
        publicPages.reset(new CPublicPages(*fileHandler));
        handlers.insert(handlers.begin(), publicPages.get());
    }
#endif
    for (NVQ::IHTTPRequestHandler *handler : handlers)
        server->RegisterHandler(*handler, false);

    server->SetLoopCount(settings.m_loops);
    NVQ::SHTTPServerOptions options;
    options.m_port = settings.m_port;
    options.m_strict = settings.m_strict;
    options.m_keepAfterStream = settings.m_web;
    CStartFailureDevice startFailure;
    logger.AddOutputDevice(&startFailure);
    const bool tls = !settings.m_tlsCert.empty();
    bool started = true;
    if (tls) {
        started = server->SetTlsCertificate(settings.m_tlsCert, settings.m_tlsKey, true);
        server->SetTlsPort(settings.m_tlsPort);
    }
    started = started && usersLoaded && server->StartServer(options);
    logger.RemoveOutputDevice(&startFailure);

    int exitCode = 0;
    if (!usersLoaded) {
        std::fprintf(stderr, "nvq-httpd: '%s' is not a users file (user:realm:hash lines)\n",
                     settings.m_authFile.c_str());
        exitCode = 2;
    } else if (!started) {
        std::fprintf(stderr, "nvq-httpd: %s\n",
                     startFailure.m_text.empty() ? "cannot start the server" : startFailure.m_text.c_str());
        exitCode = 1;
    } else {
        KZF::CStdErrLogDevice echo(settings.m_logLevel);
        logger.AddOutputDevice(&echo);
        if (!tls || settings.m_tlsPort >= 0)
            logger.LogMessage(4, __FILE__, __LINE__, "main", KZF::CLogger::c_noneObjPtr,
                              "nvq-httpd serving %s on http://localhost:%d/ (log on /proxy/log)",
                              settings.m_root.c_str(), server->GetPort());
        if (tls)
            logger.LogMessage(4, __FILE__, __LINE__, "main", KZF::CLogger::c_noneObjPtr,
                              "nvq-httpd serving %s on https://localhost:%d/ (log on /proxy/log)",
                              settings.m_root.c_str(), server->GetTlsPort());
        int signal = 0;
        // SIGHUP: a renewed certificate, for the connections that follow (a
        // failed reload keeps the one in use).
        while (sigwait(&signals, &signal) == 0 && signal == SIGHUP) {
            if (tls && server->SetTlsCertificate(settings.m_tlsCert, settings.m_tlsKey, true))
                logger.LogMessage(4, __FILE__, __LINE__, "main", KZF::CLogger::c_noneObjPtr,
                                  "nvq-httpd: certificate reloaded from %s", settings.m_tlsCert.c_str());
        }
        logger.LogMessage(4, __FILE__, __LINE__, "main", KZF::CLogger::c_noneObjPtr,
                          "nvq-httpd stopping (%s)", signal == SIGINT ? "SIGINT" : "SIGTERM");
#if NVQ_WITH_WEBSOCKET
        echoHandler.CloseAll(2000);
#endif
        server->StopServer();
        logger.RemoveOutputDevice(&echo);
    }

    for (NVQ::IHTTPRequestHandler *handler : handlers)
        server->UnregisterHandler(*handler);
#if NVQ_WITH_UPLOADS
    guards.clear();
#endif
    delete fileHandler;
    delete logHandler;
    delete server;
    return exitCode;
}
