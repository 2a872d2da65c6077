#include "HTTP/HTTPDefaultHandler.h"

#include "HTTP/HTTPDate.h"
#include "HTTP/HTTPDefaultHandlerInternal.h"
#include "KZF_Utilities/Linux/KzfTime.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

// The static file handler with options: precompressed variants, validators
// and conditional requests, single byte ranges, content types and cache
// fields.

namespace NVQ
{

namespace
{

using detail::c_getMethod;
using detail::c_pieceSize;
using detail::openRegularFile;
using detail::readAt;

// Closes a descriptor on every way out unless it was handed on.
class CDescriptor
{
  public:
    explicit CDescriptor(int fd = -1) : m_fd(fd) {}
    ~CDescriptor() { Reset(-1); }
    void Reset(int fd)
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = fd;
    }
    int Get() const { return m_fd; }
    int Release()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

  private:
    CDescriptor(const CDescriptor &) = delete;
    CDescriptor &operator=(const CDescriptor &) = delete;
    int m_fd;
};

// A precompressed variant beside the file: a regular file of that name and
// nothing else (a directory there stands for no index document).
int openVariant(const KZF::tstring &path, struct stat &status)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0 && (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// The element of a comma-separated list between `from` and the next comma,
// without the blanks around it; `next` is where the element after it starts.
KZF::tstring listElement(const KZF::tstring &list, size_t from, size_t &next)
{
    size_t end = list.find(',', from);
    next = end == KZF::tstring::npos ? list.size() + 1 : end + 1;
    end = std::min(end, list.size());
    while (from < end && isBlank(list[from]))
        ++from;
    while (end > from && isBlank(list[end - 1]))
        --end;
    return list.substr(from, end - from);
}

bool equalsIgnoringCase(const KZF::tstring &text, size_t from, size_t length, const char *word)
{
    return std::strlen(word) == length && ::strncasecmp(text.c_str() + from, word, length) == 0;
}

// Whether an Accept-Encoding value takes `coding` (or `alias`): named, or
// covered by "*" while not named, with a weight other than zero.
bool acceptsCoding(const KZF::tstring &accept, const char *coding, const char *alias)
{
    int named = -1, any = -1; // -1 not listed, 0 refused, 1 accepted
    for (size_t at = 0, next = 0; at <= accept.size(); at = next) {
        const KZF::tstring element = listElement(accept, at, next);
        size_t nameEnd = element.find(';');
        const KZF::tstring parameters =
            nameEnd == KZF::tstring::npos ? KZF::tstring() : element.substr(nameEnd);
        nameEnd = std::min(nameEnd, element.size());
        while (nameEnd > 0 && isBlank(element[nameEnd - 1]))
            --nameEnd;
        // "q=0", "q=0.0" and so on refuse; any other weight takes.
        const size_t q = parameters.find_first_of("qQ");
        size_t digits = parameters.find('=', q == KZF::tstring::npos ? parameters.size() : q);
        bool zero = false;
        if (digits != KZF::tstring::npos) {
            while (++digits < parameters.size() && isBlank(parameters[digits])) {
            }
            zero = parameters.compare(digits, 1, "0") == 0 &&
                   parameters.find_first_not_of("0.", digits) >= parameters.find_first_of(" \t;", digits);
        }
        const int verdict = zero ? 0 : 1;
        if (equalsIgnoringCase(element, 0, nameEnd, coding) || equalsIgnoringCase(element, 0, nameEnd, alias))
            named = std::max(named, verdict);
        else if (equalsIgnoringCase(element, 0, nameEnd, "*"))
            any = verdict;
    }
    return named >= 0 ? named == 1 : any == 1;
}

void appendHex(KZF::tstring &out, uint64_t value)
{
    char digits[16];
    int count = 0;
    do {
        digits[count++] = "0123456789abcdef"[value & 15];
        value >>= 4;
    } while (value != 0);
    while (count > 0)
        out += digits[--count];
}

// Differs whenever the bytes may: another inode (a file replaced by rename),
// another size, another modification time to the nanosecond.
KZF::tstring entityTag(const struct stat &status)
{
    KZF::tstring tag(1, '"');
    tag.reserve(40);
    appendHex(tag, static_cast<uint64_t>(status.st_ino));
    tag += '-';
    appendHex(tag, static_cast<uint64_t>(status.st_size));
    tag += '-';
    appendHex(tag, static_cast<uint64_t>(status.st_mtim.tv_sec));
    tag += '.';
    appendHex(tag, static_cast<uint64_t>(status.st_mtim.tv_nsec));
    tag += '"';
    return tag;
}

// If-None-Match compares weakly: "W/" is ignored on either side.
bool matchesAnyTag(const KZF::tstring &list, const KZF::tstring &tag)
{
    for (size_t at = 0, next = 0; at <= list.size(); at = next) {
        KZF::tstring element = listElement(list, at, next);
        if (element == "*")
            return true;
        if (element.compare(0, 2, "W/") == 0)
            element.erase(0, 2);
        if (element == tag)
            return true;
    }
    return false;
}

// A name such as "app.3f9a1c2e.js" or "index-B2x9KqZ1.css": the part
// between the last '.' or '-' and the extension has 8 to 64 letters, digits
// or '_', with a letter and a digit among them. Words and dates are not
// taken for hashes; a hash of digits alone is missed, which only costs a
// revalidation.
bool carriesContentHash(const KZF::tstring &path)
{
    const size_t slash = path.rfind('/');
    const size_t nameStart = slash == KZF::tstring::npos ? 0 : slash + 1;
    const size_t dot = path.rfind('.');
    if (dot == KZF::tstring::npos || dot <= nameStart)
        return false;
    const size_t separator = path.find_last_of(".-", dot - 1);
    if (separator == KZF::tstring::npos || separator < nameStart)
        return false;
    const size_t length = dot - separator - 1;
    bool letter = false, digit = false;
    for (size_t i = separator + 1; i < dot; ++i) {
        const char c = path[i];
        digit = digit || (c >= '0' && c <= '9');
        letter = letter || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!(c >= '0' && c <= '9') && !(c >= 'a' && c <= 'z') && !(c >= 'A' && c <= 'Z') && c != '_')
            return false;
    }
    return length >= 8 && length <= 64 && letter && digit;
}

// At most 18 digits: more stand for a number past any file size.
bool readNumber(const KZF::tstring &text, size_t from, size_t to, int64_t &value)
{
    if (from >= to)
        return false;
    value = 0;
    for (size_t i = from; i < to; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
        value = i - from < 18 ? value * 10 + (text[i] - '0') : INT64_MAX;
    }
    return true;
}

enum ERange { eNoRange, eUnsatisfiable, eSatisfiable };

// One "bytes=" range of a file of `size` bytes, as [first, last]. Anything
// else (another unit, bad syntax, several ranges) is ignored: the whole file
// is the answer.
ERange parseRange(const KZF::tstring &value, int64_t size, int64_t &first, int64_t &last)
{
    size_t at = 0;
    while (at < value.size() && isBlank(value[at]))
        ++at;
    if (!equalsIgnoringCase(value, at, std::min<size_t>(6, value.size() - at), "bytes=") ||
        value.find(',') != KZF::tstring::npos)
        return eNoRange;
    size_t end = value.size();
    while (end > at && isBlank(value[end - 1]))
        --end;
    at += 6;
    const size_t dash = value.find('-', at);
    if (dash == KZF::tstring::npos || dash >= end)
        return eNoRange;
    int64_t a = 0, b = 0;
    if (dash == at) { // the last b bytes
        if (!readNumber(value, dash + 1, end, b))
            return eNoRange;
        if (b == 0 || size == 0)
            return eUnsatisfiable;
        first = size - std::min(b, size);
        last = size - 1;
        return eSatisfiable;
    }
    if (!readNumber(value, at, dash, a))
        return eNoRange;
    if (dash + 1 == end)
        b = INT64_MAX;
    else if (!readNumber(value, dash + 1, end, b) || b < a)
        return eNoRange;
    if (a >= size)
        return eUnsatisfiable;
    first = a;
    last = std::min(b, size - 1);
    return eSatisfiable;
}

const char c_immutable[] = "public, max-age=31536000, immutable";

} // namespace

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::ProcessWithOptions(const CHTTPRequest &request,
                                                                         int connectionID, KZF::tstring &path,
                                                                         struct stat &status, bool looked)
{
    KZF::CRefCountPtr<CHTTPResponse> result;
    const SFileOptions &options = m_options;
    // A looked-up path is final (index document appended) and its status
    // known: the cache may spare the open. Otherwise the open finds out.
    CDescriptor file(looked ? -1 : openRegularFile(path, status));
    if (!looked && file.Get() < 0)
        return result;
    KZF::tstring value;
    const char *encoding = nullptr;
    if (options.m_precompressed && request.GetHeaderFieldValueByName("accept-encoding", value)) {
        // The same directory, the same rules: only a regular file of that
        // name, opened without following it anywhere a path could not go.
        static const char *const s_variants[][3] = {{"br", "br", ".br"}, {"gzip", "x-gzip", ".gz"}};
        for (const auto &variant : s_variants) {
            if (!acceptsCoding(value, variant[0], variant[1]))
                continue;
            struct stat variantStatus;
            const int fd = openVariant(path + variant[2], variantStatus);
            if (fd >= 0) {
                file.Reset(fd);
                status = variantStatus;
                encoding = variant[0];
                break;
            }
        }
    }
    CHTTPFileCache::TContent content;
    if (file.Get() < 0) {
        content = m_fileCache.Find(path, status);
        if (!content) {
            file.Reset(openRegularFile(path, status));
            if (file.Get() < 0)
                return result;
        }
    }

