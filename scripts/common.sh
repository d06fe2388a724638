# What the scripts share. Sourced, not run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

packages_to_build=(g++ cmake ninja-build pkg-config libboost-filesystem-dev libfmt-dev liblttng-ctl-dev libgtest-dev)
# Programs that the sockets and the trace controller are tested against, and what reads the output of the tools.
packages_to_test=(socat lttng-tools python3)
packages_to_bench=(libbenchmark-dev python3)
# What the benchmarks compare with; they run without it, too.
packages_to_compare=(libboost-all-dev libpoco-dev rt-tests)
packages_to_fuzz=(clang libclang-rt-dev)
packages_to_boot=(qemu-system-arm cpio)
packages_to_package=(dpkg-dev file)
# Where the packages are tried.
packages_to_try=(qemu-user-static)
packages_for_docs=(doxygen)
packages_to_check=(clang clang-format clang-tidy git)

# without_spreading COMMAND...: the sanitizers of gcc 12 do not find their place in memory on kernels that spread
# addresses widely.
without_spreading() {
    if setarch -R true 2>/dev/null; then
        setarch -R "$@"
    else
        "$@"
    fi
}

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

architectures=cmake/toolchains/architectures.txt

# use_architecture NAME: sets the variables below to what is particular to that foreign architecture.
use_architecture() {
    architecture=$1
    read -r _ debian_architecture triplet _ emulator emulated_processor kernel _ < <(grep "^${architecture:--} " "$architectures") ||
        fail "there is no foreign architecture '$architecture'; those in $architectures are: $(sed -nE 's/^([a-z0-9]+) .*/\1/p' "$architectures" | xargs)."
    packages_for_architecture=("g++-$triplet" qemu-user mmdebstrap)
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

this_suite() {
    (. /etc/os-release && printf '%s' "${VERSION_CODENAME:-}")
}

# Prints the address of the distribution's main archive, whichever apt uses here.
main_archive() {
    local suite archive
    suite=$(this_suite)
    archive=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' |
        awk -v suite="$suite" '$2 == suite && $3 == "main" { print $1; exit }')
    [ -n "$archive" ] || fail "apt knows no source for the main archive of '$suite'." \
        "Add one to /etc/apt/sources.list and run the script again."
    printf '%s' "$archive"
}
