#pragma once

#include "quillstone/simulate_signal/runtime/names.hpp"

#include <array>
#include <source_location>
#include <span>

namespace quillstone::runtime {

/// A place in this module's sources, for the tracebacks that users see.
using Here = std::source_location;

/// The C++ exception that means "a Python exception is on its way". It carries the exception object, so that the
/// interpreter's error indicator is clear while destructors run.
struct Raised {
    Object error;
    Here where;

    [[nodiscard]] bool matches(View exception_class) const noexcept {
        return PyErr_GivenExceptionMatches(error.get(), exception_class.get()) != 0;
    }
    /// Adds an entry for a function of this module to the exception's traceback.
    void add_traceback(View function_name) const noexcept;
    /// Hands the exception back to the interpreter.
    void restore() noexcept { PyErr_SetRaisedException(error.release()); }
};

/// Throws the interpreter's current error as `Raised`.
[[noreturn]] void raise_current(Here where);

/// Raises `MemoryError`, for a C++ allocation that failed.
[[noreturn]] inline void raise_no_memory(Here where = Here::current()) {
    PyErr_NoMemory();
    raise_current(where);
}

inline Object owned(PyObject* result, Here where) {
    if (result == nullptr) [[unlikely]] {
        raise_current(where);
    }
    return Object::steal(result);
}
inline int checked(int status, Here where) {
    if (status < 0) [[unlikely]] {
        raise_current(where);
    }
    return status;
}

struct Exception {
    static View type() noexcept { return {PyExc_Exception}; }
};
struct BaseException {
    static View type() noexcept { return {PyExc_BaseException}; }
};
struct ImportError {
    static View type() noexcept { return {PyExc_ImportError}; }
};
struct MemoryError {
    static View type() noexcept { return {PyExc_MemoryError}; }
};
struct ModuleNotFoundError {
    static View type() noexcept { return {PyExc_ModuleNotFoundError}; }
};
struct NameError {
    static View type() noexcept { return {PyExc_NameError}; }
};
struct OSError {
    static View type() noexcept { return {PyExc_OSError}; }
};
struct OverflowError {
    static View type() noexcept { return {PyExc_OverflowError}; }
};
struct RecursionError {
    static View type() noexcept { return {PyExc_RecursionError}; }
};
struct RuntimeError {
    static View type() noexcept { return {PyExc_RuntimeError}; }
};
struct StopIteration {
    static View type() noexcept { return {PyExc_StopIteration}; }
};
struct TypeError {
    static View type() noexcept { return {PyExc_TypeError}; }
};
struct ValueError {
    static View type() noexcept { return {PyExc_ValueError}; }
};

/// A text with a `{}` for each value, as in a Python f-string, and the place where it was written.
struct Template {
    const char* text;
    Here where;
    consteval Template(const char* text_with_places, Here here = Here::current())
        : text(text_with_places), where(here) {}
};

[[nodiscard]] Object fill_template(const Template& text, std::span<const View> values);

/// `f"..."`: every value goes through `format(value)`.
template <class... Values>
[[nodiscard]] Object format(Template text, const Values&... values) {
    const std::array<View, sizeof...(values)> views{View(values)...};
    return fill_template(text, views);
}

/// `raise exception`, for an exception object or class.
[[noreturn]] void raise_object(View exception, Here where = Here::current());

[[noreturn]] void raise_with_message(View exception_class, View message, Here where);

/// `raise exception_class(f"...")`
template <class... Values>
[[noreturn]] void raise(View exception_class, Template text, const Values&... values) {
    raise_with_message(exception_class, format(text, values...), text.where);
}
template <class ExceptionClass, class... Values>
[[noreturn]] void raise(Template text, const Values&... values) {
    raise_with_message(ExceptionClass::type(), format(text, values...), text.where);
}

/// While it lives, the exception is the one being handled: errors raised meanwhile get it as their `__context__`, and
/// `exc_info=True` logs it.
class Handling {
  public:
    explicit Handling(View error) noexcept;
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    Handling(Handling&&) = delete;
    Handling& operator=(Handling&&) = delete;
    ~Handling();

  private:
    Object previous_;
};

/// `except SomeClass as error:` at the head of a `catch (Raised& raised)` block; what does not match is thrown on.
template <class... ExceptionClasses>
class Caught {
  public:
    explicit Caught(Raised& raised) : error_(matching(raised)), handling_(error_) {}
    operator View() const noexcept { return error_; }

  private:
    static View matching(Raised& raised) {
        if (!(raised.matches(ExceptionClasses::type()) || ...)) {
            throw;
        }
        return raised.error;
    }
    Object error_;
    Handling handling_;
};

/// `try: body() finally: clean_up()`
template <class Body, class CleanUp>
void finally(Body&& body, CleanUp&& clean_up) {
    try {
        body();
    } catch (Raised& raised) {
        const Handling handling(raised.error);
        clean_up();
        throw;
    }
    clean_up();
}

/// Runs `body` as a function of its own in tracebacks.
template <class Body>
auto in_frame(View name, Body&& body, Here where = Here::current()) -> decltype(body()) {
    try {
        return body();
    } catch (Raised& raised) {
        raised.add_traceback(name);
        raised.where = where;
        throw;
    }
}

} // namespace quillstone::runtime
