#include "quillstone/simulate_signal/vocabulary.hpp"

namespace quillstone::simulate_signal {

namespace {

constexpr Py_ssize_t shuffle_seed_size = 60;

/// A copy of the snapshot's mapping; an empty one when it is missing.
Object artifact_shas(View snapshot, Name attribute) {
    const Object shas = attr_or(snapshot, attribute, none());
    return truth(shas) ? to_dict(shas) : new_dict();
}

Object freshness_state(View guard) {
    if (!guard.is_none()) {
        try {
            const Object snapshot = attr(guard, "snapshot"_name);
            const Object pending = artifact_shas(snapshot, "pending_data_artifact_shas"_name);
            const Object loaded = artifact_shas(snapshot, "loaded_data_artifact_shas"_name);
            return tuple_of(pending, loaded);
        } catch (Raised& raised) {
            // A guard that cannot tell counts as one that refreshed nothing.
            const Caught<Exception> error(raised);
        }
    }
    return tuple_of(new_dict(), new_dict());
}

bool is_artifact_path(View path, View named_universe) {
    Object normalized = text(path);
    if (!ends_with(normalized, "vocabulary.json"_name)) {
        return false; // whichever separator there is
    }
    if (contains(normalized, "\\"_name)) {
        normalized = method(normalized, "replace"_name, "\\"_name, "/"_name);
    }
    if (!ends_with(normalized, "/vocabulary.json"_name)) {
        return false;
    }
    if (!truth(named_universe)) {
        return true;
    }
    // A relative path may start with the universe's directory.
    const Object directory = add(text(named_universe), "/"_name);
    return starts_with(normalized, directory) || contains(normalized, add("/"_name, directory));
}

bool refreshed(View before_state, View after_state, View named_universe) {
    const auto [before_pending, before_loaded] = unpack<2>(before_state);
    const auto [after_pending, after_loaded] = unpack<2>(after_state);
    Items pending = items(before_pending);
    Steps steps;
    for (Object path, expected_sha; pending.next(path, expected_sha); steps.step()) {
        if (!truth(is_vocabulary_artifact_path(path, named_universe)) || contains(after_pending, path)) {
            continue;
        }
        if (equals(get(after_loaded, path), expected_sha) && differs(get(before_loaded, path), expected_sha)) {
            return true;
        }
    }
    return false;
}

void reload_from_disk(View data_dir) {
    const Object load_vocabulary = import_from("quillstone.obfuscation"_name, "load_vocabulary"_name);
    const Object vocabulary = call(load_vocabulary, data_dir);
    set_global("_vocabulary_raw"_name, vocabulary);
    const Object backtester = global("_backtester"_name);
    if (attr_or(backtester, "raw_vocabulary"_name, View()).exists()) {
        set_attr(backtester, "raw_vocabulary"_name, vocabulary);
    }
}

/// The injected loader, in falling order of arity.
Object load_by_injected_loader(View load, View era_id, View named_universe) {
    return first_accepted([&] { return call(load, "era_id"_kw = era_id, "named_universe"_kw = named_universe); },
                          [&] { return call(load, era_id); }, [&] { return call(load); });
}

void reload(View named_universe) {
    const Object data_dir = attr_or(global("_sync_manager"_name), "_data_dir"_name, none());
    if (truth(data_dir)) {
        try {
            in_frame("_reload_runtime_vocabulary_after_freshness"_name, [&] { reload_from_disk(data_dir); });
            return;
        } catch (Raised& raised) {
            const Caught<Exception> error(raised);
            log_debug("failed to reload runtime vocabulary from disk"_name, "exc_info"_kw = true);
        }
    }
    const Object load = global("_load_vocabulary"_name);
    const Object era_config = global("_era_config"_name);
    if (load.is_none() || era_config.is_none()) {
        return;
    }
    const Object era_id = get(era_config, "era_id"_name);
    set_global("_vocabulary_raw"_name, load_by_injected_loader(load, era_id, named_universe));
}

Object validate_seed(View shuffle_blob) {
    if (!is_bytes(shuffle_blob)) {
        raise<ValueError>("shuffle_seed.enc must be bytes");
    }
    if (const Py_ssize_t size = length(shuffle_blob); size != shuffle_seed_size) {
        raise<ValueError>("Shuffle seed must be 60 bytes, got {}", number(static_cast<long>(size)));
    }
    return shuffle_blob;
}

[[noreturn]] void raise_seed_required() {
    raise<RuntimeError>("shuffle_seed.enc is required for simulation reconstruction. Run data sync or pass a sync "
                        "manager/data_dir that exposes the synced seed.");
}

Object read_bytes(View path) {
    const Object file = call(import_from("io"_name, "open"_name), path, "rb"_name);
    Object content;
    with(file, [&] { content = method(file, "read"_name); });
    return content;
}

Object load_seed(View data_dir) {
    if (!truth(data_dir)) {
        raise_seed_required();
    }
    const Object path = method(attr(global("os"_name), "path"_name), "join"_name, data_dir, "shuffle_seed.enc"_name);
    Object shuffle_blob;
    try {
        shuffle_blob = read_bytes(path);
    } catch (Raised& raised) {
        const Caught<OSError> unreadable(raised);
        raise_seed_required();
    }
    validate_shuffle_blob(shuffle_blob);
    return shuffle_blob;
}

constexpr Definition functions[] = {
    function<freshness_state>("_runtime_vocabulary_freshness_state(guard)",
                              "Return the guard's (pending, loaded) artifact hashes as a pair of new dicts."),
    function<is_artifact_path>("_is_vocabulary_artifact_path(path, named_universe=None)",
                               "Tell whether a path is a vocabulary artifact (of the named universe, if given)."),
    function<refreshed>("_runtime_vocabulary_refreshed(before_state, after_state, named_universe=None)",
                        "Tell whether a pending vocabulary artifact was loaded between two freshness states."),
    function<reload>("_reload_runtime_vocabulary_after_freshness(named_universe=None)",
                     "Load the raw vocabulary anew, from the data directory or else by the injected loader."),
    function<load_seed>("_load_runtime_shuffle_blob(data_dir)",
                        "Return the era's enciphered reconstruction seed, 60 bytes, from the synced data directory."),
    function<validate_seed>("_validate_shuffle_blob(shuffle_blob)",
                            "Return the enciphered reconstruction seed, which must be 60 bytes."),
};

} // namespace

std::span<const Definition> freshness_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
