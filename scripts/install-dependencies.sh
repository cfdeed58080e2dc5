#!/usr/bin/env bash
# Installs, from Debian's packages, whatever this project needs that the machine does not have yet.
# Usage: scripts/install-dependencies.sh [test|demo|bench|hardening]...
set -euo pipefail

packages=(cmake ninja-build g++ pkgconf qt6-base-dev)
for need in "$@"; do
    case "$need" in
        test) packages+=(nginx-light python3) ;;
        demo) ;;
        bench) packages+=(libbenchmark-dev nginx-light curl gdal-bin gnuplot-nox python3) ;;
        hardening) packages+=(clang libclang-rt-14-dev nginx-light python3) ;;
        *) echo "unknown need: $need" >&2; exit 2 ;;
    esac
done

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
# No service is started by the install: the tests run their own nginx on a free loopback port.
DEBIAN_FRONTEND=noninteractive RUNLEVEL=1 $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
