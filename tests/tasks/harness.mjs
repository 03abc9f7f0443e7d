// The world a task runs in: a headless desktop of its own, a private home and
// daemon, and MCP sessions made by the SDK's client: over standard input and
// output, launching `glimmerstrand mcp`, or over HTTP, to one
// `glimmerstrand mcp --http` that the world starts.
import { spawn, spawnSync } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import { mkdtempSync, mkdirSync, readFileSync, writeFileSync, rmSync, statSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { performance } from 'node:perf_hooks';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { StreamableHTTPClientTransport } from '@modelcontextprotocol/sdk/client/streamableHttp.js';

export class TaskFailure extends Error {}

export function check(condition, message) {
  if (!condition) throw new TaskFailure(message);
}

// Every result text ends with "(App gN Xms)": X is the daemon's own time for the run.
const closingLine = /\((?:.*) g\d+(?: stale: call ui\.refresh\(\))? (\d+)ms\)\s*$/;

export function daemonMsOf(text) {
  const match = closingLine.exec(text);
  return match ? Number(match[1]) : null;
}

/** The statements of a result text: one chunk of lines per "#n", or one for a lone statement. */
export function statementsOf(text) {
  const chunks = [];
  let current = null;
  for (const line of text.split('\n')) {
    if (/^#\d+$/.test(line)) {
      current = [];
      chunks.push(current);
    } else {
      if (!current) chunks.push((current = []));
      current.push(line);
    }
  }
  return chunks;
}

/** The rows of statement `n` (1-based) as objects keyed by the table's header. */
export function rowsOf(text, n = 1) {
  const chunk = statementsOf(text)[n - 1];
  if (!chunk) return [];
  const lines = chunk.filter((line) => !line.startsWith('(') && !/^(ok|failed|note:|error in|retry:|[~+\-…] )/.test(line));
  if (lines.length === 0) return [];
  const header = lines[0].split('\t');
  return lines.slice(1).map((line) => {
    const cells = line.split('\t');
    return Object.fromEntries(header.map((key, i) => [key, cells[i]]));
  });
}

/** One session's calls, counted into the running task's figures. */
class Session {
  constructor(client, transport, figures) {
    this.client = client;
    this.transport = transport;
    this.figures = figures;
  }

  /** The tool result of a `do` call, as it came. */
  call(app, cypher) {
    return this.client.callTool({ name: 'do', arguments: app ? { cypher, app } : { cypher } }, undefined, { timeout: 90_000 });
  }

  async do(app, cypher, { allowError = false } = {}) {
    const started = performance.now();
    const result = await this.call(app, cypher);
    const ms = performance.now() - started;
    const text = result.content.filter((item) => item.type === 'text').map((item) => item.text).join('\n');
    this.figures.calls += 1;
    this.figures.bytes += Buffer.byteLength(text);
    this.figures.doMs += ms;
    const daemonMs = daemonMsOf(text);
    if (daemonMs !== null) this.figures.daemonMs += daemonMs;
    if (process.env.GLIMMERSTRAND_TASKS_VERBOSE) console.error(`--- do ${app ?? ''}: ${cypher}\n${text}`);
    if (result.isError && !allowError) throw new TaskFailure(`do on ${app ?? '(no app)'} failed:\n  ${cypher}\n${text}`);
    return text;
  }

  /** Ends the session: over HTTP with DELETE, as a client that is done should. */
  async close() {
    if (this.transport instanceof StreamableHTTPClientTransport) await this.transport.terminateSession();
    return this.client.close();
  }

  /** Goes away without a word, as a client that crashed: its connections just close. */
  vanish() {
    return this.client.close();
  }
}

/** Where the daemon's runs spent their time, from its log lines after byte `from`. */
export function runTimingsSince(logFile, from) {
  const totals = { runs: 0, elapsedMs: 0, settleMs: 0, applicationMs: 0, ownMs: 0 };
  let text = '';
  try {
    text = readFileSync(logFile).subarray(from).toString('utf8');
  } catch {
    return totals;
  }
  for (const line of text.split('\n')) {
    if (!line.includes('"message":"run"')) continue;
    let entry;
    try {
      entry = JSON.parse(line);
    } catch {
      continue;
    }
    totals.runs += 1;
    for (const key of ['elapsedMs', 'settleMs', 'applicationMs', 'ownMs']) totals[key] += entry[key] ?? 0;
  }
  return totals;
}

export function sizeOf(file) {
  try {
    return statSync(file).size;
  } catch {
    return 0;
  }
}

function parseExports(output) {
  const environment = {};
  for (const line of output.split('\n')) {
    if (!line.startsWith('export ')) continue;
    for (const [, name, quoted, plain] of line.slice(7).matchAll(/(\w+)=(?:'([^']*)'|(\S+))/g))
      environment[name] = quoted ?? plain;
  }
  return environment;
}

/**
 * A desktop, a home and a daemon of the suite's own. `close` stops all of
 * them, by pid for the desktop and by `glimmerstrand stop` for the daemon.
 */
export class World {
  constructor({ repo, build, apps, transport = 'stdio', wayland }) {
    this.transport = transport;
    this.repo = repo;
    // A compositor ("sway") runs a Wayland desktop instead of X11.
    this.wayland = wayland;
    this.client = path.join(build, 'src', 'client', 'glimmerstrand');
    this.apps = apps;
    this.folder = mkdtempSync(path.join(tmpdir(), 'glimmerstrand-tasks-'));
    this.files = path.join(this.folder, 'files');
    this.sessions = new Set();
  }

  start() {
    const home = path.join(this.folder, 'home');
    const config = path.join(home, '.config');
    for (const folder of [this.files, config, path.join(home, '.local', 'share'), path.join(home, '.local', 'state')])
      mkdirSync(folder, { recursive: true });
    // Plain text opens in the editor, whatever the machine's own choice is.
    writeFileSync(path.join(config, 'mimeapps.list'), '[Default Applications]\ntext/plain=org.xfce.mousepad.desktop\n');
    const base = { ...process.env };
    for (const name of ['GLIMMERSTRAND_SOCKET', 'GLIMMERSTRAND_SIM_APPS', 'AT_SPI_BUS_ADDRESS', 'DBUS_SESSION_BUS_ADDRESS'])
      delete base[name];
    Object.assign(base, {
      HOME: home,
      XDG_CONFIG_HOME: config,
      XDG_DATA_HOME: path.join(home, '.local', 'share'),
      XDG_STATE_HOME: path.join(home, '.local', 'state'),
      GLIMMERSTRAND_DESKTOP_DIR: path.join(this.folder, 'desktop'),
      GLIMMERSTRAND_PLATFORM: 'linux',
      GLIMMERSTRAND_CURSOR: '0',
      // The daemon writes where each run's time went at this level.
      GLIMMERSTRAND_LOG_LEVEL: 'debug',
    });
    this.daemonLog = path.join(home, '.local', 'state', 'glimmerstrand', 'daemon.log');
    this.baseEnvironment = base;
    const kind = this.wayland ? ['--wayland', this.wayland] : ['--wm'];
    const started = spawnSync('bash', [path.join(this.repo, 'scripts', 'desktop.sh'), 'start', ...kind, ...this.apps], {
      env: base,
      encoding: 'utf8',
      stdio: ['ignore', 'pipe', 'inherit'],
    });
    this.desktopStarted = true;
    if (started.status !== 0) throw new Error(`the desktop did not start (status ${started.status})`);
    this.desktop = parseExports(started.stdout);
    this.environment = { ...base, ...this.desktop };
  }

  /** Over HTTP: starts `glimmerstrand mcp --http` on a port of the system's choice, with a token of its own. */
  async startHttp() {
    this.token = randomBytes(24).toString('hex');
    this.bridge = spawn(this.client, ['mcp', '--http', '127.0.0.1:0'], {
      env: { ...this.environment, GLIMMERSTRAND_HTTP_TOKEN: this.token },
      cwd: this.files,
      stdio: ['ignore', 'ignore', 'pipe'],
    });
    let said = '';
    this.url = await new Promise((resolve, reject) => {
      this.bridge.stderr.on('data', (chunk) => {
        said += chunk;
        const url = /MCP on (http:\/\/\S+\/mcp)/.exec(said)?.[1];
        if (url) resolve(new URL(url));
      });
      this.bridge.once('exit', (code) => reject(new Error(`glimmerstrand mcp --http ended (status ${code}): ${said}`)));
    });
  }

  /** Plain HTTP to the bridge, for what the SDK never sends. */
  post(headers, body) {
    return fetch(this.url, { method: 'POST', headers: { 'content-type': 'application/json', ...headers }, body });
  }

  /** How many MCP sessions the daemon has now. */
  daemonSessions() {
    const status = spawnSync(this.client, ['--json', 'status'], { env: this.environment, encoding: 'utf8', timeout: 20_000 });
    return JSON.parse(status.stdout).result.sessions;
  }

  pidOf(name) {
    return Number(this.desktop[`GLIMMERSTRAND_PID_${name.replace(/[^A-Za-z0-9]/g, '_')}`]);
  }

  /** A new MCP session: the SDK client launching the bridge, which starts or reaches the daemon, or over HTTP. */
  async connect(figures) {
    const transport =
      this.transport === 'http'
        ? new StreamableHTTPClientTransport(this.url, { requestInit: { headers: { Authorization: `Bearer ${this.token}` } } })
        : new StdioClientTransport({ command: this.client, args: ['mcp'], env: this.environment, cwd: this.files, stderr: 'inherit' });
    const client = new Client({ name: 'glimmerstrand-tasks', version: '1.0.0' });
    await client.connect(transport);
    const session = new Session(client, transport, figures);
    this.sessions.add(session);
    return session;
  }

  async closeSession(session) {
    this.sessions.delete(session);
    await session.close();
  }

  /** The titles of the desktop's windows, as its X server or its compositor lists them. */
  windowTitles() {
    if (!this.wayland) return this.run('xwininfo', ['-root', '-tree']).stdout;
    const titles = [];
    const walk = (node) => {
      if (node.pid && node.name) titles.push(node.name);
      for (const child of [...(node.nodes ?? []), ...(node.floating_nodes ?? [])]) walk(child);
    };
    const tree = this.run('swaymsg', ['-r', '-t', 'get_tree']).stdout;
    if (tree) walk(JSON.parse(tree));
    return titles.join('\n');
  }

  /** The size of the picture on the clipboard as another client reads it ("640x480"), or "none". */
  clipboardImageSize() {
    if (!this.wayland) {
      const seen = this.run(path.join(this.repo, 'tests', 'tasks', 'clipboard_image.py'), []);
      return seen.stdout.trim() || seen.stderr;
    }
    // A Wayland client without a focused window is told no selection: wl-paste reads it by data control.
    const png = spawnSync('wl-paste', ['--no-newline', '--type', 'image/png'], { env: this.environment, timeout: 20_000 });
    const bytes = png.stdout;
    if (!bytes || bytes.length < 24 || bytes.toString('latin1', 12, 16) !== 'IHDR') return 'none';
    return `${bytes.readUInt32BE(16)}x${bytes.readUInt32BE(20)}`;
  }

  /** Runs a program of the desktop (such as xwininfo) with the desktop's environment. */
  run(command, args) {
    return spawnSync(command, args, { env: this.environment, encoding: 'utf8', timeout: 20_000 });
  }

  async close() {
    for (const session of [...this.sessions]) await this.closeSession(session).catch(() => {});
    if (this.bridge && this.bridge.exitCode === null) {
      const ended = new Promise((resolve) => this.bridge.once('exit', resolve));
      this.bridge.kill('SIGTERM');
      await ended;
    }
    if (this.environment) spawnSync(this.client, ['stop'], { env: this.environment, stdio: 'ignore', timeout: 20_000 });
    if (this.desktopStarted)
      spawnSync('bash', [path.join(this.repo, 'scripts', 'desktop.sh'), 'stop'], {
        env: this.baseEnvironment,
        stdio: ['ignore', 'ignore', 'inherit'],
        timeout: 30_000,
      });
    // An application's helper processes end a moment after it, and may still
    // write their caches and settings while the folder goes; one still
    // writing after that is named, and its folder left for a look.
    try {
      rmSync(this.folder, { recursive: true, force: true, maxRetries: 10, retryDelay: 200 });
    } catch (error) {
      console.error(`tasks: ${this.folder} stays: ${error.message}`);
    }
  }
}

/** Resolves once `pid` has ended, or rejects after `limitMs`; polls, never assumes. */
export async function processEnded(pid, limitMs) {
  const deadline = performance.now() + limitMs;
  for (;;) {
    // A child the daemon has not reaped yet counts as ended: it runs no more.
    let state;
    try {
      state = readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1]?.[0];
    } catch {
      return true;
    }
    if (state === 'Z' || state === 'X') return true;
    if (performance.now() > deadline) return false;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}
