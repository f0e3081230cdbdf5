#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/interface.hpp"
#include "quillstone/simulate_signal/pipeline.hpp"

namespace quillstone::simulate_signal {

namespace {

constexpr const char* handle_doc = R"(Handle to a running simulation.

Made by `simulate_signal` and `simulate_strategy`; making one starts its daemon thread.

Parameters
----------
graph : FunctionGraphNode
    The typed expression.
named_universe : str
    The resolved named universe.
expression_type : str
    "SIGNAL" or "STRATEGY".
metaparameters, include_correlation, include_mi, record, return_series, return_weights, fail_fast
    As for the entry points.
selected_pool_id : str
    The pool whose gates decide.
selected_pool_kind : str, optional
    "signal" or "strategy"; by default that of the expression type.

Raises
------
TypeError
    When the graph is not typed.
ValueError
    When the graph holds an aggregation node or the pool id is no non-empty string.)";

constexpr const char* result_doc = R"(Block until completion, return BacktestResult or raise exception.

The first successful call records the evaluation with the search tracker; later calls return the same result, or raise
the same error, again. The sync manager is released once. An error of the search tracker is raised by the call that
recorded; the evaluation is not recorded again, and the next call returns the result.

Returns
-------
SimulationResult

Raises
------
CancelledError
    When the simulation was cancelled.
Exception
    Whatever ended the simulation, or an error of the search tracker.)";

constexpr const char* cancel_doc = R"(Cancel simulation immediately. No-op if already done/cancelled.

A simulation that has finished counts as done once `result()` has returned; until then cancelling it discards its
result.)";

constexpr const char* status_doc = R"(Return a new snapshot of the simulation's progress.

Returns
-------
SimulationStatus
    `elapsed_s` is computed anew at each call.)";

constexpr double acquire_handshake_seconds = 0.1;

Object seconds_since_start(View self) {
    const Object now = monotonic();
    return subtract(now, attr(self, "_start_time"_name));
}

Object new_event() {
    return method(global("threading"_name), "Event"_name);
}

/// A status of the handle, of the same era as the one before; the handle's lock is held.
Object next_status(View self, View phase, View progress, View message) {
    const Object era_id = attr(attr(self, "_status"_name), "era_id"_name);
    const Object elapsed = seconds_since_start(self);
    return call(global("SimulationStatus"_name), phase, progress, message, era_id, elapsed);
}

void init(View self, View graph, View named_universe, View expression_type, View metaparameters,
          View include_correlation, View include_mi, View record, View return_series, View return_weights,
          View selected_pool_id, View selected_pool_kind, View fail_fast) {
    set_attr(self, "_graph"_name, require_typed_runtime_graph(graph));
    set_attr(self, "_named_universe"_name, named_universe);
    set_attr(self, "_universe_rule_id"_name, none());
    set_attr(self, "_expression_type"_name, expression_type);
    set_attr(self, "_metaparameters"_name, metaparameters);
    set_attr(self, "_include_correlation"_name, include_correlation);
    set_attr(self, "_include_mi"_name, include_mi);
    set_attr(self, "_record"_name, record);
    set_attr(self, "_return_series"_name, return_series);
    set_attr(self, "_return_weights"_name, return_weights);
    set_attr(self, "_selected_pool_id"_name,
             validate_selected_pool_id(selected_pool_id, selected_pool_field_name(expression_type)));
    if (selected_pool_kind.is_none()) {
        set_attr(self, "_selected_pool_kind"_name,
                 equals(expression_type, "STRATEGY"_name) ? "strategy"_name : "signal"_name);
    } else {
        set_attr(self, "_selected_pool_kind"_name, selected_pool_kind);
    }
    set_attr(self, "_fail_fast"_name, fail_fast);

    const Object era_id = configured_era_id();
    set_attr(self, "_lock"_name, method(global("threading"_name), "Lock"_name));
    set_attr(self, "_status"_name,
             call(global("SimulationStatus"_name), "phase"_kw = "syncing"_name, "progress"_kw = number(0.0),
                  "message"_kw = "Syncing data from server..."_name, "era_id"_kw = era_id));
    set_attr(self, "_result"_name, none());
    set_attr(self, "_error"_name, none());
    set_attr(self, "_cancelled"_name, false);
    set_attr(self, "_done_event"_name, new_event());
    set_attr(self, "_start_time"_name, monotonic());
    set_attr(self, "_acquired"_name, false);
    set_attr(self, "_pending_recording"_name, none());
    set_attr(self, "_result_retrieved"_name, false);
    set_attr(self, "_pipeline_acquired"_name, false);
    set_attr(self, "_released"_name, false);
    set_attr(self, "_pre_acquired"_name, false);
    set_attr(self, "_acquire_done"_name, new_event());
    set_attr(self, "_post_acquire_gate"_name, new_event());

    const Object thread = call(attr(global("threading"_name), "Thread"_name),
                               "target"_kw = attr(self, "_run_pipeline"_name), "daemon"_kw = true);
    set_attr(self, "_thread"_name, thread);
    method(thread, "start"_name);

    // Return as soon as the pipeline holds the sync manager; a slow acquire does not hold the caller up.
    method(attr(self, "_acquire_done"_name), "wait"_name, "timeout"_kw = number(acquire_handshake_seconds));
    method(attr(self, "_post_acquire_gate"_name), "set"_name);
}

