#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <climits>
#include <cstring>

#include "KTBase/KTDigest.h"
#include "KTBase/KTString.h"
#include "KTOwnBuffer.h"

namespace {

constexpr unsigned int kBlockBytes = 16;
constexpr unsigned int kMostKeyBytes = 32;

enum class Direction : int { Decrypt = 0, Encrypt = 1 };  // as OpenSSL counts them

/// Null for a length that AES does not have.
const EVP_CIPHER* FindCipher(unsigned int keyBits, bool chained) {
    switch (keyBits) {
        case 128:
            return chained ? EVP_aes_128_cbc() : EVP_aes_128_ecb();
        case 192:
            return chained ? EVP_aes_192_cbc() : EVP_aes_192_ecb();
        case 256:
            return chained ? EVP_aes_256_cbc() : EVP_aes_256_ecb();
        default:
            return nullptr;
    }
}

/// Writes len bytes, rounded up to whole blocks with zeroes, through the cipher to dst.
bool Run(EVP_CIPHER_CTX* context, unsigned char* dst, const unsigned char* data, unsigned int len) {
    const unsigned int rest = len % kBlockBytes;
    const int whole = static_cast<int>(len - rest);
    int done = 0;
    if (whole != 0 && (EVP_CipherUpdate(context, dst, &done, data, whole) != 1 || done != whole))
        return false;
    if (rest == 0)
        return true;
    unsigned char last[kBlockBytes] = {};
    std::memcpy(last, data + whole, rest);
    return EVP_CipherUpdate(context, dst + whole, &done, last, kBlockBytes) == 1 &&
           done == static_cast<int>(kBlockBytes);
}

/// iv: null for ECB. Each call makes its own context: about 0.3 us, and none is left behind, with a
/// key in it, when a thread ends or the library is unloaded.
bool Transform(unsigned char* dst, const unsigned char* data, unsigned int len,
               const EVP_CIPHER* cipher, const unsigned char* key, const unsigned char* iv,
               Direction direction) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    if (context == nullptr)
        return false;
    const bool done =
        EVP_CipherInit_ex(context, cipher, nullptr, key, iv, static_cast<int>(direction)) == 1 &&
        EVP_CIPHER_CTX_set_padding(context, 0) == 1 && Run(context, dst, data, len);
    EVP_CIPHER_CTX_free(context);
    return done;
}

int Append(CKTString& out, const unsigned char* data, unsigned int len, const unsigned char* key,
           unsigned int keyBits, const unsigned char* iv, Direction direction) {
    if (data == nullptr || key == nullptr || len == 0 || len > INT_MAX - kBlockBytes)
        return KT_ARGUMENT;
    const unsigned int total = (len + kBlockBytes - 1) / kBlockBytes * kBlockBytes;
    const EVP_CIPHER* cipher = FindCipher(keyBits, iv != nullptr);
    unsigned char keyCopy[kMostKeyBytes];
    // Growing moves what lies in out's own buffer.
    if (cipher != nullptr)
        std::memcpy(keyCopy, key, keyBits / 8);
    const bool own = KTLiesIn(out, data);
    const std::size_t offset = own ? data - reinterpret_cast<unsigned char*>(out.GetBuffer()) : 0;
    bool done = true;
    // Callers go by the count alone: a string that cannot grow gets nothing and still counts.
    if (out.AllocBuffer(total) > 0) {
        unsigned char* buffer = reinterpret_cast<unsigned char*>(out.GetBuffer());
        unsigned char* dst = buffer + out.GetLength();
        if (cipher == nullptr)
            std::memset(dst, 0, total);
        else
            done =
                Transform(dst, own ? buffer + offset : data, len, cipher, keyCopy, iv, direction);
        if (done)
            out.Add(static_cast<int>(total));
        else
            *dst = 0;
    }
    OPENSSL_cleanse(keyCopy, sizeof(keyCopy));
    return done ? static_cast<int>(total) : KT_NO_MEMORY;
}

int AppendChained(CKTString& out, const unsigned char* data, unsigned int len,
                  const unsigned char* key, unsigned int keyBits, char ivByte,
                  Direction direction) {
    unsigned char iv[kBlockBytes];
    std::memset(iv, ivByte, sizeof(iv));
    return Append(out, data, len, key, keyBits, iv, direction);
}

int AppendByText(CKTString& out, const unsigned char* data, unsigned int len, const char* keyText,
                 int keyTextLen, unsigned int keyBits, Direction direction) {
    if (data == nullptr || keyText == nullptr || len == 0)
        return KT_ARGUMENT;
    if (FindCipher(keyBits, false) == nullptr)
        return KT_UNSUPPORTED;
    const unsigned char* text = reinterpret_cast<const unsigned char*>(keyText);
    const unsigned int textLen =
        static_cast<unsigned int>(keyTextLen < 1 ? std::strlen(keyText) : keyTextLen);
    char key[kMostKeyBytes + 1];
    // The longer keys are the digest's text, of which 192 bits take a part.
    if (keyBits == 128)
        KTMD5Encode(text, textLen, reinterpret_cast<unsigned char*>(key));
    else
        KTMD5Data(text, textLen, key);
    const int result =
        Append(out, data, len, reinterpret_cast<unsigned char*>(key), keyBits, nullptr, direction);
    OPENSSL_cleanse(key, sizeof(key));
    return result;
}

}  // namespace

int KTAESEncrypt(CKTString& out, const unsigned char* data, unsigned int len,
                 const unsigned char* key, unsigned int keyBits) {
    return Append(out, data, len, key, keyBits, nullptr, Direction::Encrypt);
}

int KTAESDecrypt(CKTString& out, const unsigned char* data, unsigned int len,
                 const unsigned char* key, unsigned int keyBits) {
    return Append(out, data, len, key, keyBits, nullptr, Direction::Decrypt);
}

int KTAESEncryptCBC(CKTString& out, const unsigned char* data, unsigned int len,
                    const unsigned char* key, unsigned int keyBits, char ivByte) {
    return AppendChained(out, data, len, key, keyBits, ivByte, Direction::Encrypt);
}

int KTAESDecryptCBC(CKTString& out, const unsigned char* data, unsigned int len,
                    const unsigned char* key, unsigned int keyBits, char ivByte) {
    return AppendChained(out, data, len, key, keyBits, ivByte, Direction::Decrypt);
}

int KTAESEncryptMD5(CKTString& out, const unsigned char* data, unsigned int len,
                    const char* keyText, int keyTextLen, unsigned int keyBits) {
    return AppendByText(out, data, len, keyText, keyTextLen, keyBits, Direction::Encrypt);
}

int KTAESDecryptMD5(CKTString& out, const unsigned char* data, unsigned int len,
                    const char* keyText, int keyTextLen, unsigned int keyBits) {
    return AppendByText(out, data, len, keyText, keyTextLen, keyBits, Direction::Decrypt);
}
