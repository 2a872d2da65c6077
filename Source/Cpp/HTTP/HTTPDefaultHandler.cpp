#include "HTTP/HTTPDefaultHandler.h"

#include "HTTP/HTTPDate.h"
#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/KzfTime.h"
#include "KZF_Utilities/Linux/Logger.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace NVQ
{

namespace
{

const KZF::tstring c_defaultDocument = "index.html";
const char c_getMethod[] = "GET";
const int c_pieceSize = 8194;

// The part of a decoded URI that becomes a path must stay below the served
// directory. Decoding comes first, so escaped spellings (%2e%2e, %2F, %5C,
// %00, any letter case) are judged by what they decode to.
bool isConfined(const KZF::tstring &decodedUri)
{
    const size_t end = std::min(decodedUri.find('?'), decodedUri.size());
    size_t segmentStart = 0;
    for (size_t i = 0; i <= end; ++i) {
        const char c = i < end ? decodedUri[i] : '/';
        if (c == '\\' || c == '\0')
            return false;
        if (c == '/') {
            if (i - segmentStart == 2 && decodedUri.compare(segmentStart, 2, "..") == 0)
                return false;
            segmentStart = i + 1;
        }
    }
    return true;
}

// Opens only a regular file, without blocking on a FIFO or device and
// without a window in which the path could be swapped for one. A directory
// stands for its index document, as in GetResourcePath; trying the open
// first spares the separate directory test on the usual path. The
// descriptor, or -1.
int openRegularFile(KZF::tstring &path, struct stat &status)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    if (::fstat(fd, &status) != 0) {
        status.st_mode = 0;
    } else if (S_ISDIR(status.st_mode)) {
        ::close(fd);
        path += c_defaultDocument;
        fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return -1;
        if (::fstat(fd, &status) != 0)
            status.st_mode = 0;
    }
    if (!S_ISREG(status.st_mode)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Reads `size` bytes from `offset`; the count read (short when the file
// shrank meanwhile).
size_t readAt(int fd, unsigned char *buffer, size_t size, int64_t offset)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, buffer + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    return done;
}

void closeTransfer(const CHTTPDefaultHandler::SRequestData &data)
{
    if (data.m_pFile != nullptr)
        data.m_pFile->ReleaseRef();
}

// A piece with code 200 and "OK"; null when out of memory.
CHTTPResponse *newPiece()
{
    CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
    KZF_ASSERT(response != nullptr);
    if (response != nullptr) {
        response->SetCode(200);
        response->SetPhrase("OK");
    }
    return response;
}

// What CanProcessUri found, for the ProcessRequest that follows on the same
// thread: it spares decoding and mapping the URI again, and lets a cached
// file be used without touching the file system again.
struct SLookup {
    KZF::tstring m_uri;  // as received
    KZF::tstring m_path; // the file it maps to, index document appended
    struct stat m_status;
    int64_t m_takenMs = 0;
    bool m_valid = false;
};
thread_local SLookup t_lookup;

// A lookup older than this is not used, whoever called CanProcessUri without
// the ProcessRequest that normally follows at once.
const int64_t c_lookupLifetimeMs = 50;

int64_t coarseMilliseconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Whether the path mapped from `uri`, or the index document when it names a
// directory, is a regular file: one stat where the directory test and the
// file test would take two. Recorded for the ProcessRequest of `uri`.
bool isServableFile(const KZF::tstring &uri, const KZF::tstring &basePath)
{
    SLookup &lookup = t_lookup;
    lookup.m_valid = false;
    if (::stat(basePath.c_str(), &lookup.m_status) != 0)
        return false;
    lookup.m_path = basePath;
    if (S_ISDIR(lookup.m_status.st_mode)) {
        lookup.m_path += c_defaultDocument;
        if (::stat(lookup.m_path.c_str(), &lookup.m_status) != 0)
            return false;
    }
    if (!S_ISREG(lookup.m_status.st_mode))
        return false;
    lookup.m_uri = uri;
    lookup.m_takenMs = coarseMilliseconds();
    lookup.m_valid = true;
    return true;
}

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
const int64_t c_maxPieceSize = 1 << 30; // a piece's size fits a 32-bit long

} // namespace

CHTTPDefaultHandler::SFileOptions CHTTPDefaultHandler::SFileOptions::Web()
{
    SFileOptions options;
    options.m_contentTypes = true;
    options.m_head = true;
    options.m_validators = true;
    options.m_ranges = true;
    options.m_precompressed = true;
    options.m_cacheControl = "no-cache";
    options.m_hashedImmutable = true;
    options.m_pieceSize = 1 << 20;
    return options;
}

CHTTPDefaultHandler::CHTTPDefaultHandler(const KZF::tstring &directory)
    : m_directory(directory), m_transfers(0), m_anyOption(false), m_pieceSize(c_pieceSize)
{
}

CHTTPDefaultHandler::~CHTTPDefaultHandler()
{
    for (auto &entry : m_connDataMap)
        closeTransfer(entry.second);
}

void CHTTPDefaultHandler::SetDirectory(const KZF::tstring &directory)
{
    m_directory = directory;
}

void CHTTPDefaultHandler::SetOptions(const SFileOptions &options)
{
    m_options = options;
    m_anyOption = options.m_contentTypes || options.m_head || options.m_validators || options.m_ranges ||
                  options.m_precompressed || !options.m_cacheControl.empty() || options.m_hashedImmutable ||
                  options.m_pieceSize > 0;
    m_pieceSize = options.m_pieceSize > 0
                      ? std::min(std::max<int64_t>(options.m_pieceSize, c_pieceSize), c_maxPieceSize)
                      : c_pieceSize;
    m_types = CHTTPContentTypes();
    for (const auto &entry : options.m_extraTypes)
        m_types.Set(entry.first, entry.second);
}

KZF::tstring CHTTPDefaultHandler::GetResourcePath(const KZF::tstring &decodedUri)
{
    KZF::tstring path = GetBasePath(decodedUri);
    if (KZF::CSysUtils::DirectoryExists(path))
        path += c_defaultDocument;
    return path;
}

KZF::tstring CHTTPDefaultHandler::GetBasePath(const KZF::tstring &decodedUri)
{
    const size_t query = decodedUri.find('?');
    const size_t end = query == KZF::tstring::npos ? decodedUri.size() : query;
    const size_t start = end > 0 && decodedUri[0] == '/' ? 1 : 0;
    return KZF::CSysUtils::MakeFullPath(m_directory, decodedUri.substr(start, end - start));
}

bool CHTTPDefaultHandler::ResolveBasePath(const KZF::tstring &uri, KZF::tstring &path)
{
    const KZF::tstring decoded = CHTTPRequest::UriDecode(uri);
    if (!isConfined(decoded))
        return false;
    path = GetBasePath(decoded);
    return true;
}

bool CHTTPDefaultHandler::CanProcessUri(const KZF::tstring &uri)
{
    KZF::tstring path;
    return ResolveBasePath(uri, path) && isServableFile(uri, path);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::ProcessRequest(CHTTPRequest &request, int connectionID)
{
    KZF::CRefCountPtr<CHTTPResponse> result;
    SLookup &lookup = t_lookup;
    const bool looked = lookup.m_valid;
    lookup.m_valid = false; // good for this request only
    if (m_transfers.load(std::memory_order_relaxed) > 0) {
        // A new request of the connection ends any transfer it still had.
        // (Its own transfers it counted in itself, so it sees them.)
        KZF::CCriticalSection::CLock lock(m_lock);
        RemoveRequest(connectionID);
    }
    if (request.GetMethod() != c_getMethod && !(m_options.m_head && request.GetMethod() == "HEAD"))
        return result;
    KZF::tstring path;
    struct stat status;
    if (looked && lookup.m_uri == request.GetUri() &&
        coarseMilliseconds() - lookup.m_takenMs < c_lookupLifetimeMs) {
        path.swap(lookup.m_path); // already decoded and mapped
        status = lookup.m_status;
        if (m_anyOption)
            return ProcessWithOptions(request, connectionID, path, status, true);
        const CHTTPFileCache::TContent content = m_fileCache.Find(path, status);
        if (content)
            return MakeCompleteResponse(reinterpret_cast<const unsigned char *>(content->data()),
                                        content->size());
    } else if (!ResolveBasePath(request.GetUri(), path)) {
        return result;
    } else if (m_anyOption) {
        return ProcessWithOptions(request, connectionID, path, status, false);
    }

    const int fd = openRegularFile(path, status);
    if (fd < 0)
        return result;
    const int64_t size = static_cast<int64_t>(status.st_size);
    if (size <= c_pieceSize) {
        // One piece: read whole, answered complete, kept for the next time.
        unsigned char buffer[c_pieceSize];
        const size_t n = readAt(fd, buffer, static_cast<size_t>(size), 0);
        ::close(fd);
        if (n == 0)
            return result; // empty (or emptied): nothing to answer
        result = MakeCompleteResponse(buffer, n);
        if (n == static_cast<size_t>(size))
            m_fileCache.Put(path, status, buffer, n, KZF::time());
        return result;
    }
    return StartTransfer(connectionID, fd, 0, size);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::StartTransfer(int connectionID, int fd, int64_t offset,
                                                                    int64_t end)
{
    KZF::CRefCountPtr<CHTTPResponse> result;
    SRequestData data = {new (std::nothrow) CHTTPFileBody(fd), end, offset};
    if (data.m_pFile == nullptr) {
        ::close(fd);
        return result;
    }
    data.m_pFile->AddRef();
    // The record is this thread's until it enters the map; the lock guards
    // only the map.
    bool last = true;
    result = ProcessRequestData(data, true, last);
    if (last) {
        closeTransfer(data);
    } else {
        KZF::CCriticalSection::CLock lock(m_lock);
        AddRequest(connectionID, data);
    }
    return result;
}

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

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::MakeCompleteResponse(const unsigned char *data,
                                                                           size_t size)
{
    KZF::CRefCountPtr<CHTTPResponse> result = newPiece();
    if (!result.IsNull()) {
        if (!result->SetData(data, static_cast<long>(size)))
            KZF_ASSERT(false); // the piece goes out without data
        result->SetIsLast(true);
    }
    return result;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::GetAdditionalResponseData(int connectionID)
{
    KZF::CRefCountPtr<CHTTPResponse> result;
    std::map<int, SRequestData>::iterator it;
    {
        KZF::CCriticalSection::CLock lock(m_lock);
        it = m_connDataMap.find(connectionID);
        KZF_ASSERT(it != m_connDataMap.end());
        if (it == m_connDataMap.end())
            return result;
    }
    // Only the connection's own exchange adds, uses or removes its entry, and
    // map entries stay where they are while others come and go: the record
    // needs no lock.
    SRequestData &data = it->second;
    bool last = true;
    result = ProcessRequestData(data, false, last);
    if (last) {
        const SRequestData ended = data;
        {
            KZF::CCriticalSection::CLock lock(m_lock);
            m_connDataMap.erase(it);
            m_transfers.fetch_sub(1, std::memory_order_relaxed);
        }
        closeTransfer(ended);
    }
    return result;
}

bool CHTTPDefaultHandler::InterruptProcessing()
{
    // It does not say which connection closed, and the exchange end notice
    // that follows does: the transfer of that connection alone is dropped
    // there. A flag here would cut every other client's download too.
    KZF::CLogger::GetInstance().LogMessage(8, __FILE__, __LINE__, "InterruptProcessing",
                                           KZF::CLogger::c_noneObjPtr,
                                           "CHTTPDefaultHandler : received interrupt!\n");
    return true;
}

void CHTTPDefaultHandler::OnExchangeEnded(int connectionID)
{
    KZF::CCriticalSection::CLock lock(m_lock);
    RemoveRequest(connectionID);
}

void CHTTPDefaultHandler::AddRequest(int connectionID, const SRequestData &requestData)
{
    RemoveRequest(connectionID);
    m_connDataMap[connectionID] = requestData;
    m_transfers.fetch_add(1, std::memory_order_relaxed);
}

void CHTTPDefaultHandler::RemoveRequest(int connectionID)
{
    auto it = m_connDataMap.find(connectionID);
    if (it == m_connDataMap.end())
        return;
    closeTransfer(it->second);
    m_connDataMap.erase(it);
    m_transfers.fetch_sub(1, std::memory_order_relaxed);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::ProcessRequestData(SRequestData &data,
                                                                         bool isFirstPiece, bool &last)
{
    KZF::CRefCountPtr<CHTTPResponse> result;
    KZF_ASSERT(data.m_offset < data.m_end);
    // Never more than the length measured at the start: a file that grows
    // meanwhile is cut there, so the announced length stays true. (One that
    // shrinks ends the connection early, when the bytes run out.)
    const int64_t remaining = std::max<int64_t>(data.m_end - data.m_offset, 0);
    const long piece = static_cast<long>(std::min<int64_t>(remaining, m_pieceSize));
    last = true;
    if (piece > 0) {
        CHTTPResponse *response = newPiece();
        result = response;
        if (response != nullptr) {
            if (!response->SetFileData(data.m_pFile, data.m_offset, piece))
                KZF_ASSERT(false);
            data.m_offset += piece;
            last = data.m_offset == data.m_end;
            if (isFirstPiece && !last)
                response->AddHeaderField("Content-Length", KZF::CSysUtils::Int64ToString(remaining));
            response->SetSendOnlyData(!isFirstPiece);
            response->SetIsLast(last);
        }
    }
    return result;
}

} // namespace NVQ
