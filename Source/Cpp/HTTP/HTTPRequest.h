#ifndef NVQ_HTTP_HTTPREQUEST_H
#define NVQ_HTTP_HTTPREQUEST_H

#include "HTTP/KeyValueMap.h"
#include "KZF_Base/Linux/KzfTypes.h"
#include "KZF_Base/Linux/RefCount.h"

namespace NVQ
{

// A parsed request: method, URI, header fields, parameters and body. Filled by
// the request parser and read by handlers; shared through
// KZF::CRefCountPtr<CHTTPRequest>. No lock: one thread fills it, then it is
// only read.
class CHTTPRequest : public KZF::CRefCount_Base
{
  public:
    CHTTPRequest();
    ~CHTTPRequest() override;

    void SetMethod(const KZF::tstring &method);
    const KZF::tstring &GetMethod() const { return m_method; }

    // Stores the URI as received (not decoded) and rebuilds the parameters
    // from its query part.
    void SetUri(const KZF::tstring &uri);
    const KZF::tstring &GetUri() const { return m_uri; }

    // Stores the field under its lower-cased name. True when the name is new;
    // false when an earlier value of that name was replaced.
    bool AddHeaderField(const KZF::tstring &name, const KZF::tstring &value);
    // Exact, case-sensitive look-up (stored names are lower case). Leaves
    // value untouched and answers false when the name is missing.
    bool GetHeaderFieldValueByName(const KZF::tstring &name, KZF::tstring &value) const;
    // All header fields, lower-cased name to value.
    const CKeyValueMap &GetHeaderFields() const { return m_headerFields; }
    // Adds a field whose name is lower case already; a repeated name gets the
    // new value appended after ", ", as a list field is combined. True when
    // the name is new.
    bool CombineHeaderField(const KZF::tstring &lowerName, const KZF::tstring &value);
    // True when the field's value, read as a comma-separated list, holds token
    // as one of its elements (blanks around elements ignored, letters in
    // either case), e.g. HasHeaderToken("connection", "close").
    bool HasHeaderToken(const KZF::tstring &lowerName, const char *token) const;

    // Exact, case-sensitive look-up of a decoded parameter name.
    bool GetRequestParamByName(const KZF::tstring &name, KZF::tstring &value) const;
    CKeyValueMap &GetRequestParams() { return m_requestParams; }

    // Stores the announced body size only; a negative size is taken as 0.
    void SetBodySize(long size);
    long GetBodySize() const { return m_bodySize; }
    // The body bytes, or null when no body was set.
    const unsigned char *GetBody() const { return m_pBody; }
    // Replaces the body with a private copy of size bytes. False, with no body
    // and size 0 left, when size is negative or the memory cannot be had.
    bool SetBody(const unsigned char *data, long size);

    // The version of the request line, 10 (HTTP/1.0) or 11 (any other 1.x);
    // only the strict parser records it, so 0 means not recorded.
    void SetHTTPVersion(int version) { m_httpVersion = version; }
    int GetHTTPVersion() const { return m_httpVersion; }
    // The body arrived in chunked coding (strict parser only); GetBody holds
    // it decoded.
    void SetChunked(bool chunked) { m_chunked = chunked; }
    bool IsChunked() const { return m_chunked; }

    // The client's address as the connection knows it ("192.0.2.7:51234",
    // "[2001:db8::1]:51234"; empty when unknown), and whether the request
    // came over TLS. Access rules key on them.
    void SetRemoteAddress(const KZF::tstring &address) { m_remoteAddress = address; }
    const KZF::tstring &GetRemoteAddress() const { return m_remoteAddress; }
    void SetSecure(bool secure) { m_secure = secure; }
    bool IsSecure() const { return m_secure; }

    // Rebuilds the parameters from the query part of the URI.
    void ProcessRequestParamsFromUri();
    // Adds the parameters of an application/x-www-form-urlencoded body (a
    // name the URI already gave keeps the URI's value). Works once per
    // request; false only when the body has no content-type field.
    bool ProcessRequestParamsFromBody();
    // Parses name=value pairs joined by '&' from size bytes at data, reading
    // nothing at or beyond size. The first occurrence of a name wins.
    template <class T> void ProcessUrlEncodedParams(T *data, unsigned int size);

    // Decodes the escapes of SP, ASCII punctuation and control bytes, and any
    // two escapes in a row; every other escape, and '+', stays as it is.
    static KZF::tstring UriDecode(const KZF::tstring &in);

  private:
    CHTTPRequest(const CHTTPRequest &) = delete;
    CHTTPRequest &operator=(const CHTTPRequest &) = delete;

    KZF::tstring m_method;
    KZF::tstring m_uri;
    long m_bodySize;
    unsigned char *m_pBody;
    CKeyValueMap m_headerFields;
    CKeyValueMap m_requestParams;
    bool m_bodyParamsProcessed;
    int m_httpVersion;
    bool m_chunked;
    bool m_secure;
    KZF::tstring m_remoteAddress;
};

} // namespace NVQ

// Parameter-name decoding: replaces the ten upper-case escapes %24 %26 %2B %2C
// %2F %3A %3B %3D %3F %40 by their bytes, in place.
void removePercentEscapes(KZF::tstring &text);

// Replaces every occurrence of from (not empty) by to, in place; inserted text
// is not searched again.
void replaceOccurances(KZF::tstring &text, const KZF::tstring &from, const KZF::tstring &to);

// At most len bytes of the NUL-terminated text from pos (a NUL ends the text
// early); reads no byte past pos + len.
KZF::tstring GetSubString(const char *text, int pos, long len);

// Removes every backslash, in place.
void removeEscapes(KZF::tstring &text);

// True for the backslash (92).
bool isEscape(int ch);

#endif
