#!/usr/bin/env bash
# The Debian package as an administrator meets it: installed, used by others than root, served by systemd, purged. It
# happens in namespaces of its own over an overlay of this system, so that the packages, users and files of the machine
# stay as they are. Argument: the build folder. Exit code 77: a facility is missing.
set -eu

fail() { echo "FAILED: $*"; exit 1; }
as() { runuser -u "$1" -- env HOME="$(getent passwd "$1" | cut -d: -f6)" "${@:2}"; }

# ---- this system ---------------------------------------------------------------------------------------------

outside() {
    [ "$(id -u)" -eq 0 ] || { echo "SKIPPED: needs root"; exit 77; }
    cmake --build "$1" --target deb -- --quiet >/dev/null
    scratch=$(mktemp -d /tmp/kvr-package-XXXXXX)
    trap 'losetup -j "$scratch/disk.img" -O NAME -n | xargs -r losetup -d; rm -rf "$scratch"' EXIT
    cp "$1"/kvr_*.deb "$0" "$scratch"
    [ "$(dpkg-deb -f "$scratch"/*.deb Version)" = "$(cat "$(dirname "$0")/../../VERSION")" ] || fail "another version"
    lintian --allow-root --fail-on error,warning "$scratch"/*.deb || fail "lintian complains"
    timeout -s KILL 100 unshare --mount --pid --fork --kill-child=KILL --cgroup --uts --ipc \
        "$0" overlaid "$scratch" </dev/null >"$scratch/result" 2>&1 || true
    cat "$scratch/result"
    case $(tail -n 1 "$scratch/result") in
        "all done") exit 0 ;;
        SKIPPED*) exit 77 ;;
    esac
    fail "the stages in the overlay did not end well"
}

overlaid() {
    mkdir "$1/system"
    mount -t tmpfs none "$1/system" && cd "$1/system" && mkdir upper work root
    mount -t overlay none -o lowerdir=/,upperdir=upper,workdir=work root || { echo "SKIPPED: no overlay"; exit; }
    cd root
    mount -t proc none proc
    mount -t sysfs -o ro none sys
    for folder in run tmp dev; do mount -t tmpfs none $folder; done
    for node in null:3 zero:5 full:7 random:8 urandom:9; do mknod -m 666 "dev/${node%:*}" c 1 "${node#*:}"; done
    for node in {0..15}; do mknod "dev/loop$node" b 7 "$node"; done
    mknod dev/loop-control c 10 237
    mkdir -p dev/shm
    mount -t cgroup2 none sys/fs/cgroup || true
    mount --bind "$1" mnt
    pivot_root . srv
    exec chroot . /mnt/package.sh inside
}

# ---- a copy of it --------------------------------------------------------------------------------------------

# What dpkg, adduser, man and systemd keep about themselves is theirs.
everything() {
    find /etc /usr /var /opt -xdev \( -path /var/lib/dpkg -o -path /var/cache -o -path /var/log -o -path /var/backups \
        -o -path /etc/systemd -o -path /var/lib/systemd -o -path /etc/machine-id -o -path '/etc/*-' -o -path /etc/.pwd.lock \) \
        -prune -o -printf '%p %y\n' | sort
    cat /etc/passwd /etc/group
}

inside() {
    umount -l /srv
    useradd --create-home worker
    rm -rf /usr/sbin/policy-rc.d /etc/dpkg/dpkg.cfg.d  # images of containers forbid with them what is tried here
    everything >/mnt/before
    dpkg -i /mnt/*.deb >/dev/null 2>/mnt/dpkg || fail "$(cat /mnt/dpkg)"
    local version
    version=$(dpkg-query -W -f '${Version}' kvr)
    [ "$(kvrhost --version) $(kvrctl --version)" = "kvrhost $version kvrctl $version" ] || fail "the tools' versions"
    nbdkit kvr --dump-plugin | grep -qx "version=$version" || fail "the plugin's version"
    bash -c '. /usr/share/bash-completion/completions/kvrctl && complete -p kvrctl' >/dev/null || fail "completion"
    for page in kvrhost kvrctl nbdkit-kvr-plugin; do [ -e /usr/share/man/man1/$page.1.gz ] || fail "no page $page"; done

    # What is for Windows is found where it was installed: only then the image is looked at.
    local said
    truncate -s 1M /tmp/empty.raw
    said=$(kvrhost prove /tmp/empty.raw 2>&1) && fail "a proof without a Windows"
    [[ $said == *"the image has no partition table"* ]] || fail "kvr64.sys, kvrctl.exe or kvrprove.exe: $said"
    rm -r /tmp/empty.raw*

    # Somebody of no rights, in a folder of his own.
    local pc=/home/worker/pc process
    as worker kvrhost create $pc --size 64M >/dev/null
    as worker kvrhost serve $pc --background >/dev/null
    as worker kvrctl --machine $pc status >/dev/null || fail "status for its owner"
    as nobody kvrctl --machine $pc status >/dev/null 2>&1 && fail "status for anybody"
    process=$(sed -n 's/.*process \([0-9]*\)$/\1/p' $pc/log)
    for library in nbdkit-kvr-plugin kvr-send-guard; do
        grep -q "/usr/lib/kvr/$library.so" "/proc/$process/maps" || fail "$library is not the installed one"
    done
    as worker kvrhost stop $pc
    rm -r $pc

    local unit
    cd /usr/lib/systemd/system
    cp kvr@.service /run/kvr@pc.service
    for unit in /run/kvr@pc.service $PWD/kvr-metrics.service; do
        systemd-analyze verify --man=no "$unit" || fail "$unit is not understood"
        systemd-analyze security --offline=true --threshold=20 "$unit" >/run/security ||
            fail "$unit lets more through than it should: $(grep Overall /run/security)"
    done
    as kvr kvrhost create /var/lib/kvr/pc --size 64M >/dev/null
    cp --sparse=always /var/lib/kvr/pc/disk0.img /mnt/disk.img
    [ -e /sys/fs/cgroup/cgroup.procs ] || { echo "without systemd: no second hierarchy of control groups"; purge; exit; }
    printf '[Service]\nType=oneshot\nExecStart=/mnt/package.sh service\nStandardOutput=append:/mnt/result\n%s' \
        "StandardError=inherit" >/etc/systemd/system/stages.service
    printf '[Unit]\nWants=stages.service\n' >/etc/systemd/system/stages.target
    container=other exec /lib/systemd/systemd --unit=stages.target
}

# ---- with systemd --------------------------------------------------------------------------------------------

service() {
    trap 'systemctl --no-block exit 0' EXIT
    systemctl start kvr@pc || fail "$(systemctl status kvr@pc)"
    local process loop
    process=$(sed -n 's/.*process \([0-9]*\)$/\1/p' /var/lib/kvr/pc/log)
    [ "$(stat -c %U "/proc/$process")" = kvr ] || fail "the server is another user's"
    grep -qx "Seccomp:.2" "/proc/$process/status" || fail "the server may call anything"
    as kvr kvrctl --machine /var/lib/kvr/pc status >/dev/null || fail "status of a served machine"
    # A disk that is a block device, let in by the unit; one that is named twice is two of one.
    loop=$(losetup --find --show /mnt/disk.img 2>/dev/null) || loop=
    if [ -n "$loop" ]; then
        chown kvr "$loop"
        as kvr kvrhost create /var/lib/kvr/twice --disk "$loop" --disk "$loop" >/dev/null 2>&1 && fail "a device twice"
        as kvr kvrhost create /var/lib/kvr/loop --disk "$loop" >/dev/null || fail "no machine on a block device"
        systemctl start kvr@loop || fail "$(systemctl status kvr@loop)"
        kvrctl --machine /var/lib/kvr/loop volumes --names | grep -qx HarddiskVolume1 || fail "a block device's volumes"
        systemctl stop kvr@loop
        losetup --detach "$loop"
        as kvr kvrhost delete --yes /var/lib/kvr/loop >/dev/null || fail "a machine on a block device is not deleted"
        rm -r /var/lib/kvr/.local
    fi
    [ "$(kvrhost reboot /var/lib/kvr/pc 2>&1)" = "" ] || fail "a reboot under systemd"
    mkdir -p /var/lib/prometheus/node-exporter
    systemctl start kvr-metrics || fail "$(systemctl status kvr-metrics)"
    grep -qx 'kvr_machine_up{machine="pc"} [01]' /var/lib/prometheus/node-exporter/kvr-pc.prom || fail "no figures"
    rm /var/lib/prometheus/node-exporter/kvr-pc.prom
    rmdir -p --ignore-fail-on-non-empty /var/lib/prometheus/node-exporter
    dpkg --remove kvr >/dev/null 2>&1 || fail "it is not removed"
    grep -q "server: ends" /var/lib/kvr/pc/log || fail "the machine was not shut down before its tools went"
    purge
}

# Machines stay; when none is left, nothing is.
purge() {
    dpkg --purge kvr >/dev/null 2>&1 || fail "it is not purged"
    [ -e /var/lib/kvr/pc/disk0.img ] || fail "a purge took a machine along"
    dpkg -i /mnt/*.deb >/dev/null 2>&1
    rm -r /var/lib/kvr/pc
    dpkg --purge kvr >/dev/null 2>&1 || fail "it is not purged"
    everything | diff /mnt/before - >/mnt/left || fail "left behind: $(cat /mnt/left)"
    echo "all done"
}

case $1 in
    overlaid | inside | service) "$@" ;;
    *) outside "$1" ;;
esac
