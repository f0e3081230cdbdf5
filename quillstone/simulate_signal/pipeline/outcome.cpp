#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/gates.hpp"
#include "quillstone/simulate_signal/pipeline/run.hpp"
#include "quillstone/simulate_signal/weights.hpp"

namespace quillstone::simulate_signal {

namespace {

void fail(Run& run, Name reason, Name detail) {
    run.failure_reason = View(reason);
    run.failure_detail = View(detail);
}

/// What the tracker records as the reason of a rejection.
Object rejection_reason(const Run& run) {
    if (run.failure_reason.is_none()) {
        return none();
    }
    return truth(run.failure_detail) ? run.failure_detail : run.failure_reason;
}

Object selected_strategy_pool_id(const Run& run) {
    return run.is_strategy ? run.own("_selected_pool_id"_name) : Object(none());
}

} // namespace

void settle_failure(Run& run) {
    // The first gate that failed gives the reason.
    if (run.structural_failed) {
        fail(run, "invalid_weights"_name, "Selected pool structural backtest check failed"_name);
    } else if (!run.passed) {
        fail(run, "thresholds"_name, "Selected pool threshold check failed"_name);
    } else if (!run.correlation_passed) {
        fail(run, "correlation"_name, "Selected pool correlation threshold failed"_name);
    } else if (run.mi_passed.is(boolean(false))) {
        fail(run, "pnl_mi"_name,
             run.mi_score.is_none() ? "Selected pool PnL MI computation unavailable"_name
                                    : "Selected pool PnL MI threshold failed"_name);
    }
    if (run.was_diagnostic_only && run.failure_detail.is_none()) {
        run.failure_detail =
            View("Selected pool failed a prior stage but fail_fast=False computed downstream diagnostics"_name);
    }
}

Object tracking_record(const Run& run) {
    Object record = dict_of("source"_kw = "simulate"_name, "graph"_kw = run.own("_graph"_name),
                            "named_universe"_kw = run.own("_named_universe"_name), "era_id"_kw = run.era_id,
                            "passed_thresholds"_kw = run.passed, "rejection_reason"_kw = rejection_reason(run),
                            "expression_elapsed_seconds"_kw = run.elapsed_seconds,
                            "stats"_kw = build_tracking_stats(run.stats, run.per_column_stats, run.era_config),
                            "metaparameters"_kw = run.metaparameters, "per_column_stats"_kw = run.per_column_stats);
    if (run.is_strategy) {
        set_item(record, "strategy_pool_id"_name, run.own("_selected_pool_id"_name));
    }
    set_item(record, "signal_pool_id"_name, run.signal_pool_id);
    if (run.is_strategy) {
        set_item(record, "referenced_signal_ids"_name,
                 strategy_referenced_signal_ids(global("_useful_signals"_name), global("_useful_signal_metadata"_name),
                                                run.pool_config));
    }
    return record;
}

Object simulation_result(const Run& run) {
    return call(global("SimulationResult"_name), "stats"_kw = run.stats,
                "factor_pnl"_kw = read_field(run.output, "factor_pnl"_name, none()),
                "per_column_stats"_kw = run.per_column_stats,
                "portfolio_returns"_kw = read_field(run.output, "portfolio_returns"_name, none()),
                "processed_weights"_kw = read_field(run.output, "processed_weights"_name, none()),
                "pool_kind"_kw = run.own("_selected_pool_kind"_name), "signal_pool_id"_kw = run.signal_pool_id,
                "strategy_pool_id"_kw = selected_strategy_pool_id(run), "is_correlation"_kw = run.is_correlation,
                "is_pnl_mi"_kw = run.mi_threshold, "was_diagnostic_only"_kw = run.was_diagnostic_only,
                "failure_reason"_kw = run.failure_reason, "failure_detail"_kw = run.failure_detail,
                "rejection_reason"_kw = none(), "passed"_kw = run.passed,
                "structural_failed"_kw = run.structural_failed, "mi_score"_kw = run.mi_score,
                "mi_passed"_kw = run.mi_passed, "expression_elapsed_seconds"_kw = run.elapsed_seconds,
                "resolved_metaparameters"_kw = run.metaparameters);
}

} // namespace quillstone::simulate_signal
