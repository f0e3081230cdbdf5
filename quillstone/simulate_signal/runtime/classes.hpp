#pragma once

#include "quillstone/simulate_signal/runtime/function.hpp"

namespace quillstone::runtime {

/// The built-in classes that the module derives from or annotates with.
inline View object_type() noexcept {
    return {reinterpret_cast<PyObject*>(&PyBaseObject_Type)};
}
inline View str_type() noexcept {
    return {reinterpret_cast<PyObject*>(&PyUnicode_Type)};
}
inline View float_type() noexcept {
    return {reinterpret_cast<PyObject*>(&PyFloat_Type)};
}
inline View int_type() noexcept {
    return {reinterpret_cast<PyObject*>(&PyLong_Type)};
}

/// The namespace of a class body that starts with a docstring.
Object class_body(const char* doc);

/// Makes an ordinary Python class of the module: `class name(base): ...`. `attributes` is the namespace of its body.
Object make_class(Name name, View base, View attributes);

/// One field of a data class; without a factory of its own, a default is shared by all instances.
struct Field {
    Name name;
    View annotation;
    View default_value;
};

/// Makes a data class: `@dataclass class name: ...`, the methods standing in `attributes`.
Object make_data_class(Name name, std::span<const Field> fields, View attributes);

} // namespace quillstone::runtime
