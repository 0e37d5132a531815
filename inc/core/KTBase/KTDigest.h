// Encodings and digests: Base64, MD5, SHA, HMAC, AES, text keys, PackBits.
#ifndef KTBASE_KTDIGEST_H
#define KTBASE_KTDIGEST_H

#include "KTBase/KTDefs.h"

class CKTString;

// Base64 as in RFC 4648, section 4: standard alphabet, '=' padding, no line breaks.
//
// The decoders accept more than the RFC allows, because texts that deployed systems have stored are
// read back with these rules:
// - a byte outside the alphabet counts as 'A' (zero bits) and is no error;
// - the text is taken in groups of four characters, and an incomplete last group is ignored;
// - a group gives its first byte always, its second unless the third character is '=', its third
//   unless the fourth is '='; a '=' anywhere in a group makes it the last one;
// - bits left over in front of a '=' need not be zero.
//
// Results that these calls allocate come from ZMKMalloc; the caller frees them with ZMKFree. On
// failure nothing is written. All but the string forms may be called from any thread.

/// Encodes len bytes into a new NUL-terminated text. outLen may be null. Returns 1, or 0 for a null,
/// for len 0, and when memory is out or the length passes 32 bits.
KTBASE_API int KTBASE64Encode(char** out, unsigned int* outLen, const unsigned char* data,
                              unsigned int len);
/// Decodes text into a new buffer, NUL-terminated behind its outLen bytes. With trimZeros the zero
/// bytes at the end are not counted. Returns 1, or 0 for a null and when memory is out.
KTBASE_API int KTBASE64Decode(unsigned char** out, unsigned int* outLen, const char* text,
                              unsigned int trimZeros);
/// Decodes into the caller's buffer, which must hold 3 bytes for every 4 characters and 1 more, and
/// terminates it. dst may be text itself. Returns the length, or -1 for a null.
KTBASE_API int KTBASE64DecodeExt(unsigned char* dst, const char* text, int trimZeros);
/// Decodes and stores at most dstSize bytes, without a terminator. Returns the bytes stored, or -1.
KTBASE_API int KTBASE64DecodeExt2(unsigned char* dst, unsigned int dstSize, const char* text,
                                  unsigned int trimZeros);
/// Appends the encoding to out. Returns 1 or 0 as KTBASE64Encode, 0 also when out cannot grow.
KTBASE_API int KTBASE64EncodeSTR(CKTString& out, const unsigned char* data, unsigned int len);
/// Appends what text decodes to, always without the zero bytes at its end. The third argument is
/// not used. Returns 1, or 0 for a null and when memory is out or out cannot grow.
KTBASE_API int KTBASE64DecodeSTR(CKTString& out, const char* text, unsigned int);

// Digests. Any thread. None of them needs memory.

/// MD5 as in RFC 1321. Returns 1, or 0 for null data or out.
KTBASE_API int KTMD5Encode(const unsigned char* data, unsigned int len, unsigned char* out16);
/// The same as 32 lower-case hexadecimal characters and a NUL. Returns out33, or null for a null.
KTBASE_API char* KTMD5Data(const unsigned char* data, unsigned int len, char* out33);

/// SHA-1 with a padding of its own: no block is ever added for it, so that 0x80 and the length in
/// bits (32 bits, big-endian, in the last block's last four bytes) go over what is there. For len
/// mod 64 below 56 that is SHA-1 as in RFC 3174; from 56 on it is not; from 60 on the length covers
/// the message's last bytes, which then do not count. Deployed keys and signatures depend on it.
/// Null data or a negative len count as an empty message. Returns 1, or 0 for null out.
KTBASE_API int KTSHA1(const unsigned char* data, int len, unsigned char* out20);
/// SHA-256 as in FIPS 180-4. Returns 1, or 0 for a null or len below 1.
KTBASE_API int KTSHA256(const unsigned char* data, int len, unsigned char* out32);
/// HMAC as in RFC 2104 over KTSHA1, so it is the standard's where the inner hash (64 bytes and the
/// message) is. A longer key than 64 bytes is replaced by its KTSHA1. Null data or a negative
/// length count as empty. Returns 1, or 0 for null key or out.
KTBASE_API int KTHMAC_SHA1(const void* data, int dataLen, const unsigned char* key, int keyLen,
                           unsigned char* out20);

// AES. Each call appends whole blocks of 16 bytes to out: the last, incomplete one is filled up with
// zeroes, and a len that is a multiple of 16 gets none more. Decrypting leaves the zeroes there.
// keyBits is 128, 192 or 256; the key has keyBits / 8 bytes. data and key may lie in out's own
// buffer. The calls return the bytes produced, len rounded up to 16, also when out cannot grow and
// nothing was appended; -4 for null data or key, len 0 or above 0x7FFFFFEF; -6 when memory is out.
// A keyBits that AES does not have appends zeroes in the blocks' place and counts them.

KTBASE_API int KTAESEncrypt(CKTString& out, const unsigned char* data, unsigned int len,
                            const unsigned char* key, unsigned int keyBits);  ///< ECB
KTBASE_API int KTAESDecrypt(CKTString& out, const unsigned char* data, unsigned int len,
                            const unsigned char* key, unsigned int keyBits);
/// CBC, the initial vector being ivByte 16 times.
KTBASE_API int KTAESEncryptCBC(CKTString& out, const unsigned char* data, unsigned int len,
                               const unsigned char* key, unsigned int keyBits, char ivByte);
KTBASE_API int KTAESDecryptCBC(CKTString& out, const unsigned char* data, unsigned int len,
                               const unsigned char* key, unsigned int keyBits, char ivByte);
/// ECB with a key made of keyText (keyTextLen below 1: up to its NUL): its 16-byte MD5 digest, or
/// for 192 and 256 bits the first 24 or all 32 characters of KTMD5Data. Returns also -10 for
/// another keyBits.
KTBASE_API int KTAESEncryptMD5(CKTString& out, const unsigned char* data, unsigned int len,
                               const char* keyText, int keyTextLen, unsigned int keyBits);
KTBASE_API int KTAESDecryptMD5(CKTString& out, const unsigned char* data, unsigned int len,
                               const char* keyText, int keyTextLen, unsigned int keyBits);

/// Appends a text key: 28 characters, the Base64 form of the text's KTHMAC_SHA1 by key and of one
/// zero byte behind it. A null key means the library's own. False for null text alone.
KTBASE_API bool KTCreateTextKey(CKTString& out, const char* text, const char* key);

// PackBits: groups of a count byte and data. A count of 0 to 127 stands in front of count + 1 bytes
// as they are, 129 to 255 in front of one byte that counts 257 - count times; 128 means nothing.
// Any thread.

/// Encodes len bytes; only runs of 3 bytes and more become run groups. dst holds the worst case, len
/// + ceil(len / 128). Returns the encoded size; 0 for a null, len below 1 or above 0x7F01FC00.
KTBASE_API int KTPackbits(const unsigned char* src, unsigned char* dst, int len);
/// Decodes into at most dstSize bytes. Returns the bytes written, 0 for a null. A last byte alone is
/// ignored. What does not fit is cut off, and decoding goes on; a group longer than what is left of
/// src ends it. Each of these is told on standard output, whatever the debug output's filters.
KTBASE_API int KTUnpackbits(const unsigned char* src, int srcLen, unsigned char* dst, int dstSize);

#endif
