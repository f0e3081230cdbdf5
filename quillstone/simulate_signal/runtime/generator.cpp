#include "quillstone/simulate_signal/runtime/generator.hpp"

#include <structmember.h>

#include <new>

namespace quillstone::runtime {

namespace {

struct GeneratorObject {
    PyObject_HEAD Producer* producer; // null once the generator has ended
    PyObject* name;
    bool started;
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

/// A `StopIteration` from inside must not look like the end of the values.
[[noreturn]] void raise_stop_iteration_inside(Raised& raised) {
    const Object cause = raised.error;
    const Handling handling(cause);
    try {
        raise<RuntimeError>("generator raised StopIteration");
    } catch (Raised& replaced) {
        PyException_SetCause(replaced.error.get(), Py_NewRef(cause.get()));
        throw;
    }
}

Object next_value(GeneratorObject& generator) {
    try {
        const RecursionLevel level(calls_under_way);
        return generator.producer->next();
    } catch (Raised& raised) {
        if (raised.matches(StopIteration::type())) {
            raise_stop_iteration_inside(raised);
        }
        throw;
    }
}

/// The next value; null without an error at the end.
PyObject* generator_next(PyObject* self) {
    GeneratorObject& generator = generator_of(self);
    if (refuse_if_running(generator) || generator.producer == nullptr) {
        return nullptr;
    }
    PyObject* value = nullptr;
    generator.started = true;
    generator.running = true;
    try {
        value = next_value(generator).release();
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

PyObject* generator_send(PyObject* self, PyObject* value) {
    const GeneratorObject& generator = generator_of(self);
    if (value != Py_None && !generator.started && generator.producer != nullptr) {
        PyErr_SetString(PyExc_TypeError, "can't send non-None value to a just-started generator");
        return nullptr;
    }
    PyObject* next = generator_next(self);
    if (next == nullptr && PyErr_Occurred() == nullptr) {
        PyErr_SetNone(PyExc_StopIteration);
    }
    return next;
}

PyObject* generator_throw(PyObject* self, PyObject* error) {
    GeneratorObject& generator = generator_of(self);
    if (refuse_if_running(generator)) {
        return nullptr;
    }
    if (!PyExceptionClass_Check(error) && !PyExceptionInstance_Check(error)) {
        PyErr_Format(PyExc_TypeError, "exceptions must be classes or instances deriving from BaseException, not %s",
                     Py_TYPE(error)->tp_name);
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

int generator_traverse(PyObject* self, visitproc visit, void* arg) {
    const GeneratorObject& generator = generator_of(self);
    Py_VISIT(Py_TYPE(self));
    if (generator.producer == nullptr) {
        return 0;
    }
    const References references(visit, arg);
    generator.producer->show(references);
    return references.result();
}

int generator_clear(PyObject* self) {
    end(generator_of(self));
    return 0;
}

PyObject* generator_repr(PyObject* self) {
    return PyUnicode_FromFormat("<generator object %U at %p>", generator_of(self).name, self);
}

void generator_dealloc(PyObject* self) {
    GeneratorObject& generator = generator_of(self);
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    enter([&] { PyObject_ClearWeakRefs(self); });
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
    {Py_tp_traverse, reinterpret_cast<void*>(generator_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(generator_clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(generator_dealloc)},
    {Py_tp_methods, generator_methods},
    {Py_tp_members, generator_members},
    {0, nullptr},
};

PyType_Spec generator_spec = {
    .name = "quillstone.simulate_signal.generator",
    .basicsize = sizeof(GeneratorObject),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
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
