'use strict';

// The ostrio binary end to end against the emulator: sign-in through the browser redirect handed
// over by `ostrio callback`, --json outputs against the emulator's seed, paging, downloads, and
// the errors and exit statuses of bad input.

const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { expectedBytes } = require('../../emulator/lib/media');
const { OSTRIO, startCli, launch, ostrio, ostrioJson, startLogin } = require('./cliHarness');

const ERROR_LINE = /^ostrio: .+ \(0x[0-9A-F]{8}\)\n$/;

let cli, emulator, env, home, seed;

before(async () => {
  cli = await startCli();
  ({ emulator, env, home } = cli);
  seed = await emulator.data();
});
after(() => cli && cli.stop());

// Each run fails with `status` and one error line matching `message` on stderr, nothing on stdout.
async function fails(cases, status) {
  for (const [args, message] of cases) {
    const run = await ostrio(env, args);
    assert.deepEqual([run.code, ERROR_LINE.test(run.stderr) && message.test(run.stderr), run.stdout], [status, true, ''], `${args.join(' ')}: ${run.stderr}`);
  }
}

const sameBytes = (file, size, seedOf) => assert.ok(fs.readFileSync(file).equals(expectedBytes(size, seedOf)), file);

test('bad input is refused with exit status 2 before any request is sent', async () => {
  const id = seed.accountIds[0];
  fs.mkdirSync(path.join(home, 'a-folder'));
  await emulator.control('DELETE', '/requests');
  await fails([
    [['workspaces', 'not-an-id'], /ACCOUNT must be an id/],
    [['projects', '1234'], /WORKSPACE must be an id/],
    [['workspaces', id, '--first', '0'], /--first must be at least 1/],
    [['ls', id, '--files-first', '-3'], /--files-first must be at least 1/],
    [['ls', id, '--folders-after', 'x'.repeat(5000)], /--folders-after must be a cursor/],
    [['download', id, '-o', path.join(home, 'no-such-folder', 'x.mp4')], /does not exist/],
    [['download', id, '-o', path.join(home, 'a-folder')], /it is a folder/],
    [['get', 'ftp://media.example/x', '-o', path.join(home, 'x')], /http\(s\) address/],
    [['query', '{ me { id } }', '--variables', '[1]'], /must be a JSON object/],
    [['query', '{ me { id } }', '--variables', '{"a":'], /not valid JSON/],
    [['login', '--timeout', '0'], /--timeout must be at least 1/],
    [['frobnicate'], /./],
  ], 2);
  assert.deepEqual(await emulator.requests(), []);
});

test('signed out: queries exit 3, and the registered scheme handler takes no redirect nobody waits for', async () => {
  await fails([['whoami'], ['accounts'], ['logout'], ['token']].map((args) => [args, /not signed in.* \(0xBB590002\)/]), 3);
  await fails([[['callback', 'https://evil.example/#token=x'], /not a sign-in redirect of the ostrio-cli scheme/]], 1);
  // The registration names this binary; the desktop runs its Exec line with the URL, which
  // reaches `callback`: with no login waiting, it refuses, shows no token and stores nothing.
  const desktop = fs.readFileSync(path.join(env.XDG_DATA_HOME, 'applications', 'ostrio-cli-url-handler.desktop'), 'utf8');
  const exec = desktop.match(/^Exec=(.*)$/m)[1];
  assert.ok(exec.includes(fs.realpathSync(OSTRIO)), exec);
  const session = await emulator.session();
  const words = exec.replace(/%u/, `ostrio-cli://ostrio#${session.record}`).match(/"[^"]*"|\S+/g).map((w) => w.replace(/^"|"$/g, ''));
  const launched = await launch(words[0], words.slice(1), env).exited;
  assert.equal(launched.code, 1);
  assert.match(launched.stderr, /no `ostrio login` of this user is waiting/);
  assert.ok(!(launched.stderr + launched.stdout).includes(session.accessToken.slice(-16)));
  assert.deepEqual(await ostrioJson(env, ['status']), { signedIn: false });
});

