// Audio sample codecs: 16-bit linear PCM to and from ITU-T G.711 (A-law, u-law) and G.726 ADPCM.
#ifndef KTBASE_KTCODEC_H
#define KTBASE_KTCODEC_H

#include "KTBase/KTDefs.h"

// ---- G.711 ----
// PCMA is A-law, PCMU u-law. n counts samples, which is bytes on the G.711 side; out has room for
// as many. Each call returns n as it was given, converting nothing below 1; with a null buffer it
// converts nothing and returns 0. Stateless: any thread.

KTBASE_API int DecodeAudioPCMU(const unsigned char* in, int n, short* out);
KTBASE_API int DecodeAudioPCMA(const unsigned char* in, int n, short* out);
KTBASE_API int EncodeAudioPCMU(const short* in, int n, unsigned char* out);
KTBASE_API int EncodeAudioPCMA(const short* in, int n, unsigned char* out);
/// From law to law by the correspondence tables of G.711: closer than by way of linear samples.
/// out may be in.
KTBASE_API int ConvertPCMA2PCMU(const unsigned char* in, int n, unsigned char* out);
KTBASE_API int ConvertPCMU2PCMA(const unsigned char* in, int n, unsigned char* out);

// ---- G.726 ----

/// One direction of one G.726 stream. The caller's: set up by InitializeG726, used by one thread at
/// a time, dropped without a call. The adaptive fields carry the names of the recommendation.
struct tag_KTG726STATE {
    int rate;  // bit/s: 16000, 24000, 32000 or 40000
    int bits;  // of a code: 2, 3, 4 or 5
    int yl;
    short yu, dms, dml, ap;
    short a[2], b[6];
    short pk[2];
    short dq[6], sr[2];  // newest first; exponent << 6 | mantissa, less 0x400 when negative
    signed char td;
    unsigned int accumulator;  // the lowest `held` bits wait for the next call
    int held;
    unsigned char (*encode)(tag_KTG726STATE* state, short linear);  // 14-bit sample to code
    short (*decode)(tag_KTG726STATE* state, unsigned char code);    // code to 14-bit sample
};

/// Starts a stream. rate: 16000, 24000, 32000 or 40000 bit/s at 8000 samples a second.
/// Returns 0, or KT_ERROR (-1) for a null state or another rate: the state then is untouched.
KTBASE_API int InitializeG726(tag_KTG726STATE* state, int rate);
/// Encodes n samples into codes packed from the highest bit of each byte on. Bits that do not fill
/// a byte wait in the state for the next call; nothing flushes them. Any n may be passed at a time.
/// out has room for (n x bits + 7) / 8 bytes. Returns the bytes written, 0 for a null and for a
/// state that was not initialised.
KTBASE_API int EncodeG726(tag_KTG726STATE* state, unsigned char* out, const short* in, int n);
/// Decodes n bytes; the bits left over wait in the state. out has room for (n x 8 + 7) / bits
/// samples. Returns the samples written, 0 for a null, for a state that was not initialised, and
/// for 512 MB and more, whose samples an int cannot count at every rate.
KTBASE_API int DecodeG726(tag_KTG726STATE* state, short* out, const unsigned char* in, int n);

#endif
