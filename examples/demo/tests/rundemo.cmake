# SPDX-License-Identifier: MIT
# Runs the demo as a user on a machine without a display starts it, and checks its exit
# code and what it says.
#   cmake -DDEMO=<program> -DARGS="<arguments>" -DSHOTS=<directory> -DEXIT=<code>
#         [-DOUT=<regex on standard output>] [-DERR=<regex on standard error>] -P rundemo.cmake
# "%shots%" in ARGS stands for SHOTS, emptied first. A usage error (exit code 2) must be one line.
unset(ENV{QT_QPA_PLATFORM}) # the demo must pick the offscreen platform itself
unset(ENV{DISPLAY})
unset(ENV{WAYLAND_DISPLAY})
file(REMOVE_RECURSE "${SHOTS}")
string(REPLACE "%shots%" "${SHOTS}" ARGS "${ARGS}")
separate_arguments(ARGS UNIX_COMMAND "${ARGS}")
execute_process(COMMAND "${DEMO}" ${ARGS} RESULT_VARIABLE exit OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 120)
message("${out}${err}")
if(NOT "${exit}" STREQUAL "${EXIT}")
    message(FATAL_ERROR "exit code ${exit}, expected ${EXIT}")
endif()
if(DEFINED OUT AND NOT out MATCHES "${OUT}")
    message(FATAL_ERROR "standard output does not match: ${OUT}")
endif()
if(DEFINED ERR AND NOT err MATCHES "${ERR}")
    message(FATAL_ERROR "standard error does not match: ${ERR}")
endif()
string(STRIP "${err}" err)
if(EXIT EQUAL 2 AND err MATCHES "\n")
    message(FATAL_ERROR "a usage error takes more than one line")
endif()
