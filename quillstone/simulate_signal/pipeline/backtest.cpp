#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/gates.hpp"
#include "quillstone/simulate_signal/pipeline/run.hpp"
#include "quillstone/simulate_signal/weights.hpp"

#include <limits>

namespace quillstone::simulate_signal {

namespace {

/// A field of the backtest's output, which is an object or a dictionary.
Object output_field(const Run& run, Name field, View fallback = none()) {
    return read_field(run.output, field, fallback);
}

void ensure_fresh(const Run& run) {
    const Object ensure = attr_or(global("_runtime_freshness_guard"_name), "ensure_fresh_before_backtest"_name, none());
    if (!ensure.is_none()) {
        call_guard(ensure, run.own("_named_universe"_name));
    }
}

Object call_backtester(const Run& run) {
    if (!run.run_backtest.is_none()) {
        const Object graph = run.own("_graph"_name);
        const Object named_universe = run.own("_named_universe"_name);
        const Object return_series = run.own("_return_series"_name);
        const Object return_weights = run.own("_return_weights"_name);
        return call(run.run_backtest, graph, "metaparameters"_kw = run.metaparameters,
                    "named_universe"_kw = named_universe, "return_series"_kw = return_series,
                    "return_weights"_kw = return_weights);
    }
    const Object universe = universe_mask(run);
    const Object return_series = run.own("_return_series"_name);
    const Object return_weights = run.own("_return_weights"_name);
    return call(run.backtest, "weights"_kw = run.weights, "era_config"_kw = run.era_config, "universe"_kw = universe,
                "return_series"_kw = return_series, "return_weights"_kw = return_weights, "use_vault"_kw = true);
}

/// The ids of the signals found already, each once, in order.
Object found_signal_ids(const Run& run) {
    const Object seen = new_dict();
    if (const Object found = output_field(run, "found_signal_ids"_name); truth(found)) {
        for (const Object id : each(found)) {
            set_default(seen, id, none());
        }
    }
    return to_list(seen);
}

void load_found_pnl(Run& run) {
    run.pnl_arrays = new_list();
    if (!run.asks_for("_include_correlation"_name) || length(run.found_ids) == 0) {
        return;
    }
    const Object load = global("_load_found_signal_pnl"_name);
    if (load.is_none()) {
        raise<ValueError>("Signal PnL data could not be loaded for found signal IDs: {}. Inject _load_found_signal_pnl "
                          "to provide per-ID PnL loading.",
                          join(", "_name, run.found_ids));
    }
    const Object missing = new_list();
    for (const Object id : each(run.found_ids)) {
        const Object pnl = call(load, id, "pool_name"_kw = run.pool_name);
        append(pnl.is_none() ? missing : run.pnl_arrays, pnl.is_none() ? id : pnl);
    }
    if (length(missing) > 0) {
        raise<ValueError>("Signal PnL data is missing for found signal IDs: {}", join(", "_name, missing));
    }
}

/// Whether a gate that failed keeps the later ones from being computed.
bool is_stopped(const Run& run) {
    return (!run.passed || !run.correlation_passed) && run.asks_for("_fail_fast"_name);
}

/// `stats.turnover`, else `stats.avg_turnover`, else 0.0
Object turnover_of(View stats) {
    for (const Name field : {"turnover"_name, "avg_turnover"_name}) {
        if (Object turnover = stage_value(stats, field, none()); !turnover.is_none()) {
            return turnover;
        }
    }
    return number(0.0);
}

Object gate_metrics(const Run& run) {
    const Object column = primary_evaluation_pnl_column(run.era_config);
    const Object stats = truth(run.per_column_stats) ? run.per_column_stats : new_dict();
    const Object nothing = number(0.0);
    const Object sharpe = tracking_metric(column_stat(stats, column, "_sharpe"_name));
    const Object turnover = tracking_metric(turnover_of(run.stats));
    const Object delta_exposure = tracking_metric(read_field(run.stats, "delta_exposure"_name, nothing));
    const Object max_weight = tracking_metric(read_field(run.stats, "max_weight"_name, nothing));
    const Object gross = tracking_metric(read_field(run.stats, "abs_weight_sum_mean"_name, nothing));
    return dict_of("sharpe"_kw = sharpe, "turnover"_kw = turnover, "delta_exposure"_kw = delta_exposure,
                   "max_weight"_kw = max_weight, "abs_weight_sum_mean"_kw = gross);
}

void gate_thresholds(Run& run) {
    const Name set_name = run.is_strategy ? "strategy_is_thresholds"_name : "signal_is_thresholds"_name;
    const Object threshold_set = get(run.thresholds, set_name, new_dict());
    const Object evaluate_gates = global("evaluate_threshold_gates"_name);
    const Object metrics = gate_metrics(run);
    const Object verdict = call(evaluate_gates, "metrics"_kw = metrics, "threshold_set"_kw = threshold_set);
    if (!truth(attr(verdict, "passed"_name))) {
        run.passed = false;
    }
}

/// The era's PnL column of a gate, by default the primary one.
Object pnl_column(const Run& run, Name field) {
    Object column = get(run.era_config, field);
    return truth(column) ? column : primary_evaluation_pnl_column(run.era_config);
}

/// A threshold of the selected pool: the pool's own, else that of its entry for the run's universe; None when neither
/// has one.
Object pool_threshold(const Run& run, Name field) {
    Object threshold = get(run.pool_config, field);
    return threshold.is_none() ? get(run.thresholds, field) : threshold;
}

void gate_correlation(Run& run) {
    const Object column = pnl_column(run, "correlation_pnl_column"_name);
    const Object threshold = pool_threshold(run, "is_correlation_threshold"_name);
    if (threshold.is_none()) {
        raise<ValueError>("era config selected pool missing required is_correlation_threshold");
    }
    if (length(run.pnl_arrays) == 0 || is_stopped(run)) {
        return;
    }
    const Object correlate = global("_correlate_per_pool"_name);
    if (correlate.is_none()) {
        raise<ValueError>("Per-pool correlation function required. Inject _correlate_per_pool to compute pool-level "
                          "correlations.");
    }
    run.is_correlation = call(correlate, "pool_name"_kw = run.pool_name, "pnl_arrays"_kw = run.pnl_arrays,
                              "pnl_column"_kw = column, "threshold"_kw = threshold);
    run.correlation_passed = truth(correlation_gate_passed(run.is_correlation, threshold));
}

/// The entries of the found-signal pool for the ids found.
Object pool_signals(const Run& run) {
    Object signals = new_dict();
    const Object pool = global("_found_signal_pool"_name);
    if (truth(pool)) {
        for (const Object id : each(run.found_ids)) {
            if (contains(pool, id)) {
                set_item(signals, id, item(pool, id));
            }
        }
    }
    return signals;
}

Object mi_threshold(const Run& run) {
    const Name field = run.is_strategy ? "strategy_is_pnl_mi_threshold"_name : "is_pnl_mi_threshold"_name;
    Object threshold = pool_threshold(run, field);
    if (threshold.is_none()) {
        if (run.is_strategy) {
            raise<ValueError>("era config selected strategy pool missing required strategy_is_pnl_mi_threshold");
        }
        raise<ValueError>("era config selected signal pool missing required is_pnl_mi_threshold");
    }
    return threshold;
}

} // namespace

void backtest_and_gate(Run& run) {
    run.report("backtesting"_name, "Backtesting signal against thresholds..."_name);
    run.check_cancelled();
    ensure_fresh(run);
    run.output = call_backtester(run);
    run.check_cancelled();

    run.stats = output_field(run, "stats"_name);
    run.per_column_stats = output_field(run, "per_column_stats"_name);
    run.found_ids = found_signal_ids(run);
    load_found_pnl(run);
    run.thresholds = resolve_pool_universe_thresholds(run.pool_config, run.own("_universe_rule_id"_name));

    run.structural_failed = truth(output_field(run, "structural_failed"_name, boolean(false)));
    run.passed = !run.structural_failed;
    if (!is_stopped(run)) {
        gate_thresholds(run);
    }
    if (run.asks_for("_include_correlation"_name)) {
        gate_correlation(run);
    }
    const bool failed = !run.passed || !run.correlation_passed;
    run.was_diagnostic_only = failed && !run.asks_for("_fail_fast"_name);
}

void gate_marginal_improvement(Run& run) {
    if (!run.asks_for("_include_mi"_name) || is_stopped(run)) {
        return;
    }
    if (differs(attr(run.own("_status"_name), "phase"_name), "computing_mi"_name)) {
        run.report("computing_mi"_name, "Computing marginal improvement score..."_name);
    }
    run.check_cancelled();
    const Object column = pnl_column(run, "mi_pnl_column"_name);
    run.mi_threshold = mi_threshold(run);

    const Object signals = pool_signals(run);
    if (length(signals) == 0) {
        // A first signal in an empty pool improves it without limit.
        run.mi_score = number(std::numeric_limits<double>::infinity());
    } else {
        const auto [score, detail] =
            unpack<2>(call(global("_compute_mi_per_pool"_name), "pool_name"_kw = run.pool_name,
                           "pnl_column"_kw = column, "pool_signals"_kw = signals, "threshold"_kw = run.mi_threshold));
        if (!truth(is_mi_score(score)) || !is_finite(score)) {
            log_warning("mi_computation_unavailable"_name, "extra"_kw = dict_of("pool"_kw = run.pool_name));
            run.mi_passed = boolean(false);
            return;
        }
        run.mi_score = score;
    }
    run.mi_passed = boolean(truth(pnl_mi_gate_passed(run.mi_score, run.mi_threshold)));
}

} // namespace quillstone::simulate_signal
