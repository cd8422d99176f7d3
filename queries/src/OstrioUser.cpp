#include "ostriolib/OstrioUser.h"

#include "OstrioQuery.h"

namespace ostriolib {
namespace {

const QuerySite kLoadUser{"queries/src/OstrioUser", "ostriolib::OstrioUser::LoadUser"};

}  // namespace

kelcore::async::Future<kelcore::classref::InterfaceRef<OstrioUser>> OstrioUser::LoadUser(
    kelcore::classref::InterfaceRef<IOstrioService> const& service) {
  static const kelcore::U8Str query =
      kelcore::ToU8Str("{ me { id name email __typename ... on AuthenticatedUser { profileImageUrl } } }");
  return OstrioQuery::Load<OstrioUser>(service, true, query, {}, kLoadUser);
}

CurrentUser OstrioUser::GetUser() const {
  static const kelcore::ImmutableString kKeyEmail("email");
  static const kelcore::ImmutableString kKeyProfileImageUrl("profileImageUrl");
  const auto me = OstrioQuery::Object(GetDictionary(), {kKeyData, kKeyMe});
  CurrentUser user;
  user.id = OstrioQuery::Id(me, kKeyID);
  user.typeName = kelcore::ImmutableString(OstrioQuery::Text(me, kKeyType));
  user.name = OstrioQuery::Text(me, kKeyName);
  user.email = OstrioQuery::Text(me, kKeyEmail);
  user.profileImageUrl = OstrioQuery::Text(me, kKeyProfileImageUrl);
  return user;
}

}  // namespace ostriolib
