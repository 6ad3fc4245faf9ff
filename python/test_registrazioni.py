"""One segment's whole road through a real Flask host: recorded by ffmpeg from the RTSP test
camera, indexed, listed, played with byte ranges and validators, downloaded, deleted."""

import datetime
import os

from conftest import CONCESSO, attendi, avvia_registrazione


def test_registra_indicizza_elenca_riproduce_elimina(host, camera, archivio):
    config = avvia_registrazione(host, camera, archivio, modo="sempre")
    assert config["segmento_sec"] == 60  # 10 is below the shortest segment the config takes
    assert config["cartella"] == archivio

    # A segment is indexed once it is complete and 15 s old: one minute of recording and a bit.
    giorni = attendi(lambda: host.get("/api/nvr/giorni?cam=1").json["giorni"], 150, 2,
                     "un giorno con registrazioni")
    oggi = datetime.datetime.now().strftime("%Y-%m-%d")
    assert giorni == [oggi]
    elenco = attendi(
        lambda: host.get(f"/api/nvr/registrazioni?cam=1&giorno={oggi}").json["registrazioni"],
        30, 1, "un segmento elencato")
    seg = elenco[0]
    assert seg["url"] == f"/api/nvr/video/{seg['id']}"
    [(file,)] = host.sql("SELECT file FROM nvr_registrazioni WHERE id=?", (seg["id"],))
    assert file.startswith(archivio + "/") and os.path.isfile(file)
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
