#include "HTTP/HTTPDefaultHandler.h"

#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/KzfTime.h"
#include "KZF_Utilities/Linux/Logger.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <algorithm>
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
// first spares the separate directory test on the usual path.
FILE *openRegularFile(KZF::tstring &path, struct stat &status)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    if (::fstat(fd, &status) != 0) {
        status.st_mode = 0;
    } else if (S_ISDIR(status.st_mode)) {
        ::close(fd);
        path += c_defaultDocument;
        fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return nullptr;
        if (::fstat(fd, &status) != 0)
            status.st_mode = 0;
    }
    if (!S_ISREG(status.st_mode)) {
        ::close(fd);
        return nullptr;
    }
    FILE *file = ::fdopen(fd, "rb");
    if (file == nullptr) {
        ::close(fd);
        return nullptr;
    }
    // A file of one piece is read whole into the piece: a stream buffer
    // would only add a copy. Larger files get a buffer of their own below.
    std::setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

// Files of several pieces are read this much at a time (about four pieces
// per read), for 32 KiB of memory per transfer under way.
const size_t c_streamBufferSize = 32768;

void closeTransfer(const CHTTPDefaultHandler::SRequestData &data)
{
    std::fclose(data.m_pFile);
    delete[] data.m_pBuffer;
}

// A piece with code 200, "OK" and the data; null when out of memory.
CHTTPResponse *newPiece(const unsigned char *data, size_t size)
{
    CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
    KZF_ASSERT(response != nullptr);
    if (response != nullptr) {
        response->SetCode(200);
        response->SetPhrase("OK");
        if (!response->SetData(data, static_cast<long>(size)))
            KZF_ASSERT(false); // the piece goes out without data
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

} // namespace

CHTTPDefaultHandler::CHTTPDefaultHandler(const KZF::tstring &directory)
    : m_directory(directory), m_interrupted(false)
{
}

CHTTPDefaultHandler::~CHTTPDefaultHandler()
{
    m_interrupted = true;
    for (auto &entry : m_connDataMap)
        closeTransfer(entry.second);
}

void CHTTPDefaultHandler::SetDirectory(const KZF::tstring &directory)
{
    m_directory = directory;
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
    m_interrupted = false;
    SLookup &lookup = t_lookup;
    const bool looked = lookup.m_valid;
    lookup.m_valid = false; // good for this request only
    if (request.GetMethod() != c_getMethod)
        return result;
    KZF::tstring path;
    if (looked && lookup.m_uri == request.GetUri() &&
        coarseMilliseconds() - lookup.m_takenMs < c_lookupLifetimeMs) {
        const CHTTPFileCache::TContent content = m_fileCache.Find(lookup.m_path, lookup.m_status);
        if (content) {
            result = MakeCompleteResponse(reinterpret_cast<const unsigned char *>(content->data()),
                                          content->size());
            KZF::CCriticalSection::CLock lock(m_lock);
            RemoveRequest(connectionID);
            return result;
        }
        path.swap(lookup.m_path); // already decoded and mapped
    } else if (!ResolveBasePath(request.GetUri(), path)) {
        return result;
    }

    struct stat status;
    SRequestData data = {nullptr, 0, 0, nullptr};
    data.m_pFile = openRegularFile(path, status);
    if (data.m_pFile == nullptr)
        return result;
    data.m_size = static_cast<int64_t>(status.st_size);
    if (data.m_size > c_pieceSize) {
        // Without a buffer (out of memory) the pieces are read one by one.
        data.m_pBuffer = new (std::nothrow) unsigned char[c_streamBufferSize];
        if (data.m_pBuffer != nullptr)
            std::setvbuf(data.m_pFile, reinterpret_cast<char *>(data.m_pBuffer), _IOFBF, c_streamBufferSize);
    }
    // The record is this thread's until it enters the map; the lock guards
    // only the map, so transfers on other connections never wait for a read.
    bool last = true;
    result = ProcessRequestData(data, true, last, &status, &path);
    {
        KZF::CCriticalSection::CLock lock(m_lock);
        if (last)
            RemoveRequest(connectionID);
        else
            AddRequest(connectionID, data);
    }
    if (last)
        closeTransfer(data);
    return result;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::MakeCompleteResponse(const unsigned char *data,
                                                                           size_t size)
{
    KZF::CRefCountPtr<CHTTPResponse> result = newPiece(data, size);
    if (!result.IsNull())
        result->SetIsLast(true);
    if (m_interrupted)
        result = static_cast<CHTTPResponse *>(nullptr);
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
    // Only the connection's own thread adds, reads or removes its entry, and
    // map entries stay where they are while others come and go: the read
    // needs no lock.
    SRequestData &data = it->second;
    bool last = true;
    result = ProcessRequestData(data, false, last);
    if (last) {
        const SRequestData ended = data;
        {
            KZF::CCriticalSection::CLock lock(m_lock);
            m_connDataMap.erase(it);
        }
        closeTransfer(ended);
    }
    return result;
}

bool CHTTPDefaultHandler::InterruptProcessing()
{
    m_interrupted = true;
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
}

void CHTTPDefaultHandler::RemoveRequest(int connectionID)
{
    auto it = m_connDataMap.find(connectionID);
    if (it == m_connDataMap.end())
        return;
    closeTransfer(it->second);
    m_connDataMap.erase(it);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::ProcessRequestData(SRequestData &data,
                                                                         bool isFirstPiece, bool &last,
                                                                         const struct stat *status,
                                                                         const KZF::tstring *path)
{
    KZF::CRefCountPtr<CHTTPResponse> result;
    if (data.m_size > 0)
        KZF_ASSERT(data.m_offset < data.m_size);
    // Never more than the length measured at the start: a file that grows
    // meanwhile is cut there, so the announced length stays true.
    const int64_t remaining = std::max<int64_t>(data.m_size - data.m_offset, 0);
    const size_t wanted = static_cast<size_t>(std::min<int64_t>(remaining, c_pieceSize));
    unsigned char buffer[c_pieceSize];
    const size_t n = wanted > 0 ? std::fread(buffer, 1, wanted, data.m_pFile) : 0;

    last = true;
    if (n > 0) {
        data.m_offset += static_cast<int64_t>(n);
        CHTTPResponse *response = newPiece(buffer, n);
        result = response;
        if (response != nullptr) {
            if (isFirstPiece && data.m_size > c_pieceSize)
                response->AddHeaderField("Content-Length", KZF::CSysUtils::Int64ToString(data.m_size));
            last = data.m_offset == data.m_size;
            response->SetSendOnlyData(!isFirstPiece);
            response->SetIsLast(last);
            if (isFirstPiece && last && status != nullptr && path != nullptr)
                m_fileCache.Put(*path, *status, buffer, n, KZF::time());
        }
    }
    if (m_interrupted)
        result = static_cast<CHTTPResponse *>(nullptr);
    return result;
}

} // namespace NVQ
