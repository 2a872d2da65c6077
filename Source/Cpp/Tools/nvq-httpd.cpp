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

#include "nvq-httpd-settings.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace
{

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
        server->SetTlsSessionTickets(!settings.m_tlsNoTickets);
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
