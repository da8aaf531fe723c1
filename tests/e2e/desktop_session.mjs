// Cleans the /tmp in which a desktop session lives: idle junk goes, the session goes on as before.
// Run: KORVANE_MCP=... own_tmp.sh node desktop_session.mjs
import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import { existsSync, mkdirSync, readdirSync, readFileSync, statSync, symlinkSync,
  writeFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { test } from 'node:test';
import { binary, Session, skipWithout, startDesktop, until } from './session.mjs';
import { assertOwnTmp, readTree, restoreAll } from './trash.mjs';

assertOwnTmp();
const programs = ['Xvfb', 'evilwm', 'xterm', 'xprop', 'ssh-agent', 'tmux', 'dbus-daemon', 'busctl',
  'trash-restore'];
// xterm sets its groups, which the namespaces of ordinary users refuse.
const isRefused = readFileSync('/proc/self/setgroups', 'latin1').startsWith('deny');
skipWithout('desktop session', programs, isRefused ? ['root'] : []);

const { XDG_DATA_HOME } = process.env;
const [DISPLAY, SSH_AUTH_SOCK] = [':99', '/tmp/ssh-korvane/agent.1'];
const env = { XDG_DATA_HOME, TMPDIR: '/tmp', DISPLAY, SSH_AUTH_SOCK };
const options = { cwd: '/', env: { ...process.env, ...env, LC_ALL: 'C.UTF-8' }, encoding: 'utf8' };
const bus = 'unix:path=/tmp/dbus-korvane';

const run = (command, ...args) => spawnSync(command, args, options);
const succeeds = (...command) => run(...command).status === 0;
const sizeOf = (path) => (existsSync(path) ? statSync(path).size : -1);
/** Of the windows that the window manager manages. */
const countWindows = () => run('xprop', '-root', '_NET_CLIENT_LIST').stdout.split('0x').length - 1;

function start(t, command, ...args) {
  const child = spawn(command, args, { ...options, stdio: 'ignore' });
  t.after(() => child.kill());
}

async function startProgramsOfTheSession(t) {
  // An abstract socket would let clients in whatever becomes of the one in /tmp.
  start(t, 'Xvfb', DISPLAY, '-nolisten', 'tcp', '-nolisten', 'local');
  await until('the X server', () => succeeds('xprop', '-root'));
  start(t, 'evilwm', '-fn', 'fixed');
  mkdirSync('/tmp/work');
  const shell = 'cd /tmp/work && exec >>../log; while echo; do echo >>notes; sleep 0.1; done';
  start(t, 'xterm', '-fn', 'fixed', '-e', 'sh', '-c', shell);
  mkdirSync(dirname(SSH_AUTH_SOCK), { mode: 0o700 });
  start(t, 'ssh-agent', '-D', '-a', SSH_AUTH_SOCK);
  start(t, 'dbus-daemon', '--session', '--nofork', `--address=${bus}`);
  const tmux = run('tmux', 'new-session', '-d', '-P', '-F', '#{pid}').stdout;
  t.after(() => process.kill(Number(tmux)));
}

/** New clients reach every server, and the terminal goes on with its files where they were. */
async function assertIsAlive(windows) {
  await until('a window of a new client', () => countWindows() === windows);
  await until('ssh-agent', () => run('ssh-add', '-l').status === 1); // It holds no key.
  await until('the bus', () => succeeds('busctl', `--address=${bus}`, 'list'));
  await until('tmux', () => succeeds('tmux', 'list-sessions'));
  for (const path of ['/tmp/log', '/tmp/work/notes']) {
    const size = sizeOf(path);
    await until(`growth of ${path}`, () => sizeOf(path) > Math.max(size, 0));
  }
  assert(existsSync('/tmp/.X99-lock'));
}

const isIdle = ([path]) => path.startsWith('/tmp/idle');
const readIdle = () => new Map([...readTree('/tmp')].filter(isIdle));

test('a desktop session outlives the cleaning of its /tmp', async (t) => {
  await startProgramsOfTheSession(t);
  await assertIsAlive(1);
  mkdirSync('/tmp/idle/deep', { recursive: true });
  for (const name of ['idle.txt', 'idle/deep/data']) writeFileSync(join('/tmp', name), name);
  symlinkSync('work/notes', '/tmp/idle/link');
  const before = readIdle();

  const requests = await startDesktop(t, '/tmp', { granted: true });
  const session = await Session.start(t, binary, [], env);
  const { message } = await session.call('clean_junk', { category_ids: ['user_temp'] });
  await session.close();
  assert.equal(requests.length, 1);
  assert.equal(readIdle().size, 0);
  const left = readdirSync('/tmp').length;
  start(t, 'xterm', '-fn', 'fixed', '-e', 'sleep', '600');
  await assertIsAlive(2);
  restoreAll('/tmp', env);
  assert.deepEqual(readIdle(), before);
  assert.match(message, new RegExp(`^已移到回收站 2 项, 跳过 ${left} 项 \\(`));
});
