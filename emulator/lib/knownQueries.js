'use strict';

// The GraphQL documents ostriolib sends, byte for byte. The request log compares every
// incoming document against these, so a drifted blank or letter case in the library shows up
// as a named offset instead of a silently accepted query. Odd spacing (a missing blank before
// "pageInfo", "{..." in ThumbnailImageUrl) is what the library really sends: keep it.

const KNOWN_QUERIES = Object.freeze({
  CurrentUser:
    "{ me { id name email __typename ... on AuthenticatedUser { profileImageUrl } } }",
  Accounts:
    "query Accounts($page: PageInput!) { me { id ... on AuthenticatedUser { accounts(page: $page) { nodes { account { __typename id displayName version } } } } } }",
  WorkspacesByAccountID:
    "query WorkspacesByAccountID($accountID: ID!, $page: PageInput!) {account(accountId: $accountID) {workspaces(page: $page) {nodes { __typename id name }pageInfo { endCursor hasNextPage } } } }",
  WorkspaceCountByAccountID:
    "query WorkspaceCountByAccountID($accountID: ID!, $page: PageInput!) {account(accountId: $accountID) {workspaces(page: $page) {totalCount } } }",
  ProjectsByWorkspaceID:
    "query ProjectsByWorkspaceID($workspaceID: ID!, $page: PageInput!) {workspace(workspaceId: $workspaceID) {projects(page: $page) {nodes { __typename id name rootAssetId }pageInfo { endCursor hasNextPage } } } }",
  ProjectCountByWorkspaceID:
    "query ProjectCountByWorkspaceID($workspaceID: ID!, $page: PageInput!) {workspace(workspaceId: $workspaceID) {projects(page: $page) {totalCount } } }",
  GetFilesAndFolders:
    "query GetFilesAndFolders($pageFiles: PageInput!, $pageFolders: PageInput!, $queryFiles: FolderAssetsQueryInput!, $queryFolders: FolderAssetsQueryInput!) {files:folderAssets(page: $pageFiles, query: $queryFiles) { nodes { id } pageInfo { endCursor hasNextPage } }folders:folderAssets(page: $pageFolders, query: $queryFolders) { nodes { id } pageInfo { endCursor hasNextPage } } }",
  GetAssetCountsByFolderID:
    "query GetAssetCountsByFolderID($page: PageInput!, $queryFiles: FolderAssetsQueryInput!, $queryFolders: FolderAssetsQueryInput!) {files:folderAssets(page: $page, query: $queryFiles) { totalCount }folders:folderAssets(page: $page, query: $queryFolders) { totalCount } }",
  GetDownloadURL:
    "query GetDownloadURL($assetID: ID!) { asset(assetId: $assetID) { ... on VideoAsset { media { original { downloadUrl } } } } }",
  ThumbnailImageUrl:
    "query ThumbnailImageUrl($assetID: ID!) { asset(assetId: $assetID) {... on VideoAsset { thumbnailImageUrl { url } } } }",
});

module.exports = { KNOWN_QUERIES };
