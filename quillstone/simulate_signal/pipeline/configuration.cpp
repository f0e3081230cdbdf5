#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/pipeline/run.hpp"
#include "quillstone/simulate_signal/vocabulary.hpp"
#include "quillstone/simulate_signal/weights.hpp"

namespace quillstone::simulate_signal {

namespace {

[[noreturn]] void raise_validator_required() {
    raise<RuntimeError>("GraphValidator runtime is required for simulation. Initialize the synced graph validation "
                        "runtime before calling simulate_signal().");
}

Object make_validator(View vocabulary) {
    const auto [validator_class, config_class] = unpack<2>(import_graph_validator_runtime());
    if (!truth(is_function_store_registry(vocabulary))) {
        raise<TypeError>("GraphValidator requires a FunctionStore registry in runtime simulation");
    }
    Object raw = global("_vocabulary_raw"_name);
    if (!truth(raw)) {
        raw = new_dict();
    }
    const Object make_config = import_from("quillstone._runtime"_name, "_graph_validator_config"_name);
    const Object make_names = import_from("quillstone._runtime"_name, "_graph_validator_names"_name);
    const Object config = call(make_config, raw);
    const Object names = call(make_names, raw);
    return call(validator_class, vocabulary, config, names);
}

void bootstrap_validator() {
    const Object vocabulary = global("_vocabulary"_name);
    if (!global("_graph_validator"_name).is_none() || vocabulary.is_none()) {
        return;
    }
    try {
        const Object validator =
            in_frame("_bootstrap_graph_validator"_name, [&] { return make_validator(vocabulary); });
        set_global("_graph_validator"_name, validator);
    } catch (Raised& raised) {
        if (raised.matches(global("SdkRuntimeNotReadyError"_name))) {
            throw;
        }
        const Caught<Exception> error(raised);
        log_warning("Failed to bootstrap _graph_validator: %s"_name, error);
        raise_validator_required();
    }
}

bool any_default_per_pool(View transform_pipeline) {
    for (const Object stage : each(transform_pipeline)) {
        if (truth(stage_value(stage, "per_pool_default"_name, none()))) {
            return true;
        }
    }
    return false;
}

[[noreturn]] void raise_unknown_universe(const Run& run) {
    const Object rules = get(run.era_config, "universe_rules"_name);
    const Object available = is_mapping(rules) ? to_list(rules) : new_list();
    method(available, "sort"_name);
    const Object listed = get(run.era_config, "allowed_named_universes"_name);
    const Object allowed = truth(listed) ? to_list(listed) : new_list();
    raise<ValueError>("Unknown named_universe '{}'. Available named_universe values: {}. Allowed named_universe "
                      "values: {}",
                      run.own("_named_universe"_name), available, allowed);
}

} // namespace

void resolve_configuration(Run& run) {
    run.era_config = resolve_runtime_era_config(run.era_id);
    bootstrap_validator();
    run.transform_pipeline = get(run.era_config, "transform_pipeline"_name);
    if (run.transform_pipeline.is_none()) {
        raise(global("SdkRuntimeNotReadyError"_name), "missing required era config field: transform_pipeline");
    }
    run.requested_metaparameters = run.own("_metaparameters"_name);
    if (any_default_per_pool(run.transform_pipeline)) {
        run.requested_metaparameters =
            call(global("_resolve_metaparameters"_name), run.requested_metaparameters, run.transform_pipeline);
    }
    const Object rule_id = resolve_universe_rule_id_for_sdk(run.era_config, run.own("_named_universe"_name));
    set_attr(run.handle, "_universe_rule_id"_name, rule_id);
    if (rule_id.is_none()) {
        raise_unknown_universe(run);
    }
}

void validate_graph_and_select_pool(Run& run) {
    const Object validator = global("_graph_validator"_name);
    if (validator.is_none()) {
        raise_validator_required();
    }
    const Object expression_type = run.own("_expression_type"_name);
    method(validator, "validate"_name, run.own("_graph"_name), expression_type);
    if (run.is_strategy && (!truth(global("_useful_signals"_name)) || !truth(global("_useful_signal_pool"_name)))) {
        raise<ValueError>("No useful signals match the filtration criteria. Cannot execute strategy graph without "
                          "useful signals.");
    }

    const Object pool_id = run.own("_selected_pool_id"_name);
    run.pool_config = selected_pool_config(run.era_config, expression_type, pool_id);
    const Object allowed = pool_allowed_named_universes(run.pool_config);
    const Object named_universe = run.own("_named_universe"_name);
    if (truth(allowed) && !contains(allowed, named_universe)) {
        raise<ValueError>("named_universe '{}' is not in selected pool allowed_named_universes={}", named_universe,
                          repr(allowed));
    }
    run.pool_name = selected_pool_runtime_name(run.pool_config, expression_type, pool_id);
    run.signal_pool_id = run.is_strategy ? strategy_signal_pool_id(run.pool_config, pool_id) : pool_id;
    if (run.is_strategy) {
        validate_strategy_useful_signal_pools(pool_id, run.pool_config, global("_useful_signals"_name),
                                              global("_useful_signal_metadata"_name));
    }
    const Object by_pool =
        call(global("_canonicalize_metaparameters"_name),
             call(global("_resolve_metaparameters_per_pool"_name), run.requested_metaparameters, list_of(pool_id)));
    run.metaparameters = get(by_pool, pool_id, new_dict());
}

} // namespace quillstone::simulate_signal
