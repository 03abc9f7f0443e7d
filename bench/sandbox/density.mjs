// How many sandboxes one host holds: each is what the sandbox image's entry
// point starts, as an instance of its own (GLIMMERSTRAND_INSTANCE): a headless
// desktop with a window manager and two applications (galculator, mousepad),
// a daemon, and `glimmerstrand mcp --http`. At each count it reports each
// sandbox's memory (the proportional set size of all its processes) and the
// median time of a `do` that reads over HTTP within a session: once with one
// agent working and the others idle, and once with every sandbox's agent
// reading at the same moment.
//
//   node bench/sandbox/density.mjs [--build DIR] [--counts 1,4,8] [--reads 200]
//
// Writes DIR/density-report.json. Everything it starts it stops, by pid.
import { spawn, spawnSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import http from 'node:http';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { performance } from 'node:perf_hooks';
import { fileURLToPath } from 'node:url';
import { parseArgs } from 'node:util';

const here = path.dirname(fileURLToPath(import.meta.url));
const repo = path.resolve(here, '..', '..');
const { values: options } = parseArgs({
  options: {
    build: { type: 'string', default: path.join(repo, 'build', 'release') },
    counts: { type: 'string', default: '1,4,8' },
    reads: { type: 'string', default: '200' },
  },
});
const client = path.join(options.build, 'src', 'client', 'glimmerstrand');
const counts = options.counts.split(',').map(Number);
const reads = Number(options.reads);
const token = 'density-bench';
const work = mkdtempSync(path.join(tmpdir(), 'glimmerstrand-density-'));

function parseExports(text) {
  return Object.fromEntries([...text.matchAll(/^export (\w+)='([^']*)'$/gm)].map((m) => [m[1], m[2]]));
}

// ---- Processes and their memory -----------------------------------------------

function childrenOf(pid) {
  try {
    return readFileSync(`/proc/${pid}/task/${pid}/children`, 'utf8').split(/\s+/).filter(Boolean).map(Number);
  } catch {
    return [];
  }
}

function withDescendants(pids) {
  const all = new Set();
  const pending = [...pids];
  while (pending.length) {
    const pid = pending.pop();
    if (all.has(pid)) continue;
    all.add(pid);
    pending.push(...childrenOf(pid));
  }
  return [...all];
}

function memoryKiB(pid, field) {
  try {
    const match = new RegExp(`^${field}:\\s+(\\d+) kB`, 'm').exec(readFileSync(`/proc/${pid}/smaps_rollup`, 'utf8'));
    return match ? Number(match[1]) : 0;
  } catch {
    return 0;  // gone meanwhile
  }
}

// ---- One sandbox ----------------------------------------------------------------

class Sandbox {
  constructor(index) {
    this.name = `density-${process.pid}-${index}`;
    const home = path.join(work, String(index));
    mkdirSync(path.join(home, '.config'), { recursive: true });
    this.environment = {
      PATH: process.env.PATH,
      HOME: home,
      XDG_CONFIG_HOME: path.join(home, '.config'),
      XDG_STATE_HOME: path.join(home, 'state'),
      GLIMMERSTRAND_INSTANCE: this.name,
      GLIMMERSTRAND_PLATFORM: 'linux',
      GLIMMERSTRAND_CURSOR: '0',
      GLIMMERSTRAND_LOG_LEVEL: 'warn',
      GLIMMERSTRAND_HTTP_TOKEN: token,
    };
  }

  async start() {
    const started = spawnSync(client, ['desktop', 'start', 'galculator', 'mousepad'], {
      env: this.environment,
      encoding: 'utf8',
    });
    if (started.status !== 0) throw new Error(`${this.name}: the desktop did not start:\n${started.stderr}`);
    this.desktop = parseExports(started.stdout);
    this.bridge = spawn(client, ['mcp', '--http', '127.0.0.1:0'], {
      env: { ...this.environment, ...this.desktop },
      stdio: ['ignore', 'ignore', 'pipe'],
    });
    let said = '';
    this.port = await new Promise((resolve, reject) => {
      this.bridge.stderr.on('data', (chunk) => {
        said += chunk;
        const port = /MCP on http:\/\/127\.0\.0\.1:(\d+)\/mcp/.exec(said)?.[1];
        if (port) resolve(Number(port));
      });
      this.bridge.once('exit', (code) => reject(new Error(`${this.name}: mcp --http ended (${code}): ${said}`)));
    });
    this.agent = new http.Agent({ keepAlive: true, maxSockets: 1 });
    const initialized = await this.post({
      jsonrpc: '2.0',
      id: 0,
      method: 'initialize',
      params: { protocolVersion: '2025-11-25', capabilities: {}, clientInfo: { name: 'density', version: '1' } },
    });
    this.session = initialized.headers['mcp-session-id'];
    await this.read();  // the first read makes the mirror
  }

  post(message) {
    const body = JSON.stringify(message);
    const headers = {
      authorization: `Bearer ${token}`,
      'content-type': 'application/json',
      accept: 'application/json, text/event-stream',
      'content-length': Buffer.byteLength(body),
    };
    if (this.session) Object.assign(headers, { 'mcp-session-id': this.session, 'mcp-protocol-version': '2025-11-25' });
    return new Promise((resolve, reject) => {
      const request = http.request({ host: '127.0.0.1', port: this.port, path: '/mcp', method: 'POST', headers, agent: this.agent }, (response) => {
        let text = '';
        response.setEncoding('utf8');
        response.on('data', (chunk) => (text += chunk));
        response.on('end', () => resolve({ status: response.statusCode, headers: response.headers, text }));
      });
      request.on('error', reject);
      request.end(body);
    });
  }

  /** One `do` that reads the calculator's keys; its time in ms. */
  async read() {
    const started = performance.now();
    const reply = await this.post({
      jsonrpc: '2.0',
      id: 1,
      method: 'tools/call',
      params: { name: 'do', arguments: { app: 'galculator', cypher: 'MATCH (b:CheckBox) RETURN b.name LIMIT 20' } },
    });
    const ms = performance.now() - started;
    if (reply.status !== 200 || reply.text.includes('"isError"')) throw new Error(`${this.name}: the read failed: ${reply.text}`);
    return ms;
  }

  /** Every process of the sandbox: the desktop's, the daemon (with its log writer) and the HTTP server. */
  pids() {
    const recorded = readFileSync(path.join(this.desktop.GLIMMERSTRAND_DESKTOP_DIR, 'pids'), 'utf8')
      .split('\n')
      .filter(Boolean)
      .map((line) => Number(line.split(' ')[0]));
    const status = spawnSync(client, ['--json', 'status'], { env: this.environment, encoding: 'utf8' });
    const daemon = JSON.parse(status.stdout).result.pid;
    const writer = Number(readFileSync(`/proc/${daemon}/stat`, 'utf8').split(') ')[1].split(' ')[1]);
    return withDescendants([...recorded, writer, this.bridge.pid]);
  }

  memory() {
    const pids = this.pids();
    const sum = (field) => pids.reduce((total, pid) => total + memoryKiB(pid, field), 0);
    return { processes: pids.length, pssMiB: sum('Pss') / 1024, rssMiB: sum('Rss') / 1024 };
  }

  async stop() {
    this.agent?.destroy();
    if (this.bridge && this.bridge.exitCode === null) {
      const ended = new Promise((resolve) => this.bridge.once('exit', resolve));
      this.bridge.kill('SIGTERM');
      await ended;
    }
    spawnSync(client, ['stop'], { env: this.environment, stdio: 'ignore' });
    spawnSync(client, ['desktop', 'stop'], { env: this.environment, stdio: 'ignore' });
    if (this.desktop) rmSync(this.desktop.GLIMMERSTRAND_DESKTOP_DIR, { recursive: true, force: true });
  }
}

// ---- The measurements --------------------------------------------------------------

function median(values) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.floor(sorted.length / 2)];
}