    const int64_t size = static_cast<int64_t>(status.st_size);
    const KZF::tstring tag = entityTag(status);
    char modified[CHTTPDate::c_length + 1];
    if (!CHTTPDate::Format(status.st_mtim.tv_sec, modified))
        modified[0] = '\0';
    const char *cacheControl = options.m_cacheControl.empty() ? nullptr : options.m_cacheControl.c_str();
    if (options.m_hashedImmutable && carriesContentHash(path))
        cacheControl = c_immutable;
    // What a cache needs to reuse or revalidate the answer: the only fields
    // of a 304.
    auto addCacheFields = [&](CHTTPResponse &response) {
        if (options.m_validators) {
            response.AddHeaderField("ETag", tag);
            if (modified[0] != '\0')
                response.AddHeaderField("Last-Modified", modified);
        }
        if (cacheControl != nullptr)
            response.AddHeaderField("Cache-Control", cacheControl);
        if (options.m_precompressed)
            response.AddHeaderField("Vary", "Accept-Encoding");
    };
    auto complete = [](CHTTPResponse &response, int code, const char *phrase) {
        response.SetCode(code);
        response.SetPhrase(phrase);
        response.SetIsLast(true);
    };

    if (options.m_validators) {
        bool unchanged = false;
        time_t since;
        // A client that holds tags asks by tag alone.
        if (request.GetHeaderFieldValueByName("if-none-match", value))
            unchanged = matchesAnyTag(value, tag);
        else if (request.GetHeaderFieldValueByName("if-modified-since", value))
            unchanged =
                CHTTPDate::Parse(value, since) && since <= KZF::time() && status.st_mtim.tv_sec <= since;
        if (unchanged) {
            CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
            result = response;
            if (response != nullptr) {
                complete(*response, 304, "Not Modified");
                response->SetHeadersOnly(true);
                addCacheFields(*response);
            }
            return result;
        }
    }

