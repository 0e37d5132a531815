# Runs ktinspect on the samples and on what is no stream, and looks for the lines that must appear.
# PROGRAM: the command; MEDIA: the samples' folder; WORK: where files may be made.

# inspect(CODE ARGUMENTS LINE...): each LINE must stand in the output as it is.
function(inspect code arguments)
    execute_process(COMMAND ${PROGRAM} ${arguments}
        RESULT_VARIABLE result OUTPUT_VARIABLE text ERROR_VARIABLE errors)
    if(NOT result STREQUAL code)
        message(SEND_ERROR "${arguments}: exit code ${result}, not ${code}\n${text}${errors}")
    endif()
    string(REPLACE "\r" "" text "\n${text}${errors}")
    foreach(line ${ARGN})
        string(FIND "${text}" "${line}\n" at)
        if(at EQUAL -1)
            message(SEND_ERROR "${arguments}: no line ends in '${line}' in\n${text}")
        endif()
    endforeach()
endfunction()

# Sizes, profiles, frames and key frames: ffprobe 5.1.9 -count_frames -show_entries
# stream=width,height,coded_width,coded_height,profile,level,nb_read_frames and packet=flags.
# Reference frames and media heads: worked out from ffmpeg's trace_headers. Offsets: grep -obUaP.
set(main "profile           Main (77)" "level             2.2" "reference frames  4"
    "coded size        640x368" "display size      640x360" "Frames: 150, key frames: 10"
    "CKTH264Head, codec 1, 640x360, valid, 36 bytes of parameter sets")
inspect(0 ${MEDIA}/h264-main-640x360.h264 ${main}
    "     3        740      3920     3   5 Coded slice of an IDR picture                     0  key"
    "... 139 more units follow: --all lists them")
inspect(0 "--all;${MEDIA}/h264-main-640x360-four-byte.h264" ${main}
    "   170     196802       888     4   1 Coded slice of a non-IDR picture                149")
inspect(0 ${MEDIA}/h264-high-1920x1080.h264 "profile           High (100)"
    "level             4.0" "coded size        1920x1088" "display size      1920x1080"
    "Frames: 6, key frames: 1")
inspect(0 ${MEDIA}/h264-interlaced-1440x1080.h264 "coded size        1440x1088"
    "display size      1440x1080" "media head        1440x536" "Frames: 6, key frames: 1")
inspect(0 ${MEDIA}/h264-422-630x355.h264 "profile           High 4:2:2 (122)"
    "level             3.0" "display size      630x355" "media head        630x342"
    "Frames: 12, key frames: 1")
inspect(0 ${MEDIA}/h265-main-1280x720.h265 "profile           Main (1)"
    "level             3.1, Main tier" "display size      1280x720" "reference frames  4"
    "Frames: 250, key frames: 5" "CKTH265Head, codec 2, 1280x720, valid, 86 bytes of parameter sets")
inspect(0 ${MEDIA}/h265-main10-854x482.h265 "profile           Main 10 (2)"
    "level             3.0, Main tier" "coded size        856x488" "display size      854x482"
    "     4       2392      5516     3  20 IDR_N_LP                                          0  key"
    "Frames: 12, key frames: 1")

file(WRITE ${WORK}/empty.h264 "")
inspect(1 ${WORK}/empty.h264 "empty.h264: the file is empty")
inspect(1 ${WORK}/missing.h264 "missing.h264: No such file or directory")
inspect(1 ${CMAKE_CURRENT_LIST_FILE}
    "no H.264 or H.265 byte stream: it does not begin with a start code")
# Samples of 0, 0 and 1 look like a start code.
inspect(1 ${MEDIA}/audio-8000-mono-s16le.pcm
    "no H.264 or H.265 byte stream: it holds no sequence parameter set")
inspect(0 --help "Usage: ktinspect [--all] FILE")
inspect(2 "" "ktinspect --help says more.")
inspect(2 "one;two" "ktinspect --help says more.")
inspect(2 "--al;${MEDIA}/h264-422-630x355.h264" "ktinspect --help says more.")
