#!/usr/bin/env bash
# Installs the Debian packages the build needs, quietly and only when missing.
#   scripts/deps.sh native   compilers, test and tool libraries, reference tools
#   scripts/deps.sh cross    also the armel and s390x cross toolchains and qemu
#   scripts/deps.sh bench    what make bench needs: the native packages (DPDK, the rule set
#                            benchmark's and test's reference, among them)
#   scripts/deps.sh bench-armel  the cross toolchain and benchmark library for armel
set -euo pipefail
what=${1:-native}

# scdoc builds the manual pages; python3, tshark, editcap (wireshark-common)
# and scapy are the tests' references; iproute2, iptables, nftables and
# util-linux (unshare, nsenter, setpriv) run the live and daemon tests in
# network namespaces; libbpf-dev and linux-libc-dev build the kernel
# classifier's program (clang for the BPF target) and its loader.
native=(make cmake ninja-build g++ clang pkg-config ccache libgtest-dev libgmock-dev librapidcheck-dev
        libbenchmark-dev libclang-rt-14-dev libpcap-dev libcli11-dev libfmt-dev nlohmann-json3-dev libtins-dev
        scdoc python3 tshark wireshark-common python3-scapy binutils file valgrind
        libnetfilter-queue-dev libmnl-dev iptables iproute2 util-linux nftables dpdk-dev libbpf-dev linux-libc-dev)
cross=(g++-arm-linux-gnueabi g++-s390x-linux-gnu qemu-user
       libgtest-dev:armel libgmock-dev:armel libstdc++6:armel librapidcheck-dev:armel
       libgtest-dev:s390x libgmock-dev:s390x libstdc++6:s390x librapidcheck-dev:s390x)

wanted=("${native[@]}")
# DPDK is a native dependency already (the compiled sets are tested against
# its rte_acl); the mode keeps the benchmark's own entry point.
[ "$what" = bench ] && what=native
if [ "$what" = bench-armel ]; then
  cross+=(libbenchmark-dev:armel)
  what=cross
fi
if [ "$what" = cross ]; then
  for arch in armel s390x; do
    dpkg --print-foreign-architectures | grep -qx "$arch" || { dpkg --add-architecture "$arch"; need_update=1; }
  done
  wanted+=("${cross[@]}")
fi

missing=()
for pkg in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=; [ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
echo "installing: ${missing[*]}"
echo 'wireshark-common wireshark-common/install-setuid boolean false' | $SUDO debconf-set-selections 2>/dev/null || true
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
