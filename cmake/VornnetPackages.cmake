# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0

# Debian packages of the components, and one each with the debug symbols of those that have programs.
# script/package is what to call; it sets the time that goes into them and adds the bill of materials.
set(packaging_dir ${PROJECT_SOURCE_DIR}/packaging)
set(VORNNET_CHANGELOG ${packaging_dir}/changelog CACHE FILEPATH "Debian changelog, which names the packages' version")
set(work_dir ${PROJECT_BINARY_DIR}/packaging)

file(STRINGS ${VORNNET_CHANGELOG} first_line LIMIT_COUNT 1)
if(NOT first_line MATCHES "^vornnet \\(${PROJECT_VERSION}-([0-9a-z.+~]+)\\) ")
    message(FATAL_ERROR "${VORNNET_CHANGELOG} begins with another version than ${PROJECT_VERSION}: ${first_line}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})

set(package_of_runtime libvornnet1)
set(package_of_development libvornnet-dev)
set(package_of_notify libvornnotify1)
set(package_of_notify_development libvornnotify-dev)
set(package_of_tools vornnet-tools)
set(package_of_relay vornnet-relay)
set(package_of_documentation vornnet-doc)
set(CPACK_COMPONENTS_ALL runtime development notify notify_development tools relay documentation)

# What every package has for itself beside its component.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    set(package ${package_of_${component}})
    set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/${package})
    install(FILES ${packaging_dir}/copyright DESTINATION ${doc_dir} COMPONENT ${component})
    install(FILES ${VORNNET_CHANGELOG} DESTINATION ${doc_dir} RENAME changelog.Debian COMPONENT ${component})
    install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION ${doc_dir} RENAME changelog
        COMPONENT ${component})
endforeach()
install(FILES ${packaging_dir}/vornnet-doc.doc-base DESTINATION ${CMAKE_INSTALL_DATADIR}/doc-base
    RENAME vornnet-doc.vornnet COMPONENT documentation)
# It describes the packages' files as they are in the packages, so packages without it are made first.
install(FILES ${work_dir}/vornnet.spdx.json DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libvornnet1
    COMPONENT runtime OPTIONAL)

# Control files have the same names in each package, so each has a directory for its own. The maintainer scripts must be
# executable; a library's symbols file comes from finish.cmake.
function(set_control_files component directory)
    set(control)
    foreach(file IN LISTS ARGN)
        set(source ${packaging_dir}/${package_of_${component}}.${file})
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
        file(MAKE_DIRECTORY ${directory})
        file(COPY_FILE ${source} ${directory}/${file})
        if(file MATCHES "^(post|pre)")
            file(CHMOD ${directory}/${file} PERMISSIONS
                OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
        endif()
        list(APPEND control ${directory}/${file})
    endforeach()
    set(control_of_${component} ${control} PARENT_SCOPE)
endfunction()
set_control_files(runtime ${work_dir} postinst postrm shlibs triggers)
list(PREPEND control_of_runtime ${work_dir}/symbols)
set_control_files(notify ${work_dir}/notify shlibs triggers)
list(PREPEND control_of_notify ${work_dir}/notify/symbols)
set_control_files(relay ${work_dir}/relay postinst postrm prerm)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${VORNNET_CHANGELOG})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vornnet)
set(CPACK_PACKAGE_VENDOR "The vornnet authors")
set(CPACK_PACKAGE_CONTACT "The vornnet authors <authors@vornnet.example>")
set(CPACK_PACKAGE_HOMEPAGE_URL ${PROJECT_HOMEPAGE_URL})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${packaging_dir}/finish.cmake)
set(CPACK_VORNNET_WORK_DIR ${work_dir})
set(CPACK_VORNNET_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(CPACK_VORNNET_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_VORNNET_BINARY_DIR ${PROJECT_BINARY_DIR})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE vornnet)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# The libraries that programs of this tree are linked with are in packages that do not exist yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/notify ${PROJECT_BINARY_DIR}/src
    ${PROJECT_BINARY_DIR}/support)

# CPack indents the lines and marks the empty ones. The project's own summary would come before each.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(what "vornnet carries typed values between processes over local pipes, TCP, UDP and
memory, and notifications from services to callbacks in their clients.")

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package_of_${component}})
    if(component MATCHES "^(runtime|notify|tools|relay)$") # the packages with programs
        set(CPACK_DEBIAN_${upper}_PACKAGE_SHLIBDEPS ON)
        set(CPACK_DEBIAN_${upper}_DEBUGINFO_PACKAGE ON)
    endif()
endforeach()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control_of_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "adduser | systemd-sysusers")
# It makes /etc/hosts, without which "localhost" has no address and TCP and UDP sinks have none either.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS netbase)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "typed connections and notifications between processes
${what}

This package contains libvornsupt.so.1 and libvornnet.so.1, and sets up the
group vorn and the directory of local pipes.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS vornnet-doc)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "typed connections and notifications between processes - headers
${what}

This package contains the headers and what CMake and pkg-config need to find
the libraries.")

set(CPACK_DEBIAN_NOTIFY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_NOTIFY_PACKAGE_CONTROL_EXTRA ${control_of_notify})
set(CPACK_COMPONENT_NOTIFY_DEPENDS runtime)
set(CPACK_DEBIAN_NOTIFY_DESCRIPTION "typed connections and notifications between processes - delivery
${what}

This package contains the shared library whose senders and sinks see to it that
notifications arrive, also with peers that do not know of it.")

set(CPACK_DEBIAN_NOTIFY_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_NOTIFY_DEVELOPMENT_DEPENDS notify development)
set(CPACK_DEBIAN_NOTIFY_DEVELOPMENT_PACKAGE_SUGGESTS vornnet-doc)
set(CPACK_DEBIAN_NOTIFY_DEVELOPMENT_DESCRIPTION "typed connections and notifications between processes - delivery headers
${what}

This package contains the headers of the library of deliveries that arrive, and
what CMake and pkg-config need to find it.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime notify)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "typed connections and notifications between processes - tool
${what}

This package contains the program vornnet, with which callback sinks,
notifications, connections and servers can be tried from the shell, and which
finds out why a notification does not arrive. It also contains printers for gdb
and a dissector for Wireshark.")

set(CPACK_DEBIAN_RELAY_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RELAY_PACKAGE_CONTROL_EXTRA ${control_of_relay})
# The command is `vornnet relay`, which is the tool's.
set(CPACK_COMPONENT_RELAY_DEPENDS runtime notify tools)
set(CPACK_DEBIAN_RELAY_PACKAGE_DEPENDS adduser)
# What the addresses of programs that cannot be rebuilt are redirected with.
set(CPACK_DEBIAN_RELAY_PACKAGE_SUGGESTS "nftables, iproute2, nats-server")
set(CPACK_DEBIAN_RELAY_DESCRIPTION "typed connections and notifications between processes - relay
${what}

This package contains the relay, a daemon that carries notifications between
hosts through servers of NATS with JetStream, and keeps them while a host is
away.")

set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
# What the examples are built with.
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_DEPENDS libvornnotify-dev)
set(CPACK_DEBIAN_DOCUMENTATION_DESCRIPTION "typed connections and notifications between processes - manual
${what}

This package contains the manual, the reference of all classes, manual pages
and the examples.")

include(CPack)
