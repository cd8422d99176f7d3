'use strict';

const { buildSchema, GraphQLError } = require('graphql');

// The API surface ostriolib talks to. `User` and `Asset` are interfaces (the library's texts use
// inline fragments `... on AuthenticatedUser` / `... on VideoAsset` on them, which would not
// validate against unions). Lists are Relay-style connections with `nodes`, `pageInfo` and
// `totalCount`; every list takes a required `PageInput`.
//
// Unknown or invisible ids are GraphQL errors with message "not found" (extensions.code
// NOT_FOUND); graphql-js then leaves the nullable field null next to the error, so the
// library sees both "errors" and a null object.
const SDL = `
"The signed-in principal."
interface User {
  id: ID!
  name: String!
  email: String!
}

type AuthenticatedUser implements User {
  id: ID!
  name: String!
  email: String!
  profileImageUrl: String
  accounts(page: PageInput!): AccountMembershipConnection!
}

enum MembershipRole { OWNER MEMBER }

type AccountMembership {
  account: Account!
  role: MembershipRole!
}

type AccountMembershipConnection {
  nodes: [AccountMembership!]!
  pageInfo: PageInfo!
  totalCount: Int!
}

type Account {
  id: ID!
  displayName: String!
  version: Int!
  workspaces(page: PageInput!): WorkspaceConnection!
}

type WorkspaceConnection {
  nodes: [Workspace!]!
  pageInfo: PageInfo!
  totalCount: Int!
}

type Workspace {
  id: ID!
  name: String!
  account: Account!
  projects(page: PageInput!): ProjectConnection!
}

type ProjectConnection {
  nodes: [Project!]!
  pageInfo: PageInfo!
  totalCount: Int!
}

type Project {
  id: ID!
  name: String!
  workspace: Workspace!
  rootAssetId: ID!
}

interface Asset {
  id: ID!
  name: String!
  parentId: ID
}

type FolderAsset implements Asset {
  id: ID!
  name: String!
  parentId: ID
}

type VideoAsset implements Asset {
  id: ID!
  name: String!
  parentId: ID
  "Size of the original in bytes (Float: originals may exceed 2^31)."
  fileSize: Float!
  media: VideoMedia!
  thumbnailImageUrl: ImageUrl
}

type VideoMedia {
  original: MediaFile!
}

type MediaFile {
  downloadUrl: String!
  fileSize: Float!
  contentType: String!
}

type ImageUrl {
  url: String!
}

type AssetConnection {
  nodes: [Asset!]!
  pageInfo: PageInfo!
  totalCount: Int!
}

type PageInfo {
  endCursor: String
  hasNextPage: Boolean!
}

input PageInput {
  first: Int!
  after: String
}

enum AssetType { FILE FOLDER }

input FolderAssetsQueryInput {
  assetType: AssetType!
  folderId: ID!
}

type Query {
  me: User
  account(accountId: ID!): Account
  workspace(workspaceId: ID!): Workspace
  folderAssets(page: PageInput!, query: FolderAssetsQueryInput!): AssetConnection
  asset(assetId: ID!): Asset
}
`;

const MAX_PAGE = 1000;

function notFound(kind, id) {
  return new GraphQLError(`not found: ${kind} ${id}`, { extensions: { code: 'NOT_FOUND' } });
}

function badInput(message) {
  return new GraphQLError(message, { extensions: { code: 'BAD_USER_INPUT' } });
}

// Cursors are opaque to clients but carry the list they belong to, so a cursor of one list
// passed to another (files cursor given for folders, another account's cursor) is refused
// instead of quietly paging the wrong list.
function encodeCursor(scope, index) {
  return Buffer.from(`c1:${scope}:${index}`).toString('base64url');
}

function decodeCursor(cursor, scope, total) {
  const invalid = () => badInput(`invalid cursor: ${JSON.stringify(cursor)}`);
  if (typeof cursor !== 'string' || !/^[A-Za-z0-9_-]+$/.test(cursor)) throw invalid();
  const m = /^c1:(.+):(\d{1,9})$/.exec(Buffer.from(cursor, 'base64url').toString('utf8'));
  if (!m || m[1] !== scope) throw invalid();
  const index = Number(m[2]);
  if (index >= total) throw invalid();
  return index;
}

