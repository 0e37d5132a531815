// H.264 and H.265 byte streams (Annex B): finding their units, reading sizes out of parameter sets.
#ifndef KTBASE_KTH26X_H
#define KTBASE_KTH26X_H

#include "KTBase/KTDefs.h"

/// Picture size in luma samples.
struct tag_KTSIZES {
    unsigned int width;
    unsigned int height;
};

// Every function here is stateless: any thread, buffers stay the caller's, none is kept. A null
// input buffer fails. Input from anywhere may be passed: nothing past its length is read.

// ---- Four-byte walk ----
// For streams whose units all begin with 00 00 00 01 and whose pictures are frames in 4:2:0: what
// the suite's own devices send, and what the media heads are built on. On other streams the
// results are fixed all the same, since stored heads are compared by them: three-byte start codes
// do not part units, a field-coded picture has half its height, cropping counts in 4:2:0 units.
// The decoders return 1 for success, 0 for failure. Of a set that ends early the outputs that were
// already read are written. An output may be null unless its function says otherwise.

/// Offset of the next start code 00 00 00 01, or -1. buf begins with a unit's own start code: the
/// search starts at offset 5, behind that code and the unit's first byte. -1 as well when len is
/// below 11; a code in the last 5 bytes is not reported.
KTBASE_API int H26XFindNextNal(const unsigned char* buf, unsigned int len);

/// H.264 sequence parameter set without start code and unit header (1 byte).
/// width, height: after cropping. profile: profile_idc | constraint flags << 8 | level_idc << 16.
KTBASE_API int H264DecodeSPS(const unsigned char* body, unsigned int len, unsigned int* width,
                             unsigned int* height, unsigned int* profile);

/// H.264 sequence parameter set with its four-byte start code.
/// coded: whole macroblocks; display: after cropping; both are required. profile as above.
/// refFrames: max_num_ref_frames.
KTBASE_API int H264DecodeResolution(const unsigned char* nal, unsigned int len, tag_KTSIZES* coded,
                                    tag_KTSIZES* display, unsigned int* profile,
                                    unsigned int* refFrames);

/// H.265 sequence parameter set without start code and unit header (2 bytes); fails below 15 bytes.
/// width, height: after cropping. reserved is ignored.
KTBASE_API int H265DecodeSPS(const unsigned char* body, int len, unsigned int* width,
                             unsigned int* height, unsigned int* reserved);

/// H.265 sequence parameter set with its four-byte start code; fails below 21 bytes.
/// coded: before, display: after cropping. reserved is ignored. maxDecPicBuffering: the largest
/// sps_max_dec_pic_buffering_minus1 of the sub-layers described.
KTBASE_API int H265DecodeResolution(const unsigned char* nal, unsigned int len, tag_KTSIZES* coded,
                                    tag_KTSIZES* display, void* reserved,
                                    unsigned int* maxDecPicBuffering);

/// H.265 video parameter set, with or without its four-byte start code, with or without its unit
/// header. Returns the largest vps_max_dec_pic_buffering_minus1, -1 for failure.
KTBASE_API int H265DecodeVPSRefnum(const unsigned char* vps, unsigned int len);

// ---- Standard units and sizes ----
// For streams of any encoder, by ITU-T H.264 and H.265: start codes of three and four bytes, field
// coding, every chroma format, every profile.

/// Next unit whose start code begins at offset from or later. begin: offset of the unit's header,
/// behind the code; length: without the zero bytes that pad it. Empty units are passed over.
/// Returns 1, or 0 at the end of the stream and for null pointers: the outputs then keep their
/// values. A whole stream is walked with from = 0, then from = begin + length.
KTBASE_API int H26XNextUnit(const unsigned char* buf, unsigned int len, unsigned int from,
                            unsigned int* begin, unsigned int* length);

/// Rewrites a stream so that every unit begins with 00 00 00 01, as the four-byte walk wants it.
/// Bytes before the first start code and padding between units are dropped. out, of outSize bytes,
/// must not overlap buf; null only measures (at most len + len / 3).
/// Returns the length of the rewritten stream, KT_ARGUMENT (-4) for a null buf, KT_MALFORMED (-15)
/// when it holds no unit, KT_NO_MEMORY (-6) when outSize is too small: out then holds the stream's
/// first units.
KTBASE_API long long H26XNormalise(const unsigned char* buf, unsigned int len, unsigned char* out,
                                   unsigned int outSize);

/// Sizes from an H.264 sequence parameter set (unit type 7 or 15) as H26XNextUnit finds it: with
/// its header, without start code. coded: whole macroblocks of a frame; display: after cropping.
/// Either may be null. Returns 1, or 0 for another unit, one that ends early and one with a value
/// that the standard rules out: the outputs then keep their values.
KTBASE_API int H264DecodeSize(const unsigned char* unit, unsigned int len, tag_KTSIZES* coded,
                              tag_KTSIZES* display);

/// The same for an H.265 sequence parameter set (unit type 33) of the base layer. display: the
/// conformance window.
KTBASE_API int H265DecodeSize(const unsigned char* unit, unsigned int len, tag_KTSIZES* coded,
                              tag_KTSIZES* display);

#endif
