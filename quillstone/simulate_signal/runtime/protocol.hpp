#pragma once

#include "quillstone/simulate_signal/runtime/call.hpp"

#include <array>
#include <cstring>
#include <optional>
#include <span>

namespace quillstone::runtime {

// Values.

/// `bool(object)`
inline bool truth(View object, Here where = Here::current()) {
    if (object.is(Py_True)) {
        return true;
    }
    if (object.is(Py_False) || object.is_none()) {
        return false;
    }
    if (PyUnicode_CheckExact(object.get())) {
        return PyUnicode_GET_LENGTH(object.get()) != 0;
    }
    if (PyTuple_CheckExact(object.get()) || PyList_CheckExact(object.get())) {
        return Py_SIZE(object.get()) != 0;
    }
    return checked(enter([&] { return PyObject_IsTrue(object.get()); }), where) != 0;
}
namespace detail {

inline std::size_t units(View text) noexcept {
    return static_cast<std::size_t>(PyUnicode_GET_LENGTH(text.get()));
}
inline bool is_same_text(View left, View right) noexcept {
    // Equal texts are kept alike.
    const auto kind = PyUnicode_KIND(left.get());
    return left.is(right) ||
           (units(left) == units(right) && kind == PyUnicode_KIND(right.get()) &&
            std::memcmp(PyUnicode_DATA(left.get()), PyUnicode_DATA(right.get()), units(left) * kind) == 0);
}
bool compare(View left, View right, int operation, Here where);

} // namespace detail

/// `left == right`
inline bool equals(View left, View right, Here where = Here::current()) {
    // Most comparisons of the rules are of a text with a name.
    if (PyUnicode_CheckExact(right.get()) && (PyUnicode_CheckExact(left.get()) || left.is_none())) {
        return !left.is_none() && detail::is_same_text(left, right);
    }
    return detail::compare(left, right, Py_EQ, where);
}
/// `left != right`
bool differs(View left, View right, Here where = Here::current());
/// `left > right`
bool greater(View left, View right, Here where = Here::current());
bool greater(View left, long right, Here where = Here::current());
/// `isinstance(object, type)`
inline bool is_instance(View object, View type, Here where = Here::current()) {
    return reinterpret_cast<PyObject*>(Py_TYPE(object.get())) == type.get() ||
           checked(enter([&] { return PyObject_IsInstance(object.get(), type.get()); }), where) != 0;
}

namespace detail {
bool claims_to_be(View object, PyTypeObject& type, Here where);
} // namespace detail

inline bool is_dict(View object, Here where = Here::current()) {
    return PyDict_Check(object.get()) || detail::claims_to_be(object, PyDict_Type, where);
}
inline bool is_list(View object, Here where = Here::current()) {
    return PyList_Check(object.get()) || detail::claims_to_be(object, PyList_Type, where);
}
inline bool is_tuple(View object, Here where = Here::current()) {
    return PyTuple_Check(object.get()) || detail::claims_to_be(object, PyTuple_Type, where);
}
inline bool is_str(View object, Here where = Here::current()) {
    return PyUnicode_Check(object.get()) || detail::claims_to_be(object, PyUnicode_Type, where);
}
inline bool is_bool(View object, Here where = Here::current()) {
    return PyBool_Check(object.get()) || detail::claims_to_be(object, PyBool_Type, where);
}
inline bool is_int(View object, Here where = Here::current()) {
    return PyLong_Check(object.get()) || detail::claims_to_be(object, PyLong_Type, where);
}
inline bool is_bytes(View object, Here where = Here::current()) {
    return PyBytes_Check(object.get()) || detail::claims_to_be(object, PyBytes_Type, where);
}
/// Whether an object is a text, a number, a truth value or None, of exactly that type.
inline bool is_plain_scalar(View object) noexcept {
    PyObject* plain = object.get();
    return PyUnicode_CheckExact(plain) || PyFloat_CheckExact(plain) || PyLong_CheckExact(plain) || object.is_none() ||
           PyBool_Check(plain);
}
inline bool is_callable(View object) noexcept {
    return PyCallable_Check(object.get()) != 0;
}
/// A dictionary or anything else that is registered as a mapping.
bool is_mapping(View object, Here where = Here::current());

/// `str(object)`
inline Object text(View object, Here where = Here::current()) {
    if (PyUnicode_CheckExact(object.get())) {
        return object;
    }
    return owned(enter([&] { return PyObject_Str(object.get()); }), where);
}
/// `repr(object)`
inline Object repr(View object, Here where = Here::current()) {
    return owned(enter([&] { return PyObject_Repr(object.get()); }), where);
}
/// `left + right`
inline Object add(View left, View right, Here where = Here::current()) {
    return owned(enter([&] { return PyNumber_Add(left.get(), right.get()); }), where);
}
/// `left - right` and `left / right`
inline Object subtract(View left, View right, Here where = Here::current()) {
    return owned(enter([&] { return PyNumber_Subtract(left.get(), right.get()); }), where);
}
inline Object divide(View left, View right, Here where = Here::current()) {
    return owned(enter([&] { return PyNumber_TrueDivide(left.get(), right.get()); }), where);
}
inline View type_of(View object) noexcept {
    return {reinterpret_cast<PyObject*>(Py_TYPE(object.get()))};
}
/// A new `str` of a text in the sources that is too long for a name.
inline Object new_text(const char* source_text, Here where = Here::current()) {
    return owned(PyUnicode_FromString(source_text), where);
}
/// `chr(code_point)`
inline Object character(int code_point, Here where = Here::current()) {
    return owned(PyUnicode_FromOrdinal(code_point), where);
}
/// `time.monotonic()`, through the module's `time`
Object monotonic(Here where = Here::current());
inline Object number(double value, Here where = Here::current()) {
    return owned(PyFloat_FromDouble(value), where);
}
inline Object number(long value, Here where = Here::current()) {
    return owned(PyLong_FromLong(value), where);
}
/// `int(object)` and `float(object)`
Object to_int(View object, Here where = Here::current());
Object to_float(View object, Here where = Here::current());
inline double as_double(View object, Here where = Here::current()) {
    const double value = enter([&] { return PyFloat_AsDouble(object.get()); });
    if (value == -1.0 && PyErr_Occurred() != nullptr) {
        raise_current(where);
    }
    return value;
}
/// Which of two `str` stands first, by code points: negative, zero or positive.
int compare_texts(View left, View right) noexcept;
bool starts_with(View text, View beginning, Here where = Here::current());
bool ends_with(View text, View ending, Here where = Here::current());
/// `separator.join(str(item) for item in items)`
Object join(View separator, View items, Here where = Here::current());

// Containers.

inline Object new_dict(Here where = Here::current()) {
    return owned(PyDict_New(), where);
}
inline Object new_list(Here where = Here::current()) {
    return owned(PyList_New(0), where);
}
/// `dict(mapping)`, `list(iterable)`, `set(iterable)`
Object to_dict(View mapping, Here where = Here::current());
inline Object to_list(View iterable, Here where = Here::current()) {
    return owned(enter([&] { return PySequence_List(iterable.get()); }), where);
}
inline Object to_set(View iterable, Here where = Here::current()) {
    return owned(enter([&] { return PySet_New(iterable.get()); }), where);
}
inline void add_to_set(View set, View item, Here where = Here::current()) {
    checked(enter([&] { return PySet_Add(set.get(), item.get()); }), where);
}
inline void append(View list, View item, Here where = Here::current()) {
    checked(PyList_Append(list.get(), item.get()), where);
}
/// `key in container`
inline bool contains(View container, View key, Here where = Here::current()) {
    if (PyDict_CheckExact(container.get())) {
        return checked(enter([&] { return PyDict_Contains(container.get(), key.get()); }), where) != 0;
    }
    return checked(enter([&] { return PySequence_Contains(container.get(), key.get()); }), where) != 0;
}
/// `container[key]`
inline Object item(View container, View key, Here where = Here::current()) {
    return owned(enter([&] { return PyObject_GetItem(container.get(), key.get()); }), where);
}
/// `container[index]`
inline Object item_at(View container, Py_ssize_t index, Here where = Here::current()) {
    return owned(enter([&] { return PySequence_GetItem(container.get(), index); }), where);
}
/// `container[key] = value`
inline void set_item(View container, View key, View value, Here where = Here::current()) {
    checked(enter([&] {
                return PyDict_CheckExact(container.get()) ? PyDict_SetItem(container.get(), key.get(), value.get())
                                                          : PyObject_SetItem(container.get(), key.get(), value.get());
            }),
            where);
}
inline Py_ssize_t length(View container, Here where = Here::current()) {
    const Py_ssize_t size = enter([&] { return PyObject_Size(container.get()); });
    if (size < 0) {
        raise_current(where);
    }
    return size;
}
/// `mapping.get(key)`; any object with a `get` will do.
inline Object get(View mapping, View key, Here where = Here::current()) {
    return PyDict_CheckExact(mapping.get()) ? detail::value_in(mapping, key, none(), where)
                                            : method(Target(mapping, where), "get"_name, key);
}
/// `mapping.get(key, fallback)`
inline Object get(View mapping, View key, View fallback, Here where = Here::current()) {
    return PyDict_CheckExact(mapping.get()) ? detail::value_in(mapping, key, fallback, where)
                                            : method(Target(mapping, where), "get"_name, key, fallback);
}
/// A new dictionary with the same entries, made at once, of an exact dictionary in which every key is exactly a `str`;
/// empty for any other object.
Object copy_text_keyed(View object, Here where = Here::current());
/// A new list of the same items, made at once, of an exact list or tuple; empty for any other object.
Object copy_array(View object, Here where = Here::current());
/// `list[index] = value`, for a list of our own
inline void set_item_at(View list, Py_ssize_t index, View value, Here where = Here::current()) {
    checked(enter([&] { return PyList_SetItem(list.get(), index, Py_NewRef(value.get())); }), where);
}
/// `dict.setdefault(key, value)`, for a dictionary of our own
void set_default(View dict, View key, View value, Here where = Here::current());

namespace detail {
void unpack_into(View iterable, std::span<Object> items, Here where);
} // namespace detail

/// `a, b = iterable`
template <std::size_t Count>
std::array<Object, Count> unpack(View iterable, Here where = Here::current()) {
    std::array<Object, Count> items;
    detail::unpack_into(iterable, items, where);
    return items;
}

/// One pass over any iterable: `for (Object item : each(iterable))`. Exact lists and tuples are read by index, which
/// is what their own iterators do.
class Each {
  public:
    Each(View iterable, Here where);

