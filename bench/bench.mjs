// Measures the server beside its peers in one run and prints each figure with its ratio and bound.
// Run: node bench.mjs PATH/TO/korvane-mcp [pings | desk | disk | packages | services]
// or: node bench.mjs PATH/TO/korvane-mcp.exe windows, under Wine.
// The parts packages and services want a machine prepared for them, and are started so by this program itself.
import { spawn, spawnSync } from 'node:child_process';
import { once } from 'node:events';
import {
  mkdirSync, mkdtempSync, readFileSync, realpathSync, rmSync, truncateSync, writeFileSync,
} from 'node:fs';
import { connect } from 'node:net';
import { cpus, loadavg, release, tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

const fromHere = (path) => fileURLToPath(new URL(path, import.meta.url));
const binary = realpathSync(process.argv[2] ?? fromHere('../build/release/src/korvane-mcp'));
const leastServer = fromHere('../tests/e2e/least_server.mjs');
const leastWindow = fromHere('../build/release/bench/korvane-least-window');
const psArguments = ['-eo', 'pid,ppid,comm,rss,pcpu,args'];

const startRounds = 15;
const pingStarts = 8;
const pingsPerStart = 500;
const pipelinesPerStart = 3;
const pipelinedPings = 20_000;
const listingRounds = 20;
const extraProcesses = 3000;
const socketCount = 20_000;
const packageCount = 3000;
const serviceCount = 300;
const deskStarts = 11;
const walkRounds = 15;
const cachedFiles = 100_000;
const deepLevels = 40_000;
const deepRounds = 5;

const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];

/** A server at the other end of two pipes; the lines that it answers are only counted. */
class Server {
  static ours = (env = {}) => new Server(binary, [], env);
  static throughScript = () => new Server(fromHere('../run.sh'), []);
  static peer = () => new Server(process.execPath, [leastServer]);

  constructor(command, args, env = {}) {
    const options = { stdio: ['pipe', 'pipe', 'ignore'], env: { ...process.env, ...env } };
    this.child = spawn(command, args, options);
    this.child.stdout.on('data', (chunk) => this.receive(chunk));
    this.child.on('exit', (code) => this.awaited && this.fail(`exited with code ${code}`));
    this.child.on('error', (error) => this.fail(error.message));
  }

  fail(reason) {
    console.error(`${this.child.spawnargs.join(' ')}: ${reason}`);
    process.exit(1);
  }

  receive(chunk) {
    this.answer.push(chunk);
    for (let at = chunk.indexOf(10); at >= 0; at = chunk.indexOf(10, at + 1)) this.awaited -= 1;
    if (this.awaited === 0) this.answered();
  }

  /** Sends `count` equal requests at once; the milliseconds until the last answer was whole. */
  async time(method, params = {}, count = 1) {
    const line = `${JSON.stringify({ jsonrpc: '2.0', id: 1, method, params })}\n`;
    this.answer = [];
    this.awaited = count;
    const done = new Promise((resolve) => (this.answered = resolve));
    const start = performance.now();
    this.child.stdin.write(line.repeat(count));
    await done;
    const elapsed = performance.now() - start;
    const first = JSON.parse(Buffer.concat(this.answer).toString().split('\n', 1)[0]);
    if (!first.result || first.result.isError) this.fail(JSON.stringify(first));
    return elapsed;
  }

  async handshake() {
    const clientInfo = { name: 'bench', version: '1' };
    await this.time('initialize', { protocolVersion: '2024-11-05', capabilities: {}, clientInfo });
    this.child.stdin.write('{"jsonrpc":"2.0","method":"notifications/initialized"}\n');
  }

  /** A line of /proc/PID/`file` that gives KiB, in MiB; undefined when it cannot be read. */
  mebibytes(file, key) {
    try {
      const content = readFileSync(`/proc/${this.child.pid}/${file}`, 'utf8');
      return Number(content.match(new RegExp(`^${key}:\\s*(\\d+) kB`, 'm'))[1]) / 1024;
    } catch {
      return undefined;
    }
  }

  async stop() {
    const exited = once(this.child, 'exit');
    this.child.stdin.end();
    await exited;
  }
}

/** Runs `ours` and `peer` in turn, each first in every other round; the two lists of results. */
async function interleave(rounds, ours, peer) {
  const results = [[], []];
  for (let round = 0; round < rounds; ++round) {
    for (const side of round % 2 ? [1, 0] : [0, 1]) results[side].push(await [ours, peer][side]());
  }
  return results;
}

