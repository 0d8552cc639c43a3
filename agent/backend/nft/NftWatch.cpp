#include "agent/backend/nft/NftWatch.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <cstring>
#include <string_view>

#include "agent/backend/iptables/IptablesText.h"

namespace AclAgent {
namespace {

// The table a notification is about: attribute 1 of a table, chain, rule or
// set message (NFTA_TABLE_NAME, NFTA_CHAIN_TABLE, NFTA_RULE_TABLE, ...).
constexpr std::uint16_t kTableAttribute = 1;

struct Names {
  std::uint16_t chainAttribute;
  const char* table = nullptr;
  const char* chain = nullptr;
};

int collect(const nlattr* attribute, void* data) {
  auto* names = static_cast<Names*>(data);
  const std::uint16_t type = mnl_attr_get_type(attribute);
  if (type != kTableAttribute && type != names->chainAttribute) return MNL_CB_OK;
  if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) < 0) return MNL_CB_OK;
  (type == kTableAttribute ? names->table : names->chain) = mnl_attr_get_str(attribute);
  return MNL_CB_OK;
}

}  // namespace

std::unique_ptr<NftWatch> NftWatch::open(Pell::TaskSchedulerRoot& loop, int netnsFd,
                                         std::uint32_t writer, Watched watched,
                                         std::function<void()> changed, std::string* error,
                                         const NftChannelWrap& wrap) {
  std::unique_ptr<NftSocket> socket = NftSocket::open(netnsFd, error, NFNLGRP_NFTABLES, wrap);
  if (!socket) return nullptr;
  return std::unique_ptr<NftWatch>(
      new NftWatch(loop, std::move(socket), writer, std::move(watched), std::move(changed)));
}

NftWatch::NftWatch(Pell::TaskSchedulerRoot& loop, std::unique_ptr<NftSocket> socket,
                   std::uint32_t writer, Watched watched, std::function<void()> changed)
    : socket_(std::move(socket)),
      writer_(writer),
      watched_(std::move(watched)),
      changed_(std::move(changed)),
      watch_(loop, socket_->fd(), [this] { readable(); }) {}

bool NftWatch::matters(const nlmsghdr* message) const {
  const auto* header = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message));
  if (header->nfgen_family != NFPROTO_IPV4) return false;
  Names names{0};
  switch (NFNL_MSG_TYPE(message->nlmsg_type)) {
    case NFT_MSG_NEWTABLE:
    case NFT_MSG_DELTABLE:
      break;
    case NFT_MSG_NEWCHAIN:
    case NFT_MSG_DELCHAIN:
      names.chainAttribute = NFTA_CHAIN_NAME;
      break;
    case NFT_MSG_NEWRULE:
    case NFT_MSG_DELRULE:
      names.chainAttribute = NFTA_RULE_CHAIN;
      break;
    default:
      return false;
  }
  mnl_attr_parse(message, sizeof(nfgenmsg), collect, &names);
  if (!names.table || std::strcmp(names.table, "filter") != 0) return false;
  if (names.chainAttribute == 0 || (names.chain && watched_(names.chain))) return true;
  // A rule elsewhere that jumps to one of the agent's chains: its going may
  // let a chain kept for it go too.
  const std::string_view bytes(static_cast<const char*>(mnl_nlmsg_get_payload(message)),
                               mnl_nlmsg_get_payload_len(message));
  return names.chainAttribute == NFTA_RULE_CHAIN &&
         bytes.find(kOwnedPrefix) != std::string_view::npos;
}

void NftWatch::readable() {
  bool foreign = false;
  const bool whole = socket_->drain([&](const nlmsghdr* message) {
    if (NFNL_SUBSYS_ID(message->nlmsg_type) != NFNL_SUBSYS_NFTABLES) return;
    if (NFNL_MSG_TYPE(message->nlmsg_type) == NFT_MSG_NEWGEN) {
      if (touched_ && message->nlmsg_pid != writer_) foreign = true;
      touched_ = false;
      return;
    }
    if (!touched_ && matters(message)) touched_ = true;
  });
  if (!whole) touched_ = false;
  if (foreign || !whole) changed_();
}

}  // namespace AclAgent
