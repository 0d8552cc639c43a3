#include "agent/backend/nft/NftWatch.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <unistd.h>

#include <cstring>

namespace AclAgent {
namespace {

// The table a notification is about: attribute 1 of a table, chain, rule or
// set message (NFTA_TABLE_NAME, NFTA_CHAIN_TABLE, NFTA_RULE_TABLE, ...).
constexpr std::uint16_t kTableAttribute = 1;

struct Found {
  std::uint16_t type;
  const nlattr* attribute = nullptr;
};

int find(const nlattr* attribute, void* data) {
  auto* found = static_cast<Found*>(data);
  if (mnl_attr_get_type(attribute) == found->type) found->attribute = attribute;
  return MNL_CB_OK;
}

const nlattr* attributeOf(const nlmsghdr* message, std::uint16_t type) {
  Found found{type};
  mnl_attr_parse(message, sizeof(nfgenmsg), find, &found);
  return found.attribute;
}

}  // namespace

std::unique_ptr<NftWatch> NftWatch::open(Pell::TaskSchedulerRoot& loop, int netnsFd,
                                         std::function<void()> changed, std::string* error,
                                         const NftChannelWrap& wrap) {
  std::unique_ptr<NftSocket> socket = NftSocket::open(netnsFd, error, NFNLGRP_NFTABLES, wrap);
  if (!socket) return nullptr;
  return std::unique_ptr<NftWatch>(new NftWatch(loop, std::move(socket), std::move(changed)));
}

NftWatch::NftWatch(Pell::TaskSchedulerRoot& loop, std::unique_ptr<NftSocket> socket,
                   std::function<void()> changed)
    : socket_(std::move(socket)),
      changed_(std::move(changed)),
      watch_(loop, socket_->fd(), [this] { readable(); }) {}

void NftWatch::readable() {
  static const std::uint32_t self = static_cast<std::uint32_t>(::getpid());
  bool foreign = false;
  const bool whole = socket_->drain([&](const nlmsghdr* message) {
    if (NFNL_SUBSYS_ID(message->nlmsg_type) != NFNL_SUBSYS_NFTABLES) return;
    const int type = NFNL_MSG_TYPE(message->nlmsg_type);
    if (type == NFT_MSG_NEWGEN) {
      const nlattr* pid = attributeOf(message, NFTA_GEN_PROC_PID);
      const bool ours = pid && ntohl(mnl_attr_get_u32(pid)) == self;
      if (touched_ && !ours) foreign = true;
      touched_ = false;
      return;
    }
    const auto* header = static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(message));
    if (header->nfgen_family != NFPROTO_IPV4) return;
    const nlattr* table = attributeOf(message, kTableAttribute);
    if (table && std::strcmp(mnl_attr_get_str(table), "filter") == 0) touched_ = true;
  });
  if (!whole) touched_ = false;
  if (foreign || !whole) changed_();
}

}  // namespace AclAgent
