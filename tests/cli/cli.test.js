'use strict';

// The ostrio binary end to end against the emulator: sign-in through the browser redirect handed
// over by `ostrio callback`, --json outputs against the emulator's seed, paging, downloads, and
// the errors and exit statuses of bad input.

const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const { spawn } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { startEmulator } = require('../../emulator/harness');
const { OSTRIO, cliEnvironment, ostrio, ostrioJson, mediaDigest, fileDigest } = require('./cliHarness');

const ERROR_LINE = /^ostrio: .+ \(0x[0-9A-F]{8}\)\n$/;
const NIL = '00000000-0000-0000-0000-000000000000';

let emulator;
let env;
let home;
let seed;

before(async () => {
  emulator = await startEmulator();
  ({ env, home } = cliEnvironment(emulator));
  seed = await emulator.data();
});

after(async () => {
  if (emulator) await emulator.stop();
  if (home) fs.rmSync(home, { recursive: true, force: true });
});

test('bad input is refused with exit status 2 before any request is sent', async () => {
  const id = seed.accountIds[0];
  const folder = path.join(home, 'a-folder');
  fs.mkdirSync(folder, { recursive: true });
  const cases = [
    [['workspaces', 'not-an-id'], /ACCOUNT must be an id/],
    [['projects', '1234'], /WORKSPACE must be an id/],
    [['workspaces', id, '--first', '0'], /--first must be at least 1/],
    [['ls', id, '--files-first', '-3'], /--files-first must be at least 1/],
    [['ls', id, '--folders-after', 'x'.repeat(5000)], /--folders-after must be a cursor/],
    [['download', id, '-o', path.join(home, 'no-such-folder', 'x.mp4')], /does not exist/],
    [['download', id, '-o', folder], /it is a folder/],
    [['get', 'ftp://media.example/x', '-o', path.join(home, 'x')], /http\(s\) address/],
    [['query', '{ me { id } }', '--variables', '[1]'], /must be a JSON object/],
    [['query', '{ me { id } }', '--variables', '{"a":'], /not valid JSON/],
    [['login', '--timeout', '0'], /--timeout must be at least 1/],
    [['count', 'files', id], /./],
    [['frobnicate'], /./],
  ];
  await emulator.control('DELETE', '/requests');
  for (const [args, message] of cases) {
    const run = await ostrio(env, args);
    assert.equal(run.code, 2, `${args.join(' ')}: ${run.stderr}`);
    assert.match(run.stderr, ERROR_LINE, args.join(' '));
    assert.match(run.stderr, message, args.join(' '));
    assert.equal(run.stdout, '', args.join(' '));
  }
  assert.deepEqual(await emulator.requests(), []);
});

test('signed out: queries exit 3, a callback nobody waits for stores nothing', async () => {
  for (const args of [['whoami'], ['accounts'], ['logout'], ['token']]) {
    const run = await ostrio(env, args);
    assert.equal(run.code, 3, `${args.join(' ')}: ${run.stderr}`);
    assert.match(run.stderr, /^ostrio: .*not signed in.* \(0xBB590002\)\n$/, args.join(' '));
  }
  const session = await emulator.session();
  const redirect = `ostrio-cli://ostrio#expires=${session.expires}&refreshToken=${session.refreshToken}` +
    `&token=Bearer%20${session.accessToken}&userId=${session.userId}`;
  const refused = await ostrio(env, ['callback', redirect]);
  assert.equal(refused.code, 1);
  assert.match(refused.stderr, /no `ostrio login` of this user is waiting/);
  assert.doesNotMatch(refused.stderr + refused.stdout, new RegExp(session.accessToken.slice(-16)));
  const foreign = await ostrio(env, ['callback', 'https://evil.example/#token=x']);
  assert.equal(foreign.code, 1);
  assert.match(foreign.stderr, /not a sign-in redirect of the ostrio-cli scheme/);
  assert.deepEqual(await ostrioJson(env, ['status']), { signedIn: false });
});

