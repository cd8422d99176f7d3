#include "ostriolib/OstrioProjectList.h"

#include "OstrioQuery.h"

namespace ostriolib {
namespace {

constexpr std::string_view kSourcePath = "queries/src/OstrioProjectList";
const QuerySite kLoadProjectList{kSourcePath, "ostriolib::OstrioProjectList::LoadProjectList"};
const QuerySite kGetProjectCount{kSourcePath, "ostriolib::OstrioProjectList::GetProjectCount"};

}  // namespace

kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioProjectList>> OstrioProjectList::LoadProjectList(
    kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid workspaceId, int first,
    kelcore::U8Str const& after) {
  static const kelcore::U8Str query = kelcore::ToU8Str(
      "query ProjectsByWorkspaceID($workspaceID: ID!, $page: PageInput!) {workspace(workspaceId: $workspaceID) "
      "{projects(page: $page) {nodes { __typename id name rootAssetId }pageInfo { endCursor hasNextPage } } } }");
  const kelcore::utility::Dictionary variables{{kKeyPage, OstrioQuery::PageInput(first, after)},
                                              {kKeyWorkspaceID, workspaceId.ToString()}};
  return OstrioQuery::Load<OstrioProjectList>(service, first > 0, query, variables, kLoadProjectList);
}

ProjectList OstrioProjectList::GetProjectList() const {
  ProjectList list;
  const auto paged = OstrioQuery::Object(GetDictionary(), {kKeyData, kKeyWorkspace, kKeyProjects});
  for (const auto& node : OstrioQuery::Nodes(paged)) {
    if (node.empty()) continue;
    Project& project = list.projects.emplace_back();
    project.id = OstrioQuery::Id(node, kKeyID);
    project.typeName = kelcore::ImmutableString(OstrioQuery::Text(node, kKeyType));
    project.name = OstrioQuery::Text(node, kKeyName);
    project.rootAssetId = OstrioQuery::Id(node, kKeyRootID);
  }
  list.nextCursor = OstrioQuery::NextCursor(paged);
  return list;
}

kelcore::async::Future<int> OstrioProjectList::GetProjectCount(
    kelcore::classref::InterfaceRef<IOstrioService> const& service, kelcore::utility::Guid const& workspaceId) {
  static const kelcore::U8Str query = kelcore::ToU8Str(
      "query ProjectCountByWorkspaceID($workspaceID: ID!, $page: PageInput!) {workspace(workspaceId: $workspaceID) "
      "{projects(page: $page) {totalCount } } }");
  const kelcore::utility::Dictionary variables{{kKeyPage, OstrioQuery::PageInput(0, {})},
                                              {kKeyWorkspaceID, workspaceId.ToString()}};
  return OstrioQuery::Count(service, query, variables, kGetProjectCount, [](const kelcore::utility::Dictionary& data) {
    return static_cast<int>(OstrioQuery::Integer(OstrioQuery::Object(data, {kKeyWorkspace, kKeyProjects}), kKeyTotalCount));
  });
}

}  // namespace ostriolib
