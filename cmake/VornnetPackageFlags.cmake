# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0

# How the programs in packages are compiled; CMake includes it before any target is made (preset `packages`).
# No path of this machine gets into them, so that the same sources give the same packages anywhere.
set(source_in_packages /usr/src/vornnet-${PROJECT_VERSION})
add_compile_options(
    -fstack-protector-strong
    -D_FORTIFY_SOURCE=2
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=${source_in_packages}
    -ffile-prefix-map=${PROJECT_BINARY_DIR}=${source_in_packages}/build)
# The debug symbols go into packages too, and are a third of the size when they are packed.
add_link_options(LINKER:-z,relro,-z,now LINKER:--compress-debug-sections=zlib)
# The programs' build ids are made of all that they are linked with, and so of a run path that installing removes.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
