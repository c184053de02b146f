# SPDX-License-Identifier: MIT
# Installs the build tree into PREFIX and builds and runs the consumer project against it.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "Command failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    message(STATUS "${out}")
endfunction()

file(REMOVE_RECURSE "${PREFIX}" "${CONSUMER_BUILD}")
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${PREFIX}")
# The umbrella header must be where the package says.
if(NOT EXISTS "${PREFIX}/include/gui_helpers/gui_helpers.h")
    message(FATAL_ERROR "umbrella header not installed")
endif()
run(${CMAKE_COMMAND} -S "${CONSUMER_SOURCE}" -B "${CONSUMER_BUILD}" -G "${GENERATOR}"
    "-DCMAKE_PREFIX_PATH=${PREFIX}" -DCMAKE_BUILD_TYPE=Release
    # A sanitizer build's libraries need their runtime linked into the host as well.
    "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build "${CONSUMER_BUILD}")
run("${CONSUMER_BUILD}/consumer")
