#include "HTTP/HTTPMultipartParser.h"
#include "HTTP/HTTPHeaderParams.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace
{

using NVQ::CHTTPMultipartParser;

const char c_type[] = "multipart/form-data; boundary=xyz";
const std::string c_disposition = "Content-Disposition: form-data; name=";

// Writes what the parser reports as "[name file=F type=T]content|" per part
// and "." for the close delimiter; content pieces join, so any split of the
// input gives the same text. Optionally refuses the n-th event.
class CRecorder : public NVQ::IHTTPMultipartSink
{
  public:
    bool OnPartBegin(const SPart &part) override
    {
        m_log += "[" + part.m_name + (part.m_hasFilename ? " file=" + part.m_filename : "") +
                 (part.m_contentType.empty() ? "" : " type=" + part.m_contentType) + "]";
        return Allow();
    }
    bool OnPartData(const unsigned char *data, size_t size) override
    {
        EXPECT_GT(size, 0u);
        m_log.append(reinterpret_cast<const char *>(data), size);
        return Allow();
    }
    bool OnPartEnd() override
    {
        m_log += "|";
        return Allow();
    }
    void OnBodyEnd() override { m_log += "."; }

    std::string m_log;
    int m_refuseAt = -1;

  private:
    bool Allow() { return m_refuseAt-- != 0; }
};

struct SCase {
    const char *name;
    std::string input;
    std::string log;
    int error;
    // The error lies on the last byte of the first occurrence of this text in
    // the input; null for the end of the input.
    const char *at;
    int refuseAt = -1; // the sink refuses its n-th event: the parser stops for good
};

std::string Part(const std::string &headers, const std::string &content)
{
    return "--xyz\r\n" + headers + "\r\n" + content + "\r\n";
}

std::string Field(const std::string &name, const std::string &content)
{
    return Part(c_disposition + "\"" + name + "\"\r\n", content);
}

// Feeds the input in pieces ending at the given offsets, each piece in an
// allocation of its own so that bytes of an earlier piece cannot be read
// again unnoticed, then finishes.
void Check(const SCase &c, const std::vector<size_t> &ends)
{
    CRecorder recorder;
    recorder.m_refuseAt = c.refuseAt;
    CHTTPMultipartParser::SLimits limits;
    limits.m_maxParts = 3, limits.m_maxHeaderBytes = 128, limits.m_maxHeaderFields = 3;
    CHTTPMultipartParser parser(recorder, c_type, limits);
    const size_t errorAt = c.at == nullptr ? c.input.size() : c.input.find(c.at) + std::strlen(c.at) - 1;
    int result = CHTTPMultipartParser::eResultMore;
    size_t begin = 0;
    for (const size_t end : ends) {
        std::unique_ptr<unsigned char[]> piece(new unsigned char[end - begin]);
        std::copy(c.input.begin() + begin, c.input.begin() + end, piece.get());
        result = parser.Feed(piece.get(), end - begin);
        // The piece that holds the error reports it.
        EXPECT_TRUE(c.error == 0 || end <= errorAt || result == CHTTPMultipartParser::eResultError) << end;
        begin = end;
    }
    if (result == CHTTPMultipartParser::eResultMore)
        result = parser.Finish();
    const int expected = c.refuseAt >= 0 ? CHTTPMultipartParser::eResultStopped
                         : c.error != 0  ? CHTTPMultipartParser::eResultError
                                         : CHTTPMultipartParser::eResultDone;
    EXPECT_EQ(expected, result);
    EXPECT_EQ(c.error, parser.GetError());
    EXPECT_EQ(c.log, recorder.m_log);
    EXPECT_TRUE(c.error == 0 || errorAt == parser.GetErrorPosition()) << parser.GetErrorPosition();
    if (c.refuseAt >= 0) {
        EXPECT_EQ(expected, parser.Feed(reinterpret_cast<const unsigned char *>("--xyz--"), 7));
        EXPECT_EQ(expected, parser.Finish());
    }
}

TEST(HTTPMultipartParserTest, FormsWholeSplitAtEveryOffsetAndByteByByte)
{
    const std::string file = c_disposition + "\"f\"; filename=\"a.bin\"\r\nContent-Type: image/png\r\n";
    const std::string nearMisses = "\r\r\n--xy\r\n-\r\n--XYZ\r";
    const std::string fields3 = c_disposition + "a\r\nA: 1\r\nB: 2\r\n";
    // With the empty line that ends the block: 128 bytes.
    std::string header128 = c_disposition + "a; x=";
    header128 += std::string(128 - 4 - header128.size(), 'x') + "\r\n";
    // clang-format off
    const SCase cases[] = {
        {"one field", Field("a", "hello") + "--xyz--\r\n", "[a]hello|.", 0, nullptr},
        {"field and file", Field("a", "1") + Part(file, "\x89PNG\r\n") + "--xyz--", "[a]1|[f file=a.bin type=image/png]\x89PNG\r\n|.", 0, nullptr},
        {"preamble, padding, epilogue", "junk\r\n--xyz \t\r\n" + c_disposition + "a\r\n\r\nv\r\n--xyz--\r\nmore--xyz", "[a]v|.", 0, nullptr},
        {"delimiter look-alikes in content", Field("a", nearMisses) + "--xyz--", "[a]" + nearMisses + "|.", 0, nullptr},
        {"empty content and empty file name", Part(c_disposition + "a; filename=\"\"\r\n", "") + "--xyz--", "[a file=]|.", 0, nullptr},
        {"filename* wins", Part(c_disposition + "a; filename=\"e.txt\"; filename*=UTF-8''%e2%82%ac.txt\r\n", "x") + "--xyz--", "[a file=\xe2\x82\xac.txt]x|.", 0, nullptr},
        {"backslashes of a path stay", Part(c_disposition + "a; filename=\"C:\\d\\a \\\"q\\\".txt\"\r\n", "x") + "--xyz--", "[a file=C:\\d\\a \"q\".txt]x|.", 0, nullptr},
        {"no blank after the colon", Part("Content-Disposition:form-data; name=a\r\n", "x") + "--xyz--", "[a]x|.", 0, nullptr},
        {"three fields and 128 header bytes", Part(fields3, "") + Part(header128, "") + "--xyz--", "[a]|[a]|.", 0, nullptr},
        {"LF-only lines", "--xyz\nContent-Disposition: form-data; name=a\n\nx\n--xyz--\n", "", CHTTPMultipartParser::eErrorLineEnd, "--xyz\n"},
        {"CR alone in a header", "--xyz\r\nContent-Disposition: form-data;\r name=a\r\n\r\nx\r\n--xyz--", "", CHTTPMultipartParser::eErrorLineEnd, ";\r "},
        {"LF alone in a header", "--xyz\r\nContent-Disposition: form-data; name=a\n\r\n", "", CHTTPMultipartParser::eErrorLineEnd, "name=a\n"},
        {"no colon", "--xyz\r\nContent-Disposition form-data\r\n\r\n", "", CHTTPMultipartParser::eErrorHeaderSyntax, "form-data\r\n"},
        {"folded line", "--xyz\r\n" + c_disposition + "a\r\n b\r\n\r\n", "", CHTTPMultipartParser::eErrorHeaderSyntax, " b\r\n"},
        {"control byte", "--xyz\r\nA: \x01\r\n", "", CHTTPMultipartParser::eErrorHeaderSyntax, "\x01"},
        {"field twice", "--xyz\r\nA: 1\r\na: 2\r\n", "", CHTTPMultipartParser::eErrorHeaderFields, "a: 2\r\n"},
        {"four fields", Part(fields3 + "C: 3\r\n", ""), "", CHTTPMultipartParser::eErrorHeaderFields, "C: 3\r\n"},
        {"129 header bytes", Part("x" + header128, ""), "", CHTTPMultipartParser::eErrorHeaderTooLarge, "xx\r\n\r\n"},
        {"no disposition", Part("Content-Type: text/plain\r\n", "x"), "", CHTTPMultipartParser::eErrorDisposition, "plain\r\n\r\n"},
        {"attachment", Part("Content-Disposition: attachment; name=a\r\n", "x"), "", CHTTPMultipartParser::eErrorDisposition, "a\r\n\r\n"},
        {"no name", Part("Content-Disposition: form-data; filename=a\r\n", "x"), "", CHTTPMultipartParser::eErrorDisposition, "a\r\n\r\n"},
        {"bad filename*", Part(c_disposition + "a; filename*=latin1''x\r\n", "x"), "", CHTTPMultipartParser::eErrorDisposition, "''x\r\n\r\n"},
        {"delimiter run on", Field("a", "x") + "--xyzz\r\n", "[a]x|", CHTTPMultipartParser::eErrorDelimiter, "xyzz"},
        {"one dash", Field("a", "x") + "--xyz-\r\n", "[a]x|", CHTTPMultipartParser::eErrorDelimiter, "xyz-\r"},
        {"four parts", Field("a", "") + Field("b", "") + Field("c", "") + Field("d", "") + "--xyz--", "[a]|[b]|[c]|", CHTTPMultipartParser::eErrorTooManyParts, "\"c\"\r\n\r\n\r\n--xyz\r\n"},
        {"cut in content", Field("a", "abc"), "[a]abc", CHTTPMultipartParser::eErrorTruncated, nullptr},
        {"cut in a delimiter", Field("a", "abc") + "--xy", "[a]abc", CHTTPMultipartParser::eErrorTruncated, nullptr},
        {"only a preamble", "hello", "", CHTTPMultipartParser::eErrorTruncated, nullptr},
        // Begin, data and end of the first part refused in turn.
        {"refused begin", Field("a", "a") + Field("b", "b") + "--xyz--", "[a]", 0, nullptr, 0},
        {"refused data", Field("a", "a") + Field("b", "b") + "--xyz--", "[a]a", 0, nullptr, 1},
        {"refused end", Field("a", "a") + Field("b", "b") + "--xyz--", "[a]a|", 0, nullptr, 2},
    };
    // clang-format on
    for (const SCase &c : cases) {
        SCOPED_TRACE(c.name);
        Check(c, {c.input.size()});
        for (size_t split = 1; split < c.input.size(); ++split)
            Check(c, {split, c.input.size()});
        std::vector<size_t> bytes;
        for (size_t end = 1; end <= c.input.size(); ++end)
            bytes.push_back(end);
        Check(c, bytes);
    }
    // A decoded file name replaces whatever the output held.
    std::string out = "stale";
    EXPECT_TRUE(NVQ::CHTTPHeaderParams::DecodeExtValue("UTF-8''a", out) && out == "a") << out;
}

TEST(HTTPMultipartParserTest, Boundaries)
{
    const std::string longest = "multipart/form-data; boundary=" + std::string(70, 'b');
    const struct {
        std::string contentType;
        const char *boundary; // null: refused
    } cases[] = {
        {longest, longest.c_str() + longest.size() - 70},
        {longest + "b", nullptr},
        {"multipart/form-data; boundary=xyz", "xyz"},
        {"Multipart/Form-Data ; charset=utf-8;BOUNDARY=\"a'()+_,-./:=? b\"", "a'()+_,-./:=? b"},
        {"multipart/form-data; boundary=\"ends in space \"", nullptr},
        {"multipart/form-data; boundary=\"a;b\"", nullptr},
        {"multipart/form-data; boundary=\"\"", nullptr},
        {"multipart/form-data", nullptr},
        {"multipart/mixed; boundary=xyz", nullptr},
        {"multipart/form-data; boundary=a; boundary=b", nullptr},
    };
    for (const auto &c : cases) {
        std::string boundary;
        EXPECT_EQ(c.boundary != nullptr, CHTTPMultipartParser::ExtractBoundary(c.contentType, boundary))
            << c.contentType;
        EXPECT_EQ(c.boundary == nullptr ? "" : c.boundary, boundary) << c.contentType;
    }
}

} // namespace
