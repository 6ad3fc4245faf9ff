#!/usr/bin/env bash
# Installs the Debian packages needed to build, test and run the recorder.
# Usage: scripts/deps.sh [run|test|bench|pacchetto]   (default: test, a superset of run; bench
# adds the baselines the benchmarks measure against to test; pacchetto adds to run what builds
# the Debian package)
set -euo pipefail
what=${1:-test}

run_pkgs=(
  build-essential cmake pkg-config
  nlohmann-json3-dev libsqlite3-dev libhowardhinnant-date-dev tzdata
  libmicrohttpd-dev libcli11-dev libssl-dev libmosquitto-dev libsystemd-dev
  pybind11-dev python3-dev python3-flask
  ffmpeg util-linux procps mount sudo
)
test_pkgs=(
  googletest libgtest-dev libcpp-httplib-dev sqlite3 python3-pytest python3-tz
  python3-gi gir1.2-gst-rtsp-server-1.0 gstreamer1.0-plugins-base
  gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly
  e2fsprogs dosfstools
  prometheus  # promtool checks the text of /metrics
  mosquitto mosquitto-clients
  chromium
  curl  # the installed package reached over HTTPS
)
pacchetto_pkgs=(dpkg-dev fakeroot lintian)

# The playback benchmark serves the same file with nginx as its baseline.
bench_pkgs=(nginx)

pkgs=("${run_pkgs[@]}")
case "$what" in
  test) pkgs+=("${test_pkgs[@]}" "${pacchetto_pkgs[@]}") ;;
  bench) pkgs+=("${test_pkgs[@]}" "${pacchetto_pkgs[@]}" "${bench_pkgs[@]}") ;;
  pacchetto) pkgs+=("${pacchetto_pkgs[@]}") ;;
esac
# The browser tests run on Node. A machine that already has node and npm from elsewhere keeps
# them: Debian's npm conflicts with a nodejs that ships its own npm.
if [ "$what" = test ] || [ "$what" = bench ]; then
  command -v node >/dev/null || pkgs+=(nodejs)
  command -v npm >/dev/null || pkgs+=(npm)
fi

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
