// Cameras in step: one clock in wall time for every player on the page. The clock follows the
// first camera that is playing a recording at that moment; the others are nudged towards it
// (playbackRate) or moved to it (currentTime) when they drift, wait with a note while they have
// no recording, and join again when they have one. When no camera has video a moment ahead, the
// clock jumps to the next recording of any of them before the picture stalls.
const PASSO_MS = 100;
const SCARTO_S = 0.04;   // drift tolerated before nudging the speed
const SALTO_S = 1;       // drift corrected by moving the playing point instead
const ANTICIPO_S = 0.25; // look-ahead for the jump over a gap
export const NIENTE_ORA = 'Nessuna registrazione in questo momento';

function pronto(p) {
  const v = p.video;
  return !v.paused && !v.seeking && v.readyState >= 3;
}

export class Sincronia {
  // su_ora(t, suona): called at every step with the clock; su_fine(): no recording left ahead.
  constructor({ su_ora, su_fine }) {
    this.su_ora = su_ora;
    this.su_fine = su_fine || (() => {});
    this.lettori = [];
    this.riquadri = [];
    this.t = 0;
    this.suona = false;
    this.velocita = 1;
    this.fuori = new Set();  // players waiting for a recording at the clock's moment
    this.timer = setInterval(() => this.passo(), PASSO_MS);
  }

  // lettori[i] plays into riquadri[i] (whose note says when it has nothing to show).
  imposta(lettori, riquadri) {
    this.lettori = lettori;
    this.riquadri = riquadri;
    this.fuori = new Set();
  }

  vai(t) {
    this.t = t;
    for (const p of this.lettori) if (p.copre(t) || p.prossimo_inizio(t) !== null) p.vai(t);
    this.su_ora(this.t, this.suona);
  }

  riproduci() {
    this.suona = true;
    this.passo();
  }

  pausa() {
    this.suona = false;
    for (const p of this.lettori) p.video.pause();
    this.su_ora(this.t, false);
  }

  imposta_velocita(v) {
    this.velocita = v;
    for (const p of this.lettori) p.video.playbackRate = v;
  }

  passo() {
    const ps = this.lettori;
    if (!ps.length) return;
    let guida = null;
    if (this.suona) {
      guida = ps.find((p) => p.copre(this.t) && pronto(p)) || null;
      if (guida) this.t = guida.ora();
      if (!ps.some((p) => p.copre(this.t + ANTICIPO_S))) {
        const dopo = ps.map((p) => p.prossimo_inizio(this.t)).filter((x) => x !== null);
        if (dopo.length) {
          this.vai(Math.min(...dopo));
          guida = null;
        } else if (!ps.some((p) => p.copre(this.t))) {
          this.su_fine();
        }
      }
    }
    ps.forEach((p, i) => this.segui(p, this.riquadri[i], p === guida));
    this.su_ora(this.t, this.suona);
  }

  segui(p, r, guida) {
    const v = p.video;
    if (!p.copre(this.t)) {
      if (!v.paused) v.pause();
      this.fuori.add(p);
      r?.scrivi(NIENTE_ORA);
      return;
    }
    if (this.fuori.delete(p)) {
      r?.scrivi('');
      p.vai(this.t);
    }
    if (!this.suona) {
      if (!v.paused) v.pause();
      return;
    }
    if (v.paused) v.play().catch(() => {});
    if (guida || v.seeking || v.readyState < 3) {
      v.playbackRate = this.velocita;
      return;
    }
    const scarto = p.ora() - this.t;
    if (Math.abs(scarto) > SALTO_S) {
      p.vai(this.t);
    } else if (Math.abs(scarto) > SCARTO_S) {
      v.playbackRate = this.velocita * Math.min(1.5, Math.max(0.5, 1 - scarto));
    } else if (v.playbackRate !== this.velocita) {
      v.playbackRate = this.velocita;
    }
  }

  // Releases every player (their streams and MediaSources); the clock keeps ticking for the next.
  svuota() {
    this.suona = false;
    for (const p of this.lettori) p.chiudi();
    this.lettori = [];
    this.riquadri = [];
  }
}
