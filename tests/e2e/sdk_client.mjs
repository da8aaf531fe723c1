// Drives the built server with the official MCP client, as an AI client does, against ps and /proc.
// Run: KORVANE_MCP=... KORVANE_MCP_UNSUPPORTED=... node sdk_client.mjs
import { AjvJsonSchemaValidator } from '@modelcontextprotocol/sdk/validation/ajv';
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import { createSocket } from 'node:dgram';
import { mkdtempSync, readFileSync, readlinkSync, realpathSync, rmSync, statSync } from 'node:fs';
import { connect, createServer } from 'node:net';
import { cpus, networkInterfaces, release, tmpdir } from 'node:os';
import { basename, join } from 'node:path';
import { after, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { binary, Session, unsupportedBinary } from './session.mjs';

// A figure may lie this far outside what a reading just before and one just after it enclose:
// the kernel's page counters lag, processes live on meanwhile, and a clock tick lasts 10 ms.
const tolerance = { memoryShare: 0.1, memoryBytes: 2 * 1024 * 1024, cpuShare: 0.1 };
const ticksPerSecond = Number(execFileSync('getconf', ['CLK_TCK']));

const assertWithin = (value, low, high, what) =>
  assert(value >= low && value <= high, `${what}: ${value} is not within ${low}..${high}`);

/** A child that keeps one processor busy until the test ends. */
async function startBurner(t) {
  const args = ['-c', 'echo; while :; do :; done', 'a blank', '忙', '', '--last'];
  const child = spawn('sh', args, { stdio: ['ignore', 'pipe', 'ignore'] });
  t.after(() => child.kill('SIGKILL'));
  await once(child.stdout, 'data'); // Before that, its program may not be in place yet.
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
    const exe_path = orElse(() => readlinkSync(`/proc/${pid}/exe`), '').replace(/ \(deleted\)$/, '');
    const comm = orElse(() => readFileSync(`/proc/${pid}/comm`, 'utf8').slice(0, -1));
    const name = basename(exe_path) || comm;
    if (name) byPid.set(pid, { parent_pid, exe_path, name, memory_bytes: kib * 1024 });
  }
  return byPid;
}

/** The processor time used and the time of the reading, in seconds. */
function readCpu(pid) {
  const stat = readFileSync(`/proc/${pid}/stat`, 'utf8');
  const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ').map(Number);
  return { used: (fields[11] + fields[12]) / ticksPerSecond, at: performance.now() / 1000 };
}

const hasIpv6 = Object.values(networkInterfaces()).flat().some(({ address }) => address === '::1');

const home = mkdtempSync(join(tmpdir(), 'korvane-home-'));
after(() => rmSync(home, { recursive: true }));
const linux = await Session.start({ after }, binary, [], { HOME: home });

test('shakes hands, answers a ping and says what it is', async () => {
  assert.deepEqual(linux.client.getServerVersion(), { name: 'kor-vane', version: '0.3.0' });
  assert.equal(linux.protocolVersion, '2024-11-05');
  assert.deepEqual(await linux.client.ping(), {});
  const { executable, kernel_version } = await linux.call('get_app_info');
  assert.deepEqual([executable, kernel_version], [realpathSync(binary), release()]);
});

test('publishes a valid object schema for every tool', async () => {
  const { tools } = await linux.client.listTools();
  for (const { name, inputSchema } of tools) {
    assert.equal(inputSchema.type, 'object', name);
    new AjvJsonSchemaValidator().getValidator(inputSchema); // Throws when it is none.
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
    const [last, entry] = [later.get(pid), listed.get(pid)];
    assert(entry, `${pid} (${first.name}) is not listed`);
    for (const key of ['parent_pid', 'exe_path', 'name']) {
      const changes = key === 'name' && last.name.startsWith('kworker/'); // With its work.
      const seen = [first[key], last[key]];
      assert(changes || seen.includes(entry[key]), `${key} of ${pid}: ${entry[key]}, not ${seen}`);
    }
    const [low, high] = [first.memory_bytes, last.memory_bytes].sort((a, b) => a - b);
    const margin = tolerance.memoryBytes + high * tolerance.memoryShare;
    assertWithin(entry.memory_bytes, low - margin, high + margin, `memory of ${pid} ${last.name}`);
  }
});

