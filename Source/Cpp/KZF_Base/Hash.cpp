#include "KZF_Utilities/Linux/Hash.h"

#include <cstring>

// Words are assembled from bytes with shifts, never loaded through a cast
// pointer: no unaligned access on ARM, and the same result on either byte
// order.

namespace KZF
{

namespace
{

inline uint32_t rotl(uint32_t x, unsigned n)
{
    return (x << n) | (x >> (32 - n));
}

inline uint32_t rotr(uint32_t x, unsigned n)
{
    return (x >> n) | (x << (32 - n));
}

inline uint32_t loadLe(const unsigned char *p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

inline uint32_t loadBe(const unsigned char *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

inline void store(unsigned char *p, uint32_t x, bool bigEndian)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(x >> (bigEndian ? 24 - 8 * i : 8 * i));
}

const uint32_t c_md5Initial[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
const uint32_t c_sha1Initial[5] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
const uint32_t c_sha256Initial[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                     0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

// floor(2^32 * |sin(i + 1)|)
const uint32_t c_md5K[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
const unsigned char c_md5Shift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// First 32 bits of the fractional parts of the cube roots of the first 64 primes.
const uint32_t c_sha256K[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

void md5Compress(uint32_t *state, const unsigned char *block)
{
    uint32_t m[16];
    for (int i = 0; i < 16; ++i)
        m[i] = loadLe(block + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (unsigned i = 0; i < 64; ++i) {
        const unsigned round = i / 16;
        uint32_t f;
        unsigned g;
        if (round == 0) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (round == 1) {
            f = (d & b) | (~d & c);
            g = (5 * i + 1) % 16;
        } else if (round == 2) {
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
        }
        f += a + c_md5K[i] + m[g];
        a = d;
        d = c;
        c = b;
        b += rotl(f, c_md5Shift[round][i % 4]);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

void sha1Compress(uint32_t *state, const unsigned char *block)
{
    // A 16-word ring instead of the 80-word schedule: less stack on small CPUs.
    uint32_t w[16];
    for (int i = 0; i < 16; ++i)
        w[i] = loadBe(block + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    for (unsigned i = 0; i < 80; ++i) {
        if (i >= 16)
            w[i % 16] = rotl(w[(i + 13) % 16] ^ w[(i + 8) % 16] ^ w[(i + 2) % 16] ^ w[i % 16], 1);
        uint32_t f;
        if (i < 20)
            f = ((b & c) | (~b & d)) + 0x5a827999;
        else if (i < 40)
            f = (b ^ c ^ d) + 0x6ed9eba1;
        else if (i < 60)
            f = ((b & c) | (b & d) | (c & d)) + 0x8f1bbcdc;
        else
            f = (b ^ c ^ d) + 0xca62c1d6;
        const uint32_t t = rotl(a, 5) + f + e + w[i % 16];
        e = d;
        d = c;
        c = rotl(b, 30);
        b = a;
        a = t;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
}

void sha256Compress(uint32_t *state, const unsigned char *block)
{
    uint32_t w[16];
    for (int i = 0; i < 16; ++i)
        w[i] = loadBe(block + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    for (unsigned i = 0; i < 64; ++i) {
        if (i >= 16) {
            const uint32_t w15 = w[(i + 1) % 16], w2 = w[(i + 14) % 16];
            const uint32_t s0 = rotr(w15, 7) ^ rotr(w15, 18) ^ (w15 >> 3);
            const uint32_t s1 = rotr(w2, 17) ^ rotr(w2, 19) ^ (w2 >> 10);
            w[i % 16] += s0 + w[(i + 9) % 16] + s1;
        }
        const uint32_t t1 =
            h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & f) ^ (~e & g)) + c_sha256K[i] + w[i % 16];
        const uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
}

template <class TDigest> std::string oneShotHex(const void *data, size_t size)
{
    TDigest digest;
    digest.Update(data, size);
    unsigned char out[TDigest::c_digestSize];
    digest.Final(out);
    return HexEncode(out, sizeof(out));
}

} // namespace

void CBlockDigest::Update(const void *data, size_t size)
{
    // memcpy must not see the null pointer an empty piece may come with.
    if (size == 0)
        return;
    const unsigned char *p = static_cast<const unsigned char *>(data);
    m_length += size;
    if (m_used > 0) {
        const size_t take = size < 64 - m_used ? size : 64 - m_used;
        std::memcpy(m_block + m_used, p, take);
        m_used += take;
        p += take;
        size -= take;
        if (m_used < 64)
            return;
        m_compress(m_state, m_block);
        m_used = 0;
    }
    // Whole blocks straight from the input.
    for (; size >= 64; p += 64, size -= 64)
        m_compress(m_state, p);
    if (size > 0)
        std::memcpy(m_block, p, size);
    m_used = size;
}

void CBlockDigest::Finish(unsigned char *digest, size_t words, bool bigEndian)
{
    const uint64_t bits = m_length * 8;
    m_block[m_used++] = 0x80;
    if (m_used > 56) {
        std::memset(m_block + m_used, 0, 64 - m_used);
        m_compress(m_state, m_block);
        m_used = 0;
    }
    std::memset(m_block + m_used, 0, 56 - m_used);
    for (int i = 0; i < 8; ++i)
        m_block[56 + i] = static_cast<unsigned char>(bits >> (bigEndian ? 56 - 8 * i : 8 * i));
    m_compress(m_state, m_block);
    for (size_t i = 0; i < words; ++i)
        store(digest + 4 * i, m_state[i], bigEndian);
}

void CBlockDigest::Restart(const uint32_t *initial, size_t words)
{
    std::memcpy(m_state, initial, words * sizeof(uint32_t));
    m_length = 0;
    m_used = 0;
}

CMd5::CMd5() : CBlockDigest(md5Compress)
{
    Reset();
}

void CMd5::Reset()
{
    Restart(c_md5Initial, 4);
}

void CMd5::Final(unsigned char *digest)
{
    Finish(digest, 4, false);
    Reset();
}

std::string CMd5::Hex(const void *data, size_t size)
{
    return oneShotHex<CMd5>(data, size);
}

CSha1::CSha1() : CBlockDigest(sha1Compress)
{
    Reset();
}

void CSha1::Reset()
{
    Restart(c_sha1Initial, 5);
}

void CSha1::Final(unsigned char *digest)
{
    Finish(digest, 5, true);
    Reset();
}

std::string CSha1::Hex(const void *data, size_t size)
{
    return oneShotHex<CSha1>(data, size);
}

CSha256::CSha256() : CBlockDigest(sha256Compress)
{
    Reset();
}

void CSha256::Reset()
{
    Restart(c_sha256Initial, 8);
}

void CSha256::Final(unsigned char *digest)
{
    Finish(digest, 8, true);
    Reset();
}

std::string CSha256::Hex(const void *data, size_t size)
{
    return oneShotHex<CSha256>(data, size);
}

std::string HexEncode(const void *data, size_t size)
{
    static const char c_digits[] = "0123456789abcdef";
    const unsigned char *p = static_cast<const unsigned char *>(data);
    std::string out(size * 2, '\0');
    for (size_t i = 0; i < size; ++i) {
        out[2 * i] = c_digits[p[i] >> 4];
        out[2 * i + 1] = c_digits[p[i] & 15];
    }
    return out;
}

bool ConstantTimeEquals(const void *a, const void *b, size_t size)
{
    const unsigned char *pa = static_cast<const unsigned char *>(a);
    const unsigned char *pb = static_cast<const unsigned char *>(b);
    // volatile keeps the compiler from turning the loop into one that stops
    // at the first difference.
    volatile unsigned char difference = 0;
    for (size_t i = 0; i < size; ++i)
        difference = static_cast<unsigned char>(difference | (pa[i] ^ pb[i]));
    return difference == 0;
}

bool ConstantTimeEquals(const std::string &a, const std::string &b)
{
    return a.size() == b.size() && ConstantTimeEquals(a.data(), b.data(), a.size());
}

} // namespace KZF