    struct End {};
    class Cursor {
      public:
        explicit Cursor(Each& owner) : owner_(owner), current_(owner.next()) {}
        Object operator*() { return std::move(current_); }
        Cursor& operator++() {
            current_ = owner_.next();
            return *this;
        }
        bool operator!=(End) const noexcept { return current_.exists(); }

      private:
        Each& owner_;
        Object current_;
    };
    Cursor begin() { return Cursor(*this); }
    static End end() { return {}; }

    /// The next item; empty at the end.
    Object next() {
        if (kind_ == Kind::iterator) {
            return next_of_iterator();
        }
        // A list may have changed since the last step.
        if (index_ >= Py_SIZE(source_.get())) {
            return {};
        }
        PyObject* const* items = PySequence_Fast_ITEMS(source_.get());
        // The items of a long array lie far apart in memory: the processor is told early of those to come.
        constexpr Py_ssize_t ahead = 8;
        if (index_ + ahead < Py_SIZE(source_.get())) {
            __builtin_prefetch(items[index_ + ahead], 1);
        }
        return View(items[index_++]);
    }
    /// What is being walked, or its iterator.
    [[nodiscard]] View source() const noexcept { return source_; }

  private:
    Object next_of_iterator();

    Object source_;
    Py_ssize_t index_ = 0;
    enum class Kind { array, iterator };
    Kind kind_ = Kind::iterator;
    Here where_;
};
inline Each each(View iterable, Here where = Here::current()) {
    return {iterable, where};
}

/// `for key, value in mapping.items()`
class Items {
  public:
    Items(View mapping, Here where);

