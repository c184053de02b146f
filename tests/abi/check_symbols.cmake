# SPDX-License-Identifier: MIT
# Compares the dynamic symbols that the installed libraries define with the committed
# lists next to this script, so that an accidental export, or a dropped one, fails.
#
#   cmake -DPREFIX=<install prefix> [-DLIBDIR=lib] [-DUPDATE=ON] -P tests/abi/check_symbols.cmake
#
# UPDATE=ON rewrites the lists from the installed libraries instead: a deliberate change of
# the interface, reviewed in the diff. Instances of standard-library templates (weak
# symbols the compiler emits for our types) are left out: they follow the compiler, not us.
if(NOT LIBDIR)
    set(LIBDIR lib)
endif()
set(failed "")
foreach(library gui_helpers vxcommon vxtypes)
    execute_process(COMMAND nm -D --defined-only "${PREFIX}/${LIBDIR}/lib${library}.so"
        RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "nm failed on lib${library}.so: ${err}")
    endif()
    string(REPLACE "\n" ";" lines "${out}")
    set(names "")
    foreach(line IN LISTS lines)
        if(line MATCHES "^[0-9a-f]* +[A-Za-z] +(.+)$")
            set(name "${CMAKE_MATCH_1}")
            if(NOT name MATCHES "^_Z(TV|TI|TS|GV|Z)*N?K?(St|9__gnu_cxx)")
                list(APPEND names "${name}")
            endif()
        endif()
    endforeach()
    string(REPLACE ";" "\n" names "${names}")
    set(mangled "${CMAKE_CURRENT_BINARY_DIR}/${library}.mangled")
    file(WRITE "${mangled}" "${names}\n")
    execute_process(COMMAND c++filt INPUT_FILE "${mangled}"
        COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C sort -u
        OUTPUT_VARIABLE actual)
    file(REMOVE "${mangled}")

    set(listed "${CMAKE_CURRENT_LIST_DIR}/${library}.symbols")
    if(UPDATE)
        file(WRITE "${listed}" "${actual}")
        message(STATUS "wrote ${listed}")
        continue()
    endif()
    file(READ "${listed}" expected)
    if(NOT actual STREQUAL expected)
        set(actual_file "${CMAKE_CURRENT_BINARY_DIR}/${library}.symbols.actual")
        file(WRITE "${actual_file}" "${actual}")
        execute_process(COMMAND diff -u "${listed}" "${actual_file}" OUTPUT_VARIABLE diff)
        string(APPEND failed "lib${library}.so exports other symbols than listed:\n${diff}\n")
    endif()
endforeach()
if(failed)
    message(FATAL_ERROR "${failed}If the change is meant, run this script with -DUPDATE=ON and commit the lists.")
endif()
