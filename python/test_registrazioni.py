"""One segment's whole road through a real Flask host: recorded by ffmpeg from the RTSP test
camera, indexed, listed, played with byte ranges and validators, downloaded, deleted; and the
recorded segments exported and streamed as one timeline through Flask."""

import datetime
import hashlib
import os
import re
import socket
import time
import urllib.request
import zoneinfo

from conftest import CONCESSO, attendi, avvia_registrazione


def test_registra_indicizza_elenca_riproduce_elimina(host, camera, archivio):
    inizio = time.monotonic()
    avvia_registrazione(host, camera, archivio, modo="sempre")
    # Shorter segments than the API allows, so that one is complete at once; the engine picks
    # the new length up at its next pass.
    host.sql("UPDATE nvr_config SET segmento_sec=2")
    # Switching on wakes the engine: the recorder starts within a pass, not at the next sleep's end.
    def telecamera():
        t = host.get("/api/nvr/stato").json["telecamere"][0]
        return t if t["registrando"] else None
    assert attendi(telecamera, 15, 0.2, "il registratore avviato")["motivo"] == "continua"
    assert time.monotonic() - inizio < 10

    # A segment is indexed once it is complete and 15 s old.
    giorni = attendi(lambda: host.get("/api/nvr/giorni?cam=1").json["giorni"], 150, 2,
                     "un giorno con registrazioni")
    # Days are listed by the machine's date, a day's recordings by the host's zone (the test
    # host's is Europe/Rome): the two differ in the hour before the machine's midnight.
    assert giorni == [datetime.datetime.now().strftime("%Y-%m-%d")]
    oggi = datetime.datetime.now(zoneinfo.ZoneInfo("Europe/Rome")).strftime("%Y-%m-%d")
    elenco = attendi(
        lambda: host.get(f"/api/nvr/registrazioni?cam=1&giorno={oggi}").json["registrazioni"],
        30, 1, "un segmento elencato")
    seg = elenco[0]
    assert seg["url"] == f"/api/nvr/video/{seg['id']}"
    assert seg["motivo"] == "continua"
    [(file,)] = host.sql("SELECT file FROM nvr_registrazioni WHERE id=?", (seg["id"],))
    assert re.fullmatch(re.escape(archivio) + rf"/Ingresso/{oggi}/\d\d-\d\d-\d\d(_\d+)?\.mp4",
                        file), file
    assert os.path.isfile(file)
    with open(file, "rb") as f:
        contenuto = f.read()

    r = host.get(seg["url"], intestazioni={**CONCESSO, "Range": "bytes=0-99"})
    assert r.status == 206
    assert r.corpo == contenuto[:100]
    assert r.intestazioni["Content-Range"] == f"bytes 0-99/{len(contenuto)}"
    assert r.intestazioni["Content-Type"] == "video/mp4"
    assert r.intestazioni["Accept-Ranges"] == "bytes"
    assert r.intestazioni["Cache-Control"] == "private, max-age=3600"

    r = host.get(seg["url"])
    assert r.status == 200 and r.corpo == contenuto
    assert "attachment" not in r.intestazioni.get("Content-Disposition", "")
    etag = r.intestazioni["ETag"]
    r = host.get(seg["url"], intestazioni={**CONCESSO, "If-None-Match": etag})
    assert r.status == 304 and r.corpo == b""

    r = host.get(seg["url"] + "?scarica=1")
    assert r.status == 200 and r.corpo == contenuto
    assert r.intestazioni["Content-Disposition"] == \
        f"attachment; filename={os.path.basename(file)}"

    r = host.chiama("DELETE", f"/api/nvr/registrazione/{seg['id']}")
    assert r.status == 200 and r.json["status"] == "success", r.corpo
    assert not os.path.exists(file)
    assert host.sql("SELECT id FROM nvr_registrazioni WHERE id=?", (seg["id"],)) == []
    assert host.get(seg["url"]).status == 404
    assert "[NVR] Ingresso: registrazione avviata (continua)\n" in host.testo_log()


def test_dal_vivo_attraverso_flask(host, camera):
    """The optional live view through Flask: a stream that starts with its initialisation
    segment, a picture, and the Italian 404 behind the host's own guards."""
    host.aggiungi_camera(5, "Vivo", camera)
    richiesta = urllib.request.Request(f"http://127.0.0.1:{host.porta}/api/vivo/5",
                                       headers=CONCESSO)
    with urllib.request.urlopen(richiesta, timeout=20) as r:
        assert r.headers["Content-Type"] == "video/mp4"
        assert r.read(8)[4:] == b"ftyp"
    assert host.get("/api/vivo/5/istantanea").corpo[:2] == b"\xff\xd8"
    assert host.get("/api/vivo/99").json == {"status": "error",
                                              "message": "Telecamera non trovata"}
    assert host.get("/api/vivo/5", intestazioni={}).status != 200


def _sul_filo(h, percorso):
    """The answer's header and every body byte up to the server's close, as they came."""
    richiesta = f"GET {percorso} HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" + \
        "".join(f"{k}: {v}\r\n" for k, v in CONCESSO.items()) + "\r\n"
    dati = b""
    with socket.create_connection(("127.0.0.1", h.porta), timeout=30) as s:
        s.sendall(richiesta.encode())
        while pezzo := s.recv(1 << 16):
            dati += pezzo
    testata, _, corpo = dati.partition(b"\r\n\r\n")
    return testata.decode("latin-1").lower(), corpo


def test_esporta_e_flusso_attraverso_flask(host, camera, archivio):
    """Segments of the real recorder: the export's length and hash as announced, and a stream
    that starts with its initialisation segment."""
    avvia_registrazione(host, camera, archivio, modo="sempre")
    host.sql("UPDATE nvr_config SET segmento_sec=2")
    oggi = datetime.datetime.now(zoneinfo.ZoneInfo("Europe/Rome")).strftime("%Y-%m-%d")

    def tre_segmenti():
        s = host.get(f"/api/nvr/registrazioni?cam=1&giorno={oggi}").json["registrazioni"]
        return s if len(s) >= 3 else None
    segmenti = attendi(tre_segmenti, 150, 2, "tre segmenti elencati")
    domanda = f"cam=1&da={segmenti[0]['inizio']}&a={segmenti[-1]['fine']}"

    impronta = host.get(f"/api/esporta/impronta?{domanda}")
    assert impronta.status == 200, impronta.corpo
    testata, corpo = _sul_filo(host, f"/api/esporta?{domanda}")
    assert testata.startswith("http/1.1 200"), testata
    assert f"\r\ncontent-length: {len(corpo)}\r\n" in testata + "\r\n", testata
    assert len(corpo) == impronta.json["byte"]
    assert hashlib.sha256(corpo).hexdigest() == impronta.json["sha256"]

    richiesta = urllib.request.Request(
        f"http://127.0.0.1:{host.porta}/api/flusso?cam=1&da={segmenti[1]['inizio']}",
        headers=CONCESSO)
    with urllib.request.urlopen(richiesta, timeout=20) as r:
        assert r.headers["Content-Type"] == "video/mp4"
        assert r.read(8)[4:] == b"ftyp"
