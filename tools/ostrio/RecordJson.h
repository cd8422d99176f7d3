#pragma once
// RecordJson: the library's records as JSON objects whose keys are the records' field names, ids
// in the Guid text form (the nil Guid for an absent id).

#include <string>
#include <vector>

#include "kelcore/Dictionary.h"
#include "ostriolib/OstrioRecords.h"

namespace ostrio {

class RecordJson {
 public:
  static kelcore::utility::Dictionary User(const ostriolib::CurrentUser& user);
  static kelcore::utility::Dictionary Account(const ostriolib::Account& account);
  static kelcore::utility::Dictionary Object(const ostriolib::OstrioObject& object);
  static kelcore::utility::Dictionary Project(const ostriolib::Project& project);
  static kelcore::utility::Dictionary Workspaces(const ostriolib::WorkspaceList& list);
  static kelcore::utility::Dictionary Projects(const ostriolib::ProjectList& list);
  static kelcore::utility::Dictionary Assets(const ostriolib::Assets& assets);
  static kelcore::utility::Dictionary Counts(const ostriolib::AssetCounts& counts);
  static kelcore::utility::DictionaryValue Ids(const std::vector<kelcore::utility::Guid>& ids);
};

}  // namespace ostrio
