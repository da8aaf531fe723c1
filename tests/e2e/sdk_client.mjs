// Calls every tool with the official MCP client, and compares with what the system's own tools say.
// Run: KORVANE_MCP=... node sdk_client.mjs
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import { createSocket } from 'node:dgram';
import { mkdtempSync, readFileSync, readlinkSync, realpathSync, rmSync, statSync } from 'node:fs';
import { connect } from 'node:net';
import { cpus, networkInterfaces, release, tmpdir } from 'node:os';
import { basename, join } from 'node:path';
import { after, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { binary, linesOf, Session, startForkedServer } from './session.mjs';

// A figure may lie this far outside what a reading just before and one just after it enclose: the
// kernel's page counters lag, processes live on meanwhile, and a clock tick lasts 10 ms.
const tolerance = { memoryShare: 0.1, memoryBytes: 2 * 1024 * 1024, cpuShare: 0.1 };

const assertWithin = (value, low, high, what) =>
  assert(value >= low && value <= high, `${what}: ${value} is not within ${low}..${high}`);
const sum = (numbers) => numbers.reduce((total, number) => total + Number(number), 0);

/** A child that keeps one processor busy until the test ends. */
async function startBurner(t) {
  const args = ['-c', 'echo; while :; do :; done', 'a blank', '忙', '', '--last'];
  const child = spawn('sh', args, { stdio: ['ignore', 'pipe', 'ignore'] });
  t.after(() => child.kill('SIGKILL'));
  await once(child.stdout, 'data'); // Before that, its program may not be in place yet.
  return { pid: child.pid, command_line: ['sh', ...args].join(' ') };
}

/** Empty for a kernel thread, a zombie, and what is not ours to read, or gone. */
function exeOf(pid) {
  try { // By no program of its own: readings that take long enclose nothing.
    return readlinkSync(`/proc/${pid}/exe`).replace(/ \(deleted\)$/, '');
  } catch {
    return '';
  }
}

/** What ps and the exe links say of every process, by PID, under the keys of list_processes. */
function readProcesses() {
  const parse = (line) => line.match(/^ *(\d+) +(\d+) +(\d+) (.*?)(?: <defunct>)?$/).slice(1);
  return new Map(linesOf('ps', '-eo', 'pid=,ppid=,rss=,comm=').map(parse).map((row) => {
    const [pid, parent_pid, kib] = row.map(Number);
    const exe_path = exeOf(pid);
    const name = basename(exe_path) || row[3];
    return [pid, { parent_pid, exe_path, name, memory_bytes: kib * 1024 }];
  }));
}

/** The processor time used and the time of the reading, in seconds. */
function readCpu(pid) {
  const stat = readFileSync(`/proc/${pid}/stat`, 'utf8');
  const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ').map(Number);
  const ticksPerSecond = Number(linesOf('getconf', 'CLK_TCK'));
  return { used: (fields[11] + fields[12]) / ticksPerSecond, at: performance.now() / 1000 };
}

const home = mkdtempSync(join(tmpdir(), 'korvane-home-'));
after(() => rmSync(home, { recursive: true }));
const linux = await Session.start({ after }, binary, [], { HOME: home });

test('shows the server as a child of this process in the tree', async () => {
  const { total, roots } = await linux.call('get_process_tree');
  const nodes = [...roots];
  for (const node of nodes) nodes.push(...(node.children ?? []));
  assert.equal(nodes.length, total);
  const self = nodes.find((node) => node.pid === process.pid);
  const server = { pid: linux.transport.pid, name: basename(realpathSync(binary)) };
  assert.deepEqual(self.children.find(({ pid }) => pid === server.pid), server);
  // A listing right after it waits until it can measure.
  assert((await linux.listProcesses()).get(process.pid).cpu_percent >= 0);
});

test('says what it is', async () => {
  const { executable, kernel_version } = await linux.call('get_app_info');
  assert.deepEqual([executable, kernel_version], [realpathSync(binary), release()]);
});

test('lists the processes that ps and the exe links show', async () => {
  const earlier = readProcesses();
  const listed = await linux.listProcesses();
  const later = readProcesses();
  assert(listed.has(process.pid) && listed.has(linux.transport.pid));
  let compared = 0;
  for (const [pid, first] of [...earlier].filter(([pid]) => later.has(pid))) {
    const [last, entry] = [later.get(pid), listed.get(pid)];
    assert(entry, `${pid} (${first.name}) is not listed`);
    for (const key of ['parent_pid', 'exe_path', 'name']) {
      const changes = key === 'name' && last.name.startsWith('kworker/'); // With its work.
      const seen = [first[key], last[key]];
      assert(changes || seen.includes(entry[key]), `${key} of ${pid}: ${entry[key]}, not ${seen}`);
    }
    // What is at work takes memory and gives it back between the readings, as other tests' servers
    // do for a line of 64 MiB.
    const bytes = first.memory_bytes;
    if (bytes !== last.memory_bytes || entry.name.startsWith('korvane-')) continue;
    const margin = tolerance.memoryBytes + bytes * tolerance.memoryShare;
    assertWithin(entry.memory_bytes, bytes - margin, bytes + margin, `memory of ${pid}`);
    if (bytes > margin) compared += 1;
  }
  assert(compared > 0, 'every process was at work');
});

test('measures what a process uses and the machine bears, and reads a command line', async (t) => {
  const { pid, command_line } = await startBurner(t);
  const read = await linux.call('get_process_command_line', { pid });
  assert.deepEqual(read, { pid, command_line, note: '' });
  const list = async () => (await linux.listProcesses()).get(pid).cpu_percent;
  assert(await list() < 0);
  await sleep(300); // A listing sooner after the last one opens no new interval.
  const enclosed = async () => [readCpu(pid), await list(), readCpu(pid)];
  const [beforeStart, , afterStart] = await enclosed();
  await sleep(2000);
  const [beforeEnd, percent, afterEnd] = await enclosed();

  const share = (from, to, seconds) => (100 * (to.used - from.used)) / (seconds * cpus().length);
  const low = share(afterStart, beforeEnd, afterEnd.at - beforeStart.at);
  const high = share(beforeStart, afterEnd, beforeEnd.at - afterStart.at);
  assert(low > 0, 'the burner did not run');
  const { cpuShare } = tolerance;
  assertWithin(percent, low * (1 - cpuShare), high * (1 + cpuShare), 'cpu_percent');

  const metrics = await linux.call('get_system_metrics');
  // Of what is in use, others take and give back some meanwhile.
  const [, total, , , , , available] = linesOf('free', '-b')[1].trim().split(/\s+/).map(Number);
  const [used, margin] = [total - available, 2 ** 28];
  assert.equal(metrics.memory_total_bytes, total);
  assertWithin(metrics.memory_used_bytes, used - margin, used + margin, 'memory');
  assertWithin(metrics.commit_charge_bytes, 1, metrics.commit_limit_bytes, 'commit');
  assertWithin(metrics.cpu_percent, 90 / cpus().length, 100, 'cpu_percent');
});

/** The rows of ss in the words of list_network_connections, one a holder. */
function readSockets() {
  const labels = { LISTEN: '监听中', ESTAB: '已建立', 'SYN-RECV': 'SYN_RCVD' };
  return linesOf('ss', '-tunapHO').flatMap((line) => {
    const [netid, ssState, , , ssLocal, ssRemote, users = ''] = line.trim().split(/\s+/);
    const local = ssLocal.replace(/%[^\]:]*/, '').replace(/^\*:/, '[::]:');
    const isIdle = netid === 'udp' || ssState === 'LISTEN';
    const remote = isIdle ? '—' : ssRemote.replace(/%[^\]:]*/, '');
    const state = netid === 'udp' ? '—' : (labels[ssState] ?? ssState.replaceAll('-', '_'));
    const holders = new Set([...users.matchAll(/pid=(\d+)/g)].map(([, pid]) => pid));
    return [...(holders.size ? holders : ['0'])]
      .map((pid) => [netid.toUpperCase(), local, remote, state, pid].join(' '));
  });
}