test('measures processor use as utime and stime grow', async (t) => {
  const { pid } = await startBurner(t);
  const firstSeen = (await linux.listProcesses()).get(pid);
  assert.deepEqual([firstSeen.cpu_percent < 0, firstSeen.cpu_display], [true, '—']);

  const listEnclosed = async () => {
    const before = readCpu(pid);
    const percent = (await linux.listProcesses()).get(pid).cpu_percent;
    return { before, percent, after: readCpu(pid) };
  };
  await sleep(300); // A listing sooner after the last one opens no new interval.
  const start = await listEnclosed();
  await sleep(2000);
  const end = await listEnclosed();

  const percent = (from, to, seconds) => (100 * (to.used - from.used)) / (seconds * cpus().length);
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
  const server = { pid: linux.transport.pid, name: basename(realpathSync(binary)) };
  assert.deepEqual(self.children.find(({ pid }) => pid === server.pid), server);
});

test('reads command lines', async (t) => {
  const { pid, commandLine } = await startBurner(t);
  const read = await linux.call('get_process_command_line', { pid });
  assert.deepEqual(read, { pid, command_line: commandLine, note: '' });
});

test('a tree waits for nothing, a listing right after it until it can measure', async (t) => {
  const took = []; // Five times, since a busy machine takes its time now and then.
  for (let i = 0; i < 5; ++i) {
    const session = await Session.start(t, binary);
    await session.call('get_process_tree');
    const start = performance.now();
    await session.call('get_process_tree');
    took.push(performance.now() - start);
    assert((await session.listProcesses()).get(process.pid).cpu_percent >= 0);
  }
  assert(Math.min(...took) < 150, `${took} ms`);
});

/** What a program prints, by line; undefined where it is absent or fails. */
function linesOf(command, ...args) {
  try {
    const env = { ...process.env, LC_ALL: 'C.UTF-8' };
    const stdio = ['ignore', 'pipe', 'ignore'];
    const output = execFileSync(command, args, { encoding: 'utf8', maxBuffer: 1 << 30, stdio, env });
    return output.split('\n').slice(0, -1);
  } catch {
    return undefined;
  }
}

/** Whether every row of both readings is listed, and every listed row is in one of them. */
function assertEnclosed(earlier, listed, later) {
  const [before, rows, after] = [earlier, listed, later].map((list) => new Set(list));
  for (const row of before) assert(!after.has(row) || rows.has(row), `not listed: ${row}`);
  for (const row of rows) assert(before.has(row) || after.has(row), `not there: ${row}`);
}

/** The rows of ss in the words of list_network_connections, one a holder. */
function readSockets() {
  const labels = { LISTEN: '监听中', ESTAB: '已建立', 'SYN-RECV': 'SYN_RCVD' };
  const rows = [];
  for (const line of linesOf('ss', '-tunapHO')) {
    const [netid, ssState, , , ssLocal, ssRemote, users = ''] = line.trim().split(/\s+/);
    const local = ssLocal.replace(/%[^\]:]*/, '').replace(/^\*:/, '[::]:');
    const isIdle = netid === 'udp' || ssState === 'LISTEN';
    const remote = isIdle ? '—' : ssRemote.replace(/%[^\]:]*/, '');
    const state = netid === 'udp' ? '—' : (labels[ssState] ?? ssState.replaceAll('-', '_'));
    const holders = new Set([...users.matchAll(/pid=(\d+)/g)].map(([, pid]) => pid));
    for (const pid of holders.size ? holders : ['0'])
      rows.push([netid.toUpperCase(), local, remote, state, pid].join(' '));
  }
  return rows;
}

/** A listener on a free port whose socket `workers` children share. */
async function startForkedServer(t, host, workers) {
  const server = createServer().listen(0, host);
  await once(server, 'listening');
  t.after(() => server.close());
  const children = Array.from({ length: workers }, () =>
    spawn('sleep', ['600'], { stdio: ['ignore', 'ignore', 'ignore', server._handle.fd] }));
  t.after(() => children.forEach((child) => child.kill('SIGKILL')));
  await Promise.all(children.map((child) => once(child, 'spawn')));
  return { port: server.address().port, pids: [process.pid, ...children.map(({ pid }) => pid)] };
}

test('lists the sockets that ss shows', async (t) => {
  const { port } = await startForkedServer(t, '127.0.0.1', 2);
  if (hasIpv6) await startForkedServer(t, '::', 1);
  const client = connect(port, '127.0.0.1');
  t.after(() => client.destroy());
  await once(client, 'connect');
  const datagrams = createSocket('udp4').bind(0);
  t.after(() => datagrams.close());
  await once(datagrams, 'listening');

  const earlier = readSockets();
  const { total, tcp_count, udp_count, ipv6_count, connections } =
    await linux.call('list_network_connections');
  const isBoundOnly = ({ state }) => state === '已关闭'; // ss does not show these
  const rows = connections.filter((row) => !isBoundOnly(row)).map((row) =>
    [row.protocol, row.local, row.remote, row.state, row.pid].join(' '));
  assertEnclosed(earlier, rows, readSockets());
  assert(rows.length >= 5);
  const count = (key, value) => connections.filter((row) => row[key] === value).length;
  assert.deepEqual([total, tcp_count, udp_count, ipv6_count], [connections.length,
    count('protocol', 'TCP'), count('protocol', 'UDP'), count('ip_version', 'IPv6')]);
});

