#pragma once

#include "quillstone/simulate_signal/runtime/attributes.hpp"

#include <concepts>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

namespace quillstone::runtime {

/// One keyword argument: `"name"_kw = value`. It keeps a value that nobody else holds.
template <FixedText Text, class Value>
struct Keyword {
    Value value;
    static PyObject* name() noexcept { return interned_name<Text>.object(); }
};

template <FixedText Text>
struct KeywordName {
    constexpr Keyword<Text, View> operator=(View value) const noexcept { return {value}; }
    Keyword<Text, View> operator=(const Object& value) const noexcept { return {value}; }
    Keyword<Text, Object> operator=(Object&& value) const noexcept { return {std::move(value)}; }
    Keyword<Text, View> operator=(bool value) const noexcept { return {boolean(value)}; }
};

inline namespace literals {
template <FixedText Text>
constexpr KeywordName<Text> operator""_kw() noexcept {
    return {};
}
} // namespace literals

template <class Argument>
inline constexpr bool is_keyword = false;
template <FixedText Text, class Value>
inline constexpr bool is_keyword<Keyword<Text, Value>> = true;

/// What a call is made on, and from where.
struct Target {
    View object;
    Here where;
    template <std::convertible_to<View> Reference>
    Target(const Reference& reference, Here here = Here::current()) : object(reference), where(here) {}
};

namespace detail {

template <class... Arguments>
inline constexpr std::size_t keyword_count = (std::size_t{0} + ... + (is_keyword<Arguments> ? 1 : 0));

/// The tuple of keyword names of one kind of call, made once. (Making it may not run Python code: another thread would
/// wait for it with the interpreter's lock in its hands.)
template <class... Arguments>
PyObject* keyword_names(Here where) {
    if constexpr (keyword_count<Arguments...> == 0) {
        return nullptr;
    } else {
        static PyObject* const names = [where] {
            Object tuple = owned(PyTuple_New(keyword_count<Arguments...>), where);
            Py_ssize_t index = 0;
            const auto add = [&]<class Argument>(std::type_identity<Argument>) {
                if constexpr (is_keyword<Argument>) {
                    PyTuple_SET_ITEM(tuple.get(), index++, Py_NewRef(Argument::name()));
                }
            };
            (add(std::type_identity<Arguments>{}), ...);
            return tuple.release();
        }();
        return names;
    }
}

template <class Argument>
PyObject* argument(const Argument& value) noexcept {
    if constexpr (is_keyword<Argument>) {
        return View(value.value).get();
    } else {
        return View(value).get();
    }
}

} // namespace detail

/// `target(*arguments)`; keyword arguments stand last.
template <class... Arguments>
Object call(Target target, const Arguments&... arguments) {
    PyObject* names = detail::keyword_names<Arguments...>(target.where);
    // The free slot in front lets a bound method put its instance there without a copy.
    PyObject* stack[sizeof...(Arguments) + 1] = {nullptr, detail::argument(arguments)...};
    constexpr std::size_t positional = sizeof...(Arguments) - detail::keyword_count<Arguments...>;
    return owned(enter([&] {
                     return PyObject_Vectorcall(target.object.get(), stack + 1,
                                                positional | PY_VECTORCALL_ARGUMENTS_OFFSET, names);
                 }),
                 target.where);
}

/// `target.name(*arguments)`
template <class... Arguments>
Object method(Target target, Name name, const Arguments&... arguments) {
    if (PyModule_CheckExact(target.object.get())) {
        return call(Target(attr(target.object, name, target.where), target.where), arguments...);
    }
    PyObject* names = detail::keyword_names<Arguments...>(target.where);
    PyObject* stack[sizeof...(Arguments) + 1] = {target.object.get(), detail::argument(arguments)...};
    constexpr std::size_t positional = sizeof...(Arguments) - detail::keyword_count<Arguments...> + 1;
    return owned(enter([&] {
                     return PyObject_VectorcallMethod(name.get(), stack, positional | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                                      names);
                 }),
                 target.where);
}

/// The first of several ways to call something that is not refused with a `TypeError`.
template <class First, class... Rest>
Object first_accepted(First&& first, Rest&&... rest) {
    if constexpr (sizeof...(Rest) == 0) {
        return first();
    } else {
        try {
            return first();
        } catch (Raised& raised) {
            const Caught<TypeError> refused(raised);
            return first_accepted(std::forward<Rest>(rest)...);
        }
    }
}

/// `target(**keywords)`, with the interpreter's own error for what is no mapping.
Object call_with_keywords(Target target, View keywords);

/// `dict(key=value, ...)`
template <class... Entries>
Object dict_of(const Entries&... entries) {
    const Here where = Here::current();
    Object dict = owned(PyDict_New(), where);
    (checked(PyDict_SetItem(dict.get(), Entries::name(), View(entries.value).get()), where), ...);
    return dict;
}

template <class... Items>
Object tuple_of(const Items&... items) {
    Object tuple = owned(PyTuple_New(sizeof...(items)), Here::current());
    Py_ssize_t index = 0;
    (PyTuple_SET_ITEM(tuple.get(), index++, Py_NewRef(View(items).get())), ...);
    return tuple;
}

template <class... Items>
Object list_of(const Items&... items) {
    const Here where = Here::current();
    Object list = owned(PyList_New(0), where);
    (checked(PyList_Append(list.get(), View(items).get()), where), ...);
    return list;
}

} // namespace quillstone::runtime
