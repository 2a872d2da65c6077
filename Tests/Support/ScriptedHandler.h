#ifndef TESTS_SUPPORT_SCRIPTEDHANDLER_H
#define TESTS_SUPPORT_SCRIPTEDHANDLER_H

// A request handler whose answers a test scripts, and which records every
// call the library makes on it.

#include "HTTP/IHTTPExchangeEndNotification.h"
#include "HTTP/IHTTPRequestHandler.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace NVQTest
{

inline KZF::CRefCountPtr<NVQ::CHTTPResponse> makeResponse(int code, const std::string &phrase,
                                                          const std::string &data, bool last, bool sendOnly)
{
    NVQ::CHTTPResponse *response = new NVQ::CHTTPResponse();
    response->SetCode(code);
    response->SetPhrase(phrase);
    response->SetData(reinterpret_cast<const unsigned char *>(data.data()), static_cast<long>(data.size()));
    response->SetIsLast(last);
    response->SetSendOnlyData(sendOnly);
    return KZF::CRefCountPtr<NVQ::CHTTPResponse>(response);
}

class CScriptedHandler : public NVQ::IHTTPRequestHandler, public NVQ::IHTTPExchangeEndNotification
{
  public:
    typedef std::function<KZF::CRefCountPtr<NVQ::CHTTPResponse>(NVQ::CHTTPRequest &, int)> FProcess;
    typedef std::function<KZF::CRefCountPtr<NVQ::CHTTPResponse>(int)> FPull;

    // Takes URIs that begin with `prefix`; answers "OK <uri>" by default.
    explicit CScriptedHandler(const std::string &prefix = "/") : m_prefix(prefix)
    {
        m_onProcess = [](NVQ::CHTTPRequest &request, int) {
            return makeResponse(200, "OK", "OK " + request.GetUri(), true, false);
        };
        m_onPull = [](int) { return KZF::CRefCountPtr<NVQ::CHTTPResponse>(); };
    }

    // A streamed answer: the first piece, then each further piece on a pull,
    // the last one marked last.
    void StreamPieces(const std::vector<std::string> &pieces)
    {
        m_pieces = pieces;
        m_onProcess = [this](NVQ::CHTTPRequest &, int) {
            m_nextPiece = 1;
            return makeResponse(200, "OK", m_pieces[0], m_pieces.size() == 1, false);
        };
        m_onPull = [this](int) {
            const size_t index = m_nextPiece++;
            if (index >= m_pieces.size())
                return KZF::CRefCountPtr<NVQ::CHTTPResponse>();
            return makeResponse(200, "OK", m_pieces[index], index + 1 == m_pieces.size(), true);
        };
    }

    bool CanProcessUri(const KZF::tstring &uri) override
    {
        return uri.compare(0, m_prefix.size(), m_prefix) == 0;
    }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> ProcessRequest(NVQ::CHTTPRequest &request,
                                                         int connectionID) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_processIDs.push_back(connectionID);
            m_uris.push_back(request.GetUri());
        }
        return m_onProcess(request, connectionID);
    }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> GetAdditionalResponseData(int connectionID) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_pullIDs.push_back(connectionID);
        }
        return m_onPull(connectionID);
    }
    bool InterruptProcessing() override
    {
        ++m_interrupts;
        return true;
    }
    void OnExchangeEnded(int connectionID) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_endedIDs.push_back(connectionID);
    }

    std::vector<int> ProcessIDs() { return Locked(m_processIDs); }
    std::vector<int> PullIDs() { return Locked(m_pullIDs); }
    std::vector<int> EndedIDs() { return Locked(m_endedIDs); }
    std::vector<int> Locked(const std::vector<int> &ids)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return ids;
    }

    std::string m_prefix;
    FProcess m_onProcess;
    FPull m_onPull;
    std::vector<std::string> m_pieces;
    size_t m_nextPiece = 0;

    std::mutex m_mutex;
    std::vector<int> m_processIDs;
    std::vector<int> m_pullIDs;
    std::vector<int> m_endedIDs;
    std::vector<std::string> m_uris;
    std::atomic<int> m_interrupts{0};
};

} // namespace NVQTest

#endif
