// Decodes arbitrary bytes as a parameter value and as a query or form body,
// and checks the results against plain reference implementations; the body
// is an exact-size heap block, so a read past its end is reported.
#include "FuzzTargets.h"

#include "HTTP/HTTPRequest.h"

#include <cstring>
#include <map>
#include <string>

namespace
{

int Hex(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Decoded on its own: control bytes below 0x1F, DEL, SP, and every printable
// ASCII punctuation byte but '%'.
bool DecodedAlone(int b)
{
    if (b < 0x1F || b == 0x7F || b == ' ')
        return true;
    const bool punctuation =
        (b >= '!' && b <= '/') || (b >= ':' && b <= '@') || (b >= '[' && b <= '`') || (b >= '{' && b <= '~');
    return punctuation && b != '%';
}

std::string ReferenceDecode(const std::string &in)
{
    std::string out;
    size_t i = 0;
    const size_t n = in.size();
    while (i < n) {
        if (in[i] != '%' || n - i - 1 < 2 || Hex(in[i + 1]) < 0 || Hex(in[i + 2]) < 0) {
            out += in[i++];
            continue;
        }
        const int b = Hex(in[i + 1]) * 16 + Hex(in[i + 2]);
        if (DecodedAlone(b)) {
            out += static_cast<char>(b);
            i += 3;
        } else if (i + 5 < n && in[i + 3] == '%' && Hex(in[i + 4]) >= 0 && Hex(in[i + 5]) >= 0) {
            out += static_cast<char>(b);
            out += static_cast<char>(Hex(in[i + 4]) * 16 + Hex(in[i + 5]));
            i += 6;
        } else {
            out += in[i++];
        }
    }
    return out;
}

std::string UpToNul(const std::string &text)
{
    return text.substr(0, text.find('\0'));
}

std::map<std::string, std::string> ReferenceParams(const std::string &text)
{
    std::map<std::string, std::string> params;
    size_t start = 0;
    for (;;) {
        const size_t eq = text.find('=', start);
        if (eq == std::string::npos)
            break;
        std::string name = UpToNul(text.substr(start, eq - start));
        removePercentEscapes(name);
        const size_t amp = text.find('&', eq + 1);
        const size_t end = amp == std::string::npos ? text.size() : amp;
        params.emplace(name, ReferenceDecode(UpToNul(text.substr(eq + 1, end - eq - 1))));
        if (amp == std::string::npos)
            break;
        start = amp + 1;
    }
    return params;
}

const char *const c_nameEscapes[] = {"%24", "%26", "%2B", "%2C", "%2F", "%3A", "%3B", "%3D", "%3F", "%40"};

} // namespace

int FuzzUrlParams(const uint8_t *data, size_t size)
{
    if (size > (1u << 16))
        return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);

    const std::string decoded = NVQ::CHTTPRequest::UriDecode(text);
    NVQ_FUZZ_CHECK(decoded == ReferenceDecode(text));
    NVQ_FUZZ_CHECK(decoded.size() <= text.size());

    std::string name = text;
    removePercentEscapes(name);
    for (const char *escape : c_nameEscapes)
        NVQ_FUZZ_CHECK(name.find(escape) == std::string::npos);

    const std::map<std::string, std::string> expected = ReferenceParams(text);

    NVQ::CHTTPRequest fromUri;
    fromUri.SetUri("/p?" + text);
    NVQ_FUZZ_CHECK(fromUri.GetRequestParams() == expected);

    NVQ::CHTTPRequest fromBody;
    fromBody.AddHeaderField("Content-Type", "application/x-www-form-urlencoded");
    NVQ_FUZZ_CHECK(fromBody.SetBody(data, static_cast<long>(size)));
    NVQ_FUZZ_CHECK(fromBody.ProcessRequestParamsFromBody());
    NVQ_FUZZ_CHECK(fromBody.GetRequestParams() == expected);
    // Works once per request.
    fromBody.GetRequestParams().clear();
    NVQ_FUZZ_CHECK(fromBody.ProcessRequestParamsFromBody());
    NVQ_FUZZ_CHECK(fromBody.GetRequestParams().empty());
    return 0;
}
