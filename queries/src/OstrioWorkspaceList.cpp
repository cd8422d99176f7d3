#include "ostriolib/OstrioWorkspaceList.h"

#include "OstrioQuery.h"

namespace ostriolib {
namespace {

constexpr std::string_view kSourcePath = "queries/src/OstrioWorkspaceList";
const QuerySite kLoadWorkspaceList{kSourcePath, "ostriolib::OstrioWorkspaceList::LoadWorkspaceList"};
const QuerySite kGetWorkspaceCount{kSourcePath, "ostriolib::OstrioWorkspaceList::GetWorkspaceCount"};

}  // namespace

kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioWorkspaceList>> OstrioWorkspaceList::LoadWorkspaceList(
    kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid const& accountId, int first,
    kelcore::U8Str const& after) {
  static const kelcore::U8Str query = kelcore::ToU8Str(
      "query WorkspacesByAccountID($accountID: ID!, $page: PageInput!) {account(accountId: $accountID) "
      "{workspaces(page: $page) {nodes { __typename id name }pageInfo { endCursor hasNextPage } } } }");
  const kelcore::utility::Dictionary variables{{kKeyPage, OstrioQuery::PageInput(first, after)},
                                              {kKeyAccountID, accountId.ToString()}};
  return OstrioQuery::Load<OstrioWorkspaceList>(service, first > 0, query, variables, kLoadWorkspaceList);
}

WorkspaceList OstrioWorkspaceList::GetWorkspaceList() const {
  WorkspaceList list;
  const auto paged = OstrioQuery::Object(GetDictionary(), {kKeyData, kKeyAccount, kKeyWorkspaces});
  for (const auto& node : OstrioQuery::Nodes(paged)) {
    if (node.empty()) continue;
    OstrioObject& workspace = list.workspaces.emplace_back();
    workspace.id = OstrioQuery::Id(node, kKeyID);
    workspace.typeName = kelcore::ImmutableString(OstrioQuery::Text(node, kKeyType));
    workspace.name = OstrioQuery::Text(node, kKeyName);
  }
  list.nextCursor = OstrioQuery::NextCursor(paged);
  return list;
}

kelcore::async::Future<int> OstrioWorkspaceList::GetWorkspaceCount(
    kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid const& accountId) {
  static const kelcore::U8Str query = kelcore::ToU8Str(
      "query WorkspaceCountByAccountID($accountID: ID!, $page: PageInput!) {account(accountId: $accountID) "
      "{workspaces(page: $page) {totalCount } } }");
  const kelcore::utility::Dictionary variables{{kKeyPage, OstrioQuery::PageInput(0, {})},
                                              {kKeyAccountID, accountId.ToString()}};
  return OstrioQuery::Count(service, query, variables, kGetWorkspaceCount, [](const kelcore::utility::Dictionary& data) {
    return static_cast<int>(OstrioQuery::Integer(OstrioQuery::Object(data, {kKeyAccount, kKeyWorkspaces}), kKeyTotalCount));
  });
}

}  // namespace ostriolib
