// Encodings: Base64.
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

#endif