test('finds a forked server with all its workers by its port', async (t) => {
  for (const host of hasIpv6 ? ['127.0.0.1', '::1'] : ['127.0.0.1']) {
    const started = await startForkedServer(t, host, 3);
    const found = await linux.call('find_process_by_port', { port: String(started.port) });
    assert.deepEqual([found.port, found.matches], [started.port, 4]);
    const holders = found.connections.map(({ pid, process_name }) => `${pid} ${process_name}`);
    const nameOf = (pid) => basename(readlinkSync(`/proc/${pid}/exe`));
    assert.deepEqual(holders.sort(), started.pids.map((pid) => `${pid} ${nameOf(pid)}`).sort());
  }
});

test('lists the packages that dpkg-query shows', async () => {
  const fields = ['db:Status-Status', 'Package', 'Version', 'Maintainer', 'Installed-Size'];
  const format = fields.map((field) => `\${${field}}`).join('\t');
  const expected = linesOf('dpkg-query', '-W', `-f=${format}\n`)
    .filter((line) => !/^(not-installed|config-files)\t/.test(line))
    .map((line) => line.replace(/^\S+\t/, '').replace(/\t$/, '\t0')); // A size may be missing.
  const { total, entries } = await linux.call('list_uninstall_entries');
  assert.equal(total, entries.length);
  const listed = entries.filter((entry) => entry.uninstall_string.startsWith('apt-get remove '))
    .map((entry) => [entry.display_name, entry.display_version, entry.publisher, entry.size_kb]);
  assert(expected.length > 0);
  assert.deepEqual(listed.map((entry) => entry.join('\t')).sort(), expected.sort());
});

test('lists the services that systemctl shows', async () => {
  const scope = process.env.KORVANE_PRIVATE_SYSTEMD ? '--user' : '--system';
  const options = ['list-units', '--plain', '--no-legend', '--type=service', '--state=running'];
  const units = linesOf('systemctl', scope, ...options);
  if (units === undefined) { // Nothing to talk to.
    const { isError, text: reason } = await linux.answer('list_services');
    assert(isError && /^Tool 'list_services' failed: .*系统总线/.test(reason), reason);
    return;
  }
  const { total, running, entries } = await linux.call('list_services');
  assert.equal(total, entries.length);
  const states = new Map(entries.map(({ name, state }) => [`${name}.service`, state]));
  for (const [unit, , state] of units.map((line) => line.trim().split(/\s+/)))
    if (state === 'active') assert.equal(states.get(unit), '运行中', unit);
  assert(running > 0);
});

test('measures the load of the machine', async (t) => {
  await startBurner(t);
  const metrics = await linux.call('get_system_metrics');
  const [, total] = linesOf('free', '-b')[1].trim().split(/\s+/).map(Number);
  assert.equal(metrics.memory_total_bytes, total);
  assertWithin(metrics.memory_used_bytes, 1, total, 'memory');
  assertWithin(metrics.cpu_percent, 90 / cpus().length, 100, 'cpu_percent');
});

test('has no startup items and no verdict on signatures here', async () => {
  const failed = { isError: true, text: "Tool 'list_startup_items' failed: 当前平台不支持启动项管理" };
  assert.deepEqual(await linux.answer('list_startup_items'), failed);
  const paths = ['/bin/sh', '/bin/sh'];
  const { unknown, results } = await linux.call('verify_signatures', { paths });
  assert.deepEqual([unknown, results], [1, [{ path: '/bin/sh', signature: '未知' }]]);
});

