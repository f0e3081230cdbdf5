#pragma once

#include "quillstone/simulate_signal/runtime/object.hpp"

#include <unordered_set>
#include <vector>

namespace quillstone::runtime {

/// The objects that a walk has been through, by identity. They are kept alive, so that none of them can be taken for
/// a new object at the same address.
class Visited {
  public:
    /// False when the object was there already.
    bool add(const Object& object) {
        if (!addresses_.insert(object.get()).second) {
            return false;
        }
        objects_.push_back(object);
        return true;
    }

  private:
    std::unordered_set<PyObject*> addresses_;
    std::vector<Object> objects_;
};

} // namespace quillstone::runtime
