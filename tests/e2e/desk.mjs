// A person at the consent desk: the official client asks to free a port that a forked server holds,
// and real keys and clicks answer, in an X session, at a terminal, or in a Wayland session.
// Run: KORVANE_MCP=... KORVANE_DESK=... node desk.mjs x11|terminal|wayland
import assert from 'node:assert/strict';
import { spawn, spawnSync } from 'node:child_process';
import { once } from 'node:events';
import { writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { binary, isRunning, Session, skipWithout, startForkedServer, until } from './session.mjs';

const { KORVANE_DESK: program } = process.env;
assert(program, 'KORVANE_DESK names the desk');
/** More than Allow takes to become active; a click that comes before that is only repeated. */
const reading = () => sleep(3000);

/** The programs around one desk, all in its environment; they end with the test. */
class Place {
  constructor(t, directory) {
    this.t = t;
    this.directory = directory;
    this.env = { PATH: process.env.PATH, HOME: directory, TMPDIR: directory,
      XDG_RUNTIME_DIR: directory, LC_ALL: 'C.UTF-8' };
  }

  start(command, ...args) {
    const stdio = ['ignore', 'pipe', 'ignore'];
    const child = spawn(command, args, { cwd: '/', env: this.env, stdio });
    this.t.after(() => child.kill());
    return child;
  }

  run(command, ...args) {
    const { stdout } = spawnSync(command, args, { env: this.env, encoding: 'utf8' });
    return stdout?.trim() ?? '';
  }
}

/** Where evilwm gives the keyboard to a new window, and somebody types in xterm until then. */
async function openX11(place) {
  const { stdout } = place.start('Xvfb', '-displayfd', '1', '-screen', '0', '1024x600x24',
    '-nolisten', 'tcp');
  place.env.DISPLAY = `:${String((await once(stdout, 'data'))[0]).trim()}`;
  const xdotool = (...args) => place.run('xdotool', ...args);
  const readRoot = (name) => place.run('xprop', '-root', name).split(/[ ,]+/).map(Number);
  place.start('evilwm', '-fn', 'fixed');
  await until('evilwm', () => readRoot('_NET_SUPPORTING_WM_CHECK').at(-1));
  const desk = place.start(program);
  await until('the desk', () => xdotool('search', '--onlyvisible', '--name', '^Korvane'));
  place.start('xterm', '-fn', 'fixed', '-geometry', '170x46+0+0', '-e', 'cat');
  const findTop = () => readRoot('_NET_CLIENT_LIST_STACKING').at(-1);
  await until('xterm', () => /xterm/.test(place.run('xprop', '-id', `${findTop()}`, 'WM_CLASS')));

  const find = () => Number(xdotool('search', '--onlyvisible', '--name', '^授权请求'));
  /** The question, once it is above all other windows and has the keyboard. */
  const findRaised = () => until('the question above the others', () =>
    [findTop(), Number(xdotool('getactivewindow'))].every((id) => id === find()) && find());
  const press = (...keys) => keys.forEach((key) => xdotool('key', key));
  /** So far from the lower right corner, until there is an answer. */
  const clickAt = async (right) => {
    const id = await findRaised();
    const [, width, height] = /(\d+)x(\d+)$/.exec(xdotool('getwindowgeometry', `${id}`));
    const to = [`${id}`, `${width - right}`, `${height - 25}`];
    const click = () => xdotool('mousemove', '--window', ...to, 'click', '1');
    await until('an answer', () => click() || !find());
  };
  return { desk, isAsking: () => find() !== 0, cases: [
    ['granted', () => clickAt(165)],
    ['refused', () => clickAt(40)],
    ['granted', () => findRaised().then(reading).then(() => press('shift+Tab', 'Return'))],
    ['refused', async () => {
      await reading(); // The key that was down before never counts.
      await findRaised();
      xdotool('keyup', 'Return');
      press('Return');
    }, () => xdotool('keydown', 'Return')],
  ] };
}

async function openTerminal(place) {
  const socket = join(place.directory, 'tmux');
  const tmux = (...args) => place.run('tmux', '-u', '-N', '-S', socket, ...args);
  place.start('tmux', '-D', '-S', socket, '-f', '/dev/null');
  const session = ['new-session', '-d', '-x', '100', '-y', '50', '-P', `exec '${program}' --terminal`];
  await until('tmux', () => tmux(...session));
  const read = () => tmux('capture-pane', '-p');
  await until('the desk', () => read().includes('正在监听'));
  const press = (...keys) => tmux('send-keys', ...keys);
  return { isAsking: () => read().endsWith('[y/N]'), cases: [
    ['granted', () => press('y', 'Enter')],
    ['refused', () => press('y', 'C-d', 'n', 'Enter')], // Without its Enter no "y" is a yes.
    ['refused', () => press('Enter'), () => press('y')], // Typed before it can have been read.
  ] };
}

/** sway refuses to be root, and is satisfied with a number of another user's. */
const asOrdinaryUser = process.getuid() === 0
  ? ['unshare', '--user', '--map-user=1000', '--map-group=1000'] : ['env'];

async function openWayland(place) {
  const config = join(place.directory, 'sway.conf');
  writeFileSync(config, 'xwayland disable\noutput * resolution 1024x600\n');
  Object.assign(place.env, { WLR_BACKENDS: 'headless', WLR_LIBINPUT_NO_DEVICES: '1',
    WLR_RENDERER: 'pixman', SWAYSOCK: join(place.directory, 'sway') });
  place.start(...asOrdinaryUser, 'sway', '-c', config);
  const read = () => place.run('swaymsg', '-t', 'get_tree');
  await until('sway', read);
  Object.assign(place.env, { WAYLAND_DISPLAY: 'wayland-1', QT_QPA_PLATFORM: 'wayland' });
  place.start('wtype', '-s', '600000'); // A keyboard that stays: keys of a new one may be missed.
  const desk = place.start(program);
  await until('the desk', () => read().includes('"Korvane'));
  const press = async (...args) => {
    await reading();
    place.run('wtype', ...args);
  };
  return { desk, isAsking: () => read().includes('"授权请求'), cases: [
    ['granted', () => press('-M', 'shift', '-k', 'Tab', '-m', 'shift', '-k', 'Return')],
    ['refused', () => press('-k', 'Return')],
    ['refused', () => press('-k', 'Escape')],
  ] };
}

const places = {
  x11: [openX11, ['Xvfb', 'evilwm', 'xterm', 'xprop', 'xdotool']],
  terminal: [openTerminal, ['tmux']],
  wayland: [openWayland, ['sway', 'swaymsg', 'wtype']],
};
const [, , name] = process.argv;
const [open, programs] = places[name];
const isRefused = name === 'wayland' && spawnSync('env', [...asOrdinaryUser, 'true']).status !== 0;
skipWithout(`desk in ${name}`, programs, isRefused ? ['user namespaces'] : []);

const expected = {
  granted: [/\(本人, \d+\.\d s, 答复已送达\)/, /^已允许/],
  refused: [/\(本人, \d+\.\d s, 答复已送达\)/, /^已拒绝/],
  left: [/\(请求方已离开, \d+\.\d s\)/, /^未答复/],
};

test(`a person answers: ${name}`, async (t) => {
  const session = await Session.start(t, binary);
  const place = new Place(t, session.directory);
  const { desk, isAsking, cases } = await open(place);
  const server = `korvane-mcp (${session.transport.pid}) ← node`;
  const ask = async () => {
    const { port, pids } = await startForkedServer(t, 2);
    const answer = session.answer('kill_by_port', { port, reason: '测试' });
    return { answer, isFreed: () => pids.every((pid) => !isRunning(pid)), pids };
  };
  for (const [outcome, act, prepare] of cases) {
    prepare?.();
    const { answer, pids } = await ask();
    await until('the question', isAsking);
    await act();
    const { isError, text } = await answer;
    assert.equal(isError, outcome !== 'granted', text);
    if (isError) assert.match(text, /用户看过此操作后明确拒绝/);
    assert.deepEqual(pids.map(isRunning), pids.map(() => isError));
    await until('its end', () => !isAsking());
  }

  const { answer, pids } = await ask();
  const gone = assert.rejects(answer);
  await until('the question', isAsking);
  process.kill(session.transport.pid, 'SIGKILL');
  await gone;
  await until('the end of what nobody asks any more', () => !isAsking());
  assert(pids.every(isRunning));

  const outcomes = ['left', ...cases.map(([outcome]) => outcome).reverse()];
  const lines = place.run(program, '--history', '50').split(/\n(?=\d)/);
  assert.equal(lines.length, outcomes.length, lines.join('\n'));
  lines.forEach((line, row) => {
    const [, what] = /^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  (.*)/.exec(line);
    expected[outcomes[row]].forEach((pattern) => assert.match(what, pattern));
    assert(line.includes(`\n│ ${server}`) && line.includes('\n│ kill_by_port\n'), line);
  });
  if (!desk) return;
  desk.kill();
  assert.deepEqual(await once(desk, 'exit'), [0, null]);
});
