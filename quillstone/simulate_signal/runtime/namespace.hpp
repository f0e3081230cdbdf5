#pragma once

#include "quillstone/simulate_signal/runtime/call.hpp"

namespace quillstone::runtime {

/// The dictionary of the one module object of the process.
class Namespace {
  public:
    [[nodiscard]] static View dict() noexcept { return {dict_}; }
    /// Called at load; null when a load failed and is undone. The dictionary stays alive with the process.
    static void bind(View dict) noexcept;
    /// The number of the dictionary's state, which every change of it makes another one; zero while nobody watches it.
    [[nodiscard]] static unsigned long state() noexcept { return state_; }

  private:
    static int note_change(PyDict_WatchEvent event, PyObject* dict, PyObject* key, PyObject* value) noexcept;

    static inline constinit PyObject* dict_ = nullptr;
    static inline constinit unsigned long state_ = 0;
};

Object look_up_global(Name name, Here where);

/// What the module variable of that name was bound to when it was last looked up, if nothing was rebound since; empty
/// when it has to be looked up.
inline View known_global(Name name) noexcept {
    const InternedName::Binding& known = name.binding();
    return known.state == Namespace::state() && known.state != 0 ? View(known.value) : View();
}

/// The module variable of that name as it is bound now: callers and tests rebind them at run time.
inline Object global(Name name, Here where = Here::current()) {
    if (const View known = known_global(name); known.exists()) [[likely]] {
        return known;
    }
    return look_up_global(name, where);
}
void set_global(Name name, View value, Here where = Here::current());
inline void set_global(Name name, bool value, Here where = Here::current()) {
    set_global(name, boolean(value), where);
}

namespace detail {

/// A call that stays in C++ when the function is the module's own and takes just these arguments.
Object call_bound(View function, std::span<PyObject*> stack, Here where);

template <std::size_t>
using Argument = View;

template <class Indices>
class LateBound;
template <std::size_t... Index>
class LateBound<std::index_sequence<Index...>> {
  public:
    constexpr explicit LateBound(Name name) noexcept : name_(name) {}
    Object operator()(Argument<Index>... arguments, Here where = Here::current()) const {
        PyObject* stack[] = {nullptr, arguments.get()...};
        return call_bound(global(name_, where), stack, where);
    }

  private:
    Name name_;
};

} // namespace detail

/// A module function as other units call it: looked up in the module's namespace at each call, so that rebinding it
/// from Python takes effect at once.
template <std::size_t ArgumentCount>
using ModuleFunction = detail::LateBound<std::make_index_sequence<ArgumentCount>>;

/// `logger.level(format, *arguments)`
template <class... Arguments>
void log(Name level, Name format, const Arguments&... arguments) {
    method(global("logger"_name), level, format, arguments...);
}
template <class... Arguments>
void log_warning(Name format, const Arguments&... arguments) {
    log("warning"_name, format, arguments...);
}
template <class... Arguments>
void log_debug(Name format, const Arguments&... arguments) {
    log("debug"_name, format, arguments...);
}

} // namespace quillstone::runtime
