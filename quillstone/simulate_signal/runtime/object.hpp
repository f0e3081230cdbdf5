#pragma once

#include "quillstone/simulate_signal/runtime/door.hpp"

#include <utility>

namespace quillstone::runtime {

/// A borrowed reference: somebody else keeps the object alive for as long as the view is used.
class View {
  public:
    constexpr View() noexcept = default;
    constexpr View(PyObject* object) noexcept : object_(object) {}

    [[nodiscard]] constexpr PyObject* get() const noexcept { return object_; }
    [[nodiscard]] bool is(View other) const noexcept { return object_ == other.object_; }
    [[nodiscard]] bool is_none() const noexcept { return object_ == Py_None; }
    explicit operator bool() const noexcept = delete; // ambiguous: truth(object) or exists()?
    [[nodiscard]] bool exists() const noexcept { return object_ != nullptr; }

  private:
    PyObject* object_ = nullptr;
};

/// An owning reference. Empty only where a signature says so.
class Object {
  public:
    Object() noexcept = default;
    Object(View object) noexcept : object_(Py_XNewRef(object.get())) {}
    Object(const Object& other) noexcept : object_(Py_XNewRef(other.object_)) {}
    Object(Object&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Object& operator=(Object other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Object() {
        if (object_ == nullptr) {
            return;
        }
        if (Py_REFCNT(object_) > 1) {
            Py_DECREF(object_);
        } else {
            release_last(object_);
        }
    }

    /// Takes over a reference that the caller owns; null gives an empty object.
    [[nodiscard]] static Object steal(PyObject* object) noexcept {
        Object result;
        result.object_ = object;
        return result;
    }

    operator View() const noexcept { return {object_}; }
    [[nodiscard]] PyObject* get() const noexcept { return object_; }
    [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }
    [[nodiscard]] bool is(View other) const noexcept { return object_ == other.get(); }
    [[nodiscard]] bool is_none() const noexcept { return object_ == Py_None; }
    [[nodiscard]] bool exists() const noexcept { return object_ != nullptr; }

  private:
    // The last release can run `__del__`, and with it anything.
    [[gnu::noinline]] static void release_last(PyObject* object) noexcept {
        enter([object] { Py_DECREF(object); });
    }

    PyObject* object_ = nullptr;
};

[[nodiscard]] inline View none() noexcept {
    return {Py_None};
}
[[nodiscard]] inline View boolean(bool value) noexcept {
    return {value ? Py_True : Py_False};
}

} // namespace quillstone::runtime
