#pragma once

#include "quillstone/simulate_signal/runtime/object.hpp"

#include <unordered_set>
#include <vector>

namespace quillstone::runtime {

/// Whether anybody holds the object besides one container and the caller.
inline bool is_shared(View object) noexcept {
    return Py_REFCNT(object.get()) > 2;
}

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