test('measures the junk of a home as find does', async () => {
  const roots = { user_temp: linux.directory, gradle_cache: join(home, '.gradle/caches'),
    generic_cache: join(home, '.cache'), maven_repo: join(home, '.m2/repository') };
  const fill = 'cd "$0" && mkdir -p a/.b "忙 $1" && truncate -s 3M a/.b/c && echo >a/.d && ln -s /bin/sh s && touch "$(printf "\\377")"';
  for (const [id, root] of Object.entries(roots))
    execFileSync('sh', ['-c', `mkdir -p "$0" && ${fill}`, root, id]);
  const sum = (numbers) => numbers.reduce((total, number) => total + Number(number), 0);
  const expected = Object.entries(roots).map(([id, root]) => {
    const sizes = linesOf('find', '-L', root, '!', '-type', 'd', '-printf', '%s\n');
    const files = linesOf('find', root, '!', '-type', 'd').length;
    const entries = linesOf('find', root, '-mindepth', 1, '-maxdepth', 1).sort()
      .filter((path) => !path.includes('\ufffd')); // no text leads back there
    return [id, sum(sizes), files, entries];
  });
  const { categories, total_size_bytes, total_file_count } = await linux.call('scan_junk');
  assert.deepEqual(categories.map((found) => [found.category_id, found.size_bytes, found.file_count,
    found.sample_paths.sort()]), expected);
  assert.deepEqual([total_size_bytes, total_file_count],
    [sum(expected.map((row) => row[1])), sum(expected.map((row) => row[2]))]);
});

test('finds the largest files of a system as find does', async () => {
  const sizes = linesOf('find', '/usr/lib', '!', '-xtype', 'd')
    .map((path) => statSync(path, { throwIfNoEntry: false })?.size ?? 0);
  const largest = [...sizes].sort((a, b) => b - a).slice(0, 250);
  const args = { root_path: '/usr/lib', min_size_bytes: '1000', max_results: 250 };
  const { scanned_files, files } = await linux.call('find_large_files', args);
  assert.deepEqual([scanned_files, files.map((file) => file.size_bytes)], [sizes.length, largest]);
  for (const { path, size_bytes } of files) assert.equal(statSync(path).size, size_bytes, path);
  assert.equal((await linux.call('find_large_files')).root_path, home);
});

test('changes nothing where nobody can be asked', async (t) => {
  const { pid } = await startBurner(t);
  const notRunning = /failed: Korvane 主程序未运行/;
  assert.match((await linux.answer('kill_process', { pid })).text, notRunning);
  process.kill(pid, 0); // Throws for a process that is gone.
  const { port } = await startForkedServer(t, '127.0.0.1', 1);
  assert.match((await linux.answer('kill_by_port', { port })).text, notRunning);
  const item = { source: 'hkcu', name: 'x', enabled: true };
  assert.match((await linux.answer('set_startup_item_enabled', item)).text, /找不到启动项/);
  assert.match((await linux.answer('unlock_file', { path: '/' })).text, /仅支持 Windows 10\+/);
  const junk = { category_ids: ['generic_cache'] };
  assert.match((await linux.answer('clean_junk', junk)).text, notRunning);
  assert(statSync(join(home, '.cache/a')));
  for (const tool of ['start_service', 'stop_service', 'set_service_start_type'])
    assert.match((await linux.answer(tool, { name: 'absent', start_type: 'auto' })).text, /找不到服务/);
});

test('an unknown tool is a tool error, not a protocol error', async () => {
  const unknown = await linux.answer('no_such_tool');
  assert.deepEqual(unknown, { isError: true, text: 'Unknown tool: no_such_tool' });
});

test('every listed tool was called, and the log names only what has no back end', async () => {
  const { tools } = await linux.client.listTools();
  for (const { name } of tools) assert(linux.called.has(name), `${name} needs a call in this file`);
  assert.equal(await linux.close(), '[StartupService] 当前平台不支持启动项枚举\n' +
    '[SignatureService] 当前平台不支持 Authenticode 签名验证\n');
});

test('exits with code 0 once the client has gone', async (t) => {
  const session = await Session.start(t, 'sh', ['-c', '"$0"; echo "exit code $?" >&2', binary]);
  await session.listProcesses();
  assert.equal(await session.close(), 'exit code 0\n');
});

test('without a back end, says so in each answer and once in the log', async (t) => {
  const session = await Session.start(t, unsupportedBinary);
  const byName = (list) => new Map(list.tools.map((tool) => [tool.name, tool]));
  const onLinux = await Session.start(t, binary);
  const [tools, linuxTools] = [await session.client.listTools(), await onLinux.client.listTools()];
  assert.deepEqual(byName(tools), byName(linuxTools));
  assert.deepEqual([tools.tools.length, byName(tools).size], [21, 21]);
  const expected = { isError: true, text: "Tool 'list_processes' failed: 当前平台不支持进程枚举" };
  assert.deepEqual(await session.answer('list_processes'), expected);
  assert.deepEqual(await session.answer('list_processes'), expected);
  assert.equal(await session.close(), '[ProcessService] 当前平台不支持进程枚举, 返回空列表\n');
});
