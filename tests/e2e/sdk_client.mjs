// Drives the built server with the official MCP client, as an AI client does, against ps and /proc.
// Run: KORVANE_MCP=... KORVANE_MCP_UNSUPPORTED=... node sdk_client.mjs
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { AjvJsonSchemaValidator } from '@modelcontextprotocol/sdk/validation/ajv';
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { readFileSync, readlinkSync, realpathSync } from 'node:fs';
import { cpus, release } from 'node:os';
import { basename } from 'node:path';
import { text } from 'node:stream/consumers';
import { after, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';

// A figure may lie this far outside what a reading just before and one just after it enclose:
// the kernel's page counters lag and processes live on meanwhile; clock ticks last 10 ms.
const tolerance = { memoryShare: 0.1, memoryBytes: 2 * 1024 * 1024, cpuShare: 0.1 };
const cpuIntervalMs = 2000;
const untilBaselineMs = 300; // A listing sooner after the last one does not open a new interval.

const { KORVANE_MCP: binary, KORVANE_MCP_UNSUPPORTED: unsupportedBinary } = process.env;
assert(binary && unsupportedBinary, 'KORVANE_MCP and KORVANE_MCP_UNSUPPORTED name the binaries');

const assertWithin = (value, low, high, what) =>
  assert(value >= low && value <= high, `${what}: ${value} is not within ${low}..${high}`);

/** A server, the official client connected to it, and what the server says on standard error. */
class Session {
  called = new Set();

  static async start(command, args = []) {
    const session = new Session();
    session.transport = new StdioClientTransport({ command, args, stderr: 'pipe' });
    session.transport.setProtocolVersion = (version) => (session.protocolVersion = version);
    session.stderr = text(session.transport.stderr);
    session.client = new Client({ name: 'korvane-e2e', version: '1.0.0' });
    await session.client.connect(session.transport);
    return session;
  }

  /** The tool's answer: whether it is an error, and its one text. */
  async answer(name, args = {}) {
    this.called.add(name);
    const { content, isError } = await this.client.callTool({ name, arguments: args });
    assert.deepEqual(content.map((item) => item.type), ['text']);
    return { isError, text: content[0].text };
  }

  /** The result object of a call that must succeed. */
  async call(name, args) {
    const answer = await this.answer(name, args);
    assert.equal(answer.isError, false, answer.text);
    return JSON.parse(answer.text);
  }

  /** The entries of list_processes by PID. */
  async listProcesses() {
    const { total, processes } = await this.call('list_processes');
    const byPid = new Map(processes.map((entry) => [entry.pid, entry]));
    assert.deepEqual([processes.length, byPid.size], [total, total]);
    return byPid;
  }

  /** Closes the client; returns all that the server wrote to standard error. */
  async close() {
    await this.client.close();
    return this.stderr;
  }
}

/** A child that keeps one processor busy until the test ends. */
function startBurner(t) {
  const args = ['-c', 'while :; do :; done', 'a blank', '忙', '', '--last'];
  const child = spawn('sh', args, { stdio: 'ignore' });
  t.after(() => child.kill('SIGKILL'));
  return { pid: child.pid, commandLine: ['sh', ...args].join(' ') };
}

/** What ps and /proc say of every process, by PID, under the keys of list_processes. */
function readProcesses() {
  const orElse = (read, fallback) => {
    try {
      return read();
    } catch {
      return fallback; // A kernel thread, a zombie, not ours to read, or gone.
    }
  };
  const byPid = new Map();
  const lines = execFileSync('ps', ['-eo', 'pid=,ppid=,rss='], { encoding: 'utf8' });
  for (const line of lines.trim().split('\n')) {
    const [pid, parent_pid, kib] = line.trim().split(/ +/).map(Number);
    const link = orElse(() => readlinkSync(`/proc/${pid}/exe`), '');
    const exe_path = link.replace(/ \(deleted\)$/, '');
    const comm = orElse(() => readFileSync(`/proc/${pid}/comm`, 'utf8').slice(0, -1));
    const name = basename(exe_path) || comm;
    if (name) byPid.set(pid, { parent_pid, exe_path, name, memory_bytes: kib * 1024 });
  }
  return byPid;
}

/** User plus system time in clock ticks, and the time of the reading in seconds. */
function readCpu(pid) {
  const stat = readFileSync(`/proc/${pid}/stat`, 'utf8');
  const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
  return { ticks: Number(fields[11]) + Number(fields[12]), at: performance.now() / 1000 };
}

const linux = await Session.start(binary);
after(() => linux.close());

test('shakes hands and answers a ping', async () => {
  assert.deepEqual(linux.client.getServerVersion(), { name: 'kor-vane', version: '0.3.0' });
  assert.equal(linux.protocolVersion, '2024-11-05');
  assert.deepEqual(linux.client.getServerCapabilities(), { tools: {} });
  assert.deepEqual(await linux.client.ping(), {});
});

test('publishes a valid object schema for every tool', async () => {
  const { tools } = await linux.client.listTools();
  assert(tools.length > 0);
  for (const { name, inputSchema } of tools) {
    new AjvJsonSchemaValidator().getValidator(inputSchema); // Throws when it is none.
    assert.equal(inputSchema.type, 'object', name);
    for (const key of inputSchema.required ?? []) assert(key in inputSchema.properties, name);
  }
});

test('lists the processes that ps and the exe links show', async () => {
  await linux.listProcesses(); // The first one waits.
  const earlier = readProcesses();
  const listed = await linux.listProcesses();
  const later = readProcesses();
  assert(listed.has(process.pid) && listed.has(linux.transport.pid));

  for (const [pid, first] of [...earlier].filter(([pid]) => later.has(pid))) {
    const last = later.get(pid);
    const entry = listed.get(pid);
    assert(entry, `${pid} (${first.name}) is not listed`);
    for (const key of ['parent_pid', 'exe_path', 'name']) {
      const changes = key === 'name' && last.name.startsWith('kworker/'); // With its work.
      const seen = [first[key], last[key]];
      assert(changes || seen.includes(entry[key]), `${key} of ${pid}: ${entry[key]}, not ${seen}`);
    }
    const low = Math.min(first.memory_bytes, last.memory_bytes) * (1 - tolerance.memoryShare);
    const high = Math.max(first.memory_bytes, last.memory_bytes) * (1 + tolerance.memoryShare);
    const slack = tolerance.memoryBytes;
    assertWithin(entry.memory_bytes, low - slack, high + slack, `memory of ${pid} ${last.name}`);
  }
});

test('measures processor use as utime and stime grow', async (t) => {
  const { pid } = startBurner(t);
  const firstSeen = (await linux.listProcesses()).get(pid);
  assert.deepEqual([firstSeen.cpu_percent < 0, firstSeen.cpu_display], [true, '—']);

  const listEnclosed = async () => {
    const before = readCpu(pid);
    const percent = (await linux.listProcesses()).get(pid).cpu_percent;
    return { before, percent, after: readCpu(pid) };
  };
  await sleep(untilBaselineMs);
  const start = await listEnclosed();
  await sleep(cpuIntervalMs);
  const end = await listEnclosed();

  const ticksPerSecond = Number(execFileSync('getconf', ['CLK_TCK']));
  const percent = (from, to, seconds) =>
    (100 * (to.ticks - from.ticks)) / ticksPerSecond / (seconds * cpus().length);
  const low = percent(start.after, end.before, end.after.at - start.before.at);
  const high = percent(start.before, end.after, end.before.at - start.after.at);
  assert(low > 0, 'the burner did not run');
  const { cpuShare } = tolerance;
  assertWithin(end.percent, low * (1 - cpuShare), high * (1 + cpuShare), 'cpu_percent');
});

test('shows the server as a child of this process in the tree', async () => {
  const { total, roots } = await linux.call('get_process_tree');
  const nodes = [...roots];
  for (const node of nodes) nodes.push(...(node.children ?? []));
  assert.equal(nodes.length, total);
  const self = nodes.find((node) => node.pid === process.pid);
  assert.equal(self.name, basename(realpathSync(process.execPath)));
  const server = self.children.find((node) => node.pid === linux.transport.pid);
  assert.equal(server.name, basename(realpathSync(binary)));
});

test('reads command lines', async (t) => {
  const { pid, commandLine } = startBurner(t);
  const read = await linux.call('get_process_command_line', { pid });
  assert.deepEqual(read, { pid, command_line: commandLine, note: '' });
  const refused = await linux.answer('get_process_command_line', { pid: 0 });
  assert.equal(refused.isError, true);
  assert.match(refused.text, /^Tool 'get_process_command_line' failed: 参数 pid/);
});

test('names its executable and the kernel', async () => {
  const { executable, kernel_version } = await linux.call('get_app_info');
  assert.deepEqual([executable, kernel_version], [realpathSync(binary), release()]);
});

test('an unknown tool is a tool error, an unknown method a protocol error', async () => {
  const unknown = await linux.answer('no_such_tool');
  assert.deepEqual(unknown, { isError: true, text: 'Unknown tool: no_such_tool' });
  const request = linux.client.request({ method: 'no/such' }, { parse: assert.fail });
  await assert.rejects(request, { code: -32601 });
});

test('every listed tool was called, and standard error stayed empty', async () => {
  const { tools } = await linux.client.listTools();
  const forgotten = tools.map((tool) => tool.name).filter((name) => !linux.called.has(name));
  assert.deepEqual(forgotten, [], 'each of these needs a call in this file');
  assert.equal(await linux.close(), '');
});

test('exits with code 0 once the client has gone', async () => {
  const session = await Session.start('sh', ['-c', '"$0"; echo "exit code $?" >&2', binary]);
  await session.listProcesses();
  assert.equal(await session.close(), 'exit code 0\n');
});

test('without a back end, says so in each answer and once in the log', async () => {
  const session = await Session.start(unsupportedBinary);
  const expected = { isError: true, text: "Tool 'list_processes' failed: 当前平台不支持进程枚举" };
  assert.deepEqual(await session.answer('list_processes'), expected);
  assert.deepEqual(await session.answer('list_processes'), expected);
  assert.equal(await session.close(), '[ProcessService] 当前平台不支持进程枚举, 返回空列表\n');
});
