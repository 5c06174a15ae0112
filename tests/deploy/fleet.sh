#!/usr/bin/env bash
# What deploy/ offers for many hosts, with the tools that it is made for: Prometheus' promtool reads the figures and tries
# the alerts, Ansible plays the role over three hosts, which are three folders of this one. Argument: the build folder.
# Exit code 77: a tool is missing.
set -eu
deploy=$(cd "$(dirname "$0")/../../deploy" && pwd)
export PATH=$1/tool:$PATH LC_ALL=C.UTF-8 ANSIBLE_NOCOLOR=1 ANSIBLE_LOCALHOST_WARNING=0
scratch=$(mktemp -d /tmp/kvr-fleet-XXXXXX)
hosts="one two three"

fail() { echo "FAILED: $*"; exit 1; }

cleanup() {
    for host in $hosts; do kvrhost stop "$scratch/$host/pc" 2>/dev/null || true; done
    rm -rf "$scratch"
}
trap cleanup EXIT

for tool in ansible-playbook promtool; do
    command -v $tool >/dev/null || { echo "SKIPPED: no $tool"; exit 77; }
done
[ "$(id -u)" -eq 0 ] || { echo "SKIPPED: needs root"; exit 77; }
if command -v virt-xml-validate >/dev/null; then
    virt-xml-validate "$deploy/libvirt/kvr-pc.xml" domain
else
    python3 -c 'import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])' "$deploy/libvirt/kvr-pc.xml"
    echo "libvirt's schema is not here: the example is well-formed XML"
fi

# ---- three hosts, set up twice, rebooted in turn --------------------------------------------------------------

{
    echo "kvr:"
    echo "  vars:"
    echo "    {ansible_connection: local, kvr_user: root, kvr_service: false,"
    echo "     kvr_folder: '$scratch/{{ inventory_hostname }}',"
    echo "     kvr_machines: [{name: pc, create: [--size, 256M, --volumes, '2'], volumes: ["
    echo "       {number: 1, storage: 80M, at_boot: discard}, {number: 2, storage: 80M, at_boot: keep}]}]}"
    echo "  hosts:"
    for host in $hosts; do echo "    $host:"; done
} >"$scratch/hosts.yml"
play() { (cd "$deploy/ansible" && ansible-playbook -i "$scratch/hosts.yml" "$1" </dev/null >"$scratch/play" 2>&1); }
boots() { for host in $hosts; do kvrhost list "$scratch/$host/pc" | awk 'NR > 1 { printf "%s ", $4 }'; done; }

play site.yml || fail "site.yml: $(cat "$scratch/play")"
for host in $hosts; do
    kvrctl --machine "$scratch/$host/pc" status --check >/dev/null || fail "$host is not as configured"
done
[ "$(boots)" = "2 2 2 " ] || fail "boots after the set-up: $(boots)"
play site.yml || fail "site.yml again: $(cat "$scratch/play")"
[ "$(grep -c 'changed=0 ' "$scratch/play")" -eq 3 ] || fail "set up twice is not as once: $(cat "$scratch/play")"
play reboot.yml || fail "reboot.yml: $(cat "$scratch/play")"
[ "$(boots)" = "3 3 3 " ] || fail "boots after the reboots: $(boots)"
kvrhost stop "$scratch/two/pc"
if play reboot.yml; then fail "a reboot that cannot be is no failure"; fi
[ "$(boots)" = "4 - 3 " ] || fail "after a failure the next host had its turn: $(boots)"

# ---- figures and alerts ---------------------------------------------------------------------------------------

mkdir "$scratch/figures"
touch "$scratch/figures/kvr-gone.prom"
KVR_MACHINES=$scratch/one:$scratch/two/pc "$deploy/prometheus/kvr-metrics" "$scratch/figures"
[ "$(ls -A "$scratch/figures")" = kvr-pc.prom ] || fail "files of the collector: $(ls -A "$scratch/figures")"
KVR_MACHINES=$scratch/one "$deploy/prometheus/kvr-metrics" "$scratch/figures"
promtool check metrics <"$scratch/figures/kvr-pc.prom" || fail "promtool does not read the figures"
grep -qx 'kvr_volume_protected{machine="pc",volume="HarddiskVolume1"} 1' "$scratch/figures/kvr-pc.prom" || fail "figures"
grep -o 'kvr_[a-z_]*' "$deploy/prometheus/kvr-rules.yml" | sort -u | while read -r name; do
    grep -q "^# TYPE $name gauge$" "$scratch/figures/kvr-pc.prom" || fail "an alert on $name, which nobody writes"
done
KVR_MACHINES=$scratch/two "$deploy/prometheus/kvr-metrics" "$scratch/figures"
[ "$(grep -v '^#' "$scratch/figures/kvr-pc.prom")" = 'kvr_machine_up{machine="pc"} 0' ] || fail "a machine that is off"
cp "$deploy/prometheus/kvr-rules.yml" "$(dirname "$0")/rules_test.yml" "$scratch"
promtool test rules "$scratch/rules_test.yml" || fail "the alerts"
