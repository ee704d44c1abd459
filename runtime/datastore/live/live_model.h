// From one scan to a model the data store serves: every object keeps the id
// it was first given for as long as an object of its type and nexus is
// there, so the plug-in's rows and the ids it holds stay right across
// rescans; a component of a table whose rows are kept (controllers,
// channels, enclosures and their components, tape drives, NVMe adapters)
// that goes away stays as a "missing" object instead of leaving a hole.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_LIVE_MODEL_H
#define KELP_RUNTIME_DATASTORE_LIVE_LIVE_MODEL_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "datastore/live/scan.h"
#include "datastore/model.h"

namespace kelp::live {

class LiveModelMaker {
  public:
    // The model data of `scan`, with `previous` (the model data this maker
    // made last, or null) for the objects to keep. `origin` names it in
    // messages.
    ds::ModelData make(const LiveScan &scan, const ds::ModelData *previous,
                       const std::string &origin);

  private:
    uint32_t idFor(const std::string &type, const std::string &nexus);

    std::map<std::pair<std::string, std::string>, uint32_t> ids_; // (type, nexus) -> id
    uint32_t nextId_ = 1;
};

// Whether objects of `type` stay (as missing) when they go away.
bool keptWhenGone(std::string_view type);

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_LIVE_MODEL_H
