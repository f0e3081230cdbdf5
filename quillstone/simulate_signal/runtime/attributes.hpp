#pragma once

#include "quillstone/simulate_signal/runtime/errors.hpp"

namespace quillstone::runtime {

namespace detail {

/// The value under a key of an exact dictionary; an empty fallback gives an empty object.
inline Object value_in(View dict, View key, View fallback, Here where) {
    PyObject* value = nullptr;
    checked(enter([&] { return PyDict_GetItemRef(dict.get(), key.get(), &value); }), where);
    return value != nullptr ? Object::steal(value) : Object(fallback);
}

Object attr_of_module(View module, Name name, Here where);
bool find_slot(PyTypeObject* type, Name name, Here where);

/// The attribute where it can be read without asking the object, as the interpreter's own code does: in a slot of an
/// instance, or in the dictionary of a module. Empty when the object has to be asked.
inline Object attr_at_hand(View object, Name name, Here where) {
    PyTypeObject* type = Py_TYPE(object.get());
    const InternedName::Slot& slot = name.slot();
    if (type != slot.type || type->tp_version_tag != slot.version) {
        if (type == &PyModule_Type) {
            return attr_of_module(object, name, where);
        }
        const bool has_slots = PyType_HasFeature(type, Py_TPFLAGS_HEAPTYPE) != 0 &&
                               reinterpret_cast<PyHeapTypeObject*>(type)->ht_slots != nullptr;
        if (!has_slots || !find_slot(type, name, where)) {
            return {};
        }
    }
    return View(*reinterpret_cast<PyObject* const*>(reinterpret_cast<const std::byte*>(object.get()) + slot.offset));
}

} // namespace detail

/// `object.name`
inline Object attr(View object, Name name, Here where = Here::current()) {
    if (Object value = detail::attr_at_hand(object, name, where); value.exists()) {
        return value;
    }
    return owned(enter([&] { return PyObject_GetAttr(object.get(), name.get()); }), where);
}
/// `getattr(object, name, fallback)`; an empty fallback gives an empty object.
Object attr_or(View object, View name, View fallback, Here where = Here::current());
inline Object attr_or(View object, Name name, View fallback, Here where = Here::current()) {
    Object value = detail::attr_at_hand(object, name, where);
    return value.exists() ? std::move(value) : attr_or(object, View(name), fallback, where);
}
/// `object.name = value`
inline void set_attr(View object, View name, View value, Here where = Here::current()) {
    checked(enter([&] { return PyObject_SetAttr(object.get(), name.get(), value.get()); }), where);
}
inline void set_attr(View object, View name, bool value, Here where = Here::current()) {
    set_attr(object, name, boolean(value), where);
}

} // namespace quillstone::runtime
