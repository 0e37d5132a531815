# cmake -D NM=... -D LIBRARY=... -P exports.cmake
# The library exports our own names only, and runs nothing by itself when it is loaded or unloaded.
# On Windows LIBRARY is the import library.
set(names "(CKT|IKT|KT|ZMK|CPacket|CHTTPParser|DBG_|H26|tag_|IKWFile|KWFile|(En|De)codeAudioPCM|ConvertPCM|(Initialize|Encode|Decode)G726)")
set(ours "^(_Z(T[VIS]|Th[n0-9]+_|Tv[n0-9_]+_)?(N[VKRO]*)?[0-9]*${names}|gettimeofday$)")

# symbols(OUT OPTION...): lines "TYPE NAME" of nm.
function(symbols out)
    execute_process(COMMAND ${NM} ${ARGN} --format=posix ${LIBRARY}
        OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCHALL "[^\n]+" lines "${listing}")
    list(TRANSFORM lines REPLACE "^([^ ]+) (.).*" "\\2 \\1")
    set(${out} "${lines}" PARENT_SCOPE)
endfunction()

if(LIBRARY MATCHES "\\.dll\\.a$")
    symbols(exports --extern-only --defined-only)
    list(FILTER exports INCLUDE REGEX " __imp_")
    list(TRANSFORM exports REPLACE " __imp_" " ")
else()
    symbols(exports --dynamic --defined-only)
    symbols(all)
    if(NOT all MATCHES "KTLibraryGet")
        message(SEND_ERROR "the library has no symbol table to look into")
    endif()
    list(FILTER all INCLUDE REGEX " _GLOBAL__(sub_)?[ID]_| __cxa_atexit")
    foreach(symbol ${all})
        message(SEND_ERROR "a global has a constructor or destructor that runs by itself: ${symbol}")
    endforeach()
endif()

if(NOT exports MATCHES "ZMKMalloc")
    message(SEND_ERROR "ZMKMalloc is not exported")
endif()
foreach(symbol ${exports})
    string(SUBSTRING ${symbol} 2 -1 name)
    if(NOT name MATCHES "${ours}")
        message(SEND_ERROR "not a name of ours: ${name}")
    endif()
endforeach()
