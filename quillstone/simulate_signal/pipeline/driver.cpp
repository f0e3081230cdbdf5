#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/pipeline.hpp"
#include "quillstone/simulate_signal/pipeline/run.hpp"

namespace quillstone::simulate_signal {

namespace {

void check_graph_and_dependencies(Run& run) {
    set_attr(run.handle, "_config_era_id"_name, configured_era_id());

    const Object expression_type = run.own("_expression_type"_name);
    run.is_strategy = is_strategy(expression_type);
    if (equals(expression_type, global("SIGNAL"_name)) && truth(has_filtration_runtime_graph(run.own("_graph"_name)))) {
        raise<ValueError>("simulate_signal only accepts signal graphs (rotation/feature nodes only). Strategy "
                          "simulation is deferred in the v1 public SDK.");
    }
    if (run.is_strategy && !truth(has_filtration_runtime_graph(run.own("_graph"_name)))) {
        raise<ValueError>("Strategy graph must contain at least one filtration node. Use simulate_signal() for signal "
                          "graphs.");
    }
    run.check_cancelled();
    const Object auth = global("_auth"_name);
    if (auth.is_none() || global("_sync_manager"_name).is_none()) {
        raise<RuntimeError>("Pipeline dependencies not initialized. Call register() or login() first.");
    }
    run.wallet_secret = method(auth, "get_wallet_secret"_name);
}

void guard_against_era_change(const Run& run) {
    run.check_cancelled();
    const Object current = method(global("_era_thread"_name), "get_current_era_id"_name);
    const Object started_with = run.own("_config_era_id"_name);
    if (differs(current, started_with)) {
        raise(global("EraError"_name),
              "Era changed during simulation. Started with era_id={}, current era_id={}. Results are invalid. Retry "
              "with the new era.",
              started_with, current);
    }
    run.check_cancelled();
}

/// Stores a part of the outcome, unless the user has cancelled meanwhile: a cancelled handle keeps no result.
void store_unless_cancelled(const Run& run, Name attribute, View value) {
    with(run.own("_lock"_name), [&] {
        if (truth(run.own("_cancelled"_name))) {
            raise(global("CancelledError"_name), "Simulation cancelled");
        }
        set_attr(run.handle, attribute, value);
    });
}

void complete(Run& run) {
    settle_failure(run);
    guard_against_era_change(run);
    if (run.asks_for("_record"_name)) {
        const Object pending = tuple_of(run.own("_expression_type"_name), tracking_record(run));
        store_unless_cancelled(run, "_pending_recording"_name, pending);
    }
    run.report("complete"_name, number(1.0), "Simulation complete. Results available."_name);
    store_unless_cancelled(run, "_result"_name, simulation_result(run));
}

void run_phases(Run& run) {
    in_frame("_check_graph_and_dependencies"_name, [&] { check_graph_and_dependencies(run); });
    in_frame("_sync_data"_name, [&] { sync_data(run); });
    in_frame("_prepare_vault_and_vocabulary"_name, [&] { prepare_vault_and_vocabulary(run); });
    in_frame("_resolve_configuration"_name, [&] { resolve_configuration(run); });
    in_frame("_validate_graph_and_select_pool"_name, [&] { validate_graph_and_select_pool(run); });
    in_frame("_set_up_evaluation"_name, [&] { set_up_evaluation(run); });
    in_frame("_evaluate_and_finalize"_name, [&] { evaluate_and_finalize(run); });
    in_frame("_backtest_and_gate"_name, [&] { backtest_and_gate(run); });
    in_frame("_gate_marginal_improvement"_name, [&] { gate_marginal_improvement(run); });
    in_frame("_complete"_name, [&] { complete(run); });
}

/// Runs one step of the clean-up; the steps after it are made whatever happens to it.
template <class Step>
bool survive(Step&& step) noexcept {
    try {
        step();
        return true;
    } catch (Raised&) {
        return false;
    }
}

/// Publishes the end of a run that failed or was cancelled, and keeps its error.
void store_failure(View handle, View phase, View message, View error) noexcept {
    // The error is the outcome; a status that cannot be published does not take its place.
    survive([&] { method(handle, "_update_status"_name, phase, number(0.0), message); });
    const auto store = [&] {
        set_attr(handle, "_error"_name, error);
        set_attr(handle, "_pending_recording"_name, none());
    };
    if (!survive([&] { with(attr(handle, "_lock"_name), store); })) {
        survive(store);
    }
}

Object failure_message(View error) {
    try {
        return format("Error: {}", text(error));
    } catch (Raised& raised) {
        const Caught<BaseException> no_text(raised);
        return format("Error: {}", attr(type_of(error), "__name__"_name));
    }
}

void clean_up(View handle) noexcept {
    const auto give_up_hold = [&] { set_attr(handle, "_pipeline_acquired"_name, false); };
    if (!survive([&] { with(attr(handle, "_lock"_name), give_up_hold); })) {
        survive(give_up_hold);
    }
    for (const Name event : {"_acquire_done"_name, "_post_acquire_gate"_name, "_done_event"_name}) {
        const auto set = [&] { method(attr(handle, event), "set"_name); };
        if (!survive(set)) {
            survive(set); // Memory may have been short for a moment; an event that stays unset could hang its waiters.
        }
    }
}

void handle_failure(View handle, Raised& raised) {
    const Caught<BaseException> error(raised);
    if (raised.matches(global("CancelledError"_name))) {
        const Object cancelled = call(global("CancelledError"_name), "Simulation cancelled"_name);
        store_failure(handle, "cancelled"_name, "Simulation cancelled by user."_name, cancelled);
    } else {
        store_failure(handle, "error"_name, failure_message(error), error);
    }
}

} // namespace

void run_pipeline(View handle) {
    try {
        in_frame("_run_pipeline"_name, [&] {
            try {
                Run run;
                run.handle = handle;
                run_phases(run);
            } catch (const std::bad_alloc&) {
                raise_no_memory();
            }
        });
    } catch (Raised& raised) {
        try {
            handle_failure(handle, raised);
        } catch (Raised& failed_again) {
            survive([&] { set_attr(handle, "_error"_name, failed_again.error); });
        }
    }
    clean_up(handle);
}

} // namespace quillstone::simulate_signal
