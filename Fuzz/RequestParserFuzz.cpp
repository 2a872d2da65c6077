// Feeds arbitrary bytes to the request parser in one call and in random
// slices on a growing buffer, and checks both against a plain byte-by-byte
// model of the state machine written separately from the parser. Then the
// same in strict mode, where whole and sliced parsing must agree exactly and a
// request appended behind a complete one must start at consumed.
#include "FuzzTargets.h"
#include "RequestParserFuzzModel.h"

#include "HTTP/HTTPRequestParser.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <string>

namespace
{

using NVQ::CHTTPRequestParser;
using NVQ::fuzz::SameRequest;
using NVQ::fuzz::SModel;
using NVQ::fuzz::Snapshot;
using NVQ::fuzz::SSnapshot;

struct SRandom {
    uint32_t state;
    uint32_t Next()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
};

std::unique_ptr<uint8_t[]> ExactCopy(const uint8_t *data, int length)
{
    // Exactly length bytes on the heap: any read past the end is reported.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[static_cast<size_t>(length)]);
    if (length > 0)
        std::memcpy(copy.get(), data, static_cast<size_t>(length));
    return copy;
}

void CheckOutcome(const CHTTPRequestParser &parser, int result, int consumed, int length,
                  const uint8_t *input)
{
    NVQ_FUZZ_CHECK(consumed >= 0 && consumed <= length);
    int position = -1;
    const int error = parser.GetLastError(position);
    const SSnapshot request = Snapshot(parser);
    switch (result) {
    case CHTTPRequestParser::eParseIncomplete:
        NVQ_FUZZ_CHECK(consumed == length);
        NVQ_FUZZ_CHECK(error == 0 && position == 0);
        NVQ_FUZZ_CHECK(!request.hasBody);
        break;
    case CHTTPRequestParser::eParseError:
        NVQ_FUZZ_CHECK(error == CHTTPRequestParser::eErrorFieldSyntax ||
                       error == CHTTPRequestParser::eErrorHeaderEnd);
        NVQ_FUZZ_CHECK(position == consumed && position > 0);
        break;
    case CHTTPRequestParser::eParseComplete:
        NVQ_FUZZ_CHECK(parser.IsCompleteRequest());
        NVQ_FUZZ_CHECK(error == 0 && position == 0);
        NVQ_FUZZ_CHECK(request.bodySize >= 0);
        // A completed request's body size is the size of the body it holds,
        // and the body is the last bytes examined.
        if (request.hasBody) {
            NVQ_FUZZ_CHECK(request.bodySize <= consumed);
            NVQ_FUZZ_CHECK(static_cast<long>(request.body.size()) == request.bodySize);
            NVQ_FUZZ_CHECK(std::memcmp(request.body.data(), input + consumed - request.bodySize,
                                       static_cast<size_t>(request.bodySize)) == 0);
        } else {
            NVQ_FUZZ_CHECK(request.bodySize == 0);
        }
        break;
    default:
        NVQ_FUZZ_CHECK(false && "unknown parse result");
    }
}

// One strict parse and everything it reported.
struct SStrictRun {
    int result = CHTTPRequestParser::eParseIncomplete;
    int consumed = -1;
    int error = 0;
    int position = 0;
    int status = 0;
    SSnapshot request;
};

const char c_nextRequest[] = "GET /next HTTP/1.1\r\nHost: n\r\n\r\n";

void Finish(const CHTTPRequestParser &parser, SStrictRun &run)
{
    run.error = parser.GetLastError(run.position);
    run.status = parser.GetErrorStatus();
    run.request = Snapshot(parser);
}

bool SameRun(const SStrictRun &a, const SStrictRun &b)
{
    return a.result == b.result && a.consumed == b.consumed && a.error == b.error &&
           a.position == b.position && a.status == b.status && SameRequest(a.request, b.request);
}

SStrictRun StrictWhole(const uint8_t *input, int length, long bound)
{
    CHTTPRequestParser parser;
    parser.SetStrict(true);
    parser.SetMaxBodySize(bound);
    std::unique_ptr<uint8_t[]> buffer = ExactCopy(input, length);
    SStrictRun run;
    run.result = parser.Parse(buffer.get(), length, run.consumed);
    Finish(parser, run);
    // End states are sticky.
    int again = -7;
    NVQ_FUZZ_CHECK(parser.Parse(buffer.get(), length, again) == run.result);
    NVQ_FUZZ_CHECK(again == (run.result == CHTTPRequestParser::eParseError ? -7 : run.consumed));
    NVQ_FUZZ_CHECK(parser.IsHeaderComplete() == (parser.GetBodyStart() > 0));
    if (run.result == CHTTPRequestParser::eParseComplete)
        NVQ_FUZZ_CHECK(parser.IsHeaderComplete() && parser.GetBodyStart() <= run.consumed);
    return run;
}

void CheckStrict(const uint8_t *input, int length, SRandom &random)
{
    const long bound = random.Next() % 4 == 0 ? static_cast<long>(random.Next() % 256) : LONG_MAX;
    const SStrictRun whole = StrictWhole(input, length, bound);
    const SSnapshot &request = whole.request;
    switch (whole.result) {
    case CHTTPRequestParser::eParseIncomplete:
        NVQ_FUZZ_CHECK(whole.consumed == length && whole.error == 0 && whole.status == 0);
        break;
    case CHTTPRequestParser::eParseError:
        NVQ_FUZZ_CHECK(whole.consumed == -1);
        NVQ_FUZZ_CHECK(whole.error >= CHTTPRequestParser::eErrorRequestLine &&
                       whole.error <= CHTTPRequestParser::eErrorTrailer);
        NVQ_FUZZ_CHECK(whole.position > 0 && whole.position <= length);
        NVQ_FUZZ_CHECK(whole.status == 400 || whole.status == 413 || whole.status == 501 ||
                       whole.status == 505);
        break;
    case CHTTPRequestParser::eParseComplete:
        NVQ_FUZZ_CHECK(whole.consumed > 0 && whole.consumed <= length && whole.error == 0);
        NVQ_FUZZ_CHECK(request.version == 10 || request.version == 11);
        // A body is set exactly when it has bytes, within the bound; one
        // framed by Content-Length is the last bytes of the request.
        NVQ_FUZZ_CHECK(request.hasBody == (request.bodySize > 0) && request.bodySize <= bound);
        NVQ_FUZZ_CHECK(static_cast<long>(request.body.size()) == request.bodySize);
        if (!request.chunked && request.hasBody)
            NVQ_FUZZ_CHECK(std::memcmp(request.body.data(), input + whole.consumed - request.bodySize,
                                       static_cast<size_t>(request.bodySize)) == 0);
        break;
    default:
        NVQ_FUZZ_CHECK(false && "unknown parse result");
    }

    // Random slices on a buffer that moves on every call give the same run.
    CHTTPRequestParser sliced;
    sliced.SetStrict(true);
    sliced.SetMaxBodySize(bound);
    SStrictRun run;
    for (int offered = 0;;) {
        offered = std::min(length, offered + static_cast<int>(random.Next() % 23));
        std::unique_ptr<uint8_t[]> piece = ExactCopy(input, offered);
        run.consumed = -1;
        run.result = sliced.Parse(piece.get(), offered, run.consumed);
        if (run.result == CHTTPRequestParser::eParseIncomplete)
            NVQ_FUZZ_CHECK(run.consumed == offered);
        if (run.result != CHTTPRequestParser::eParseIncomplete || offered == length)
            break;
    }
    Finish(sliced, run);
    NVQ_FUZZ_CHECK(SameRun(run, whole));

    if (whole.result != CHTTPRequestParser::eParseComplete)
        return;
    // Whatever followed the request was never examined: with the next request
    // in its place the first ends at the same byte, and after Reset the same
    // parser finds the next one there.
    std::string joined(reinterpret_cast<const char *>(input), static_cast<size_t>(whole.consumed));
    joined += c_nextRequest;
    const int joinedLength = static_cast<int>(joined.size());
    std::unique_ptr<uint8_t[]> pipelined =
        ExactCopy(reinterpret_cast<const uint8_t *>(joined.data()), joinedLength);
    sliced.Reset();
    SStrictRun first;
    first.result = sliced.Parse(pipelined.get(), joinedLength, first.consumed);
    Finish(sliced, first);
    NVQ_FUZZ_CHECK(SameRun(first, whole));
    sliced.Reset();
    int nextConsumed = -1;
    NVQ_FUZZ_CHECK(sliced.Parse(pipelined.get() + first.consumed, joinedLength - first.consumed,
                                nextConsumed) == CHTTPRequestParser::eParseComplete);
    NVQ_FUZZ_CHECK(nextConsumed == static_cast<int>(sizeof c_nextRequest - 1));
    NVQ_FUZZ_CHECK(sliced.GetRequest()->GetUri() == "/next");
}

} // namespace

