// Parses a multipart/form-data body twice, whole and cut into slices, and
// checks that both report the same parts, content, result and error
// position; every slice sits in an exact-size heap block, so a read of an
// earlier piece or past the end is reported.
#include "FuzzTargets.h"

#include "HTTP/HTTPMultipartParser.h"

#include <memory>
#include <string>

namespace
{

class CLog : public NVQ::IHTTPMultipartSink
{
  public:
    bool OnPartBegin(const SPart &part) override
    {
        NVQ_FUZZ_CHECK(!m_inPart);
        m_inPart = true;
        m_text += "[" + part.m_name + "|" + part.m_filename + "|" + part.m_contentType + "]";
        return true;
    }
    bool OnPartData(const unsigned char *data, size_t size) override
    {
        NVQ_FUZZ_CHECK(m_inPart && size > 0);
        m_text.append(reinterpret_cast<const char *>(data), size);
        m_content += size;
        return true;
    }
    bool OnPartEnd() override
    {
        NVQ_FUZZ_CHECK(m_inPart);
        m_inPart = false;
        m_text += "]";
        return true;
    }
    void OnBodyEnd() override
    {
        NVQ_FUZZ_CHECK(!m_inPart);
        m_text += ".";
    }

    std::string m_text;
    size_t m_content = 0;
    bool m_inPart = false;
};

struct SOutcome {
    int m_result;
    int m_error;
    uint64_t m_position;
    size_t m_parts;
};

// Pieces of 1 to 8 bytes chosen by the seed's bits, or all in one.
SOutcome parse(const uint8_t *data, size_t size, unsigned seed,
               const NVQ::CHTTPMultipartParser::SLimits &limits, CLog &log)
{
    NVQ::CHTTPMultipartParser parser(log, "multipart/form-data; boundary=b", limits);
    int result = NVQ::CHTTPMultipartParser::eResultMore;
    size_t offset = 0;
    unsigned bits = seed;
    while (offset < size) {
        size_t length = seed == 0 ? size : 1 + (bits & 7);
        bits = bits >> 3 | (bits & 7) << 5;
        if (length > size - offset)
            length = size - offset;
        std::unique_ptr<uint8_t[]> piece(new uint8_t[length]);
        std::copy(data + offset, data + offset + length, piece.get());
        result = parser.Feed(piece.get(), length);
        offset += length;
    }
    if (result == NVQ::CHTTPMultipartParser::eResultMore)
        result = parser.Finish();
    NVQ_FUZZ_CHECK(result == NVQ::CHTTPMultipartParser::eResultDone ||
                   result == NVQ::CHTTPMultipartParser::eResultError);
    NVQ_FUZZ_CHECK((result == NVQ::CHTTPMultipartParser::eResultError) == (parser.GetError() != 0));
    return SOutcome{result, parser.GetError(), parser.GetErrorPosition(), parser.GetPartCount()};
}

} // namespace

int FuzzMultipart(const uint8_t *data, size_t size)
{
    if (size < 2 || size > (1u << 16))
        return 0;
    // First byte: small or default limits; second: the slicing seed.
    NVQ::CHTTPMultipartParser::SLimits limits;
    if (data[0] & 1) {
        limits.m_maxParts = 2;
        limits.m_maxHeaderBytes = 64;
        limits.m_maxHeaderFields = 2;
    }
    const unsigned seed = data[1] | 1;
    data += 2;
    size -= 2;

    CLog whole;
    CLog sliced;
    const SOutcome a = parse(data, size, 0, limits, whole);
    const SOutcome b = parse(data, size, seed, limits, sliced);
    NVQ_FUZZ_CHECK(whole.m_text == sliced.m_text);
    NVQ_FUZZ_CHECK(a.m_result == b.m_result && a.m_error == b.m_error && a.m_position == b.m_position);
    NVQ_FUZZ_CHECK(a.m_parts == b.m_parts && a.m_parts <= limits.m_maxParts);
    NVQ_FUZZ_CHECK(whole.m_content <= size);
    NVQ_FUZZ_CHECK(a.m_result != NVQ::CHTTPMultipartParser::eResultError || a.m_position <= size);
    return 0;
}
