#include "quillstone/simulate_signal/era_config.hpp"

namespace quillstone::simulate_signal {

namespace {

Object positive_or_none(View value) {
    return greater(value, 0L) ? value : none();
}

Object coerce_rule_id(View value) {
    if (value.is_none() || is_bool(value)) {
        return none();
    }
    if (is_int(value)) {
        return positive_or_none(value);
    }
    if (!is_str(value)) {
        return none();
    }
    const Object digits = method(value, "strip"_name);
    if (!truth(method(digits, "isdecimal"_name))) {
        return none();
    }
    Object parsed;
    try {
        parsed = to_int(digits);
    } catch (Raised& raised) {
        const Caught<ValueError> not_a_number(raised);
        return none();
    }
    return positive_or_none(parsed);
}

Object universe_rule_id(View era_config, View named_universe) {
    // The key of an older shape of the configuration; its rule ids may not be read some other way.
    if (contains(era_config, "universes"_name)) {
        raise_object(call(global("SdkRuntimeNotReadyError"_name)));
    }
    const Object rules = get(era_config, "universe_rules"_name);
    if (!is_dict(rules)) {
        return none();
    }
    const Object rule = get(rules, named_universe);
    if (!is_dict(rule)) {
        return none();
    }
    return coerce_int_rule_id(get(rule, "rule_id"_name));
}

Object pool_thresholds(View pool, View rule_id) {
    const Object universes = get(pool, "universes"_name, new_dict());
    if (!is_dict(universes)) {
        return new_dict();
    }
    // One key of an older shape spoils the whole mapping, also when the wanted entry is there.
    for (const Object key : each(universes)) {
        if (!is_int(key) || is_bool(key) || !greater(key, 0L)) {
            raise_object(call(global("SdkRuntimeNotReadyError"_name)));
        }
    }
    if (rule_id.is_none() || !contains(universes, rule_id)) {
        return new_dict();
    }
    return item(universes, rule_id);
}

constexpr Definition functions[] = {
    function<coerce_rule_id>("_coerce_int_rule_id(value)",
                             "Return `value` as a universe rule id, a positive int, or None. A bool is never one."),
    function<universe_rule_id>("_resolve_universe_rule_id_for_sdk(era_cfg, named_universe)",
                               "Return the universe rule id of a named universe, or None."),
    function<pool_thresholds>("_resolve_pool_universe_thresholds(pool_cfg, universe_rule_id)",
                              "Return the pool's entry for a universe rule id, or a new empty dict."),
};

} // namespace

std::span<const Definition> universe_rule_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