int FuzzRequestParser(const uint8_t *data, size_t size)
{
    if (size < 2 || size > (1u << 20))
        return 0;
    SRandom random = {(static_cast<uint32_t>(data[0]) | static_cast<uint32_t>(data[1]) << 8) + 1u};
    const uint8_t *input = data + 2;
    const int length = static_cast<int>(size - 2);

    // Whole input in one call.
    CHTTPRequestParser whole;
    int wholeConsumed = -1;
    std::unique_ptr<uint8_t[]> buffer = ExactCopy(input, length);
    const int wholeResult = whole.Parse(buffer.get(), length, wholeConsumed);
    CheckOutcome(whole, wholeResult, wholeConsumed, length, input);
    const SSnapshot wholeRequest = Snapshot(whole);

    // The model agrees byte for byte.
    SModel model;
    int modelConsumed = -1;
    const int modelResult = model.Parse(input, length, modelConsumed);
    NVQ_FUZZ_CHECK(modelResult == wholeResult);
    NVQ_FUZZ_CHECK(modelConsumed == wholeConsumed);
    int wholePosition = 0;
    NVQ_FUZZ_CHECK(model.lastError == whole.GetLastError(wholePosition));
    NVQ_FUZZ_CHECK(model.errorPosition == wholePosition);
    NVQ_FUZZ_CHECK(model.request.method == wholeRequest.method && model.request.uri == wholeRequest.uri);
    NVQ_FUZZ_CHECK(model.request.headers == wholeRequest.headers);
    NVQ_FUZZ_CHECK(model.request.bodySize == wholeRequest.bodySize);
    NVQ_FUZZ_CHECK(model.request.hasBody == wholeRequest.hasBody && model.request.body == wholeRequest.body);

    // End states are sticky: another call examines nothing.
    int again = -7;
    NVQ_FUZZ_CHECK(whole.Parse(buffer.get(), length, again) == wholeResult);
    NVQ_FUZZ_CHECK(again == (wholeResult == CHTTPRequestParser::eParseError ? -7 : wholeConsumed));
    NVQ_FUZZ_CHECK(SameRequest(Snapshot(whole), wholeRequest));

    // The same bytes in random slices, on a buffer that moves on every call.
    CHTTPRequestParser sliced;
    int offered = 0;
    int slicedResult = CHTTPRequestParser::eParseIncomplete;
    int slicedConsumed = -1;
    for (;;) {
        uint32_t step = random.Next() % 17;
        if (random.Next() % 8 == 0)
            step = random.Next() % static_cast<uint32_t>(length + 1);
        offered = static_cast<int>(std::min<long>(length, static_cast<long>(offered) + step));
        std::unique_ptr<uint8_t[]> piece = ExactCopy(input, offered);
        int consumed = -1;
        slicedResult = sliced.Parse(piece.get(), offered, consumed);
        if (slicedResult == CHTTPRequestParser::eParseIncomplete)
            NVQ_FUZZ_CHECK(consumed == offered);
        if (consumed != -1)
            slicedConsumed = consumed;
        if (slicedResult != CHTTPRequestParser::eParseIncomplete || offered == length) {
            CheckOutcome(sliced, slicedResult, slicedConsumed, offered, input);
            break;
        }
    }
    NVQ_FUZZ_CHECK(slicedResult == wholeResult);
    const SSnapshot slicedRequest = Snapshot(sliced);
    if (slicedConsumed == wholeConsumed - 1 && wholeResult == CHTTPRequestParser::eParseComplete &&
        wholeRequest.hasBody && wholeRequest.bodySize == 0) {
        // A body of size 0 completes at the end of a call that stops right
        // after the header block (no body set); in a longer buffer it completes
        // on the next byte, which sets an empty body.
        NVQ_FUZZ_CHECK(!slicedRequest.hasBody);
        SSnapshot expected = wholeRequest;
        expected.hasBody = false;
        NVQ_FUZZ_CHECK(SameRequest(slicedRequest, expected));
    } else {
        NVQ_FUZZ_CHECK(slicedConsumed == wholeConsumed);
        NVQ_FUZZ_CHECK(SameRequest(slicedRequest, wholeRequest));
        int slicedPosition = 0;
        NVQ_FUZZ_CHECK(sliced.GetLastError(slicedPosition) == whole.GetLastError(wholePosition));
        NVQ_FUZZ_CHECK(slicedPosition == wholePosition);
    }

    // Reset starts over on a fresh request; the old one lives on while held.
    KZF::CRefCountPtr<NVQ::CHTTPRequest> kept = sliced.GetRequest();
    sliced.Reset();
    NVQ_FUZZ_CHECK(sliced.GetRequest().GetPtr() != kept.GetPtr());
    NVQ_FUZZ_CHECK(sliced.GetRequest()->GetHeaderFields().empty());
    NVQ_FUZZ_CHECK(kept->GetMethod() == wholeRequest.method);

    CheckStrict(input, length, random);
    return 0;
}
