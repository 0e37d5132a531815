#include "KTBase/KTZoom.h"

#include <algorithm>

namespace {

int Distance(int from, int to) {
    return static_cast<int>(static_cast<unsigned int>(to) - static_cast<unsigned int>(from));
}

int Fraction(int coordinate, int size) {
    return static_cast<int>(static_cast<unsigned int>(coordinate) << 16) / size;
}

int Part(int size, int fraction) {
    const unsigned int product =
        static_cast<unsigned int>(size) * static_cast<unsigned int>(fraction);
    return static_cast<int>(product) >> 16;
}

}  // namespace

int KTZoomCalcuZoom(tag_KTRECT* zoom, const tag_KTRECT* frame, const tag_KTPOINT* a,
                    const tag_KTPOINT* b) {
    if (zoom == nullptr)
        return KT_ERROR;
    tag_KTRECT result = {};
    int code = KT_ERROR;
    if (frame != nullptr && a != nullptr && b != nullptr) {
        const int width = Distance(frame->left, frame->right);
        const int height = Distance(frame->top, frame->bottom);
        if (width >= 1 && height >= 1) {
            const int ax = Fraction(a->x, width), bx = Fraction(b->x, width);
            const int ay = Fraction(a->y, height), by = Fraction(b->y, height);
            result = {std::min(ax, bx), std::min(ay, by), std::max(ax, bx), std::max(ay, by)};
            code = KT_OK;
        }
    }
    *zoom = result;  // last: it may be an input
    return code;
}

int KTZoomCalcuRect(tag_KTRECT* out, const tag_KTRECT* frame, const tag_KTRECT* zoom) {
    if (out == nullptr)
        return KT_ERROR;
    tag_KTRECT result = {};
    int code = KT_ERROR;
    if (frame != nullptr && zoom != nullptr) {
        const int width = Distance(frame->left, frame->right);
        const int height = Distance(frame->top, frame->bottom);
        if (width >= 1 && height >= 1) {
            result = {Part(width, zoom->left), Part(height, zoom->top), Part(width, zoom->right),
                      Part(height, zoom->bottom)};
            code = KT_OK;
        }
    }
    *out = result;
    return code;
}
