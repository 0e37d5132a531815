#include <openssl/sha.h>

#include <cstdint>
#include <cstring>

#include "KTBase/KTDigest.h"
#include "KTBase/KTString.h"

namespace {

constexpr std::size_t kBlockBytes = 64;  // of MD5 and SHA-1 alike
constexpr std::size_t kMd5Bytes = 16;
constexpr std::size_t kSha1Bytes = 20;

std::uint32_t RotateLeft(std::uint32_t word, unsigned int bits) {
    return word << bits | word >> (32 - bits);
}

// ---- MD5, RFC 1321 ----

constexpr std::uint32_t kMd5Start[4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};

// The integer part of 2^32 * |sin(i + 1)|.
constexpr std::uint32_t kMd5Sines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391,
};

std::uint32_t LoadLittle(const unsigned char* at) {
    return at[0] | at[1] << 8 | at[2] << 16 | static_cast<std::uint32_t>(at[3]) << 24;
}

void StoreLittle(unsigned char* at, std::uint32_t word) {
    for (unsigned int shift = 0; shift < 32; shift += 8)
        *at++ = static_cast<unsigned char>(word >> shift);
}

/// One of the four rounds: 16 steps that mix in the block's words at (factor * i + offset) mod 16.
template <unsigned int kRound, unsigned int kFactor, unsigned int kOffset, class Mix>
void Md5Round(std::uint32_t (&s)[4], const std::uint32_t (&words)[16],
              const unsigned int (&shifts)[4], Mix mix) {
    std::uint32_t a = s[0], b = s[1], c = s[2], d = s[3];
    // Unrolled, the moves from word to word cost nothing and every index is a constant.
#pragma GCC unroll 16
    for (unsigned int i = 0; i < 16; ++i) {
        const std::uint32_t sum =
            a + mix(b, c, d) + words[(kFactor * i + kOffset) % 16] + kMd5Sines[16 * kRound + i];
        a = d;
        d = c;
        c = b;
        b += RotateLeft(sum, shifts[i % 4]);
    }
    s[0] = a, s[1] = b, s[2] = c, s[3] = d;
}

void Md5Block(std::uint32_t (&state)[4], const unsigned char* block) {
    using Word = std::uint32_t;
    Word words[16];
    for (unsigned int i = 0; i < 16; ++i)
        words[i] = LoadLittle(block + 4 * i);
    Word s[4] = {state[0], state[1], state[2], state[3]};
    Md5Round<0, 1, 0>(s, words, {7, 12, 17, 22},
                      [](Word x, Word y, Word z) { return z ^ (x & (y ^ z)); });
    Md5Round<1, 5, 1>(s, words, {5, 9, 14, 20},
                      [](Word x, Word y, Word z) { return y ^ (z & (x ^ y)); });
    Md5Round<2, 3, 5>(s, words, {4, 11, 16, 23}, [](Word x, Word y, Word z) { return x ^ y ^ z; });
    Md5Round<3, 7, 0>(s, words, {6, 10, 15, 21},
                      [](Word x, Word y, Word z) { return y ^ (x | ~z); });
    for (unsigned int i = 0; i < 4; ++i)
        state[i] += s[i];
}

void Md5(const unsigned char* data, std::size_t len, unsigned char* out) {
    std::uint32_t state[4];
    std::memcpy(state, kMd5Start, sizeof(state));
    const unsigned char* end = data + len / kBlockBytes * kBlockBytes;
    for (const unsigned char* block = data; block != end; block += kBlockBytes)
        Md5Block(state, block);
    // The rest, a one bit, zeroes, and the length in bits as the last 8 bytes of one or two blocks.
    const std::size_t rest = len % kBlockBytes;
    const std::size_t size = rest + 9 > kBlockBytes ? 2 * kBlockBytes : kBlockBytes;
    unsigned char tail[2 * kBlockBytes] = {};
    std::memcpy(tail, end, rest);
    tail[rest] = 0x80;
    const std::uint64_t bits = static_cast<std::uint64_t>(len) * 8;
    StoreLittle(tail + size - 8, static_cast<std::uint32_t>(bits));
    StoreLittle(tail + size - 4, static_cast<std::uint32_t>(bits >> 32));
    for (std::size_t at = 0; at < size; at += kBlockBytes)
        Md5Block(state, tail + at);
    for (unsigned int i = 0; i < 4; ++i)
        StoreLittle(out + 4 * i, state[i]);
}

