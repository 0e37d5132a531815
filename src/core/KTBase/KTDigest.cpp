#include "KTBase/KTDigest.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"

namespace {

// ---- Base64 ----

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

struct DecodeTable {
    unsigned char sextet[256];
};

constexpr DecodeTable MakeDecodeTable() {
    DecodeTable table = {};
    for (unsigned int i = 0; i < 64; ++i)
        table.sextet[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
    return table;
}

constexpr DecodeTable kDecode = MakeDecodeTable();

/// Writes the characters for 1 to 3 bytes.
void EncodeGroup(char* dst, const unsigned char* data, std::size_t bytes) {
    const unsigned int second = bytes > 1 ? data[1] : 0;
    const unsigned int third = bytes > 2 ? data[2] : 0;
    const unsigned int bits = data[0] << 16 | second << 8 | third;
    dst[0] = kAlphabet[bits >> 18];
    dst[1] = kAlphabet[bits >> 12 & 63];
    dst[2] = bytes > 1 ? kAlphabet[bits >> 6 & 63] : '=';
    dst[3] = bytes > 2 ? kAlphabet[bits & 63] : '=';
}

/// Most bytes that length characters decode to.
std::size_t DecodedRoom(std::size_t length) {
    return length / 4 * 3;
}

/// Decodes into dst, which has DecodedRoom(length) bytes and may be text itself.
std::size_t Decode(unsigned char* dst, const char* text, std::size_t length, bool trimZeros) {
    std::size_t size = 0;
    for (const char* end = text + length / 4 * 4; text != end; text += 4) {
        unsigned int bits = 0;
        for (int i = 0; i < 4; ++i)
            bits = bits << 6 | kDecode.sextet[static_cast<unsigned char>(text[i])];
        // Looked at before the first write: dst may be text.
        const bool second = text[2] != '=', third = text[3] != '=';
        const bool last = !second || !third || text[0] == '=' || text[1] == '=';
        dst[size++] = static_cast<unsigned char>(bits >> 16);
        if (second)
            dst[size++] = static_cast<unsigned char>(bits >> 8);
        if (third)
            dst[size++] = static_cast<unsigned char>(bits);
        if (last)
            break;
    }
    while (trimZeros && size != 0 && dst[size - 1] == 0)
        --size;
    return size;
}

}  // namespace

int KTBASE64Encode(char** out, unsigned int* outLen, const unsigned char* data, unsigned int len) {
    if (out == nullptr || data == nullptr || len == 0)
        return 0;
    const unsigned long long length = (len + 2ull) / 3 * 4;
    if (length > UINT_MAX)
        return 0;
    char* text = reinterpret_cast<char*>(ZMKMalloc(length + 1));
    if (text == nullptr)
        return 0;
    char* dst = text;
    for (std::size_t i = 0; i < len; i += 3, dst += 4)
        EncodeGroup(dst, data + i, std::min<std::size_t>(len - i, 3));
    *dst = 0;
    *out = text;
    if (outLen != nullptr)
        *outLen = static_cast<unsigned int>(length);
    return 1;
}

int KTBASE64Decode(unsigned char** out, unsigned int* outLen, const char* text,
                   unsigned int trimZeros) {
    if (out == nullptr || outLen == nullptr || text == nullptr)
        return 0;
    const std::size_t length = std::strlen(text);
    if (DecodedRoom(length) > UINT_MAX)
        return 0;
    unsigned char* data = ZMKMalloc(DecodedRoom(length) + 1);
    if (data == nullptr)
        return 0;
    const std::size_t size = Decode(data, text, length, trimZeros != 0);
    data[size] = 0;
    *out = data;
    *outLen = static_cast<unsigned int>(size);
    return 1;
}

int KTBASE64DecodeExt(unsigned char* dst, const char* text, int trimZeros) {
    if (dst == nullptr || text == nullptr)
        return KT_ERROR;
    const std::size_t length = std::strlen(text);
    if (DecodedRoom(length) > INT_MAX)
        return KT_ERROR;
    const std::size_t size = Decode(dst, text, length, trimZeros != 0);
    dst[size] = 0;
    return static_cast<int>(size);
}

int KTBASE64DecodeExt2(unsigned char* dst, unsigned int dstSize, const char* text,
                       unsigned int trimZeros) {
    unsigned char* data = nullptr;
    unsigned int size = 0;
    if (dst == nullptr || KTBASE64Decode(&data, &size, text, trimZeros) == 0)
        return KT_ERROR;
    const unsigned int count = std::min({size, dstSize, static_cast<unsigned int>(INT_MAX)});
    std::memcpy(dst, data, count);
    ZMKFree(data);
    return static_cast<int>(count);
}

int KTBASE64EncodeSTR(CKTString& out, const unsigned char* data, unsigned int len) {
    char* text = nullptr;
    unsigned int length = 0;
    if (KTBASE64Encode(&text, &length, data, len) == 0)
        return 0;
    const int appended = out.AppendSTR(text, length);
    ZMKFree(text);
    return appended > 0;
}

int KTBASE64DecodeSTR(CKTString& out, const char* text, unsigned int) {
    unsigned char* data = nullptr;
    unsigned int size = 0;
    if (KTBASE64Decode(&data, &size, text, 1) == 0)
        return 0;
    const int appended = out.AppendDAT(data, size);
    ZMKFree(data);
    return appended >= 0;
}
