#!/usr/bin/env bash
# Builds the programs for Windows on Debian, and tests them under Wine: windows.sh build|test|package.
# The framework is built once, statically, from the source package of this machine's own release, and
# kept in KORVANE_WINDOWS_CACHE (default ~/.cache/korvane-windows), outside the checkout.
set -euo pipefail

root=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=packaging/dependencies.sh
. "$root/packaging/dependencies.sh"

windows_needs=(
    cmake=cmake
    ninja=ninja-build
    '/usr/lib/*/cmake/Qt6Core/Qt6CoreConfig.cmake=qt6-base-dev' # whose tools the framework's build uses
    /usr/lib/qt6/bin/lrelease=qt6-l10n-tools
    x86_64-w64-mingw32-g++-posix=g++-mingw-w64-x86-64-posix
    dpkg-source=dpkg-dev
)
wine_needs=(
    debootstrap=debootstrap
    unshare=util-linux
    osslsigncode=osslsigncode
    openssl=openssl
    node=nodejs
    npm=npm
    Xvfb=xvfb
    evilwm=evilwm
    xdotool=xdotool
)
readonly impossible=77 # Exit code where this machine cannot have what it takes.

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
    echo "deb-src $mirror $release main" >"$directory/sources.list"
    apt=(apt-get -q -o "Dir::Etc::sourcelist=$directory/sources.list" -o Dir::Etc::sourceparts=-
        -o "Dir::State::lists=$lists" -o APT::Sandbox::User=root -o APT::Update::Error-Mode=any)
    [ -n "$mirror" ] && "${apt[@]}" update >&2 &&
        (cd "$directory" && "${apt[@]}" --download-only source "qt6-base=$(framework_version)" >&2)
}

build_framework() {
    local target=$1 work
    [ -e "$target/built" ] && return 0
    work=$(mktemp -d "$cache/building-XXXXXX")
    # shellcheck disable=SC2064 # the directory's name as it is now
    trap "rm -rf '$work'" EXIT
    if ! fetch_framework_source "$work"; then
        say 'not built for Windows: apt has no source package of the framework here (see KORVANE_MIRROR)'
        exit "$impossible"
    fi
    say 'building the framework for Windows, once; this takes about half an hour'
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
        cd source # Where parts of others have their own terms.
        find src -type f \( -iname '*licen[cs]e*' -o -iname 'copying*' \) ! -name '*.png' \
            -exec cp --parents -t "$target/licenses" {} +
        cd ..
        cp ./*.dsc "$target/"
    ) >&2
    touch "$target/built"
    rm -rf "$work"
    trap - EXIT
}

has_wine() {
    command -v wine >/dev/null && [ "$(wine --version | sed 's/wine-\([0-9]*\).*/\1/')" -ge 10 ]
}

# Wine 10, from Debian 13 where this machine has none or an older one: it is the better judge.
make_wine() {
    local machine=$cache/wine-root
    if [ -e "$machine/made" ] || has_wine; then
        return 0
    fi
    say 'making a Debian 13 root for its Wine'
    as_root rm -rf --one-file-system "$machine"
    if ! as_root debootstrap --variant=minbase --include=wine,wine64 trixie "$machine" \
        "$(debian_mirror)" >"$cache/wine-root.log"; then
        say "not tested under Wine: no Debian 13 is to be had here (see $cache/wine-root.log)"
        exit "$impossible"
    fi
    as_root touch "$machine/made"
}

# A Windows 10 of Wine's, made once.
make_prefix() {
    local prefix=$cache/prefix
    [ -e "$prefix/made" ] && return 0
    rm -rf "$prefix"
    mkdir -p "$prefix"
    WINEPREFIX=$prefix "$root/packaging/wine.sh" wineboot --init >/dev/null 2>&1
    WINEPREFIX=$prefix "$root/packaging/wine.sh" \
        reg add 'HKCU\Software\Wine' /v Version /d win10 /f >/dev/null 2>&1
    WINEPREFIX=$prefix "$root/packaging/wine.sh" wineserver --wait
    touch "$prefix/made"
}

