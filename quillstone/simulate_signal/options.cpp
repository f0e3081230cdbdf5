#include "quillstone/simulate_signal/options.hpp"

#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/weights.hpp"

#include <algorithm>
#include <unordered_map>
#include <vector>

namespace quillstone::simulate_signal {

namespace {

constexpr const char* options_doc =
    R"(Per-era SDK simulation-options surface.

Parameters
----------
era_config : dict or typed era configuration
    The synced era configuration.

Returns
-------
dict
    A new dictionary with two keys: "universe_options", a list of dictionaries with "id", "named_universe",
    "rule_id" and, where the rule has one, "market_id" and "pool_id", ordered by the universe's name; and
    "engine_definitions", a plain copy of the era's engine catalog (string keys, lists for tuples).

Raises
------
SdkRuntimeNotReadyError
    When the configuration carries no engine catalog.)";

/// `getattr(object, name, None)`, as an iterable; None and anything empty count as no items.
Each each_of_attribute(View object, Name name) {
    const Object value = attr_or(object, name, none());
    return truth(value) ? each(value) : each(tuple_of());
}

/// The universes that the era allows; when it names none itself, those that its signal pools allow.
Object allowed_universes(View era_config) {
    Object allowed = to_set(tuple_of());
    for (const Object name : each_of_attribute(era_config, "allowed_named_universes"_name)) {
        add_to_set(allowed, name);
    }
    if (length(allowed) == 0) {
        for (const Object pool : each_of_attribute(era_config, "signal_pools"_name)) {
            for (const Object name : each_of_attribute(pool, "allowed_named_universes"_name)) {
                if (truth(name)) {
                    add_to_set(allowed, text(name));
                }
            }
        }
    }
    return allowed;
}

struct Rule {
    Object name; // the string form of its key
    Object rule;
    std::size_t position = 0;
};

std::vector<Rule> sorted_rules(View rules) {
    std::vector<Rule> sorted;
    Items entries = items(rules);
    for (Object key, rule; entries.next(key, rule);) {
        sorted.push_back({text(key), rule, sorted.size()});
    }
    std::ranges::sort(sorted, [](const Rule& left, const Rule& right) {
        const int order = compare_texts(left.name, right.name);
        return order < 0 || (order == 0 && left.position < right.position);
    });
    return sorted;
}

Object list_universes(View era_config) {
    const Object allowed = allowed_universes(era_config);
    Object options = new_list();
    const Object rules = attr_or(era_config, "universe_rules"_name, none());
    if (!truth(rules) || !is_dict(rules)) {
        return options;
    }
    const bool all_allowed = length(allowed) == 0;
    Steps steps;
    for (const auto& [name, rule, position] : sorted_rules(rules)) {
        steps.step();
        if (!is_dict(rule)) {
            continue;
        }
        const Object rule_id = coerce_int_rule_id(get(rule, "rule_id"_name));
        if (rule_id.is_none() || !(all_allowed || contains(allowed, name))) {
            continue;
        }
        Object option = dict_of("id"_kw = name, "named_universe"_kw = name, "rule_id"_kw = to_int(rule_id));
        for (const Name key : {"market_id"_name, "pool_id"_name}) {
            if (const Object id = coerce_int_rule_id(get(rule, key)); !id.is_none()) {
                set_item(option, key, to_int(id));
            }
        }
        append(options, option);
    }
    return options;
}

constexpr Name plain_copy_name = "_plain_engine_definition_payload"_name;

Object plain_copy(View value);

/// The plain copy of one payload.
class PlainCopy {
  public:
    Object of(View value) {
        const bool dictionary = is_dict(value);
        if (!dictionary && !is_list(value) && !is_tuple(value)) {
            return value;
        }
        if (const auto made = copies_.find(value.get()); made != copies_.end()) {
            return made->second;
        }
        const RecursionLevel level(depth_);
        Object copy = dictionary ? dictionary_of(value) : list_of_items(value);
        // Every part gets a copy of its own, as long as that can end: a payload that refers to its own parts over and
        // over would grow without bound.
        if (++parts_ > most_copied_anew) {
            originals_.add(value);
            copies_.emplace(value.get(), copy);
        }
        return copy;
    }

  private:
    Object dictionary_of(View source) {
        // Nearly all is plain data, so only what has parts of its own has to be replaced in a ready copy.
        if (Object copy = copy_text_keyed(source); copy.exists()) {
            Items entries = items(copy);
            for (Object key, value; entries.next(key, value);) {
                if (!is_own_copy(value)) {
                    set_item(copy, key, item_copy(value));
                }
            }
            return copy;
        }
        Object copy = new_dict();
        Items entries = items(source);
        for (Object key, value; entries.next(key, value);) {
            const Object key_text = text(key);
            set_item(copy, key_text, item_copy(value));
        }
        return copy;
    }

    Object list_of_items(View source) {
        if (Object copy = copy_array(source); copy.exists()) {
            Py_ssize_t index = 0;
            for (const Object value : each(copy)) {
                if (!is_own_copy(value)) {
                    set_item_at(copy, index, item_copy(value));
                }
                ++index;
            }
            return copy;
        }
        Object copy = new_list();
        for (const Object value : each(source)) {
            append(copy, item_copy(value));
        }
        return copy;
    }

    bool is_own_copy(View value) {
        steps_.step();
        return is_plain_scalar(value) && is_bound_to<plain_copy>(plain_copy_name);
    }

    Object item_copy(View value) {
        steps_.step();
        return is_bound_to<plain_copy>(plain_copy_name) ? of(value) : plain_engine_definition_payload(value);
    }

    static constexpr std::size_t most_copied_anew = 1'000'000;
    std::size_t parts_ = 0;
    Visited originals_;
    std::unordered_map<PyObject*, Object> copies_;
    int depth_ = 0;
    Steps steps_;
};

Object plain_copy(View value) {
    return PlainCopy().of(value);
}

Object engine_definitions(View source_era_config, View /*typed_era_config*/) {
    // The catalog is the synced payload itself; a typed configuration may have lost parts of it.
    const Object payload = read_field(source_era_config, "engine_definitions"_name, none());
    if (payload.is_none()) {
        raise(global("SdkRuntimeNotReadyError"_name), "engine_definitions missing from synced era config");
    }
    if (!is_dict(payload)) {
        raise(global("SdkRuntimeNotReadyError"_name), "engine_definitions must be the synced canonical agent payload");
    }
    return plain_engine_definition_payload(payload);
}

Object effective_options(View era_config) {
    const Object typed = call(import_from("quillstone._runtime"_name, "sdk_era_config_from_dict"_name), era_config);
    const Object universes = universe_options(typed);
    const Object engines = engine_definitions_from_agent_payload(era_config, typed);
    return dict_of("universe_options"_kw = universes, "engine_definitions"_kw = engines);
}

constexpr Definition functions[] = {
    function<effective_options>("effective_simulation_options(era_config)", options_doc),
    function<list_universes>("_universe_options(era_config)",
                             "Build the universe-options list from a typed EraConfig."),
    function<engine_definitions>("_engine_definitions_from_agent_payload(source_era_config, typed_era_config)",
                                 "Return a plain copy of the engine catalog in the synced era configuration."),
    function<plain_copy>("_plain_engine_definition_payload(value)",
                         "Return a copy in which keys are strings, and lists and tuples are new lists."),
    function<stage_field>("_stage_attr(stage, key, default=None)",
                          "Return a field of a stage, which is a dict or an object with attributes."),
};

} // namespace

std::span<const Definition> option_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
