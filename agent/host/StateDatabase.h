// StateDatabase: the state that the agent's scenario publishes, standing in
// for the other agents of the device.
//
// It owns the entity manager that the plugins mount from and publishes the
// five entities that the multicast DNS plugin reads:
//
//   mdns/config                 McastDns::Config
//   mdns/status                 McastDns::Status
//   l3/intf/status              L3::Intf::StatusDir
//   ip/vrf/status/global        Ip::AllVrfStatusGlobal
//   ip/vrf/status/local         Ip::AllVrfStatusLocal (published at the cell's
//                               path, "cell/0/ip/vrf/status/local")
//
// Each mutator is one write. Every notification it causes is delivered before
// it returns, by the published type's own setter; a value that is already held
// changes nothing and notifies nobody. A mutator that raises (a write to an
// omitted path, a VRF name over 100 bytes) has changed nothing.
//
//   StateDatabase db;
//   db.intfVrfIs("Ethernet1", "red");      // intf set Ethernet1 red
//   db.linkStateIs({"Ethernet1", 0}, 1);   // link set Ethernet1 1
//   auto group = db.entityManager()->getMountGroup(mounter);  // what plugins mount from
//
// Threading: the event thread only.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Ip.h"
#include "platform/Korvel.h"
#include "platform/L3.h"
#include "platform/McastDns.h"

namespace AclAgent {

// The five published paths, in mount order.
enum class StatePath : std::uint8_t {
  kMdnsConfig,
  kMdnsStatus,
  kL3IntfStatus,
  kVrfStatusGlobal,
  kVrfStatusLocal,
};
inline constexpr std::array<StatePath, 5> kStatePaths = {
    StatePath::kMdnsConfig, StatePath::kMdnsStatus, StatePath::kL3IntfStatus,
    StatePath::kVrfStatusGlobal, StatePath::kVrfStatusLocal};

// The path as scenarios write it: cell-relative for the local VRF status.
std::string_view statePathName(StatePath path);
// The path under which the entity manager holds the entity.
Zov::String statePathFull(StatePath path);
// The path a scenario names, or nothing for an unknown one.
std::optional<StatePath> statePathNamed(std::string_view name);
// "mdns/config, mdns/status, ..." for error messages and help.
std::string statePathList();

// The two views of the device's VRFs.
enum class VrfView : std::uint8_t { kGlobal, kLocal };
std::string_view vrfViewName(VrfView view);

// The key of a link as scenarios write it: an interface name and the 32-bit
// index of the link on it.
struct LinkName {
  std::string intf;
  std::uint32_t index = 0;
  friend bool operator==(const LinkName&, const LinkName&) = default;
};

// A command that the state database cannot carry out in its present state
// (a write to an omitted path, an omit after load).
class StateDatabaseException : public Zov::Exception {
 public:
  using Zov::Exception::Exception;
};

// A write to a path that a state source has claimed, from anyone else; its
// text is the reason the source gave.
class ClaimedPathException : public StateDatabaseException {
 public:
  using StateDatabaseException::StateDatabaseException;
};

class StateDatabase {
 public:
  // Publishes the five entities, empty.
  StateDatabase();
  StateDatabase(const StateDatabase&) = delete;
  StateDatabase& operator=(const StateDatabase&) = delete;
  ~StateDatabase();

  const Zov::Ptr<Korvel::EntityManager>& entityManager() const { return entityManager_; }

  // A state source's hold on the paths it publishes. While a claim lives,
  // writes to its paths (`omit` and `recreate` included) from anyone but its
  // holder raise `ClaimedPathException` with `reason`; the holder writes
  // through `write`. A path is claimed by one source at a time.
  //
  //   StateDatabase::Claim claim(db, {StatePath::kMdnsStatus}, "the kernel owns links");
  //   claim.write([](StateDatabase& db) { db.linkStateIs({"eth0", 0}, 1); });
  //   db.linkStatusDel({"eth0", 0});   // raises: the kernel owns links
  class Claim {
   public:
    // REQUIRES: none of `paths` is claimed (raises `StateDatabaseException`).
    Claim(StateDatabase& db, std::vector<StatePath> paths, std::string reason);
    ~Claim();
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

