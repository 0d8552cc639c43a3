#include "agent/host/StateDatabase.h"

#include <algorithm>
#include <tuple>
#include <vector>

#include "agent/base/Text.h"
#include "platform/Cell.h"

namespace AclAgent {
namespace {

constexpr std::string_view kPathNames[] = {
    "mdns/config", "mdns/status", "l3/intf/status", "ip/vrf/status/global", "ip/vrf/status/local",
};

McastDns::IntfKey intfKey(const LinkName& link) {
  return McastDns::IntfKey{Dovix::IntfId(Zov::String(link.intf)), link.index};
}

Dovix::IntfId intfId(const std::string& intf) {
  return Dovix::IntfId(Zov::String(intf));
}

template <class AllVrf>
Zov::Ptr<AllVrf> vrfCopy(const AllVrf& old) {
  Zov::Ptr<AllVrf> copy(new AllVrf(old.name()));
  for (const auto& [name, entry] : old.vrf()) copy->vrfIs(name);
  return copy;
}

template <class AllVrf>
void vrfLines(const AllVrf* all, VrfView view, std::string& out) {
  if (!all) return;
  std::vector<std::string> names;
  for (const auto& [name, entry] : all->vrf()) names.push_back(name.str());
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    out += "vrf add " + std::string(vrfViewName(view)) + " " + quoteName(name) + "\n";
  }
}

}  // namespace

std::string_view statePathName(StatePath path) {
  return kPathNames[static_cast<int>(path)];
}

Zov::String statePathFull(StatePath path) {
  if (path == StatePath::kVrfStatusLocal) return Cell::path("ip/vrf/status/local", 0);
  return Zov::String(statePathName(path));
}

std::optional<StatePath> statePathNamed(std::string_view name) {
  for (StatePath path : kStatePaths) {
    if (statePathName(path) == name) return path;
  }
  return std::nullopt;
}

std::string statePathList() {
  std::string list;
  for (StatePath path : kStatePaths) {
    if (!list.empty()) list += ", ";
    list += statePathName(path);
  }
  return list;
}

std::string_view vrfViewName(VrfView view) {
  return view == VrfView::kGlobal ? "global" : "local";
}

StateDatabase::StateDatabase() : entityManager_(new Korvel::EntityManager()) {
  auto publish = [this](StatePath path, Zov::Entity* entity) {
    entityManager_->entityIs(statePathFull(path), Zov::Ptr<Zov::Entity>(entity));
  };
  publish(StatePath::kMdnsConfig, new McastDns::Config("mdns/config"));
  publish(StatePath::kMdnsStatus, new McastDns::Status("mdns/status"));
  publish(StatePath::kL3IntfStatus, new L3::Intf::StatusDir("l3/intf/status"));
  publish(StatePath::kVrfStatusGlobal, new Ip::AllVrfStatusGlobal("ip/vrf/status/global"));
  publish(StatePath::kVrfStatusLocal, new Ip::AllVrfStatusLocal("ip/vrf/status/local"));
}

StateDatabase::~StateDatabase() = default;

template <class T>
Zov::Ptr<T> StateDatabase::entity(StatePath path) const {
  return Zov::ptrCast<T>(entityManager_->getEntity(statePathFull(path)));
}

StateDatabase::Claim::Claim(StateDatabase& db, std::vector<StatePath> paths, std::string reason)
    : db_(db), paths_(std::move(paths)), reason_(std::move(reason)) {
  for (StatePath path : paths_) {
    if (db_.claims_[static_cast<std::size_t>(path)]) {
      throw StateDatabaseException(std::string(statePathName(path)) + " is claimed already");
    }
  }
  for (StatePath path : paths_) db_.claims_[static_cast<std::size_t>(path)] = this;
}

StateDatabase::Claim::~Claim() {
  for (StatePath path : paths_) db_.claims_[static_cast<std::size_t>(path)] = nullptr;
}

void StateDatabase::checkClaim(StatePath path) const {
  const Claim* claim = claims_[static_cast<std::size_t>(path)];
  if (claim && claim != writer_) throw ClaimedPathException(claim->reason());
}

template <class T>
Zov::Ptr<T> StateDatabase::writable(StatePath path) const {
  checkClaim(path);
  Zov::Ptr<T> found = entity<T>(path);
  if (!found) {
    throw StateDatabaseException(std::string(statePathName(path)) +
                                 " holds no entity (it was omitted)");
  }
  return found;
}

