// What the tests that clean share: where they may, what lay there, and how it comes back.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { createHash } from 'node:crypto';
import { lstatSync, readdirSync, readFileSync, readlinkSync, statSync } from 'node:fs';
import { join } from 'node:path';

/** Refuses where /tmp is the machine's own. */
export function assertOwnTmp() {
  const message = '/tmp is not the one that own_tmp.sh makes';
  assert.equal(String(statSync('/tmp').dev), process.env.KORVANE_TMP_DEVICE, message);
}

const digestOf = (path) => createHash('sha256').update(readFileSync(path)).digest('hex');

/** All below `directory` by path: mode, time of change (but of those in `changing`), content. */
export function readTree(directory, changing = [], tree = new Map()) {
  for (const name of readdirSync(directory)) {
    const path = join(directory, name);
    const stat = lstatSync(path, { bigint: true });
    if (stat.isSocket()) continue;
    const time = changing.includes(path) ? undefined : stat.mtimeNs;
    if (stat.isDirectory()) tree.set(path, [stat.mode, time]) && readTree(path, changing, tree);
    else if (stat.isFile()) tree.set(path, [stat.mode, time, digestOf(path)]);
    else tree.set(path, [stat.mode, time, readlinkSync(path)]);
  }
  return tree;
}

/** Puts back all that came to the trash of the home in `env` from below `directory`. */
export function restoreAll(directory, env) {
  const environment = { ...process.env, ...env, LC_ALL: 'C.UTF-8' };
  const options = { input: '0\n', encoding: 'utf8', env: environment };
  for (let left = Infinity, listed; listed !== 0; left = listed) {
    const output = execFileSync('trash-restore', [directory], options); // Old ones take one number.
    listed = output.match(/^ *\d+ \d{4}-\d\d-\d\d /gm)?.length ?? 0;
    assert(listed === 0 || listed < left, output);
  }
}
