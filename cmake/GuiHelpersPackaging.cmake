# SPDX-License-Identifier: MIT
# pkg-config file, qmake module and the Debian packages (cpack -G DEB).

# pkg-config: gui_helpers.pc, relative to its own place.
file(RELATIVE_PATH GUI_HELPERS_PC_TO_PREFIX
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" GUI_HELPERS_PC_TO_PREFIX "${GUI_HELPERS_PC_TO_PREFIX}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/gui_helpers.pc.in" "${PROJECT_BINARY_DIR}/gui_helpers.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/gui_helpers.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)

# qmake module: where it goes depends on the prefix given at install time.
get_target_property(_qmake Qt5::qmake IMPORTED_LOCATION)
execute_process(COMMAND "${_qmake}" -query QT_INSTALL_PREFIX
    OUTPUT_VARIABLE QT_INSTALL_PREFIX OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND "${_qmake}" -query QT_HOST_DATA
    OUTPUT_VARIABLE _qt_host_data OUTPUT_STRIP_TRAILING_WHITESPACE)
set(QT_MODULE_DIR "${_qt_host_data}/mkspecs/modules")
get_target_property(GUI_HELPERS_EIGEN_INCLUDE_DIRS Eigen3::Eigen INTERFACE_INCLUDE_DIRECTORIES)
configure_file("${CMAKE_CURRENT_LIST_DIR}/InstallQmakeModule.cmake.in"
    "${PROJECT_BINARY_DIR}/qmake/InstallQmakeModule.cmake" @ONLY)
install(SCRIPT "${PROJECT_BINARY_DIR}/qmake/InstallQmakeModule.cmake" COMPONENT dev)

# Debian packages: the runtime libraries, the development files and the tools.
set(_runtime_package "libgui-helpers${PROJECT_VERSION_MAJOR}")
set(_dev_package "libgui-helpers-dev")
set(_tools_package "gui-helpers-tools")

# Debian wants a copyright file and a changelog in each package's documentation directory;
# they go into the packages only, not into a plain install.
configure_file("${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in" "${PROJECT_BINARY_DIR}/debian/changelog" @ONLY)
find_program(GZIP_PROGRAM gzip REQUIRED)
execute_process(COMMAND "${GZIP_PROGRAM}" -9nf "${PROJECT_BINARY_DIR}/debian/changelog")
foreach(_component runtime dev tools)
    install(FILES "${CMAKE_CURRENT_LIST_DIR}/debian/copyright" "${PROJECT_BINARY_DIR}/debian/changelog.gz"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${_${_component}_package}"
        COMPONENT ${_component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME gui-helpers)
set(CPACK_PACKAGE_VENDOR Veltrax)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "Veltrax gui_helpers maintainers <gui-helpers@veltrax.example>")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://veltrax.example/gui_helpers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# The qmake module's install script looks at the prefix itself, so install with DESTDIR.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
configure_file("${CMAKE_CURRENT_LIST_DIR}/CPackProjectConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/CPackProjectConfig.cmake" @ONLY)
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_BINARY_DIR}/CPackProjectConfig.cmake")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(GUI_HELPERS_BUILD_TOOLS OR GUI_HELPERS_BUILD_EXAMPLES)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Qt 5 helper library of the Veltrax suite
The shared libraries: libgui_helpers (about box, update client, tus uploader,
usage statistics and small widgets), its support library libvxcommon (journal,
variant, settings tree) and the types library libvxtypes.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${_runtime_package}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Only the runtime package holds shared libraries: it gets the shlibs file and the trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${CMAKE_CURRENT_LIST_DIR}/debian/triggers")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_COMPONENT_DEV_DESCRIPTION "Qt 5 helper library of the Veltrax suite - development files
Headers, CMake package, pkg-config file and qmake module for building host
applications against libgui_helpers.")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME "${_dev_package}")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "qtbase5-dev (>= 5.15), libeigen3-dev (>= 3.3)")

set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Qt 5 helper library of the Veltrax suite - tools
vxa, the settings-tree command-line tool; gui_helpers_update_server, the
reference update server; gui_helpers_demo, the demo host application.")
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME "${_tools_package}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)

include(CPack)