Object status(View self) {
    Object snapshot;
    with(attr(self, "_lock"_name), [&] {
        const Object current = attr(self, "_status"_name);
        const Object phase = attr(current, "phase"_name);
        const Object progress = attr(current, "progress"_name);
        const Object message = attr(current, "message"_name);
        snapshot = next_status(self, phase, progress, message);
    });
    return snapshot;
}

void update_status(View self, View phase, View progress, View message) {
    with(attr(self, "_lock"_name),
         [&] { set_attr(self, "_status"_name, next_status(self, phase, progress, message)); });
    // Outside the lock, so that a slow callback does not block status().
    const Object set_phase = global("_set_phase"_name);
    if (set_phase.is_none()) {
        return;
    }
    try {
        call(set_phase, phase);
    } catch (Raised& raised) {
        const Caught<Exception> error(raised);
        log_warning("Failed to set simulation phase '%s': %s"_name, phase, error);
    }
}

void check_cancelled(View self) {
    with(attr(self, "_lock"_name), [&] {
        if (truth(attr(self, "_cancelled"_name))) {
            raise(global("CancelledError"_name), "Simulation cancelled");
        }
    });
}

void do_release(View self) {
    if (truth(attr(self, "_pipeline_acquired"_name)) && !truth(attr(self, "_released"_name))) {
        set_attr(self, "_released"_name, true);
        method(global("_sync_manager"_name), "release"_name);
    }
}

/// Releases the sync manager after the run, which has ended and so no longer counts as holding it: for the length of
/// the release it does, if it ever acquired.
void release_after_run(View self) {
    if (!truth(attr(self, "_acquired"_name))) {
        method(self, "_do_release"_name);
        return;
    }
    const Object held = attr(self, "_pipeline_acquired"_name);
    set_attr(self, "_pipeline_acquired"_name, true);
    finally([&] { method(self, "_do_release"_name); }, [&] { set_attr(self, "_pipeline_acquired"_name, held); });
}

void record_pending(View self) {
    const Object pending = attr(self, "_pending_recording"_name);
    if (pending.is_none()) {
        return;
    }
    const auto [expression_type, record] = unpack<2>(pending);
    set_attr(self, "_pending_recording"_name, none());
    const Object tracker = global("_search_tracker"_name);
    const Name recorder =
        equals(expression_type, "SIGNAL"_name) ? "record_signal_evaluation"_name : "record_strategy_evaluation"_name;
    call_with_keywords(attr(tracker, recorder), record);
}

Object result(View self) {
    method(attr(self, "_thread"_name), "join"_name);
    Object outcome;
    with(attr(self, "_lock"_name), [&] {
        if (const Object error = attr(self, "_error"_name); !error.is_none()) {
            release_after_run(self);
            raise_object(error);
        }
        record_pending(self);
        set_attr(self, "_result_retrieved"_name, true);
        release_after_run(self);
        outcome = attr(self, "_result"_name);
    });
    return outcome;
}

void cancel(View self) {
    with(attr(self, "_lock"_name), [&] {
        const Object phase = attr(attr(self, "_status"_name), "phase"_name);
        if (equals(phase, "cancelled"_name) || truth(attr(self, "_result_retrieved"_name))) {
            return;
        }
        set_attr(self, "_cancelled"_name, true);
        set_attr(self, "_pending_recording"_name, none());
        set_attr(self, "_status"_name,
                 next_status(self, "cancelled"_name, number(0.0), "Simulation cancelled by user."_name));
        set_attr(self, "_error"_name, call(global("CancelledError"_name), "Simulation cancelled"_name));
        method(attr(self, "_done_event"_name), "set"_name);
    });
}

constexpr Definition handle_methods[] = {
    function<init>("__init__(self, graph, named_universe, expression_type, metaparameters=None, "
                   "include_correlation=True, include_mi=True, record=True, return_series=False, "
                   "return_weights=False, selected_pool_id=None, selected_pool_kind=None, fail_fast=True)",
                   "Store the request, start the pipeline's daemon thread and return after a short handshake."),
    function<status>("status(self)", status_doc),
    function<result>("result(self)", result_doc),
    function<cancel>("cancel(self)", cancel_doc),
    function<update_status>("_update_status(self, phase, progress=0.0, message='')",
                            "Publish a new status and tell the kit's phase callback."),
    function<check_cancelled>("_check_cancelled(self)", "Raise CancelledError when the simulation was cancelled."),
    function<do_release>("_do_release(self)", "Release the sync manager, at most once; takes no lock itself."),
    function<run_pipeline>("_run_pipeline(self)", "Execute the 10-phase pipeline in a background thread."),
};

} // namespace

Object make_simulation_handle() {
    const Object attributes = class_body(handle_doc);
    define_functions(attributes, handle_methods, "SimulationHandle");
    return make_class("SimulationHandle"_name, object_type(), attributes);
}

} // namespace quillstone::simulate_signal
