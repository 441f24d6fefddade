#!/usr/bin/env bash
# Installs what a fresh machine lacks, from Debian's packages only.
set -euo pipefail

packages=(cmake ninja-build g++ googletest libgtest-dev libgmock-dev libbenchmark-dev
          g++-powerpc-linux-gnu qemu-user clang-format binutils tshark
          libcli11-dev libpcap-dev dpkg-dev pkg-config clang-14 libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if (( ${#missing[@]} )); then
    echo "installing: ${missing[*]}"
    sudo_cmd=()
    [[ $(id -u) -ne 0 ]] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update -qq
    # tshark's package asks whether to install its capture helper setuid;
    # answer it beforehand so the install never waits for a terminal.
    echo "wireshark-common wireshark-common/install-setuid boolean false" |
        "${sudo_cmd[@]}" debconf-set-selections
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
fi
