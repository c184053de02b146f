# SPDX-License-Identifier: MIT
#
# cmake -DSOURCE_DIR=<repository> -P tlsverificationkept.cmake
#
# Fails when any C++ source of the libraries, the tools or the examples (their tests
# included) accepts certificate errors by list, or turns peer verification off or down to a
# query. Clients keep the toolkit's verification; the reference server does not ask for
# client certificates and so needs neither. The one call allowed is ignoreSslErrors()
# without arguments, made after every listed error has closed the socket.
if(NOT SOURCE_DIR)
    message(FATAL_ERROR "SOURCE_DIR is not set")
endif()

set(_patterns
    "ignoreSslErrors[ \t]*\\([ \t]*[^) \t]"
    "VerifyNone"
    "QueryPeer")
set(_found "")
set(_count 0)
foreach(_area gui_helpers vxcommon tools examples)
    file(GLOB_RECURSE _files "${SOURCE_DIR}/${_area}/*.cpp" "${SOURCE_DIR}/${_area}/*.h" "${SOURCE_DIR}/${_area}/*.c")
    foreach(_file IN LISTS _files)
        math(EXPR _count "${_count} + 1")
        foreach(_pattern IN LISTS _patterns)
            file(STRINGS "${_file}" _lines REGEX "${_pattern}")
            foreach(_line IN LISTS _lines)
                file(RELATIVE_PATH _relative "${SOURCE_DIR}" "${_file}")
                string(STRIP "${_line}" _line)
                string(APPEND _found "  ${_relative}: ${_line}\n")
            endforeach()
        endforeach()
    endforeach()
endforeach()

if(_count EQUAL 0)
    message(FATAL_ERROR "no sources found under ${SOURCE_DIR}")
endif()
if(_found)
    message(FATAL_ERROR "TLS verification weakened:\n${_found}")
endif()
message(STATUS "${_count} sources keep TLS verification")
