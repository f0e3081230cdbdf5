#include "quillstone/simulate_signal/era_config.hpp"

namespace quillstone::simulate_signal {

namespace {

// The keys that identify a signal in its metadata, in the order in which they are tried.
constexpr std::array identifier_keys{"graph_hash"_name, "submission_id"_name, "id"_name, "signal_id"_name};

Object linked_signal_pool_id(View strategy_pool, View strategy_pool_id) {
    Object linked = get(strategy_pool, "signal_pool_name"_name);
    if (!truth(linked)) {
        raise<ValueError>("Strategy pool '{}' must declare a linked signal pool via signal_pool_name.",
                          text(strategy_pool_id));
    }
    return linked;
}

Object metadata_of(View signal_ref, View useful_signal_metadata) {
    if (useful_signal_metadata.is_none() || contains(useful_signal_metadata, signal_ref)) {
        return item(useful_signal_metadata, signal_ref);
    }
    const Object ref_text = text(signal_ref);
    if (Object found = get(useful_signal_metadata, ref_text); !found.is_none()) {
        return found;
    }
    Steps steps;
    for (Object metadata : each(method(useful_signal_metadata, "values"_name))) {
        steps.step();
        for (const Name key : identifier_keys) {
            if (equals(get(metadata, key), ref_text)) {
                return metadata;
            }
        }
    }
    return none();
}

Object label_of(View signal_ref, View metadata) {
    Object label = metadata.is_none() ? Object() : first_true(metadata, identifier_keys);
    return label.exists() ? label : Object(signal_ref);
}

Object signal_pool_id_of(View metadata) {
    if (metadata.is_none()) {
        return none();
    }
    Object pool_id = get(metadata, "signal_pool_id"_name);
    return truth(pool_id) ? pool_id : Object(none());
}

void validate_useful_signal_pools(View strategy_pool_id, View strategy_pool, View useful_signals,
                                  View useful_signal_metadata) {
    const Object expected = strategy_signal_pool_id(strategy_pool, strategy_pool_id);
    for (const Object ref : each(useful_signals)) {
        const Object metadata = metadata_for_signal_ref(ref, useful_signal_metadata);
        const Object actual = metadata_signal_pool_id(metadata);
        if (!actual.is_none() && differs(actual, expected)) {
            raise<ValueError>("Strategy pool '{}' is linked to signal pool '{}', but useful signal '{}' belongs to "
                              "signal pool '{}'. Strategies may only reference useful signals from the same pool.",
                              text(strategy_pool_id), text(expected), text(signal_ref_label(ref, metadata)),
                              text(actual));
        }
    }
}

Object referenced_signal_ids(View useful_signals, View useful_signal_metadata, View pool) {
    Object ids = new_list();
    if (truth(useful_signals)) {
        for (const Object ref : each(useful_signals)) {
            const Object metadata = metadata_for_signal_ref(ref, useful_signal_metadata);
            if (const Object label = signal_ref_label(ref, metadata); truth(label)) {
                append(ids, text(label));
            }
        }
    }
    if (length(ids) == 0) {
        for (const Object id : each(get(pool, "found_signal_ids"_name, new_list()))) {
            append(ids, text(id));
        }
    }
    return ids;
}

constexpr Definition functions[] = {
    function<linked_signal_pool_id>("_strategy_signal_pool_id(strategy_pool_cfg, strategy_pool_id)",
                                    "Return the identifier of the signal pool that a strategy pool is linked to."),
    function<metadata_of>("_metadata_for_signal_ref(signal_ref, useful_signal_metadata)",
                          "Return the metadata of a useful-signal reference, or None."),
    function<label_of>("_signal_ref_label(signal_ref, metadata)",
                       "Return the first identifier in the metadata, else the reference itself."),
    function<signal_pool_id_of>("_metadata_signal_pool_id(metadata)",
                                "Return the signal pool id recorded in a signal's metadata, or None."),
    function<validate_useful_signal_pools>(
        "_validate_strategy_useful_signal_pools(strategy_pool_id, strategy_pool_cfg, useful_signals, "
        "useful_signal_metadata)",
        "Check that every useful signal belongs to the strategy pool's linked signal pool."),
    function<referenced_signal_ids>("_strategy_referenced_signal_ids(useful_signals, useful_signal_metadata, pool_cfg)",
                                    "Return the ids, as strings, of the signals that a strategy refers to."),
};

} // namespace

std::span<const Definition> signal_ref_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