    /// Reads the next pair; false at the end.
    bool next(Object& key, Object& value);

  private:
    bool next_of_dict(Object& key, Object& value);

    std::optional<Each> items_; // of anything but an exact dictionary, which is read in place
    Object dict_;
    Py_ssize_t position_ = 0;
    Py_ssize_t size_ = 0;
    Py_ssize_t left_ = 0;
    Here where_;
};
inline Items items(View mapping, Here where = Here::current()) {
    return {mapping, where};
}

// Modules and scopes.

/// `import name`, for a module of the standard library
inline Object import_top_level(Name name, Here where = Here::current()) {
    return owned(enter([&] { return PyImport_Import(name.get()); }), where);
}
/// `importlib.import_module(name)`, through the module's `importlib`
Object import_module(View name, Here where = Here::current());
/// `from module import name`
Object import_from(Name module, Name name, Here where = Here::current());
/// `sys.modules.get(name)`, through the module's `sys`
Object loaded_module(View name, Here where = Here::current());

/// Makes what `breathe` needs; once, at load.
void prepare_breathing();
/// To be called every few thousand steps of a long native loop: handles signals and lets waiting threads run.
void breathe(Here where = Here::current());

/// A running count of the steps of a native loop that may be long.
class Steps {
  public:
    void step(Here where = Here::current()) {
        if ((++count_ & 0xFFFU) == 0) [[unlikely]] {
            breathe(where);
        }
    }

