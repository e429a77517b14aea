# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0

# Run by CPack over the directories it is about to make packages of, one per component.
cmake_minimum_required(VERSION 3.25)

function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set(root_of_runtime ${CPACK_TEMPORARY_DIRECTORY}/runtime)
set(library_dir ${root_of_runtime}/usr/${CPACK_VORNNET_LIBDIR})

# What came with a later release has a node of its own, VORNNET_1.2 for what came with 1.2, so a symbol's node tells
# from which release on it is there.
# What is there already would be merged.
file(REMOVE ${CPACK_VORNNET_SYMBOLS_RESULT})
run(dpkg-gensymbols -plibvornnet1 -v${CPACK_PACKAGE_VERSION} -P${root_of_runtime} -O${CPACK_VORNNET_SYMBOLS_RESULT}
    -e${library_dir}/libvornnet.so.${CPACK_PACKAGE_VERSION}
    -e${library_dir}/libvornsupt.so.${CPACK_PACKAGE_VERSION})
file(READ ${CPACK_VORNNET_SYMBOLS_RESULT} symbols)
string(REGEX REPLACE "@(VORN[A-Z]+_1) [^\n]*" "@\\1 1.0.0" symbols "${symbols}")
string(REGEX REPLACE "@(VORN[A-Z]+_(1\\.[0-9]+)) [^\n]*" "@\\1 \\2.0" symbols "${symbols}")
string(REPLACE "#MINVER#" "#MINVER#\n* Build-Depends-Package: libvornnet-dev" symbols "${symbols}")
file(WRITE ${CPACK_VORNNET_SYMBOLS_RESULT} "${symbols}")

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
    ${library_dir}/*.so.${CPACK_PACKAGE_VERSION}
    ${CPACK_TEMPORARY_DIRECTORY}/tools/usr/bin/*)
foreach(program IN LISTS programs)
    run(objcopy --remove-section=.comment --remove-section=.note ${program})
endforeach()

# CPack takes the times of files from the files.
run(find ${CPACK_TEMPORARY_DIRECTORY} -exec touch --no-dereference --date=@$ENV{SOURCE_DATE_EPOCH} {} +)
