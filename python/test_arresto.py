"""A Flask host ending with recorders running. At SIGTERM they stop first (their last segment
finalised, no ffmpeg left), then the host's own Python handler runs, or the process exits 0. At a
normal exit the exit hook stops them, and the interpreter closes cleanly although the engine
thread is alive and may be calling into it."""

import glob
import json
import os
import signal
import subprocess
import time

import pytest

from conftest import Host, attendi, avvia_registrazione, ffmpeg_in, in_corso


def durata(file):
    """The duration ffprobe reads in `file`; None when it is not a finished MP4."""
    r = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format=duration",
                        "-of", "csv=p=0", file], capture_output=True, text=True, timeout=30)
    try:
        return float(r.stdout.strip()) if r.returncode == 0 else None
    except ValueError:
        return None


def registra(host, camera, archivio):
    avvia_registrazione(host, camera, archivio, modo="sempre")
    attendi(lambda: in_corso(host) and ffmpeg_in(archivio), 40, 1, "il registratore")
    attendi(lambda: any(os.path.getsize(f) > 0 for f in glob.glob(in_corso_mp4(archivio))), 30,
            0.5, "un segmento con dei dati")


def in_corso_mp4(archivio):
    return os.path.join(archivio, "*", "in_corso", "*.mp4")


def segmenti_finiti(archivio):
    archiviati = os.path.join(archivio, "*", "*", "*.mp4")
    segmenti = glob.glob(in_corso_mp4(archivio)) + glob.glob(archiviati)
    return segmenti and all(durata(f) for f in segmenti)


@pytest.mark.parametrize("gestore_proprio, uscita", [(True, 7), (False, 0)])
def test_sigterm_ferma_i_registratori_e_poi_passa_all_host(tmp_path, camera, archivio,
                                                         gestore_proprio, uscita):
    segno = str(tmp_path / "sigterm.json") if gestore_proprio else ""
    host = Host(str(tmp_path), gestore_sigterm=segno)
    try:
        registra(host, camera, archivio)
        host.proc.send_signal(signal.SIGTERM)
        assert host.proc.wait(60) == uscita
    finally:
        host.termina()

    assert ffmpeg_in(archivio) == []
    assert segmenti_finiti(archivio)
    if gestore_proprio:
        with open(segno) as f:
            assert json.load(f) == {"segnale": signal.SIGTERM, "frame": True, "ffmpeg_vivi": 0}
    assert "registrazione telecamera 1 fermata (arresto del server)" in host.testo_log()


def test_uscita_normale_con_il_motore_vivo(tmp_path, camera, archivio):
    host = Host(str(tmp_path))
    try:
        registra(host, camera, archivio)
        # With slow states the engine is most likely inside the host's function at exit.
        assert host.post("/prova/stati", {"stati": {}, "lento": 2}).status == 200
        time.sleep(3)
        inizio = time.monotonic()
        assert host.post("/prova/esci", {}).status == 200
        assert host.proc.wait(60) == 0, host.testo_log()
        assert time.monotonic() - inizio < 30
    finally:
        host.termina()

    assert ffmpeg_in(archivio) == []
    assert segmenti_finiti(archivio)
    assert "registrazione telecamera 1 fermata (arresto del server)" in host.testo_log()
