#pragma once
// The JSON keys the library reads answers with and writes variables with. Interned once at load,
// so comparing with a parsed key or value is an identity comparison. The letter case differs on
// purpose: "accountID" but "projectId", "downloadUrl" for kKeyDownloadURL.

#include "kelcore/ImmutableString.h"
#include "ostriolib/OstrioExport.h"

OSTRIOLIB_HEADER_OF_LAYER(OSTRIOLIB_LAYER_SERVICE);

namespace ostriolib {

OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyAccount;            // "account"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyAccountID;          // "accountID"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyAccounts;           // "accounts"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyAfter;              // "after"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyAsset;              // "asset"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyAssetID;            // "assetID"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyData;               // "data"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyDisplayName;        // "displayName"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyDownloadURL;        // "downloadUrl"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyEndCursor;          // "endCursor"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyErrors;             // "errors"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyFirst;              // "first"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyHasNextPage;        // "hasNextPage"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyID;                 // "id"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyMe;                 // "me"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyMedia;              // "media"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyMessage;            // "message"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyName;               // "name"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyNodes;              // "nodes"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyOriginal;           // "original"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyPage;               // "page"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyPageInfo;           // "pageInfo"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyProjectID;          // "projectId"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyProjects;           // "projects"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyRootID;             // "rootAssetId"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyThumbnailImageURL;  // "thumbnailImageUrl"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyTotalCount;         // "totalCount"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyType;               // "__typename"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyURL;                // "url"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyVersion;            // "version"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyWorkspace;          // "workspace"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyWorkspaceID;        // "workspaceID"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kKeyWorkspaces;         // "workspaces"
OSTRIOLIB_EXPORT extern const kelcore::ImmutableString kValUnauthenticated;    // "unauthenticated"

}  // namespace ostriolib
