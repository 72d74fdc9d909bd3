// DataPlaneWatch: observers of the data planes of a run's routers.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "lab/run/LabObserver.h"

namespace tessel::lab {

/// Watches the data plane of a router for as long as it lives: from one start of the router to the
/// next stop at most.
class DataPlaneWatch : public DataPlaneObserver {
 public:
  explicit DataPlaneWatch(Router& router) : router_(router) {
    router_.dataPlane().observerAdd(*this);
  }
  DataPlaneWatch(const DataPlaneWatch&) = delete;
  DataPlaneWatch& operator=(const DataPlaneWatch&) = delete;
  ~DataPlaneWatch() override { router_.dataPlane().observerDel(*this); }

  Router& router() const { return router_; }

 private:
  Router& router_;
};

/// Runs one watch per agent, from its start to its stop.
class PerAgentObserver : public LabObserver {
 public:
  void handleRouterUp(Router& router) override { watches_[router.name()] = watch(router); }
  void handleRouterDown(Router& router) override { watches_.erase(router.name()); }
  void handleEnd() override { watches_.clear(); }

 protected:
  virtual std::unique_ptr<DataPlaneWatch> watch(Router& router) = 0;

 private:
  std::map<std::string, std::unique_ptr<DataPlaneWatch>> watches_;
};

}  // namespace tessel::lab
