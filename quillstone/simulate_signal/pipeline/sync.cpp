#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/pipeline/run.hpp"
#include "quillstone/simulate_signal/vocabulary.hpp"

namespace quillstone::simulate_signal {

namespace {

constexpr double post_acquire_gate_seconds = 5.0;
constexpr double shared_sync_seconds = 30.0;

constexpr Name syncing = "syncing"_name;
constexpr Name plain_message = "Syncing data from server..."_name;

void acquire(Run& run) {
    run.report(syncing, plain_message);
    run.check_cancelled();
    method(global("_sync_manager"_name), "acquire"_name);
    with(run.own("_lock"_name), [&] {
        set_attr(run.handle, "_pipeline_acquired"_name, true);
        set_attr(run.handle, "_acquired"_name, true);
    });
    method(run.own("_acquire_done"_name), "set"_name);
    method(run.own("_post_acquire_gate"_name), "wait"_name, "timeout"_kw = number(post_acquire_gate_seconds));
}

void report_progress(const Run& run) {
    const Object sync_manager = global("_sync_manager"_name);
    const Object nothing = number(0L);
    const Object downloaded = attr_or(sync_manager, "bytes_downloaded"_name, nothing);
    const Object total = attr_or(sync_manager, "total_bytes"_name, nothing);
    if (greater(total, nothing)) {
        const Object progress = divide(downloaded, total);
        run.report(syncing, progress, format("Syncing data... {}/{} bytes downloaded", downloaded, total));
    } else {
        run.report(syncing, plain_message);
    }
}

/// Ends the leader's sync; those who wait for it go on with its outcome.
void settle_sync(View error) {
    set_global("_sync_exception_cache"_name, error);
    set_global("_sync_in_progress"_name, false);
    method(global("_sync_event"_name), "set"_name);
}

void lead_sync() {
    const Object synced = method(global("_sync_manager"_name), "request_for_sync"_name);
    with(global("_sync_lock"_name), [&] {
        set_global("_sync_result_cache"_name, synced);
        settle_sync(none());
    });
}

void settle_failed_sync(View error) {
    try {
        with(global("_sync_lock"_name), [&] { settle_sync(error); });
    } catch (Raised& raised) {
        // Not even the lock could be taken. Nobody may wait for a leader that is gone; and as long as this run counts
        // as the leader, nobody else writes these variables.
        const Caught<BaseException> no_lock(raised);
        settle_sync(error);
    }
}

void follow_sync() {
    const Object ended = method(global("_sync_event"_name), "wait"_name, "timeout"_kw = number(shared_sync_seconds));
    if (!truth(ended)) {
        raise(global("SyncError"_name), "Timed out waiting for simulation data sync to complete");
    }
    with(global("_sync_lock"_name), [&] {
        if (const Object error = global("_sync_exception_cache"_name); !error.is_none()) {
            raise_object(error);
        }
    });
}

/// At most one sync at a time: the run that finds none in progress leads, the others wait for its outcome.
void share_sync() {
    bool leads = false;
    try {
        with(global("_sync_lock"_name), [&] {
            if (truth(global("_sync_in_progress"_name))) {
                return;
            }
            set_global("_sync_in_progress"_name, true);
            leads = true;
            set_global("_sync_exception_cache"_name, none());
            method(global("_sync_event"_name), "clear"_name);
        });
        if (leads) {
            lead_sync();
            return;
        }
    } catch (Raised& raised) {
        if (leads) {
            // Also when the leader is told to exit: nobody shall wait for it in vain.
            const Caught<BaseException> error(raised);
            settle_failed_sync(error);
        }
        throw;
    }
    follow_sync();
}

Object data_dir_of(View sync_manager) {
    Object data_dir = attr_or(sync_manager, "_data_dir"_name, none());
    return data_dir.is_none() ? attr_or(sync_manager, "data_dir"_name, none()) : data_dir;
}

/// Hands the era's enciphered seed on to the collaborators that protect the era's data.
void initialize_vaults(const Run& run, View vault, View shuffle_blob) {
    const Object initialize_era_vault = attr_or(global("_backtester"_name), "initialize_era_vault"_name, none());
    if (!initialize_era_vault.is_none()) {
        call(initialize_era_vault, "shuffle_blob"_kw = shuffle_blob, "wallet_secret"_kw = run.wallet_secret,
             "era_id"_kw = run.era_id);
    }
    try {
        Object initialize = attr_or(vault, "init_if_needed"_name, none());
        if (initialize.is_none()) {
            initialize = attr_or(vault, "initialize"_name, none());
        }
        if (!initialize.is_none()) {
            first_accepted(
                [&] {
                    return call(initialize, "shuffle_blob"_kw = shuffle_blob, "wallet_secret"_kw = run.wallet_secret,
                                "era_id"_kw = run.era_id);
                },
                [&] { return call(initialize, shuffle_blob, run.wallet_secret, run.era_id); },
                [&] { return call(initialize); });
        }
    } catch (Raised& raised) {
        const Caught<Exception> error(raised);
        if (!truth(call(global("vault_already_initialized_is_ready"_name), vault, error))) {
            throw;
        }
    }
}

/// The required keys that a raw vocabulary lacks, as a set.
Object missing_keys(View vocabulary) {
    const Object required = to_set(tuple_of("era_id"_name, "rotations"_name, "filtrations"_name, "reductions"_name,
                                            "features"_name, "metadata"_name));
    return method(required, "difference"_name, vocabulary);
}

void require_complete(View vocabulary) {
    if (const Object missing = missing_keys(vocabulary); length(missing) > 0) {
        raise<ValueError>("Vocabulary missing required keys: {}. Present keys: {}", missing, to_list(vocabulary));
    }
}

void load_vocabulary(const Run& run) {
    const Object load = global("_load_vocabulary"_name);
    if (load.is_none()) {
        return;
    }
    const Object raw = call(load, run.era_id);
    if (!is_mapping(raw) || !truth(raw)) {
        raise<ValueError>("load_vocabulary returned empty or invalid vocabulary");
    }
    require_complete(raw);
    set_global("_vocabulary_raw"_name, raw);
    if (!truth(is_function_store_registry(global("_vocabulary"_name)))) {
        set_global("_vocabulary"_name, build_obfuscated_store(raw));
    }
}

void require_registry(View vocabulary) {
    if (vocabulary.is_none()) {
        raise<RuntimeError>("Vocabulary is required for simulation. Call init_simulate_signal(..., "
                            "load_vocabulary=...) or initialize the runtime vocabulary.");
    }
    if (is_dict(vocabulary)) {
        require_complete(vocabulary);
        raise<TypeError>("Raw vocabulary dict is not accepted at runtime. Runtime simulation requires a FunctionStore "
                         "registry.");
    }
}

} // namespace

void sync_data(Run& run) {
    acquire(run);
    report_progress(run);
    run.check_cancelled();
    share_sync();
    run.era_id = derive_synced_era_id(global("_sync_manager"_name));
    with(run.own("_lock"_name), [&] { set_attr(run.own("_status"_name), "era_id"_name, run.era_id); });
}

void prepare_vault_and_vocabulary(Run& run) {
    run.report("initializing"_name, format("Initializing vault and loading vocabulary for era {}...", run.era_id));
    run.check_cancelled();
    const Object vault = global("_vault"_name);
    if (vault.is_none()) {
        raise<RuntimeError>("Vault runtime is required for simulation. Call register()/login() so the synced vault "
                            "runtime is initialized.");
    }
    const Object shuffle_blob = load_runtime_shuffle_blob(data_dir_of(global("_sync_manager"_name)));
    initialize_vaults(run, vault, shuffle_blob);
    load_vocabulary(run);
    require_registry(global("_vocabulary"_name));
    const Object backtester = global("_backtester"_name);
    if (backtester.is_none()) {
        raise<RuntimeError>("Backtester runtime is required for simulation. Call register()/login() so the synced "
                            "backtester runtime is initialized.");
    }
    method(backtester, "init_reconstruction"_name, "shuffle_blob"_kw = shuffle_blob,
           "wallet_secret"_kw = run.wallet_secret, "era_id"_kw = run.era_id);
    run.check_cancelled();
}

} // namespace quillstone::simulate_signal