Zov::Ptr<McastDns::Config> StateDatabase::config() const {
  return entity<McastDns::Config>(StatePath::kMdnsConfig);
}
Zov::Ptr<McastDns::Status> StateDatabase::status() const {
  return entity<McastDns::Status>(StatePath::kMdnsStatus);
}
Zov::Ptr<L3::Intf::StatusDir> StateDatabase::intfStatusDir() const {
  return entity<L3::Intf::StatusDir>(StatePath::kL3IntfStatus);
}
Zov::Ptr<Ip::AllVrfStatusGlobal> StateDatabase::vrfStatusGlobal() const {
  return entity<Ip::AllVrfStatusGlobal>(StatePath::kVrfStatusGlobal);
}
Zov::Ptr<Ip::AllVrfStatusLocal> StateDatabase::vrfStatusLocal() const {
  return entity<Ip::AllVrfStatusLocal>(StatePath::kVrfStatusLocal);
}

void StateDatabase::gatewayEnabledIs(bool enabled) {
  writable<McastDns::Config>(StatePath::kMdnsConfig)->gatewayEnabledIs(enabled);
}

void StateDatabase::gatewaySettingIs(std::uint16_t setting) {
  writable<McastDns::Config>(StatePath::kMdnsConfig)->gatewaySettingIs(setting);
}

void StateDatabase::linkStateIs(const LinkName& link, std::uint8_t state) {
  auto status = writable<McastDns::Status>(StatePath::kMdnsStatus);
  const McastDns::IntfKey key = intfKey(link);
  if (McastDns::LinkStatus* existing = status->linkStatus(key)) {
    Zov::Ptr<McastDns::LinkStatus> hold(existing);
    existing->stateIs(state);
    return;
  }
  status->linkStatusIs(Zov::Ptr<McastDns::LinkStatus>(new McastDns::LinkStatus(key, state)));
}

void StateDatabase::linkStatusIs(const LinkName& link, std::uint8_t state) {
  auto status = writable<McastDns::Status>(StatePath::kMdnsStatus);
  status->linkStatusIs(
      Zov::Ptr<McastDns::LinkStatus>(new McastDns::LinkStatus(intfKey(link), state)));
}

void StateDatabase::linkStatusDel(const LinkName& link) {
  writable<McastDns::Status>(StatePath::kMdnsStatus)->linkStatusDel(intfKey(link));
}

void StateDatabase::intfVrfIs(const std::string& intf, const std::string& vrf) {
  auto dir = writable<L3::Intf::StatusDir>(StatePath::kL3IntfStatus);
  // The name is checked before anything changes.
  const L3::VrfName vrfName(vrf);
  const Dovix::IntfId id = intfId(intf);
  if (const L3::Intf::Status* existing = dir->intfStatus(id)) {
    // The directory hands its entries out read-only to readers; every entry
    // was made writable here, by this database, which is their writer.
    Zov::Ptr<L3::Intf::Status> hold(const_cast<L3::Intf::Status*>(existing));
    hold->vrfIs(vrfName);
    return;
  }
  dir->intfStatusIs(Zov::Ptr<const L3::Intf::Status>(new L3::Intf::Status(id, vrfName)));
}

void StateDatabase::intfStatusIs(const std::string& intf, const std::string& vrf) {
  auto dir = writable<L3::Intf::StatusDir>(StatePath::kL3IntfStatus);
  const L3::VrfName vrfName(vrf);
  dir->intfStatusIs(Zov::Ptr<const L3::Intf::Status>(new L3::Intf::Status(intfId(intf), vrfName)));
}

void StateDatabase::intfStatusDel(const std::string& intf) {
  writable<L3::Intf::StatusDir>(StatePath::kL3IntfStatus)->intfStatusDel(intfId(intf));
}

void StateDatabase::vrfIs(VrfView view, const std::string& name) {
  // An omitted path is reported before a name that is too long.
  if (view == VrfView::kGlobal) {
    auto all = writable<Ip::AllVrfStatusGlobal>(StatePath::kVrfStatusGlobal);
    all->vrfIs(L3::VrfName(name));
  } else {
    auto all = writable<Ip::AllVrfStatusLocal>(StatePath::kVrfStatusLocal);
    all->vrfIs(L3::VrfName(name));
  }
}