  private:
    unsigned count_ = 0;
};

/// Raises `RecursionError` when that many levels are more than Python's own functions could call each other.
void check_depth(std::ptrdiff_t depth, Here where = Here::current());

/// One level of a recursive rule.
class RecursionLevel {
  public:
    explicit RecursionLevel(int& depth, Here where = Here::current()) : depth_(depth) {
        constexpr int surely_allowed = 100;
        if (depth >= surely_allowed) [[unlikely]] {
            check_depth(depth + 1, where);
        }
        ++depth;
    }
    RecursionLevel(const RecursionLevel&) = delete;
    RecursionLevel& operator=(const RecursionLevel&) = delete;
    RecursionLevel(RecursionLevel&&) = delete;
    RecursionLevel& operator=(RecursionLevel&&) = delete;
    ~RecursionLevel() { --depth_; }

  private:
    int& depth_;
};

/// How deep the thread is in calls of this module's functions and generators. Rebound to each other they could recurse
/// without end, and the interpreter's own count for C code allows more of them than fit on the stack.
inline thread_local constinit int calls_under_way = 0;

/// Calls a context manager's `__exit__`; true when it swallows the error. A lock is let go also when memory is too
/// short for that call.
bool leave_context(View manager, View exit, View error, Here where);

/// `with manager:`
template <class Body>
void with(View manager, Body&& body, Here where = Here::current()) {
    const Object exit = attr(manager, "__exit__"_name, where);
    method(Target(manager, where), "__enter__"_name);
    try {
        body();
    } catch (Raised& raised) {
        const Handling handling(raised.error);
        if (!leave_context(manager, exit, raised.error, where)) {
            throw;
        }
        return;
    }
    leave_context(manager, exit, none(), where);
}

/// Gives an attribute another value for the length of `body`; an object without the attribute is left alone.
/// `replacement` makes the value from the previous one.
template <class Replacement, class Body>
void with_replaced(View object, Name attribute, Replacement&& replacement, Body&& body) {
    const Object previous = attr_or(object, attribute, View());
    if (!previous.exists()) {
        body();
        return;
    }
    const Object value = replacement(previous);
    finally(
        [&] {
            set_attr(object, attribute, value);
            body();
        },
        [&] { set_attr(object, attribute, previous); });
}

} // namespace quillstone::runtime