test('login signs in through the browser and `ostrio callback`, and registers the scheme for ostrio', async () => {
  const user = seed.user;
  const me = await ostrioJson(env, ['login', '--timeout', '60']);
  assert.deepEqual(Object.keys(me), ['id', 'typeName', 'name', 'email', 'profileImageUrl']);
  assert.deepEqual({ ...me, profileImageUrl: '' },
    { id: user.id, typeName: 'AuthenticatedUser', name: user.name, email: user.email, profileImageUrl: '' });
  assert.match(me.profileImageUrl, new RegExp(`/media/${user.id}/avatar\\.jpg\\?expires=\\d+&signature=[0-9a-f]{64}$`));
  assert.deepEqual(await ostrioJson(env, ['status']), { signedIn: true });
  const again = await ostrio(env, ['login']);
  assert.equal(again.code, 0, again.stderr);
  assert.match(again.stdout, /Already signed in/);

  // The registration names this binary; the desktop runs its Exec line with the URL, which
  // reaches `callback`: with no login waiting, it refuses.
  const desktop = fs.readFileSync(path.join(env.XDG_DATA_HOME, 'applications', 'ostrio-cli-url-handler.desktop'), 'utf8');
  assert.match(desktop, /^MimeType=x-scheme-handler\/ostrio-cli;?$/m);
  const exec = desktop.match(/^Exec=(.*)$/m)[1];
  assert.ok(exec.includes(fs.realpathSync(OSTRIO)), exec);
  const mimeapps = fs.readFileSync(path.join(env.XDG_CONFIG_HOME, 'mimeapps.list'), 'utf8');
  assert.match(mimeapps, /^x-scheme-handler\/ostrio-cli=ostrio-cli-url-handler\.desktop;?$/m);
  const words = exec.replace(/%u/, 'ostrio-cli://ostrio#token=x').match(/"[^"]*"|\S+/g).map((w) => w.replace(/^"|"$/g, ''));
  const launched = await new Promise((resolve) => {
    const child = spawn(words[0], words.slice(1), { env });
    let stderr = '';
    child.stderr.on('data', (d) => { stderr += d; });
    child.on('close', (code) => resolve({ code, stderr }));
  });
  assert.equal(launched.code, 1);
  assert.match(launched.stderr, /no `ostrio login` of this user is waiting/);
});

test('--json outputs carry the records of the emulator\'s seed, one page or all of them', async () => {
  const accounts = await ostrioJson(env, ['accounts']);
  assert.deepEqual(accounts, seed.accounts.map((a) => ({ id: a.id, typeName: 'Account', name: a.displayName, version: a.version })));

  const account = seed.accounts[0];
  const workspaces = account.workspaces.map((w) => ({ id: w.id, typeName: 'Workspace', name: w.name }));
  assert.deepEqual(await ostrioJson(env, ['workspaces', account.id, '--first', '1', '--all']), { workspaces, nextCursor: '' });
  const firstPage = await ostrioJson(env, ['workspaces', account.id, '--first', '1']);
  assert.deepEqual(firstPage.workspaces, workspaces.slice(0, 1));
  assert.notEqual(firstPage.nextCursor, '');
  const secondPage = await ostrioJson(env, ['workspaces', account.id, '--first', '1', '--after', firstPage.nextCursor]);
  assert.deepEqual(secondPage.workspaces, workspaces.slice(1, 2));
  assert.deepEqual(await ostrioJson(env, ['count', 'workspaces', account.id]), { count: workspaces.length });

  const workspace = account.workspaces[0];
  const projects = workspace.projects.map((p) => ({ id: p.id, typeName: 'Project', name: p.name, rootAssetId: p.rootAssetId }));
  assert.deepEqual(await ostrioJson(env, ['projects', workspace.id, '--first', '2', '--all']), { projects, nextCursor: '' });
  assert.deepEqual(await ostrioJson(env, ['count', 'projects', workspace.id]), { count: projects.length });

  // Sub-folders and files page on their own cursors; --all merges both walks.
  const root = seed.folders.find((f) => f.id === projects[0].rootAssetId);
  const all = await ostrioJson(env, ['ls', root.id, '--folders-first', '1', '--files-first', '2', '--all']);
  assert.equal(all.folders.length, root.folderCount);
  assert.equal(all.files.length, root.fileCount);
  assert.deepEqual([all.foldersCursor, all.filesCursor], ['', '']);
  const childFolders = seed.folders.filter((f) => f.parentId === root.id).map((f) => f.id);
  assert.deepEqual([...all.folders].sort(), [...childFolders].sort());
  const page = await ostrioJson(env, ['ls', root.id, '--folders-first', '1', '--files-first', '1']);
  assert.deepEqual(page.folders, all.folders.slice(0, 1));
  assert.deepEqual(page.files, all.files.slice(0, 1));
  assert.deepEqual(await ostrioJson(env, ['count', 'assets', root.id]), { folderCount: root.folderCount, fileCount: root.fileCount });

  // A project's tree is its root folder's, every folder walked once.
  const inProject = seed.folders.filter((f) => f.projectId === projects[0].id);
  const tree = await ostrioJson(env, ['tree', projects[0].id]);
  assert.equal(tree.id, root.id);
  assert.equal(tree.folderCount, inProject.length - 1);
  assert.equal(tree.fileCount, inProject.reduce((n, f) => n + f.fileCount, 0));

  assert.deepEqual(await ostrioJson(env, ['query', 'query($id: ID!) { account(accountId: $id) { id displayName } }',
    '--variables', JSON.stringify({ id: account.id })]), { data: { account: { id: account.id, displayName: account.displayName } } });
});

