// Measures the server beside its peers in one run and prints each figure with its ratio and bound.
// Run: node bench.mjs PATH/TO/korvane-mcp
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { readFileSync, realpathSync } from 'node:fs';
import { cpus, loadavg, release } from 'node:os';
import { fileURLToPath } from 'node:url';

const fromHere = (path) => fileURLToPath(new URL(path, import.meta.url));
const binary = realpathSync(process.argv[2] ?? fromHere('../build/release/src/korvane-mcp'));
const leastServer = fromHere('../tests/e2e/least_server.mjs');
const psArguments = ['-eo', 'pid,ppid,comm,rss,pcpu,args'];

const startRounds = 15;
const pingRounds = 20;
const pingsPerRound = 200;
const pipelineRounds = 5;
const pipelinedPings = 20_000;
const listingRounds = 20;
const extraProcesses = 3000;

const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];

/** A server at the other end of two pipes; the lines that it answers are only counted. */
class Server {
  static ours = () => new Server(binary, []);
  static throughScript = () => new Server(fromHere('../run.sh'), []);
  static peer = () => new Server(process.execPath, [leastServer]);

  constructor(command, args) {
    this.child = spawn(command, args, { stdio: ['pipe', 'pipe', 'ignore'] });
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
 * {mostAbove}, by how much ours may exceed the peer.
 */
function report(figure, unit, [ours, peer], bound = {}) {
  const ratio = ours / peer;
  const { atMost, atLeast, mostAbove } = bound;
  const texts = { atMost: `≤ ${atMost?.toFixed(2)}`, atLeast: `≥ ${atLeast?.toFixed(2)}` };
  const text = { ...texts, mostAbove: `≤ +${mostAbove}` }[Object.keys(bound)[0]] ?? '';
  const missed = ratio > atMost || ratio < atLeast || ours - peer > mostAbove;
  const digits = Math.max(ours, peer) >= 1000 ? 0 : 2;
  const numbers = [ours, peer].map((number) => number.toFixed(digits));
  printRow(figure, ...numbers, unit, ratio.toFixed(2), text, text && (missed ? 'NO, MISSED' : 'yes'));
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

function reportMemory(occasion, servers, bound) {
  const memory = (...where) => servers.map((server) => server.mebibytes(...where));
  report(`resident memory (RSS) ${occasion}`, 'MiB', memory('status', 'VmRSS'), bound);
  const shares = memory('smaps_rollup', 'Pss');
  if (!shares.includes(undefined)) report('  its proportional share (PSS)', 'MiB', shares);
}

async function measurePings() {
  const servers = [Server.ours(), Server.peer()];
  for (const server of servers) await server.handshake();

  const pingInTurn = (server) => async () => {
    const times = [];
    for (let i = 0; i < pingsPerRound; ++i) times.push(await server.time('ping'));
    return times;
  };
  const trips = await interleave(pingRounds, ...servers.map(pingInTurn));
  const microseconds = trips.map((rounds) => median(rounds.flat()) * 1000);
  report('ping round trip', 'µs', microseconds, { atMost: 1 });
  reportMemory('after the round trips', servers, { atMost: 0.25 });

  const pipeline = (server) => async () =>
    pipelinedPings / ((await server.time('ping', {}, pipelinedPings)) / 1000);
  const rates = await interleave(pipelineRounds, ...servers.map(pipeline));
  report('20,000 pipelined pings', 'pings/s', rates.map(median), { atLeast: 1 });
  reportMemory('after the pipelined pings', servers, { atMost: 0.25 });
  for (const server of servers) await server.stop();
}

/** Milliseconds of processor time from /proc/PID/stat, whose clock ticks last 10 ms. */
function readCpuTimes(pid) {
  const stat = readFileSync(`/proc/${pid}/stat`, 'utf8');
  const ticks = stat.slice(stat.lastIndexOf(')') + 2).split(' ').map(Number);
  return { own: (ticks[11] + ticks[12]) * 10, endedChildren: (ticks[13] + ticks[14]) * 10 };
}

async function measureListing(occasion) {
  const server = Server.ours();
  const list = () => server.time('tools/call', { name: 'list_processes', arguments: {} });
  const ps = async () => {
    const from = performance.now();
    const [code] = await once(spawn('ps', psArguments, { stdio: 'ignore' }), 'exit');
    if (code !== 0) throw new Error(`ps exited with code ${code}`);
    return performance.now() - from;
  };
  await server.handshake();
  await list(); // The first one waits for a measure of processor use.
  await list();

  const used = () => [readCpuTimes(server.child.pid).own, readCpuTimes(process.pid).endedChildren];
  const before = used();
  const times = await interleave(listingRounds, list, ps);
  const cpu = used().map((time, side) => (time - before[side]) / listingRounds);
  report(`list_processes, ${occasion}`, 'ms', times.map(median), { atMost: 1 });
  report('  its processor time', 'ms', cpu);
  await server.stop();
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

console.log(`${new Date().toISOString().slice(0, 10)}, ${cpus().length} × ${cpus()[0].model.trim()}`);
console.log(`Linux ${release()}, load ${loadavg()[0].toFixed(2)}, node ${process.version}`);
console.log(`ours: ${binary}`);
console.log('peer: the least server of the official SDK; for list_processes: ps\n');
printRow('', 'ours', 'peer', '', 'ratio', 'bound', 'met');
await measureStart();
await measurePings();
await measureListing("at today's process count");
const stopIdleProcesses = await startIdleProcesses(extraProcesses);
await measureListing(`with ${extraProcesses} more processes`);
await stopIdleProcesses();