test('login signs in through the browser and `ostrio callback`', async () => {
  const { user } = seed;
  const me = await ostrioJson(env, ['login', '--timeout', '60']);
  const avatar = `https://media${emulator.info.suffix}/media/${user.id}/avatar.jpg`;
  assert.deepEqual({ ...me, profileImageUrl: me.profileImageUrl.replace(/\?.*/, '') }, { id: user.id, typeName: 'AuthenticatedUser', name: user.name, email: user.email, profileImageUrl: avatar });
  assert.match((await ostrio(env, ['status'])).stdout, /^Signed in; the access token is valid for (1 h 59|2 h 0) min\.\n$/);
  const again = await ostrio(env, ['login']);
  assert.ok(again.code === 0 && /Already signed in/.test(again.stdout), again.stderr);
});

test('--json outputs carry the records of the emulator\'s seed, one page or all of them', async () => {
  assert.deepEqual(await ostrioJson(env, ['accounts']), seed.accounts.map((a) => ({ id: a.id, typeName: 'Account', name: a.displayName, version: a.version })));
  const account = seed.accounts[0];
  const workspaces = account.workspaces.map((w) => ({ id: w.id, typeName: 'Workspace', name: w.name }));
  assert.deepEqual(await ostrioJson(env, ['workspaces', account.id, '--first', '1', '--all']), { workspaces, nextCursor: '' });
  const firstPage = await ostrioJson(env, ['workspaces', account.id, '--first', '1']);
  const secondPage = await ostrioJson(env, ['workspaces', account.id, '--first', '1', '--after', firstPage.nextCursor]);
  assert.deepEqual([firstPage.workspaces, secondPage.workspaces], [workspaces.slice(0, 1), workspaces.slice(1, 2)]);
  assert.deepEqual(await ostrioJson(env, ['count', 'workspaces', account.id]), { count: workspaces.length });

  const projects = account.workspaces[0].projects.map((p) => ({ id: p.id, typeName: 'Project', name: p.name, rootAssetId: p.rootAssetId }));
  assert.deepEqual(await ostrioJson(env, ['projects', account.workspaces[0].id, '--first', '2', '--all']), { projects, nextCursor: '' });

  // Sub-folders and files page on their own cursors; --all merges both walks.
  const root = seed.folders.find((f) => f.id === projects[0].rootAssetId);
  const all = await ostrioJson(env, ['ls', root.id, '--folders-first', '1', '--files-first', '1', '--all']);
  assert.deepEqual([all.files.length, all.foldersCursor, all.filesCursor], [root.fileCount, '', '']);
  assert.deepEqual([...all.folders].sort(), seed.folders.filter((f) => f.parentId === root.id).map((f) => f.id).sort());
  const page = await ostrioJson(env, ['ls', root.id, '--folders-first', '1', '--files-first', '2']);
  assert.deepEqual([page.folders, page.files, page.foldersCursor !== '', page.filesCursor], [all.folders.slice(0, 1), all.files.slice(0, 2), true, '']);
  assert.deepEqual(await ostrioJson(env, ['count', 'assets', root.id]), { folderCount: root.folderCount, fileCount: root.fileCount });

  // A project's tree is its root folder's, every folder walked once.
  const inProject = seed.folders.filter((f) => f.projectId === projects[0].id);
  const tree = await ostrioJson(env, ['tree', projects[0].id]);
  assert.deepEqual([tree.id, tree.folderCount, tree.fileCount], [root.id, inProject.length - 1, inProject.reduce((n, f) => n + f.fileCount, 0)]);

  assert.deepEqual(await ostrioJson(env, ['query', 'query($id: ID!) { account(accountId: $id) { id displayName } }', '--variables', JSON.stringify({ id: account.id })]),
    { data: { account: { id: account.id, displayName: account.displayName } } });
  await fails([[['workspaces', '00000000-0000-0000-0000-000000000000'], /\(0xA0CB0016\)/]], 4);
});

