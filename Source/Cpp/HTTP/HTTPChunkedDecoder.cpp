#include "HTTP/HTTPChunkedDecoder.h"

#include "HTTP/HTTPSyntax.h"

#include <climits>

namespace
{

// 15 hex digits stay below 2^60, so a size is read without overflow checks.
const int c_maxSizeDigits = 15;
// A chunk line (size and extensions, before its CR LF) is bounded because
// nothing else bounds it when the body is streamed.
const int c_maxChunkLine = 4096;
const int c_maxTrailerFields = 32;
const int c_maxTrailerBytes = 8192;

const unsigned char c_CR = 0x0D;
const unsigned char c_LF = 0x0A;

// The states in line order. Chunk-line states and trailer states each form one
// range, so their bounds are counted in one place.
enum EState {
    eStateSizeStart,
    eStateSize,
    eStateSizeBlank,
    eStateExtension,
    eStateSizeLF,
    eStateData,
    eStateDataCR,
    eStateDataLF,
    eStateTrailerStart,
    eStateTrailerName,
    eStateTrailerValue,
    eStateTrailerLF,
    eStateFinalLF,
    eStateDone,
    eStateError
};

} // namespace

namespace NVQ
{

CHTTPChunkedDecoder::CHTTPChunkedDecoder() : m_maxSize(LONG_MAX)
{
    Reset();
}

void CHTTPChunkedDecoder::Reset()
{
    m_state = eStateSizeStart;
    m_error = eErrorNone;
    m_digits = 0;
    m_lineLength = 0;
    m_trailerFields = 0;
    m_trailerBytes = 0;
    m_chunkSize = 0;
    m_remaining = 0;
    m_decoded = 0;
}

void CHTTPChunkedDecoder::Fail(int error)
{
    m_error = error;
    m_state = eStateError;
}

int CHTTPChunkedDecoder::Decode(const unsigned char *input, size_t length, size_t &consumed,
                                const unsigned char *&data, size_t &dataSize)
{
    data = nullptr;
    dataSize = 0;
    size_t i = 0;
    while (i < length && m_state != eStateDone && m_state != eStateError) {
        if (m_state == eStateData) {
            // One span per call: the caller takes it before the next one is
            // looked for, so no list of spans is ever kept.
            const size_t available = length - i;
            const size_t take =
                static_cast<size_t>(m_remaining) < available ? static_cast<size_t>(m_remaining) : available;
            data = input + i;
            dataSize = take;
            i += take;
            m_remaining -= static_cast<long>(take);
            m_decoded += static_cast<long>(take);
            if (m_remaining == 0)
                m_state = eStateDataCR;
            break;
        }
        Step(input[i]);
        ++i;
    }
    consumed = i;
    if (m_state == eStateDone)
        return eResultDone;
    return m_state == eStateError ? eResultError : eResultMore;
}

void CHTTPChunkedDecoder::Step(unsigned char ch)
{
    if (m_state <= eStateExtension && ch != c_CR && ++m_lineLength > c_maxChunkLine) {
        Fail(eErrorExtension);
        return;
    }
    if (m_state >= eStateTrailerStart && ++m_trailerBytes > c_maxTrailerBytes) {
        Fail(eErrorTrailer);
        return;
    }
    const bool blank = CHTTPSyntax::Is(ch, CHTTPSyntax::eClassBlank);
    switch (m_state) {
    case eStateSizeStart: // chunk = chunk-size [ chunk-ext ] CRLF chunk-data CRLF
        if (CHTTPSyntax::HexValue(ch) < 0) {
            Fail(eErrorChunkSize);
            break;
        }
        m_chunkSize = 0;
        m_digits = 0;
        m_state = eStateSize;
        [[fallthrough]];
    case eStateSize: {
        const int digit = CHTTPSyntax::HexValue(ch);
        if (digit >= 0) {
            if (++m_digits > c_maxSizeDigits) {
                Fail(eErrorSizeOverflow);
                break;
            }
            m_chunkSize = m_chunkSize * 16 + digit;
            // Earlier chunks are all delivered here, so m_decoded is their total.
            if (m_chunkSize > m_maxSize - m_decoded)
                Fail(eErrorTooLarge);
        } else if (ch == ';') {
            m_state = eStateExtension;
        } else if (blank) {
            m_state = eStateSizeBlank;
        } else if (ch == c_CR) {
            m_state = eStateSizeLF;
        } else {
            Fail(ch == c_LF ? eErrorLineEnd : eErrorChunkSize);
        }
        break;
    }
    case eStateSizeBlank: // chunk-ext = *( BWS ";" BWS ext-name [ BWS "=" BWS ext-val ] )
        if (ch == ';')
            m_state = eStateExtension;
        else if (!blank)
            Fail(eErrorChunkSize);
        break;
    case eStateExtension:
        // Names, values and quoted strings are skipped; only control bytes,
        // which could hide a line end, are refused.
        if (ch == c_CR)
            m_state = eStateSizeLF;
        else if (ch == c_LF)
            Fail(eErrorLineEnd);
        else if (!CHTTPSyntax::Is(ch, CHTTPSyntax::eClassValue))
            Fail(eErrorExtension);
        break;
    case eStateSizeLF:
        if (ch != c_LF) {
            Fail(eErrorLineEnd);
        } else if (m_chunkSize == 0) {
            m_state = eStateTrailerStart;
        } else {
            m_remaining = m_chunkSize;
            m_state = eStateData;
        }
        break;
    case eStateDataCR:
        if (ch == c_CR)
            m_state = eStateDataLF;
        else
            Fail(eErrorDataEnd);
        break;
    case eStateDataLF:
        if (ch == c_LF) {
            m_lineLength = 0;
            m_state = eStateSizeStart;
        } else {
            Fail(eErrorDataEnd);
        }
        break;
    case eStateTrailerStart: // trailer-section = *( field-line CRLF ) CRLF
        if (ch == c_CR)
            m_state = eStateFinalLF;
        else if (ch == c_LF)
            Fail(eErrorLineEnd);
        else if (CHTTPSyntax::Is(ch, CHTTPSyntax::eClassToken))
            m_state = eStateTrailerName;
        else
            Fail(eErrorTrailer); // a folded line among them
        break;
    case eStateTrailerName:
        if (ch == ':')
            m_state = eStateTrailerValue;
        else if (!CHTTPSyntax::Is(ch, CHTTPSyntax::eClassToken))
            Fail(eErrorTrailer);
        break;
    case eStateTrailerValue:
        if (ch == c_CR)
            m_state = eStateTrailerLF;
        else if (ch == c_LF)
            Fail(eErrorLineEnd);
        else if (!CHTTPSyntax::Is(ch, CHTTPSyntax::eClassValue))
            Fail(eErrorTrailer);
        break;
    case eStateTrailerLF:
        if (ch != c_LF)
            Fail(eErrorLineEnd);
        else if (++m_trailerFields > c_maxTrailerFields)
            Fail(eErrorTrailer);
        else
            m_state = eStateTrailerStart;
        break;
    case eStateFinalLF:
        if (ch == c_LF)
            m_state = eStateDone;
        else
            Fail(eErrorLineEnd);
        break;
    default:
        break;
    }
}

} // namespace NVQ
