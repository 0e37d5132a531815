#!/bin/sh
# Prints what KTFrameTest.cpp carries of pictures made by ffmpeg (Debian: ffmpeg), from the first
# picture of a sample stream scaled to 7 x 5: it and its left upper 6 x 4 in YV12, and the number of
# bytes that the latter and a line of it have in other formats.
set -eu
cd "$(dirname "$0")"

# picture PIXELFORMAT FILTERS
picture() {
    ffmpeg -hide_banner -loglevel error -bitexact -i ../../examples/media/h264-main-640x360.h264 \
        -frames:v 1 -vf "scale=7:5:flags=area+accurate_rnd+bitexact,format=yuv420p,$2" \
        -pix_fmt "$1" -f rawvideo -
}

# ffmpeg has no name for YV12: its planar format with U and V exchanged.
for filters in shuffleplanes=0:2:1 crop=6:4:0:0,shuffleplanes=0:2:1; do
    picture yuv420p $filters | od -An -v -tx1 | tr -d ' \n'
    echo
done
for format in rgb24 rgb32 uyvy422; do
    echo $format "$(picture $format crop=6:4:0:0 | wc -c)" \
        "$(picture $format "crop=6:4:0:0,format=$format,crop=6:1:0:2:exact=1" | wc -c)"
done
