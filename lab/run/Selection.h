// Selection: what the names in actions and facts stand for.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "lab/run/Lab.h"

namespace tessel::lab {

/// The router of that name; all of them for an empty one. Throws std::invalid_argument for a name
/// that the run does not have.
inline std::vector<Router*> selectRouters(const Lab& lab, const std::string& name) {
  if (!name.empty()) {
    return {&lab.router(name)};
  }
  std::vector<Router*> all;
  for (const std::unique_ptr<Router>& router : lab.routers()) {
    all.push_back(router.get());
  }
  return all;
}

struct SelectedEnd {
  Router& router;
  RouterPath& path;
};

/// The ends that the routers have of the path of that name; of all paths for an empty one.
inline std::vector<SelectedEnd> selectEnds(std::span<Router* const> routers,
                                           const std::string& pathName) {
  std::vector<SelectedEnd> ends;
  for (Router* const router : routers) {
    for (const std::unique_ptr<RouterPath>& path : router->paths()) {
      if (pathName.empty() || path->end.name == pathName) {
        ends.push_back({*router, *path});
      }
    }
  }
  return ends;
}

}  // namespace tessel::lab
