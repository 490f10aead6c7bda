#!/bin/sh
# Installs what is missing, builds the module for x86_64 (tested) and i686
# (compiled and linked only), and then:
#   ./build.sh run [comtool arguments]   runs the tool (no arguments: a short tour of what it does)
#   ./build.sh test                      runs the whole test suite under Wine
#   ./build.sh test-heap                 the same with Wine's heap checking on
#   ./build.sh build                     stops after building
set -eu
cd "$(dirname "$0")"

PACKAGES="cmake ninja-build g++-mingw-w64-x86-64 g++-mingw-w64-i686 mingw-w64-tools \
wine wine64 libwine-dev googletest libcli11-dev nlohmann-json3-dev"

install_missing() {
    missing=""
    for package in $PACKAGES; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
            missing="$missing $package"
        fi
    done
    [ -z "$missing" ] && return 0
    echo "Installing:$missing"
    sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -q
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends $missing
}

# configure_and_build DIR ARCH [TARGET...]: everything when no target is named.
configure_and_build() {
    dir=$1 arch=$2
    shift 2
    if [ ! -f "$dir/build.ninja" ]; then
        cmake -S . -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="cmake/toolchain-$arch-w64-mingw32.cmake"
    fi
    if [ $# -gt 0 ]; then
        cmake --build "$dir" --target "$@"
    else
        cmake --build "$dir"
    fi
}

command=${1:-run}
[ $# -gt 0 ] && shift

install_missing
if [ "$command" = run ]; then
    # A first run wants the tool soon: the module and comtool only, x86_64.
    configure_and_build build x86_64 comtool
else
    configure_and_build build x86_64
    # Hosts are often 32-bit: that build must keep compiling, tests included.
    configure_and_build build-i686 i686
fi

case "$command" in
    run)
        [ $# -eq 0 ] && exec build/comtool tour
        exec build/comtool "$@" ;;
    test) cd build && exec ctest --output-on-failure -j2 ;;
    # Double frees, overruns and writes to freed blocks fail the test that made them.
    test-heap) cd build && WINEDEBUG=-all,warn+heap exec ctest --output-on-failure -j2 ;;
    build) ;;
    *) echo "usage: $0 [run [comtool arguments] | test | test-heap | build]" >&2; exit 2 ;;
esac