test('service errors keep the library\'s message and code, with exit status 4', async () => {
  const run = await ostrio(env, ['workspaces', NIL]);
  assert.equal(run.code, 4, run.stderr);
  assert.match(run.stderr, /\(0xA0CB0016\)\n$/);
  assert.match(run.stderr, ERROR_LINE);
});

test('downloads: the original and thumbnail arrive byte for byte, and --continue resumes with a range', async () => {
  const video = seed.videoAsset;
  // Media links are signed, fresh in every answer: the path is what identifies them.
  const { url } = await ostrioJson(env, ['url', video.id]);
  assert.equal(url.replace(/\?.*/, ''), video.downloadUrl.replace(/\?.*/, ''));
  assert.match(url, /\?expires=\d+&signature=[0-9a-f]{64}$/);
  const original = path.join(home, 'original.mp4');
  const thumbnail = path.join(home, 'thumbnail.jpg');
  assert.equal((await ostrio(env, ['download', video.id, '-o', original])).code, 0);
  assert.equal(fileDigest(original), mediaDigest(video.size, video.seed));
  assert.equal((await ostrio(env, ['download', video.id, '--thumbnail', '-o', thumbnail])).code, 0);
  assert.equal(fileDigest(thumbnail), mediaDigest(video.thumbnailSize, video.thumbnailSeed));

  // A download stopped part-way (the person presses Ctrl-C on a slow link) leaves a partial file
  // and the record of the resource's size; --continue asks only for the rest.
  await emulator.control('POST', '/faults', { route: 'media', count: 1, bytesPerSecond: 20000 });
  const folder = fs.mkdtempSync(path.join(home, 'resume-'));
  const partial = path.join(folder, 'partial.mp4');
  const recorded = new Promise((resolve) => {
    const watcher = fs.watch(folder, (event, name) => {
      if (name === 'partial.mp4.ostrio-partial') { watcher.close(); resolve(); }
    });
  });
  const slow = spawn(OSTRIO, ['download', video.id, '-o', partial], { env });
  const stopped = new Promise((resolve) => slow.on('close', resolve));
  await recorded;
  slow.kill('SIGINT');
  await stopped;
  await emulator.control('DELETE', '/faults');
  const have = fs.statSync(partial).size;
  assert.ok(have > 0, 'the first chunk was written before the size was recorded');
  await emulator.control('DELETE', '/requests');
  const resumed = await ostrio(env, ['download', video.id, '-o', partial, '--continue']);
  assert.equal(resumed.code, 0, resumed.stderr);
  assert.equal(fileDigest(partial), mediaDigest(video.size, video.seed));
  assert.ok(!fs.existsSync(`${partial}.ostrio-partial`));
  const media = (await emulator.requests()).filter((r) => r.path.startsWith('/media/'));
  assert.equal(media.length, 1);
  assert.deepEqual(media[0].headers.filter(([name]) => name === 'range'), [['range', `bytes=${have}-`]]);

  // `get` takes a URL: the same bytes.
  const got = path.join(home, 'got.mp4');
  assert.equal((await ostrio(env, ['get', video.downloadUrl, '-o', got])).code, 0);
  assert.equal(fileDigest(got), mediaDigest(video.size, video.seed));
});

