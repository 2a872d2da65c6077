#ifndef NVQ_TOOLS_NVQHTTPDSETTINGS_H
#define NVQ_TOOLS_NVQHTTPDSETTINGS_H

#include <climits>
#include <string>

// nvq-httpd's command line: its flags, their help text and the settings
// they give.

#ifndef NVQ_DEFAULT_ROOT
#define NVQ_DEFAULT_ROOT "www"
#endif

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
    bool m_tlsNoTickets = false;
};

// The help text; the TLS flags separately, listed only when the library was
// built with TLS.
extern const char c_usage[];
extern const char c_tlsUsage[];

// Returns 0 to go on, 1 for --help, -1 (after printing why) for bad flags.
int parseArguments(int argc, char **argv, SSettings &settings);

#endif
