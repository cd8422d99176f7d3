'use strict';

const { guidFor, numberFor } = require('./ids');

// The seed the emulator serves. It is built in memory at start-up from fixed names, so the same
// flags always give the same ids, names, sizes and media bytes. Media content is never stored:
// a video only carries its size and pattern seed (see media.js).

const GiB = 1024 * 1024 * 1024;

const DEMO_ACCOUNTS = [
  {
    name: 'Northwind Studio', version: 3,
    workspaces: [
      ['Commercials', ['Spring Campaign', 'Harbor Lights Spot', 'Product Launch']],
      ['Music Videos', ['Night Drive', 'Paper Boats']],
      ['Internal', ['Showreel 2024', 'Training Clips']],
    ],
  },
  {
    name: 'Blue Heron Films', version: 7,
    workspaces: [
      ['Documentary', ['River Keepers', 'The Last Ferry']],
      ['Short Films', ['Glass Garden', 'Static', 'Undertow']],
    ],
  },
  {
    name: "Dana Demo's Account", version: 1,
    workspaces: [
      ['Sandbox', ['First Steps', 'Scratch']],
      ['Archive', ['Old Reels', 'Family Tapes']],
    ],
  },
];

// The tree under every demo project's root folder: sub-folders (nested) and video files.
const DEMO_TREE = {
  files: ['teaser.mp4', 'cut-v1.mp4'],
  folders: [
    ['Footage', { files: [], folders: [
      ['Day 01', { files: ['A001_C001.mp4', 'A001_C002.mp4', 'A001_C003.mp4'], folders: [] }],
      ['Day 02', { files: ['A002_C001.mp4', 'A002_C002.mp4'], folders: [] }],
    ] }],
    ['Edits', { files: ['assembly.mp4', 'rough-cut.mp4'], folders: [] }],
    ['Exports', { files: ['master.mp4'], folders: [] }],
  ],
};

const LARGE = {
  accounts: 150,
  files: 10000,
  folders: 250,
  videoSize: 3 * GiB,
};

function pad(n, width) {
  return String(n).padStart(width, '0');
}

class Dataset {
  constructor(kind) {
    this.kind = kind;
    this.users = new Map();
    this.accounts = new Map();
    this.workspaces = new Map();
    this.projects = new Map();
    this.assets = new Map();
    this.large = null;
    this.buildDemo();
    if (kind === 'large') this.buildLarge();
  }

  addUser(key, name, email) {
    const user = { id: guidFor(`user/${key}`), key, name, email, accountIds: [],
      avatarSize: 4096 + numberFor(`avatar/${key}`, 60000), avatarSeed: 1 + numberFor(`avatar-seed/${key}`, 250) };
    this.users.set(user.id, user);
    return user;
  }

  addAccount(path, displayName, version) {
    const account = { id: guidFor(`account/${path}`), displayName, version, workspaceIds: [], memberIds: [] };
    this.accounts.set(account.id, account);
    return account;
  }

  join(user, account) {
    user.accountIds.push(account.id);
    account.memberIds.push(user.id);
  }

  addWorkspace(account, path, name) {
    const ws = { id: guidFor(`workspace/${path}`), name, accountId: account.id, projectIds: [] };
    this.workspaces.set(ws.id, ws);
    account.workspaceIds.push(ws.id);
    return ws;
  }

  addProject(ws, path, name) {
    const project = { id: guidFor(`project/${path}`), name, workspaceId: ws.id, accountId: ws.accountId, rootAssetId: null };
    const root = this.addFolder(project, null, `${path}/root`, name);
    project.rootAssetId = root.id;
    this.projects.set(project.id, project);
    ws.projectIds.push(project.id);
    return project;
  }

  addFolder(project, parent, path, name) {
    const folder = {
      __typename: 'FolderAsset', id: guidFor(`asset/${path}`), name,
      parentId: parent ? parent.id : null, projectId: project.id, accountId: project.accountId,
      folderIds: [], fileIds: [],
    };
    this.assets.set(folder.id, folder);
    if (parent) parent.folderIds.push(folder.id);
    return folder;
  }

