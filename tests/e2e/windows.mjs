// The programs for Windows at the other end of the official client, under Wine: every tool answers, and
// a person at the desk, in an X session, lets a process be ended and a cache be cleaned, or does not.
// Run: KORVANE_MCP=...exe KORVANE_DESK=...exe WINE=.../wine.sh node windows.mjs
import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import { once } from 'node:events';
import { mkdirSync, mkdtempSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import { homedir, tmpdir, userInfo } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { binary, Session, skipWithout, until } from './session.mjs';

const { KORVANE_DESK: desk, WINE: wine } = process.env;
skipWithout('desk under Wine', ['Xvfb', 'evilwm', 'xdotool']);

const directory = mkdtempSync(join(tmpdir(), 'korvane-wine-'));
const cache = process.env.KORVANE_WINDOWS_CACHE ?? join(homedir(), '.cache', 'korvane-windows');
const prefix = process.env.WINEPREFIX ?? join(cache, 'prefix');
const home = join(prefix, 'drive_c', 'users', userInfo().username);
const caches = join(home, 'AppData', 'Local', 'pip', 'cache');
const bin = join(directory, 'data'); // Where Wine has its recycle bin; without it, it has none.
const onWindows = (path) => `Z:${path.replaceAll('/', '\\')}`;
const env = { ...process.env, XDG_DATA_HOME: bin };

/** What is to be ended with the run, the last first. */
const endings = [() => rmSync(directory, { recursive: true })];
const run = { after: (end) => endings.unshift(end) };
after(async () => {
  for (const end of endings) await end();
});

function start(command, ...args) {
  const child = spawn(command, args, { env, stdio: ['pipe', 'pipe', 'ignore'] });
  run.after(() => child.kill());
  return child;
}
const xdotool = (...args) => spawnSync('xdotool', args, { env, encoding: 'utf8' }).stdout.trim();
const question = () => xdotool('search', '--onlyvisible', '--name', '^(授权请求|Consent Request)');

let session;
before(async () => {
  rmSync(caches, { recursive: true, force: true });
  mkdirSync(caches, { recursive: true });
  mkdirSync(bin);
  const { stdout } = start('Xvfb', '-displayfd', '1', '-screen', '0', '1024x768x24', '-nolisten', 'tcp');
  env.DISPLAY = `:${String((await once(stdout, 'data'))[0]).trim()}`;
  start('evilwm', '-fn', 'fixed');
  session = await Session.start(run, wine, [binary], env);
});
/** A process of Windows that waits; the client is told its number by the listing. */
async function startVictim() {
  const before = await session.listProcesses();
  start(wine, 'cmd', '/c', 'pause');
  const isNew = ([pid, { name }]) => name === 'cmd.exe' && !before.has(pid);
  let found;
  for (const end = Date.now() + 20_000; !found; await sleep(100)) {
    assert(Date.now() < end, 'no such process');
    found = [...await session.listProcesses()].find(isNew);
  }
  return found[0];
}

test('every tool answers', async () => {
  const { tools } = await session.client.listTools();
  const reading = {
    find_large_files: { root_path: onWindows(directory) },
    find_process_by_port: { port: 1 },
    get_process_tree: {},
    get_process_command_line: { pid: await startVictim() },
    verify_signatures: { paths: ['C:\\windows\\system32\\cmd.exe', '\\\\host\\share\\x.exe'] },
  };
  const writing = { // None of them reaches the question.
    kill_process: { pid: 3 }, kill_by_port: { port: 1 }, unlock_file: { path: '\\\\host\\share' },
    start_service: { name: 'no such service' }, stop_service: { name: 'no such service' },
    set_service_start_type: { name: 'no such service', start_type: 'manual' },
    set_startup_item_enabled: { source: 'hkcu', name: 'no such item', enabled: false },
    clean_junk: { category_ids: [] },
  };
  for (const { name } of tools) {
    const { isError, text } = await session.answer(name, { ...reading[name], ...writing[name] });
    assert.equal(isError, name in writing, `${name}: ${text}`);
    assert(!/不支持|仅支持|FileUnlockService/.test(text), `${name}: ${text}`);
  }
  const { processes } = await session.call('list_processes');
  assert(processes.some(({ name, exe_path }) => name === 'korvane-mcp.exe' && /^[A-Z]:/.test(exe_path)));
  const { results } = await session.call('verify_signatures', reading.verify_signatures);
  assert.deepEqual(results.map(({ signature }) => signature), ['未签名', '未知']);
});

/** A person who waits until the answer may be given, and presses these keys, again where they went to
 * another window; what is answered. */
async function answered(call, keys) {
  let answer;
  call.then((given) => { answer = given; }, () => {}); // What is amiss is thrown below.
  while (!answer) { // Once seen, it may be away for a moment: the window manager frames it.
    const window = await Promise.race([call, until('the question', question)]);
    if (answer) break;
    xdotool('windowfocus', '--sync', window.split('\n')[0]);
    await Promise.race([call, sleep(3000)]);
    keys.forEach((key) => xdotool('key', key));
    await Promise.race([call, sleep(5000)]);
  }
  await call;
  await until('its end', () => !question()); // Or its window would be taken for the next one's.
  return answer;
}
const [allow, refuse] = [['shift+Tab', 'Return'], ['Return']];

test('a person answers', async () => {
  start(wine, desk);
  await until('the desk', () => xdotool('search', '--onlyvisible', '--name', '^Korvane'));
  for (const [keys, isGranted] of [[refuse, false], [allow, true]]) {
    const pid = await startVictim();
    const call = session.answer('kill_process', { pid, reason: '测试' });
    const { isError, text } = await answered(call, keys);
    assert.equal(isError, !isGranted, text);
    assert(isGranted || /明确拒绝/.test(text), text); // Not for want of an answer.
    assert.equal((await session.listProcesses()).has(pid), !isGranted);
  }
  writeFileSync(join(caches, 'wheel'), 'x'.repeat(5000));
  for (const [keys, isGranted] of [[refuse, false], [allow, true]]) {
    const call = session.answer('clean_junk', { category_ids: ['pip_cache'], reason: '测试' });
    const { isError, text } = await answered(call, keys);
    assert.equal(isError, !isGranted, text);
    assert(isGranted || /明确拒绝/.test(text), text); // Not for want of an answer.
    assert.deepEqual(readdirSync(caches), isGranted ? [] : ['wheel']);
  }
  const kept = readdirSync(join(bin, 'Trash', 'files'));
  assert.deepEqual(kept, ['wheel'], 'nothing is deleted for good');
});
