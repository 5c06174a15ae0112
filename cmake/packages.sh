# Installs what the project builds with and what is missing here. Sourced by ./run and ./test.
. cmake/progress.sh
need_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "installing ${#missing[@]} packages and what they need: ${missing[*]}" >&2
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    tell "packages: reading the lists"
    $sudo apt-get update -qq
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends -o APT::Status-Fd=1 \
        "${missing[@]}" | show_packages
}

# libntfs and libext2fs are the file systems of the hosted machine, nbdkit serves its disks, libnbd
# reaches those of other servers.
BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libgtest-dev libcli11-dev libssl-dev nlohmann-json3-dev
    libutfcpp-dev zlib1g-dev ntfs-3g-dev ntfs-3g libext2fs-dev e2fsprogs libhivex-dev nbdkit nbdkit-plugin-dev
    libnbd-dev)
TEST_PACKAGES=(clang-14 lld-14 libclang-rt-14-dev clang-format-14 clang-tidy-14 g++-mingw-w64-x86-64-win32
    g++-mingw-w64-x86-64-posix mingw-w64-x86-64-dev python3 wine wine64 libnbd-bin python3-libnbd qemu-utils fio
    fuse3 adduser dpkg-dev lintian systemd python3-jsonschema python3-prometheus-client osslsigncode mtools
    dosfstools fdisk chntpw qemu-system-x86 ovmf gnu-efi)
# With KVR_LONG=1.
LONG_PACKAGES=(ansible-core prometheus libvirt-clients)
