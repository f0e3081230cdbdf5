#include "quillstone/simulate_signal/runtime/protocol.hpp"

namespace quillstone::runtime {

namespace {

/// `module.qualified_name()`, as the interpreter names a function in its messages.
Object function_text(View function) {
    const Object name = attr_or(function, "__qualname__"_name, View());
    if (!name.exists()) {
        return text(function);
    }
    const Object module = attr_or(function, "__module__"_name, none());
    if (module.is_none() || equals(module, "builtins"_name)) {
        return format("{}()", name);
    }
    return format("{}.{}()", module, name);
}

} // namespace

Object call_with_keywords(Target target, View keywords) {
    const Object arguments = tuple_of();
    Object own = new_dict(target.where);
    if (enter([&] { return PyDict_Update(own.get(), keywords.get()); }) < 0) {
        if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) {
            raise_current(target.where);
        }
        enter([] { PyErr_Clear(); });
        const Object type_name = owned(PyUnicode_FromString(Py_TYPE(keywords.get())->tp_name), target.where);
        raise_with_message(
            TypeError::type(),
            format("{} argument after ** must be a mapping, not {}", function_text(target.object), type_name),
            target.where);
    }
    return owned(enter([&] { return PyObject_Call(target.object.get(), arguments.get(), own.get()); }), target.where);
}

} // namespace quillstone::runtime
