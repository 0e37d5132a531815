#!/bin/sh
# Prints the checksums that KTCodecTest.cpp carries, computed by spandsp (Debian: libspandsp-dev).
set -e
cd "$(dirname "$0")"
program=$(mktemp)
trap 'rm -f "$program"' EXIT
${CXX:-g++} -std=c++17 -O1 -Wall -o "$program" checksums.cpp -lspandsp
"$program"
