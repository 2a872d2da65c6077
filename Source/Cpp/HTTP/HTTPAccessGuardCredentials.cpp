#include "HTTP/HTTPAccessGuard.h"

#include "HTTP/HTTPHeaderParams.h"
#include "KZF_Utilities/Linux/Hash.h"

#include <cstdlib>
#include <fstream>
#include <vector>

// The access guard's credentials: the users file or the host's lookup, and
// checking a Digest or Basic proof against them.

namespace NVQ
{

namespace
{

const size_t c_maxDigestParams = 16;
const std::streamsize c_maxUsersFileBytes = 1 << 20;
// Accepted nonce counts may arrive out of order (parallel connections
// sharing a nonce) by up to this many.
const uint32_t c_countWindow = 64;

std::string lowerCase(std::string text)
{
    for (char &ch : text) {
        if (ch >= 'A' && ch <= 'Z')
            ch = static_cast<char>(ch + ('a' - 'A'));
    }
    return text;
}

bool isHex(const std::string &text)
{
    for (const char ch : text) {
        if (!((ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F')))
            return false;
    }
    return true;
}

std::string hashHex(bool sha256, const std::string &text)
{
    return sha256 ? KZF::CSha256::Hex(text) : KZF::CMd5::Hex(text);
}
} // namespace

bool CHTTPAccessGuard::LoadUsersFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::map<std::string, SCredentials> users;
    bool sha256 = false;
    std::string line;
    std::streamsize total = 0;
    while (std::getline(in, line)) {
        total += static_cast<std::streamsize>(line.size()) + 1;
        if (total > c_maxUsersFileBytes)
            return false;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        const size_t userEnd = line.find(':');
        const size_t realmEnd = userEnd == std::string::npos ? userEnd : line.find(':', userEnd + 1);
        if (userEnd == 0 || realmEnd == std::string::npos)
            return false;
        const std::string hash = lowerCase(line.substr(realmEnd + 1));
        if ((hash.size() != 32 && hash.size() != 64) || !isHex(hash))
            return false;
        if (line.compare(userEnd + 1, realmEnd - userEnd - 1, m_options.m_realm) != 0)
            continue;
        SCredentials &credentials = users[line.substr(0, userEnd)];
        (hash.size() == 32 ? credentials.m_md5 : credentials.m_sha256) = hash;
        sha256 = sha256 || hash.size() == 64;
    }
    KZF::CCriticalSection::CLock lock(m_lock);
    m_users.swap(users);
    if (!m_lookup)
        m_offersSha256 = sha256;
    return true;
}

void CHTTPAccessGuard::SetUserLookup(const FUserLookup &lookup, bool offersSha256)
{
    KZF::CCriticalSection::CLock lock(m_lock);
    m_lookup = lookup;
    m_offersSha256 = offersSha256;
    if (!lookup) {
        m_offersSha256 = false;
        for (const auto &user : m_users)
            m_offersSha256 = m_offersSha256 || !user.second.m_sha256.empty();
    }
}

bool CHTTPAccessGuard::LookUp(const std::string &user, SCredentials &credentials)
{
    FUserLookup lookup;
    {
        KZF::CCriticalSection::CLock lock(m_lock);
        if (!m_lookup) {
            const auto it = m_users.find(user);
            if (it == m_users.end())
                return false;
            credentials = it->second;
            return true;
        }
        lookup = m_lookup;
    }
    return lookup(user, credentials);
}
CHTTPAccessGuard::EVerdict CHTTPAccessGuard::CheckDigest(CHTTPRequest &request, const std::string &text)
{
    std::vector<CHTTPHeaderParams::SParam> params;
    if (!CHTTPHeaderParams::Parse(text.data(), text.data() + text.size(), ',', c_maxDigestParams, params))
        return eVerdictMalformed;
    const char *const required[] = {"realm", "nonce", "uri", "response", "qop", "nc", "cnonce"};
    for (const char *name : required) {
        if (CHTTPHeaderParams::Find(params, name) == nullptr)
            return eVerdictMalformed;
    }
    auto value = [&params](const char *name) {
        const CHTTPHeaderParams::SParam *param = CHTTPHeaderParams::Find(params, name);
        return param == nullptr ? std::string() : param->m_value;
    };
    std::string user = value("username");
    const CHTTPHeaderParams::SParam *extended = CHTTPHeaderParams::Find(params, "username*");
    if ((extended == nullptr) == user.empty() ||
        (extended != nullptr && !CHTTPHeaderParams::DecodeExtValue(extended->m_value, user)))
        return eVerdictMalformed;
    const std::string nc = value("nc");
    if (nc.size() != 8 || !isHex(nc) || value("uri") != request.GetUri())
        return eVerdictMalformed;
    const uint32_t count = static_cast<uint32_t>(std::strtoul(nc.c_str(), nullptr, 16));
    const std::string algorithm = value("algorithm");
    const bool sha256 = CHTTPHeaderParams::EqualsNoCase(algorithm, "SHA-256");
    if ((!sha256 && !algorithm.empty() && !CHTTPHeaderParams::EqualsNoCase(algorithm, "MD5")) ||
        value("qop") != "auth" || value("realm") != m_options.m_realm || count == 0 ||
        (!value("userhash").empty() && value("userhash") != "false") ||
        (CHTTPHeaderParams::Find(params, "opaque") != nullptr && value("opaque") != m_opaque))
        return eVerdictDenied;

    SCredentials credentials;
    if (!LookUp(user, credentials))
        return eVerdictDenied;
    std::string secret = lowerCase(sha256 ? credentials.m_sha256 : credentials.m_md5);
    if (!credentials.m_password.empty())
        secret = hashHex(sha256, user + ":" + m_options.m_realm + ":" + credentials.m_password);
    if (secret.empty())
        return eVerdictDenied;
    const std::string nonce = value("nonce");
    const std::string expected =
        hashHex(sha256, secret + ":" + nonce + ":" + nc + ":" + value("cnonce") +
                            ":auth:" + hashHex(sha256, request.GetMethod() + ":" + request.GetUri()));
    if (!KZF::ConstantTimeEquals(expected, lowerCase(value("response"))))
        return eVerdictDenied;

    // The password was right: an unknown or old nonce only asks the client
    // to repeat the request with a fresh one.
    const int64_t now = Now();
    KZF::CCriticalSection::CLock lock(m_lock);
    const auto it = m_nonces.find(nonce);
    if (it == m_nonces.end())
        return eVerdictStale;
    SNonce &entry = it->second;
    if (now - entry.m_issued > m_options.m_nonceLifetimeSeconds) {
        m_nonces.erase(it);
        return eVerdictStale;
    }
    if (count > entry.m_highestCount) {
        const uint32_t shift = count - entry.m_highestCount;
        entry.m_seenBelow = shift >= c_countWindow ? 0 : entry.m_seenBelow << shift;
        if (entry.m_highestCount != 0 && shift <= c_countWindow)
            entry.m_seenBelow |= uint64_t(1) << (shift - 1);
        entry.m_highestCount = count;
        return eVerdictGranted;
    }
    const uint32_t below = entry.m_highestCount - count; // 0 is the highest itself
    if (below == 0 || below > c_countWindow || (entry.m_seenBelow >> (below - 1) & 1) != 0)
        return eVerdictDenied; // replayed
    entry.m_seenBelow |= uint64_t(1) << (below - 1);
    return eVerdictGranted;
}

CHTTPAccessGuard::EVerdict CHTTPAccessGuard::CheckBasic(CHTTPRequest &request, const std::string &token)
{
    if (!m_options.m_allowBasic || (!request.IsSecure() && !m_options.m_allowBasicWithoutTls))
        return eVerdictDenied;
    std::string decoded;
    const size_t begin = token.find_first_not_of(' ');
    const size_t end = token.find_last_not_of(' ');
    if (begin == std::string::npos || !KZF::Base64Decode(token.substr(begin, end + 1 - begin), decoded))
        return eVerdictMalformed;
    const size_t colon = decoded.find(':');
    if (colon == std::string::npos)
        return eVerdictMalformed;
    const std::string user = decoded.substr(0, colon);
    const std::string password = decoded.substr(colon + 1);
    SCredentials credentials;
    if (!LookUp(user, credentials))
        return eVerdictDenied;
    // Hashes on both sides give equal lengths, so the comparison's time
    // does not tell the password's length either.
    std::string given;
    std::string stored;
    const std::string text = user + ":" + m_options.m_realm + ":" + password;
    if (!credentials.m_password.empty()) {
        given = KZF::CSha256::Hex(password);
        stored = KZF::CSha256::Hex(credentials.m_password);
    } else if (!credentials.m_sha256.empty()) {
        given = KZF::CSha256::Hex(text);
        stored = lowerCase(credentials.m_sha256);
    } else {
        given = KZF::CMd5::Hex(text);
        stored = lowerCase(credentials.m_md5);
    }
    return !stored.empty() && KZF::ConstantTimeEquals(given, stored) ? eVerdictGranted : eVerdictDenied;
}

} // namespace NVQ
