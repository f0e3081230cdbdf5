#pragma once

#include "quillstone/simulate_signal/runtime/namespace.hpp"
#include "quillstone/simulate_signal/runtime/protocol.hpp"

#include <cstddef>
#include <type_traits>
#include <utility>

namespace quillstone::runtime {

/// A function of this module as C++ sees it: the arguments in the order of the parameters, all bound.
using Native = Object (*)(const View* arguments);

/// One row of a unit's table of functions.
struct Definition {
    /// Name and parameter list as after `def`: `"_tracking_metric(value, default=0.0)"`.
    const char* declaration;
    const char* doc;
    Native native;
    std::size_t parameter_count;
};

namespace detail {

template <class Result, class... Parameters>
constexpr std::size_t count_parameters(Result (*)(Parameters...)) noexcept {
    return sizeof...(Parameters);
}

template <auto Implementation>
Object invoke(const View* arguments) {
    return [&]<std::size_t... Index>(std::index_sequence<Index...>) -> Object {
        using Result = decltype(Implementation(arguments[Index]...));
        if constexpr (std::is_void_v<Result>) {
            Implementation(arguments[Index]...);
            return none();
        } else if constexpr (std::is_same_v<Result, bool>) {
            return boolean(Implementation(arguments[Index]...));
        } else {
            return Implementation(arguments[Index]...);
        }
    }(std::make_index_sequence<count_parameters(Implementation)>{});
}

} // namespace detail

/// A row of a unit's table: the C++ function, how it is declared in Python, and its docstring.
template <auto Implementation>
constexpr Definition function(const char* declaration, const char* doc) noexcept {
    return {declaration, doc, &detail::invoke<Implementation>, detail::count_parameters(Implementation)};
}

/// Makes the function object. `owner` is the class that it is a method of, if any; it only shows in the qualified name.
Object make_function(const Definition& definition, const char* owner = nullptr);

/// The C++ function behind one of this module's function objects; null for any other object.
Native native_of(View function) noexcept;

/// Whether a name of the module still stands for the module's own function. A recursive rule asks, so that it can go on
/// in C++ unless the function was rebound.
template <auto Implementation>
bool is_bound_to(Name name, Here where = Here::current()) {
    const View known = known_global(name);
    const Native bound = known.exists() ? native_of(known) : native_of(look_up_global(name, where));
    return bound == &detail::invoke<Implementation>;
}

/// Adds a unit's functions to the module (or to the namespace of a class that is being made).
void define_functions(View dict, std::span<const Definition> table, const char* owner = nullptr);

/// Makes the function type itself; once, at load.
void prepare_function_type();

/// A bound method: `function` with its first argument fixed.
Object bind_method(View function, View first_argument);

} // namespace quillstone::runtime
