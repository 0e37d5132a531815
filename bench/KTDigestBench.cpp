// Base64, digests and AES beside OpenSSL, at 64 bytes, 4 KB and 1 MB a call.
//
// Base64: the rival is the EVP block coder. MD5 and SHA-1: EVP_Digest. AES: the EVP cipher on a
// context that is kept and given the key anew for each call, where ours makes its own and appends
// to a string.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <memory>
#include <vector>

#include "KTBase/KTDigest.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"
#include "KTCompare.h"

namespace {

using Byte = unsigned char;
using Data = std::vector<Byte>;

constexpr std::size_t kRoundBytes = 1 << 18;  // long enough for the clock, whatever the call's size
constexpr Byte kKey[32] = {'k', 'e', 'y'};

/// Runs call() as often as makes up a round.
template <typename Call>
void Round(std::size_t bytes, Call call) {
    for (std::size_t done = 0; done < kRoundBytes; done += bytes)
        call();
}

/// ours(size) and rival(size) are one call each.
template <typename Ours, typename Rival>
void Compare(benchmark::State& state, Ours ours, Rival rival) {
    const std::size_t bytes = static_cast<std::size_t>(state.range(0));
    const double calls = bytes < kRoundBytes ? static_cast<double>(kRoundBytes / bytes) : 1;
    KTCompare(
        state, calls, [&] { Round(bytes, ours); }, [&] { Round(bytes, rival); });
}

Data MakeData(const benchmark::State& state) {
    Data data(static_cast<std::size_t>(state.range(0)));
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<Byte>(i * 7 + i / 256);
    return data;
}

void Base64Encode(benchmark::State& state) {
    const Data data = MakeData(state);
    const unsigned int size = static_cast<unsigned int>(data.size());
    Data text(data.size() / 3 * 4 + 8);
    Compare(
        state,
        [&] {
            char* made = nullptr;
            KTBASE64Encode(&made, nullptr, data.data(), size);
            benchmark::DoNotOptimize(made);
            ZMKFree(made);
        },
        [&] {
            EVP_EncodeBlock(text.data(), data.data(), static_cast<int>(size));
            benchmark::DoNotOptimize(text.data());
        });
}

void Base64Decode(benchmark::State& state) {
    const Data data = MakeData(state);
    Data text(data.size() / 3 * 4 + 8), back(text.size());
    const int length = EVP_EncodeBlock(text.data(), data.data(), static_cast<int>(data.size()));
    Compare(
        state,
        [&] {
            KTBASE64DecodeExt(back.data(), reinterpret_cast<const char*>(text.data()), 0);
            benchmark::DoNotOptimize(back.data());
        },
        [&] {
            EVP_DecodeBlock(back.data(), text.data(), length);
            benchmark::DoNotOptimize(back.data());
        });
}

void Md5(benchmark::State& state) {
    const Data data = MakeData(state);
    Byte digest[EVP_MAX_MD_SIZE];
    Compare(
        state,
        [&] {
            KTMD5Encode(data.data(), static_cast<unsigned int>(data.size()), digest);
            benchmark::DoNotOptimize(digest);
        },
        [&] {
            EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_md5(), nullptr);
            benchmark::DoNotOptimize(digest);
        });
}

void Sha1(benchmark::State& state) {
    const Data data = MakeData(state);
    Byte digest[EVP_MAX_MD_SIZE];
    Compare(
        state,
        [&] {
            KTSHA1(data.data(), static_cast<int>(data.size()), digest);
            benchmark::DoNotOptimize(digest);
        },
        [&] {
            EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_sha1(), nullptr);
            benchmark::DoNotOptimize(digest);
        });
}

using AesCall = int (*)(CKTString&, const Byte*, unsigned int);

void Aes(benchmark::State& state, AesCall call, const EVP_CIPHER* cipher, int encrypt) {
    const Data data = MakeData(state);
    const Byte iv[16] = {};
    Data out(data.size() + 16);
    const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> context(EVP_CIPHER_CTX_new(),
                                                                             EVP_CIPHER_CTX_free);
    EVP_CipherInit_ex(context.get(), cipher, nullptr, kKey, iv, encrypt);
    EVP_CIPHER_CTX_set_padding(context.get(), 0);
    CKTString text;
    Compare(
        state,
        [&] {
            text.Empty(false);
            call(text, data.data(), static_cast<unsigned int>(data.size()));
            benchmark::DoNotOptimize(text.GetBuffer());
        },
        [&] {
            int size = 0;
            EVP_CipherInit_ex(context.get(), nullptr, nullptr, kKey, iv, encrypt);
            EVP_CipherUpdate(context.get(), out.data(), &size, data.data(),
                             static_cast<int>(data.size()));
            benchmark::DoNotOptimize(out.data());
        });
}

void AesEncrypt(benchmark::State& state) {
    Aes(
        state,
        [](CKTString& out, const Byte* data, unsigned int len) {
            return KTAESEncrypt(out, data, len, kKey, 128);
        },
        EVP_aes_128_ecb(), 1);
}

void AesDecryptCbc(benchmark::State& state) {
    Aes(
        state,
        [](CKTString& out, const Byte* data, unsigned int len) {
            return KTAESDecryptCBC(out, data, len, kKey, 256, 0);
        },
        EVP_aes_256_cbc(), 0);
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(64)->Arg(4096)->Arg(1 << 20)->UseManualTime();
}

}  // namespace

BENCHMARK(Base64Encode)->Apply(Sizes);
BENCHMARK(Base64Decode)->Apply(Sizes);
BENCHMARK(Md5)->Apply(Sizes);
BENCHMARK(Sha1)->Apply(Sizes);
BENCHMARK(AesEncrypt)->Apply(Sizes);
BENCHMARK(AesDecryptCbc)->Apply(Sizes);
BENCHMARK_MAIN();
