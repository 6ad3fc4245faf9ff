// The standalone program's pages in a real browser, against the real program recording the RTSP
// test camera. The steps build on each other (login, camera, archive, recording, playback,
// deletion), so they run in order in one browser session.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { after, before, describe, test } from 'node:test';
import {
  Console, avvia_browser, avvia_camera, avvia_programma, porta_libera, sql, uscita,
} from './ambiente.mjs';

const NON_AMMESSA = "Cartella non ammessa: scegli un'unita' USB, una cartella di rete o una sotto /media, /mnt, /srv, /home";

let camera, nvr, contesto, pagina, console_, dati, archivio, profilo, cam_id;
const schermate = path.join(uscita(), 'screenshots');
const risposte_video = [];

async function schermata(nome) {
  await pagina.screenshot({ path: path.join(schermate, `${nome}.png`), fullPage: true });
}

// Every step ends the same way: a picture for a person to look at, and no error on the page.
async function fine(nome) {
  await schermata(nome);
  assert.deepEqual(console_.prendi(), [], 'errori nella console del browser');
}

async function json(percorso) {
  const r = await pagina.request.get(`${nvr.base}${percorso}`);
  assert.equal(r.status(), 200, `${percorso}: ${await r.text()}`);
  return r.json();
}

async function fino_a(descrizione, prova, ms, passo = 1000) {
  const limite = Date.now() + ms;
  for (;;) {
    const v = await prova();
    if (v) return v;
    if (Date.now() > limite) throw new Error(`${descrizione}: non avvenuto in ${ms / 1000} s\n${nvr.uscita.slice(-3000)}`);
    await new Promise((r) => setTimeout(r, passo));
  }
}

async function nodo_pausa() {
  await pagina.evaluate(() => document.getElementById('video').pause());
}

async function video() {
  return pagina.evaluate(() => {
    const v = document.getElementById('video');
    return { url: v.dataset.url || '', t: v.currentTime, pausa: v.paused, errore: v.error && v.error.code };
  });
}

