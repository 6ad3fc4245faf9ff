#!/usr/bin/env bash
# The package on this machine: built from the given program, checked with dpkg-deb and lintian,
# installed, its unit's ExecStart run as systemd would run it (notify socket and watchdog
# included), reached over HTTPS with its self-signed certificate, upgraded, removed and purged with the data left in place.
# Usage: pacchetto_root_test.sh <nvr program>. Exit 77 (skipped) with the reason when it cannot run.
set -euo pipefail
programma=$1
salta() { echo "SALTATO: $*"; exit 77; }
[ "$(id -u)" = 0 ] || salta "serve root (dpkg -i)"
for c in dpkg-deb dpkg-shlibdeps fakeroot lintian systemd-analyze curl; do
  command -v $c >/dev/null || salta "manca $c"
done
dpkg -s nvr >/dev/null 2>&1 && salta "nvr e' gia' installato: il test non tocca un'installazione vera"
[ -e /var/lib/nvr ] && salta "/var/lib/nvr esiste gia': il test non tocca dati veri"

lavoro=$(mktemp -d)
pid=
ascolto=
pulisci() {
  [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
  [ -n "$ascolto" ] && kill "$ascolto" 2>/dev/null
  dpkg --purge nvr >/dev/null 2>&1 || true
  rm -rf /var/lib/nvr "$lavoro"
}
trap pulisci EXIT
sbaglia() { echo "ERRORE: $*"; exit 1; }

deb=$(bash "$(dirname "$0")/../scripts/pacchetto.sh" --programma "$programma" --uscita "$lavoro" |
  tail -1)
contenuto=$(dpkg-deb -c "$deb")
for f in ./usr/bin/nvr ./lib/systemd/system/nvr.service ./etc/nvr/nvr.conf; do
  grep -q " $f\$" <<<"$contenuto" || sbaglia "$f manca nel pacchetto"
done
grep -q '/var/lib/nvr' <<<"$contenuto" && sbaglia "il pacchetto non deve possedere i dati"
dpkg-deb -f "$deb" Depends | grep -qw ffmpeg || sbaglia "manca la dipendenza da ffmpeg"
[ "$(dpkg-deb -f "$deb" Suggests)" = "cifs-utils, nfs-common" ] || sbaglia "Suggests errato"
lintian --allow-root "$deb" >"$lavoro/lintian" 2>&1 || true
grep '^E:' "$lavoro/lintian" && sbaglia "lintian riporta errori"

dpkg -i "$deb" >/dev/null
systemd-analyze verify /lib/systemd/system/nvr.service || sbaglia "unita' non valida"

# A bad value: one line naming the key, an exit status that is not 0.
printf 'porta = ottanta\n' >"$lavoro/errata.conf"
rc=0
/usr/bin/nvr --servizio --configurazione "$lavoro/errata.conf" >/dev/null 2>"$lavoro/err" || rc=$?
[ "$rc" != 0 ] && [ "$(wc -l <"$lavoro/err")" = 1 ] && grep -q 'chiave porta' "$lavoro/err" ||
  sbaglia "configurazione errata: uscita $rc, $(cat "$lavoro/err")"

# The unit's own command, with a free port in the installed configuration.
porta=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("", 0)); print(s.getsockname()[1])')
sed -i "s/^porta = .*/porta = $porta/" /etc/nvr/nvr.conf
comando=$(sed -n 's/^ExecStart=//p' /lib/systemd/system/nvr.service)
export NOTIFY_SOCKET=$lavoro/notifica WATCHDOG_USEC=3000000
/usr/bin/python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); s.bind(sys.argv[1])
while True:
    print(s.recv(4096).decode().replace("\n", " "), flush=True)' "$NOTIFY_SOCKET" \
  >"$lavoro/notifiche" &
ascolto=$!
for _ in $(seq 50); do [ -S "$NOTIFY_SOCKET" ] && break; sleep 0.1; done
(cd / && exec $comando) </dev/null >"$lavoro/uscita" 2>&1 &
pid=$!
for _ in $(seq 60); do grep -q 'READY=1' "$lavoro/notifiche" && break; sleep 1; done
grep -q 'READY=1' "$lavoro/notifiche" || sbaglia "nessun READY=1: $(cat "$lavoro/uscita")"
sleep 3
grep -q 'WATCHDOG=1' "$lavoro/notifiche" || sbaglia "nessun WATCHDOG=1"

# Over HTTPS, trusting only the certificate made at first start in the data folder.
cert=/var/lib/nvr/tls/certificato.pem
[ -f "$cert" ] || sbaglia "nessun certificato autofirmato in $cert"
salute=$(curl -sS --cacert "$cert" "https://localhost:$porta/api/salute") ||
  sbaglia "/api/salute non raggiungibile in HTTPS"
grep -q '"stato"' <<<"$salute" || sbaglia "/api/salute: $salute"
# And on the machine's LAN address, as a phone on the home network reaches it.
lan=$(hostname -I 2>/dev/null | awk '{print $1}')
if [ -n "$lan" ]; then
  case $lan in *:*) url="https://[$lan]:$porta/api/salute" ;; *) url="https://$lan:$porta/api/salute" ;; esac
  curl -sS --cacert "$cert" "$url" | grep -q '"stato"' || sbaglia "/api/salute non raggiungibile su $url"
fi

file=/var/lib/nvr/password-iniziale
[ "$(stat -c %a "$file")" = 600 ] || sbaglia "$file non e' 0600"
grep -qF "$(cat "$file")" "$lavoro/uscita" && sbaglia "la password compare nell'uscita"
grep -qF "$file" "$lavoro/uscita" || sbaglia "l'uscita non dice dov'e' la password"

kill -TERM "$pid"
rc=0
wait "$pid" || rc=$?
pid=
[ "$rc" = 0 ] || sbaglia "uscita $rc dopo SIGTERM"
grep -q 'STOPPING=1' "$lavoro/notifiche" || sbaglia "nessun STOPPING=1"

dpkg -i "$deb" >/dev/null  # upgrade over itself
dpkg --remove nvr >/dev/null
[ -f /var/lib/nvr/nvr.db ] && [ -f "$file" ] || sbaglia "dati persi dalla rimozione"
dpkg --purge nvr >/dev/null
[ -f /var/lib/nvr/nvr.db ] || sbaglia "dati persi dall'eliminazione completa"
[ -e /etc/nvr/nvr.conf ] && sbaglia "la configurazione resta dopo l'eliminazione completa"
echo "pacchetto: ok"
