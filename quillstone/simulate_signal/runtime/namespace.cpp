#include "quillstone/simulate_signal/runtime/namespace.hpp"

#include "quillstone/simulate_signal/runtime/protocol.hpp"

namespace quillstone::runtime {

void Namespace::bind(View dict) noexcept {
    // Never released: threads may still run in the module when the interpreter takes it down.
    Py_XINCREF(dict.get());
    dict_ = dict.get();
    state_ = 0;
    if (dict_ != nullptr) {
        // One watcher serves every attempt to load the module.
        static int watcher = -1;
        if (watcher < 0) {
            watcher = PyDict_AddWatcher(note_change);
        }
        if (watcher >= 0 && PyDict_Watch(watcher, dict_) == 0) {
            state_ = 1;
        } else {
            enter([] { PyErr_Clear(); }); // Others watch already as much as can be watched: look up every time.
        }
    }
}

int Namespace::note_change(PyDict_WatchEvent /*event*/, PyObject* /*dict*/, PyObject* /*key*/,
                           PyObject* /*value*/) noexcept {
    ++state_;
    return 0;
}

Object look_up_global(Name name, Here where) {
    PyObject* value = nullptr;
    const unsigned long state = Namespace::state(); // a comparison of odd keys can change the dictionary meanwhile
    checked(enter([&] { return PyDict_GetItemRef(Namespace::dict().get(), name.get(), &value); }), where);
    if (value == nullptr) [[unlikely]] {
        raise_with_message(NameError::type(), format("name {} is not defined", repr(name, where)), where);
    }
    name.binding() = {.value = value, .state = state};
    return Object::steal(value);
}

void set_global(Name name, View value, Here where) {
    checked(enter([&] { return PyDict_SetItem(Namespace::dict().get(), name.get(), value.get()); }), where);
}

} // namespace quillstone::runtime
