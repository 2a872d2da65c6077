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

#include <algorithm>
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
    "usage: nvq-httpd [options]\n"
    "  --port N           TCP port to listen on (default 7070)\n"
    "  --root DIR         directory to serve (default: the sample site, " NVQ_DEFAULT_ROOT ")\n"
    "  --log-level N      highest log level echoed to standard error (default 4)\n"
    "  --capture-level N  highest log level /proxy/log captures (default: every level)\n"
    "  --loops N          event loops serving connections (default: one per core)\n"
    "  --strict           strict HTTP/1.1 (RFC 9112 framing, pipelining, keep-alive\n"
    "                     rules), and the log's error page escapes what it shows\n"
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
    if (settings.m_tlsCert.empty() != settings.m_tlsKey.empty() ||
        (settings.m_tlsPort >= 0 && settings.m_tlsCert.empty())) {
        std::fprintf(stderr, "nvq-httpd: --tls-cert and --tls-key go together (and --tls-port needs them)\n");
        return 2;
    }
    if (!KZF::CSysUtils::DirectoryExists(settings.m_root)) {
        std::fprintf(stderr, "nvq-httpd: '%s' is not a directory\n", settings.m_root.c_str());
        return 2;
    }
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
    NVQ::CHTTPServer *server = new NVQ::CHTTPServer();
    server->RegisterHandler(*logHandler, false);
    server->RegisterHandler(*fileHandler, false);

    server->SetLoopCount(settings.m_loops);
    NVQ::SHTTPServerOptions options;
    options.m_port = settings.m_port;
    options.m_strict = settings.m_strict;
    CStartFailureDevice startFailure;
    logger.AddOutputDevice(&startFailure);
    const bool tls = !settings.m_tlsCert.empty();
    bool started = true;
    if (tls) {
        started = server->SetTlsCertificate(settings.m_tlsCert, settings.m_tlsKey, true);
        server->SetTlsPort(settings.m_tlsPort);
    }
    started = started && server->StartServer(options);
    logger.RemoveOutputDevice(&startFailure);

    int exitCode = 0;
    if (!started) {
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
