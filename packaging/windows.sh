#!/usr/bin/env bash
# Builds the programs for Windows on Debian, and tests them under Wine: windows.sh build|test|package.
# The framework is built once, statically, from the source package of this machine's own release, and
# kept in KORVANE_WINDOWS_CACHE (default ~/.cache/korvane-windows), outside the checkout.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=packaging/dependencies.sh
. "$root/packaging/dependencies.sh"

cache=${KORVANE_WINDOWS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/korvane-windows}
mkdir -p "$cache"

say() { echo "korvane: $*" >&2; }

framework_options=(
    -DCMAKE_BUILD_TYPE=Release
    -DBUILD_SHARED_LIBS=OFF
    -DQT_HOST_PATH=/usr
    -DQT_HOST_PATH_CMAKE_DIR=/usr/lib/x86_64-linux-gnu/cmake
    -DQT_BUILD_EXAMPLES=OFF
    -DQT_BUILD_TESTS=OFF
    -DFEATURE_{gui,widgets,testlib,network}=ON
    -DFEATURE_{sql,xml,dbus,icu,glib,zstd,openssl,schannel,printsupport,concurrent,vulkan}=OFF
    -DFEATURE_tabletevent=OFF # its header is not in the packaged source
    -DFEATURE_system_{zlib,pcre2,doubleconversion,libb2,freetype,harfbuzz,png,jpeg}=OFF
    -DINPUT_openssl=no
    -DINPUT_opengl=no
)

framework_version() { dpkg-query -W -f '${source:Version}' qt6-base-dev; }

# Where the framework of this version, these options and this compiler lies.
framework_directory() {
    local key
    key=$({
        printf '%s\n' "${framework_options[@]}"
        cat "$root/packaging/mingw.cmake"
        x86_64-w64-mingw32-g++-posix --version
    } | sha256sum | cut -c1-12)
    echo "$cache/qt-$(framework_version | tr '+~:' '---')-$key"
}

# The release's own source packages: fetched through lists of their own, so that apt's stay as they are.
fetch_framework_source() {
    local directory=$1 apt lists=$1/lists mirror release
    mkdir -p "$lists/partial"
    release=$(. /etc/os-release && echo "$VERSION_CODENAME")
    mirror=$(debian_mirror)
    if [ -z "$mirror" ]; then
        say 'apt has no archive of Debian here; please name one in KORVANE_MIRROR'
        return 1
    fi
    echo "deb-src $mirror $release main" >"$directory/sources.list"
    apt=(apt-get -q -o "Dir::Etc::sourcelist=$directory/sources.list" -o Dir::Etc::sourceparts=-
        -o "Dir::State::lists=$lists" -o APT::Sandbox::User=root)
    "${apt[@]}" update >&2 &&
        (cd "$directory" && "${apt[@]}" --download-only source "qt6-base=$(framework_version)" >&2)
}

build_framework() {
    local target=$1 work
    [ -e "$target/built" ] && return 0
    work=$(mktemp -d "$cache/building-XXXXXX")
    # shellcheck disable=SC2064 # the directory's name as it is now
    trap "rm -rf '$work'" EXIT
    fetch_framework_source "$work"
    say "building the framework for Windows, once; this takes about half an hour"
    (
        cd "$work"
        dpkg-source --no-check -x ./*.dsc source >&2
        cmake -S source -B build -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/packaging/mingw.cmake" \
            -DCMAKE_INSTALL_PREFIX="$target" "${framework_options[@]}" >configure.log
        rm -rf "$target"
        cmake --build build >build.log || { tail -n 40 build.log; exit 1; }
        cmake --install build --strip >install.log
        mkdir -p "$target/licenses"
        cp source/LICENSES/* "$target/licenses/"
        cp ./*.dsc "$target/"
    ) >&2
    touch "$target/built"
    rm -rf "$work"
    trap - EXIT
}

# Wine 10, from Debian 13 where this machine has an older one: it is the better judge.
make_wine() {
    local machine=$cache/wine-root mirror
    [ -e "$machine/made" ] && return 0
    if command -v wine >/dev/null && [ "$(wine --version | sed 's/wine-\([0-9]*\).*/\1/')" -ge 10 ]; then
        return 0
    fi
    mirror=$(debian_mirror)
    say 'making a Debian 13 root for its Wine'
    as_root rm -rf --one-file-system "$machine"
    as_root debootstrap --variant=minbase --include=wine,wine64 trixie "$machine" "$mirror" \
        >"$cache/wine-root.log"
    as_root touch "$machine/made"
}

make_prefix() {
    local prefix=${WINEPREFIX:-$cache/prefix}
    [ -e "$prefix/made" ] && return 0
    mkdir -p "$prefix"
    "$root/packaging/wine.sh" wineboot --init >/dev/null 2>&1
    "$root/packaging/wine.sh" reg add 'HKCU\Software\Wine' /v Version /d win10 /f >/dev/null
    touch "$prefix/made"
}

build() {
    local framework
    framework=$(framework_directory)
    build_framework "$framework"
    export KORVANE_WINDOWS_QT=$framework
    configure_and_build "$root" windows "$@"
}

case ${1:-} in
    framework) build_framework "$(framework_directory)" ;;
    wine) make_wine && make_prefix ;;
    build) build "${@:2}" ;;
    *)
        echo 'windows.sh build|test|package' >&2
        exit 2
        ;;
esac
