# SPDX-License-Identifier: MIT
#
# gui_helpers_add_tests(<file.cpp>... LINK_LIBRARIES <libs>... [ENVIRONMENT <VAR=value>...]
#                       [TIMEOUT <seconds>] [LABELS <labels>...])
#
# One executable per test file, named after the file, registered with CTest. Every test
# runs on the offscreen platform so widget tests need no display.
function(gui_helpers_add_tests)
    cmake_parse_arguments(ARG "" "TIMEOUT" "LINK_LIBRARIES;ENVIRONMENT;LABELS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    foreach(_file IN LISTS ARG_UNPARSED_ARGUMENTS)
        get_filename_component(_name "${_file}" NAME_WE)
        add_executable(${_name} "${_file}")
        target_link_libraries(${_name} PRIVATE Qt5::Test ${ARG_LINK_LIBRARIES})
        add_test(NAME ${_name} COMMAND ${_name})
        set_tests_properties(${_name} PROPERTIES
            TIMEOUT ${ARG_TIMEOUT}
            ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_LOGGING_RULES=qt.qpa.*=false;${ARG_ENVIRONMENT}")
        if(ARG_LABELS)
            set_tests_properties(${_name} PROPERTIES LABELS "${ARG_LABELS}")
        endif()
    endforeach()
endfunction()