  addVideo(project, parent, path, name, size) {
    const video = {
      __typename: 'VideoAsset', id: guidFor(`asset/${path}`), name,
      parentId: parent.id, projectId: project.id, accountId: project.accountId,
      size: size ?? 200000 + numberFor(`size/${path}`, 3800000),
      seed: 1 + numberFor(`seed/${path}`, 250),
      thumbnailSize: 8000 + numberFor(`thumb-size/${path}`, 24000),
      thumbnailSeed: 1 + numberFor(`thumb-seed/${path}`, 250),
    };
    this.assets.set(video.id, video);
    parent.fileIds.push(video.id);
    return video;
  }

  fillTree(project, folder, path, tree) {
    for (const [name, sub] of tree.folders) {
      const child = this.addFolder(project, folder, `${path}/${name}`, name);
      this.fillTree(project, child, `${path}/${name}`, sub);
    }
    for (const name of tree.files) this.addVideo(project, folder, `${path}/${name}`, name);
  }

  buildDemo() {
    this.demoUser = this.addUser('dana', 'Dana Demo', 'dana@example.com');
    // A second user sharing one account: lets tests check that one user never sees another's
    // accounts.
    this.otherUser = this.addUser('sam', 'Sam Sample', 'sam@example.com');
    DEMO_ACCOUNTS.forEach((a, ai) => {
      const account = this.addAccount(`demo/${a.name}`, a.name, a.version);
      this.join(this.demoUser, account);
      if (ai === 0) this.join(this.otherUser, account);
      for (const [wsName, projectNames] of a.workspaces) {
        const wsPath = `demo/${a.name}/${wsName}`;
        const ws = this.addWorkspace(account, wsPath, wsName);
        for (const pName of projectNames) {
          const pPath = `${wsPath}/${pName}`;
          const project = this.addProject(ws, pPath, pName);
          this.fillTree(project, this.assets.get(project.rootAssetId), `${pPath}/root`, DEMO_TREE);
        }
      }
    });
  }

  buildLarge() {
    let largeProject = null;
    for (let i = 1; i <= LARGE.accounts; i++) {
      const path = `large/account-${pad(i, 3)}`;
      const account = this.addAccount(path, `Bulk Account ${pad(i, 3)}`, 1 + (i % 9));
      this.join(this.demoUser, account);
      if (i === 1) {
        const ws = this.addWorkspace(account, `${path}/Large Workspace`, 'Large Workspace');
        largeProject = this.addProject(ws, `${path}/Large Workspace/Large Project`, 'Large Project');
      }
    }
    const rootPath = 'large/account-001/Large Workspace/Large Project/root';
    const root = this.assets.get(largeProject.rootAssetId);
    for (let i = 1; i <= LARGE.folders; i++) this.addFolder(largeProject, root, `${rootPath}/folder-${pad(i, 3)}`, `folder-${pad(i, 3)}`);
    for (let i = 1; i <= LARGE.files; i++) {
      this.addVideo(largeProject, root, `${rootPath}/clip-${pad(i, 5)}.mp4`, `clip-${pad(i, 5)}.mp4`, 4096 + numberFor(`large-size/${i}`, 60000));
    }
    // The multi-GB file lives one level down so the big folder holds exactly the advertised
    // 10 000 files and 250 folders.
    const holder = this.assets.get(root.folderIds[0]);
    const video = this.addVideo(largeProject, holder, `${rootPath}/folder-001/feature-master.mp4`, 'feature-master.mp4', LARGE.videoSize);
    this.large = { projectId: largeProject.id, folderId: root.id, videoId: video.id };
  }

  userByEmail(email) {
    const wanted = String(email).trim().toLowerCase();
    for (const u of this.users.values()) if (u.email === wanted) return u;
    return null;
  }

  // The account that owns an object, so access checks are one comparison.
  canSee(user, accountId) {
    return user.accountIds.includes(accountId);
  }
}

module.exports = { Dataset, LARGE };
