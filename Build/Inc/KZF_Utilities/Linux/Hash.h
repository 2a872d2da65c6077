#ifndef KZF_UTILITIES_LINUX_HASH_H
#define KZF_UTILITIES_LINUX_HASH_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace KZF
{

// The 64-byte block buffering shared by the digests below. Update takes the
// input in pieces of any size; Final (in each digest) pads, writes the digest
// and starts over, so one object serves many messages.
class CBlockDigest
{
  public:
    void Update(const void *data, size_t size);

  protected:
    typedef void (*TCompress)(uint32_t *state, const unsigned char *block);

    explicit CBlockDigest(TCompress compress) : m_compress(compress), m_length(0), m_used(0) {}
    // Pads and writes the first `words` state words; MD5 stores words and the
    // bit length little-endian, the SHA family big-endian.
    void Finish(unsigned char *digest, size_t words, bool bigEndian);
    void Restart(const uint32_t *initial, size_t words);

  private:
    TCompress m_compress;
    uint32_t m_state[8];
    uint64_t m_length;
    size_t m_used;
    unsigned char m_block[64];
};

// RFC 1321. Only for protocols that require it (HTTP Digest).
class CMd5 : public CBlockDigest
{
  public:
    static constexpr size_t c_digestSize = 16;
    CMd5();
    void Reset();
    void Final(unsigned char *digest);
    // Lower-case hex digest of one complete input.
    static std::string Hex(const void *data, size_t size);
    static std::string Hex(const std::string &text) { return Hex(text.data(), text.size()); }
};

// FIPS 180-4. Only for protocols that require it (WebSocket handshake).
class CSha1 : public CBlockDigest
{
  public:
    static constexpr size_t c_digestSize = 20;
    CSha1();
    void Reset();
    void Final(unsigned char *digest);
    static std::string Hex(const void *data, size_t size);
    static std::string Hex(const std::string &text) { return Hex(text.data(), text.size()); }
};

// FIPS 180-4.
class CSha256 : public CBlockDigest
{
  public:
    static constexpr size_t c_digestSize = 32;
    CSha256();
    void Reset();
    void Final(unsigned char *digest);
    static std::string Hex(const void *data, size_t size);
    static std::string Hex(const std::string &text) { return Hex(text.data(), text.size()); }
};

// Lower-case hex of any bytes.
std::string HexEncode(const void *data, size_t size);

// RFC 4648 base64, standard alphabet, with padding.
std::string Base64Encode(const void *data, size_t size);
inline std::string Base64Encode(const std::string &bytes)
{
    return Base64Encode(bytes.data(), bytes.size());
}
// Accepts only the canonical form: a multiple of 4 characters from the
// alphabet, '=' only as the last one or two, unused bits zero, no white
// space. False leaves out unchanged.
bool Base64Decode(const std::string &text, std::string &out);

// Compares without an early exit, so the time taken does not tell where two
// secrets differ.
bool ConstantTimeEquals(const void *a, const void *b, size_t size);
// Texts of different lengths are unequal at once; the length is not secret.
bool ConstantTimeEquals(const std::string &a, const std::string &b);

// Fills out from the kernel's random source (getrandom, else /dev/urandom);
// blocks only while the kernel pool is not yet initialised after boot. False
// when no source could deliver all bytes.
bool RandomBytes(void *out, size_t size);

} // namespace KZF

#endif
