#pragma once

#include "quillstone/simulate_signal/runtime/runtime.hpp"

// The gate predicates, and the bridge from the backtester's statistics to the tracker's.

namespace quillstone::simulate_signal {

using namespace runtime;

inline constexpr ModuleFunction<1> tracking_metric{"_tracking_metric"_name};
inline constexpr ModuleFunction<1> is_mi_score{"_is_mi_score"_name};
inline constexpr ModuleFunction<2> pool_metric_gate_passed{"_pool_metric_gate_passed"_name};
inline constexpr ModuleFunction<2> pnl_mi_gate_passed{"_pnl_mi_gate_passed"_name};
inline constexpr ModuleFunction<2> correlation_gate_passed{"_correlation_gate_passed"_name};
inline constexpr ModuleFunction<3> build_tracking_stats{"_build_tracking_stats"_name};

/// `math.isfinite(value)`, through the module's `math`
bool is_finite(View value, Here where = Here::current());

/// The value of one of a PnL column's statistics, 0.0 when it is not there.
Object column_stat(View per_column_stats, View column, Name suffix, Here where = Here::current());

std::span<const Definition> gate_functions();

} // namespace quillstone::simulate_signal
