#pragma once

#include "quillstone/simulate_signal/runtime/runtime.hpp"

// The era configuration: reading it, choosing the selected pool and the named universe, universe rule ids, per-pool
// thresholds, and the links from strategies to signals.

namespace quillstone::simulate_signal {

using namespace runtime;

// Access (era_config/access.cpp).
inline constexpr ModuleFunction<1> resolve_runtime_era_config{"_resolve_runtime_era_config"_name};
inline constexpr ModuleFunction<1> coerce_era_id{"_coerce_era_id"_name};
inline constexpr ModuleFunction<1> era_id_from_manifest{"_era_id_from_manifest"_name};
inline constexpr ModuleFunction<1> derive_synced_era_id{"_derive_synced_era_id"_name};
inline constexpr ModuleFunction<2> required_runtime_data_shape_value{"_required_runtime_data_shape_value"_name};
inline constexpr ModuleFunction<1> primary_evaluation_pnl_column{"_primary_evaluation_pnl_column"_name};

// Pools and named universes (era_config/pools.cpp).
inline constexpr ModuleFunction<1> selected_pool_field_name{"_selected_pool_field_name"_name};
inline constexpr ModuleFunction<2> validate_selected_pool_id{"_validate_selected_pool_id"_name};
inline constexpr ModuleFunction<1> safe_named_universe{"_safe_named_universe"_name};
inline constexpr ModuleFunction<1> pool_allowed_named_universes{"_pool_allowed_named_universes"_name};
inline constexpr ModuleFunction<0> configured_named_universe{"_configured_named_universe"_name};
inline constexpr ModuleFunction<3> first_pool_named_universe{"_first_pool_named_universe"_name};
inline constexpr ModuleFunction<3> resolve_simulation_named_universe{"_resolve_simulation_named_universe"_name};
inline constexpr ModuleFunction<3> selected_pool_config{"_selected_pool_config"_name};
inline constexpr ModuleFunction<3> selected_pool_runtime_name{"_selected_pool_runtime_name"_name};

// Universe rules and pool thresholds (era_config/universe_rules.cpp).
inline constexpr ModuleFunction<1> coerce_int_rule_id{"_coerce_int_rule_id"_name};
inline constexpr ModuleFunction<2> resolve_universe_rule_id_for_sdk{"_resolve_universe_rule_id_for_sdk"_name};
inline constexpr ModuleFunction<2> resolve_pool_universe_thresholds{"_resolve_pool_universe_thresholds"_name};

// Strategies' references to signals (era_config/signal_refs.cpp).
inline constexpr ModuleFunction<2> strategy_signal_pool_id{"_strategy_signal_pool_id"_name};
inline constexpr ModuleFunction<2> metadata_for_signal_ref{"_metadata_for_signal_ref"_name};
inline constexpr ModuleFunction<2> signal_ref_label{"_signal_ref_label"_name};
inline constexpr ModuleFunction<1> metadata_signal_pool_id{"_metadata_signal_pool_id"_name};
inline constexpr ModuleFunction<4> validate_strategy_useful_signal_pools{"_validate_strategy_useful_signal_pools"_name};
inline constexpr ModuleFunction<3> strategy_referenced_signal_ids{"_strategy_referenced_signal_ids"_name};

/// Whether an expression type is the module's `STRATEGY`; anything else counts as a signal.
inline bool is_strategy(View expression_type, Here where = Here::current()) {
    return equals(expression_type, global("STRATEGY"_name, where), where);
}

/// The wired era configuration's era id, 0 without one.
Object configured_era_id();

/// The first value under the keys that is true, or an empty object.
template <class Keys>
Object first_true(View mapping, const Keys& keys, Here where = Here::current()) {
    for (const Name key : keys) {
        if (Object value = get(mapping, key, where); truth(value, where)) {
            return value;
        }
    }
    return {};
}

std::span<const Definition> era_access_functions();
std::span<const Definition> pool_functions();
std::span<const Definition> universe_rule_functions();
std::span<const Definition> signal_ref_functions();

} // namespace quillstone::simulate_signal
