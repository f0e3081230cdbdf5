#include "quillstone/simulate_signal/era_config.hpp"

namespace quillstone::simulate_signal {

namespace {

// The identifiers under which a pool may be selected, in the order in which pools are indexed.
constexpr std::array signal_pool_keys{"pool_id"_name, "name"_name, "signal_pool_name"_name, "signal_pool_id"_name};
constexpr std::array strategy_pool_keys{"pool_id"_name, "name"_name, "strategy_pool_name"_name,
                                        "strategy_pool_id"_name};

// The keys that name a selected pool at run time, in the order in which they are tried.
constexpr std::array signal_runtime_names{"signal_pool_name"_name, "signal_pool_id"_name, "name"_name, "pool_id"_name};
constexpr std::array strategy_runtime_names{"strategy_pool_name"_name, "strategy_pool_id"_name, "name"_name,
                                            "pool_id"_name};

Object field_name(View expression_type) {
    return View(is_strategy(expression_type) ? "strategy_pool_id"_name : "signal_pool_id"_name);
}

Object validate_pool_id(View pool_id, View field_name) {
    if (!is_str(pool_id) || equals(pool_id, ""_name)) {
        raise<ValueError>("{} must be a non-empty string", text(field_name));
    }
    return pool_id;
}

Object safe_universe(View named_universe) {
    if (named_universe.is_none()) {
        return none();
    }
    Object segment = method(text(named_universe), "strip"_name);
    if (!truth(segment)) {
        return none();
    }
    // Named universes become path segments on disk.
    if (equals(segment, "."_name) || equals(segment, ".."_name) || contains(segment, "/"_name) ||
        contains(segment, "\\"_name) || contains(segment, character(0))) {
        raise<ValueError>("named_universe must be a single safe path segment, got {}", repr(named_universe));
    }
    return segment;
}

Object allowed_universes(View pool) {
    Object allowed = new_list();
    if (!is_dict(pool)) {
        return allowed;
    }
    const Object listed = get(pool, "allowed_named_universes"_name);
    if (is_list(listed)) {
        for (const Object entry : each(listed)) {
            if (const Object universe = safe_named_universe(entry); !universe.is_none()) {
                append(allowed, universe);
            }
        }
    } else if (const Object single = safe_named_universe(get(pool, "named_universe"_name)); truth(single)) {
        append(allowed, single);
    }
    return allowed;
}

Object configured_universe() {
    try {
        const Object config = import_from("quillstone.agent_onboarding"_name, "_config"_name);
        return safe_named_universe(method(config, "get"_name, "named_universe"_name));
    } catch (Raised& raised) {
        const Caught<Exception> not_configured(raised);
        return none();
    }
}

/// The first universe that the pool allows, or an empty object.
Object first_allowed(View pool) {
    const Object allowed = pool_allowed_named_universes(pool);
    return truth(allowed) ? item(allowed, number(0L)) : Object();
}

/// The first universe of the selected pool or, for a strategy pool, of the signal pool that it is linked to.
Object universe_of_selected_pool(View era_config, View expression_type, View selected_pool_id) {
    const Object pool = selected_pool_config(era_config, expression_type, selected_pool_id);
    if (Object universe = first_allowed(pool); universe.exists()) {
        return universe;
    }
    if (!is_strategy(expression_type)) {
        return {};
    }
    const Object signal_pool_id = strategy_signal_pool_id(pool, selected_pool_id);
    return first_allowed(selected_pool_config(era_config, global("SIGNAL"_name), signal_pool_id));
}

/// The first safe universe that any signal pool of the era names, or an empty object.
Object universe_of_any_signal_pool(View era_config) {
    if (era_config.is_none()) {
        return {};
    }
    const Object pools = get(era_config, "signal_pools"_name);
    if (!truth(pools)) {
        return {};
    }
    for (const Object pool : each(pools)) {
        if (!is_dict(pool)) {
            continue;
        }
        if (const Object listed = get(pool, "allowed_named_universes"_name); is_list(listed)) {
            for (const Object entry : each(listed)) {
                if (Object universe = safe_named_universe(entry); truth(universe)) {
                    return universe;
                }
            }
        }
        if (Object universe = safe_named_universe(get(pool, "named_universe"_name)); truth(universe)) {
            return universe;
        }
    }
    return {};
}

Object first_universe(View era_config, View expression_type, View selected_pool_id) {
    if (truth(selected_pool_id)) {
        try {
            if (Object universe = universe_of_selected_pool(era_config, expression_type, selected_pool_id);
                universe.exists()) {
                return universe;
            }
        } catch (Raised& raised) {
            const Caught<Exception> error(raised);
            log_debug("failed to resolve selected pool named universe for %s/%s: %s"_name, expression_type,
                      selected_pool_id, error);
        }
    }
    Object universe = universe_of_any_signal_pool(era_config);
    return universe.exists() ? universe : Object(none());
}

Object resolve_universe(View named_universe, View expression_type, View selected_pool_id) {
    if (Object given = safe_named_universe(named_universe); truth(given)) {
        return given;
    }
    if (Object configured = configured_named_universe(); truth(configured)) {
        return configured;
    }
    if (Object of_pool = first_pool_named_universe(global("_era_config"_name), expression_type, selected_pool_id);
        truth(of_pool)) {
        return of_pool;
    }
    raise<ValueError>("named_universe is required; call quillstone.configure(named_universe=...) or select a pool with "
                      "allowed_named_universes.");
}

Object pool_config(View era_config, View expression_type, View selected_pool_id) {
    const Object field = selected_pool_field_name(expression_type);
    const bool strategy = is_strategy(expression_type);
    const Name pool_key = strategy ? "strategy_pools"_name : "signal_pools"_name;
    const Object pools = get(era_config, pool_key, new_list());
    if (length(pools) == 0) {
        raise<ValueError>("era_config must contain a '{}' key with at least one pool definition.", pool_key);
    }
    const Object pool_by_id = new_dict();
    for (const Object pool : each(pools)) {
        for (const Name key : strategy ? strategy_pool_keys : signal_pool_keys) {
            if (const Object identifier = get(pool, key); truth(identifier)) {
                set_default(pool_by_id, identifier, pool);
            }
        }
    }
    if (!contains(pool_by_id, selected_pool_id)) {
        const Object pool_ids = new_list();
        for (const Object pool : each(pools)) {
            append(pool_ids, get(pool, "pool_id"_name));
        }
        const Object accepted = new_list();
        for (const Object identifier : each(pool_by_id)) {
            append(accepted, format("{}", identifier));
        }
        raise<ValueError>("Unknown {} '{}'. Available {} ids: {}. Valid {} values include: {}", field, selected_pool_id,
                          pool_key, pool_ids, field, join(", "_name, accepted));
    }
    return item(pool_by_id, selected_pool_id);
}

Object runtime_name(View pool, View expression_type, View selected_pool_id) {
    const auto& keys = is_strategy(expression_type) ? strategy_runtime_names : signal_runtime_names;
    if (Object name = first_true(pool, keys); name.exists()) {
        return name;
    }
    const Object tried = new_list();
    for (const Name key : keys) {
        append(tried, key);
    }
    raise<ValueError>("selected {} '{}' declares none of: {}", selected_pool_field_name(expression_type),
                      selected_pool_id, join(", "_name, tried));
}

constexpr Definition functions[] = {
    function<field_name>("_selected_pool_field_name(expression_type)",
                         "Return the name of the argument that selects the pool of an expression type."),
    function<validate_pool_id>("_validate_selected_pool_id(pool_id, field_name)",
                               "Return `pool_id`, which must be a non-empty string."),
    function<safe_universe>(
        "_safe_named_universe(named_universe)",
        "Return the universe's name without surrounding blanks, None when there is none; it must be one path segment."),
    function<allowed_universes>("_pool_allowed_named_universes(pool_cfg)",
                                "Return the list of named universes that a pool may be simulated on."),
    function<configured_universe>("_configured_named_universe()",
                                  "Return the kit-wide configured named universe, or None."),
    function<first_universe>("_first_pool_named_universe(era_cfg, expression_type, selected_pool_id)",
                             "Return the first named universe that the selected pool, or else any signal pool of the "
                             "era, allows; None when there is none."),
    function<resolve_universe>(
        "_resolve_simulation_named_universe(named_universe, expression_type, selected_pool_id)",
        "Return the named universe of a simulation: the given one, else the configured one, else the pool's first."),
    function<pool_config>("_selected_pool_config(era_cfg, expression_type, selected_pool_id)",
                          "Return the era configuration's own dictionary of the selected pool."),
    function<runtime_name>("_selected_pool_runtime_name(pool_cfg, expression_type, selected_pool_id)",
                           "Return the name under which the collaborators know the selected pool."),
};

} // namespace

std::span<const Definition> pool_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
