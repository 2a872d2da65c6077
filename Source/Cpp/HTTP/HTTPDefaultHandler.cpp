#include "HTTP/HTTPDefaultHandler.h"

#include "KZF_Base/Linux/KzfAssert.h"
#include "KZF_Utilities/Linux/Logger.h"
#include "KZF_Utilities/Linux/SysUtils.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
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
// without a window in which the path could be swapped for one.
FILE *openRegularFile(const KZF::tstring &path, int64_t &size)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        return nullptr;
    }
    FILE *file = ::fdopen(fd, "rb");
    if (file == nullptr) {
        ::close(fd);
        return nullptr;
    }
    // Pieces are read whole into their own buffer: a stream buffer would only
    // add a copy and 4 KiB per transfer.
    std::setvbuf(file, nullptr, _IONBF, 0);
    size = static_cast<int64_t>(status.st_size);
    return file;
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
        std::fclose(entry.second.m_pFile);
}

void CHTTPDefaultHandler::SetDirectory(const KZF::tstring &directory)
{
    m_directory = directory;
}

KZF::tstring CHTTPDefaultHandler::GetResourcePath(const KZF::tstring &decodedUri)
{
    KZF::tstring path = decodedUri;
    const size_t query = path.find('?');
    if (query != KZF::tstring::npos)
        path.erase(query);
    if (!path.empty() && path[0] == '/')
        path.erase(0, 1);
    path = KZF::CSysUtils::MakeFullPath(m_directory, path);
    if (KZF::CSysUtils::DirectoryExists(path))
        path += c_defaultDocument;
    return path;
}

bool CHTTPDefaultHandler::ResolvePath(const KZF::tstring &uri, KZF::tstring &path)
{
    const KZF::tstring decoded = CHTTPRequest::UriDecode(uri);
    if (!isConfined(decoded))
        return false;
    path = GetResourcePath(decoded);
    return true;
}

bool CHTTPDefaultHandler::CanProcessUri(const KZF::tstring &uri)
{
    KZF::tstring path;
    return ResolvePath(uri, path) && KZF::CSysUtils::FileExists(path);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::ProcessRequest(CHTTPRequest &request, int connectionID)
{
    KZF::CRefCountPtr<CHTTPResponse> result;
    m_interrupted = false;
    if (request.GetMethod() != c_getMethod)
        return result;
    KZF::tstring path;
    if (!ResolvePath(request.GetUri(), path))
        return result;
    SRequestData data = {nullptr, 0, 0};
    data.m_pFile = openRegularFile(path, data.m_size);
    if (data.m_pFile == nullptr)
        return result;
    KZF::CCriticalSection::CLock lock(m_lock);
    AddRequest(connectionID, data);
    result = ProcessRequestData(connectionID, true);
    return result;
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::GetAdditionalResponseData(int connectionID)
{
    KZF::CCriticalSection::CLock lock(m_lock);
    return ProcessRequestData(connectionID, false);
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
    std::fclose(it->second.m_pFile);
    m_connDataMap.erase(it);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPDefaultHandler::ProcessRequestData(int connectionID, bool isFirstPiece)
{
    KZF::CRefCountPtr<CHTTPResponse> result;
    auto it = m_connDataMap.find(connectionID);
    KZF_ASSERT(it != m_connDataMap.end());
    if (it == m_connDataMap.end())
        return result;

    SRequestData &data = it->second;
    if (data.m_size > 0)
        KZF_ASSERT(data.m_offset < data.m_size);
    // Never more than the length measured at the start: a file that grows
    // meanwhile is cut there, so the announced length stays true.
    const int64_t remaining = std::max<int64_t>(data.m_size - data.m_offset, 0);
    const size_t wanted = static_cast<size_t>(std::min<int64_t>(remaining, c_pieceSize));
    unsigned char buffer[c_pieceSize];
    const size_t n = wanted > 0 ? std::fread(buffer, 1, wanted, data.m_pFile) : 0;

    bool last = true;
    if (n > 0) {
        data.m_offset += static_cast<int64_t>(n);
        CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
        result = response;
        KZF_ASSERT(result);
        if (response != nullptr) {
            response->SetCode(200);
            response->SetPhrase("OK");
            if (isFirstPiece && data.m_size > c_pieceSize)
                response->AddHeaderField("Content-Length", KZF::CSysUtils::Int64ToString(data.m_size));
            if (!response->SetData(buffer, static_cast<long>(n)))
                KZF_ASSERT(false); // the piece goes out without data
            last = data.m_offset == data.m_size;
            response->SetSendOnlyData(!isFirstPiece);
            response->SetIsLast(last);
        }
    }
    if (last) {
        std::fclose(data.m_pFile);
        m_connDataMap.erase(it);
    }
    if (m_interrupted)
        result = static_cast<CHTTPResponse *>(nullptr);
    return result;
}

} // namespace NVQ
