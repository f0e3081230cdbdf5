#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/interface.hpp"

namespace quillstone::simulate_signal {

namespace {

constexpr const char* signal_doc =
    R"(Evaluate a signal expression graph. Returns SimulationHandle immediately.

Parameters
----------
graph : FunctionGraphNode or dict
    The expression, typed or in its dictionary form; rotation and feature nodes only.
named_universe : str, optional
    The universe to simulate on, a single path segment. By default the configured one, else the first that the
    selected pool allows.
signal_pool_id : str
    The signal pool whose gates decide; any identifier of the pool will do.
metaparameters : dict, optional
    Options chosen for stages of the era's transform pipeline, by the stage's name.
include_correlation : bool
    Compare the PnL with that of what was found already.
include_mi : bool
    Compute the marginal improvement (mutual-information score) of the PnL.
record : bool
    Record the evaluation with the search tracker when `result()` is first called.
return_series, return_weights : bool
    Ask the backtester for the return series and the processed weights.
fail_fast : bool
    Stop at the first gate that fails; otherwise compute all of them for diagnosis.

Returns
-------
SimulationHandle
    At once; the simulation runs on the handle's daemon thread.

Raises
------
ValueError
    When the graph holds an aggregation node, the pool id is no non-empty string, or no safe named universe can
    be found.
RuntimeError
    When the kit's typed graph classes cannot be found.
Exception
    Whatever the kit's `FunctionGraphNode.from_raw` raises for a malformed dictionary.

Errors of the simulation itself are raised by `SimulationHandle.result()`.)";

constexpr const char* strategy_doc =
    R"(Evaluate a strategy expression graph. Returns SimulationHandle immediately.

Parameters
----------
graph : FunctionGraphNode or dict
    The expression, typed or in its dictionary form; at least one filtration node.
named_universe : str, optional
    The universe to simulate on, a single path segment. By default the configured one, else the first that the
    selected pool, or the signal pool that it is linked to, allows.
strategy_pool_id : str
    The strategy pool whose gates decide; any identifier of the pool will do.
metaparameters : dict, optional
    Options chosen for stages of the era's transform pipeline, by the stage's name.
include_correlation : bool
    Compare the PnL with that of what was found already.
include_mi : bool
    Compute the marginal improvement (mutual-information score) of the PnL.
record : bool
    Record the evaluation with the search tracker when `result()` is first called.
return_series, return_weights : bool
    Ask the backtester for the return series and the processed weights.
fail_fast : bool
    Stop at the first gate that fails; otherwise compute all of them for diagnosis.

Returns
-------
SimulationHandle
    At once; the simulation runs on the handle's daemon thread.

Raises
------
ValueError
    When the graph holds an aggregation node, the pool id is no non-empty string, or no safe named universe can
    be found.
RuntimeError
    When the kit's typed graph classes cannot be found.
Exception
    Whatever the kit's `FunctionGraphNode.from_raw` raises for a malformed dictionary.

Errors of the simulation itself are raised by `SimulationHandle.result()`.)";

/// What both entry points do; they differ in these three names only.
struct EntryPoint {
    Name expression_type;
    Name pool_field;
    Name pool_kind;
};
constexpr EntryPoint signal_entry{"SIGNAL"_name, "signal_pool_id"_name, "signal"_name};
constexpr EntryPoint strategy_entry{"STRATEGY"_name, "strategy_pool_id"_name, "strategy"_name};

Object start(const EntryPoint& entry, View graph, View named_universe, View pool_id, View metaparameters,
             View include_correlation, View include_mi, View record, View return_series, View return_weights,
             View fail_fast) {
    const Object typed = typed_runtime_graph(graph);
    const Object universe = resolve_simulation_named_universe(named_universe, entry.expression_type, pool_id);
    const Object selected_pool_id = validate_selected_pool_id(pool_id, entry.pool_field);
    return call(global("SimulationHandle"_name), "graph"_kw = typed, "named_universe"_kw = universe,
                "expression_type"_kw = entry.expression_type, "metaparameters"_kw = metaparameters,
                "include_correlation"_kw = include_correlation, "include_mi"_kw = include_mi, "record"_kw = record,
                "return_series"_kw = return_series, "return_weights"_kw = return_weights, "fail_fast"_kw = fail_fast,
                "selected_pool_id"_kw = selected_pool_id, "selected_pool_kind"_kw = entry.pool_kind);
}

template <const EntryPoint& Entry>
Object simulate(View graph, View named_universe, View pool_id, View metaparameters, View include_correlation,
                View include_mi, View record, View return_series, View return_weights, View fail_fast) {
    return start(Entry, graph, named_universe, pool_id, metaparameters, include_correlation, include_mi, record,
                 return_series, return_weights, fail_fast);
}

Object published_signature(View pool_parameter_name) {
    const Object inspect = global("inspect"_name);
    const Object parameter_class = attr(inspect, "Parameter"_name);
    const Object positional_or_keyword = attr(parameter_class, "POSITIONAL_OR_KEYWORD"_name);
    const Object keyword_only = attr(parameter_class, "KEYWORD_ONLY"_name);
    const Object parameters = list_of(call(parameter_class, "graph"_name, positional_or_keyword));
    const auto add = [&](Name name, View fallback) {
        append(parameters, call(parameter_class, name, keyword_only, "default"_kw = fallback));
    };
    add("named_universe"_name, none());
    append(parameters, call(parameter_class, pool_parameter_name, keyword_only));
    add("metaparameters"_name, none());
    add("include_correlation"_name, boolean(true));
    add("include_mi"_name, boolean(true));
    add("record"_name, boolean(true));
    add("return_series"_name, boolean(false));
    add("return_weights"_name, boolean(false));
    add("fail_fast"_name, boolean(true));
    return method(inspect, "Signature"_name, parameters);
}

constexpr Definition functions[] = {
    function<simulate<signal_entry>>(
        "simulate_signal(graph, named_universe=None, *, signal_pool_id=None, metaparameters=None, "
        "include_correlation=True, include_mi=True, record=True, return_series=False, return_weights=False, "
        "fail_fast=True)",
        signal_doc),
    function<simulate<strategy_entry>>(
        "simulate_strategy(graph, named_universe=None, *, strategy_pool_id=None, metaparameters=None, "
        "include_correlation=True, include_mi=True, record=True, return_series=False, return_weights=False, "
        "fail_fast=True)",
        strategy_doc),
    function<published_signature>("_pool_v2_signature(pool_parameter_name)",
                                  "Return the signature that introspection shows for an entry point: it steers callers "
                                  "to name the pool explicitly."),
};

} // namespace

std::span<const Definition> entry_point_functions() {
    return functions;
}

void publish_signatures() {
    set_attr(global("simulate_signal"_name), "__signature__"_name, pool_v2_signature(signal_entry.pool_field));
    set_attr(global("simulate_strategy"_name), "__signature__"_name, pool_v2_signature(strategy_entry.pool_field));
}

} // namespace quillstone::simulate_signal
