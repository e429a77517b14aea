# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0

# Flags of every target of this tree, none of which reach those who link the libraries.
function(vornnet_common_options target)
    target_compile_features(${target} PUBLIC cxx_std_17 PRIVATE cxx_std_20)
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
        $<$<BOOL:${VORNNET_WARNINGS_AS_ERRORS}>:-Werror>)
    if(VORNNET_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=${VORNNET_SANITIZE} -fno-omit-frame-pointer
            -fno-sanitize-recover=all)
        target_link_options(${target} PRIVATE -fsanitize=${VORNNET_SANITIZE})
    endif()
    if(VORNNET_FUZZ)
        target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
    endif()
endfunction()

# A program that waits for others most of the time. Beside the tests it is the compiler's time that counts: the headers of
# CLI11 and JSON take twice as long with all optimisation and debug information.
function(vornnet_program_options target)
    vornnet_common_options(${target})
    if(VORNNET_BUILD_TESTS)
        target_compile_options(${target} PRIVATE "$<$<CONFIG:RelWithDebInfo>:-O1;-g1>")
    endif()
endfunction()

# Counts what the target runs, if coverage is measured at all.
function(vornnet_coverage target)
    if(VORNNET_COVERAGE)
        target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic -O0)
        target_link_options(${target} PRIVATE --coverage)
    endif()
endfunction()

# One of the two shared libraries: hidden unless exported, versioned symbols, no symbol that pins the library.
function(vornnet_library target)
    vornnet_common_options(${target})
    set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        LINK_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${target}.map)
    # A symbol that is unique in the process (g++ makes such for templates' static members) keeps the library
    # loaded after dlclose, and then its end never runs. clang++ makes none.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${target} PRIVATE -fno-gnu-unique)
    endif()
    # Calls go straight to where they end: to libc through the table that is filled at start anyway (-z now), and
    # within the library without a detour for others who might stand in for its functions, which nobody may.
    # A registry look-up is faster by a tenth to a fifth for it.
    target_compile_options(${target} PRIVATE -fno-plt)
    target_link_options(${target} PRIVATE LINKER:--version-script=${CMAKE_CURRENT_SOURCE_DIR}/${target}.map
        LINKER:-z,defs,-z,relro,-z,now,-Bsymbolic-functions)
    if(VORNNET_SANITIZE)
        # The sanitizers' run time lives in the program.
        target_link_options(${target} PRIVATE LINKER:-z,undefs)
    endif()
    if(VORNNET_COVERAGE)
        target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/CoverageDump.cpp)
        vornnet_coverage(${target})
    endif()
endfunction()
