#include "quillstone/simulate_signal/runtime/names.hpp"

namespace quillstone::runtime {

InternedName::InternedName(const char* text) noexcept : text_(text) {
    next_ = std::exchange(first_, this);
}

bool InternedName::intern_all() noexcept {
    for (InternedName* name = first_; name != nullptr; name = name->next_) {
        if (name->object_ == nullptr) {
            name->object_ = PyUnicode_InternFromString(name->text_);
        }
        if (name->object_ == nullptr) {
            return false;
        }
    }
    return true;
}

} // namespace quillstone::runtime