function printRow(...cells) {
  const [figure, ours, theirs, unit, ratio, bound, met] = cells;
  const left = [figure.padEnd(46), ours.padStart(10), theirs.padStart(10), ` ${unit}`.padEnd(9)];
  console.log(left.join('') + ratio.padStart(6) + bound.padStart(9) + `  ${met}`);
}

/**
 * Prints one figure. `bound`: {atMost} or {atLeast} that the ratio ours / peer is to reach, or
 * {mostAbove}, by how much ours may exceed the peer, or {within}, what ours alone may be.
 */
function report(figure, unit, [ours, peer], bound = {}) {
  const ratio = ours / peer;
  const { atMost, atLeast, mostAbove, within } = bound;
  const texts = { atMost: `≤ ${atMost?.toFixed(2)}`, atLeast: `≥ ${atLeast?.toFixed(2)}` };
  const margins = { mostAbove: `≤ +${mostAbove}`, within: `≤ ${within} ${unit}` };
  const text = { ...texts, ...margins }[Object.keys(bound)[0]] ?? '';
  const tooMuch = ratio > atMost || ours - peer > mostAbove || ours > within;
  const missed = tooMuch || ratio < atLeast;
  const digits = Math.max(ours, peer) >= 1000 ? 0 : 2;
  const numbers = [ours, peer].map((number) => number.toFixed(digits));
  const met = text && (missed ? 'NO, MISSED' : 'yes');
  printRow(figure, ...numbers, unit, ratio.toFixed(2), text, met);
}

async function measureStart() {
  const startOnce = (start) => async () => {
    const from = performance.now();
    const server = start();
    await server.handshake();
    const elapsed = performance.now() - from;
    await server.stop();
    return elapsed;
  };
  const times = await interleave(startRounds, startOnce(Server.ours), startOnce(Server.peer));
  report('start to first answer', 'ms', times.map(median), { atMost: 0.1 });
  const script = await interleave(
    startRounds, startOnce(Server.throughScript), startOnce(Server.ours));
  report('  through run.sh, beside the binary', 'ms', script.map(median), { mostAbove: 300 });
}

const sorted = (values) => [...values].sort((a, b) => a - b);

/**
 * Prints the worst, the median and the best of a figure's values, each beside the peer's; `bounds`:
 * those of the three. `isRate`: whether more is better.
 */
function reportSpread(figure, unit, [ours, peer], isRate, bounds) {
  const sides = [ours, peer].map((values) => (isRate ? sorted(values) : sorted(values).reverse()));
  const last = ours.length - 1;
  const places = { worst: 0, median: Math.ceil(last / 2), best: last };
  for (const [name, place] of Object.entries(places)) {
    const numbers = sides.map((all) => all[place]);
    report(`${figure}, ${name} start of ${ours.length}`, unit, numbers, bounds[name]);
  }
}

/** One fresh start of a server: its median ping, its median rate of pipelined ones, its memory. */
async function pingFreshServer(start) {
  const server = start();
  await server.handshake();
  const trips = [];
  for (let i = 0; i < pingsPerStart; ++i) trips.push(await server.time('ping'));
  const memoryBefore = server.mebibytes('status', 'VmRSS');
  const rates = [];
  for (let i = 0; i < pipelinesPerStart; ++i)
    rates.push(pipelinedPings / ((await server.time('ping', {}, pipelinedPings)) / 1000));
  const memoryAfter = server.mebibytes('status', 'VmRSS');
  await server.stop();
  return { trip: median(trips) * 1000, rate: median(rates), memoryBefore, memoryAfter };
}

async function measurePings() {
  const sides = await interleave(pingStarts,
    () => pingFreshServer(Server.ours), () => pingFreshServer(Server.peer));
  const all = (key) => sides.map((starts) => starts.map((start) => start[key]));
  reportSpread('ping round trip', 'µs', all('trip'), false, { median: { atMost: 1 } });
  reportSpread('20,000 pipelined pings', 'pings/s', all('rate'), true, {});
  const [ours, peer] = all('rate');
  report('  our worst beside the median of the peer', 'pings/s',
    [Math.min(...ours), median(peer)], { atLeast: 1 });
  report('resident memory after the round trips', 'MiB', all('memoryBefore').map(median),
    { atMost: 0.25 });
  report('  after the pipelined pings', 'MiB', all('memoryAfter').map(median), { atMost: 0.25 });
}

