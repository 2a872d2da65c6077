#include "HTTP/HTTPDefaultHandler.h"

#include "HTTP/HTTPDefaultHandlerInternal.h"
#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/KzfTime.h"
#include "KZF_Utilities/Linux/Logger.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace NVQ
{

namespace
{

using detail::c_getMethod;
using detail::c_pieceSize;
using detail::openRegularFile;
using detail::readAt;

const KZF::tstring c_defaultDocument = "index.html";

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

} // namespace

namespace detail
{

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

} // namespace detail

namespace
{

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

// Files this thread found lately, for handlers that trust a lookup for a
// while. Keyed by the mapped path, which names the file whatever handler or
// directory mapped it; per thread, so no lock. Only files found are kept.
struct SRecentLookup {
    KZF::tstring m_basePath; // before the index document is appended
    KZF::tstring m_path;
    struct stat m_status;
    int64_t m_takenMs = 0;
};
const size_t c_recentLookups = 16;
thread_local SRecentLookup t_recent[c_recentLookups];

// Whether the path mapped from `uri`, or the index document when it names a
// directory, is a regular file: one stat where the directory test and the
// file test would take two, none when this thread found it less than
// `lifetimeMs` ago. Recorded for the ProcessRequest of `uri`.
bool isServableFile(const KZF::tstring &uri, const KZF::tstring &basePath, int64_t lifetimeMs)
{
    SLookup &lookup = t_lookup;
    lookup.m_valid = false;
    const int64_t now = coarseMilliseconds();
    SRecentLookup *recent = nullptr;
    if (lifetimeMs > 0) {
        recent = &t_recent[std::hash<KZF::tstring>()(basePath) % c_recentLookups];
        if (recent->m_basePath == basePath && now - recent->m_takenMs < lifetimeMs) {
            lookup.m_path = recent->m_path;
            lookup.m_status = recent->m_status;
            lookup.m_uri = uri;
            lookup.m_takenMs = now;
            lookup.m_valid = true;
            return true;
        }
    }
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
    lookup.m_takenMs = now;
    lookup.m_valid = true;
    if (recent != nullptr) {
        recent->m_basePath = basePath;
        recent->m_path = lookup.m_path;
        recent->m_status = lookup.m_status;
        recent->m_takenMs = now;
    }
    return true;
}

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
    options.m_lookupLifetimeMs = 1000;
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
    return ResolveBasePath(uri, path) && isServableFile(uri, path, m_options.m_lookupLifetimeMs);
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