describe('pagine del programma autonomo', { timeout: 280000 }, () => {
  before(async () => {
    fs.mkdirSync(schermate, { recursive: true });
    dati = fs.mkdtempSync(path.join(os.tmpdir(), 'nvr-browser-dati-'));
    fs.mkdirSync('/srv', { recursive: true });
    archivio = fs.mkdtempSync('/srv/nvr-browser-');
    profilo = fs.mkdtempSync(path.join(os.tmpdir(), 'nvr-browser-profilo-'));
    contesto = await avvia_browser(profilo);
    camera = await avvia_camera();
    nvr = await avvia_programma(dati);
    pagina = contesto.pages()[0] || await contesto.newPage();
    console_ = new Console(pagina);
    pagina.on('response', (r) => {
      if (r.url().includes('/api/nvr/video/')) risposte_video.push(r.status());
    });
  });

  after(async () => {
    await contesto?.close().catch(() => {});
    await nvr?.ferma();
    await camera?.ferma();
    if (archivio) fs.rmSync(archivio, { recursive: true, force: true });
    for (const d of [dati, profilo]) if (d) fs.rmSync(d, { recursive: true, force: true });
  });

  test('accesso: password errata segnalata, quella giusta entra, la sessione regge al ricaricamento', async () => {
    await pagina.goto(`${nvr.base}/`);
    await pagina.locator('#password-accesso').waitFor();
    assert.equal(await pagina.locator('#menu').isVisible(), false);
    console_.atteso(401, '/api/accesso');
    await pagina.fill('#password-accesso', `${nvr.password}x`);
    await pagina.click('#modulo-accesso button[type=submit]');
    await pagina.locator('#errore-accesso', { hasText: 'Password errata' }).waitFor();
    await schermata('01-accesso-errato');
    await pagina.fill('#password-accesso', nvr.password);
    await pagina.click('#modulo-accesso button[type=submit]');
    await pagina.locator('#stato-attivo-testo', { hasText: 'spenta' }).waitFor();
    await pagina.reload();
    await pagina.locator('#stato-attivo-testo', { hasText: 'spenta' }).waitFor();
    assert.equal(await pagina.locator('#accesso').isVisible(), false);
    await fine('02-stato-dopo-accesso');
  });

  test('telecamere: indirizzo non valido segnalato, aggiunta, impostazioni errate e poi salvate', async () => {
    await pagina.goto(`${nvr.base}/#telecamere`);
    const nuova = pagina.locator('#nuova-telecamera');
    await nuova.getByLabel('Nome').fill('Ingresso');
    await nuova.getByLabel('Indirizzo del flusso').fill('ftp://nulla');
    await nuova.getByRole('button', { name: 'Aggiungi' }).click();
    await nuova.locator('.errore-campo', { hasText: "L'indirizzo deve cominciare con rtsp://" }).waitFor();
    await nuova.getByLabel('Indirizzo del flusso').fill(camera.url);
    await nuova.getByRole('button', { name: 'Aggiungi' }).click();
    const scheda = pagina.locator('article.telecamera', { hasText: 'Ingresso' });
    await scheda.waitFor();
    cam_id = Number(await scheda.getAttribute('data-id'));

    // A schedule whose start and end coincide would never record: refused beside the field.
    await scheda.getByLabel('Registra questa telecamera').check();
    await scheda.getByLabel('Quando registrare').selectOption('orari');
    await scheda.getByRole('button', { name: 'Aggiungi fascia' }).click();
    await scheda.locator('.orario-da').fill('22:00');
    await scheda.locator('.orario-a').fill('22:00');
    await scheda.getByRole('button', { name: 'Salva impostazioni' }).click();
    await scheda.locator('.errore-campo', { hasText: 'Inizio e fine coincidono' }).waitFor();
    await schermata('03-telecamera-errore-orario');
    // A past-midnight interval is accepted and stored whole.
    await scheda.locator('.orario-a').fill('06:00');
    await scheda.locator('.nota-notte', { hasText: 'prosegue dopo mezzanotte' }).waitFor();
    await scheda.getByRole('button', { name: 'Salva impostazioni' }).click();
    await scheda.locator('.avviso.ok', { hasText: 'Impostazioni salvate.' }).waitFor();
    let cfg = await json('/api/nvr/config');
    let c = cfg.telecamere.find((t) => t.id === cam_id);
    assert.deepEqual([c.modo, c.orari], ['orari', [{ da: '22:00', a: '06:00' }]]);

    // Event mode: an empty entity row and an out-of-range post-roll are refused beside their
    // fields; the entity the host knows is offered and stored.
    const stati = await pagina.request.post(`${nvr.base}/api/stati`, { data: { 'binary_sensor.porta': 'off' } });
    assert.equal(stati.status(), 200);
    await pagina.reload();
    await scheda.getByLabel('Quando registrare').selectOption('eventi');
    await scheda.getByRole('button', { name: 'Aggiungi entità' }).click();
    await scheda.getByLabel('Post-roll').fill('5000');
    await scheda.getByRole('button', { name: 'Salva impostazioni' }).click();
    await scheda.locator('.errore-campo', { hasText: "Scrivi l'entità o togli la riga." }).waitFor();
    await scheda.locator('.errore-campo', { hasText: 'Un numero intero di secondi fra 0 e 3600.' }).waitFor();
    assert.deepEqual(await pagina.locator('#entita-note option').evaluateAll((o) => o.map((x) => x.value)),
                     ['binary_sensor.porta']);
    await scheda.locator('input.entita').fill('binary_sensor.porta');
    await scheda.getByLabel('Post-roll').fill('45');
    await scheda.getByRole('button', { name: 'Salva impostazioni' }).click();
    await scheda.locator('.avviso.ok', { hasText: 'Impostazioni salvate.' }).waitFor();
    cfg = await json('/api/nvr/config');
    c = cfg.telecamere.find((t) => t.id === cam_id);
    assert.deepEqual([c.modo, c.eventi, c.post_roll], ['eventi', ['binary_sensor.porta'], 45]);

    await scheda.getByLabel('Quando registrare').selectOption('sempre');
    await scheda.getByRole('button', { name: 'Salva impostazioni' }).click();
    await scheda.locator('.avviso.ok', { hasText: 'Impostazioni salvate.' }).waitFor();
    cfg = await json('/api/nvr/config');
    c = cfg.telecamere.find((t) => t.id === cam_id);
    assert.deepEqual([c.attiva, c.modo, c.url], [true, 'sempre', camera.url]);
    await fine('04-telecamera-aggiunta');
  });

  test("archiviazione: l'errore del server mostrato com'e', poi una cartella creata e scelta", async () => {
    await pagina.goto(`${nvr.base}/#archiviazione`);
    for (const nome of ['Chiavetta / disco USB', 'Cartella di rete']) {
      await pagina.getByRole('tab', { name: nome }).waitFor();
    }
    await pagina.getByRole('tab', { name: 'Cartella di rete' }).click();
    await pagina.getByRole('button', { name: 'Collega' }).waitFor();
    assert.equal(await pagina.locator('#rete-password').inputValue(), '');

    await pagina.getByRole('tab', { name: 'Cartella locale' }).click();
    console_.atteso(400, '/api/nvr/config');
    await pagina.fill('#cartella-locale', path.join(os.tmpdir(), 'fuori'));
    await pagina.getByRole('button', { name: 'Usa questa cartella' }).click();
    const esito = pagina.locator('#esito-archiviazione');
    await pagina.locator('#esito-archiviazione.errore').waitFor();
    assert.equal(await esito.textContent(), NON_AMMESSA);
    await schermata('05-archiviazione-errore');

    console_.atteso(400, '/api/nvr/cartelle');
    await pagina.fill('#cartella-locale', '/etc');
    await pagina.getByRole('button', { name: 'Sfoglia', exact: true }).click();
    await pagina.locator('#sfoglia [role=alert]', { hasText: 'Cartella non leggibile o non ammessa' }).waitFor();

    await pagina.getByRole('button', { name: '/srv', exact: true }).click();
    await pagina.locator('#sfoglia').getByRole('button', { name: path.basename(archivio) }).click();
    await pagina.locator('#cartella-aperta', { hasText: archivio }).waitFor();
    await pagina.fill('#nuova-cartella', 'video');
    await pagina.getByRole('button', { name: 'Crea' }).click();
    const cartella = path.join(archivio, 'video');
    await pagina.locator('#cartella-aperta', { hasText: cartella }).waitFor();
    await pagina.locator('#sfoglia').getByRole('button', { name: 'Usa questa cartella' }).click();
    await pagina.locator('#esito-archiviazione.ok').waitFor();
    const st = await json('/api/nvr/stato');
    assert.equal(st.cartella, cartella);
    assert.ok(fs.statSync(cartella).isDirectory());
    await pagina.locator('#archivio-attuale', { hasText: cartella }).waitFor();

    // The recorder would quietly clamp a 10-second segment to 60: the page says so first.
    await pagina.fill('#segmento-sec', '10');
    await pagina.locator('#modulo-numeri').getByRole('button', { name: 'Salva' }).click();
    await pagina.locator('#modulo-numeri .errore-campo', { hasText: 'Un numero intero fra 60 e 1800.' }).waitFor();
    await pagina.fill('#segmento-sec', '120');
    await pagina.locator('#modulo-numeri').getByRole('button', { name: 'Salva' }).click();
    await pagina.locator('#modulo-numeri .avviso.ok', { hasText: 'Salvato.' }).waitFor();
    assert.equal((await json('/api/nvr/config')).config.segmento_sec, 120);
    await fine('06-archiviazione-scelta');
  });

  test('stato: accesa la registrazione, la scheda passa a «in registrazione»', async () => {
    await pagina.goto(`${nvr.base}/#stato`);
    const scheda = pagina.locator(`#stato-camere article[data-id="${cam_id}"]`);
    await scheda.waitFor();
    await pagina.locator('label[for="stato-attivo"]').click();
    await pagina.locator('#stato-attivo-testo', { hasText: 'accesa' }).waitFor();
    // Saving the configuration keeps segments at 60 s or more; a few seconds keep the test short.
    sql(path.join(dati, 'nvr.db'), 'UPDATE nvr_config SET segmento_sec=3');
    const nodo = await scheda.elementHandle();
    await scheda.locator('.pastiglia', { hasText: 'in registrazione' }).waitFor({ timeout: 60000 });
    // Refreshed in place: still the very same node.
    assert.ok(await nodo.evaluate((n) => n.isConnected));
    await pagina.locator('#stato-spazio-testo', { hasText: 'GB liberi' }).waitFor();
    await fine('07-stato-in-registrazione');
  });

  test('telecamere: una telecamera guasta mostra il suo errore, si rinomina e si rimuove', async () => {
    // Nothing listens on this port: ffmpeg fails at once and the recorder reports why.
    const url = `rtsp://127.0.0.1:${await porta_libera()}/nessuna`;
    const nuova = await pagina.request.post(`${nvr.base}/api/telecamere`, { data: { nome: 'Guasta', url } });
    const id = (await nuova.json()).id;
    const imp = await pagina.request.post(`${nvr.base}/api/nvr/camera`, { data: { id, attiva: true, modo: 'sempre' } });
    assert.equal(imp.status(), 200);
    await pagina.goto(`${nvr.base}/#stato`);
    const errore = pagina.locator(`#stato-camere article[data-id="${id}"] .testo-errore`);
    await errore.waitFor({ timeout: 40000 });
    const st = await json('/api/nvr/stato');
    const testo = st.telecamere.find((t) => t.id === id).errore;
    assert.ok(testo);
    assert.equal(await errore.textContent(), testo);
    await schermata('08-stato-telecamera-guasta');

    await pagina.goto(`${nvr.base}/#telecamere`);
    const scheda = pagina.locator(`article.telecamera[data-id="${id}"]`);
    await scheda.getByLabel('Nome').fill('Guasta davvero');
    await scheda.getByRole('button', { name: 'Salva nome e indirizzo' }).click();
    await scheda.locator('h3', { hasText: 'Guasta davvero' }).waitFor();
    await scheda.getByRole('button', { name: 'Rimuovi' }).click();
    const dialogo = pagina.locator('#dialogo-conferma');
    await dialogo.locator('#dialogo-testo', { hasText: 'Rimuovere la telecamera "Guasta davvero"?' }).waitFor();
    await dialogo.getByRole('button', { name: 'Rimuovi' }).click();
    await scheda.waitFor({ state: 'detached' });
    const cams = (await json('/api/telecamere')).telecamere;
    assert.deepEqual(cams.map((c) => c.nome), ['Ingresso']);
    await fine('08-telecamera-rimossa');
  });

  test('registrazioni: la linea del giorno, riproduzione dal punto cliccato, segmento successivo, salto', async () => {
    const giorno = await fino_a('tre segmenti in archivio', async () => {
      const g = await json(`/api/nvr/giorni?cam=${cam_id}`);
      if (!g.giorni.length) return null;
      const r = await json(`/api/nvr/registrazioni?cam=${cam_id}&giorno=${g.giorni.at(-1)}`);
      return r.registrazioni.length >= 3 ? g.giorni.at(-1) : null;
    }, 120000);
    await pagina.goto(`${nvr.base}/#registrazioni`);
    await pagina.locator(`#calendario button.con-registrazioni[data-giorno="${giorno}"][aria-pressed="true"]`).waitFor();
    await pagina.locator('#linea-tempo .segmento').first().waitFor();
    await schermata('09-registrazioni-giorno');

    await pagina.selectOption('#reg-zoom', { label: '1 minuto' });
    const segs = (await json(`/api/nvr/registrazioni?cam=${cam_id}&giorno=${giorno}`)).registrazioni;
    const primo = pagina.locator('#linea-tempo .segmento[data-indice="0"]');
    await primo.click();
    await fino_a('il video parte', async () => {
      const v = await video();
      assert.equal(v.errore, null, 'errore del video');
      return v.url === segs[0].url && v.t > 0.3 && !v.pausa;
    }, 15000, 100);
    // It moves on to the next segment by itself and keeps playing.
    await fino_a('passa al segmento successivo', async () => (await video()).url === segs[1].url, 30000, 100);
    const a = await video();
    await pagina.waitForTimeout(800);
    const b = await video();
    assert.ok(b.url !== a.url || b.t > a.t + 0.3, `currentTime fermo: ${JSON.stringify([a, b])}`);

    // A click inside the third segment plays it from that point.
    const terzo = pagina.locator('#linea-tempo .segmento[data-indice="2"]');
    await terzo.scrollIntoViewIfNeeded();
    const box = await terzo.boundingBox();
    await pagina.mouse.click(box.x + box.width * 0.6, box.y + box.height / 2);
    const atteso = segs[2].durata * 0.6;
    const v = await fino_a('salto nel terzo segmento', async () => {
      const x = await video();
      return x.url === segs[2].url && x.t > 0 ? x : null;
    }, 15000, 100);
    assert.ok(Math.abs(v.t - atteso) < 1.5, `salto a ${v.t} s invece di circa ${atteso} s`);
    assert.ok(risposte_video.includes(206), `nessuna risposta parziale (206) al video: ${risposte_video}`);
    await schermata('09-registrazioni-riproduzione');

    // The timeline is a slider for the keyboard too: Home goes to midnight, Enter plays from
    // there, that is from the day's first segment.
    await nodo_pausa();
    await pagina.focus('#linea-tempo');
    await pagina.keyboard.press('Home');
    assert.equal(await pagina.getAttribute('#linea-tempo', 'aria-valuenow'), '0');
    await pagina.keyboard.press('Enter');
    await fino_a('riparte dal primo segmento', async () => {
      const x = await video();
      return x.url === segs[0].url && !x.pausa;
    }, 15000, 100);
    await fine('09-registrazioni-riproduzione');
  });

  test('registrazioni: scaricare un segmento', async () => {
    const link = pagina.locator('#elenco-segmenti tbody tr').first().getByRole('link', { name: 'Scarica' });
    const [scaricato] = await Promise.all([pagina.waitForEvent('download'), link.click()]);
    const file = path.join(uscita(), 'segmento-scaricato.mp4');
    await scaricato.saveAs(file);
    const contenuto = fs.readFileSync(file);
    assert.ok(contenuto.length > 1000, `file scaricato di ${contenuto.length} byte`);
    assert.equal(contenuto.subarray(4, 8).toString('latin1'), 'ftyp', 'non e\' un MP4');
    await fine('10-registrazioni-scaricato');
  });

  test("archivio: conteggi per giorno, e le voci rimaste senza file tolte dal bottone", async () => {
    await pagina.goto(`${nvr.base}/#archivio`);
    const scheda = pagina.locator(`#archivio-camere article[data-id="${cam_id}"]`, { hasText: 'Ingresso' });
    await scheda.locator('tbody tr').first().waitFor();
    const a = await json('/api/nvr/archivio');
    const c = a.telecamere.find((t) => t.id === cam_id);
    assert.ok(c.n >= 3);
    await pagina.locator('#archivio-totali', { hasText: `${a.totale.n} segmenti` }).waitFor();
    await schermata('11-archivio');

    // A segment file that vanished from the disk behind the recorder's back.
    const cartella = (await json('/api/nvr/stato')).cartella;
    const file = fs.readdirSync(cartella, { recursive: true })
      .filter((f) => f.endsWith('.mp4') && !f.includes('in_corso')).sort()[0];
    assert.ok(file, `nessun segmento sotto ${cartella}`);
    fs.rmSync(path.join(cartella, file));
    await pagina.reload();
    await pagina.locator('#archivio-totale', { hasText: "1 voce dell'indice non ha più il file." }).waitFor();
    await pagina.getByRole('button', { name: 'Togli le voci senza file' }).click();
    await pagina.locator('#esito-archivio', { hasText: 'Tolta 1 voce senza file.' }).waitFor();
    await pagina.locator('#togli-senza-file').waitFor({ state: 'detached' });
    await fine('12-archivio-senza-file');
  });

  test('registrazioni: eliminare chiede conferma, annullare non toglie nulla, confermare toglie il giorno', async () => {
    await pagina.goto(`${nvr.base}/#registrazioni`);
    await pagina.locator('#elenco-segmenti tbody tr').first().waitFor();
    const giorno = await pagina.locator('#calendario button[aria-pressed="true"]').getAttribute('data-giorno');
    const prima = (await json(`/api/nvr/registrazioni?cam=${cam_id}&giorno=${giorno}`)).registrazioni;
    const dialogo = pagina.locator('#dialogo-conferma');

    await pagina.locator('#elenco-segmenti tbody tr').first().getByRole('button', { name: 'Elimina' }).click();
    await dialogo.locator('#dialogo-testo', { hasText: 'Eliminare il segmento di Ingresso' }).waitFor();
    await dialogo.getByRole('button', { name: 'Annulla' }).click();
    await dialogo.waitFor({ state: 'hidden' });
    const ancora = (await json(`/api/nvr/registrazioni?cam=${cam_id}&giorno=${giorno}`)).registrazioni;
    assert.ok(ancora.some((s) => s.id === prima[0].id), 'annullare ha eliminato il segmento');

    // This time with the keyboard only: the dialog opens on "Annulla", Tab reaches "Elimina".
    await pagina.focus('#elimina-giorno');
    await pagina.keyboard.press('Enter');
    await dialogo.waitFor();
    const testo = await dialogo.locator('#dialogo-testo').textContent();
    assert.match(testo, /Eliminare tutte le registrazioni di Ingresso del .* Verranno cancellati \d+ segmenti/);
    assert.equal(await pagina.evaluate(() => document.activeElement.id), 'dialogo-no');
    await schermata('13-conferma-giorno');
    await pagina.keyboard.press('Tab');
    assert.equal(await pagina.evaluate(() => document.activeElement.id), 'dialogo-si');
    await pagina.keyboard.press('Enter');
    await pagina.locator('#esito-registrazioni', { hasText: /Eliminate \d+ registrazioni/ }).waitFor();
    const dopo = (await json(`/api/nvr/registrazioni?cam=${cam_id}&giorno=${giorno}`)).registrazioni;
    const rimasti = dopo.filter((s) => prima.some((p) => p.id === s.id));
    assert.deepEqual(rimasti, [], 'segmenti del giorno ancora in archivio');
    for (const s of prima.slice(0, 3)) {
      const r = await pagina.request.get(`${nvr.base}${s.url}`);
      assert.equal(r.status(), 404);
    }
    await fine('14-giorno-eliminato');
  });

  test("stato: senza ffmpeg c'e' il bottone per installarlo, e il suo errore si vede com'e'", async () => {
    // A second program whose search path holds neither ffmpeg nor apt-get: the page offers the
    // installation and shows the server's refusal word for word.
    const dati2 = fs.mkdtempSync(path.join(os.tmpdir(), 'nvr-browser-senza-ffmpeg-'));
    const vuota = fs.mkdtempSync(path.join(os.tmpdir(), 'nvr-browser-path-'));
    const nvr2 = await avvia_programma(dati2, { PATH: vuota });
    try {
      await pagina.goto(`${nvr2.base}/`);
      await pagina.fill('#password-accesso', nvr2.password);
      await pagina.click('#modulo-accesso button[type=submit]');
      const scheda = pagina.locator('#stato-ffmpeg');
      await scheda.getByRole('button', { name: 'Installa ffmpeg' }).waitFor();
      console_.atteso(400, '/api/nvr/installa_ffmpeg');
      await scheda.getByRole('button', { name: 'Installa ffmpeg' }).click();
      await scheda.locator('.testo-errore', { hasText: 'Installazione automatica non disponibile su questo sistema' }).waitFor();
      // Switched on without ffmpeg, the engine reports a problem: the banner shows the status
      // API's text as it is.
      await pagina.locator('label[for="stato-attivo"]').click();
      const banner = pagina.locator('#stato-problema');
      await banner.waitFor({ timeout: 40000 });
      const problema = (await (await pagina.request.get(`${nvr2.base}/api/nvr/stato`)).json()).problema;
      assert.ok(problema);
      await pagina.locator('#stato-problema', { hasText: problema }).waitFor();
      await fine('15-stato-senza-ffmpeg');
    } finally {
      await nvr2.ferma();
      for (const d of [dati2, vuota]) fs.rmSync(d, { recursive: true, force: true });
    }
  });

  test('schermo di un telefono: nessuna pagina piu\' larga dello schermo', async () => {
    await pagina.setViewportSize({ width: 390, height: 844 });
    await pagina.goto(`${nvr.base}/`);
    // Cookies do not tell ports apart: the second program's session may have replaced ours.
    await pagina.locator('#menu:visible, #password-accesso:visible').first().waitFor();
    if (await pagina.locator('#password-accesso').isVisible()) {
      await pagina.fill('#password-accesso', nvr.password);
      await pagina.click('#modulo-accesso button[type=submit]');
      await pagina.locator('#menu').waitFor();
    }
    for (const p of ['stato', 'telecamere', 'archiviazione', 'registrazioni', 'archivio']) {
      await pagina.goto(`${nvr.base}/#${p}`);
      await pagina.locator(`#${p} h2`).waitFor();
      await pagina.waitForLoadState('networkidle').catch(() => {});
      const largo = await pagina.evaluate(() => {
        const fuori = [...document.querySelectorAll('body *')]
          .filter((e) => e.getBoundingClientRect().right > window.innerWidth + 1)
          .map((e) => `${e.tagName.toLowerCase()}#${e.id}.${e.className}`);
        return { px: document.documentElement.scrollWidth - window.innerWidth, fuori: fuori.slice(0, 5) };
      });
      await schermata(`16-telefono-${p}`);
      assert.ok(largo.px <= 1, `#${p} piu' largo dello schermo di ${largo.px} px: ${largo.fuori}`);
    }
    await pagina.setViewportSize({ width: 1280, height: 900 });
    await fine('17-fine');
  });
});