test('logout signs out once; a second logout fails with the library\'s code', async () => {
  assert.deepEqual(await ostrioJson(env, ['logout']), { signedIn: false });
  assert.deepEqual(await ostrioJson(env, ['status']), { signedIn: false });
  const again = await ostrio(env, ['logout']);
  assert.equal(again.code, 3);
  assert.match(again.stderr, /\(0xBB590002\)\n$/);
});

test('one login waits at a time, and the redirect reaches the one that waits', async () => {
  const waiting = spawn(OSTRIO, ['--json', 'login', '--no-browser', '--timeout', '60'], { env });
  let stdout = '';
  let stderr = '';
  waiting.stdout.setEncoding('utf8').on('data', (d) => { stdout += d; });
  const exited = new Promise((resolve) => waiting.on('close', resolve));
  const address = await new Promise((resolve, reject) => {
    waiting.stderr.setEncoding('utf8').on('data', (d) => {
      stderr += d;
      const found = stderr.match(/https:\/\/accounts\S+/);
      if (found) resolve(found[0]);
    });
    exited.then(() => reject(new Error(`login ended early: ${stderr}`)));
  });
  const second = await ostrio(env, ['login', '--no-browser']);
  assert.equal(second.code, 1);
  assert.match(second.stderr, /another `ostrio login` is already waiting/);

  const target = new URL(address);
  const approved = await emulator.request('accounts', 'GET', `${target.pathname}${target.search}&approve=1&email=sam@example.com`);
  assert.equal(approved.status, 302);
  const handed = await ostrio(env, ['callback', approved.headers.location]);
  assert.equal(handed.code, 0, handed.stderr);
  assert.equal(await exited, 0, stderr);
  assert.equal(JSON.parse(stdout).email, 'sam@example.com');
});

test('short-lived tokens: each run refreshes, the rotated refresh token is kept, no token is ever logged', async () => {
  const shortLived = await startEmulator(['--token-lifetime', '600']);
  const { env: quick, home: quickHome } = cliEnvironment(shortLived, { OSTRIOLIB_LOG: 'trace' });
  try {
    let logged = (await ostrio(quick, ['login'])).stderr;
    for (let run = 0; run < 3; run++) {
      const me = await ostrio(quick, ['--json', 'whoami']);
      assert.equal(me.code, 0, me.stderr);
      logged += me.stderr + me.stdout;
    }
    // login's own user query refreshed too: four runs, four refreshes, each with the token the
    // run before it stored.
    const refreshes = (await shortLived.requests()).filter((r) => r.path.startsWith('/v2/auth/refresh_tokens/'));
    assert.equal(refreshes.length, 4);
    assert.ok(refreshes.every((r) => r.status === 200));
    const refreshTokens = refreshes.map((r) => r.path.split('/')[4]);
    assert.equal(new Set(refreshTokens).size, 4);
    const token = (await ostrio(quick, ['token'])).stdout.trim();
    assert.ok(token.length > 20);
    assert.match(logged, /^trace /m);
    for (const secret of [token, ...refreshTokens]) assert.ok(!logged.includes(secret), 'a token reached the output');
  } finally {
    await shortLived.stop();
    fs.rmSync(quickHome, { recursive: true, force: true });
  }
});

test('a folder of 10 000 files and 250 folders: ls --all and tree walk both cursors to the end', async () => {
  const large = await startEmulator(['--dataset', 'large']);
  const { env: big, home: bigHome } = cliEnvironment(large);
  try {
    assert.equal((await ostrio(big, ['login'])).code, 0);
    const { largeFolder } = await large.data();
    const all = await ostrioJson(big, ['ls', largeFolder.id, '--folders-first', '100', '--files-first', '1000', '--all']);
    assert.equal(new Set(all.folders).size, largeFolder.folderCount);
    assert.equal(new Set(all.files).size, largeFolder.fileCount);
    assert.equal(all.folders.length + all.files.length, largeFolder.folderCount + largeFolder.fileCount);
    const tree = await ostrioJson(big, ['tree', largeFolder.id]);
    assert.equal(tree.folderCount, largeFolder.folderCount);
    assert.equal(tree.files.length, largeFolder.fileCount);
    assert.equal(tree.fileCount, largeFolder.fileCount + 1);  // and the feature film in folder-001
  } finally {
    await large.stop();
    fs.rmSync(bigHome, { recursive: true, force: true });
  }
});

