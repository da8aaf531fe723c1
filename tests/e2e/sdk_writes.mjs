// Drives the tools that change the machine with the official client, beside a desktop program that
// says yes, says no, says nothing, or is not there: what is changed is changed after a yes alone.
// What cleans a disk joins in where own_tmp.sh has made a /tmp for it.
// Run: KORVANE_MCP=... node sdk_writes.mjs
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import { once } from 'node:events';
import { mkdirSync, mkdtempSync, readdirSync, rmSync, symlinkSync, writeFileSync } from 'node:fs';
import { homedir } from 'node:os';
import { join } from 'node:path';
import { test } from 'node:test';
import { isDeepStrictEqual } from 'node:util';
import { binary, isRunning, linesOf, Session, startDesktop, startForkedServer }
  from './session.mjs';
import { assertOwnTmp, readTree, restoreAll } from './trash.mjs';

const notRunning = /failed: Korvane 主程序未运行 — /;
const outcomes = {
  grant: { reply: { granted: true } },
  refusal: { reply: { granted: false, message: '用户说不' }, error: /failed: 用户说不$/ },
  absence: { error: notRunning },
  silence: { error: /failed: 用户授权超时 — 已默认拒绝。$/ },
};

async function startSleeper(t) {
  const child = spawn('sleep', ['600']);
  t.after(() => child.kill('SIGKILL'));
  await once(child, 'spawn');
  const { pid } = child;
  return { args: { pid }, shows: [`「sleep」(PID ${pid})`], isUnchanged: () => isRunning(pid) };
}

async function startServer(t) {
  const { port, pids } = await startForkedServer(t, 3);
  const shows = [`占用端口 ${port} 的 4 个进程`];
  const isUnchanged = () => pids.some(isRunning) && pids.every(isRunning);
  return { args: { port }, shows, isUnchanged };
}

/** A unit of the tests' own systemd, which private_systemd.sh has started. */
async function startUnit(t) {
  const name = `victim-${process.pid}`;
  const systemctl = (...args) => linesOf('systemctl', '--user', ...args);
  const file = join(homedir(), '.config/systemd/user', `${name}.service`);
  writeFileSync(file, '[Unit]\nDescription=牺牲品\n[Service]\nExecStart=/bin/sleep 600\n');
  systemctl('daemon-reload');
  systemctl('start', name);
  const isUnchanged = () => systemctl('is-active', name)?.[0] === 'active';
  return { args: { name }, shows: [`停止服务「牺牲品」(${name})`], isUnchanged };
}

/** Makes what a program leaves in its cache; the names are the same in all of them. */
function fillCache(directory) {
  const nested = join(directory, '空 格%41\n', 'empty');
  mkdirSync(nested, { recursive: true, mode: 0o750 });
  writeFileSync(join(nested, '../run.sh'), randomBytes(4000), { mode: 0o755 });
  symlinkSync('../absent', join(nested, '../link'));
  writeFileSync(join(directory, '.secret'), randomBytes(70_000), { mode: 0o600 });
}

const caches = { // In the order of the catalog, with places in the home.
  chrome_cache: ['Local/Google/Chrome/User Data/Default/Cache',
    'Local/Google/Chrome/User Data/Default/Code Cache'],
  generic_cache: ['.cache'],
  go_cache: ['go/pkg/mod/cache/download'],
};

/** A server in a home on the build's disk with its temporary files in memory, both full of junk. */
async function startInFullHome(t) {
  assertOwnTmp();
  const home = mkdtempSync(join(process.env.KORVANE_OWN_TMP, 'home-'));
  const temp = mkdtempSync('/tmp/temp-');
  const [data, thumbnails] = ['.local/share', 'Local/Microsoft/Windows/Explorer'];
  const roots = [temp, ...Object.values(caches).flat().map((path) => join(home, path))];
  roots.forEach(fillCache);
  for (const path of [data, thumbnails]) mkdirSync(join(home, path), { recursive: true });
  for (const name of ['thumbcache_32.db', 'settings.db'])
    writeFileSync(join(home, thumbnails, name), randomBytes(100));

  const places = { XDG_DATA_HOME: join(home, data), LOCALAPPDATA: join(home, 'Local') };
  const env = { HOME: home, TMPDIR: temp, ...places };
  const session = await Session.start(t, binary, [], env);
  const { categories } = await session.call('scan_junk');
  const category_ids = categories.map((category) => category.category_id);
  assert.deepEqual(category_ids, ['user_temp', 'thumbnail_cache', ...Object.keys(caches)]);

  // Directories that entries leave and enter again have a new time.
  const changing = [...roots, ...[data, thumbnails].map((path) => join(home, path))];
  const read = () => [home, temp].map((path) => readTree(path, changing));
  const before = read();
  const isUnchanged = () => isDeepStrictEqual(read(), before);
  const undo = (text) => { // Which can only be done where it was done.
    const message = `已移到回收站 ${2 * roots.length + 1} 项, 跳过 1 项 (`;
    assert(JSON.parse(text).message.startsWith(message), text);
    assert.deepEqual(roots.flatMap((path) => readdirSync(path)), ['korvane-consent-v1']);
    assert.deepEqual(readdirSync(join(home, thumbnails)), ['settings.db']);
    restoreAll(home, env);
    restoreAll(temp, env);
    assert.deepEqual(readdirSync(join(home, data, 'Trash/files')), []);
    rmSync(join(home, data, 'Trash'), { recursive: true });
    assert.deepEqual(read(), before);
  };
  const names = categories.map((category) => `  - ${category.category_name} (`);
  const shows = [`清理 ${names.length} 类垃圾`, ...names];
  return { session, args: { category_ids: [...category_ids].reverse() }, shows, isUnchanged, undo };
}

const victims = { kill_process: startSleeper, kill_by_port: startServer };
if (process.env.KORVANE_PRIVATE_SYSTEMD) victims.stop_service = startUnit;
if (process.env.KORVANE_OWN_TMP) victims.clean_junk = startInFullHome;

async function check(t, tool, outcome) {
  const { reply, error } = outcomes[outcome];
  const victim = await victims[tool](t);
  const { session = await Session.start(t, binary), args, shows, isUnchanged, undo } = victim;
  const isThere = outcome !== 'absence';
  const requests = isThere ? await startDesktop(t, session.directory, reply) : [];
  assert(isUnchanged());
  const start = performance.now();
  const answer = await session.answer(tool, { ...args, reason: '测试' });
  const seconds = (performance.now() - start) / 1000;
  assert(outcome !== 'silence' || (seconds > 129.9 && seconds < 140), `${seconds} s`);
  assert.equal(answer.isError, outcome !== 'grant', answer.text);
  if (error) assert.match(answer.text, error);
  assert.equal(isUnchanged(), outcome !== 'grant');
  assert.equal(requests.length, isThere ? 1 : 0);
  for (const { action, summary, detail, reason } of requests) {
    assert.deepEqual([action, reason], [tool, '测试']);
    const shown = `${summary}\n${detail}`;
    for (const text of shows) assert(shown.includes(text), shown);
  }
  if (outcome === 'grant') undo?.(answer.text);
}

for (const tool of Object.keys(victims)) {
  for (const outcome of ['grant', 'refusal', 'absence'])
    test(`${tool} and ${outcome}`, (t) => check(t, tool, outcome));
}
test('every tool and silence', { concurrency: true }, (t) => Promise.all(Object.keys(victims).map(
  (tool) => t.test(`${tool} and silence`, (t) => check(t, tool, 'silence')))));