// ---- SHA-1, RFC 3174 but for the end of the message ----

std::uint32_t LoadBig(const unsigned char* at) {
    return static_cast<std::uint32_t>(at[0]) << 24 | at[1] << 16 | at[2] << 8 | at[3];
}

void StoreBig(unsigned char* at, std::uint32_t word) {
    for (int shift = 24; shift >= 0; shift -= 8)
        *at++ = static_cast<unsigned char>(word >> shift);
}

class Sha1 {
public:
    /// Takes the whole blocks of the message's next len bytes.
    void Blocks(const unsigned char* data, std::size_t len) {
        for (; len >= kBlockBytes; data += kBlockBytes, len -= kBlockBytes)
            Block(data);
    }
    /// rest: what of the message's last bytes is no whole block.
    void Finish(const unsigned char* rest, std::size_t restBytes, std::size_t messageBytes,
                unsigned char* out);

private:
    void Block(const unsigned char* data);

    std::uint32_t m_state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
};

/// 20 of the 80 steps.
template <unsigned int kFirst, class Mix>
void Sha1Round(std::uint32_t (&s)[5], std::uint32_t (&words)[16], std::uint32_t constant, Mix mix) {
    std::uint32_t a = s[0], b = s[1], c = s[2], d = s[3], e = s[4];
#pragma GCC unroll 20
    for (unsigned int t = kFirst; t < kFirst + 20; ++t) {
        std::uint32_t& word = words[t % 16];
        if (t >= 16)
            word = RotateLeft(
                words[(t + 13) % 16] ^ words[(t + 8) % 16] ^ words[(t + 2) % 16] ^ word, 1);
        const std::uint32_t sum = RotateLeft(a, 5) + mix(b, c, d) + e + word + constant;
        e = d;
        d = c;
        c = RotateLeft(b, 30);
        b = a;
        a = sum;
    }
    s[0] = a, s[1] = b, s[2] = c, s[3] = d, s[4] = e;
}

void Sha1::Block(const unsigned char* data) {
    using Word = std::uint32_t;
    Word words[16];
    for (unsigned int i = 0; i < 16; ++i)
        words[i] = LoadBig(data + 4 * i);
    Word s[5] = {m_state[0], m_state[1], m_state[2], m_state[3], m_state[4]};
    const auto parity = [](Word x, Word y, Word z) { return x ^ y ^ z; };
    Sha1Round<0>(s, words, 0x5A827999, [](Word x, Word y, Word z) { return z ^ (x & (y ^ z)); });
    Sha1Round<20>(s, words, 0x6ED9EBA1, parity);
    Sha1Round<40>(s, words, 0x8F1BBCDC,
                  [](Word x, Word y, Word z) { return (x & y) | (z & (x | y)); });
    Sha1Round<60>(s, words, 0xCA62C1D6, parity);
    for (unsigned int i = 0; i < 5; ++i)
        m_state[i] += s[i];
}

void Sha1::Finish(const unsigned char* rest, std::size_t restBytes, std::size_t messageBytes,
                  unsigned char* out) {
    // Never a second block: a rest of 56 bytes and more runs into the length's place, and from 60
    // on the length covers the last of it. Keys and signatures that deployed systems have made this
    // way must verify, so this does not become the standard's padding.
    unsigned char block[kBlockBytes] = {};
    if (restBytes != 0)
        std::memcpy(block, rest, restBytes);
    block[restBytes] = 0x80;
    StoreBig(block + kBlockBytes - 4, static_cast<std::uint32_t>(messageBytes * 8));
    Block(block);
    for (unsigned int i = 0; i < 5; ++i)
        StoreBig(out + 4 * i, m_state[i]);
}

