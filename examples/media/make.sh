#!/bin/sh
# Makes the sample streams beside this script from synthetic pictures and tones. Needs ffmpeg with
# libx264 and libx265, and python3. The files are kept in the repository: tests and tools read them
# without ffmpeg. The encoders' raw output is kept as it is, three-byte start codes included; only
# the file named four-byte is rewritten.
set -eu
cd "$(dirname "$0")"

# -bitexact and one thread: the same versions of the tools make the same bytes again.
encode() {
    source=$1
    output=$2
    shift 2
    ffmpeg -hide_banner -loglevel error -y -f lavfi -i "$source" -threads 1 -bitexact "$@" "$output"
}

# A key frame every second, as a camera sends it.
encode testsrc2=size=640x360:rate=15:duration=10 h264-main-640x360.h264 \
    -c:v libx264 -profile:v main -pix_fmt yuv420p -b:v 150k -g 15 -keyint_min 15 -sc_threshold 0

# 68 macroblock rows, the last one cropped to half.
encode testsrc2=size=1920x1080:rate=25 h264-high-1920x1080.h264 -frames:v 6 \
    -c:v libx264 -profile:v high -pix_fmt yuv420p -crf 36

# Fields: the picture height counts in pairs of macroblock rows, cropping in four lines.
encode testsrc2=size=1440x1080:rate=25 h264-interlaced-1440x1080.h264 -frames:v 6 \
    -c:v libx264 -profile:v high -pix_fmt yuv420p -crf 36 -flags +ildct+ilme -x264-params tff=1

# 4:2:2 crops in single lines, so the height may be odd.
encode testsrc2=size=640x360:rate=25,format=yuv422p,crop=630:355:exact=1 h264-422-630x355.h264 \
    -frames:v 12 -c:v libx264 -profile:v high422 -pix_fmt yuv422p -crf 34

encode testsrc2=size=1280x720:rate=25:duration=10 h265-main-1280x720.h265 \
    -c:v libx265 -profile:v main -pix_fmt yuv420p -b:v 200k \
    -x265-params keyint=50:min-keyint=50:scenecut=0:pools=none:frame-threads=1:log-level=error

# No multiple of 8 in either direction: the coded picture is larger than the conformance window.
encode testsrc2=size=854x482:rate=25 h265-main10-854x482.h265 -frames:v 12 \
    -c:v libx265 -profile:v main10 -pix_fmt yuv420p10le -crf 36 \
    -x265-params pools=none:frame-threads=1:log-level=error

# 16-bit little-endian mono at 8 kHz: a tone sweeping from 300 to 1300 Hz, fading in and out.
encode "aevalsrc=exprs='0.5*sin(2*PI*(300+100*t)*t)*sin(PI*t/5)':sample_rate=8000:duration=5" \
    audio-8000-mono-s16le.pcm -f s16le -c:a pcm_s16le

# Each unit behind a code of four bytes, its trailing zero bytes left out.
python3 - h264-main-640x360.h264 h264-main-640x360-four-byte.h264 <<'END'
import re
import sys

with open(sys.argv[1], "rb") as stream:
    units = re.split(rb"\x00{2,}\x01", stream.read())[1:]
with open(sys.argv[2], "wb") as stream:
    stream.write(b"".join(b"\x00\x00\x00\x01" + unit.rstrip(b"\x00") for unit in units if unit))
END
