#include "ostriolib/OstrioKeys.h"

namespace ostriolib {

const kelcore::ImmutableString kKeyAccount("account");
const kelcore::ImmutableString kKeyAccountID("accountID");
const kelcore::ImmutableString kKeyAccounts("accounts");
const kelcore::ImmutableString kKeyAfter("after");
const kelcore::ImmutableString kKeyAsset("asset");
const kelcore::ImmutableString kKeyAssetID("assetID");
const kelcore::ImmutableString kKeyData("data");
const kelcore::ImmutableString kKeyDisplayName("displayName");
const kelcore::ImmutableString kKeyDownloadURL("downloadUrl");
const kelcore::ImmutableString kKeyEndCursor("endCursor");
const kelcore::ImmutableString kKeyErrors("errors");
const kelcore::ImmutableString kKeyFirst("first");
const kelcore::ImmutableString kKeyHasNextPage("hasNextPage");
const kelcore::ImmutableString kKeyID("id");
const kelcore::ImmutableString kKeyMe("me");
const kelcore::ImmutableString kKeyMedia("media");
const kelcore::ImmutableString kKeyMessage("message");
const kelcore::ImmutableString kKeyName("name");
const kelcore::ImmutableString kKeyNodes("nodes");
const kelcore::ImmutableString kKeyOriginal("original");
const kelcore::ImmutableString kKeyPage("page");
const kelcore::ImmutableString kKeyPageInfo("pageInfo");
const kelcore::ImmutableString kKeyProjectID("projectId");
const kelcore::ImmutableString kKeyProjects("projects");
const kelcore::ImmutableString kKeyRootID("rootAssetId");
const kelcore::ImmutableString kKeyThumbnailImageURL("thumbnailImageUrl");
const kelcore::ImmutableString kKeyTotalCount("totalCount");
const kelcore::ImmutableString kKeyType("__typename");
const kelcore::ImmutableString kKeyURL("url");
const kelcore::ImmutableString kKeyVersion("version");
const kelcore::ImmutableString kKeyWorkspace("workspace");
const kelcore::ImmutableString kKeyWorkspaceID("workspaceID");
const kelcore::ImmutableString kKeyWorkspaces("workspaces");
const kelcore::ImmutableString kValUnauthenticated("unauthenticated");

}  // namespace ostriolib
