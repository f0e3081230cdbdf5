#include "quillstone/simulate_signal/runtime/namespace.hpp"

#include "quillstone/simulate_signal/runtime/protocol.hpp"

namespace quillstone::runtime {

void Namespace::bind(View dict) noexcept {
    // Never released: threads may still run in the module when the interpreter takes it down.
    Py_XINCREF(dict.get());
    dict_ = dict.get();
}

Object global(Name name, Here where) {
    PyObject* value = nullptr;
    checked(enter([&] { return PyDict_GetItemRef(Namespace::dict().get(), name.get(), &value); }), where);
    if (value == nullptr) [[unlikely]] {
        raise_with_message(NameError::type(), format("name {} is not defined", repr(name, where)), where);
    }
    return Object::steal(value);
}

void set_global(Name name, View value, Here where) {
    checked(enter([&] { return PyDict_SetItem(Namespace::dict().get(), name.get(), value.get()); }), where);
}

} // namespace quillstone::runtime
