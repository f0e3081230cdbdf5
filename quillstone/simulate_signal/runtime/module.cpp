#include "quillstone/simulate_signal/runtime/module.hpp"

#include "quillstone/simulate_signal/runtime/generator.hpp"

#include <new>

namespace quillstone::runtime {

namespace {

const ModuleSource* the_source = nullptr;
PyObject* the_module = nullptr; // once it is loaded

PyObject* create(PyObject* spec, PyModuleDef* /*definition*/) {
    if (PyInterpreterState_Get() != PyInterpreterState_Main()) {
        PyErr_Format(PyExc_ImportError, "%s can be loaded into the main interpreter of a process only",
                     the_source->name);
        return nullptr;
    }
    if (the_module != nullptr) {
        return Py_NewRef(the_module);
    }
    const Object name = Object::steal(enter([&] { return PyObject_GetAttrString(spec, "name"); }));
    return name.exists() ? PyModule_NewObject(name.get()) : nullptr;
}

int execute(PyObject* module) {
    if (module == the_module) {
        return 0;
    }
    Namespace::bind(PyModule_GetDict(module));
    try {
        if (!InternedName::intern_all()) {
            raise_current(Here::current());
        }
        prepare_function_type();
        prepare_generator_type();
        prepare_breathing();
        the_source->define(Namespace::dict());
    } catch (Raised& raised) {
        raised.restore();
        return -1;
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        return -1;
    }
    the_module = Py_NewRef(module);
    return 0;
}

PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void*>(create)},
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = nullptr,
    .m_doc = nullptr,
    .m_size = 0,
    .m_methods = nullptr,
    .m_slots = slots,
    .m_traverse = nullptr,
    .m_clear = nullptr,
    .m_free = nullptr,
};

} // namespace

PyObject* module_definition(const ModuleSource& source) {
    the_source = &source;
    definition.m_name = source.name;
    definition.m_doc = source.doc;
    return PyModuleDef_Init(&definition);
}

} // namespace quillstone::runtime
