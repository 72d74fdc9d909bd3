#include "lab/router/PathView.h"

namespace tessel::lab {

Ptr<Ike::PathConnState> PathView::entity() const {
  for (const auto& [address, peer] : status_->ipsecPeerConnectionState()) {
    if (const Ptr<Ike::PathConnState>& path = peer->pathConnState(key_)) {
      return path;
    }
  }
  return nullptr;
}

DynamicPathState PathView::state() const {
  const Ptr<Ike::PathConnState> path = entity();
  return path ? path->pathState() : DynamicPathState::none;
}

SmState PathView::saSmState() const {
  const Ptr<Ike::PathConnState> path = entity();
  return path ? path->saSmState() : SmState::idle;
}

DhKeyPair PathView::dhKeyPair() const {
  const Ptr<Ike::PathConnState> path = entity();
  return path ? path->curOutSaDhKeyPair() : DhKeyPair{};
}

std::vector<Ptr<Ike::SecurityAssociation>> PathView::sas() const {
  std::vector<Ptr<Ike::SecurityAssociation>> result;
  if (const Ptr<Ike::PathConnState> path = entity()) {
    for (const auto& [key, info] : path->pathConnSaInfo()) {
      if (info->sa()) {
        result.push_back(info->sa());
      }
    }
  }
  return result;
}

std::vector<Ptr<Ike::SecurityAssociation>> PathView::sas(SaType type) const {
  std::vector<Ptr<Ike::SecurityAssociation>> result = sas();
  std::erase_if(result, [type](const auto& sa) { return sa->saType() != type; });
  return result;
}

uint32_t PathView::onlySpi(SaType type) const {
  const std::vector<Ptr<Ike::SecurityAssociation>> found = sas(type);
  return found.size() == 1 ? found.front()->sakey().spi : 0;
}

}  // namespace tessel::lab
