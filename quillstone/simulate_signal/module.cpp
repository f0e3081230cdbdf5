#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/gates.hpp"
#include "quillstone/simulate_signal/interface.hpp"
#include "quillstone/simulate_signal/options.hpp"
#include "quillstone/simulate_signal/pipeline.hpp"
#include "quillstone/simulate_signal/runtime/runtime.hpp"
#include "quillstone/simulate_signal/vocabulary.hpp"
#include "quillstone/simulate_signal/weights.hpp"

#include <new>

namespace quillstone::simulate_signal {

namespace {

constexpr const char* module_doc = R"(Simulate signal subcomponent — single expression evaluation pipeline.

`simulate_signal` and `simulate_strategy` take an expression graph and return a `SimulationHandle` at once; a daemon
thread syncs data, validates, evaluates and backtests the expression and decides the selected pool's gates. The
caller polls `status()`, waits in `result()` or calls `cancel()`. `init_simulate_signal` wires the collaborators
beforehand; `effective_simulation_options` lists what an era offers to simulate.)";

void define_everything(View dict) {
    import_siblings();
    create_module_variables();
    for (const auto table :
         {era_access_functions(), pool_functions(), universe_rule_functions(), signal_ref_functions(), gate_functions(),
          function_store_functions(), freshness_functions(), stage_functions(), finalize_functions(),
          install_functions(), option_functions(), pipeline_functions(), graph_functions(), entry_point_functions(),
          wiring_functions()}) {
        define_functions(dict, table);
    }
    set_global("CancelledError"_name, make_cancelled_error());
    set_global("SimulationStatus"_name, make_simulation_status());
    set_global("SimulationResult"_name, make_simulation_result());
    set_global("_SimulationOrchestratorEvaluator"_name, make_evaluator_adapter_class());
    set_global("SimulationHandle"_name, make_simulation_handle());
    publish_signatures();
    set_global("__all__"_name, list_of("CancelledError"_name, "SimulationHandle"_name, "SimulationResult"_name,
                                       "SimulationStatus"_name, "effective_simulation_options"_name,
                                       "init_simulate_signal"_name, "simulate_signal"_name, "simulate_strategy"_name));
}

// The one module object of the process. A second import is handed this object as it stands.
PyObject* the_module = nullptr;

PyObject* create(PyObject* spec, PyModuleDef* /*definition*/) {
    if (PyInterpreterState_Get() != PyInterpreterState_Main()) {
        PyErr_SetString(PyExc_ImportError,
                        "quillstone.simulate_signal can be loaded into the main interpreter of a process only");
        return nullptr;
    }
    if (the_module != nullptr) {
        return Py_NewRef(the_module);
    }
    PyObject* name = enter([&] { return PyObject_GetAttrString(spec, "name"); });
    PyObject* module = name == nullptr ? nullptr : PyModule_NewObject(name);
    enter([&] { Py_XDECREF(name); });
    return module;
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
        define_everything(Namespace::dict());
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
    .m_name = "quillstone.simulate_signal",
    .m_doc = module_doc,
    .m_size = 0,
    .m_methods = nullptr,
    .m_slots = slots,
    .m_traverse = nullptr,
    .m_clear = nullptr,
    .m_free = nullptr,
};

} // namespace

} // namespace quillstone::simulate_signal

PyMODINIT_FUNC PyInit_simulate_signal() {
    return PyModuleDef_Init(&quillstone::simulate_signal::definition);
}
