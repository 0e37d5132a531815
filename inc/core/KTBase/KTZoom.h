// Digital zoom: a region of a picture as fractions of it, and back onto a picture of any size.
#ifndef KTBASE_KTZOOM_H
#define KTBASE_KTZOOM_H

#include "KTBase/KTDefs.h"

/// In pixels, or, as a zoom, in fractions of a whole width and height: 65536 stands for 1.
struct tag_KTRECT {
    int left, top, right, bottom;
};

struct tag_KTPOINT {
    int x, y;
};

// Both calls count in 32 bits and let them wrap: coordinates of 32768 and more, and frames wider or
// higher than 32767, give results that are wrong but the same everywhere. The frame counts by its
// size alone; its left and top are neither subtracted nor added. The output may be an input.
// Returns 0, or KT_ERROR (-1) for a null and for a frame without width or height: the output then
// is all 0. Any thread.

/// zoom: the region between corners a and b, in either order, as fractions of frame.
KTBASE_API int KTZoomCalcuZoom(tag_KTRECT* zoom, const tag_KTRECT* frame, const tag_KTPOINT* a,
                               const tag_KTPOINT* b);
/// out: the region that zoom takes of frame.
KTBASE_API int KTZoomCalcuRect(tag_KTRECT* out, const tag_KTRECT* frame, const tag_KTRECT* zoom);

#endif
