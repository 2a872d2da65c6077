#include "HTTP/HTTPUploadHandler.h"

#include "HTTP/HTTPUploadHandlerInternal.h"
#include "HTTP/Utf8Validator.h"

#include <cstdlib>
#include <new>

namespace NVQ
{

namespace
{

const size_t c_maxNameBytes = 255; // NAME_MAX of the usual file systems

bool isUploadMethod(const KZF::tstring &method)
{
    return method == "POST" || method == "PUT";
}

const char *phraseOf(int code)
{
    switch (code) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 405:
        return "Method Not Allowed";
    case 409:
        return "Conflict";
    case 411:
        return "Length Required";
    case 413:
        return "Payload Too Large";
    case 507:
        return "Insufficient Storage";
    default:
        return "Internal Server Error";
    }
}

} // namespace

namespace detail
{

KZF::CRefCountPtr<CHTTPResponse> jsonAnswer(int code, const std::string &json)
{
    CHTTPResponse *response = new (std::nothrow) CHTTPResponse();
    if (response == nullptr)
        return KZF::CRefCountPtr<CHTTPResponse>();
    response->SetCode(code);
    response->SetPhrase(phraseOf(code));
    response->SetContentType("application/json");
    response->SetData(reinterpret_cast<const unsigned char *>(json.data()), static_cast<long>(json.size()));
    response->SetIsLast(true);
    if (code == 405)
        response->AddHeaderField("Allow", "POST, PUT");
    return KZF::CRefCountPtr<CHTTPResponse>(response);
}

} // namespace detail

namespace
{

using detail::jsonAnswer;

// Whether the request announces body bytes; without any, no body end may
// be reported before ProcessRequest.
bool hasDeclaredBody(const CHTTPRequest &request)
{
    KZF::tstring value;
    if (request.GetHeaderFieldValueByName("transfer-encoding", value))
        return true;
    return request.GetHeaderFieldValueByName("content-length", value) &&
           std::strtoull(value.c_str(), nullptr, 10) > 0;
}

} // namespace

CHTTPUploadHandler::SOptions::SOptions()
    : m_uriPrefix("/upload"), m_maxFileBytes(0), m_maxTotalBytes(0), m_replaceExisting(true)
{
}

CHTTPUploadHandler::CHTTPUploadHandler(const SOptions &options) : m_options(options) {}

CHTTPUploadHandler::~CHTTPUploadHandler() {}

bool CHTTPUploadHandler::IsSafeFileName(const std::string &name)
{
    if (name.empty() || name.size() > c_maxNameBytes || name[0] == '.')
        return false;
    for (const char ch : name) {
        const unsigned char byte = static_cast<unsigned char>(ch);
        if (byte < 0x20 || byte == 0x7F || ch == '/' || ch == '\\')
            return false;
    }
    return CUtf8Validator::IsValid(name.data(), name.size());
}

bool CHTTPUploadHandler::CanProcessUri(const KZF::tstring &uri)
{
    const KZF::tstring &prefix = m_options.m_uriPrefix;
    if (uri.compare(0, prefix.size(), prefix) != 0)
        return false;
    return uri.size() == prefix.size() || uri[prefix.size()] == '/' || uri[prefix.size()] == '?';
}

CHTTPUploadHandler::CUpload *CHTTPUploadHandler::Find(int connectionID)
{
    KZF::CCriticalSection::CLock lock(m_lock);
    std::map<int, std::unique_ptr<CUpload>>::iterator it = m_uploads.find(connectionID);
    return it == m_uploads.end() ? nullptr : it->second.get();
}

std::unique_ptr<CHTTPUploadHandler::CUpload> CHTTPUploadHandler::Take(int connectionID)
{
    std::unique_ptr<CUpload> upload;
    KZF::CCriticalSection::CLock lock(m_lock);
    std::map<int, std::unique_ptr<CUpload>>::iterator it = m_uploads.find(connectionID);
    if (it != m_uploads.end()) {
        upload = std::move(it->second);
        m_uploads.erase(it);
    }
    return upload;
}

IHTTPRequestBodyHandler::SBodyDecision CHTTPUploadHandler::OnRequestHeaders(CHTTPRequest &request,
                                                                            int connectionID)
{
    SBodyDecision decision;
    // Other methods are answered 405 by ProcessRequest, on a connection
    // that stays open.
    if (!isUploadMethod(request.GetMethod()))
        return decision;
    // Only the strict parser decodes chunked bodies; the lenient one would
    // store an empty file and read the chunks as requests.
    KZF::tstring coding;
    if (request.GetHeaderFieldValueByName("transfer-encoding", coding) && !request.IsChunked()) {
        decision.m_choice = eAnswerNow;
        decision.m_answer = jsonAnswer(411, "{\"error\":\"a chunked body needs the strict HTTP/1.1 mode\"}");
        return decision;
    }
    std::unique_ptr<CUpload> upload(new (std::nothrow) CUpload(m_options));
    if (upload == nullptr || !upload->Start(request)) {
        decision.m_choice = eAnswerNow;
        decision.m_answer =
            upload == nullptr ? jsonAnswer(500, "{\"error\":\"out of memory\"}") : upload->Answer();
        return decision;
    }
    decision.m_choice = eTakeBody;
    decision.m_maxBodyBytes = m_options.m_maxTotalBytes;
    KZF::CCriticalSection::CLock lock(m_lock);
    // A leftover of an earlier exchange on this connection is dropped, and
    // its temporaries with it.
    m_uploads[connectionID] = std::move(upload);
    return decision;
}

bool CHTTPUploadHandler::OnRequestBodyData(const unsigned char *data, size_t size, int connectionID)
{
    CUpload *upload = Find(connectionID);
    return upload != nullptr && upload->Data(data, size);
}

void CHTTPUploadHandler::OnRequestBodyEnd(bool complete, int connectionID)
{
    CUpload *upload = Find(connectionID);
    if (upload == nullptr)
        return;
    // Cut short by the connection rather than refused here: no
    // ProcessRequest follows, so nothing may stay behind.
    if (!complete && upload->GetStatus() == 0) {
        Take(connectionID);
        return;
    }
    upload->End(complete);
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPUploadHandler::ProcessRequest(CHTTPRequest &request, int connectionID)
{
    if (!isUploadMethod(request.GetMethod()))
        return jsonAnswer(405, "{\"error\":\"method not allowed\"}");
    std::unique_ptr<CUpload> upload = Take(connectionID);
    if (upload != nullptr && upload->GetStatus() == 0 && !hasDeclaredBody(request))
        upload->End(true);
    if (upload == nullptr) {
        // The server buffered the body instead of handing it over in pieces.
        upload.reset(new (std::nothrow) CUpload(m_options));
        if (upload == nullptr)
            return jsonAnswer(500, "{\"error\":\"out of memory\"}");
        if (upload->Start(request)) {
            if (request.GetBody() != nullptr && request.GetBodySize() > 0)
                upload->Data(request.GetBody(), static_cast<size_t>(request.GetBodySize()));
            upload->End(true);
        }
    }
    return upload->Answer();
}

KZF::CRefCountPtr<CHTTPResponse> CHTTPUploadHandler::GetAdditionalResponseData(int)
{
    return KZF::CRefCountPtr<CHTTPResponse>();
}

bool CHTTPUploadHandler::InterruptProcessing()
{
    // Nothing runs between calls; the exchange's end cleans up.
    return true;
}

void CHTTPUploadHandler::OnExchangeEnded(int connectionID)
{
    Take(connectionID);
}

} // namespace NVQ
