#include "quillstone/simulate_signal/runtime/generator.hpp"

#include <structmember.h>

#include <new>

namespace quillstone::runtime {

namespace {

struct GeneratorObject {
    PyObject_HEAD Producer* producer; // null once the generator has ended
    PyObject* name;
    bool running;
    PyObject* weak_references;
};

PyTypeObject* generator_type = nullptr;

GeneratorObject& generator_of(PyObject* object) noexcept {
    return *reinterpret_cast<GeneratorObject*>(object);
}

void end(GeneratorObject& generator) noexcept {
    // The producer's references go last: what they release may look at the generator again.
    const std::unique_ptr<Producer> ended(std::exchange(generator.producer, nullptr));
}

bool refuse_if_running(const GeneratorObject& generator) noexcept {
    if (generator.running) {
        PyErr_SetString(PyExc_ValueError, "generator already executing");
    }
    return generator.running;
}

/// The next value; null without an error at the end.
PyObject* generator_next(PyObject* self) {
    GeneratorObject& generator = generator_of(self);
    if (refuse_if_running(generator) || generator.producer == nullptr) {
        return nullptr;
    }
    PyObject* value = nullptr;
    generator.running = true;
    try {
        value = generator.producer->next().release();
    } catch (Raised& raised) {
        raised.add_traceback(generator.name);
        raised.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    generator.running = false;
    if (value == nullptr) {
        PyObject* error = PyErr_GetRaisedException();
        end(generator);
        PyErr_SetRaisedException(error);
    }
    return value;
}

PyObject* generator_send(PyObject* self, PyObject* /*value*/) {
    PyObject* value = generator_next(self);
    if (value == nullptr && PyErr_Occurred() == nullptr) {
        PyErr_SetNone(PyExc_StopIteration);
    }
    return value;
}

PyObject* generator_throw(PyObject* self, PyObject* error) {
    GeneratorObject& generator = generator_of(self);
    if (refuse_if_running(generator)) {
        return nullptr;
    }
    end(generator);
    try {
        raise_object(error);
    } catch (Raised& raised) {
        raised.restore();
    }
    return nullptr;
}

PyObject* generator_close(PyObject* self, PyObject* /*none*/) {
    GeneratorObject& generator = generator_of(self);
    if (refuse_if_running(generator)) {
        return nullptr;
    }
    end(generator);
    Py_RETURN_NONE;
}

PyObject* generator_repr(PyObject* self) {
    return PyUnicode_FromFormat("<generator object %U at %p>", generator_of(self).name, self);
}

void generator_dealloc(PyObject* self) {
    GeneratorObject& generator = generator_of(self);
    PyTypeObject* type = Py_TYPE(self);
    PyObject_ClearWeakRefs(self);
    end(generator);
    enter([&] {
        Py_CLEAR(generator.name);
        type->tp_free(self);
        Py_DECREF(type);
    });
}

PyMethodDef generator_methods[] = {
    {"send", generator_send, METH_O, "Resume and return the next value; the value sent is not used."},
    {"throw", generator_throw, METH_O, "End the generator with the exception."},
    {"close", generator_close, METH_NOARGS, "End the generator."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef generator_members[] = {
    {"__name__", Py_T_OBJECT_EX, offsetof(GeneratorObject, name), Py_READONLY, nullptr},
    {"__qualname__", Py_T_OBJECT_EX, offsetof(GeneratorObject, name), Py_READONLY, nullptr},
    {"gi_running", Py_T_BOOL, offsetof(GeneratorObject, running), Py_READONLY, nullptr},
    {"__weaklistoffset__", Py_T_PYSSIZET, offsetof(GeneratorObject, weak_references), Py_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot generator_slots[] = {
    {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
    {Py_tp_iternext, reinterpret_cast<void*>(generator_next)},
    {Py_tp_repr, reinterpret_cast<void*>(generator_repr)},
    {Py_tp_dealloc, reinterpret_cast<void*>(generator_dealloc)},
    {Py_tp_methods, generator_methods},
    {Py_tp_members, generator_members},
    {0, nullptr},
};

PyType_Spec generator_spec = {
    .name = "quillstone.simulate_signal.generator",
    .basicsize = sizeof(GeneratorObject),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    .slots = generator_slots,
};

} // namespace

void prepare_generator_type() {
    if (generator_type == nullptr) {
        generator_type =
            reinterpret_cast<PyTypeObject*>(owned(PyType_FromSpec(&generator_spec), Here::current()).release());
    }
}

Object make_generator(std::unique_ptr<Producer> producer, Name name) {
    Object made = owned(PyType_GenericAlloc(generator_type, 0), Here::current());
    GeneratorObject& generator = generator_of(made.get());
    generator.producer = producer.release();
    generator.name = Py_NewRef(name.get());
    return made;
}

} // namespace quillstone::runtime
