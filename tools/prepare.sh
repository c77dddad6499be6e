# Sourced by ./run and ./test: installs what is missing on a Debian 12 and builds.
# Expects $root, the project's folder.

# Packages that the build, the tests and the local stack need.
kiv_packages=(
    g++ make cmake ninja-build pkg-config
    libjansson-dev libsqlite3-dev libcurl4-openssl-dev libssl-dev uuid-dev zlib1g-dev
    python3 python3-botocore python3-cryptography
    iputils-ping iproute2 util-linux procps
)
kiv_test_packages=(
    libgtest-dev libgmock-dev e2fsprogs clang-format groff-base iso-codes tzdata dpkg-dev file
    chromium chromium-driver strace openssl
)
# Beside those of the build, for fuzz/run.
kiv_fuzz_packages=(clang libclang-rt-14-dev iproute2 util-linux)

# install_missing PACKAGE...: asks apt only when something is missing.
install_missing() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null ||
            { echo "missing: ${missing[*]}; install them, or run this as root" >&2; return 1; }
        as_root=(sudo)
    fi
    echo "installing: ${missing[*]}"
    "${as_root[@]}" apt-get update -qq || return 1
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build FOLDER TARGET CMAKE_OPTION...
build() {
    local folder=$1 target=$2
    shift 2
    export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1
    cmake -S "$root" -B "$folder" -G Ninja "$@" >"$folder.cmake.log" 2>&1 ||
        { cat "$folder.cmake.log" >&2; return 1; }
    ninja -C "$folder" "$target"
}
