#include "nvq-httpd-settings.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

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
    "                     Cache-Control, kept connections after large files,\n"
    "                     found files trusted for 1 s), with --strict\n"
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
                          "                     with --tls-cert, --port serves HTTPS only)\n"
                          "  --tls-no-tickets   no session resumption: every connection makes a full\n"
                          "                     handshake\n";

namespace
{

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
} // namespace

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
        {"--tls-no-tickets", &settings.m_tlsNoTickets, nullptr, 0, 0, nullptr},
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
