"""An event-mode camera driven by the host's own entity states: the host's normaliser decides
what is active, the post-roll ends the recording, and a host whose states fail is survived."""

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

    imposta(host, "chiuso")
    attendi(lambda: in_corso(host) is None, 40, 1, "la fine dopo il post-roll")
    # The engine may have first seen the door already open (a first sight is not an event), so
    # only the closing is certain.
    righe = host.sql("SELECT entity_id, stato FROM nvr_eventi WHERE cam_id=1 ORDER BY ts")
    assert righe[-1:] == [(PORTA, "off")] and set(righe) <= {(PORTA, "on"), (PORTA, "off")}

    # A host whose states raise counts as "no states": the recorder stops after its post-roll,
    # and the engine keeps going once the host answers again.
    imposta(host, "aperto")
    attendi(lambda: in_corso(host), 40, 1, "la registrazione per il nuovo evento")
    imposta(host, "aperto", fallisci=True)
    attendi(lambda: in_corso(host) is None, 40, 1, "la fine con gli stati in errore")
    imposta(host, "aperto")
    attendi(lambda: in_corso(host), 40, 1, "la ripresa quando l'host risponde")
    assert "giro del motore" not in host.testo_log()
