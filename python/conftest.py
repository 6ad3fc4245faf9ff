"""Shared pieces of the extension's tests: the test host as a real server process, the RTSP
test camera, an archive folder inside an allowed root, and HTTP over loopback."""

import json
import os
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

import pytest

QUI = os.path.dirname(os.path.abspath(__file__))
SORGENTI = os.environ.get("NVR_SORGENTI", os.path.dirname(QUI))
PYTHON = os.environ.get("NVR_PYTHON", "/usr/bin/python3")
CONCESSO = {"X-Prova-Login": "si", "X-Prova-Admin": "si"}


def porta_libera():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def attendi(condizione, limite, passo=0.5, cosa="la condizione"):
    """Polls `condizione` until it gives something true; fails the test after `limite` s."""
    fine = time.monotonic() + limite
    while True:
        valore = condizione()
        if valore:
            return valore
        if time.monotonic() > fine:
            pytest.fail(f"dopo {limite} s non si e' avverato: {cosa}")
        time.sleep(passo)


class Risposta:
    def __init__(self, status, intestazioni, corpo):
        self.status, self.intestazioni, self.corpo = status, intestazioni, corpo

    @property
    def json(self):
        return json.loads(self.corpo)


class Host:
    """The test host (prova/host_flask.py) running as its own server process."""

    def __init__(self, cartella, gestore_sigterm=""):
        self.cartella = cartella
        self.db = os.path.join(cartella, "host.db")
        self.porta = porta_libera()
        self.log = os.path.join(cartella, "host.log")
        argomenti = [PYTHON, os.path.join(QUI, "prova", "host_flask.py"),
                     "--porta", str(self.porta), "--cartella", cartella]
        if gestore_sigterm:
            argomenti += ["--gestore-sigterm", gestore_sigterm]
        with open(self.log, "wb") as log:
            self.proc = subprocess.Popen(argomenti, stdout=log, stderr=subprocess.STDOUT,
                                         stdin=subprocess.DEVNULL)
        attendi(lambda: self.proc.poll() is not None or "host pronto" in self.testo_log(),
                20, 0.1, "l'avvio dell'host")
        if self.proc.poll() is not None:
            pytest.fail("l'host non e' partito:\n" + self.testo_log())

    def testo_log(self):
        with open(self.log, errors="replace") as f:
            return f.read()

    def chiama(self, metodo, percorso, corpo=None, intestazioni=CONCESSO, grezzo=None):
        dati = grezzo if grezzo is not None else (
            None if corpo is None else json.dumps(corpo).encode())
        richiesta = urllib.request.Request(f"http://127.0.0.1:{self.porta}{percorso}",
                                           data=dati, method=metodo, headers=dict(intestazioni))
        if dati is not None and grezzo is None:
            richiesta.add_header("Content-Type", "application/json")
        try:
            with urllib.request.urlopen(richiesta, timeout=30) as r:
                return Risposta(r.status, r.headers, r.read())
        except urllib.error.HTTPError as e:
            return Risposta(e.code, e.headers, e.read())

    def get(self, percorso, **kw):
        return self.chiama("GET", percorso, **kw)

    def post(self, percorso, corpo, **kw):
        return self.chiama("POST", percorso, corpo, **kw)

    def sql(self, istruzione, parametri=()):
        with sqlite3.connect(self.db, timeout=15) as c:
            righe = c.execute(istruzione, parametri).fetchall()
        c.close()
        return righe

    def aggiungi_camera(self, cid, nome, url):
        self.sql("INSERT INTO tapo_cameras (id, name, rtsp_url) VALUES (?,?,?)", (cid, nome, url))

    def termina(self, attesa=60):
        """SIGTERM, so that the recorders stop; SIGKILL if it does not end in time."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(attesa)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        return self.proc.returncode


@pytest.fixture
def host(tmp_path):
    h = Host(str(tmp_path))
    yield h
    h.termina()


@pytest.fixture(scope="session")
def camera():
    """The RTSP test camera (GStreamer), one for the whole run; skips when it cannot start."""
    porta = porta_libera()
    proc = subprocess.Popen([PYTHON, os.path.join(SORGENTI, "testing", "camera_rtsp.py"),
                             "--port", str(porta)], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True)
    riga = proc.stdout.readline()
    if not riga.startswith("pronta "):
        proc.kill()
        pytest.skip("telecamera RTSP di prova non disponibile: " + proc.stderr.read().strip())
    yield riga.split()[1]
    proc.terminate()
    try:
        proc.wait(5)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()


@pytest.fixture
def archivio():
    """A fresh archive folder under /srv, an allowed root on the system disk."""
    if shutil.which("ffmpeg") is None:
        pytest.skip("ffmpeg non installato")
    try:
        cartella = tempfile.mkdtemp(prefix="nvr_prova_", dir="/srv")
    except OSError as e:
        pytest.skip(f"non posso creare una cartella in /srv: {e}")
    yield cartella
    shutil.rmtree(cartella, ignore_errors=True)


def ffmpeg_in(cartella):
    """The pids of the recorders (of any process) writing below `cartella`."""
    trovati = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                argomenti = f.read().split(b"\0")
        except OSError:
            continue
        if argomenti[0].endswith(b"ffmpeg") and any(
                a.startswith(cartella.encode()) for a in argomenti):
            trovati.append(int(pid))
    return trovati


def avvia_registrazione(h, url, archivio, **camera):
    """Camera 1 on `url`, recording into `archivio` with the settings `camera` and the shortest
    segments the configuration takes."""
    h.aggiungi_camera(1, "Ingresso", url)
    r = h.post("/api/nvr/config", {"attivo": 1, "segmento_sec": 10, "cartella": archivio})
    assert r.status == 200, r.corpo
    r = h.post("/api/nvr/camera", {"id": 1, "attiva": True, **camera})
    assert r.status == 200, r.corpo


def in_corso(h):
    """The running recorder of camera 1 as the API shows it, or None."""
    return h.get("/api/nvr/registrazioni?cam=1").json["in_corso"]