    template <class Write>
    void write(Write&& write) {
      const Claim* outer = db_.writer_;
      db_.writer_ = this;
      try {
        write(db_);
      } catch (...) {
        db_.writer_ = outer;
        throw;
      }
      db_.writer_ = outer;
    }
    const std::string& reason() const { return reason_; }

   private:
    StateDatabase& db_;
    std::vector<StatePath> paths_;
    std::string reason_;
  };

  // Set by the host once the plugins have been loaded; `entityDel` is refused
  // from then on, since a path that mounters may already hold cannot vanish.
  bool loaded() const { return loaded_; }
  void loadedIs(bool loaded) { loaded_ = loaded; }

  // `config gateway-enabled` and `config gateway-setting`.
  void gatewayEnabledIs(bool enabled);
  void gatewaySettingIs(std::uint16_t setting);

  // `link set`: sets the state of the link under `link`, creating the link
  // status (in that state) when absent.
  void linkStateIs(const LinkName& link, std::uint8_t state);
  // `link replace`: a new link status entity takes the place of the one under
  // `link`, if any.
  void linkStatusIs(const LinkName& link, std::uint8_t state);
  // `link del`: removes the link status under `link`, if any.
  void linkStatusDel(const LinkName& link);

  // `intf set`: sets the VRF of the interface status of `intf`, creating it
  // when absent. Raises `Zov::RangeException` for a VRF name over 100 bytes.
  void intfVrfIs(const std::string& intf, const std::string& vrf);
  // `intf replace`: a new interface status entity takes the place of the one
  // under `intf`, if any. Raises like `intfVrfIs`.
  void intfStatusIs(const std::string& intf, const std::string& vrf);
  // `intf del`: removes the interface status of `intf`, if any.
  void intfStatusDel(const std::string& intf);

  // `vrf add` and `vrf del`. `vrfIs` raises like `intfVrfIs`.
  void vrfIs(VrfView view, const std::string& name);
  void vrfDel(VrfView view, const std::string& name);

  // `omit`: the path holds no entity from now on.
  // REQUIRES: !loaded() (raises `StateDatabaseException` otherwise).
  void entityDel(StatePath path);
  // `recreate`: a new entity of the same type, holding new entries with the
  // same values, takes the place of the one at `path`. The old entity and its
  // entries are left as they are, for whoever still holds them.
  void entityCopyIs(StatePath path);

  // The published entities; null when omitted.
  Zov::Ptr<McastDns::Config> config() const;
  Zov::Ptr<McastDns::Status> status() const;
  Zov::Ptr<L3::Intf::StatusDir> intfStatusDir() const;
  Zov::Ptr<Ip::AllVrfStatusGlobal> vrfStatusGlobal() const;
  Zov::Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal() const;

  // The published state as scenario commands that would rebuild it, one a
  // line, in a stable order: configuration, links by interface name and index,
  // interfaces by name, VRFs by view and name, then the omitted paths.
  std::string stateText() const;

 private:
  template <class T>
  Zov::Ptr<T> entity(StatePath path) const;
  // Raises `ClaimedPathException` when a source other than the one writing
  // has claimed `path`.
  void checkClaim(StatePath path) const;
  // The entity at `path`, raising when the path has been omitted.
  template <class T>
  Zov::Ptr<T> writable(StatePath path) const;

  Zov::Ptr<Korvel::EntityManager> entityManager_;
  bool loaded_ = false;
  std::array<const Claim*, kStatePaths.size()> claims_{};
  const Claim* writer_ = nullptr;  // the claim whose `write` runs
};

}  // namespace AclAgent