function percentile(values, share) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * share))];
}

async function readsOf(sandbox, count) {
  const times = [];
  for (let k = 0; k < count; ++k) times.push(await sandbox.read());
  return times;
}

async function measure(sandboxes) {
  const alone = await readsOf(sandboxes[0], reads);
  const together = (await Promise.all(sandboxes.map((s) => readsOf(s, reads)))).flat();
  const memories = sandboxes.map((s) => s.memory());
  const round = (x) => Math.round(x * 100) / 100;
  return {
    sandboxes: sandboxes.length,
    aloneMedianMs: round(median(alone)),
    togetherMedianMs: round(median(together)),
    togetherP90Ms: round(percentile(together, 0.9)),
    pssMiBEach: round(memories.reduce((t, m) => t + m.pssMiB, 0) / memories.length),
    rssMiBEach: round(memories.reduce((t, m) => t + m.rssMiB, 0) / memories.length),
    processesEach: Math.round(memories.reduce((t, m) => t + m.processes, 0) / memories.length),
    availableMiB: round(Number(/^MemAvailable:\s+(\d+)/m.exec(readFileSync('/proc/meminfo', 'utf8'))[1]) / 1024),
  };
}

async function main() {
  const sandboxes = [];
  const results = [];
  const stop = async () => {
    for (const sandbox of sandboxes) await sandbox.stop().catch(() => {});
    rmSync(work, { recursive: true, force: true });
  };
  process.once('SIGINT', () => stop().finally(() => process.exit(2)));
  try {
    for (const count of counts) {
      while (sandboxes.length < count) {
        const sandbox = new Sandbox(sandboxes.length);
        sandboxes.push(sandbox);
        await sandbox.start();
      }
      const result = await measure(sandboxes);
      results.push(result);
      console.log(JSON.stringify(result));
    }
  } finally {
    await stop();
  }
  const report = path.join(options.build, 'density-report.json');
  writeFileSync(report, `${JSON.stringify({ reads, results }, null, 2)}\n`);
  console.log(`report: ${report}`);
}

main().catch((error) => {
  console.error(`density: ${error.stack ?? error}`);
  process.exit(1);
});
