#include "quillstone/simulate_signal/runtime/attributes.hpp"

namespace quillstone::runtime {

Object attr_or(View object, View name, View fallback, Here where) {
    PyObject* value = nullptr;
    checked(enter([&] { return PyObject_GetOptionalAttr(object.get(), name.get(), &value); }), where);
    return value != nullptr ? Object::steal(value) : Object(fallback);
}

namespace detail {

namespace {

/// What a class has under a name, itself or through its bases; empty when it has nothing.
Object class_attribute(PyTypeObject* type, Name name, Here where) {
    const Object bases = View(type->tp_mro);
    for (Py_ssize_t index = 0; index < PyTuple_GET_SIZE(bases.get()); ++index) {
        auto* base = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(bases.get(), index));
        const Object dict = owned(PyType_GetDict(base), where);
        if (Object found = value_in(dict, name, View(), where); found.exists()) {
            return found;
        }
    }
    return {};
}

} // namespace

Object attr_of_module(View module, Name name, Here where) {
    // Only names with underscores in front are taken by the module type before its instances are asked.
    if (PyUnicode_READ_CHAR(name.get(), 0) == '_') {
        return {};
    }
    return value_in(PyModule_GetDict(module.get()), name, View(), where);
}

/// Remembers in which slot a class keeps the attribute; false when it keeps it in none.
bool find_slot(PyTypeObject* type, Name name, Here where) {
    constexpr unsigned most_searches = 100; // a name that many classes share would be searched for over and over
    InternedName::Slot& slot = name.slot();
    if (slot.searches == most_searches || type->tp_getattro != PyObject_GenericGetAttr ||
        PyUnstable_Type_AssignVersionTag(type) == 0) {
        return false;
    }
    ++slot.searches;
    const unsigned version = type->tp_version_tag; // of the class as it is before the search
    const Object found = class_attribute(type, name, where);
    if (!found.exists() || !Py_IS_TYPE(found.get(), &PyMemberDescr_Type)) {
        return false;
    }
    const PyMemberDef& member = *reinterpret_cast<PyMemberDescrObject*>(found.get())->d_member;
    if (member.type != Py_T_OBJECT_EX || member.flags != 0 || PyType_IsSubtype(type, PyDescr_TYPE(found.get())) == 0) {
        return false;
    }
    slot.type = type;
    slot.version = version;
    slot.offset = member.offset;
    return type->tp_version_tag == version;
}

} // namespace detail

} // namespace quillstone::runtime
