#include "quillstone/simulate_signal/runtime/module.hpp"
#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/gates.hpp"
#include "quillstone/simulate_signal/interface.hpp"
#include "quillstone/simulate_signal/options.hpp"
#include "quillstone/simulate_signal/pipeline.hpp"
#include "quillstone/simulate_signal/vocabulary.hpp"
#include "quillstone/simulate_signal/weights.hpp"

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

constexpr ModuleSource source{"quillstone.simulate_signal", module_doc, define_everything};

} // namespace

} // namespace quillstone::simulate_signal

PyMODINIT_FUNC PyInit_simulate_signal() {
    return quillstone::runtime::module_definition(quillstone::simulate_signal::source);
}
