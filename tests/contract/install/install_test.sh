#!/bin/sh
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
#
# install_test.sh CHECK BUILD_DIRECTORY
#
# files            what is installed, component by component, and that nothing of it names a place of this build
# examples         the installed examples can be built, and the links of the installed pages lead somewhere
# find_package, pkg_config, subproject
#                  builds and runs a program outside the tree that comes by the libraries in this way; the first
#                  two find them installed, in a directory that was moved after the installation
set -eu
check=$1
build=$2
source=$(cd "$(dirname "$0")/../../.." && pwd)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cached() {
    sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"
}

install_component() {
    cmake --install "$build" --prefix "$work/as-installed" --component "$1" >"$work/install.log" ||
        { cat "$work/install.log"; exit 1; }
}

installed_files() {
    [ ! -d "$work/as-installed" ] || (cd "$work/as-installed" && find . ! -type d | sed 's|^\./||' | sort)
}

expected_files() {
    configuration=$(cached CMAKE_BUILD_TYPE | tr '[:upper:]' '[:lower:]')
    for component in "$@"; do
        sed -n "s|^$component  *||p" "$source/tests/contract/install/files.txt"
    done | sed "s|^LIBDIR|$libdir|; s|CONFIGURATION|${configuration:-noconfig}|" | while read -r file; do
        case $file in
        HEADERS)
            find "$source/include" "$source/support" \( -name 'Vorn*.h' -o -name ModuleData.h \) \
                -printf "$includedir/vornnet/%f\n"
            ;;
        NOTIFY_HEADERS) find "$source/notify" -name 'Vorn*.h' -printf "$includedir/vornnet/%f\n" ;;
        MANPAGES) find "$source/tools/man" -name '*.1.in' -printf 'share/man/man1/%f\n' | sed 's/\.in$//' ;;
        PRINTERS) echo "share/gdb/auto-load$(cached CMAKE_INSTALL_PREFIX)/$libdir/libvornnet.so.1.0.0-gdb.py" ;;
        CHAPTERS)
            find "$source/docs" -maxdepth 1 -name '*.md' -printf 'share/doc/vornnet/docs/%P\n'
            printf 'share/doc/vornnet/%s\n' README.md CONTRIBUTING.md SECURITY.md bench/README.md
            ;;
        EXAMPLES)
            find "$source/examples" -type f \
                -printf 'share/doc/vornnet/examples/%P\n'
            ;;
        RENDERED)
            rendered=$(cached VORNNET_DOCS_DIR)
            for images in docs/diagrams bench/performance; do
                [ ! -d "$rendered/${images#*/}" ] ||
                    find "$rendered/${images#*/}" -type f -printf "share/doc/vornnet/$images/%f\n"
            done
            [ ! -d "$rendered/html" ] || find "$rendered/html" ! -type d -printf "share/doc/vornnet/html/%P\n"
            [ ! -d "$rendered/man" ] || find "$rendered/man" -name '*.[37]' -printf 'share/man/%P\n'
            ;;
        *) echo "$file" ;;
        esac
    done | sort
}

compare_files() {
    expected_files "$@" >"$work/expected"
    installed_files >"$work/installed"
    diff -u "$work/expected" "$work/installed" || { echo "installed with the components: $*"; exit 1; }
}

check_files() {
    components=
    for component in runtime development notify notify_development tools relay documentation; do
        [ "$component" != tools ] || [ "$(cached VORNNET_BUILD_TOOLS)" = ON ] || continue
        [ "$component" != relay ] || [ -e "$build/relay/vornnet-relay" ] || continue
        components="$components $component"
        install_component "$component"
        # shellcheck disable=SC2086 # each is a word
        compare_files $components
    done
    # Only the libraries' debug information may say where they were built.
    if grep -rIn -e "$source" -e "$build" -e "$work" "$work/as-installed"; then
        echo "names a place of this build"
        exit 1
    fi
    for library in "$work/as-installed/$libdir"/*.so; do
        if readelf -d "$library" | grep -E 'RPATH|RUNPATH' | grep -vF '[$ORIGIN]'; then
            echo "$library looks for libraries in a directory of this build"
            exit 1
        fi
    done
    for library in libvornsupt libvornnet; do
        if readelf -V "$work/as-installed/$libdir/$library.so" | grep -E 'GLIBC_2\.(3[5-9]|[4-9][0-9])'; then
            echo "$library needs a newer system than glibc 2.34"
            exit 1
        fi
    done
}

build_and_run_consumer() {
    programs='consumer17 consumer20 consumer23 frugal'
    [ "$check" != subproject ] || programs=frugal
    # shellcheck disable=SC2086 # each is a word
    # Not `set -e`: it does not hold in what is tested by `||`.
    {
        cmake -S "$source/tests/contract/install/consumer" -B "$work/build" \
            -DCMAKE_CXX_COMPILER="$(cached CMAKE_CXX_COMPILER)" \
            -DCMAKE_CXX_COMPILER_LAUNCHER="$(cached CMAKE_CXX_COMPILER_LAUNCHER)" "$@" &&
            cmake --build "$work/build" -j 2 --target $programs
    } >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
    for program in $programs; do
        "$work/build/$program" || { echo "$program failed"; exit 1; }
    done
}

use_installed() {
    install_component runtime
    install_component development
    install_component notify
    install_component notify_development
    mv "$work/as-installed" "$work/moved"
}

libdir=$(cached CMAKE_INSTALL_LIBDIR)
includedir=$(cached CMAKE_INSTALL_INCLUDEDIR)
case $check in
files)
    check_files
    ;;
find_package)
    use_installed
    build_and_run_consumer -DWAY=find_package -DCMAKE_PREFIX_PATH="$work/moved"
    grep -q "$work/moved" "$work/build/CMakeCache.txt"
    ;;
examples)
    use_installed
    install_component documentation
    "$source/tests/contract/docs/check_chapters.py" links "$work/as-installed/share/doc/vornnet"
    cmake -S "$work/as-installed/share/doc/vornnet/examples" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/moved" \
        -DCMAKE_CXX_COMPILER="$(cached CMAKE_CXX_COMPILER)" \
        -DCMAKE_CXX_COMPILER_LAUNCHER="$(cached CMAKE_CXX_COMPILER_LAUNCHER)" >"$work/log"
    # The directory has another name each time, which a compiler cache must not see.
    CCACHE_BASEDIR=$work CCACHE_NOHASHDIR=yes cmake --build "$work/build" -j 2 >"$work/log" || { cat "$work/log"; exit 1; }
    ;;
pkg_config)
    use_installed
    export PKG_CONFIG_PATH="$work/moved/$libdir/pkgconfig"
    [ "$(pkg-config --modversion vornnet vornsupt vornnotify | tr '\n' ' ')" = "1.0.0 1.0.0 1.0.0 " ]
    LD_LIBRARY_PATH="$work/moved/$libdir" build_and_run_consumer -DWAY=pkg_config
    ;;
subproject)
    # The same build directory for both: the libraries are compiled once.
    build_and_run_consumer -DWAY=add_subdirectory -DVORNNET_SOURCE_DIR="$source"
    build_and_run_consumer -DWAY=fetch_content
    # A program that takes the libraries in does not want their tests.
    if [ -d "$work/build/vornnet/tests" ]; then
        echo "the tests were built too"
        exit 1
    fi
    ;;
*)
    sed -n '5,11s/^# \{0,1\}//p' "$0"
    exit 2
    ;;
esac
