#!/usr/bin/env bash
# Builds the Debian package of the standalone program as a service: program, systemd unit,
# configuration file, maintainer scripts, documentation.
# Usage: scripts/pacchetto.sh [--programma FILE] [--uscita DIR]
#   --programma: package this already built nvr instead of building one in
#                ${NVR_BUILD:-build-pacchetto} (Debian's hardening flags, no tests)
#   --uscita: where the .deb goes (default: the repository folder)
# Prints the path of the .deb on its last line.
set -euo pipefail
sorgenti=$(cd "$(dirname "$0")/.." && pwd)
programma=
uscita=$sorgenti
while [ $# -gt 0 ]; do
  case $1 in
    --programma) programma=$2; shift 2 ;;
    --uscita) uscita=$2; shift 2 ;;
    *) echo "Opzione sconosciuta: $1 (uso: pacchetto.sh [--programma FILE] [--uscita DIR])" >&2
       exit 2 ;;
  esac
done
if [ -z "$programma" ]; then
  bash "$sorgenti/scripts/deps.sh" pacchetto >&2
  build=${NVR_BUILD:-build-pacchetto}
  case $build in /*) ;; *) build=$sorgenti/$build ;; esac
  if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$sorgenti" -B "$build" -DNVR_TESTS=OFF -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CPPFLAGS) $(dpkg-buildflags --get CXXFLAGS)" \
      -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" >&2
  fi
  cmake --build "$build" -j "$(nproc)" --target nvr_autonomo >&2
  programma=$build/autonomo/nvr
fi
[ -x "$programma" ] || { echo "Programma non trovato: $programma" >&2; exit 1; }
for c in dpkg-deb dpkg-shlibdeps; do
  command -v "$c" >/dev/null || { echo "Manca $c: apt-get install dpkg-dev" >&2; exit 1; }
done

versione=$(sed -n 's/.*kVersione = "\([^"]*\)".*/\1/p' "$sorgenti/autonomo/main.cc")
architettura=$(dpkg --print-architecture)
lavoro=$(mktemp -d)
trap 'rm -rf "$lavoro"' EXIT
radice=$lavoro/nvr
p=$sorgenti/pacchetto

install -d "$radice/DEBIAN" "$radice/usr/bin" "$radice/lib/systemd/system" "$radice/etc/nvr" \
  "$radice/usr/share/doc/nvr"
install -m 0755 "$programma" "$radice/usr/bin/nvr"
strip --strip-unneeded --remove-section=.comment --remove-section=.note "$radice/usr/bin/nvr"
install -m 0644 "$p/nvr.service" "$radice/lib/systemd/system/nvr.service"
install -m 0644 "$p/nvr.conf" "$radice/etc/nvr/nvr.conf"
install -m 0644 "$p/copyright" "$radice/usr/share/doc/nvr/copyright"
install -d "$radice/usr/share/man/man8"
sed "s/@VERSIONE@/$versione/" "$p/nvr.8" | gzip -9n >"$radice/usr/share/man/man8/nvr.8.gz"
chmod 0644 "$radice/usr/share/man/man8/nvr.8.gz"
install -m 0644 "$sorgenti/README.md" "$radice/usr/share/doc/nvr/README.md"
data=$(date -R -d "@$(git -C "$sorgenti" log -1 --format=%ct 2>/dev/null || date +%s)")
sed -e "s/@VERSIONE@/$versione/" -e "s/@DATA@/$data/" "$p/changelog" |
  gzip -9n >"$radice/usr/share/doc/nvr/changelog.gz"
chmod 0644 "$radice/usr/share/doc/nvr/changelog.gz"
for s in postinst prerm postrm; do install -m 0755 "$p/$s" "$radice/DEBIAN/$s"; done
echo /etc/nvr/nvr.conf >"$radice/DEBIAN/conffiles"

# The shared libraries the program links, as Debian package dependencies.
mkdir -p "$lavoro/debian"
printf 'Source: nvr\n\nPackage: nvr\nArchitecture: any\n' >"$lavoro/debian/control"
librerie=$(cd "$lavoro" && dpkg-shlibdeps -O "$radice/usr/bin/nvr" 2>/dev/null |
  sed -n 's/^shlibs:Depends=//p')
[ -n "$librerie" ] || { echo "dpkg-shlibdeps non ha trovato le librerie del programma" >&2; exit 1; }
dimensione=$(du -sk --exclude=DEBIAN "$radice" | cut -f1)
sed -e "s/@VERSIONE@/$versione/" -e "s/@ARCHITETTURA@/$architettura/" \
  -e "s/@DIMENSIONE@/$dimensione/" -e "s/@LIBRERIE@/$librerie/" "$p/control" \
  >"$radice/DEBIAN/control"
(cd "$radice" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z |
  xargs -0 md5sum >DEBIAN/md5sums)
chmod 0644 "$radice/DEBIAN/control" "$radice/DEBIAN/conffiles" "$radice/DEBIAN/md5sums"

mkdir -p "$uscita"
deb=$(cd "$uscita" && pwd)/nvr_${versione}_${architettura}.deb
dpkg-deb --root-owner-group -Zxz --build "$radice" "$deb" >&2
echo "$deb"