test('downloads arrive byte for byte, and --continue asks only for the rest', async () => {
  const video = seed.videoAsset;
  const { url } = await ostrioJson(env, ['url', video.id]);
  const file = (name) => path.join(home, name);
  assert.equal((await ostrio(env, ['download', video.id, '-o', file('original.mp4')])).code, 0);
  sameBytes(file('original.mp4'), video.size, video.seed);
  assert.equal((await ostrio(env, ['download', video.id, '--thumbnail', '-o', file('thumbnail.jpg')])).code, 0);
  sameBytes(file('thumbnail.jpg'), video.thumbnailSize, video.thumbnailSeed);
  assert.equal((await ostrio(env, ['get', url, '-o', file('got.mp4')])).code, 0);
  sameBytes(file('got.mp4'), video.size, video.seed);

  // A download stopped part-way (Ctrl-C on a slow link) leaves a partial file and the record of
  // the resource's size; --continue asks only for the rest.
  await emulator.control('POST', '/faults', { route: 'media', count: 1, bytesPerSecond: 20000 });
  const folder = fs.mkdtempSync(path.join(home, 'resume-'));
  const partial = path.join(folder, 'partial.mp4');
  const recorded = new Promise((resolve) => {
    const watcher = fs.watch(folder, (event, name) => {
      if (name === 'partial.mp4.ostrio-partial') { watcher.close(); resolve(); }
    });
  });
  const slow = launch(OSTRIO, ['download', video.id, '-o', partial], env);
  await recorded;
  slow.child.kill('SIGINT');
  await slow.exited;
  const have = fs.statSync(partial).size;
  assert.ok(have > 0, 'the first chunk was written before the size was recorded');
  await emulator.control('DELETE', '/requests');
  const resumed = await ostrio(env, ['download', video.id, '-o', partial, '--continue']);
  assert.equal(resumed.code, 0, resumed.stderr);
  sameBytes(partial, video.size, video.seed);
  assert.ok(!fs.existsSync(`${partial}.ostrio-partial`));
  const media = (await emulator.requests()).filter((r) => r.path.startsWith('/media/'));
  assert.deepEqual(media.map((r) => r.headers.filter(([name]) => name === 'range')), [[['range', `bytes=${have}-`]]]);
});

test('one login waits at a time, the redirect reaches the one that waits, and logout signs out once', async () => {
  assert.deepEqual(await ostrioJson(env, ['logout']), { signedIn: false });
  const waiting = startLogin(env);
  const target = new URL(await waiting.address);
  await fails([[['login', '--no-browser'], /another `ostrio login` is already waiting/]], 1);
  const approved = await emulator.request('accounts', 'GET', `${target.pathname}${target.search}&approve=1&email=sam@example.com`);
  const handed = await ostrio(env, ['callback', approved.headers.location]);
  assert.equal(handed.code, 0, handed.stderr);
  const login = await waiting.exited;
  assert.equal(login.code, 0, login.stderr);
  assert.equal(JSON.parse(login.stdout).email, 'sam@example.com');
});

test('a folder of 10 000 files and 250 folders with short-lived tokens: ls --all and tree walk both cursors to the end, the rotated refresh token is kept, no token is logged', async () => {
  const large = await startCli(['--dataset', 'large', '--token-lifetime', '600'], { OSTRIOLIB_LOG: 'trace' });
  try {
    let logged = '';
    const run = async (args) => {
      const done = await ostrio(large.env, args);
      assert.equal(done.code, 0, done.stderr);
      logged += done.stderr + done.stdout;
      return done.stdout;
    };
    await run(['login']);
    const { largeFolder } = await large.emulator.data();
    const all = JSON.parse(await run(['--json', 'ls', largeFolder.id, '--folders-first', '100', '--files-first', '1000', '--all']));
    assert.deepEqual([new Set(all.folders).size, all.folders.length, new Set(all.files).size, all.files.length],
      [largeFolder.folderCount, largeFolder.folderCount, largeFolder.fileCount, largeFolder.fileCount]);
    const tree = JSON.parse(await run(['--json', 'tree', largeFolder.id]));
    assert.deepEqual([tree.folderCount, tree.files.length], [largeFolder.folderCount, largeFolder.fileCount]);
    assert.equal(tree.fileCount, largeFolder.fileCount + 1); // and the feature film in folder-001
    // Ten minutes is under the hour the library keeps: every request refreshes first, each with the
    // refresh token the one before it stored, in this run or the one before.
    const refreshes = (await large.emulator.requests()).filter((r) => r.path.startsWith('/v2/auth/refresh_tokens/'));
    const refreshTokens = refreshes.map((r) => r.path.split('/')[4]);
    assert.ok(refreshes.length > 2 && refreshes.every((r) => r.status === 200), refreshes.map((r) => r.status).join());
    assert.equal(new Set(refreshTokens).size, refreshes.length);
    const token = (await ostrio(large.env, ['token'])).stdout.trim();
    assert.ok(token.length > 20);
    assert.match(logged, /^trace /m);
    for (const secret of [token, ...refreshTokens]) assert.ok(!logged.includes(secret), 'a token reached the output');
  } finally {
    await large.stop();
  }
});
