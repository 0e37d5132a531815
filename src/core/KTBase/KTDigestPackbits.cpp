#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "KTBase/KTDigest.h"

namespace {

constexpr int kMostGroup = 128;
constexpr int kLeastRun = 3;

/// Equal bytes at data, at most kMostGroup.
int RunLength(const unsigned char* data, int len) {
    const int most = std::min(len, kMostGroup);
    int count = 1;
    while (count < most && data[count] == data[0])
        ++count;
    return count;
}

/// Bytes at data in front of the next run, at most kMostGroup.
int LiteralLength(const unsigned char* data, int len) {
    const int most = std::min(len, kMostGroup);
    int count = 1;
    while (count < most && RunLength(data + count, std::min(len - count, kLeastRun)) < kLeastRun)
        ++count;
    return count;
}

}  // namespace

int KTPackbits(const unsigned char* src, unsigned char* dst, int len) {
    if (src == nullptr || dst == nullptr || len < 1 || len > INT_MAX / 129 * 128)
        return 0;
    unsigned char* at = dst;
    while (len > 0) {
        int count = RunLength(src, len);
        if (count >= kLeastRun) {
            *at++ = static_cast<unsigned char>(1 - count);
            *at++ = *src;
        } else {
            count = LiteralLength(src, len);
            *at++ = static_cast<unsigned char>(count - 1);
            std::memcpy(at, src, static_cast<std::size_t>(count));
            at += count;
        }
        src += count;
        len -= count;
    }
    return static_cast<int>(at - dst);
}

int KTUnpackbits(const unsigned char* src, int srcLen, unsigned char* dst, int dstSize) {
    if (src == nullptr || dst == nullptr)
        return 0;
    int room = std::max(dstSize, 0);
    unsigned char* at = dst;
    while (srcLen > 1) {
        const int code = *src++;
        --srcLen;
        if (code == 128)
            continue;
        const bool literal = code < 128;
        const int count = literal ? code + 1 : 257 - code;
        const int taken = literal ? count : 1;  // source bytes
        if (taken > srcLen) {
            std::printf("not enough RLE data for row\n");
            break;
        }
        if (count > room)
            std::printf("unpacked RLE data would overflow row (%s)\n", literal ? "copy" : "run");
        const std::size_t fits = static_cast<std::size_t>(std::min(count, room));
        if (literal)
            std::memcpy(at, src, fits);
        else
            std::memset(at, *src, fits);
        at += fits;
        room -= static_cast<int>(fits);
        src += taken;
        srcLen -= taken;
    }
    return static_cast<int>(at - dst);
}
