# What the scripts share. Sourced, not run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

packages_to_build=(g++ cmake ninja-build pkg-config libboost-filesystem-dev libfmt-dev liblttng-ctl-dev libgtest-dev)
# Programs that the sockets and the trace controller are tested against.
packages_to_test=(socat lttng-tools)
packages_to_bench=(libbenchmark-dev python3)
packages_for_arm=(g++-arm-linux-gnueabihf qemu-user mmdebstrap)
packages_for_arm_boot=(qemu-system-arm cpio)
packages_to_check=(clang clang-format clang-tidy git)

step() {
    printf '\n==> %s\n' "$*"
}

fail() {
    printf '\nerror: %s\n' "$1" >&2
    shift
    (($# == 0)) || printf '       %s\n' "$@" >&2
    exit 1
}

# Runs a command as root, or says that this is not possible.
as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    elif command -v sudo >/dev/null && { sudo -n true 2>/dev/null || [ -t 0 ]; }; then
        sudo "$@"
    else
        return 127
    fi
}

# need_packages PACKAGE...: installs what is missing of them.
need_packages() {
    local package missing=()
    command -v dpkg-query >/dev/null || fail "this machine has no apt, which this script installs packages with." \
        "Install what these Debian packages hold: $*" \
        "Then build by hand: cmake --workflow --preset debug"
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)" = installed ] || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    step "Installing ${missing[*]}"
    local status=0
    as_root apt-get update -qq || status=$?
    [ "$status" != 127 ] || fail "these packages are missing, and installing them needs root or sudo:" "${missing[*]}" \
        "As root, run: apt-get update && apt-get install --no-install-recommends ${missing[*]}"
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -qq -o Dpkg::Use-Pty=0 --no-install-recommends "${missing[@]}" ||
        fail "not all of these packages could be installed: ${missing[*]}" \
            "Check that the sources in /etc/apt name the distribution's main archive and that it can be reached, then run:" \
            "apt-get update && apt-get install --no-install-recommends ${missing[*]}"
}
