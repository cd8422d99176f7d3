'use strict';

const assert = require('node:assert/strict');
const { describe, it, before, after } = require('node:test');
const { startEmulator } = require('../harness');
const { KNOWN_QUERIES: Q } = require('../lib/knownQueries');
const { expectedBytes } = require('../lib/media');

describe('GraphQL API', { timeout: 60000 }, () => {
  let emu, token, data, suffix;
  before(async () => {
    emu = await startEmulator();
    token = (await emu.session()).accessToken;
    data = await emu.data();
    suffix = emu.info.suffix;
  });
  after(() => emu && emu.stop());

  const ok = async (query, variables, t = token) => {
    const res = await emu.graphql(query, variables, t);
    assert.equal(res.status, 200);
    assert.equal(res.headers['content-type'], 'application/json; charset=utf-8');
    assert.equal(res.json.errors, undefined, JSON.stringify(res.json.errors));
    return res.json.data;
  };

  it('answers every library text, sent verbatim, with the shapes the library parses', async () => {
    await emu.control('DELETE', '/requests');
    const account = data.accounts[0];
    const ws = account.workspaces[0];
    const root = ws.projects[0].rootAssetId;
    const video = data.videoAsset;

    const signedLink = (path) => new RegExp(`^https://media${suffix.replace(/\./g, '\\.')}${path}\\?expires=\\d+&signature=[0-9a-f]{64}$`);
    const { profileImageUrl, ...me } = (await ok(Q.CurrentUser)).me;
    assert.deepEqual(me, { ...data.user, __typename: 'AuthenticatedUser' });
    assert.match(profileImageUrl, signedLink(`/media/${data.user.id}/avatar.jpg`));

    // Accounts, paging to the end and counts are read through the library in ServiceEmulatorTest.
    const page1 = (await ok(Q.WorkspacesByAccountID, { accountID: account.id, page: { first: 2 } })).account.workspaces;
    assert.deepEqual(page1.nodes, account.workspaces.slice(0, 2).map((w) => ({ __typename: 'Workspace', id: w.id, name: w.name })));
    assert.equal(page1.pageInfo.hasNextPage, true);

    const projects = (await ok(Q.ProjectsByWorkspaceID, { workspaceID: ws.id, page: { first: 10 } })).workspace.projects;
    assert.deepEqual(projects.nodes, ws.projects.map((p) => ({ __typename: 'Project', ...p })));
    assert.equal(projects.pageInfo.hasNextPage, false);

    const filter = (t) => ({ assetType: t, folderId: root });
    const listing = await ok(Q.GetFilesAndFolders, { pageFiles: { first: 20 }, pageFolders: { first: 20 }, queryFiles: filter('FILE'), queryFolders: filter('FOLDER') });
    const rootInfo = data.folders.find((f) => f.id === root);
    assert.equal(listing.files.nodes.length, rootInfo.fileCount);
    assert.deepEqual(listing.folders.nodes.map((n) => n.id), data.folders.filter((f) => f.parentId === root).map((f) => f.id));
    assert.equal(listing.files.pageInfo.hasNextPage, false);

    const downloadUrl = (await ok(Q.GetDownloadURL, { assetID: video.id })).asset.media.original.downloadUrl;
    assert.match(downloadUrl, signedLink(`/media/${video.id}/original.mp4`));
    assert.match((await ok(Q.ThumbnailImageUrl, { assetID: video.id })).asset.thumbnailImageUrl.url, signedLink(`/media/${video.id}/thumbnail.jpg`));
    const { pathname, search } = new URL(downloadUrl);
    const media = await emu.request('media', 'GET', pathname + search, { headers: { range: 'bytes=5-9' } });
    assert.deepEqual([media.status, media.body], [206, expectedBytes(5, video.seed, 5)]);
    // A folder id is a valid asset, just not a video: the fragment selects nothing.
    assert.deepEqual((await ok(Q.GetDownloadURL, { assetID: root })).asset, {});

    const log = (await emu.requests()).filter((e) => e.path === '/graphql').map((e) => e.graphql.known);
    assert.deepEqual(log, ['CurrentUser', 'WorkspacesByAccountID', 'ProjectsByWorkspaceID', 'GetFilesAndFolders',
      'GetDownloadURL', 'ThumbnailImageUrl', 'GetDownloadURL']);
    assert.equal(Object.keys(Q).length, 10);
  });

  it('names the offset and closest text of a drifted document', async () => {
    await emu.control('DELETE', '/requests');
    const at = Q.WorkspacesByAccountID.indexOf('pageInfo');
    const drifted = `${Q.WorkspacesByAccountID.slice(0, at)} ${Q.WorkspacesByAccountID.slice(at)}`;
    await ok(drifted, { accountID: data.accountIds[0], page: { first: 1 } });
    const lowered = Q.GetDownloadURL.replace('GetDownloadURL', 'GetDownloadUrl');
    await ok(lowered, { assetID: data.videoAsset.id });
    const [e1, e2] = await emu.requests();
    assert.deepEqual(e1.graphql, { operationName: 'WorkspacesByAccountID', known: null, firstDifference: at, closest: 'WorkspacesByAccountID' });
    assert.deepEqual(e2.graphql, { operationName: 'GetDownloadUrl', known: null, firstDifference: Q.GetDownloadURL.indexOf('URL') + 1, closest: 'GetDownloadURL' });
  });

  it('answers bad requests with standard GraphQL errors', async () => {
    const errorOf = async (query, variables, status = 200) => {
      const res = await emu.graphql(query, variables, token);
      assert.equal(res.status, status);
      assert.ok(res.json.errors.length >= 1, JSON.stringify(res.json));
      return res.json;
    };
    await errorOf('{ me { id ', undefined);
    await errorOf('{ me { nosuchfield } }', undefined);
    await errorOf(Q.Accounts, {});
    await errorOf(Q.WorkspaceCountByAccountID, { accountID: data.accountIds[0], page: { first: '0' } });
    await errorOf(Q.GetAssetCountsByFolderID, { page: { first: 0 }, queryFiles: { assetType: 'FILES', folderId: data.rootFolderIds[0] }, queryFolders: { assetType: 'FOLDER', folderId: data.rootFolderIds[0] } });
    const pageOf = (first, after) => ({ accountID: data.accountIds[0], page: after === undefined ? { first } : { first, after } });
    assert.match((await errorOf(Q.WorkspacesByAccountID, pageOf(1001))).errors[0].message, /first/);
    assert.match((await errorOf(Q.WorkspacesByAccountID, pageOf(1, 'garbage!'))).errors[0].message, /invalid cursor/);
    assert.match((await errorOf(Q.WorkspacesByAccountID, pageOf(0, 'garbage!'))).errors[0].message, /invalid cursor/);
    // A real cursor of another list is refused too.
    const other = (await ok(Q.WorkspacesByAccountID, { accountID: data.accountIds[1], page: { first: 1 } })).account.workspaces.pageInfo.endCursor;
    assert.match((await errorOf(Q.WorkspacesByAccountID, pageOf(1, other))).errors[0].message, /invalid cursor/);

    const missing = await errorOf(Q.WorkspaceCountByAccountID, { accountID: '00000000-0000-0000-0000-000000000000', page: { first: 0 } });
    assert.deepEqual(missing.data, { account: null });
    assert.match(missing.errors[0].message, /^not found/);

    const raw = (body, type = 'application/json') => emu.request('api', 'POST', '/graphql', { headers: { ...(type === null ? {} : { 'content-type': type }), authorization: `Bearer ${token}` }, body });
    const notJson = await raw('{"query": ');
    assert.equal(notJson.status, 400);
    assert.ok(JSON.parse(notJson.body).errors[0].message);
    assert.equal((await raw(JSON.stringify({ query: Q.CurrentUser, variables: [1] }))).status, 400);
    // Valid JSON except for one Latin-1 byte in a string: a decoder that substitutes would accept it.
    assert.equal((await raw(Buffer.concat([Buffer.from('{"query": "{ me { id } }", "x": "'), Buffer.from([0xe9]), Buffer.from('"}')]))).status, 400);
    const unknownOperation = await raw(JSON.stringify({ query: Q.GetDownloadURL, variables: { assetID: data.videoAsset.id }, operationName: 'GetDownloadUrl' }));
    assert.deepEqual([unknownOperation.status, JSON.parse(unknownOperation.body).data], [200, undefined]);
    assert.match(JSON.parse(unknownOperation.body).errors[0].message, /GetDownloadUrl/);
  });

  it('takes only a JSON content type', async () => {
    const body = JSON.stringify({ query: Q.CurrentUser });
    for (const [type, status] of [
      ['application/json', 200], ['application/json; charset=utf-8', 200], ['Application/JSON;Charset="UTF-8"', 200], ['application/json ; v=1', 200],
      ['application/jsonx', 415], ['application/json-patch+json', 415], ['text/json', 415], ['application/x-www-form-urlencoded', 415],
      ['text/plain', 415], ['application/json; charset=iso-8859-1', 415], ['application/json;', 415], ['application/json, text/plain', 415], [null, 415],
    ]) {
      const res = await emu.request('api', 'POST', '/graphql', { headers: { ...(type === null ? {} : { 'content-type': type }), authorization: `Bearer ${token}` }, body });
      assert.equal(res.status, status, String(type));
      assert.ok(JSON.parse(res.body)[status === 200 ? 'data' : 'errors'], String(type));
    }
  });

  it('answers a non-positive page size with an empty page and the full count', async () => {
    const account = data.accounts[0];
    const text = 'query($a: ID!, $p: PageInput!) { account(accountId: $a) { workspaces(page: $p) { nodes { id } pageInfo { endCursor hasNextPage } totalCount } } }';
    const cursorAt = async (n) => (await ok(text, { a: account.id, p: { first: n } })).account.workspaces.pageInfo.endCursor;
    const afterFirst = await cursorAt(1);
    const afterLast = await cursorAt(account.workspaces.length);
    for (const [first, after, hasNextPage] of [[0, undefined, true], [-3, undefined, true], [0, afterFirst, true], [-1, afterLast, false]]) {
      const page = (await ok(text, { a: account.id, p: after === undefined ? { first } : { first, after } })).account.workspaces;
      assert.deepEqual(page, { nodes: [], pageInfo: { endCursor: null, hasNextPage }, totalCount: account.workspaces.length }, `${first} ${after}`);
    }
    const empty = data.folders.find((f) => f.fileCount === 0);
    const files = await ok(Q.GetFilesAndFolders, { pageFiles: { first: 0 }, pageFolders: { first: 0 }, queryFiles: { assetType: 'FILE', folderId: empty.id }, queryFolders: { assetType: 'FOLDER', folderId: empty.id } });
    assert.deepEqual(files.files, { nodes: [], pageInfo: { endCursor: null, hasNextPage: false } });
  });

  it('shows a user only the accounts they belong to', async () => {
    const sam = data.users.find((u) => u.email === 'sam@example.com');
    const samToken = (await emu.session({ userId: sam.id })).accessToken;
    const mine = (await ok(Q.Accounts, { page: { first: 100 } }, samToken)).me.accounts.nodes.map((n) => n.account.id);
    assert.deepEqual(mine, sam.accountIds);
    const foreign = data.accountIds.find((id) => !sam.accountIds.includes(id));
    const res = await emu.graphql(Q.WorkspaceCountByAccountID, { accountID: foreign, page: { first: 0 } }, samToken);
    assert.match(res.json.errors[0].message, /^not found/);
  });
});
