// The built server at the other end of the official MCP client.
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { getDefaultEnvironment, StdioClientTransport }
  from '@modelcontextprotocol/sdk/client/stdio.js';
import assert from 'node:assert/strict';
import { execFileSync, spawn, spawnSync } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync, rmSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { text } from 'node:stream/consumers';
import { setTimeout as sleep } from 'node:timers/promises';

export const { KORVANE_MCP: binary } = process.env;
assert(binary, 'KORVANE_MCP names the binary');

/** Ends the script as skipped where one of the programs that `what` takes is missing. */
export function skipWithout(what, programs, missing = []) {
  const isMissing = (name) => spawnSync('sh', ['-c', `command -v ${name}`]).status !== 0;
  const names = [...programs.filter(isMissing), ...missing];
  if (names.length === 0) return;
  console.log(`SKIP   : no ${what} here without ${names}`);
  process.exit(77);
}

/** Waits, with a limit, until `isSo` returns what is true, and returns that. */
export async function until(what, isSo) {
  for (const deadline = Date.now() + 20_000;; await sleep(50)) {
    const value = isSo();
    if (value) return value;
    assert(Date.now() < deadline, `in vain for ${what}`);
  }
}

/** What a program prints, by line; undefined where it is absent or fails. */
export function linesOf(command, ...args) {
  try {
    const env = { ...process.env, LC_ALL: 'C.UTF-8' };
    const stdio = ['ignore', 'pipe', 'ignore'];
    const options = { encoding: 'utf8', maxBuffer: 1 << 30, stdio, env };
    return execFileSync(command, args, options).split('\n').slice(0, -1);
  } catch {
    return undefined;
  }
}

/** Whether there is such a process, other than one that has ended and is not waited for. */
export const isRunning = (pid) =>
  (linesOf('ps', '-o', 'stat=', '-p', String(pid))?.[0] ?? 'Z')[0] !== 'Z';

/** A listener on a free port that has handed its socket on to `workers` children. */
export async function startForkedServer(t, workers, host = '127.0.0.1') {
  const script = `const server = require('node:net').createServer().listen(0, '${host}', () => {
    const stdio = ['ignore', 'ignore', 'ignore', server._handle.fd];
    const { spawn } = require('node:child_process');
    const workers = Array.from({ length: ${workers} }, () => spawn('sleep', ['600'], { stdio }));
    console.log([server.address().port, process.pid, ...workers.map(({ pid }) => pid)].join(' '));
  });`;
  const child = spawn(process.execPath, ['-e', script], { stdio: ['ignore', 'pipe', 'inherit'] });
  const [line] = await once(child.stdout, 'data');
  const [port, ...pids] = String(line).trim().split(' ').map(Number);
  t.after(() => linesOf('kill', '-KILL', ...pids.map(String)));
  return { port, pids };
}

/** The desktop program: shows nobody the requests, which it keeps, and answers all with `reply`. */
export async function startDesktop(t, directory, reply) {
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

/** A server, the official client connected to it, and what the server says on standard error. */
export class Session {
  called = new Set();

  /** Lasts until `scope`, a test or the run, is over; `ownEnv` is added to the environment. */
  static async start(scope, command, args = [], ownEnv = {}) {
    const session = new Session();
    scope.after(() => session.close());
    // Where the server's sockets are: it must not find a desktop program of the user's.
    session.directory = ownEnv.TMPDIR ?? mkdtempSync(join(tmpdir(), 'korvane-e2e-'));
    if (!ownEnv.TMPDIR) scope.after(() => rmSync(session.directory, { recursive: true }));
    // The client's own choice of the environment, and where the tests' systemd is.
    const { DBUS_SYSTEM_BUS_ADDRESS } = process.env;
    const env = { ...getDefaultEnvironment(), TMPDIR: session.directory, ...ownEnv };
    if (DBUS_SYSTEM_BUS_ADDRESS) Object.assign(env, { DBUS_SYSTEM_BUS_ADDRESS });
    session.transport = new StdioClientTransport({ command, args, env, stderr: 'pipe' });
    session.stderr = text(session.transport.stderr);
    session.client = new Client({ name: 'korvane-e2e', version: '1.0.0' });
    await session.client.connect(session.transport);
    return session;
  }

  /** The tool's answer: whether it is an error, and its one text. */
  async answer(name, args = {}) {
    this.called.add(name);
    const options = { timeout: 150_000 }; // A person may take more than two minutes.
    const call = { name, arguments: args };
    const { isError, content } = await this.client.callTool(call, undefined, options);
    return { isError, text: content.map((item) => item.text).join() };
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