const pause = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));

/** Starts a screen that nobody sees; its name, and what ends it. */
async function startScreen() {
  const options = { stdio: ['ignore', 'ignore', 'ignore', 'pipe'] };
  const screen = spawn('Xvfb', ['-displayfd', '3', '-nolisten', 'tcp'], options);
  const [name] = await once(screen.stdio[3], 'data');
  return { display: `:${String(name).trim()}`, stop: () => screen.kill() };
}

/** Whether somebody listens on a local socket. */
const isListening = (path) => new Promise((resolve) => {
  const socket = connect(path, () => {
    socket.destroy();
    resolve(true);
  });
  socket.on('error', () => resolve(false));
});

/**
 * Starts a program with a window, in a home of its own: the milliseconds until it listens, and the
 * MiB of memory that it has once it has nothing more to do.
 */
async function startWindow(program, socketName, display) {
  const restTime = 1000;
  const home = mkdtempSync(join(tmpdir(), 'korvane-bench-'));
  const env = { PATH: process.env.PATH, HOME: home, TMPDIR: home, DISPLAY: display };
  const from = performance.now();
  const child = spawn(program, [], { stdio: 'ignore', env });
  while (!(await isListening(join(home, socketName)))) {
    if (child.exitCode !== null) throw new Error(`${program} exited with code ${child.exitCode}`);
    await pause(1);
  }
  const elapsed = performance.now() - from;
  await pause(restTime);
  const status = readFileSync(`/proc/${child.pid}/status`, 'utf8');
  const exited = once(child, 'exit');
  child.kill();
  await exited;
  rmSync(home, { recursive: true });
  return { elapsed, memory: Number(status.match(/^VmRSS:\s*(\d+) kB/m)[1]) / 1024 };
}

async function measureDesk() {
  const screen = await startScreen();
  const starts = await interleave(deskStarts,
    () => startWindow(join(dirname(binary), 'korvane-desk'), 'korvane-consent-v1', screen.display),
    () => startWindow(leastWindow, 'korvane-least-window', screen.display));
  screen.stop();
  const medians = (key) => starts.map((side) => median(side.map((start) => start[key])));
  report('korvane-desk: start to listening', 'ms', medians('elapsed'), { within: 300 });
  report('  resident memory at rest', 'MiB', medians('memory'), { within: 60 });
}

/** Milliseconds of processor time from /proc/PID/stat, whose clock ticks last 10 ms. */
function readCpuTimes(pid) {
  const stat = readFileSync(`/proc/${pid}/stat`, 'utf8');
  const ticks = stat.slice(stat.lastIndexOf(')') + 2).split(' ').map(Number);
  return { own: (ticks[11] + ticks[12]) * 10, endedChildren: (ticks[13] + ticks[14]) * 10 };
}

/** What a call of a tool takes; a call that must succeed. */
const callOf = (server, name, args = {}) => () =>
  server.time('tools/call', { name, arguments: args });

/** What a program takes from its spawn to its exit, its output thrown away. */
const runOf = (command, args) => async () => {
  const from = performance.now();
  const [code] = await once(spawn(command, args, { stdio: 'ignore' }), 'exit');
  if (code !== 0) throw new Error(`${command} exited with code ${code}`);
  return performance.now() - from;
};

async function measureListing(occasion) {
  const server = Server.ours();
  const list = callOf(server, 'list_processes');
  await server.handshake();
  await list(); // The first one waits for a measure of processor use.
  await list();

  const used = () => [readCpuTimes(server.child.pid).own, readCpuTimes(process.pid).endedChildren];
  const before = used();
  const times = await interleave(listingRounds, list, runOf('ps', psArguments));
  const cpu = used().map((time, side) => (time - before[side]) / listingRounds);
  report(`list_processes, ${occasion}`, 'ms', times.map(median), { atMost: 1 });
  report('  its processor time', 'ms', cpu);
  await server.stop();
}

/** The back end's own listings, in a process that stays: see listings.cpp. */
class Listings {
  constructor(what) {
    this.child = spawn(fromHere('../build/release/bench/korvane-listings'), [what]);
    this.child.stderr.pipe(process.stderr);
  }