test('lists the sockets that ss shows', async (t) => {
  const { port, pids } = await startForkedServer(t, 2);
  const interfaces = Object.values(networkInterfaces()).flat();
  if (interfaces.some(({ address }) => address === '::1')) await startForkedServer(t, 1, '::');
  const client = connect(port, '127.0.0.1');
  t.after(() => client.destroy());
  await once(client, 'connect');
  const datagrams = createSocket('udp4').bind(0);
  t.after(() => datagrams.close());
  await once(datagrams, 'listening');

  const before = new Set(readSockets());
  const { connections } = await linux.call('list_network_connections');
  const later = new Set(readSockets());
  const isShown = ({ state }) => state !== '已关闭'; // ss does not show what is only bound.
  const rows = new Set(connections.filter(isShown).map((row) =>
    [row.protocol, row.local, row.remote, row.state, row.pid].join(' ')));
  assert(rows.size >= 5);
  for (const row of before) assert(!later.has(row) || rows.has(row), `not listed: ${row}`);
  // Of a socket that is closed meanwhile, the holder may be gone before it is asked for.
  const endsOf = (some) => new Set([...some].map((row) => row.replace(/ \d+$/, ' 0')));
  const [earlierEnds, laterEnds] = [endsOf(before), endsOf(later)];
  const isClosing = (row) => earlierEnds.has(row) && !laterEnds.has(row);
  for (const row of rows)
    assert(before.has(row) || later.has(row) || isClosing(row), `not there: ${row}`);

  const found = await linux.call('find_process_by_port', { port: String(port) });
  const holders = found.connections.map(({ pid, process_name }) => `${pid} ${process_name}`);
  const expected = pids.map((pid) => `${pid} ${basename(exeOf(pid))}`);
  assert.deepEqual([...new Set(holders)].sort(), expected.sort());
});

