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
    Object record = new_dict();
    set_item(record, "source"_name, "simulate"_name);
    set_item(record, "graph"_name, run.own("_graph"_name));
    set_item(record, "named_universe"_name, run.own("_named_universe"_name));
    set_item(record, "era_id"_name, run.era_id);
    set_item(record, "passed_thresholds"_name, boolean(run.passed));
    set_item(record, "rejection_reason"_name, rejection_reason(run));
    set_item(record, "expression_elapsed_seconds"_name, run.elapsed_seconds);
    set_item(record, "stats"_name, build_tracking_stats(run.stats, run.per_column_stats, run.era_config));
    set_item(record, "metaparameters"_name, run.metaparameters);
    set_item(record, "per_column_stats"_name, run.per_column_stats);
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
    const Object result_class = global("SimulationResult"_name);
    const Object fields = new_dict();
    set_item(fields, "stats"_name, run.stats);
    set_item(fields, "factor_pnl"_name, read_field(run.output, "factor_pnl"_name, none()));
    set_item(fields, "per_column_stats"_name, run.per_column_stats);
    set_item(fields, "portfolio_returns"_name, read_field(run.output, "portfolio_returns"_name, none()));
    set_item(fields, "processed_weights"_name, read_field(run.output, "processed_weights"_name, none()));
    set_item(fields, "pool_kind"_name, run.own("_selected_pool_kind"_name));
    set_item(fields, "signal_pool_id"_name, run.signal_pool_id);
    set_item(fields, "strategy_pool_id"_name, run.is_strategy ? run.own("_selected_pool_id"_name) : Object(none()));
    set_item(fields, "is_correlation"_name, run.is_correlation);
    set_item(fields, "is_pnl_mi"_name, run.mi_threshold);
    set_item(fields, "was_diagnostic_only"_name, boolean(run.was_diagnostic_only));
    set_item(fields, "failure_reason"_name, run.failure_reason);
    set_item(fields, "failure_detail"_name, run.failure_detail);
    set_item(fields, "rejection_reason"_name, none());
    set_item(fields, "passed"_name, boolean(run.passed));
    set_item(fields, "structural_failed"_name, boolean(run.structural_failed));
    set_item(fields, "mi_score"_name, run.mi_score);
    set_item(fields, "mi_passed"_name, run.mi_passed);
    set_item(fields, "expression_elapsed_seconds"_name, run.elapsed_seconds);
    set_item(fields, "resolved_metaparameters"_name, run.metaparameters);
    return call_with_keywords(result_class, fields);
}

} // namespace quillstone::simulate_signal
