#include "McastDns/AclPlugin/GenericIf.h"

#include <charconv>

#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "McastDns/AclPlugin/PluginTypes.h"

Zov::GenericValue Zov::GenericConvert<McastDns::IntfKey>::to(const McastDns::IntfKey& key) {
  return Zov::String(key.intfId.name().str() + "#" + std::to_string(key.index));
}

McastDns::IntfKey Zov::GenericConvert<McastDns::IntfKey>::from(const GenericValue& value) {
  const std::string_view text = value.asText().view();
  // The name may itself hold '#': the number follows the last one.
  const std::size_t hash = text.rfind('#');
  std::uint32_t index = 0;
  if (hash != std::string_view::npos) {
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data() + hash + 1, end, index);
    if (error == std::errc() && stop == end && hash + 1 < text.size()) {
      return McastDns::IntfKey{Dovix::IntfId(Zov::String(text.substr(0, hash))), index};
    }
  }
  throw GenericArgsException("expected an interface key NAME#NUMBER, got " + value.str());
}

namespace McastDns {

Zov::Ptr<Zov::PtrInterface> genericIfConstructAclPlugin(Zov::GenericArgs values) {
  if (values.size() > 1) Zov::throwNewEntityArgsException(fwkTypeOf(kAclPluginType));
  return Zov::Generic::construct<&AclPlugin::AclPluginIs>(values);
}

}  // namespace McastDns