test('lists the packages that dpkg-query shows', async () => {
  const fields = ['db:Status-Status', 'Package', 'Version', 'Maintainer', 'Installed-Size'];
  const format = fields.map((field) => `\${${field}}`).join('\t');
  const expected = linesOf('dpkg-query', '-W', `-f=${format}\n`)
    .filter((line) => !/^(not-installed|config-files)\t/.test(line))
    .map((line) => line.replace(/^\S+\t/, '').replace(/\t$/, '\t0')); // A size may be missing.
  const { entries } = await linux.call('list_uninstall_entries');
  const listed = entries.filter((entry) => entry.uninstall_string.startsWith('apt-get remove '))
    .map((entry) => [entry.display_name, entry.display_version, entry.publisher, entry.size_kb]);
  assert(expected.length > 0);
  assert.deepEqual(listed.map((entry) => entry.join('\t')).sort(), expected.sort());
});

test('measures the junk of a home as find does', async () => {
  const roots = { user_temp: linux.directory, gradle_cache: join(home, '.gradle/caches'),
    generic_cache: join(home, '.cache'), maven_repo: join(home, '.m2/repository') };
  const fill = 'mkdir -p "$0" && cd "$0" && mkdir -p a/.b "忙 $1" && truncate -s 3M a/.b/c &&' +
    'echo >a/.d && ln -s /bin/sh s && touch "$(printf "\\377")"';
  const expected = Object.entries(roots).map(([id, root]) => {
    execFileSync('sh', ['-c', fill, root, id]);
    const sizes = linesOf('find', '-L', root, '!', '-type', 'd', '-printf', '%s\n');
    const files = linesOf('find', root, '!', '-type', 'd').length;
    const entries = linesOf('find', root, '-mindepth', 1, '-maxdepth', 1).sort()
      .filter((path) => !path.includes('\ufffd')); // no text leads back there
    return [id, sum(sizes), files, entries];
  });
  const { categories } = await linux.call('scan_junk');
  assert.deepEqual(categories.map((found) => [found.category_id, found.size_bytes, found.file_count,
    found.sample_paths.sort()]), expected);
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

test('changes nothing where nobody can be asked, and says what has no back end', async () => {
  const calls = {
    list_startup_items: [{}, /failed: 当前平台不支持启动项管理$/],
    list_services: [{}, /"running": [1-9]|failed: .*系统总线/],
    verify_signatures: [{ paths: ['/bin/sh', '/bin/sh'] }, /"unknown": 1\b/],
    kill_process: [{ pid: process.pid }, /failed: Korvane 主程序未运行/],
    kill_by_port: [{ port: 0 }, /1-65535/],
    set_startup_item_enabled: [{ source: 'hkcu', name: 'x', enabled: true }, /找不到启动项/],
    unlock_file: [{ path: '/' }, /仅支持 Windows 10\+/],
    clean_junk: [{ category_ids: ['generic_cache'] }, /failed: Korvane 主程序未运行/],
    start_service: [{ name: 'absent' }, /找不到服务/],
    stop_service: [{ name: 'absent' }, /找不到服务/],
    set_service_start_type: [{ name: 'absent', start_type: 'auto' }, /找不到服务/],
  };
  for (const [tool, [args, text]] of Object.entries(calls))
    assert.match((await linux.answer(tool, args)).text, text);
  assert(statSync(join(home, '.cache/a')));
});

test('every listed tool was called, and the log names only what has no back end', async () => {
  const { tools } = await linux.client.listTools();
  for (const { name } of tools) assert(linux.called.has(name), `${name} needs a call in this file`);
  assert.equal(await linux.close(), '[StartupService] 当前平台不支持启动项枚举\n' +
    '[SignatureService] 当前平台不支持 Authenticode 签名验证\n');
});
