#!/usr/bin/python3
"""A small real Flask host for the extension's tests.

    /usr/bin/python3 host_flask.py --porta P --cartella DIR [--gestore-sigterm FILE]

It keeps its database in DIR, guards every recorder route with its own login and
administrator checks, publishes a zone and entity states that the tests change
through its /prova/ endpoints, attaches the recorder and serves on 127.0.0.1:P
with a threaded werkzeug server.
"""

import argparse
import functools
import json
import os
import signal
import sqlite3
import sys
import threading
import time
import zoneinfo

import flask
import werkzeug.serving

import nvr

argomenti = argparse.ArgumentParser()
argomenti.add_argument("--porta", type=int, required=True)
argomenti.add_argument("--cartella", required=True)
argomenti.add_argument("--gestore-sigterm", default="")
opzioni = argomenti.parse_args()

app = flask.Flask(__name__)
DB_FILE = os.path.join(opzioni.cartella, "host.db")

# --- guards: refuse unless the request says otherwise; remember who ran ------

_guardie = []
_guardie_lock = threading.Lock()


def _annota(nome):
    with _guardie_lock:
        _guardie.append(nome)


def _concesso(nome):
    return flask.request.headers.get("X-Prova-" + nome) == "si"


def login_required(f):
    @functools.wraps(f)
    def protetta(*a, **kw):
        _annota("login")
        if not _concesso("Login"):
            return flask.jsonify({"status": "error", "message": "accesso richiesto"}), 401
        return f(*a, **kw)
    return protetta


def admin_required(f):
    @functools.wraps(f)
    def protetta(*a, **kw):
        _annota("admin")
        if not _concesso("Admin"):
            return flask.jsonify({"status": "error", "message": "solo amministratori"}), 403
        return f(*a, **kw)
    return protetta


# --- zone and entity states, as a home-automation host publishes them ----------

_zn_fuso = {"tz": zoneinfo.ZoneInfo("Europe/Rome")}
_stati = {}
_stati_falliscono = False
_stati_lenti = 0.0


def get_all_internal_states():
    time.sleep(_stati_lenti)
    if _stati_falliscono:
        raise RuntimeError("stati non disponibili")
    return dict(_stati)


def normalize_state(stato):
    # The host's own words: "aperto" is active here, which the recorder's fallback would not say.
    testo = str(stato).lower()
    return {"aperto": "on", "chiuso": "off"}.get(testo, testo)


@app.route("/prova/stati", methods=["POST"])
def prova_stati():
    global _stati, _stati_falliscono, _stati_lenti
    corpo = flask.request.get_json(force=True)
    _stati = corpo.get("stati", {})
    _stati_falliscono = bool(corpo.get("fallisci"))
    _stati_lenti = float(corpo.get("lento", 0))
    return flask.jsonify({"ok": True})


@app.route("/prova/fuso", methods=["POST"])
def prova_fuso():
    global _zn_fuso
    corpo = flask.request.get_json(force=True)
    nome, tipo = corpo.get("tz"), corpo.get("tipo")
    if tipo == "zoneinfo":
        tz = zoneinfo.ZoneInfo(nome)
    elif tipo == "pytz":
        import pytz
        tz = pytz.timezone(nome)
    else:
        tz = nome
    _zn_fuso = {"tz": tz} if tipo != "nessuno" else {}
    return flask.jsonify({"ok": True})


@app.route("/prova/guardie", methods=["POST"])
def prova_guardie():
    with _guardie_lock:
        viste = list(_guardie)
        _guardie.clear()
    return flask.jsonify(viste)


@app.route("/prova/rotte")
def prova_rotte():
    return flask.jsonify([
        [r.rule, r.endpoint, sorted(r.methods - {"HEAD", "OPTIONS"})]
        for r in app.url_map.iter_rules() if r.rule.startswith("/api/nvr/")
    ])


@app.route("/prova/esci", methods=["POST"])
def prova_esci():
    # The server stops, the script ends, and the interpreter exits on its own.
    threading.Thread(target=server.shutdown).start()
    return flask.jsonify({"ok": True})


@app.route("/prova/collega", methods=["POST"])
def prova_collega():
    return flask.jsonify({"risultato": nvr.collega(sys.modules[__name__])})


# --- the host's own SIGTERM handler, installed before the recorder attaches ---------

def _ffmpeg_figli():
    """The recorders still running as this process's children."""
    figli = 0
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/stat") as f:
                nome, campi = f.read().rsplit(")", 1)
        except OSError:
            continue
        stato, padre = campi.split()[:2]
        figli += nome.endswith("(ffmpeg") and int(padre) == os.getpid() and stato != "Z"
    return figli


def _su_sigterm(numero, frame):
    with open(opzioni.gestore_sigterm, "w") as f:
        json.dump({"segnale": numero, "frame": frame is not None,
                   "ffmpeg_vivi": _ffmpeg_figli()}, f)
    sys.exit(7)


if opzioni.gestore_sigterm:
    signal.signal(signal.SIGTERM, _su_sigterm)

with sqlite3.connect(DB_FILE) as c:
    c.execute("CREATE TABLE IF NOT EXISTS tapo_cameras "
              "(id INTEGER PRIMARY KEY, name TEXT, rtsp_url TEXT)")

nvr.collega(sys.modules[__name__])
nvr.collega_vivo(sys.modules[__name__])
nvr.collega_riproduzione(sys.modules[__name__])

server = werkzeug.serving.make_server("127.0.0.1", opzioni.porta, app, threaded=True)
print("host pronto", flush=True)
server.serve_forever()
