# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0

# Components: `runtime` is what programs need to run, `development` what is needed to build them, `notify` and
# `notify_development` the same of the library of deliveries that arrive, `tools` the command-line tool (see tools/),
# `relay` the relay between hosts (see relay/), `documentation` all that is there to be read.
include(CMakePackageConfigHelpers)

# A library finds those it needs beside it, wherever they are installed. In packages they are where the system looks.
if(NOT VORNNET_PACKAGING)
    set_target_properties(vornnet vornnotify PROPERTIES INSTALL_RPATH "\$ORIGIN")
endif()
install(TARGETS vornsupt vornnet EXPORT vornnet-targets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vornnet COMPONENT development)
install(TARGETS vornnotify EXPORT vornnotify-targets
    LIBRARY COMPONENT notify NAMELINK_COMPONENT notify_development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vornnet COMPONENT notify_development)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vornnet)
install(EXPORT vornnet-targets NAMESPACE vornnet:: DESTINATION ${config_dir} COMPONENT development)
# vornnet-config.cmake looks for it, so that one call of find_package() finds what is installed.
install(EXPORT vornnotify-targets NAMESPACE vornnet:: DESTINATION ${config_dir} COMPONENT notify_development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vornnet-config.cmake.in
    ${PROJECT_BINARY_DIR}/vornnet-config.cmake
    INSTALL_DESTINATION ${config_dir}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vornnet-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/vornnet-config.cmake
    ${PROJECT_BINARY_DIR}/vornnet-config-version.cmake
    DESTINATION ${config_dir} COMPONENT development)

# The pkg-config files find the rest from where they are themselves, unless the libraries have a fixed place.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
    set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
    file(RELATIVE_PATH pc_prefix /prefix/${pc_dir} /prefix)
    string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
endif()
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_LIBDIR BASE_DIRECTORY "\${prefix}" OUTPUT_VARIABLE pc_libdir)
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_INCLUDEDIR BASE_DIRECTORY "\${prefix}" OUTPUT_VARIABLE pc_includedir)
function(install_pkg_config pc_name component pc_requires pc_description)
    configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/library.pc.in ${PROJECT_BINARY_DIR}/${pc_name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${pc_name}.pc DESTINATION ${pc_dir} COMPONENT ${component})
endfunction()
install_pkg_config(vornsupt development ""
    "Support layer of vornnet: counted objects, exceptions, threads, events, logging")
install_pkg_config(vornnet development "vornsupt = ${PROJECT_VERSION}" ${PROJECT_DESCRIPTION})
install_pkg_config(vornnotify notify_development "vornnet = ${PROJECT_VERSION}"
    "Notifications that arrive, between services and callbacks in their clients")

# Who may use pipes, and where they are; named after the library's soname, so that another one can be beside it.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/libvornnet1.sysusers
    DESTINATION lib/sysusers.d RENAME libvornnet1.conf COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/libvornnet1.tmpfiles
    DESTINATION lib/tmpfiles.d RENAME libvornnet1.conf COMPONENT runtime)

# Chapters are looked for when they are installed, and so is what script/docs renders: a site and manual pages.
set(VORNNET_DOCS_DIR ${PROJECT_SOURCE_DIR}/build/docs CACHE PATH "Where script/docs has put what it renders")
# They lie as in the tree, so that links between them lead somewhere.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/bench DESTINATION ${CMAKE_INSTALL_DOCDIR}
    COMPONENT documentation
    FILES_MATCHING PATTERN "*.md" PATTERN site EXCLUDE PATTERN diagrams EXCLUDE PATTERN report EXCLUDE)
install(DIRECTORY ${VORNNET_DOCS_DIR}/diagrams DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs
    COMPONENT documentation OPTIONAL)
install(DIRECTORY ${VORNNET_DOCS_DIR}/performance DESTINATION ${CMAKE_INSTALL_DOCDIR}/bench
    COMPONENT documentation OPTIONAL)
foreach(page IN ITEMS README CONTRIBUTING SECURITY)
    install(FILES ${PROJECT_SOURCE_DIR}/${page}.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
    FILES_MATCHING PATTERN "*.cpp" PATTERN "*.h" PATTERN CMakeLists.txt
    PATTERN "*.conf" PATTERN "*.service" PATTERN "*.socket")
install(DIRECTORY ${VORNNET_DOCS_DIR}/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation OPTIONAL)
install(DIRECTORY ${VORNNET_DOCS_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT documentation OPTIONAL
    FILES_MATCHING PATTERN "*.3" PATTERN "*.7")

if(VORNNET_PACKAGING)
    include(VornnetPackages)
endif()
