#include "quillstone/simulate_signal/interface.hpp"

namespace quillstone::simulate_signal {

namespace {

constexpr const char* status_doc = R"(Snapshot of simulation progress.

Attributes
----------
phase : str
    "syncing", "initializing", "evaluating", "backtesting", "computing_mi", then "complete", "cancelled" or "error".
progress : float
    A fraction from 0.0 to 1.0: of the bytes while data is synced, 1.0 at completion, 0.0 otherwise.
message : str
    A line for people.
era_id : int
    The era that the simulation runs against.
elapsed_s : float
    Seconds since the handle was created, by the monotonic clock.)";

constexpr const char* result_doc = R"(Wrapper for simulation results with selected-pool evaluation.

Attributes
----------
stats, factor_pnl, per_column_stats, portfolio_returns, processed_weights
    What the backtester returned; the last two only when asked for.
pool_kind : str
    "signal" or "strategy".
signal_pool_id, strategy_pool_id : str or None
    The selected pool; for a strategy also the signal pool that it is linked to.
is_correlation : float
    The correlation with found signals, 0.0 when there are none.
is_pnl_mi : float or None
    The marginal-improvement threshold used, None when that gate was not entered.
was_diagnostic_only : bool
    A gate failed earlier and the later ones were computed under fail_fast=False.
failure_reason, failure_detail : str or None
    The first gate that failed, and its text.
passed : bool
    The structural check and the scalar thresholds passed.
structural_failed : bool
    The backtester's structural check failed.
mi_score : float or None
    The marginal-improvement score; infinite for the first signal of a pool.
mi_passed : bool or None
    None when the score was not computed.
rejection_reason : None
    The rejection text lives in the tracking record.
expression_elapsed_seconds : float
    Seconds spent evaluating the expression.
resolved_metaparameters : dict
    The metaparameters in force for the selected pool.)";

// The fields that the representation shows, in its order.
constexpr std::array shown_fields{"pool_kind"_name,
                                  "signal_pool_id"_name,
                                  "strategy_pool_id"_name,
                                  "passed"_name,
                                  "structural_failed"_name,
                                  "rejection_reason"_name,
                                  "failure_reason"_name,
                                  "failure_detail"_name,
                                  "is_correlation"_name,
                                  "is_pnl_mi"_name,
                                  "was_diagnostic_only"_name,
                                  "mi_score"_name,
                                  "mi_passed"_name,
                                  "expression_elapsed_seconds"_name,
                                  "stats"_name,
                                  "resolved_metaparameters"_name};

Object result_repr(View self) {
    const Object lines = new_list();
    if (truth(attr(self, "was_diagnostic_only"_name))) {
        append(lines, "WARNING: selected pool computed diagnostically under fail_fast=False; these would NOT count as "
                      "Useful on submit."_name);
    }
    append(lines, "SimulationResult("_name);
    for (const Name field : shown_fields) {
        const Object value = attr(self, field);
        append(lines, format("  {}={},", field, repr(value)));
    }
    append(lines, ")"_name);
    return join("\n"_name, lines);
}

constexpr Definition result_methods[] = {
    function<result_repr>("__repr__(self)", "Return the result's fields, a line each; series and weights left out."),
};

} // namespace

Object make_cancelled_error() {
    return make_class("CancelledError"_name, Exception::type(), class_body("Raised when simulation is cancelled."));
}

Object make_simulation_status() {
    const Object nothing_done = number(0.0);
    const Object no_era = number(0L);
    const std::array fields{
        Field{"phase"_name, str_type(), ""_name},
        Field{"progress"_name, float_type(), nothing_done},
        Field{"message"_name, str_type(), ""_name},
        Field{"era_id"_name, int_type(), no_era},
        Field{"elapsed_s"_name, float_type(), nothing_done},
    };
    return make_data_class("SimulationStatus"_name, fields, class_body(status_doc));
}

Object make_simulation_result() {
    const auto field = [](Name name, View default_value = none()) { return Field{name, object_type(), default_value}; };
    const std::array fields{
        field("stats"_name),
        field("factor_pnl"_name),
        field("per_column_stats"_name),
        field("portfolio_returns"_name),
        field("processed_weights"_name),
        field("pool_kind"_name),
        field("signal_pool_id"_name),
        field("strategy_pool_id"_name),
        field("is_correlation"_name),
        field("is_pnl_mi"_name),
        field("was_diagnostic_only"_name, boolean(false)),
        field("failure_reason"_name),
        field("failure_detail"_name),
        field("passed"_name, boolean(true)),
        field("structural_failed"_name, boolean(false)),
        field("mi_score"_name),
        field("mi_passed"_name),
        field("rejection_reason"_name),
        field("expression_elapsed_seconds"_name),
        field("resolved_metaparameters"_name),
    };
    const Object attributes = class_body(result_doc);
    define_functions(attributes, result_methods, "SimulationResult");
    return make_data_class("SimulationResult"_name, fields, attributes);
}

} // namespace quillstone::simulate_signal