  /** The milliseconds of one listing. */
  time = async () => {
    const answer = once(this.child.stdout, 'data');
    this.child.stdin.write('\n');
    return Number((await answer)[0]);
  };

  async stop() {
    const exited = once(this.child, 'exit');
    this.child.stdin.end();
    await exited;
  }
}

/** Times a listing beside the system's own tool: by itself, and as the whole answer of a tool. */
async function measureInventory(what, occasion, tool, peer) {
  const listings = new Listings(what);
  const own = await interleave(listingRounds, listings.time, peer);
  report(`${what} listed, ${occasion}`, 'ms', own.map(median), { atMost: 1 });
  await listings.stop();
  const server = Server.ours();
  await server.handshake();
  const whole = await interleave(listingRounds, callOf(server, tool), peer);
  report(`  ${tool}, the whole answer`, 'ms', whole.map(median));
  await server.stop();
}

/** Starts processes with `count` connected sockets in all; the returned function ends them. */
async function startSockets(count) {
  const perProcess = 5000; // Most systems allow a process some more descriptors than that.
  const script = `const net = require('node:net');
    const ends = [];
    const server = net.createServer((end) => ends.push(end)).listen(0, '127.0.0.1', async () => {
      const { port } = server.address();
      while (ends.length < ${perProcess - 1}) {
        const localAddress = \`127.0.1.\${1 + ends.length % 250}\`;
        const end = net.connect({ port, host: '127.0.0.1', localAddress });
        ends.push(end);
        await new Promise((resolve) => end.once('connect', () => setImmediate(resolve)));
      }
      console.log();
    });
    process.stdin.on('end', () => (ends.forEach((end) => end.resetAndDestroy()), server.close()));
    process.stdin.resume();`;
  const children = [];
  for (let started = 0; started < count; started += perProcess) {
    const child = spawn(process.execPath, ['-e', script], { stdio: ['pipe', 'pipe', 'inherit'] });
    children.push(child);
    await once(child.stdout, 'data');
  }
  return async () => {
    for (const child of children) {
      const exited = once(child, 'exit');
      child.stdin.end();
      await exited;
    }
  };
}

async function measureConnections() {
  const stopSockets = await startSockets(socketCount);
  const ss = runOf('ss', ['-tunap']);
  await measureInventory('connections', `${socketCount} sockets`, 'list_network_connections', ss);
  await stopSockets();
}

async function measurePackages() {
  const fields = ['Package', 'Version', 'Architecture', 'Maintainer', 'Installed-Size'];
  const format = fields.map((field) => `\${${field}}\t`).join('');
  const query = runOf('dpkg-query', ['-W', `-f=${format}\n`]);
  await measureInventory('software', `${packageCount} packages`, 'list_uninstall_entries', query);
}

async function measureServices() {
  const properties = 'Id,Description,Documentation,ExecStart,MainPID,ActiveState,UnitFileState';
  const units = Array.from({ length: serviceCount }, (_, i) => `bench-${i}.service`);
  const show = runOf('systemctl', ['show', `--property=${properties}`, ...units]);
  const server = Server.ours();
  await server.handshake();
  const list = callOf(server, 'list_services');
  const cold = await list(); // systemd reads the unit files for it.
  const times = await interleave(listingRounds, list, show);
  report(`list_services, ${serviceCount} units more`, 'ms', times.map(median), { within: 500 });
  report('  the first time', 'ms', [cold, median(times[1])], { within: 500 });
  await server.stop();
}

/** Makes a tree of small files, `perDirectory` in each of `directories`, and a few large ones. */
function makeTree(root, directories, perDirectory) {
  for (let i = 0; i < directories; ++i) {
    const directory = join(root, `area-${i % 40}`, `project-${i % 1000}`, `module-${i}`);
    mkdirSync(directory, { recursive: true });
    for (let j = 0; j < perDirectory; ++j)
      writeFileSync(join(directory, `file-number-${j}.data`), 'x'.repeat((i * j) % 300));
    if (i % 500 === 0) truncateSync(join(directory, 'file-number-0.data'), 60 * 2 ** 20);
  }
}

/** Makes a tree of `levels`, each of four directories, whose paths are longer than any call takes. */
function makeDeepTree(root, levels) {
  const before = process.cwd();
  mkdirSync(root);
  process.chdir(root);
  for (let i = 0; i < levels; ++i) {
    for (const name of ['a', 'b', 'c', 'd']) mkdirSync(name);
    process.chdir('d');
  }
  process.chdir(before);
}

