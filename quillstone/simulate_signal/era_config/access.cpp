#include "quillstone/simulate_signal/era_config.hpp"

namespace quillstone::simulate_signal {

Object configured_era_id() {
    const Object era_config = global("_era_config"_name);
    Object no_era = number(0L);
    return era_config.is_none() ? no_era : get(era_config, "era_id"_name, no_era);
}

namespace {

Object resolve(View era_id) {
    const Object stored = global("_era_config"_name);
    if (stored.is_none()) {
        raise<RuntimeError>(
            "era_config is required for simulation. Call init_simulate_signal(..., era_config=...) with "
            "the synced era config.");
    }
    // A copy, so that wiring the module anew does not change the configuration of a run under way.
    Object config = to_dict(stored);
    if (!contains(config, "era_id"_name)) {
        raise<ValueError>("era_config missing required field: era_id");
    }
    const Object configured = get(config, "era_id"_name);
    if (differs(configured, era_id)) {
        raise(global("EraError"_name), "Synced era_id={} does not match era_config era_id={}", era_id, configured);
    }
    return config;
}

Object coerce(View value) {
    if (value.is_none() || is_bool(value)) {
        return none();
    }
    Object era_id;
    try {
        era_id = to_int(value);
    } catch (Raised& raised) {
        const Caught<TypeError, ValueError> not_a_number(raised);
        return none();
    }
    return greater(number(0L), era_id) ? Object(none()) : era_id;
}

Object from_manifest(View manifest) {
    if (manifest.is_none()) {
        return none();
    }
    if (is_dict(manifest)) {
        return coerce_era_id(get(manifest, "era_id"_name));
    }
    return coerce_era_id(attr_or(manifest, "era_id"_name, none()));
}

Object derive_synced(View sync_manager) {
    Object era_id = era_id_from_manifest(method(sync_manager, "get_manifest"_name));
    if (era_id.is_none()) {
        raise_object(call(global("SdkRuntimeNotReadyError"_name)));
    }
    return era_id;
}

[[noreturn]] void raise_missing_field(View field) {
    raise(global("SdkRuntimeNotReadyError"_name), "missing required runtime data-shape field: {}", text(field));
}

Object required_data_shape_value(View era_config, View field) {
    Object value = get(era_config, field);
    if (value.is_none()) {
        raise_missing_field(field);
    }
    return value;
}

Object primary_pnl_column(View era_config) {
    const Object columns = required_runtime_data_shape_value(era_config, "evaluation_pnl_columns"_name);
    if (!truth(columns)) {
        raise_missing_field("evaluation_pnl_columns"_name);
    }
    return item(columns, number(0L));
}

constexpr Definition functions[] = {
    function<resolve>("_resolve_runtime_era_config(era_id)",
                      "Return a shallow copy of the wired era configuration, which must be the one of `era_id`."),
    function<coerce>("_coerce_era_id(value)",
                     "Return `value` as an era id, an int of 0 or more, or None. A bool is never an era id."),
    function<from_manifest>("_era_id_from_manifest(manifest)",
                            "Return the era id of a manifest (a dict, or an object with `era_id`), or None."),
    function<derive_synced>("_derive_synced_era_id(sync_manager)",
                            "Return the era id of the data that the sync manager holds."),
    function<required_data_shape_value>("_required_runtime_data_shape_value(era_config, field)",
                                        "Return a field of the era configuration that must not be None."),
    function<primary_pnl_column>("_primary_evaluation_pnl_column(era_config)",
                                 "Return the first of the era's evaluation PnL columns."),
};

} // namespace

std::span<const Definition> era_access_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
