# cmake -D GDB=... -D PRINTERS=... -D PROGRAM=... -P check.cmake
# Each line: what gdb is asked to print, and what it must answer.
set(cases
    "text"           [["a \"text\""]]
    "reference"      [["a \"text\""]]
    "bytes"          [["a\000b"]]
    "none"           [[""]]
    "list"           [[CKTList of 2 = {0x10, 0x20}]]
    "queue"          [[CKTQueue of 2, at most 5 = {0x10, 0x20}]]
    "numbers"        [[CKTListT<int> of 3 = {7, 8, 9}]]
    "time"           [[2024/02/28 23:59:59.007]]
    "noTime"         [[null time]]
    "v4"             [[127.0.0.1:554]]
    "v6"             [=[[2001:db8::1]:80]=]
    "noAddress"      [[empty address]]
    "*packet"        "CPacket, count 1, buffer of 2048 bytes: codec 2, type 1, payload 1000 bytes, \
2024/02/28 23:59:59.007, 640x360, 12.5 fps"
    "*noBuffer"      [[CPacket, count 1, buffer of 0 bytes]]
    "packets"        "CKTPacketList of 1 = {0x")
set(expected ${cases})
set(commands)
while(cases)
    list(POP_FRONT cases expression text)
    list(APPEND commands -ex "print ${expression}")
endwhile()
execute_process(COMMAND ${GDB} -nx -batch -iex "set debuginfod enabled off"
    -ex "source ${PRINTERS}" -ex "break Stop" -ex run -ex up ${commands} ${PROGRAM}
    OUTPUT_VARIABLE output ERROR_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
set(number 0)
while(expected)
    list(POP_FRONT expected expression text)
    math(EXPR number "${number} + 1")
    string(FIND "${output}" "\n$${number} = ${text}" at)
    if(at EQUAL -1)
        message(SEND_ERROR "${expression} is not shown as ${text} in\n${output}")
    endif()
endwhile()
