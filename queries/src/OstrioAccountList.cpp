#include "ostriolib/OstrioAccountList.h"

#include "OstrioQuery.h"

namespace ostriolib {
namespace {

const QuerySite kLoadAccountList{"queries/src/OstrioAccountList", "ostriolib::OstrioAccountList::LoadAccountList"};
// One page, never followed: the library offers the first 100 accounts and no paging for them.
constexpr int kAccountPageSize = 100;

}  // namespace

kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioAccountList>> OstrioAccountList::LoadAccountList(
    kelcore::classref::InterfaceRef<IOstrioService> const& service) {
  static const kelcore::U8Str query = kelcore::ToU8Str(
      "query Accounts($page: PageInput!) { me { id ... on AuthenticatedUser { accounts(page: $page) { nodes { "
      "account { __typename id displayName version } } } } } }");
  const kelcore::utility::Dictionary variables{{kKeyPage, OstrioQuery::PageInput(kAccountPageSize, {})}};
  return OstrioQuery::Load<OstrioAccountList>(service, true, query, variables, kLoadAccountList);
}

std::vector<Account> OstrioAccountList::GetAccountList() const {
  std::vector<Account> accounts;
  const auto paged = OstrioQuery::Object(GetDictionary(), {kKeyData, kKeyMe, kKeyAccounts});
  for (const auto& node : OstrioQuery::Nodes(paged)) {
    const auto account = node.GetDictionary(kKeyAccount.View());
    if (account.empty()) continue;
    Account& record = accounts.emplace_back();
    record.id = OstrioQuery::Id(account, kKeyID);
    record.typeName = kelcore::ImmutableString(OstrioQuery::Text(account, kKeyType));
    record.name = OstrioQuery::Text(account, kKeyDisplayName);
    record.version = OstrioQuery::Integer(account, kKeyVersion);
  }
  return accounts;
}

}  // namespace ostriolib
