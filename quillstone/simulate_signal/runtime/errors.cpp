#include "quillstone/simulate_signal/runtime/errors.hpp"

#include "quillstone/simulate_signal/runtime/namespace.hpp"

#include <frameobject.h>

#include <cstring>

namespace quillstone::runtime {

void Raised::add_traceback(View function_name) const noexcept {
    // The entry is a courtesy: when memory is too short for it the exception goes on without.
    const char* name = PyUnicode_AsUTF8(function_name.get());
    PyObject* code = nullptr;
    PyObject* frame = nullptr;
    if (name != nullptr) {
        code = reinterpret_cast<PyObject*>(PyCode_NewEmpty(where.file_name(), name, static_cast<int>(where.line())));
    }
    if (code != nullptr) {
        frame = reinterpret_cast<PyObject*>(
            PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code), Namespace::dict().get(), nullptr));
    }
    const Object code_owner = Object::steal(code);
    const Object frame_owner = Object::steal(frame);
    enter([] { PyErr_Clear(); });
    if (frame != nullptr) {
        PyErr_SetRaisedException(Py_NewRef(error.get()));
        enter([&] { return PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(frame)); });
        const Object same = Object::steal(PyErr_GetRaisedException());
    }
}

void raise_current(Here where) {
    PyObject* error = PyErr_GetRaisedException();
    if (error == nullptr) {
        PyErr_SetString(PyExc_SystemError, "error return without exception set");
        error = PyErr_GetRaisedException();
    }
    throw Raised{Object::steal(error), where};
}

Object fill_template(const Template& text, std::span<const View> values) {
    const Object pieces = owned(PyList_New(0), text.where);
    const auto add = [&](PyObject* piece) {
        const Object owner = owned(piece, text.where);
        checked(PyList_Append(pieces.get(), piece), text.where);
    };
    const char* rest = text.text;
    for (const View value : values) {
        const char* place = std::strstr(rest, "{}");
        if (place == nullptr) {
            break;
        }
        add(PyUnicode_FromStringAndSize(rest, place - rest));
        add(enter([&] { return PyObject_Format(value.get(), nullptr); }));
        rest = place + 2;
    }
    add(PyUnicode_FromString(rest));
    return owned(PyUnicode_Join(Py_GetConstantBorrowed(Py_CONSTANT_EMPTY_STR), pieces.get()), text.where);
}

namespace {

[[noreturn]] void raise_instance(View exception, Here where) {
    // PyErr_SetObject chains the exception that is being handled as `__context__`.
    enter([&] {
        if (PyExceptionInstance_Check(exception.get())) {
            PyErr_SetObject(PyExceptionInstance_Class(exception.get()), exception.get());
        } else {
            PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
        }
    });
    raise_current(where);
}

} // namespace

void raise_object(View exception, Here where) {
    if (PyExceptionClass_Check(exception.get())) {
        raise_instance(owned(enter([&] { return PyObject_CallNoArgs(exception.get()); }), where), where);
    }
    raise_instance(exception, where);
}

void raise_with_message(View exception_class, View message, Here where) {
    raise_instance(owned(enter([&] { return PyObject_CallOneArg(exception_class.get(), message.get()); }), where),
                   where);
}

Handling::Handling(View error) noexcept : previous_(Object::steal(PyErr_GetHandledException())) {
    PyErr_SetHandledException(error.get());
}

Handling::~Handling() {
    enter([this] { PyErr_SetHandledException(previous_.get()); });
}

} // namespace quillstone::runtime
