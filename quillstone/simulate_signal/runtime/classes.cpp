#include "quillstone/simulate_signal/runtime/classes.hpp"

#include "quillstone/simulate_signal/runtime/namespace.hpp"

namespace quillstone::runtime {

Object class_body(const char* doc) {
    Object attributes = new_dict();
    set_item(attributes, "__doc__"_name, new_text(doc));
    return attributes;
}

Object make_class(Name name, View base, View attributes) {
    set_item(attributes, "__module__"_name, item(Namespace::dict(), "__name__"_name));
    set_item(attributes, "__qualname__"_name, name);
    return call(View(reinterpret_cast<PyObject*>(&PyType_Type)), name, tuple_of(base), attributes);
}

Object make_data_class(Name name, std::span<const Field> fields, View attributes) {
    const Object annotations = new_dict();
    for (const Field& field : fields) {
        set_item(annotations, field.name, field.annotation);
        set_item(attributes, field.name, field.default_value);
    }
    set_item(attributes, "__annotations__"_name, annotations);
    return call(global("dataclass"_name), make_class(name, object_type(), attributes));
}

} // namespace quillstone::runtime
