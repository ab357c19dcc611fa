// The stack the pages run on, as `make run` builds it, in a temporary root:
// the demo library (and whatever a test adds), a CD image in the drive,
// lighttpd on a free port in front of the daemon, playing to the null device.
import { spawn, spawnSync } from 'node:child_process';
import { mkdtempSync, mkdirSync, writeFileSync, readFileSync, rmSync, existsSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join, dirname } from 'node:path';
import { fileURLToPath } from 'node:url';

export const TOP = join(dirname(fileURLToPath(import.meta.url)), '..', '..');
const KZ_BIN = process.env.KZ_BIN || join(TOP, 'build', 'kz');
const FFMPEG = process.env.KZ_FFMPEG || '/usr/bin/ffmpeg';
// Console escapes the daemon writes (blanking, colours) are not log text.
const ESCAPES = /\x1b\[[0-9;]*[\]m]/g;

function run(cmd, args) {
  const r = spawnSync(cmd, args, { stdio: ['ignore', 'ignore', 'pipe'] });
  if (r.status !== 0) throw new Error(`${cmd} ${args.join(' ')} failed: ${r.stderr}`);
}

function freePort() {
  return new Promise((resolve, reject) => {
    const server = createServer();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

// A tone of `seconds` as a music file, tagged like the demo library's.
// ffmpeg with these arguments, quietly; throws with its errors when it fails.
export function ffmpeg(...args) {
  run(FFMPEG, ['-nostdin', '-loglevel', 'error', '-y', ...args]);
}

export function makeTone(path, seconds, frequency, title) {
  mkdirSync(dirname(path), { recursive: true });
  ffmpeg('-f', 'lavfi', '-i', `sine=frequency=${frequency}:duration=${seconds}`, '-ac', '2', '-ar', '44100', '-metadata', `title=${title}`, path);
}

// A disc image that libcdio reads: raw 2,352-byte sectors (588 stereo
// frames of 16-bit samples each) and a cue sheet with one INDEX 01 a track.
export function makeDisc(dir, trackSeconds) {
  const frames = trackSeconds.map((s) => s * 75 * 588);
  const total = frames.reduce((a, b) => a + b, 0);
  const pcm = Buffer.alloc(total * 4);
  for (let i = 0; i < total; i++) {
    const v = Math.round(6000 * Math.sin((2 * Math.PI * 440 * i) / 44100));
    pcm.writeInt16LE(v, i * 4);
    pcm.writeInt16LE(v, i * 4 + 2);
  }
  writeFileSync(join(dir, 'disc.bin'), pcm);
  let cue = 'FILE "disc.bin" BINARY\n';
  let at = 0;
  frames.forEach((n, i) => {
    const sector = at / 588;
    const mm = String(Math.floor(sector / 75 / 60)).padStart(2, '0');
    const ss = String(Math.floor(sector / 75) % 60).padStart(2, '0');
    const ff = String(sector % 75).padStart(2, '0');
    cue += `  TRACK ${String(i + 1).padStart(2, '0')} AUDIO\n    INDEX 01 ${mm}:${ss}:${ff}\n`;
    at += n;
  });
  writeFileSync(join(dir, 'disc.cue'), cue);
  return join(dir, 'disc.cue');
}

// For afterEach: after a test that failed, the daemon's last log lines and
// lighttpd's errors, since a page that waits in vain cannot say why.
export function logOnFailure(current) {
  return (t) => {
    const stack = current();
    if (t.passed || !stack?.lines) return;
    for (const line of stack.lines.slice(-80)) console.log(`# daemon: ${line}`);
    const errors = join(stack.root, 'var', 'log', 'lighttpd-error.log');
    if (existsSync(errors)) {
      for (const line of readFileSync(errors, 'utf8').split('\n').slice(-20)) console.log(`# lighttpd: ${line}`);
    }
  };
}

export class Stack {
  // prepare(musicDir) may add files to the library before the daemon starts;
  // env adds to the daemon's environment (the lookup services' addresses).
  static async start({ prepare, discTracks = [20, 20], env, compression = 'None' } = {}) {
    const stack = new Stack();
    stack.env = env;
    stack.compression = compression;
    stack.root = mkdtempSync(join(tmpdir(), 'kz-browser-'));
    try {
      await stack.#start(prepare, discTracks);
    } catch (e) {
      await stack.stop();
      throw e;
    }
    return stack;
  }

  async #start(prepare, discTracks) {
    const hdd = join(this.root, 'media', 'hdd1');
    this.music = join(hdd, 'music');
    mkdirSync(this.music, { recursive: true });
    run(join(TOP, 'scripts', 'make-demo-library'), [hdd]);
    // The pages' tests keep their WAVs as made unless they ask for compression.
    writeFileSync(join(hdd, 'kzsettings'), `Compression\n${this.compression}\n`);
    if (prepare) await prepare(this.music);
    const cue = makeDisc(this.root, discTracks);

    this.port = await freePort();
    this.base = `http://127.0.0.1:${this.port}`;
    run(join(TOP, 'scripts', 'install-web'), [this.root, join(TOP, 'www'), '127.0.0.1', String(this.port)]);

    this.lines = [];
    this.waiters = [];
    // The disc lookup's services stay off (no test reaches the internet)
    // unless the test hands in local stand-ins.
    const env = {
      ...process.env, KZ_ROOT: this.root, KZ_PCM: 'null', KZ_CDROM: cue,
      KZ_MUSICBRAINZ: '', KZ_CDDB: '', KZ_COVERART: '', KZ_RADIO_DIRECTORY: '', ...(this.env || {}),
    };
    delete env.KZ_VERBOSE;
    this.daemon = spawn(KZ_BIN, [], { env, stdio: ['ignore', 'pipe', 'pipe'] });
    // A run that is cut short (a time-out, Ctrl-C) takes its processes along.
    this.onExit = () => this.#killNow();
    process.on('exit', this.onExit);
    for (const signal of ['SIGINT', 'SIGTERM']) process.once(signal, () => process.exit(130));
    this.exited = new Promise((resolve) => this.daemon.on('exit', (code, signal) => resolve({ code, signal })));
    let partial = '';
    this.daemon.stdout.on('data', (chunk) => {
      partial += chunk.toString('utf8');
      const lines = partial.split('\n');
      partial = lines.pop();
      for (const line of lines) this.lines.push(line.replace(ESCAPES, ''));
      this.waiters = this.waiters.filter((w) => !w());
    });
    this.daemon.stderr.resume();
    await this.waitForLog('loadOrScan () finished');
    await this.waitForLog('Waiting for incoming connections on socket');
    // The daemon starts lighttpd through the init script in the root.
    await this.until(async () => (await fetch(this.base + '/', { signal: AbortSignal.timeout(2000) })).ok, 10000, 'lighttpd to answer');
  }

  waitForLog(text, timeout = 30000) {
    return new Promise((resolve, reject) => {
      const found = () => {
        const line = this.lines.find((l) => l.includes(text));
        if (line !== undefined) resolve(line);
        return line !== undefined;
      };
      if (found()) return;
      const timer = setTimeout(() => {
        this.waiters = this.waiters.filter((w) => w !== check);
        reject(new Error(`no log line with "${text}"; log:\n${this.lines.join('\n')}`));
      }, timeout);
      const check = () => found() && (clearTimeout(timer), true);
      this.waiters.push(check);
    });
  }

  // Polls fn until it gives a true value; fails after timeout ms.
  async until(fn, timeout, what) {
    const deadline = Date.now() + timeout;
    let last;
    for (;;) {
      try {
        const value = await fn();
        if (value) return value;
      } catch (e) {
        last = e;
      }
      if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}${last ? `: ${last.message}` : ''}`);
      await new Promise((r) => setTimeout(r, 100));
    }
  }

  async api(command) {
    const text = await (await fetch(`${this.base}/api/${command}`, { cache: 'no-store' })).text();
    try {
      return JSON.parse(text);
    } catch {
      return text;
    }
  }

  async status() {
    return this.api('status');
  }

  // SIGTERM asks for the daemon's orderly quit; it gets 20 s before SIGKILL.
  async stopDaemon() {
    if (!this.daemon || this.daemon.exitCode !== null || this.daemon.signalCode !== null) return this.exited;
    this.daemon.kill('SIGTERM');
    const timer = setTimeout(() => this.daemon.kill('SIGKILL'), 20000);
    const result = await this.exited;
    clearTimeout(timer);
    return result;
  }

  #killLighttpd() {
    const pidFile = join(this.root, 'var', 'run', 'lighttpd.pid');
    if (!existsSync(pidFile)) return;
    try {
      process.kill(Number(readFileSync(pidFile, 'utf8')), 'SIGTERM');
    } catch {
      // already gone
    }
  }

  #killNow() {
    if (this.daemon && this.daemon.exitCode === null && this.daemon.signalCode === null) this.daemon.kill('SIGKILL');
    this.#killLighttpd();
    rmSync(this.root, { recursive: true, force: true });
  }

  async stop() {
    await this.stopDaemon();
    this.#killLighttpd();
    if (this.onExit) process.off('exit', this.onExit);
    rmSync(this.root, { recursive: true, force: true });
  }
}
