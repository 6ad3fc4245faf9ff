"""Attaching to a real Flask host: the routes as Flask registered them, the host's own guards
around every view, requests and answers crossing between Flask and the handlers, the host's zone
read at every request, and loading without Flask."""

import datetime
import os
import subprocess
import zoneinfo

import pytest

from conftest import CONCESSO, PYTHON

ROTTE = [
    ["/api/nvr/config", "nvr_config", ["GET", "POST"]],
    ["/api/nvr/camera", "nvr_camera", ["POST"]],
    ["/api/nvr/storage", "nvr_storage", ["GET"]],
    ["/api/nvr/storage/monta", "nvr_monta", ["POST"]],
    ["/api/nvr/storage/smonta", "nvr_smonta", ["POST"]],
    ["/api/nvr/cartelle", "nvr_cartelle", ["GET", "POST"]],
    ["/api/nvr/stato", "nvr_stato", ["GET"]],
    ["/api/nvr/installa_ffmpeg", "nvr_installa_ffmpeg", ["POST"]],
    ["/api/nvr/riassunto", "nvr_riassunto", ["GET"]],
    ["/api/nvr/giorni", "nvr_giorni", ["GET"]],
    ["/api/nvr/registrazioni", "nvr_registrazioni", ["GET"]],
    ["/api/nvr/video/<int:rid>", "nvr_video", ["GET"]],
    ["/api/nvr/registrazione/<int:rid>", "nvr_elimina", ["DELETE"]],
    ["/api/nvr/archivio", "nvr_archivio", ["GET"]],
    ["/api/nvr/registrazioni", "nvr_elimina_registrazioni", ["DELETE"]],
]


def esegui(codice):
    """Runs `codice` in a fresh interpreter that finds the built module."""
    return subprocess.run([PYTHON, "-c", codice], capture_output=True, text=True, timeout=60)


def test_attacca_una_volta_con_le_rotte_di_flask(host):
    assert host.get("/prova/rotte").json == ROTTE
    assert host.post("/prova/collega", {}).json == {"risultato": False}
    assert host.get("/prova/rotte").json == ROTTE  # nothing registered twice
    assert "[NVR] modulo avviato (ffmpeg: " in host.testo_log()


def test_modulo_senza_app(tmp_path):
    r = esegui(
        "import types, flask, nvr\n"
        "try:\n"
        "    nvr.collega(types.ModuleType('senza_app'))\n"
        "except RuntimeError as e:\n"
        "    print(e)\n"
        "buono = types.ModuleType('buono')\n"
        "buono.app = flask.Flask('buono')\n"
        f"buono.DB_FILE = {str(tmp_path / 'host.db')!r}\n"
        "buono.login_required = buono.admin_required = lambda f: f\n"
        "print(nvr.collega(buono))\n")
    assert r.returncode == 0, r.stderr
    assert r.stdout == ("collega(): il modulo passato non ha un oggetto app Flask\n"
                        "False\n")
    assert not (tmp_path / "host.db").exists()  # the later module was not even read


def test_caricamento_richiede_flask():
    # Loading with Flask present is what every other test does.
    r = esegui("import sys\nsys.modules['flask'] = None\nimport nvr")
    assert r.returncode != 0
    assert "ImportError" in r.stderr


@pytest.mark.parametrize("intestazioni, status, guardie", [
    ({}, 401, ["login"]),
    ({"X-Prova-Login": "si"}, 403, ["login", "admin"]),
    ({"X-Prova-Login": "si", "X-Prova-Admin": "si"}, 200, ["login", "admin"]),
])
def test_le_guardie_dell_host_in_ordine(host, intestazioni, status, guardie):
    host.post("/prova/guardie", {})
    r = host.get("/api/nvr/stato", intestazioni=intestazioni)
    assert r.status == status
    assert host.post("/prova/guardie", {}).json == guardie


@pytest.mark.parametrize("metodo, percorso, corpo, status, risposta", [
    # Same path, two handlers told apart by the method.
    ("GET", "/api/nvr/registrazioni?cam=abc", None, 400,
     {"status": "error", "message": "Telecamera non valida"}),
    ("DELETE", "/api/nvr/registrazioni", b"{}", 409,
     {"status": "error", "message": "Unità di archivio non collegata: collegala e riprova."}),
    # The first value of a repeated query parameter wins.
    ("GET", "/api/nvr/registrazioni?cam=1&giorno=2024-02-30&giorno=2024-02-01", None, 400,
     {"status": "error", "message": "Giorno non valido"}),
    # A malformed or missing body is an empty object, whatever its content type.
    ("POST", "/api/nvr/camera", b"{non e' json", 400,
     {"status": "error", "message": "Telecamera non valida"}),
    ("POST", "/api/nvr/camera", None, 400,
     {"status": "error", "message": "Telecamera non valida"}),
    ("POST", "/api/nvr/camera", b'{"id": "7"}', 404,
     {"status": "error", "message": "Telecamera non trovata"}),
    # Flask's converter: rid is an integer (beyond 64 bits no recording), anything else is not
    # this route.
    ("GET", "/api/nvr/video/99999999999999999999999", None, 404,
     {"status": "error", "message": "Registrazione non trovata"}),
    ("GET", "/api/nvr/video/abc", None, 404, None),
    ("POST", "/api/nvr/stato", b"{}", 405, None),
])
def test_richieste_e_risposte(host, metodo, percorso, corpo, status, risposta):
    r = host.chiama(metodo, percorso, grezzo=corpo)
    assert r.status == status, r.corpo
    if risposta is not None:
        assert r.json == risposta
        assert r.intestazioni["Content-Type"] == "application/json"


@pytest.mark.parametrize("tipo, nome", [
    ("zoneinfo", "Pacific/Kiritimati"),
    ("pytz", "Pacific/Kiritimati"),
    ("testo", "Pacific/Pago_Pago"),
    ("nessuno", None),  # no zone published: the machine's local time
])
def test_oggi_nel_fuso_attuale_dell_host(host, tipo, nome):
    if tipo == "pytz":
        pytest.importorskip("pytz")
    # The two zones are 25 hours apart, so their dates differ at any moment; the host changes
    # its zone while running and the next request must follow it.
    altro = "Pacific/Pago_Pago" if nome == "Pacific/Kiritimati" else "Pacific/Kiritimati"
    assert host.post("/prova/fuso", {"tipo": "zoneinfo", "tz": altro}).status == 200
    host.get("/api/nvr/registrazioni?cam=1")
    assert host.post("/prova/fuso", {"tipo": tipo, "tz": nome}).status == 200
    for _ in range(2):  # around midnight the date may move between reading and asking
        zona = zoneinfo.ZoneInfo(nome) if nome else None
        atteso = datetime.datetime.now(zona).strftime("%Y-%m-%d")
        giorno = host.get("/api/nvr/registrazioni?cam=1").json["giorno"]
        if giorno == atteso:
            break
    assert giorno == atteso
