#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds with. Run as root (or with sudo available);
# does nothing when they are all present already.
set -euo pipefail
packages=(
    cmake g++ make pkg-config
    qtbase5-dev qtbase5-dev-tools
    libbenchmark-dev
    libsodium-dev
    libfftw3-dev
    libsndfile1-dev libsoxr-dev
    libavformat-dev libavcodec-dev libswresample-dev libavutil-dev
    sox ffmpeg
    python3-numpy
    espeak-ng
    python3-scipy
    clang libclang-rt-14-dev
)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
