# What the project's scripts need from the system, and how they install what is missing.
# Sourced by run.sh, test.sh, bench/run.sh and .ci/run; everything it prints goes to standard error.

# Each entry is PROBE=PACKAGE: a command or a file pattern that is there once the package is, or
# chinese-font, which any will do for.
build_needs=(
    g++=g++
    cmake=cmake
    ninja=ninja-build
    pkg-config=pkg-config
    '/usr/lib/*/cmake/Qt6Core/Qt6CoreConfig.cmake=qt6-base-dev'
    '/usr/lib/*/pkgconfig/libsystemd.pc=libsystemd-dev'
)
# What the consent desk needs besides.
desk_needs=(
    '/usr/lib/*/cmake/Qt6Widgets/Qt6WidgetsConfig.cmake=qt6-base-dev'
    /usr/lib/qt6/bin/lrelease=qt6-l10n-tools
    '/usr/lib/*/qt6/plugins/platforms/libqwayland*.so=qt6-wayland'
    fc-list=fontconfig
    chinese-font=fonts-wqy-microhei
)
test_needs=(
    "${build_needs[@]}"
    "${desk_needs[@]}"
    node=nodejs
    npm=npm
    ps=procps
    ss=iproute2
    rpm=rpm
    script=bsdutils
    trash-restore=trash-cli
    mkfs.ext4=e2fsprogs
    /lib/systemd/systemd=systemd
    /usr/lib/systemd/user/dbus.socket=dbus-user-session
    Xvfb=xvfb
    evilwm=evilwm
    xterm=xterm
    xprop=x11-utils
    xdotool=xdotool
    sway=sway
    wtype=wtype
    tmux=tmux
)
lint_needs=(
    clang-format=clang-format
    clang-tidy=clang-tidy
    run-clang-tidy=clang-tidy
    '/usr/lib/llvm-*/include/clang-tidy/ClangTidyCheck.h=libclang-dev'
    '/usr/lib/llvm-*/include/llvm/ADT/StringRef.h=llvm-dev'
)

as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "korvane: installing needs root or sudo" >&2
        return 1
    fi
}

is_there() {
    case $1 in
        /*) compgen -G "$1" >/dev/null ;;
        chinese-font) [ -n "$(fc-list :lang=zh 2>/dev/null)" ] ;;
        *) command -v "$1" >/dev/null ;;
    esac
}

# install_missing ENTRY...: installs the packages whose probe fails.
install_missing() {
    local entry missing=()
    for entry in "$@"; do
        is_there "${entry%=*}" || missing+=("${entry##*=}")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if ! command -v apt-get >/dev/null; then
        echo "korvane: please install the equivalents of these Debian packages: ${missing[*]}" >&2
        return 1
    fi
    echo "korvane: installing ${missing[*]}" >&2
    local apt=(env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300)
    as_root "${apt[@]}" update </dev/null >&2
    as_root "${apt[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null >&2
}

# configure_and_build ROOT PRESET [CMAKE_OPTION...]: builds a preset in ROOT/build/PRESET. A tree
# that was configured under another path, as after a move of the checkout, is made anew.
configure_and_build() {
    local root=$1 preset=$2 cache=$1/build/$2/CMakeCache.txt
    shift 2
    if [ -f "$cache" ] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$cache"; then
        rm -rf "${cache%/*}"
    fi
    (
        cd "$root"
        cmake --preset "$preset" "$@" && cmake --build --preset "$preset"
    ) </dev/null >&2
}

# install_npm_packages DIRECTORY: what its lock file names, unless that is there already.
install_npm_packages() {
    [ "$1/node_modules/.package-lock.json" -nt "$1/package-lock.json" ] && return 0
    (cd "$1" && npm ci --no-audit --no-fund) </dev/null >&2
}

# The archive of Debian itself among apt's sources, however they are written: apt knows once it has
# their indexes. Security updates and the like are archives of other labels.
find_mirror() {
    apt-get indextargets 'Created-By: Packages' 'Origin: Debian' 'Label: Debian' \
        'Component: main' --format "\$(REPO_URI)" | sed -n 1p
}

# The address of Debian's archive: KORVANE_MIRROR, or where this machine's own apt has it; nothing
# where it has none.
debian_mirror() {
    local list mirror=${KORVANE_MIRROR:-$(find_mirror)}
    if [ -z "$mirror" ]; then
        as_root apt-get -q update >&2
        mirror=$(find_mirror)
    fi
    case $mirror in
        mirror+file:*) # a list of mirrors, of which debootstrap knows nothing
            list=/${mirror#mirror+file:}
            mirror=$(awk '/^[^#]/ { print $1; exit }' "${list%/}")
            ;;
    esac
    echo "$mirror"
}
