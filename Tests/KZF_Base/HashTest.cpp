#include "KZF_Utilities/Linux/Hash.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using namespace std::string_literals;

template <class TDigest> std::string hexOfPieces(const std::string &text, size_t split, size_t step)
{
    TDigest digest;
    digest.Update(text.data(), split);
    digest.Update(nullptr, 0);
    for (size_t i = split; i < text.size(); i += step)
        digest.Update(text.data() + i, std::min(step, text.size() - i));
    unsigned char out[TDigest::c_digestSize];
    digest.Final(out);
    return KZF::HexEncode(out, sizeof(out));
}

// Four vectors: empty, one block, one that leaves no room for the length in
// its last block, and many blocks.
TEST(HashTest, DigestsMatchKnownVectors)
{
    const std::string inputs[] = {"", "abc", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                                  std::string(1000000, 'a')};
    const char *const md5[] = {"d41d8cd98f00b204e9800998ecf8427e", "900150983cd24fb0d6963f7d28e17f72",
                               "8215ef0796a20bcaaae116d3876c664a", "7707d6ae4e027c70eea2a935c2296f21"};
    const char *const sha1[] = {
        "da39a3ee5e6b4b0d3255bfef95601890afd80709", "a9993e364706816aba3e25717850c26c9cd0d89d",
        "84983e441c3bd26ebaae4aa1f95129e5e54670f1", "34aa973cd4c4daa4f61eeb2bdbad27316534016f"};
    const char *const sha256[] = {"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
                                  "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
                                  "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1",
                                  "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(md5[i], KZF::CMd5::Hex(inputs[i])) << i;
        EXPECT_EQ(sha1[i], KZF::CSha1::Hex(inputs[i])) << i;
        EXPECT_EQ(sha256[i], KZF::CSha256::Hex(inputs[i])) << i;
    }
}

// 130 bytes cross two block boundaries and both padding cases; every split of
// the input, and byte-at-a-time feeding, must give the one-shot digest.
// Final also restarts the object: a second message on it must match too.
TEST(HashTest, PiecesGiveTheOneShotDigest)
{
    std::string text;
    for (int i = 0; i < 130; ++i)
        text += static_cast<char>(i * 37 + 11);
    for (size_t split = 0; split <= text.size(); ++split) {
        EXPECT_EQ(KZF::CMd5::Hex(text), hexOfPieces<KZF::CMd5>(text, split, text.size())) << split;
        EXPECT_EQ(KZF::CSha1::Hex(text), hexOfPieces<KZF::CSha1>(text, split, text.size())) << split;
        EXPECT_EQ(KZF::CSha256::Hex(text), hexOfPieces<KZF::CSha256>(text, split, text.size())) << split;
    }
    EXPECT_EQ(KZF::CSha256::Hex(text), hexOfPieces<KZF::CSha256>(text, 0, 1));
    KZF::CSha1 reused;
    unsigned char out[KZF::CSha1::c_digestSize];
    reused.Update("xyz", 3);
    reused.Final(out);
    reused.Update("abc", 3);
    reused.Final(out);
    EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", KZF::HexEncode(out, sizeof(out)));
}

TEST(HashTest, Base64RoundTripsAndRefusesNonCanonicalText)
{
    const char *const vectors[][2] = {{"", ""},
                                      {"f", "Zg=="},
                                      {"fo", "Zm8="},
                                      {"foo", "Zm9v"},
                                      {"foob", "Zm9vYg=="},
                                      {"fooba", "Zm9vYmE="},
                                      {"foobar", "Zm9vYmFy"}};
    for (const auto &v : vectors) {
        EXPECT_EQ(v[1], KZF::Base64Encode(std::string(v[0])));
        std::string decoded = "old";
        EXPECT_TRUE(KZF::Base64Decode(v[1], decoded)) << v[1];
        EXPECT_EQ(v[0], decoded);
    }
    std::string all;
    for (int i = 0; i < 256; ++i)
        all += static_cast<char>(255 - i);
    std::string decoded;
    ASSERT_TRUE(KZF::Base64Decode(KZF::Base64Encode(all), decoded));
    EXPECT_EQ(all, decoded);

    const std::string refused[] = {
        "Zg",   "Zg=",  "Zm9vY",  "Zm9v=", "Zg==Zg==", "====", "Z===",   "Zm=v",
        "Zh==", "Zm9=", "Zm9v\n", "Zm 9v", "Zm9*",     "Zm-_", "Zg\0="s, "Zm9\xc3"s};
    for (const std::string &text : refused) {
        std::string out = "kept";
        EXPECT_FALSE(KZF::Base64Decode(text, out)) << text;
        EXPECT_EQ("kept", out);
    }
}

TEST(HashTest, ConstantTimeEqualsComparesEveryByte)
{
    const std::string secret = "0123456789abcdef";
    EXPECT_TRUE(KZF::ConstantTimeEquals(secret, "0123456789abcdef"));
    EXPECT_TRUE(KZF::ConstantTimeEquals("", ""));
    for (const std::string &other : {"x123456789abcdef"s, "0123456789abcdeF"s, "0123456789abcde"s})
        EXPECT_FALSE(KZF::ConstantTimeEquals(secret, other)) << other;
    EXPECT_FALSE(KZF::ConstantTimeEquals("a\0b"s, "a\0c"s));
}

TEST(HashTest, RandomBytesFillsLargeAndEmptyRequests)
{
    std::string a(1 << 20, '\0'), b(32, '\0'), c(32, '\0');
    ASSERT_TRUE(KZF::RandomBytes(&a[0], a.size()));
    ASSERT_TRUE(KZF::RandomBytes(&b[0], b.size()));
    ASSERT_TRUE(KZF::RandomBytes(&c[0], c.size()));
    EXPECT_TRUE(KZF::RandomBytes(nullptr, 0));
    EXPECT_NE(b, c);
    // The last kilobyte of a large request is filled, not left zero.
    EXPECT_NE(std::string(1024, '\0'), a.substr(a.size() - 1024));
}

} // namespace
