#pragma once

#include "quillstone/simulate_signal/runtime/object.hpp"

#include <algorithm>
#include <cstddef>

namespace quillstone::runtime {

/// A text known at compile time, usable as a template argument.
template <std::size_t Size>
struct FixedText {
    char text[Size]{};
    consteval FixedText(const char (&literal)[Size]) { std::copy_n(literal, Size, text); }
};

/// The interned string of one name that occurs in the sources. All of them are made once, at load.
class InternedName {
  public:
    explicit InternedName(const char* text) noexcept;
    [[nodiscard]] PyObject* object() const noexcept { return object_; }

    /// What the module variable of that name was bound to while the module's dictionary was in a certain state.
    struct Binding {
        PyObject* value = nullptr; // borrowed: the dictionary keeps it until its state changes
        unsigned long state = 0;
    };
    [[nodiscard]] Binding& binding() const noexcept { return binding_; }

    /// Where a class keeps the attribute of that name in its instances, if in a slot; of the class last met.
    struct Slot {
        PyTypeObject* type = nullptr; // compared, never used
        unsigned version = 0;         // a class that changes gets another one
        unsigned searches = 0;
        Py_ssize_t offset = 0;
    };
    [[nodiscard]] Slot& slot() const noexcept { return slot_; }

    /// Makes every name's string object. False with the error set when memory runs out.
    [[nodiscard]] static bool intern_all() noexcept;

  private:
    const char* text_;
    PyObject* object_ = nullptr;
    mutable Binding binding_;
    mutable Slot slot_;
    InternedName* next_ = nullptr;
    static inline constinit InternedName* first_ = nullptr;
};

template <FixedText Text>
inline InternedName interned_name{Text.text};

/// A name of an attribute, key or module variable, or a constant text: `"sharpe"_name`.
class Name {
  public:
    constexpr explicit Name(const InternedName* name) noexcept : name_(name) {}
    operator View() const noexcept { return {name_->object()}; }
    [[nodiscard]] PyObject* get() const noexcept { return name_->object(); }
    [[nodiscard]] InternedName::Binding& binding() const noexcept { return name_->binding(); }
    [[nodiscard]] InternedName::Slot& slot() const noexcept { return name_->slot(); }

  private:
    const InternedName* name_;
};

inline namespace literals {
template <FixedText Text>
constexpr Name operator""_name() noexcept {
    return Name{&interned_name<Text>};
}
} // namespace literals

} // namespace quillstone::runtime
