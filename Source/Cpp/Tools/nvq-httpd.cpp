// nvq-httpd: the demo host application.
//
// Serves a directory (the sample site by default) and the live log on
// /proxy/log, echoing log lines up to a level to standard error. Stops
// cleanly on SIGINT or SIGTERM, also while clients are downloading.

#include "HTTP/HTTPDefaultHandler.h"
#include "HTTP/HTTPLogHandler.h"
#include "HTTP/HTTPServer.h"
#include "KZF_Utilities/Linux/Logger.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>
#include <sys/resource.h>

#ifndef NVQ_DEFAULT_ROOT
#define NVQ_DEFAULT_ROOT "www"
#endif

namespace
{

const char c_usage[] =
    "usage: nvq-httpd [--port N] [--root DIR] [--log-level N] [--strict] [--help]\n"
    "  --port N       TCP port to listen on (default 7070)\n"
    "  --root DIR     directory to serve (default: the sample site, " NVQ_DEFAULT_ROOT ")\n"
    "  --log-level N  highest log level echoed to standard error (default 4);\n"
    "                 /proxy/log always captures every level\n"
    "  --strict       strict HTTP/1.1 (RFC 9112 framing, pipelining, keep-alive\n"
    "                 rules), and the log's error page escapes what it shows\n"
    "  --help         this text\n";

struct SSettings {
    int m_port = 7070;
    std::string m_root = NVQ_DEFAULT_ROOT;
    int m_logLevel = 4;
    bool m_strict = false;
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

// Returns 0 to go on, 1 for --help, -1 (after printing why) for bad flags.
int parseArguments(int argc, char **argv, SSettings &settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help" || flag == "-h")
            return 1;
        if (flag == "--strict") {
            settings.m_strict = true;
            continue;
        }
        if (flag != "--port" && flag != "--root" && flag != "--log-level") {
            std::fprintf(stderr, "nvq-httpd: unknown flag '%s' (see --help)\n", flag.c_str());
            return -1;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "nvq-httpd: %s needs a value (see --help)\n", flag.c_str());
            return -1;
        }
        const char *value = argv[++i];
        if (flag == "--port") {
            if (!readInt(value, 0, 65535, settings.m_port)) {
                std::fprintf(stderr, "nvq-httpd: bad port '%s' (0 to 65535)\n", value);
                return -1;
            }
        } else if (flag == "--root") {
            settings.m_root = value;
        } else {
            if (!readInt(value, 0, INT_MAX, settings.m_logLevel)) {
                std::fprintf(stderr, "nvq-httpd: bad log level '%s'\n", value);
                return -1;
            }
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

} // namespace

int main(int argc, char **argv)
{
    SSettings settings;
    const int parsed = parseArguments(argc, argv, settings);
    if (parsed != 0) {
        if (parsed > 0)
            std::fputs(c_usage, stdout);
        return parsed > 0 ? 0 : 2;
    }
    if (!KZF::CSysUtils::DirectoryExists(settings.m_root)) {
        std::fprintf(stderr, "nvq-httpd: '%s' is not a directory\n", settings.m_root.c_str());
        return 2;
    }
    raiseOpenFileLimit();

    // Every thread the server starts inherits this mask, so the signals reach
    // only sigwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    KZF::CLogger &logger = KZF::CLogger::GetInstance();
    NVQ::CHTTPLogHandler *logHandler = new NVQ::CHTTPLogHandler();
    logHandler->SetEscapeMarkup(settings.m_strict);
    NVQ::CHTTPDefaultHandler *fileHandler = new NVQ::CHTTPDefaultHandler(settings.m_root);
    NVQ::CHTTPServer *server = new NVQ::CHTTPServer();
    server->RegisterHandler(*logHandler, false);
    server->RegisterHandler(*fileHandler, false);

    NVQ::SHTTPServerOptions options;
    options.m_port = settings.m_port;
    options.m_strict = settings.m_strict;
    CStartFailureDevice startFailure;
    logger.AddOutputDevice(&startFailure);
    const bool started = server->StartServer(options);
    logger.RemoveOutputDevice(&startFailure);

    int exitCode = 0;
    if (!started) {
        std::fprintf(stderr, "nvq-httpd: %s\n",
                     startFailure.m_text.empty() ? "cannot start the server" : startFailure.m_text.c_str());
        exitCode = 1;
    } else {
        KZF::CStdErrLogDevice echo(settings.m_logLevel);
        logger.AddOutputDevice(&echo);
        logger.LogMessage(4, __FILE__, __LINE__, "main", KZF::CLogger::c_noneObjPtr,
                          "nvq-httpd serving %s on http://localhost:%d/ (log on /proxy/log)",
                          settings.m_root.c_str(), server->GetPort());
        int signal = 0;
        sigwait(&stopSignals, &signal);
        logger.LogMessage(4, __FILE__, __LINE__, "main", KZF::CLogger::c_noneObjPtr,
                          "nvq-httpd stopping (%s)", signal == SIGINT ? "SIGINT" : "SIGTERM");
        server->StopServer();
        logger.RemoveOutputDevice(&echo);
    }

    server->UnregisterHandler(*fileHandler);
    server->UnregisterHandler(*logHandler);
    delete fileHandler;
    delete logHandler;
    delete server;
    return exitCode;
}
