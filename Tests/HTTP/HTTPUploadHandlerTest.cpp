#include "HTTP/HTTPUploadHandler.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace
{

using NVQ::CHTTPUploadHandler;
using NVQ::IHTTPRequestBodyHandler;

// Every entry of a directory, hidden ones included, as "name=content;";
// removed as well with `remove`.
std::string listDirectory(const std::string &path, bool remove = false)
{
    std::string list;
    DIR *dir = opendir(path.c_str());
    while (const dirent *entry = readdir(dir)) {
        const std::string name = path + "/" + entry->d_name;
        if (entry->d_name[0] == '.' && (entry->d_name[1] == 0 || std::string(entry->d_name) == ".."))
            continue;
        std::ostringstream content;
        content << std::ifstream(name, std::ios::binary).rdbuf();
        list += std::string(entry->d_name) + "=" + content.str() + ";";
        if (remove)
            unlink(name.c_str());
    }
    closedir(dir);
    return list;
}

// A fresh directory, removed with what is left in it.
struct STempDir {
    STempDir()
    {
        char pattern[] = "/tmp/nvq-upload-XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~STempDir()
    {
        listDirectory(m_path, true);
        rmdir(m_path.c_str());
    }
    std::string List() const { return listDirectory(m_path); }
    std::string m_path;
};

// A multipart body's boundary is "b"; `stored` is the directory afterwards,
// as STempDir::List.
struct SExchange {
    const char *name;
    std::string method, uri, contentType, body;
    int code;
    std::string answer, stored;
};

// A form part; a null file name gives a plain field.
std::string Part(const std::string &name, const char *filename, const std::string &content)
{
    return "--b\r\nContent-Disposition: form-data; name=\"" + name + "\"" +
           (filename == nullptr ? "" : "; filename=\"" + std::string(filename) + "\"") + "\r\n\r\n" +
           content + "\r\n";
}

std::string Text(const KZF::CRefCountPtr<NVQ::CHTTPResponse> &answer)
{
    return std::string(reinterpret_cast<const char *>(answer->GetData()), answer->GetDataSize());
}

NVQ::CHTTPRequest *NewRequest(const SExchange &c)
{
    NVQ::CHTTPRequest *request = new NVQ::CHTTPRequest();
    request->SetMethod(c.method);
    request->SetUri(c.uri);
    if (!c.contentType.empty())
        request->AddHeaderField("Content-Type", c.contentType);
    if (!c.body.empty())
        request->AddHeaderField("Content-Length", std::to_string(c.body.size()));
    return request;
}

// The exchange as the server runs it, the body in pieces of `piece` bytes.
KZF::CRefCountPtr<NVQ::CHTTPResponse> Exchange(CHTTPUploadHandler &handler, const SExchange &c, size_t piece)
{
    KZF::CRefCountPtr<NVQ::CHTTPRequest> request(NewRequest(c));
    const IHTTPRequestBodyHandler::SBodyDecision decision = handler.OnRequestHeaders(*request, 7);
    if (decision.m_choice == IHTTPRequestBodyHandler::eAnswerNow)
        return decision.m_answer;
    if (decision.m_choice == IHTTPRequestBodyHandler::eTakeBody) {
        const unsigned char *data = reinterpret_cast<const unsigned char *>(c.body.data());
        bool going = true;
        for (size_t at = 0; going && at < c.body.size(); at += piece)
            going = handler.OnRequestBodyData(data + at, std::min(piece, c.body.size() - at), 7);
        handler.OnRequestBodyEnd(going, 7);
    }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> answer = handler.ProcessRequest(*request, 7);
    handler.OnExchangeEnded(7);
    return answer;
}

TEST(HTTPUploadHandlerTest, ExchangesWholeAndInOneBytePieces)
{
    const std::string mp = "multipart/form-data; boundary=b";
    const std::string file = Part("f", "a.bin", "\r\n--x");
    // clang-format off
    const SExchange cases[] = {
        {"raw under the URI's name", "PUT", "/upload/fw+%201.bin", "", "abc", 200, "{\"stored\":[{\"name\":\"fw+ 1.bin\",\"size\":3}]}", "fw+ 1.bin=abc;"},
        {"raw under ?name=", "POST", "/upload?x=1&name=a+%22q%22.txt", "application/octet-stream", "", 200, "{\"stored\":[{\"name\":\"a \\\"q\\\".txt\",\"size\":0}]}", "a \"q\".txt=;"},
        {"form: files stored, fields and empty inputs skipped", "POST", "/upload", mp, Part("t", nullptr, "x") + file + Part("e", "", "") + Part("g", "b.txt", "12345678") + "--b--", 200,
         "{\"stored\":[{\"name\":\"a.bin\",\"size\":5},{\"name\":\"b.txt\",\"size\":8}]}", "a.bin=\r\n--x;b.txt=12345678;"},
        {"dot dot", "PUT", "/upload/..", "", "x", 400, "{\"error\":\"bad file name\"}", ""},
        {"escaped slash", "PUT", "/upload/%2e%2e%2fx", "", "x", 400, "{\"error\":\"bad file name\"}", ""},
        {"backslash", "PUT", "/upload/a%5Cb", "", "x", 400, "{\"error\":\"bad file name\"}", ""},
        {"NUL", "PUT", "/upload/a%00b", "", "x", 400, "{\"error\":\"bad file name\"}", ""},
        {"broken escape", "PUT", "/upload/a%zz", "", "x", 400, "{\"error\":\"bad file name\"}", ""},
        {"255-byte name", "PUT", "/upload/" + std::string(255, 'n'), "", "x", 200, "{\"stored\":[{\"name\":\"" + std::string(255, 'n') + "\",\"size\":1}]}", std::string(255, 'n') + "=x;"},
        {"256-byte name", "PUT", "/upload/" + std::string(256, 'n'), "", "x", 400, "{\"error\":\"bad file name\"}", ""},
        {"Latin-1 name", "PUT", "/upload/%E9", "", "x", 400, "{\"error\":\"bad file name\"}", ""},
        {"path in a form leaves nothing", "POST", "/upload", mp, file + Part("f", "../x", "y") + "--b--", 400, "{\"error\":\"bad file name\"}", ""},
        {"name twice", "POST", "/upload", mp, file + file + "--b--", 400, "{\"error\":\"file name given twice\"}", ""},
        {"file above its limit", "POST", "/upload", mp, file + Part("g", "b.txt", "123456789") + "--b--", 413, "{\"error\":\"file too large\"}", ""},
        {"raw above the file limit", "PUT", "/upload/a", "", "123456789", 413, "{\"error\":\"file too large\"}", ""},
        {"cut form", "POST", "/upload", mp, file, 400, "{\"error\":\"malformed multipart body\"}", ""},
        {"broken form", "POST", "/upload", mp, file + "--b!", 400, "{\"error\":\"malformed multipart body\"}", ""},
        {"no boundary", "POST", "/upload", "multipart/form-data", "", 400, "{\"error\":\"bad multipart boundary\"}", ""},
        {"GET", "GET", "/upload", "", "", 405, "{\"error\":\"method not allowed\"}", ""},
    };
    // clang-format on
    for (const SExchange &c : cases) {
        for (const size_t piece : {c.body.size() + 1, size_t(1)}) {
            SCOPED_TRACE(std::string(c.name) + (piece == 1 ? " bytewise" : " whole"));
            STempDir dir;
            CHTTPUploadHandler::SOptions options;
            options.m_directory = dir.m_path;
            options.m_maxFileBytes = 8;
            CHTTPUploadHandler handler(options);
            const KZF::CRefCountPtr<NVQ::CHTTPResponse> answer = Exchange(handler, c, piece);
            ASSERT_FALSE(answer.IsNull());
            EXPECT_EQ(c.code, answer->GetCode());
            EXPECT_EQ("application/json", answer->GetContentType());
            EXPECT_EQ(c.answer, Text(answer));
            EXPECT_EQ(c.stored, dir.List());
        }
    }
}

TEST(HTTPUploadHandlerTest, CutUploadsLeaveNothing)
{
    STempDir dir;
    CHTTPUploadHandler::SOptions options;
    options.m_directory = dir.m_path;
    options.m_maxTotalBytes = 100;
    CHTTPUploadHandler handler(options);
    KZF::CRefCountPtr<NVQ::CHTTPRequest> request(NewRequest({"", "PUT", "/upload/a", "", "", 0, "", ""}));

    // Cut by the connection: no ProcessRequest follows.
    EXPECT_EQ(100u, handler.OnRequestHeaders(*request, 1).m_maxBodyBytes);
    EXPECT_TRUE(handler.OnRequestBodyData(reinterpret_cast<const unsigned char *>("abc"), 3, 1));
    EXPECT_NE("", dir.List());
    handler.OnRequestBodyEnd(false, 1);
    EXPECT_EQ("", dir.List());

    // Ended without its body's end; and one still open when the handler goes.
    handler.OnRequestHeaders(*request, 2);
    handler.OnExchangeEnded(2);
    EXPECT_EQ("", dir.List());
    {
        CHTTPUploadHandler other(options);
        other.OnRequestHeaders(*request, 3);
        EXPECT_NE("", dir.List());
    }
    EXPECT_EQ("", dir.List());

    // No body announced and no body end reported: an empty file.
    handler.OnRequestHeaders(*request, 5);
    EXPECT_EQ("{\"stored\":[{\"name\":\"a\",\"size\":0}]}", Text(handler.ProcessRequest(*request, 5)));
    handler.OnExchangeEnded(5);
    EXPECT_EQ("a=;", dir.List());

    // A declared length above the limit is refused before any byte.
    request->AddHeaderField("Content-Length", "101");
    EXPECT_EQ(413, handler.OnRequestHeaders(*request, 4).m_answer->GetCode());
    EXPECT_EQ("a=;", dir.List());
}

TEST(HTTPUploadHandlerTest, ExistingNamesLinksAndBufferedBodies)
{
    STempDir dir;
    STempDir outside;
    ASSERT_EQ(0, symlink((outside.m_path + "/t").c_str(), (dir.m_path + "/link").c_str()));
    std::ofstream(dir.m_path + "/old") << "old";
    CHTTPUploadHandler::SOptions options;
    options.m_directory = dir.m_path;
    options.m_replaceExisting = false;
    CHTTPUploadHandler keeping(options);
    EXPECT_EQ(409, Exchange(keeping, {"", "PUT", "/upload/link", "", "new", 0, "", ""}, 9)->GetCode());
    EXPECT_EQ("link=;old=old;", dir.List());

    // The link itself is replaced; nothing is written where it pointed.
    options.m_replaceExisting = true;
    CHTTPUploadHandler replacing(options);
    EXPECT_EQ(200, Exchange(replacing, {"", "PUT", "/upload/link", "", "new", 0, "", ""}, 9)->GetCode());
    EXPECT_EQ("link=new;old=old;", dir.List());
    EXPECT_EQ("", outside.List());

    // Without the body interface: the buffered body in ProcessRequest, and
    // a generated name.
    KZF::CRefCountPtr<NVQ::CHTTPRequest> request(NewRequest({"", "POST", "/upload", "", "", 0, "", ""}));
    request->SetBody(reinterpret_cast<const unsigned char *>("xyz"), 3);
    const std::string answer = Text(replacing.ProcessRequest(*request, 5));
    EXPECT_EQ(0u, answer.find("{\"stored\":[{\"name\":\"upload-")) << answer;

    const std::pair<const char *, bool> uris[] = {
        {"/upload", true},   {"/upload/", true}, {"/upload?name=a", true},
        {"/uploads", false}, {"/", false},       {"/up", false}};
    for (const auto &uri : uris)
        EXPECT_EQ(uri.second, replacing.CanProcessUri(uri.first)) << uri.first;
}

} // namespace
