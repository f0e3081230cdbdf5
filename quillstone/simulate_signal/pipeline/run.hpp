#pragma once

#include "quillstone/simulate_signal/runtime/runtime.hpp"

// What the files of the pipeline share: the state of one run, and the phases in their order.

namespace quillstone::simulate_signal {

using namespace runtime;

// Bound by the interface.
inline constexpr ModuleFunction<1> has_filtration_runtime_graph{"_has_filtration_runtime_graph"_name};
inline constexpr ModuleFunction<0> import_graph_validator_runtime{"_import_graph_validator_runtime"_name};

/// What one run carries from phase to phase.
struct Run {
    Object handle;
    bool is_strategy = false;

    // Sync
    Object wallet_secret;
    Object era_id; // the synced one

    // Era configuration and selected pool
    Object era_config;
    Object transform_pipeline;
    Object requested_metaparameters;
    Object metaparameters; // of the selected pool
    Object pool_config;
    Object pool_name;
    Object signal_pool_id;

    // Evaluation
    Object evaluate_expression;
    Object run_backtest;
    Object backtest;
    Object manifest;
    Object feature_dir;
    Object signal_dir;
    Object orchestrator;
    Object search_plan;
    Object weights;
    Object elapsed_seconds;

    // Backtest
    Object output;
    Object stats;
    Object per_column_stats;
    Object found_ids;
    Object pnl_arrays;
    Object thresholds; // of the pool, for the run's universe

    // Gates
    bool structural_failed = false;
    bool passed = true;
    Object is_correlation = number(0.0);
    bool correlation_passed = true;
    Object mi_threshold = none();
    Object mi_score = none();
    Object mi_passed = none();
    bool was_diagnostic_only = false;
    Object failure_reason = none();
    Object failure_detail = none();

    [[nodiscard]] Object own(Name attribute, Here where = Here::current()) const {
        return attr(handle, attribute, where);
    }
    /// One of the switches of the request.
    [[nodiscard]] bool asks_for(Name flag, Here where = Here::current()) const {
        return truth(own(flag, where), where);
    }
    void report(Name phase, View message) const { report(phase, number(0.0), message); }
    void report(Name phase, View progress, View message) const {
        method(handle, "_update_status"_name, phase, progress, message);
    }
    void check_cancelled() const { method(handle, "_check_cancelled"_name); }
};

// pipeline/sync.cpp
void sync_data(Run& run);
void prepare_vault_and_vocabulary(Run& run);

// pipeline/configuration.cpp
void resolve_configuration(Run& run);
void validate_graph_and_select_pool(Run& run);

// pipeline/evaluation.cpp
void set_up_evaluation(Run& run);
void evaluate_and_finalize(Run& run);
/// The vault's mask of the run's named universe, as it is now.
Object universe_mask(const Run& run);

// pipeline/backtest.cpp
void backtest_and_gate(Run& run);
void gate_marginal_improvement(Run& run);

// pipeline/outcome.cpp
void settle_failure(Run& run);
Object tracking_record(const Run& run);
Object simulation_result(const Run& run);

/// Calls one of the freshness guard's `ensure_fresh...` methods, with as much as it takes.
inline void call_guard(View ensure_fresh, View named_universe) {
    first_accepted([&] { return call(ensure_fresh, "named_universe"_kw = named_universe); },
                   [&] { return call(ensure_fresh, named_universe); }, [&] { return call(ensure_fresh); });
}

} // namespace quillstone::simulate_signal
