# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0

# Run by CPack over the directories it is about to make packages of, one per component.
cmake_minimum_required(VERSION 3.25)

function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# The file with the symbols of a package's libraries, and the release from which on each is there.
#
# What came with a later release has a node of its own, VORNNET_1.2 for what came with 1.2, so a symbol's node tells.
function(write_symbols result component package development_package)
    # What is there already would be merged.
    file(REMOVE ${result})
    set(libraries "")
    foreach(library IN LISTS ARGN)
        list(APPEND libraries -e${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/${CPACK_VORNNET_LIBDIR}/${library})
    endforeach()
    run(dpkg-gensymbols -p${package} -v${CPACK_PACKAGE_VERSION} -P${CPACK_TEMPORARY_DIRECTORY}/${component} -O${result}
        ${libraries})
    file(READ ${result} symbols)
    string(REGEX REPLACE "@(VORN[A-Z]+_1) [^\n]*" "@\\1 1.0.0" symbols "${symbols}")
    string(REGEX REPLACE "@(VORN[A-Z]+_(1\\.[0-9]+)) [^\n]*" "@\\1 \\2.0" symbols "${symbols}")
    string(REPLACE "#MINVER#" "#MINVER#\n* Build-Depends-Package: ${development_package}" symbols "${symbols}")
    file(WRITE ${result} "${symbols}")
endfunction()

write_symbols(${CPACK_VORNNET_WORK_DIR}/symbols runtime libvornnet1 libvornnet-dev
    libvornnet.so.${CPACK_PACKAGE_VERSION} libvornsupt.so.${CPACK_PACKAGE_VERSION})
write_symbols(${CPACK_VORNNET_WORK_DIR}/notify/symbols notify libvornnotify1 libvornnotify-dev
    libvornnotify.so.${CPACK_PACKAGE_VERSION})

file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*)
file(GLOB texts
    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog
    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog.Debian
    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/vornnet.spdx.json)
foreach(file IN LISTS pages texts)
    # Without the name and the time of the file, which would differ with each build.
    run(gzip -9nf ${file})
endforeach()

file(GLOB_RECURSE programs
    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/${CPACK_VORNNET_LIBDIR}/*.so.${CPACK_PACKAGE_VERSION}
    ${CPACK_TEMPORARY_DIRECTORY}/tools/usr/bin/*
    ${CPACK_TEMPORARY_DIRECTORY}/relay/usr/bin/*)
foreach(program IN LISTS programs)
    run(objcopy --remove-section=.comment --remove-section=.note ${program})
endforeach()

# CPack takes the times of files from the files.
run(find ${CPACK_TEMPORARY_DIRECTORY} -exec touch --no-dereference --date=@$ENV{SOURCE_DATE_EPOCH} {} +)
