// Request parsing throughput: our parser beside Debian's http-parser on the
// same browser request, once in one call and once one byte per call.
#include "HTTP/HTTPRequestParser.h"

#include <benchmark/benchmark.h>
#include <http_parser.h>

#include <cstring>
#include <map>
#include <string>

namespace
{

// A typical browser navigation: 502 bytes, ten header fields, no body.
const char c_request[] = "GET /app/dashboard?view=compact&refresh=30 HTTP/1.1\r\n"
                         "Host: device.local:7070\r\n"
                         "Connection: keep-alive\r\n"
                         "Cache-Control: max-age=0\r\n"
                         "Upgrade-Insecure-Requests: 1\r\n"
                         "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
                         "Chrome/120.0.0.0 Safari/537.36\r\n"
                         "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8\r\n"
                         "Referer: http://device.local:7070/app/\r\n"
                         "Accept-Encoding: gzip, deflate\r\n"
                         "Accept-Language: en-US,en;q=0.9\r\n"
                         "Cookie: session=4f2a9c81d0; theme=dark; lang=en\r\n"
                         "\r\n";
const int c_length = sizeof c_request - 1;
const unsigned char *const c_bytes = reinterpret_cast<const unsigned char *>(c_request);

void NvqOneCall(benchmark::State &state)
{
    NVQ::CHTTPRequestParser parser;
    parser.SetStrict(state.range(0) != 0);
    for (auto _ : state) {
        parser.Reset();
        int consumed = 0;
        if (parser.Parse(c_bytes, c_length, consumed) != NVQ::CHTTPRequestParser::eParseComplete)
            state.SkipWithError("not complete");
        benchmark::DoNotOptimize(consumed);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * c_length);
}

void NvqBytePerCall(benchmark::State &state)
{
    NVQ::CHTTPRequestParser parser;
    parser.SetStrict(state.range(0) != 0);
    for (auto _ : state) {
        parser.Reset();
        int consumed = 0;
        int result = NVQ::CHTTPRequestParser::eParseIncomplete;
        for (int length = 1; length <= c_length; ++length)
            result = parser.Parse(c_bytes, length, consumed);
        if (result != NVQ::CHTTPRequestParser::eParseComplete)
            state.SkipWithError("not complete");
        benchmark::DoNotOptimize(consumed);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * c_length);
}

// http-parser only tokenizes; these callbacks do the least that still makes
// it deliver every piece.
struct SCounts {
    size_t bytes = 0;
    bool complete = false;
};

int CountData(http_parser *parser, const char *, size_t length)
{
    static_cast<SCounts *>(parser->data)->bytes += length;
    return 0;
}

int MarkComplete(http_parser *parser)
{
    static_cast<SCounts *>(parser->data)->complete = true;
    return 0;
}

http_parser_settings CountingSettings()
{
    http_parser_settings settings;
    std::memset(&settings, 0, sizeof settings);
    settings.on_url = CountData;
    settings.on_header_field = CountData;
    settings.on_header_value = CountData;
    settings.on_body = CountData;
    settings.on_message_complete = MarkComplete;
    return settings;
}

// For a like-for-like reading: the same callbacks filling what our parser
// fills (URI, lower-cased header names in a map).
struct SBuilt {
    std::string uri;
    std::string name;
    std::string value;
    bool inValue = false;
    std::map<std::string, std::string> fields;
    bool complete = false;

    void Flush()
    {
        if (inValue) {
            for (char &c : name)
                if (c >= 'A' && c <= 'Z')
                    c = static_cast<char>(c - 'A' + 'a');
            fields[name] = value;
            name.clear();
            value.clear();
            inValue = false;
        }
    }
};

int BuildUrl(http_parser *parser, const char *at, size_t length)
{
    static_cast<SBuilt *>(parser->data)->uri.append(at, length);
    return 0;
}

int BuildField(http_parser *parser, const char *at, size_t length)
{
    SBuilt *built = static_cast<SBuilt *>(parser->data);
    built->Flush();
    built->name.append(at, length);
    return 0;
}

int BuildValue(http_parser *parser, const char *at, size_t length)
{
    SBuilt *built = static_cast<SBuilt *>(parser->data);
    built->inValue = true;
    built->value.append(at, length);
    return 0;
}

int BuildHeadersComplete(http_parser *parser)
{
    static_cast<SBuilt *>(parser->data)->Flush();
    return 0;
}

int BuildComplete(http_parser *parser)
{
    static_cast<SBuilt *>(parser->data)->complete = true;
    return 0;
}

void HttpParserOneCall(benchmark::State &state)
{
    const http_parser_settings settings = CountingSettings();
    http_parser parser;
    for (auto _ : state) {
        SCounts counts;
        http_parser_init(&parser, HTTP_REQUEST);
        parser.data = &counts;
        const size_t parsed = http_parser_execute(&parser, &settings, c_request, c_length);
        if (parsed != static_cast<size_t>(c_length) || !counts.complete)
            state.SkipWithError("not complete");
        benchmark::DoNotOptimize(counts.bytes);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * c_length);
}

void HttpParserBytePerCall(benchmark::State &state)
{
    const http_parser_settings settings = CountingSettings();
    http_parser parser;
    for (auto _ : state) {
        SCounts counts;
        http_parser_init(&parser, HTTP_REQUEST);
        parser.data = &counts;
        for (int i = 0; i < c_length; ++i)
            http_parser_execute(&parser, &settings, c_request + i, 1);
        if (!counts.complete)
            state.SkipWithError("not complete");
        benchmark::DoNotOptimize(counts.bytes);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * c_length);
}

void HttpParserBuildingRequestOneCall(benchmark::State &state)
{
    http_parser_settings settings;
    std::memset(&settings, 0, sizeof settings);
    settings.on_url = BuildUrl;
    settings.on_header_field = BuildField;
    settings.on_header_value = BuildValue;
    settings.on_headers_complete = BuildHeadersComplete;
    settings.on_message_complete = BuildComplete;
    http_parser parser;
    for (auto _ : state) {
        SBuilt built;
        http_parser_init(&parser, HTTP_REQUEST);
        parser.data = &built;
        http_parser_execute(&parser, &settings, c_request, c_length);
        if (!built.complete || built.fields.size() != 10)
            state.SkipWithError("not complete");
        benchmark::DoNotOptimize(built.fields);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * c_length);
}

} // namespace

// Argument 0: the default mode; 1: strict mode.
BENCHMARK(NvqOneCall)->Arg(0)->Arg(1);
BENCHMARK(HttpParserOneCall);
BENCHMARK(NvqBytePerCall)->Arg(0)->Arg(1);
BENCHMARK(HttpParserBytePerCall);
BENCHMARK(HttpParserBuildingRequestOneCall);

BENCHMARK_MAIN();