/** Times find_large_files on a tree beside `find` for the same, and removes the tree. */
async function measureLargeFiles(root, occasion, rounds, bound, memoryBound = { atMost: 1.25 }) {
  const server = Server.ours();
  await server.handshake();
  const search = callOf(server, 'find_large_files', { root_path: root, max_results: 1000 });
  const find = runOf('find', [root, '-type', 'f', '-size', '+51200k', '-printf', '%s %p\n']);
  const peakBefore = server.mebibytes('status', 'VmHWM');
  await interleave(2, search, find); // warms
  const times = await interleave(rounds, search, find);
  report(`find_large_files, ${occasion}`, 'ms', times.map(median), bound);
  report('  peak memory, beside that before', 'MiB',
    [server.mebibytes('status', 'VmHWM'), peakBefore], memoryBound);
  await server.stop();
  spawnSync('rm', ['-rf', root]); // which knows paths of any length
}

async function measureTrees(directory) {
  const trees = [[18_000, 8, { atMost: 0.9 }], [2000, 72, {}]];
  for (const [directories, perDirectory, bound] of trees) {
    const root = join(directory, `tree-${perDirectory}`);
    makeTree(root, directories, perDirectory);
    const occasion = `${(directories * perDirectory) / 1000}k files, ${perDirectory} a directory`;
    await measureLargeFiles(root, occasion, walkRounds, bound);
  }
  const deep = join(directory, 'deep');
  makeDeepTree(deep, deepLevels);
  await measureLargeFiles(deep, `${deepLevels / 1000}k levels`, deepRounds, { atMost: 2 }, {});
}

async function measureJunk(directory) {
  const [home, temporary] = [join(directory, 'home'), join(directory, 'temporary')];
  mkdirSync(temporary);
  makeTree(join(home, '.cache'), cachedFiles / 20, 20);
  const server = Server.ours({ HOME: home, TMPDIR: temporary });
  await server.handshake();
  const [scan, du] = [callOf(server, 'scan_junk'), runOf('du', ['-sb', join(home, '.cache')])];
  await interleave(2, scan, du);
  const times = await interleave(walkRounds, scan, du);
  report(`scan_junk, a cache of ${cachedFiles / 1000}k files`, 'ms', times.map(median), { atMost: 1 });
  await server.stop();
}

async function measureDisk() {
  const directory = mkdtempSync(join(tmpdir(), 'korvane-bench-'));
  await measureTrees(directory);
  await measureJunk(directory);
  rmSync(directory, { recursive: true });
}

/** Runs a part of this program by `command`, which is to start what follows it. */
async function runPart(part, command, args, env = {}) {
  const options = { stdio: ['ignore', 'inherit', 'inherit'], env: { ...process.env, ...env } };
  const self = [process.execPath, fileURLToPath(import.meta.url), binary, part];
  const [code] = await once(spawn(command, [...args, ...self], options), 'exit');
  if (code !== 0) console.log(`${part}: could not be measured here (exit code ${code})`);
}

/** This machine's package database, grown to `packageCount` packages by copies of its own. */
function writePackageDatabase(path) {
  const stanzas = readFileSync('/var/lib/dpkg/status', 'utf8').trim().split('\n\n');
  const grown = Array.from({ length: packageCount }, (_, i) => {
    const copy = Math.floor(i / stanzas.length);
    const stanza = stanzas[i % stanzas.length];
    return copy === 0 ? stanza : stanza.replace(/^Package: .*/m, `$&-copy${copy}`);
  });
  writeFileSync(path, `${grown.join('\n\n')}\n`);
}

function writeUnits(directory) {
  for (let i = 0; i < serviceCount; ++i) {
    const about = `[Unit]\nDescription=Bench ${i}\nDocumentation=man:true(1)\n`;
    const unit = `${about}[Service]\nExecStart=/bin/true ${i}\n`;
    writeFileSync(join(directory, `bench-${i}.service`), unit);
  }
}