# prepare_wine DIRECTORY: what is missing of Wine, and a prefix of one's own.
prepare_wine() {
    install_missing "${wine_needs[@]}"
    make_wine
    if ! "$root/packaging/wine.sh" wineserver --version >/dev/null 2>&1; then
        say 'not tested under Wine: this machine lets nobody mount what its Debian 13 needs'
        exit "$impossible"
    fi
    make_prefix
    rm -rf "$1"
    cp -a "$cache/prefix" "$1"
}

build() {
    install_missing "${windows_needs[@]}"
    KORVANE_WINDOWS_QT=$(framework_directory)
    export KORVANE_WINDOWS_QT
    build_framework "$KORVANE_WINDOWS_QT"
    configure_and_build "$root" windows "$@"
}

test_programs() {
    install_missing "${wine_needs[@]}"
    build -DKORVANE_TESTS=ON -DKORVANE_WERROR=ON
    install_npm_packages "$root/tests/e2e"
    # A desktop is that of the X session, or of none, in which its prefix' first program was started.
    prepare_wine "$root/build/windows/desk-prefix"
    export WINEPREFIX=$root/build/windows/prefix
    prepare_wine "$WINEPREFIX"
    # With a window open, Wine's own processes stay: each would keep open the output of the test that
    # started it.
    trap '"$root/packaging/wine.sh" wineserver --kill || true' EXIT # It may have ended.
    "$root/packaging/wine.sh" start notepad </dev/null >/dev/null 2>&1
    (cd "$root" && ctest --preset windows -LE slow)
}

# The zip with both programs and the terms of what is in them, tried in a Windows of its own.
make_package() {
    local directory name framework answer
    build -DKORVANE_TESTS=OFF -DKORVANE_DESK=ON
    framework=$KORVANE_WINDOWS_QT
    name=korvane-$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")-windows-x86_64
    directory=$root/build/package/$name
    rm -rf "${directory%/*}"
    mkdir -p "$directory/licences"
    cp "$root/build/windows/src/"korvane-{mcp,desk}.exe "$root"/{README.md,LICENSE} "$directory/"
    x86_64-w64-mingw32-strip "$directory"/*.exe
    if x86_64-w64-mingw32-objdump -p "$directory"/*.exe | grep 'DLL Name: lib'; then
        say 'a program wants a library beside it'
        return 1
    fi
    cp "$root/packaging/windows-licences.md" "$directory/licences/README.md"
    cp -r "$framework/licenses/." "$framework"/*.dsc "$directory/licences/"
    cp /usr/share/doc/mingw-w64-common/copyright "$directory/licences/mingw-w64.txt"
    cp /usr/share/doc/gcc-mingw-w64-base/copyright "$directory/licences/gcc.txt"
    (cd "${directory%/*}" && cmake -E tar cf "$name.zip" --format=zip "$name")

    mkdir "$directory-unpacked"
    (cd "$directory-unpacked" && cmake -E tar xf "$directory.zip")
    export WINEPREFIX=$directory-prefix
    prepare_wine "$WINEPREFIX"
    answer=$(cd / && echo '{"jsonrpc":"2.0","id":1,"method":"initialize"}' |
        timeout 60 "$root/packaging/wine.sh" "$directory-unpacked/$name/korvane-mcp.exe" 2>/dev/null)
    case $answer in
        *'"name":"kor-vane"'*) ;;
        *) say "the unpacked program answers: $answer" && return 1 ;;
    esac
    rm -rf "$directory-unpacked" "$WINEPREFIX" "$directory"
    ls -l "$directory.zip"
}

case ${1:-} in
    build) build "${@:2}" ;;
    prefix) prepare_wine "$2" ;; # For bench/run.sh, as are the options of build.
    test) test_programs ;; # Exit code 77 where this machine cannot.
    package) make_package ;;
    *)
        echo 'windows.sh build|test|package' >&2
        exit 2
        ;;
esac
