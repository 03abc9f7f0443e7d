// Runs the agent tasks on real applications and writes what each cost.
//
//   node run.mjs [--build DIR] [--report FILE] [--only NAME,...] [--transport stdio|http] [--wayland sway]
//
// Over HTTP (`glimmerstrand mcp --http` and the SDK's Streamable HTTP client)
// the core tasks run, and those about HTTP alone. On Wayland the tasks marked
// `x11` are left out.
// Exits 1 when any task fails.
import { mkdirSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { performance } from 'node:perf_hooks';
import { fileURLToPath } from 'node:url';
import { parseArgs } from 'node:util';

import { World, runTimingsSince, sizeOf } from './harness.mjs';
import { tasks } from './tasks.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const repo = path.resolve(here, '..', '..');
const { values: options } = parseArgs({
  options: {
    build: { type: 'string', default: path.join(repo, 'build', 'release') },
    report: { type: 'string' },
    only: { type: 'string' },
    transport: { type: 'string', default: 'stdio' },
    // A headless Wayland desktop on this compositor instead of X11.
    wayland: { type: 'string' },
  },
});
const overHttp = options.transport === 'http';
const reportFile = options.report ?? path.join(options.build, overHttp ? 'tasks-http-report.json' : 'tasks-report.json');
const forTransport = tasks.filter(
  (task) => (overHttp ? task.core || task.http : !task.http) && !(options.wayland && task.x11),
);
const chosen = options.only ? forTransport.filter((task) => options.only.split(',').includes(task.name)) : forTransport;
const taskLimitMs = 90_000;

const apps = ['galculator', 'gnome-calculator', 'gtk3-widget-factory', `/usr/bin/python3 ${path.join(repo, 'tests', 'platform', 'linux', 'data', 'form_app.py')}`];
// The browsers start only for the web tasks: each takes seconds and memory.
if (chosen.some((task) => task.browser)) apps.push('chromium --no-first-run about:blank', 'firefox-esr about:blank');

function withLimit(promise, ms) {
  let timer;
  const limit = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`no outcome within ${ms / 1000} s`)), ms);
  });
  return Promise.race([promise, limit]).finally(() => clearTimeout(timer));
}

async function runTask(world, task) {
  const figures = { calls: 0, bytes: 0, doMs: 0, daemonMs: 0 };
  const opened = [];
  const connect = async () => {
    const session = await world.connect(figures);
    opened.push(session);
    return session;
  };
  const logFrom = sizeOf(world.daemonLog);
  const started = performance.now();
  let error = null;
  let extra = {};
  try {
    const session = await connect();
    extra = (await withLimit(task.run({ session, connect, world }), taskLimitMs)) ?? {};
  } catch (e) {
    error = e.message;
  }
  for (const session of opened) if (world.sessions.has(session)) await world.closeSession(session).catch(() => {});
  const wallMs = performance.now() - started;
  const runs = runTimingsSince(world.daemonLog, logFrom);
  const share = (ms) => (wallMs > 0 ? Number((ms / wallMs).toFixed(3)) : 0);
  return {
    name: task.name,
    passed: error === null,
    calls: figures.calls,
    wallMs: Math.round(wallMs),
    doMs: Math.round(figures.doMs),
    daemonMs: Math.round(figures.daemonMs),
    // The round trips less the daemon's own runs: the bridge, the socket,
    // JSON-RPC and the SDK, and also lease waits and an application's first look-up.
    outsideRunMs: Math.round(figures.doMs - figures.daemonMs),
    outsideRunShare: wallMs > 0 ? Number(((figures.doMs - figures.daemonMs) / wallMs).toFixed(3)) : 0,
    // Inside the daemon's runs: waiting for applications to settle, their
    // actions and fresh reads, and the daemon's own work (parsing, the
    // graph, the change report).
    settleMs: Math.round(runs.settleMs),
    applicationMs: Math.round(runs.applicationMs),
    ownMs: Math.round(runs.ownMs),
    settleShare: share(runs.settleMs),
    ownShare: share(runs.ownMs),
    // Ours all told: the daemon's own work and everything outside its runs.
    oursShare: share(runs.ownMs + figures.doMs - figures.daemonMs),
    bytes: figures.bytes,
    ...extra,
    error,
  };
}

function table(results) {
  const header = ['task', 'calls', 'wall ms', 'settle', 'app', 'own', 'outside run', 'bytes', 'passed'];
  const percent = (share) => `${(share * 100).toFixed(1)}%`;
  const rows = results.map((r) => [
    r.name,
    String(r.calls),
    String(r.wallMs),
    percent(r.settleShare),
    percent(r.wallMs > 0 ? r.applicationMs / r.wallMs : 0),
    percent(r.ownShare),
    percent(r.outsideRunShare),
    String(r.bytes),
    r.passed ? 'yes' : 'NO',
  ]);
  const widths = header.map((h, i) => Math.max(h.length, ...rows.map((row) => row[i].length)));
  const line = (cells) => cells.map((cell, i) => (i === 0 ? cell.padEnd(widths[i]) : cell.padStart(widths[i]))).join('  ');
  return [line(header), ...rows.map(line)].join('\n');
}

const shareNote =
  'settle, app and own are shares of each task\'s wall time spent inside the daemon\'s runs waiting for ' +
  'applications to settle, in their actions and fresh reads, and in the daemon\'s own work (parsing, the graph, ' +
  'the change report), from its log; outside run is the rest of the do calls: the MCP bridge, the socket, ' +
  'JSON-RPC, the SDK, and waits for another session\'s lease';

async function main() {
  const world = new World({ repo, build: options.build, apps, transport: options.transport, wayland: options.wayland });
  const stop = () => world.close().finally(() => process.exit(2));
  process.once('SIGINT', stop);
  process.once('SIGTERM', stop);
  const started = performance.now();
  const results = [];
  try {
    world.start();
    if (overHttp) await world.startHttp();
    for (const task of chosen) {
      const result = await runTask(world, task);
      results.push(result);
      console.log(`${result.passed ? 'PASS' : 'FAIL'} ${task.name} (${result.wallMs} ms)${result.error ? `\n  ${result.error.replaceAll('\n', '\n  ')}` : ''}`);
    }
  } finally {
    await world.close();
  }
  const passed = results.filter((r) => r.passed).length;
  const report = { totalMs: Math.round(performance.now() - started), shareNote, tasks: results };
  mkdirSync(path.dirname(reportFile), { recursive: true });
  writeFileSync(reportFile, `${JSON.stringify(report, null, 2)}\n`);
  console.log(`\n${table(results)}\n\nreport: ${reportFile}\n${shareNote}`);
  console.log(`${passed} passed, ${results.length - passed} failed`);
  return passed === results.length && results.length === chosen.length;
}

main().then(
  (ok) => process.exit(ok ? 0 : 1),
  (error) => {
    console.error(`tasks: ${error.stack ?? error}`);
    process.exit(1);
  },
);
