#include "quillstone/simulate_signal/gates.hpp"

#include "quillstone/simulate_signal/era_config.hpp"

#include <cmath>

namespace quillstone::simulate_signal {

bool is_finite(View value, Here where) {
    return truth(method(Target(global("math"_name, where), where), "isfinite"_name, value), where);
}

Object column_stat(View per_column_stats, View column, Name suffix, Here where) {
    return get(per_column_stats, add(format("{}", column), suffix, where), number(0.0), where);
}

namespace {

Object finite_metric(View value, View fallback) {
    Object numeric;
    try {
        numeric = to_float(value);
    } catch (Raised& raised) {
        // An int beyond the range of floats is as little a metric as a text is.
        const Caught<TypeError, ValueError, OverflowError> not_a_number(raised);
        return fallback;
    }
    return is_finite(numeric) ? numeric : Object(fallback);
}

bool usable_mi_score(View value) {
    // The exact types: a bool is no number here, and neither are other numeric types.
    if (type_of(value).is(float_type())) {
        return !std::isnan(as_double(value));
    }
    if (!type_of(value).is(int_type())) {
        return false;
    }
    try {
        static_cast<void>(to_float(value));
        return true;
    } catch (Raised& raised) {
        const Caught<OverflowError> beyond_the_float_range(raised);
        return false;
    }
}

Object metric_gate_passed(View metrics, View pool_thresholds) {
    return attr(call(global("evaluate_threshold_gates"_name), "metrics"_kw = metrics,
                     "threshold_set"_kw = global("_POOL_METRIC_THRESHOLD_SET"_name),
                     "pool_thresholds"_kw = pool_thresholds),
                "passed"_name);
}

Object mi_gate_passed(View score, View threshold) {
    return pool_metric_gate_passed(dict_of("is_pnl_mi"_kw = score), dict_of("is_pnl_mi_threshold"_kw = threshold));
}

Object correlation_passed(View correlation, View threshold) {
    return pool_metric_gate_passed(dict_of("is_correlation"_kw = correlation),
                                   dict_of("is_correlation_threshold"_kw = threshold));
}

/// A copy, so that the tracker never shares the backtester's mappings.
Object copied(View mapping) {
    return truth(mapping) ? to_dict(mapping) : new_dict();
}

Object tracking_stats(View backtest_stats, View per_column_stats, View era_config) {
    const Object column = primary_evaluation_pnl_column(era_config);
    const Object stats = truth(per_column_stats) ? Object(per_column_stats) : new_dict();
    const Object sharpe = column_stat(stats, column, "_sharpe"_name);
    const Object returns = column_stat(stats, column, "_returns"_name);
    const Object drawdown = column_stat(stats, column, "_drawdown"_name);
    const Object quality_score = column_stat(stats, column, "_quality_score"_name);
    const Object turnover = attr(backtest_stats, "avg_turnover"_name);
    const Object delta_exposure = attr(backtest_stats, "delta_exposure"_name);
    const Object max_weight = attr(backtest_stats, "max_weight"_name);
    const Object liquidity_metrics = attr(backtest_stats, "liquidity_metrics"_name);
    const Object custom_stats = attr(backtest_stats, "custom_stats"_name);

    const Object fields = new_dict();
    set_item(fields, "sharpe"_name, tracking_metric(sharpe));
    set_item(fields, "returns"_name, tracking_metric(returns));
    set_item(fields, "turnover"_name, tracking_metric(turnover));
    set_item(fields, "drawdown"_name, tracking_metric(drawdown));
    set_item(fields, "delta_exposure"_name, tracking_metric(delta_exposure));
    set_item(fields, "max_weight"_name, tracking_metric(max_weight));
    set_item(fields, "quality_score"_name, tracking_metric(quality_score));
    set_item(fields, "correlation"_name, number(0.0));
    set_item(fields, "liquidity_metrics"_name, copied(liquidity_metrics));
    set_item(fields, "custom_stats"_name, copied(custom_stats));
    return call_with_keywords(global("_TrackingStats"_name), fields);
}

constexpr Definition functions[] = {
    function<finite_metric>("_tracking_metric(value, default=0.0)",
                            "Return `value` as a finite float, or `default` when it is none."),
    function<usable_mi_score>("_is_mi_score(value)",
                              "Tell whether `value` is a usable mutual-information score: an int or float, not NaN."),
    function<metric_gate_passed>("_pool_metric_gate_passed(metrics, pool_thresholds)",
                                 "Judge one pool metric by the kit's shared gate, all scalar thresholds bypassed."),
    function<mi_gate_passed>("_pnl_mi_gate_passed(score, threshold)",
                             "Judge a PnL mutual-information score by the kit's shared gate."),
    function<correlation_passed>("_correlation_gate_passed(correlation, threshold)",
                                 "Judge a correlation with found signals by the kit's shared gate."),
    function<tracking_stats>("_build_tracking_stats(bt_stats, per_column_stats, era_config)",
                             "Return the tracker's statistics record of one backtest, every number finite."),
};

} // namespace

std::span<const Definition> gate_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