    int64_t first = 0, last = size - 1;
    bool partial = false;
    if (options.m_ranges && request.GetHeaderFieldValueByName("range", value)) {
        // If-Range: the range only of the very bytes the client holds
        // (its tag compared strongly, or the date exactly), else all of them.
        KZF::tstring condition;
        const bool current = !request.GetHeaderFieldValueByName("if-range", condition) ||
                             (condition[0] == '"' ? condition == tag : condition == modified);
        const ERange range = current ? parseRange(value, size, first, last) : eNoRange;
        if (range == eUnsatisfiable) {
            CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
            result = response;
            if (response != nullptr) {
                complete(*response, 416, "Range Not Satisfiable");
                response->AddHeaderField("Content-Range", "bytes */" + KZF::CSysUtils::Int64ToString(size));
            }
            return result;
        }
        partial = range == eSatisfiable;
    }
    const int64_t length = last - first + 1;

    if (request.GetMethod() != c_getMethod || length <= m_pieceSize) {
        CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
        result = response;
        if (response == nullptr)
            return result;
        if (request.GetMethod() != c_getMethod) {
            // HEAD: what GET would announce, without the bytes.
            response->SetHeadersOnly(true);
            response->AddHeaderField("Content-Length", KZF::CSysUtils::Int64ToString(length));
        } else if (content) {
            response->SetData(reinterpret_cast<const unsigned char *>(content->data()) + first,
                              static_cast<long>(length));
        } else if (length <= c_pieceSize) {
            unsigned char buffer[c_pieceSize];
            const size_t n = readAt(file.Get(), buffer, static_cast<size_t>(length), first);
            // A range cut by a file that shrank meanwhile would contradict
            // its Content-Range; a whole file goes short, as without options.
            if (partial && n != static_cast<size_t>(length))
                return KZF::CRefCountPtr<CHTTPResponse>();
            response->SetData(buffer, static_cast<long>(n));
            if (encoding == nullptr && !partial && n == static_cast<size_t>(size))
                m_fileCache.Put(path, status, buffer, n, KZF::time());
        } else {
            CHTTPFileBody *body = new (std::nothrow) CHTTPFileBody(file.Get());
            if (body == nullptr)
                return KZF::CRefCountPtr<CHTTPResponse>();
            file.Release();
            // The response holds the only reference: the file closes with it.
            response->SetFileData(body, first, static_cast<long>(length));
        }
        complete(*response, 200, "OK");
    } else {
        result = StartTransfer(connectionID, file.Release(), first, last + 1);
        if (result.IsNull())
            return result;
    }
    if (partial) {
        result->SetCode(206);
        result->SetPhrase("Partial Content");
        result->AddHeaderField("Content-Range", "bytes " + KZF::CSysUtils::Int64ToString(first) + "-" +
                                                    KZF::CSysUtils::Int64ToString(last) + "/" +
                                                    KZF::CSysUtils::Int64ToString(size));
    }
    const KZF::tstring *type = options.m_contentTypes ? m_types.Find(path) : nullptr;
    if (type != nullptr)
        result->SetContentType(*type);
    if (encoding != nullptr)
        result->AddHeaderField("Content-Encoding", encoding);
    if (options.m_ranges)
        result->AddHeaderField("Accept-Ranges", "bytes");
    addCacheFields(*result);
    return result;
}

} // namespace NVQ