// A non-positive `first` asks for no nodes at all: count queries and the folder query's unwanted
// kind send 0 and read only totalCount. The cursor is still checked, and hasNextPage says
// whether anything follows the position asked about; there is no last node, so no endCursor.
function paginate(items, page, scope) {
  const { first, after } = page;
  if (first > MAX_PAGE) throw badInput(`page.first must be at most ${MAX_PAGE}, got ${first}`);
  const start = after == null ? 0 : decodeCursor(after, scope, items.length) + 1;
  if (first <= 0) return { nodes: [], totalCount: items.length, pageInfo: { endCursor: null, hasNextPage: start < items.length } };
  const nodes = items.slice(start, start + first);
  return {
    nodes,
    totalCount: items.length,
    pageInfo: {
      endCursor: nodes.length ? encodeCursor(scope, start + nodes.length - 1) : (after ?? null),
      hasNextPage: start + nodes.length < items.length,
    },
  };
}

// Context of one request: {dataset, user, mediaUrl(path) → signed link}.
function account(ctx, id) {
  const a = ctx.dataset.accounts.get(id);
  if (!a || !ctx.dataset.canSee(ctx.user, a.id)) throw notFound('account', id);
  return a;
}

function workspace(ctx, id) {
  const w = ctx.dataset.workspaces.get(id);
  if (!w || !ctx.dataset.canSee(ctx.user, w.accountId)) throw notFound('workspace', id);
  return w;
}

function asset(ctx, id) {
  const a = ctx.dataset.assets.get(id);
  if (!a || !ctx.dataset.canSee(ctx.user, a.accountId)) throw notFound('asset', id);
  return a;
}

function lookupAll(map, ids) {
  return ids.map((id) => map.get(id));
}

function createSchema() {
  const schema = buildSchema(SDL);
  const resolvers = {
    Query: {
      me: (_root, _args, ctx) => ({ __typename: 'AuthenticatedUser', ...ctx.user }),
      account: (_root, { accountId }, ctx) => account(ctx, accountId),
      workspace: (_root, { workspaceId }, ctx) => workspace(ctx, workspaceId),
      asset: (_root, { assetId }, ctx) => asset(ctx, assetId),
      folderAssets: (_root, { page, query }, ctx) => {
        const folder = asset(ctx, query.folderId);
        if (folder.__typename !== 'FolderAsset') throw badInput(`not a folder: ${query.folderId}`);
        const ids = query.assetType === 'FOLDER' ? folder.folderIds : folder.fileIds;
        return paginate(lookupAll(ctx.dataset.assets, ids), page, `fa:${folder.id}:${query.assetType}`);
      },
    },
    AuthenticatedUser: {
      profileImageUrl: (user, _args, ctx) => ctx.mediaUrl(`/media/${user.id}/avatar.jpg`),
      accounts: (user, { page }, ctx) => {
        const nodes = user.accountIds.map((id) => ({ account: ctx.dataset.accounts.get(id), role: 'OWNER' }));
        return paginate(nodes, page, `acc:${user.id}`);
      },
    },
    Account: {
      workspaces: (a, { page }, ctx) => paginate(lookupAll(ctx.dataset.workspaces, a.workspaceIds), page, `ws:${a.id}`),
    },
    Workspace: {
      account: (w, _args, ctx) => ctx.dataset.accounts.get(w.accountId),
      projects: (w, { page }, ctx) => paginate(lookupAll(ctx.dataset.projects, w.projectIds), page, `pr:${w.id}`),
    },
    Project: {
      workspace: (p, _args, ctx) => ctx.dataset.workspaces.get(p.workspaceId),
    },
    VideoAsset: {
      fileSize: (v) => v.size,
      media: (v, _args, ctx) => ({
        original: { downloadUrl: ctx.mediaUrl(`/media/${v.id}/original.mp4`), fileSize: v.size, contentType: 'video/mp4' },
      }),
      thumbnailImageUrl: (v, _args, ctx) => ({ url: ctx.mediaUrl(`/media/${v.id}/thumbnail.jpg`) }),
    },
  };
  for (const [typeName, fields] of Object.entries(resolvers)) {
    const type = schema.getType(typeName);
    for (const [fieldName, resolve] of Object.entries(fields)) {
      const field = type.getFields()[fieldName];
      if (!field) throw new Error(`no field ${typeName}.${fieldName}`);
      field.resolve = resolve;
    }
  }
  return schema;
}

module.exports = { createSchema, SDL, MAX_PAGE, encodeCursor, decodeCursor };
