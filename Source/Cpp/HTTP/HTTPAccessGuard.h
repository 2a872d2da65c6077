#ifndef NVQ_HTTP_HTTPACCESSGUARD_H
#define NVQ_HTTP_HTTPACCESSGUARD_H

#include "HTTP/IHTTPExchangeEndNotification.h"
#include "HTTP/IHTTPRequestBodyHandler.h"
#include "HTTP/IHTTPRequestHandler.h"
#include "KZF_Base/Linux/CriticalSection.h"
#include "KZF_Base/Linux/KzfTypes.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>

namespace NVQ
{

// Asks for credentials before a wrapped handler sees a request: HTTP Digest
// (RFC 7616, SHA-256 and MD5, qop=auth) and, when enabled, Basic. Register
// the guard in place of the handler it wraps; it takes the URIs that
// handler takes and passes requests outside its prefix straight through.
//
// A request without valid credentials gets "401 Unauthorized" with one
// WWW-Authenticate line per scheme offered (SHA-256 first); as the server
// keeps one value per field name, the lines differ in the letter case of
// their names. Nonces expire after SOptions::m_nonceLifetimeSeconds and
// each nonce count is accepted once. An address (without its port) that
// fails m_maxFailures times in a window gets "429 Too Many Requests" until
// the window ends; other addresses, and the same one later, are unaffected.
// Basic is accepted only over TLS unless m_allowBasicWithoutTls.
//
// Users come from a file in the htdigest format (`user:realm:hash`, hash =
// hex MD5 of "user:realm:password"; a 64-digit hash is read as SHA-256 of the
// same text, for Digest SHA-256), or from a host callback. An htdigest file
// alone serves Digest MD5 and Basic; SHA-256 is offered only when some user
// can use it. All tables are bounded; all comparisons of secrets take
// constant time.
class CHTTPAccessGuard : public IHTTPRequestHandler,
                         public IHTTPRequestBodyHandler,
                         public IHTTPExchangeEndNotification
{
  public:
    // What is known of a user: the password, or hashes of
    // "user:realm:password" as lower-case hex. Empty members are unknown.
    struct SCredentials {
        std::string m_password;
        std::string m_md5;
        std::string m_sha256;
    };
    // The credentials of a user in the guard's realm; false for an unknown
    // user. Called on the requests' threads, without the guard's lock held.
    typedef std::function<bool(const std::string &user, SCredentials &credentials)> FUserLookup;
    // Seconds of a monotonic clock.
    typedef std::function<int64_t()> FClock;

    struct SOptions {
        SOptions();
        std::string m_realm;            // "nvq"
        KZF::tstring m_uriPrefix;       // guarded URIs; empty: every URI of the handler
        bool m_allowBasic;              // false
        bool m_allowBasicWithoutTls;    // false
        int64_t m_nonceLifetimeSeconds; // 300
        size_t m_maxNonces;             // 4096 live nonces; the oldest goes first
        unsigned m_maxFailures;         // 10 failed attempts per address ...
        int64_t m_failureWindowSeconds; // ... within 60 s
        size_t m_maxClients;            // 1024 addresses tracked
        FClock m_clock;                 // null: CLOCK_MONOTONIC
        // Where nonces and the opaque value come from; null and empty: 128
        // random bits as hex each. For fixed test vectors and clusters.
        std::function<std::string()> m_newNonce;
        std::string m_opaque;
    };

    // The handler must outlive the guard.
    CHTTPAccessGuard(IHTTPRequestHandler &handler, const SOptions &options);
    ~CHTTPAccessGuard() override;

    // Replaces the users with those of an htdigest file in the guard's realm
    // (lines of other realms are skipped, '#' lines and blank lines too).
    // False, keeping the users as they were, when the file cannot be read or
    // a line is malformed.
    bool LoadUsersFile(const std::string &path);
    // Consulted instead of the file's users; null goes back to them.
    void SetUserLookup(const FUserLookup &lookup, bool offersSha256);

    bool CanProcessUri(const KZF::tstring &uri) override;
    KZF::CRefCountPtr<CHTTPResponse> ProcessRequest(CHTTPRequest &request, int connectionID) override;
    KZF::CRefCountPtr<CHTTPResponse> GetAdditionalResponseData(int connectionID) override;
    bool InterruptProcessing() override;

    SBodyDecision OnRequestHeaders(CHTTPRequest &request, int connectionID) override;
    bool OnRequestBodyData(const unsigned char *data, size_t size, int connectionID) override;
    void OnRequestBodyEnd(bool complete, int connectionID) override;

    void OnExchangeEnded(int connectionID) override;

  private:
    struct SNonce {
        int64_t m_issued;
        uint32_t m_highestCount; // the highest nc accepted, 0 for none
        uint64_t m_seenBelow;    // bit i: nc m_highestCount - 1 - i accepted
    };
    struct SClient {
        int64_t m_windowStart;
        unsigned m_failures;
    };
    // How the current exchange of a connection goes.
    enum EExchange { eExchangeAuthorised, eExchangeDelegated, eExchangeBodyRefused };
    enum EVerdict { eVerdictGranted, eVerdictMissing, eVerdictMalformed, eVerdictDenied, eVerdictStale };

    CHTTPAccessGuard(const CHTTPAccessGuard &) = delete;
    CHTTPAccessGuard &operator=(const CHTTPAccessGuard &) = delete;

    // Null when the request may go to the handler; else the refusal.
    KZF::CRefCountPtr<CHTTPResponse> Check(CHTTPRequest &request);
    EVerdict CheckDigest(CHTTPRequest &request, const std::string &params);
    EVerdict CheckBasic(CHTTPRequest &request, const std::string &token);
    bool LookUp(const std::string &user, SCredentials &credentials);
    KZF::CRefCountPtr<CHTTPResponse> Challenge(bool secure, bool stale);
    std::string NewNonce();
    // The caller holds m_lock.
    bool IsThrottled(const std::string &address, int64_t now, int64_t &retryAfter);
    void CountFailure(const std::string &address, int64_t now);
    int64_t Now() const;
    bool IsGuarded(const KZF::tstring &uri) const;

    IHTTPRequestHandler &m_handler;
    IHTTPRequestBodyHandler *m_pBodyHandler;          // the handler's, or null
    IHTTPExchangeEndNotification *m_pEndNotification; // the handler's, or null
    const SOptions m_options;
    std::string m_opaque;
    KZF::CCriticalSection m_lock; // guards everything below
    std::map<std::string, SCredentials> m_users;
    FUserLookup m_lookup;
    bool m_offersSha256;
    std::map<std::string, SNonce> m_nonces;
    std::deque<std::string> m_nonceOrder; // oldest first
    std::map<std::string, SClient> m_clients;
    std::map<int, EExchange> m_exchanges;
};

} // namespace NVQ

#endif
