// Drives the tools that change the machine with the official client, beside a desktop program that
// says yes, says no, says nothing, or is not there: what is changed is changed after a yes alone.
// Run: KORVANE_MCP=... node sdk_writes.mjs
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import { writeFileSync } from 'node:fs';
import { createServer } from 'node:net';
import { homedir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { test } from 'node:test';
import { binary, Session } from './session.mjs';

const notRunning = /failed: Korvane 主程序未运行 — /;
const outcomes = {
  grant: { reply: { granted: true } },
  refusal: { reply: { granted: false, message: '用户说不' }, error: /failed: 用户说不$/ },
  absence: { error: notRunning },
  silence: { error: /failed: 用户授权超时 — 已默认拒绝。$/ }, // After 130 s.
};

/** The desktop program: shows nobody the requests, which it keeps, and answers all with `reply`. */
async function startDesktop(t, directory, reply) {
  const requests = [];
  const server = createServer((peer) => {
    createInterface({ input: peer }).once('line', (line) => {
      requests.push(JSON.parse(line));
      if (reply) peer.end(`${JSON.stringify(reply)}\n`);
    });
  });
  t.after(() => server.close());
  await once(server.listen(join(directory, 'korvane-consent-v1')), 'listening');
  return requests;
}

/** Whether there is such a process, other than one that has ended and is not waited for. */
function isRunning(pid) {
  try {
    return execFileSync('ps', ['-o', 'stat=', '-p', pid], { encoding: 'utf8' })[0] !== 'Z';
  } catch {
    return false;
  }
}

async function startSleeper(t) {
  const child = spawn('sleep', ['600']);
  t.after(() => child.kill('SIGKILL'));
  await once(child, 'spawn');
  const { pid } = child;
  return { args: { pid }, shows: `「sleep」(PID ${pid})`, isUnchanged: () => isRunning(pid) };
}

/** A server that has handed its listening socket on to three workers. */
async function startForkedServer(t) {
  const script = `const server = require('node:net').createServer().listen(0, '127.0.0.1', () => {
    const stdio = ['ignore', 'ignore', 'ignore', server._handle.fd];
    const { spawn } = require('node:child_process');
    const workers = Array.from({ length: 3 }, () => spawn('sleep', ['600'], { stdio }));
    console.log([server.address().port, process.pid, ...workers.map(({ pid }) => pid)].join(' '));
  });`;
  const child = spawn(process.execPath, ['-e', script], { stdio: ['ignore', 'pipe', 'inherit'] });
  const [line] = await once(child.stdout, 'data');
  const [port, ...pids] = String(line).trim().split(' ').map(Number);
  t.after(() => pids.forEach((pid) => isRunning(pid) && process.kill(pid, 'SIGKILL')));
  const shows = `占用端口 ${port} 的 4 个进程`;
  return { args: { port }, shows, isUnchanged: () => pids.some(isRunning) && pids.every(isRunning) };
}

/** A unit of the tests' own systemd, which private_systemd.sh has started. */
async function startUnit(t) {
  const name = `victim-${process.pid}`;
  const systemctl = (...args) => execFileSync('systemctl', ['--user', ...args], { encoding: 'utf8' });
  const file = join(homedir(), '.config/systemd/user', `${name}.service`);
  writeFileSync(file, '[Unit]\nDescription=牺牲品\n[Service]\nExecStart=/bin/sleep 600\n');
  systemctl('daemon-reload');
  systemctl('start', name);
  const isUnchanged = () => systemctl('show', '--value', '-pActiveState', name).trim() === 'active';
  return { args: { name }, shows: `停止服务「牺牲品」(${name})`, isUnchanged };
}

const victims = { kill_process: startSleeper, kill_by_port: startForkedServer };
if (process.env.KORVANE_PRIVATE_SYSTEMD) victims.stop_service = startUnit;

async function check(t, tool, outcome) {
  const { reply, error } = outcomes[outcome];
  const session = await Session.start(t, binary);
  const { args, shows, isUnchanged } = await victims[tool](t);
  const isThere = outcome !== 'absence';
  const requests = isThere ? await startDesktop(t, session.directory, reply) : [];
  assert(isUnchanged());
  const answer = await session.answer(tool, { ...args, reason: '测试' });
  assert.equal(answer.isError, outcome !== 'grant', answer.text);
  if (error) assert.match(answer.text, error);
  assert.equal(isUnchanged(), outcome !== 'grant');
  assert.equal(requests.length, isThere ? 1 : 0);
  for (const { action, summary, reason } of requests) {
    assert.deepEqual([action, reason], [tool, '测试']);
    assert(summary.includes(shows), summary);
  }
}

for (const tool of Object.keys(victims)) {
  for (const outcome of ['grant', 'refusal', 'absence'])
    test(`${tool} and ${outcome}`, (t) => check(t, tool, outcome));
}
test('every tool and silence', (t) =>
  Promise.all(Object.keys(victims).map((tool) => check(t, tool, 'silence'))));