/// Null data is an empty message. prefix, of one block, stands in front of it unless it is null.
void HashSha1(const unsigned char* prefix, const unsigned char* data, std::size_t len,
              unsigned char* out) {
    if (data == nullptr)
        len = 0;
    Sha1 hash;
    if (prefix != nullptr)
        hash.Blocks(prefix, kBlockBytes);
    const std::size_t rest = len % kBlockBytes;
    hash.Blocks(data, len - rest);
    hash.Finish(len != 0 ? data + (len - rest) : data, rest,
                len + (prefix != nullptr ? kBlockBytes : 0), out);
}

void HmacSha1(const unsigned char* data, std::size_t len, const unsigned char* key,
              std::size_t keyLen, unsigned char* out) {
    unsigned char pad[kBlockBytes] = {};
    if (keyLen > kBlockBytes)
        HashSha1(nullptr, key, keyLen, pad);
    else if (keyLen != 0)
        std::memcpy(pad, key, keyLen);
    for (unsigned char& byte : pad)
        byte ^= 0x36;
    unsigned char inner[kSha1Bytes];
    HashSha1(pad, data, len, inner);
    for (unsigned char& byte : pad)
        byte ^= 0x36 ^ 0x5C;
    HashSha1(pad, inner, sizeof(inner), out);
}

std::size_t Length(int len) {
    return len < 0 ? 0 : static_cast<std::size_t>(len);
}

constexpr char kDefaultTextKey[] = "$brightpond#_!pin?_20190403T0930Z";

}  // namespace

int KTMD5Encode(const unsigned char* data, unsigned int len, unsigned char* out16) {
    if (data == nullptr || out16 == nullptr)
        return 0;
    Md5(data, len, out16);
    return 1;
}

char* KTMD5Data(const unsigned char* data, unsigned int len, char* out33) {
    unsigned char digest[kMd5Bytes];
    if (out33 == nullptr || KTMD5Encode(data, len, digest) == 0)
        return nullptr;
    char* at = out33;
    for (unsigned char byte : digest) {
        *at++ = "0123456789abcdef"[byte >> 4];
        *at++ = "0123456789abcdef"[byte & 15];
    }
    *at = 0;
    return out33;
}

int KTSHA1(const unsigned char* data, int len, unsigned char* out20) {
    if (out20 == nullptr)
        return 0;
    HashSha1(nullptr, data, Length(len), out20);
    return 1;
}

int KTSHA256(const unsigned char* data, int len, unsigned char* out32) {
    if (data == nullptr || out32 == nullptr || len < 1)
        return 0;
    return SHA256(data, Length(len), out32) != nullptr;
}

int KTHMAC_SHA1(const void* data, int dataLen, const unsigned char* key, int keyLen,
                unsigned char* out20) {
    if (key == nullptr || out20 == nullptr)
        return 0;
    HmacSha1(static_cast<const unsigned char*>(data), Length(dataLen), key, Length(keyLen), out20);
    return 1;
}

bool KTCreateTextKey(CKTString& out, const char* text, const char* key) {
    if (text == nullptr)
        return false;
    if (key == nullptr)
        key = kDefaultTextKey;
    // Stored text keys hold the digest and a zero byte behind it.
    unsigned char digest[kSha1Bytes + 1] = {};
    HmacSha1(reinterpret_cast<const unsigned char*>(text), std::strlen(text),
             reinterpret_cast<const unsigned char*>(key), std::strlen(key), digest);
    KTBASE64EncodeSTR(out, digest, sizeof(digest));
    return true;
}
