# SPDX-License-Identifier: MIT
# Builds and starts host applications against the installed package, as application
# developers do, with no LD_LIBRARY_PATH. MODE is one of
#   install     install the build tree into PREFIX and check its run paths
#   cmake       CMake hosts (find_package) against PREFIX
#   qmake       a qmake host (QT += gui_helpers) against PREFIX
#   pkgconfig   a pkg-config host against PREFIX
#   deb         build the Debian packages, check them with lintian, unpack them into a
#               scratch root and build the three kinds of host against that
# WORK is a scratch directory of this mode's own.
cmake_minimum_required(VERSION 3.16)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "Command failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    message(STATUS "${out}${err}")
    set(run_output "${out}" PARENT_SCOPE)
endfunction()

# Starts a host as a user would: nothing on LD_LIBRARY_PATH.
function(start host)
    run(${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH QT_QPA_PLATFORM=offscreen "${host}")
endfunction()

# Every shared library finds its siblings next to itself and every program finds them in
# ../lib; neither names anything of the build or source tree.
function(check_run_paths prefix libdir)
    file(GLOB libraries "${prefix}/${libdir}/lib*.so.*")
    file(GLOB programs "${prefix}/bin/*")
    foreach(file IN LISTS libraries programs)
        if(IS_SYMLINK "${file}")
            continue()
        endif()
        if(file IN_LIST libraries)
            set(expected "$ORIGIN")
        else()
            set(expected "$ORIGIN/../${libdir}")
        endif()
        run(readelf -d "${file}")
        if(NOT run_output MATCHES "Library runpath: \\[([^]]*)\\]" OR NOT CMAKE_MATCH_1 STREQUAL expected)
            message(FATAL_ERROR "${file}: run path '${CMAKE_MATCH_1}', expected '${expected}'")
        endif()
        string(FIND "${run_output}" "${SOURCE_DIR}" leak)
        if(NOT leak EQUAL -1)
            message(FATAL_ERROR "${file} names the source or build tree:\n${run_output}")
        endif()
    endforeach()
endfunction()

function(cmake_hosts prefix work)
    file(REMOVE_RECURSE "${work}")
    run(${CMAKE_COMMAND} -S "${CMAKE_CURRENT_LIST_DIR}" -B "${work}" -G "${GENERATOR}"
        "-DCMAKE_PREFIX_PATH=${prefix}" -DCMAKE_BUILD_TYPE=Release
        # A sanitizer build's libraries need their runtime linked into the host as well.
        "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_LINKER_FLAGS}")
    run(${CMAKE_COMMAND} --build "${work}" -- ${ARGN})
    if(NOT ARGN)
        set(ARGN consumer aboutbox_host tus_host settings_host)
    endif()
    foreach(host IN LISTS ARGN)
        start("${work}/${host}")
    endforeach()
endfunction()

function(qmake_host libdir moduledir work source)
    file(REMOVE_RECURSE "${work}")
    file(MAKE_DIRECTORY "${work}")
    run(${CMAKE_COMMAND} -E env "QMAKEMODULES=${moduledir}"
        "${QMAKE}" "${CMAKE_CURRENT_LIST_DIR}/qmake/host.pro" -o "${work}/Makefile"
        # The host's own choice: find the libraries where they are installed.
        "QMAKE_RPATHDIR+=${libdir}" "QMAKE_LFLAGS+=${CONSUMER_LINKER_FLAGS}" ${source})
    run(make -C "${work}" -s)
    start("${work}/qmake_host")
endfunction()

function(pkgconfig_host libdir work source)
    file(REMOVE_RECURSE "${work}")
    file(MAKE_DIRECTORY "${work}")
    run(${CMAKE_COMMAND} -E env "PKG_CONFIG_PATH=${libdir}/pkgconfig" pkg-config --cflags --libs gui_helpers)
    string(STRIP "${run_output}" flags)
    separate_arguments(flags UNIX_COMMAND "${flags}")
    separate_arguments(linker_flags UNIX_COMMAND "${CONSUMER_LINKER_FLAGS}")
    # Qt 5 wants position-independent hosts.
    run(c++ -std=c++17 -fPIC "${CMAKE_CURRENT_LIST_DIR}/${source}" ${flags} ${linker_flags}
        "-Wl,-rpath,${libdir}" -o "${work}/pkgconfig_host")
    start("${work}/pkgconfig_host")
endfunction()

if(MODE STREQUAL "install")
    file(REMOVE_RECURSE "${PREFIX}")
    run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${PREFIX}")
    if(NOT EXISTS "${PREFIX}/include/gui_helpers/gui_helpers.h")
        message(FATAL_ERROR "umbrella header not installed")
    endif()
    check_run_paths("${PREFIX}" "${LIBDIR}")
    # Hosts get include/ only, so they write <gui_helpers/mutex.h> and our mutex.h never
    # shadows theirs.
    file(READ "${PREFIX}/${LIBDIR}/cmake/gui_helpers/gui_helpersTargets.cmake" targets)
    if(targets MATCHES "INTERFACE_INCLUDE_DIRECTORIES \"[^\"]*include/gui_helpers")
        message(FATAL_ERROR "the package puts include/gui_helpers itself on the include path")
    endif()
elseif(MODE STREQUAL "cmake")
    cmake_hosts("${PREFIX}" "${WORK}")
elseif(MODE STREQUAL "qmake")
    qmake_host("${PREFIX}/${LIBDIR}" "${PREFIX}/mkspecs/modules" "${WORK}" "")
elseif(MODE STREQUAL "pkgconfig")
    pkgconfig_host("${PREFIX}/${LIBDIR}" "${WORK}" main.cpp)
elseif(MODE STREQUAL "deb")
    file(REMOVE_RECURSE "${WORK}")
    run(${CPACK} -G DEB --config "${BUILD_DIR}/CPackConfig.cmake" -B "${WORK}/packages")
    file(GLOB packages "${WORK}/packages/*.deb")
    foreach(name libgui-helpers1 libgui-helpers-dev)
        if(NOT packages MATCHES "/${name}_")
            message(FATAL_ERROR "no package ${name} among: ${packages}")
        endif()
    endforeach()
    run(lintian --fail-on error ${packages})
    set(root "${WORK}/root")
    foreach(package IN LISTS packages)
        run(dpkg-deb -x "${package}" "${root}")
        run(dpkg-deb -f "${package}" Package Depends)
    endforeach()
    check_run_paths("${root}/usr" "${LIBDIR}")
    file(GLOB_RECURSE pri "${root}/*/qt_lib_gui_helpers.pri")
    get_filename_component(moduledir "${pri}" DIRECTORY)
    # The whole interface is built against the installed tree already: small hosts here.
    cmake_hosts("${root}/usr" "${WORK}/cmake" aboutbox_host)
    qmake_host("${root}/usr/${LIBDIR}" "${moduledir}" "${WORK}/qmake"
        "SOURCES=${CMAKE_CURRENT_LIST_DIR}/aboutbox_host.cpp")
    pkgconfig_host("${root}/usr/${LIBDIR}" "${WORK}/pkgconfig" aboutbox_host.cpp)
else()
    message(FATAL_ERROR "unknown MODE '${MODE}'")
endif()
