// What the browser tests run against: the real standalone program on a free loopback port with a
// fresh data folder, the RTSP test camera, and Debian's Chromium driven by playwright-core.
import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

export const CHROMIUM = '/usr/bin/chromium';

function richiesto(nome) {
  const v = process.env[nome];
  if (!v) throw new Error(`variabile d'ambiente ${nome} mancante (la imposta CTest)`);
  return v;
}

export const programma = () => richiesto('NVR_AUTONOMO');
export const sorgenti = () => richiesto('NVR_SORGENTI');
export const uscita = () => process.env.NVR_USCITA || path.join(os.tmpdir(), 'nvr-browser');

export async function porta_libera() {
  return new Promise((fatto, errore) => {
    const s = net.createServer();
    s.on('error', errore);
    s.listen(0, '127.0.0.1', () => {
      const { port } = s.address();
      s.close(() => fatto(port));
    });
  });
}

// A child process whose output is collected; aspetta(re) resolves with the first match and fails
// once the child has closed its output or the time is up.
class Processo {
  constructor(nome, comando, argomenti) {
    this.nome = nome;
    this.uscita = '';
    this.figlio = spawn(comando, argomenti, { stdio: ['ignore', 'pipe', 'pipe'] });
    this.finito = new Promise((fatto) => this.figlio.on('exit', (codice, segnale) => fatto({ codice, segnale })));
    this.figlio.on('close', (codice, segnale) => { this.chiuso = `terminato (${codice ?? segnale})`; });
    for (const flusso of [this.figlio.stdout, this.figlio.stderr]) flusso.on('data', (b) => { this.uscita += b; });
  }

  async aspetta(re, ms) {
    const limite = Date.now() + ms;
    for (;;) {
      const m = this.uscita.match(re);
      if (m) return m;
      const perche = this.chiuso || (Date.now() > limite && `non arrivato in ${ms} ms`);
      if (perche) throw new Error(`${this.nome}: «${re}» ${perche}:\n${this.uscita.slice(-2000)}`);
      await new Promise((fatto) => setTimeout(fatto, 50));
    }
  }

  // SIGINT first (the program stops its recorders), then SIGKILL after the deadline; always reaped.
  async ferma(ms = 15000) {
    if (this.figlio.exitCode !== null || this.figlio.signalCode !== null) return this.finito;
    this.figlio.kill('SIGINT');
    const t = setTimeout(() => this.figlio.kill('SIGKILL'), ms);
    const esito = await this.finito;
    clearTimeout(t);
    return esito;
  }
}

export async function avvia_camera() {
  const porta = await porta_libera();
  const p = new Processo('camera_rtsp', '/usr/bin/python3',
                         [path.join(sorgenti(), 'testing/camera_rtsp.py'), '--port', String(porta)]);
  const m = await p.aspetta(/pronta (rtsp:\/\/\S+)/, 20000);
  p.url = m[1];
  return p;
}

export async function avvia_programma(dati) {
  const porta = await porta_libera();
  const p = new Processo('nvr', programma(), ['--dati', dati, '--porta', String(porta)]);
  p.password = (await p.aspetta(/Password dell'amministratore: (\S+)/, 20000))[1];
  await p.aspetta(/nvr in ascolto/, 20000);
  p.base = `http://127.0.0.1:${porta}`;
  return p;
}

// Writes straight into the recorder's SQLite file with Debian's sqlite3 tool, for settings the
// API keeps in range on purpose (a segment of a few seconds makes the tests quick).
export function sql(db, istruzione) {
  const r = spawnSync('sqlite3', ['-cmd', '.timeout 15000', db, istruzione], { encoding: 'utf8' });
  if (r.error) throw new Error(`sqlite3 non eseguibile: ${r.error.message} (pacchetto sqlite3)`);
  if (r.status !== 0) throw new Error(`sqlite3 ${istruzione}: ${r.stderr}`);
  return r.stdout;
}

export async function avvia_browser(cartella_profilo) {
  let playwright;
  try {
    playwright = await import('playwright-core');
  } catch (e) {
    throw new Error('playwright-core non installato: lo installa scripts/test.sh ' +
                    '(npm ci --prefix browser) — ' + e.message);
  }
  if (!fs.existsSync(CHROMIUM)) {
    throw new Error(`${CHROMIUM} non trovato: lo installa scripts/test.sh (pacchetto Debian chromium)`);
  }
  return playwright.chromium.launchPersistentContext(cartella_profilo, {
    executablePath: CHROMIUM,
    headless: true,
    viewport: { width: 1280, height: 900 },
    locale: 'it-IT',
    args: [
      '--headless', '--no-sandbox', '--disable-gpu', '--disable-background-networking',
      '--no-first-run', '--disable-component-update', '--disable-sync', '--lang=it-IT',
    ],
  });
}

// Collects what the page reports as errors. HTTP errors that a test provokes on purpose (a wrong
// password, a folder that is refused) are announced with atteso() and not counted.
export class Console {
  constructor(pagina) {
    this.errori = [];
    this.attesi = [];
    pagina.on('pageerror', (e) => this.errori.push(`pageerror: ${e.message}`));
    pagina.on('console', (m) => {
      if (m.type() !== 'error') return;
      const url = m.location()?.url || '';
      const codice = (m.text().match(/status of (\d{3})/) || [])[1];
      const i = this.attesi.findIndex((a) => codice === String(a.codice) && url.includes(a.percorso));
      if (i >= 0) {
        this.attesi.splice(i, 1);
        return;
      }
      this.errori.push(`console: ${m.text()} ${url}`);
    });
  }

  atteso(codice, percorso) {
    this.attesi.push({ codice, percorso });
  }

  prendi() {
    const e = this.errori;
    this.errori = [];
    this.attesi = [];
    return e;
  }
}
