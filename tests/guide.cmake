# cmake -D GUIDE=... -D SAMPLE=... [-D PROGRAM=...] -P guide.cmake
# The guide shows the sample as it is, and what it prints. PROGRAM: the command, unless the sample
# does not end by itself.
file(READ ${GUIDE} guide)

function(expect text)
    string(FIND "${guide}" "${text}" at)
    if(at EQUAL -1)
        message(SEND_ERROR "${GUIDE} does not have:\n${text}")
    endif()
endfunction()

file(READ ${SAMPLE} code)
expect("```cpp\n${code}```\n")
if(PROGRAM)
    execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE "\r" "" output "${output}")
    # The guide has no colours, and one time for all.
    string(ASCII 27 escape)
    string(REGEX REPLACE "${escape}.[0-9;]*m" "" output "${output}")
    string(REGEX REPLACE "[0-9:]+\\.[0-9][0-9][0-9]]" "10:11:12.013]" output "${output}")
    expect("```text\n${output}```\n")
endif()
