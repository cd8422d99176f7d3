'use strict';

const assert = require('node:assert/strict');
const { describe, it, before, after } = require('node:test');
const { startEmulator } = require('../harness');
const { KNOWN_QUERIES: Q } = require('../lib/knownQueries');
const { expectedBytes } = require('../lib/media');

describe('large data set', { timeout: 120000 }, () => {
  let emu, token, data;
  before(async () => {
    emu = await startEmulator(['--dataset', 'large', '--no-log']);
    token = (await emu.session()).accessToken;
    data = await emu.data();
  });
  after(() => emu && emu.stop());

  const query = async (text, variables) => {
    const res = await emu.graphql(text, variables, token);
    assert.equal(res.json.errors, undefined, JSON.stringify(res.json.errors));
    return res.json.data;
  };

  // Walks one kind of a folder's children the way the library does: the other kind's page size
  // is 0, the cursor is taken only while hasNextPage is true.
  async function walk(kind, pageSize) {
    const folderId = data.largeFolderId;
    const ids = [];
    const seen = new Set();
    let after;
    for (let pages = 0; pages < 200; pages++) {
      const page = (first) => (after === undefined ? { first } : { first, after });
      const answer = await query(Q.GetFilesAndFolders, {
        pageFiles: kind === 'files' ? page(pageSize) : { first: 0 },
        pageFolders: kind === 'folders' ? page(pageSize) : { first: 0 },
        queryFiles: { assetType: 'FILE', folderId },
        queryFolders: { assetType: 'FOLDER', folderId },
      });
      const { nodes, pageInfo } = answer[kind];
      for (const n of nodes) {
        assert.ok(!seen.has(n.id), `duplicate ${n.id} on page ${pages}`);
        seen.add(n.id);
        ids.push(n.id);
      }
      if (!pageInfo.hasNextPage) return ids;
      assert.equal(nodes.length, pageSize, 'only the last page may be short');
      after = pageInfo.endCursor;
    }
    assert.fail('paging did not end');
  }

  it('walks 10 000 files and 250 folders in pages of 100 with no duplicate and no gap', async () => {
    const folderId = data.largeFolderId;
    const counts = await query(Q.GetAssetCountsByFolderID, { page: { first: 0 }, queryFiles: { assetType: 'FILE', folderId }, queryFolders: { assetType: 'FOLDER', folderId } });
    assert.deepEqual(counts, { files: { totalCount: 10000 }, folders: { totalCount: 250 } });
    assert.deepEqual(data.largeFolder, { id: folderId, fileCount: 10000, folderCount: 250 });

    const files = await walk('files', 100);
    assert.equal(files.length, 10000);
    const folders = await walk('folders', 100);
    assert.equal(folders.length, 250);
    // No gap: the walk saw exactly the set one big page holds, in the same order.
    const all = await query('query($p: PageInput!, $q: FolderAssetsQueryInput!) { folderAssets(page: $p, query: $q) { nodes { id name } } }',
      { p: { first: 250 }, q: { assetType: 'FOLDER', folderId } });
    assert.deepEqual(all.folderAssets.nodes.map((n) => n.id), folders);
  });

  it('gives the library at most 100 of the user\'s 153 accounts', async () => {
    const nodes = (await query(Q.Accounts, { page: { first: 100 } })).me.accounts.nodes;
    assert.equal(nodes.length, 100);
    const total = await query('{ me { ... on AuthenticatedUser { accounts(page: {first: 0}) { totalCount } } } }');
    assert.equal(total.me.accounts.totalCount, 153);
    assert.equal(data.accountIds.length, 153);
  });

  it('serves the multi-GB video without storing it', async () => {
    const v = data.largeVideo;
    assert.equal(v.size, 3 * 1024 ** 3);
    const { pathname, search } = new URL(v.downloadUrl);
    const head = await emu.request('media', 'HEAD', pathname + search);
    assert.equal(head.headers['content-length'], String(v.size));
    const tail = await emu.request('media', 'GET', pathname + search, { headers: { range: 'bytes=-4096' } });
    assert.equal(tail.status, 206);
    assert.equal(tail.headers['content-range'], `bytes ${v.size - 4096}-${v.size - 1}/${v.size}`);
    assert.deepEqual(tail.body, expectedBytes(4096, v.seed, v.size - 4096));
  });
});
