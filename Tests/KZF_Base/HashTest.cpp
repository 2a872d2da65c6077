#include "KZF_Utilities/Linux/Hash.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using namespace std::string_literals;

// The object first digests another message: Final restarts it for the next.
template <class TDigest> std::string hexOfPieces(const std::string &text, size_t split, size_t step)
{
    TDigest digest;
    unsigned char out[TDigest::c_digestSize];
    digest.Update("xyz", 3);
    digest.Final(out);
    digest.Update(text.data(), split);
    digest.Update(nullptr, 0);
    for (size_t i = split; i < text.size(); i += step)
        digest.Update(text.data() + i, std::min(step, text.size() - i));
    digest.Final(out);
    return KZF::HexEncode(out, sizeof(out));
}

// Empty, one that leaves no room for the length in its last block,
// and 130 bytes that cross two block boundaries: one-shot, split at every
// offset, and after the split either whole or byte by byte.
TEST(HashTest, DigestsMatchKnownVectorsHoweverTheInputIsSplit)
{
    std::string bytes;
    for (int i = 0; i < 130; ++i)
        bytes += static_cast<char>(i * 37 + 11);
    const std::string rows[][4] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e", "da39a3ee5e6b4b0d3255bfef95601890afd80709",
         "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "8215ef0796a20bcaaae116d3876c664a",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {bytes, "8a2682a4b1a920cccc7c09422b233d76", "ee8120e7f5787120dce7a850d22547f1fe197c72",
         "d35b74124cb85cfac62bfeaf3a9771efab3e0ef88fc43702c35a6efe09467cc1"}};
    for (const auto &r : rows) {
        EXPECT_EQ(r[1], KZF::CMd5::Hex(r[0]));
        EXPECT_EQ(r[2], KZF::CSha1::Hex(r[0]));
        EXPECT_EQ(r[3], KZF::CSha256::Hex(r[0]));
        for (size_t split = 0; split <= r[0].size(); ++split) {
            const size_t step = split % 2 == 0 ? r[0].size() : 1;
            EXPECT_EQ(r[1], hexOfPieces<KZF::CMd5>(r[0], split, step)) << r[1] << " " << split;
            EXPECT_EQ(r[2], hexOfPieces<KZF::CSha1>(r[0], split, step)) << r[2] << " " << split;
            EXPECT_EQ(r[3], hexOfPieces<KZF::CSha256>(r[0], split, step)) << r[3] << " " << split;
        }
    }
}

TEST(HashTest, Base64RoundTripsAndRefusesNonCanonicalText)
{
    std::string all;
    for (int i = 0; i < 256; ++i)
        all += static_cast<char>(255 - i);
    const std::string encoded[] = {"",         "Zg==",     "Zm8=",     "Zm9v",
                                   "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy", KZF::Base64Encode(all)};
    for (size_t n = 0; n < 8; ++n) {
        const std::string plain = n < 7 ? std::string("foobar", n) : all;
        std::string decoded = "old";
        EXPECT_EQ(encoded[n], KZF::Base64Encode(plain));
        EXPECT_TRUE(KZF::Base64Decode(encoded[n], decoded)) << encoded[n];
        EXPECT_EQ(plain, decoded);
    }
    for (const std::string &text :
         {"Zg"s, "Zg="s, "Zm9vY"s, "Zm9v="s, "Zg==Zg=="s, "===="s, "Z==="s, "Zm=v"s, "Zh=="s, "Zm9="s,
          "Zm9v\n"s, "Zm 9v"s, "Zm9*"s, "Zm-_"s, "Zg\0="s, "Zm9\xc3"s}) {
        std::string out = "kept";
        EXPECT_FALSE(KZF::Base64Decode(text, out)) << text;
        EXPECT_EQ("kept", out);
    }
}

TEST(HashTest, ConstantTimeEqualsComparesEveryByte)
{
    EXPECT_TRUE(KZF::ConstantTimeEquals("0123456789abcdef", "0123456789abcdef"));
    EXPECT_TRUE(KZF::ConstantTimeEquals("", ""));
    for (const std::string &other : {"x123456789abcdef"s, "0123456789abcdeF"s, "0123456789abcde"s})
        EXPECT_FALSE(KZF::ConstantTimeEquals("0123456789abcdef", other)) << other;
    EXPECT_FALSE(KZF::ConstantTimeEquals("a\0b"s, "a\0c"s));
}

TEST(HashTest, RandomBytesFillsLargeAndEmptyRequests)
{
    std::string a(1 << 20, '\0');
    ASSERT_TRUE(KZF::RandomBytes(&a[0], a.size()) && KZF::RandomBytes(nullptr, 0));
    // The last kilobyte of a large request is filled, not left zero.
    EXPECT_NE(std::string(1024, '\0'), a.substr(a.size() - 1024));
}

} // namespace
