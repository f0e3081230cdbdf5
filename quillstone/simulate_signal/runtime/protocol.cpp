#include "quillstone/simulate_signal/runtime/protocol.hpp"

#include "quillstone/simulate_signal/runtime/namespace.hpp"

#include <algorithm>

namespace quillstone::runtime {

namespace {

PyObject* pause = nullptr; // a Python function that does nothing

Object from(PyTypeObject& type, View argument, Here where) {
    return call(Target(View(reinterpret_cast<PyObject*>(&type)), where), argument);
}

} // namespace

namespace detail {

bool compare(View left, View right, int operation, Here where) {
    const Object result = owned(enter([&] { return PyObject_RichCompare(left.get(), right.get(), operation); }), where);
    return truth(result, where);
}

/// Whether an object that is of another type claims through `__class__` to be of a built-in one; those that data is
/// mostly made of do not.
bool claims_to_be(View object, PyTypeObject& type, Here where) {
    PyObject* plain = object.get();
    const bool never_claims =
        is_plain_scalar(object) || PyDict_CheckExact(plain) || PyList_CheckExact(plain) || PyTuple_CheckExact(plain);
    return !never_claims && is_instance(object, reinterpret_cast<PyObject*>(&type), where);
}

} // namespace detail

int compare_texts(View left, View right) noexcept {
    if (PyUnicode_KIND(left.get()) != PyUnicode_1BYTE_KIND || PyUnicode_KIND(right.get()) != PyUnicode_1BYTE_KIND) {
        return PyUnicode_Compare(left.get(), right.get());
    }
    const int order = std::memcmp(PyUnicode_1BYTE_DATA(left.get()), PyUnicode_1BYTE_DATA(right.get()),
                                  std::min(detail::units(left), detail::units(right)));
    return order != 0 ? order
                      : (detail::units(left) > detail::units(right)) - (detail::units(left) < detail::units(right));
}

bool differs(View left, View right, Here where) {
    return detail::compare(left, right, Py_NE, where);
}
bool greater(View left, View right, Here where) {
    return detail::compare(left, right, Py_GT, where);
}
bool greater(View left, long right, Here where) {
    if (PyLong_CheckExact(left.get())) {
        int beyond = 0;
        const long value = PyLong_AsLongAndOverflow(left.get(), &beyond);
        return beyond > 0 || (beyond == 0 && value > right);
    }
    return greater(left, number(right, where), where);
}

bool is_mapping(View object, Here where) {
    return is_dict(object, where) ||
           is_instance(object, import_from("collections.abc"_name, "Mapping"_name, where), where);
}

Object to_int(View object, Here where) {
    if (PyLong_CheckExact(object.get())) {
        return object;
    }
    if (PyUnicode_CheckExact(object.get())) {
        return owned(PyLong_FromUnicodeObject(object.get(), 10), where);
    }
    return from(PyLong_Type, object, where);
}
Object to_float(View object, Here where) {
    if (PyFloat_CheckExact(object.get())) {
        return object;
    }
    return owned(enter([&] { return PyNumber_Float(object.get()); }), where);
}
bool starts_with(View text, View beginning, Here where) {
    const Py_ssize_t found = PyUnicode_Tailmatch(text.get(), beginning.get(), 0, PY_SSIZE_T_MAX, -1);
    return checked(static_cast<int>(found), where) != 0;
}
bool ends_with(View text, View ending, Here where) {
    const Py_ssize_t found = PyUnicode_Tailmatch(text.get(), ending.get(), 0, PY_SSIZE_T_MAX, 1);
    return checked(static_cast<int>(found), where) != 0;
}
Object join(View separator, View items, Here where) {
    const Object pieces = new_list(where);
    for (const Object piece : each(items, where)) {
        append(pieces, text(piece, where), where);
    }
    return owned(PyUnicode_Join(separator.get(), pieces.get()), where);
}

Object to_dict(View mapping, Here where) {
    return from(PyDict_Type, mapping, where);
}

Object copy_text_keyed(View object, Here where) {
    if (!PyDict_CheckExact(object.get())) {
        return {};
    }
    PyObject* key = nullptr;
    for (Py_ssize_t position = 0; PyDict_Next(object.get(), &position, &key, nullptr) != 0;) {
        if (!PyUnicode_CheckExact(key)) {
            return {};
        }
    }
    return owned(PyDict_Copy(object.get()), where);
}

Object copy_array(View object, Here where) {
    const bool is_array = PyList_CheckExact(object.get()) || PyTuple_CheckExact(object.get());
    return is_array ? to_list(object, where) : Object();
}

void set_default(View dict, View key, View value, Here where) {
    checked(enter([&] { return PyDict_SetDefaultRef(dict.get(), key.get(), value.get(), nullptr); }), where);
}

namespace detail {

void unpack_into(View iterable, std::span<Object> items, Here where) {
    if (PyTuple_CheckExact(iterable.get()) && PyTuple_GET_SIZE(iterable.get()) == std::ssize(items)) {
        Py_ssize_t index = 0;
        for (Object& place : items) {
            place = View(PyTuple_GET_ITEM(iterable.get(), index++));
        }
        return;
    }
    if (Py_TYPE(iterable.get())->tp_iter == nullptr && PySequence_Check(iterable.get()) == 0) {
        raise_with_message(TypeError::type(),
                           format("cannot unpack non-iterable {} object",
                                  owned(PyUnicode_FromString(Py_TYPE(iterable.get())->tp_name), where)),
                           where);
    }
    Each source = each(iterable, where);
    std::size_t found = 0;
    for (Object& place : items) {
        place = source.next();
        if (!place.exists()) {
            raise_with_message(ValueError::type(),
                               format("not enough values to unpack (expected {}, got {})",
                                      number(static_cast<long>(items.size())), number(static_cast<long>(found))),
                               where);
        }
        ++found;
    }
    if (source.next().exists()) {
        raise_with_message(ValueError::type(),
                           format("too many values to unpack (expected {})", number(static_cast<long>(items.size()))),
                           where);
    }
}

} // namespace detail

Each::Each(View iterable, Here where) : source_(iterable), where_(where) {
    if (PyList_CheckExact(iterable.get()) || PyTuple_CheckExact(iterable.get())) {
        kind_ = Kind::array;
    } else {
        source_ = owned(enter([&] { return PyObject_GetIter(iterable.get()); }), where);
    }
}

Object Each::next_of_iterator() {
    PyObject* item = enter([this] { return PyIter_Next(source_.get()); });
    if (item == nullptr && PyErr_Occurred() != nullptr) {
        raise_current(where_);
    }
    return Object::steal(item);
}

Items::Items(View mapping, Here where) : where_(where) {
    if (PyDict_CheckExact(mapping.get())) {
        dict_ = mapping;
        size_ = PyDict_GET_SIZE(mapping.get());
        left_ = size_;
    } else {
        items_.emplace(method(Target(mapping, where), "items"_name), where);
    }
}

bool Items::next_of_dict(Object& key, Object& value) {
    // With the errors of the dictionary's own iterator.
    if (PyDict_GET_SIZE(dict_.get()) != size_) {
        size_ = -1;
        raise_with_message(RuntimeError::type(), format("dictionary changed size during iteration"), where_);
    }
    PyObject* next_key = nullptr;
    PyObject* next_value = nullptr;
    if (left_ == 0 || PyDict_Next(dict_.get(), &position_, &next_key, &next_value) == 0) {
        if (left_ != 0) {
            raise_with_message(RuntimeError::type(), format("dictionary keys changed during iteration"), where_);
        }
        return false;
    }
    --left_;
    // What the caller held before goes last: its release may change the dictionary.
    Object found_key = View(next_key);
    Object found_value = View(next_value);
    key = std::move(found_key);
    value = std::move(found_value);
    return true;
}

bool Items::next(Object& key, Object& value) {
    if (!items_) {
        return next_of_dict(key, value);
    }
    const Object pair = items_->next();
    if (!pair.exists()) {
        return false;
    }
    auto [first, second] = unpack<2>(pair, where_);
    key = std::move(first);
    value = std::move(second);
    return true;
}

Object monotonic(Here where) {
    return method(Target(global("time"_name, where), where), "monotonic"_name);
}

Object import_module(View name, Here where) {
    return method(Target(global("importlib"_name, where), where), "import_module"_name, name);
}

Object import_from(Name module, Name name, Here where) {
    const Object wanted = tuple_of(name);
    const Object found = owned(enter([&] {
                                   return PyImport_ImportModuleLevelObject(module.get(), Namespace::dict().get(),
                                                                           nullptr, wanted.get(), 0);
                               }),
                               where);
    if (Object value = attr_or(found, name, View(), where); value.exists()) {
        return value;
    }
    // A submodule need not be an attribute of its package.
    if (Object submodule = loaded_module(format("{}.{}", module, name), where); !submodule.is_none()) {
        return submodule;
    }
    const Object file = attr_or(found, "__file__"_name, none(), where);
    const bool has_file = PyUnicode_Check(file.get()) != 0;
    const Object message = format("cannot import name {} from {} ({})", repr(name), repr(module),
                                  has_file ? View(file) : View("unknown location"_name));
    enter([&] { PyErr_SetImportError(message.get(), module.get(), has_file ? file.get() : nullptr); });
    raise_current(where);
}

Object loaded_module(View name, Here where) {
    return get(attr(global("sys"_name, where), "modules"_name, where), name, where);
}

void check_depth(std::ptrdiff_t depth, Here where) {
    if (depth > Py_GetRecursionLimit()) {
        raise_with_message(RecursionError::type(), format("maximum recursion depth exceeded"), where);
    }
}

namespace {

/// Lets a lock go; false when it is no lock or was let go already.
bool let_go(View lock, Here where) {
    try {
        method(Target(lock, where), "release"_name);
        return true;
    } catch (Raised&) {
        return false;
    }
}

} // namespace

bool leave_context(View manager, View exit, View error, Here where) {
    try {
        if (error.is_none()) {
            return truth(call(Target(exit, where), none(), none(), none()), where);
        }
        const Object traceback = attr_or(error, "__traceback__"_name, none(), where);
        return truth(call(Target(exit, where), type_of(error), error, traceback), where);
    } catch (Raised& raised) {
        const Caught<MemoryError> no_memory(raised);
        let_go(manager, where);
        throw;
    }
}

void prepare_breathing() {
    if (pause == nullptr) {
        const Object scope = new_dict();
        pause = owned(enter([&] { return PyRun_String("lambda: None", Py_eval_input, scope.get(), scope.get()); }),
                      Here::current())
                    .release();
    }
}

void breathe(Here where) {
    // Entering a Python function is where the interpreter looks for signals and for threads that wait their turn.
    call(Target(View(pause), where));
}

} // namespace quillstone::runtime
