#include "RecordJson.h"

namespace ostrio {

using kelcore::utility::Dictionary;
using kelcore::utility::DictionaryValue;

Dictionary RecordJson::Object(const ostriolib::OstrioObject& object) {
  return Dictionary{{"id", object.id.ToString()}, {"typeName", object.typeName}, {"name", object.name}};
}

Dictionary RecordJson::User(const ostriolib::CurrentUser& user) {
  Dictionary out = Object(user);
  out.Set("email", user.email);
  out.Set("profileImageUrl", user.profileImageUrl);
  return out;
}

Dictionary RecordJson::Account(const ostriolib::Account& account) {
  Dictionary out = Object(account);
  out.Set("version", static_cast<long long>(account.version));
  return out;
}

Dictionary RecordJson::Project(const ostriolib::Project& project) {
  Dictionary out = Object(project);
  out.Set("rootAssetId", project.rootAssetId.ToString());
  return out;
}

Dictionary RecordJson::Workspaces(const ostriolib::WorkspaceList& list) {
  std::vector<DictionaryValue> items;
  items.reserve(list.workspaces.size());
  for (const auto& workspace : list.workspaces) items.emplace_back(Object(workspace));
  return Dictionary{{"workspaces", DictionaryValue(std::move(items))}, {"nextCursor", list.nextCursor}};
}

Dictionary RecordJson::Projects(const ostriolib::ProjectList& list) {
  std::vector<DictionaryValue> items;
  items.reserve(list.projects.size());
  for (const auto& project : list.projects) items.emplace_back(Project(project));
  return Dictionary{{"projects", DictionaryValue(std::move(items))}, {"nextCursor", list.nextCursor}};
}

DictionaryValue RecordJson::Ids(const std::vector<kelcore::utility::Guid>& ids) {
  std::vector<DictionaryValue> items;
  items.reserve(ids.size());
  for (const auto& id : ids) items.emplace_back(id.ToString());
  return DictionaryValue(std::move(items));
}

Dictionary RecordJson::Assets(const ostriolib::Assets& assets) {
  return Dictionary{{"folders", Ids(assets.folders)},
                    {"files", Ids(assets.files)},
                    {"foldersCursor", assets.foldersCursor},
                    {"filesCursor", assets.filesCursor}};
}

Dictionary RecordJson::Counts(const ostriolib::AssetCounts& counts) {
  return Dictionary{{"folderCount", static_cast<long long>(counts.folderCount)},
                    {"fileCount", static_cast<long long>(counts.fileCount)}};
}

}  // namespace ostrio
