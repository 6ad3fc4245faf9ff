"""An event-mode camera driven by a real Python host's entity states: the host's normaliser is
called across the boundary, and a host whose states raise is survived. Which states make a camera
record, and the post-roll, have their own table tests in the engine."""

from conftest import attendi, avvia_registrazione, in_corso

PORTA = "binary_sensor.porta"


def imposta(host, stato=None, fallisci=False):
    r = host.post("/prova/stati", {"stati": {} if stato is None else {PORTA: stato},
                                   "fallisci": fallisci})
    assert r.status == 200


def test_stati_dell_host_accendono_e_spengono(host, camera, archivio):
    imposta(host, "chiuso")
    avvia_registrazione(host, camera, archivio, modo="eventi", eventi=[PORTA], post_roll=3)

    # "aperto" is active only in the host's own words (the common fallback does not know it).
    imposta(host, "aperto")
    attivo = attendi(lambda: in_corso(host), 40, 1, "la registrazione per l'evento")
    assert attivo["motivo"] == "evento"

    # A host whose states raise counts as "no states": the recorder stops after its post-roll,
    # and the engine keeps going once the host answers again.
    imposta(host, "aperto", fallisci=True)
    attendi(lambda: in_corso(host) is None, 40, 1, "la fine con gli stati in errore")
    imposta(host, "aperto")
    attendi(lambda: in_corso(host), 40, 1, "la ripresa quando l'host risponde")
    assert "giro del motore" not in host.testo_log()