async function measureOnPreparedMachines() {
  const directory = mkdtempSync(join(tmpdir(), 'korvane-bench-'));
  const [status, units] = [join(directory, 'status'), join(directory, 'units')];
  writePackageDatabase(status);
  mkdirSync(units);
  writeUnits(units);
  const bind = 'mount --bind "$0" /var/lib/dpkg/status && exec "$@"';
  await runPart('packages', 'unshare', ['-m', 'sh', '-c', bind, status]);
  const systemd = fromHere('../tests/platform/linux/private_systemd.sh');
  await runPart('services', systemd, [], { KORVANE_UNITS: units });
  rmSync(directory, { recursive: true });
}

/** Starts idle processes. The returned function ends them; so does the end of this program. */
async function startIdleProcesses(count) {
  const script = `trap '' PIPE; trap 'kill -KILL $(jobs -p); wait' EXIT
    for ((i = 0; i < ${count}; i++)); do sleep 600 > /dev/null & done; echo; read -r`;
  const shell = spawn('bash', ['-c', script], {
    detached: true, // Ctrl-C is for this program alone: the end of the pipe tells the shell.
    stdio: ['pipe', 'pipe', 'ignore'],
  });
  const exited = once(shell, 'exit');
  await once(shell.stdout, 'data');
  return async () => {
    shell.stdin.end();
    await exited;
  };
}

function printHead(system, peer) {
  const today = new Date().toISOString().slice(0, 10);
  console.log(`${today}, ${cpus().length} × ${cpus()[0].model.trim()}`);
  console.log(`Linux ${release()}, load ${loadavg()[0].toFixed(2)}, ${system}`);
  console.log(`ours: ${binary}\npeer: ${peer}\n`);
  printRow('', 'ours', 'peer', '', 'ratio', 'bound', 'met');
}

const wine = (...args) =>
  spawnSync(fromHere('../packaging/wine.sh'), args, { encoding: 'utf8', timeout: 300_000 });

/** Runs a program of the benchmark under Wine; `bounds`: those of the rows that it prints. */
function reportUnderWine(occasion, program, args, bounds) {
  const { status, stdout, stderr } = wine(join(dirname(binary), '../bench', program), ...args);
  const rows = [...stdout.matchAll(/^(.+) ([\d.e+-]+) ms beside (.+) ([\d.e+-]+) ms/gm)];
  for (const [index, [, figure, ours, name, peer]] of rows.entries())
    report(`${figure}${occasion} / ${name}`, 'ms', [Number(ours), Number(peer)], bounds[index]);
  if (status !== 0 || rows.length !== bounds.length)
    throw new Error(`${program} ended with ${status} after ${rows.length} rows: ${stderr}`);
}

/** The programs for Windows; each times by itself, within a session that has begun. */
function measureWindows() {
  const asWindows = (path) => `Z:${path.replaceAll('/', '\\')}`;
  printHead(wine('--version').stdout.trim(), 'the one after the stroke');
  const starts = [{ atMost: 2.5 }, { atMost: 2.5 }];
  const listings = [{ atMost: 1 }, { atMost: 1 }];
  const bounds = [...starts, ...listings, ...listings];
  reportUnderWine('', 'korvane-windows.exe', [asWindows(binary)], bounds);
  const directory = mkdtempSync(join(tmpdir(), 'korvane-bench-'));
  for (const [directories, perDirectory, bound] of [[2000, 8, 1.1], [250, 72, 1.5]]) {
    const root = join(directory, `tree-${perDirectory}`);
    makeTree(root, directories, perDirectory);
    const occasion = `, ${directories * perDirectory} files, ${perDirectory} a directory`;
    const args = [asWindows(root), String(walkRounds)];
    reportUnderWine(occasion, 'korvane-walk.exe', args, [{ atMost: bound }]);
  }
  rmSync(directory, { recursive: true });
}

async function measureAll() {
  printHead(`node ${process.version}`,
    'the least server of the official SDK; for a listing, the system\'s own tool');
  await measureStart();
  await measurePings();
  await measureDesk();
  await measureListing("at today's process count");
  const stopIdleProcesses = await startIdleProcesses(extraProcesses);
  await measureListing(`with ${extraProcesses} more processes`);
  await stopIdleProcesses();
  await measureConnections();
  await measureDisk();
  await measureOnPreparedMachines();
}

const parts = {
  pings: measurePings, desk: measureDesk, disk: measureDisk, packages: measurePackages,
  services: measureServices, windows: measureWindows,
};
await (parts[process.argv[3]] ?? measureAll)();