void StateDatabase::vrfDel(VrfView view, const std::string& name) {
  if (view == VrfView::kGlobal) {
    auto all = writable<Ip::AllVrfStatusGlobal>(StatePath::kVrfStatusGlobal);
    all->vrfDel(L3::VrfName(name));
  } else {
    auto all = writable<Ip::AllVrfStatusLocal>(StatePath::kVrfStatusLocal);
    all->vrfDel(L3::VrfName(name));
  }
}

void StateDatabase::entityDel(StatePath path) {
  checkClaim(path);
  if (loaded_) {
    throw StateDatabaseException("omit " + std::string(statePathName(path)) +
                                 " is only allowed before load");
  }
  entityManager_->entityIs(statePathFull(path), nullptr);
}

void StateDatabase::entityCopyIs(StatePath path) {
  Zov::Ptr<Zov::Entity> copy;
  switch (path) {
    case StatePath::kMdnsConfig: {
      auto old = writable<McastDns::Config>(path);
      Zov::Ptr<McastDns::Config> config(new McastDns::Config(old->name()));
      config->gatewayEnabledIs(old->gatewayEnabled());
      config->opaqueIs(old->opaque());
      config->gatewaySettingIs(old->gatewaySetting());
      copy = config;
      break;
    }
    case StatePath::kMdnsStatus: {
      auto old = writable<McastDns::Status>(path);
      Zov::Ptr<McastDns::Status> status(new McastDns::Status(old->name()));
      status->enabledIs(old->enabled());
      for (const auto& [key, link] : old->linkStatus()) {
        status->linkStatusIs(
            Zov::Ptr<McastDns::LinkStatus>(new McastDns::LinkStatus(key, link->state())));
      }
      copy = status;
      break;
    }
    case StatePath::kL3IntfStatus: {
      auto old = writable<L3::Intf::StatusDir>(path);
      Zov::Ptr<L3::Intf::StatusDir> dir(new L3::Intf::StatusDir(old->name()));
      for (const auto& [id, intf] : old->intfStatus()) {
        dir->intfStatusIs(Zov::Ptr<const L3::Intf::Status>(new L3::Intf::Status(id, intf->vrf())));
      }
      copy = dir;
      break;
    }
    case StatePath::kVrfStatusGlobal:
      copy = vrfCopy(*writable<Ip::AllVrfStatusGlobal>(path));
      break;
    case StatePath::kVrfStatusLocal:
      copy = vrfCopy(*writable<Ip::AllVrfStatusLocal>(path));
      break;
  }
  entityManager_->entityIs(statePathFull(path), copy);
}

std::string StateDatabase::stateText() const {
  std::string out;
  if (auto c = config()) {
    out += std::string("config gateway-enabled ") + (c->gatewayEnabled() ? "true" : "false") + "\n";
    out += "config gateway-setting " + std::to_string(c->gatewaySetting()) + "\n";
  }
  if (auto s = status()) {
    std::vector<std::tuple<std::string, std::uint32_t, unsigned>> links;
    for (const auto& [key, link] : s->linkStatus()) {
      links.emplace_back(key.intfId.name().str(), key.index, link->state());
    }
    std::sort(links.begin(), links.end());
    for (const auto& [intf, index, state] : links) {
      out += "link set " + quoteName(intf) + "#" + std::to_string(index) + " " +
             std::to_string(state) + "\n";
    }
  }
  if (auto dir = intfStatusDir()) {
    std::vector<std::pair<std::string, std::string>> intfs;
    for (const auto& [id, intf] : dir->intfStatus()) {
      intfs.emplace_back(id.name().str(), intf->vrf().str());
    }
    std::sort(intfs.begin(), intfs.end());
    for (const auto& [intf, vrf] : intfs) {
      out += "intf set " + quoteName(intf) + " " + quoteName(vrf) + "\n";
    }
  }
  vrfLines(vrfStatusGlobal().ptr(), VrfView::kGlobal, out);
  vrfLines(vrfStatusLocal().ptr(), VrfView::kLocal, out);
  for (StatePath path : kStatePaths) {
    if (!entityManager_->getEntity(statePathFull(path))) {
      out += "omit " + std::string(statePathName(path)) + "\n";
    }
  }
  return out;
}

}  // namespace AclAgent
