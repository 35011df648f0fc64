// The model of the service's id/type map: the types that the requests of an id carried, oldest first.
#pragma once

#include <deque>
#include <map>

#include "model/events.h"

namespace model {

class id_types {
  public:
    void save(u32 id, u16 type) { types_[id].push_back(type); }

    // 0 for an id that has none.
    u16 take(u32 id) {
        const auto found = types_.find(id);
        if (found == types_.end()) {
            return 0;
        }
        const u16 type = found->second.front();
        found->second.pop_front();
        if (found->second.empty()) {
            types_.erase(found);
        }
        return type;
    }

    void clear() { types_.clear(); }

  private:
    std::map<u32, std::deque<u16>> types_;
};

}  // namespace model
