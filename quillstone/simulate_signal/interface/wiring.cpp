#include "quillstone/simulate_signal/interface.hpp"

namespace quillstone::simulate_signal {

namespace {

constexpr const char* wiring_doc = R"(Wire all module-level DI globals for production use.

Called once at agent start-up. Direct callers can bind alternate collaborators to build an isolated runtime. Every
call rebinds every variable, so optional collaborators that are left out become None. Nothing is checked here: a
missing collaborator fails in the phase that needs it.

Parameters
----------
auth
    AuthManager for wallet_secret retrieval.
sync_manager
    SyncManager for data sync lifecycle.
vault
    Era data vault (init_if_needed, universe_mask).
backtester
    Backtest engine (backtest, init_reconstruction).
search_tracker
    SearchTracker for recording evaluations.
era_thread
    EraThread for era transition detection.
graph_validator : optional
    GraphValidator instance (or built lazily).
batch_orchestrator : optional
    Pre-built BatchOrchestrator instance.
compute_search_plan : optional
    Callable for search plan computation.
era_config : dict, optional
    Era config dict required for runtime simulation.
load_vocabulary : optional
    Callable(era_id) returning the raw vocabulary dict.
useful_signal_metadata : dict, optional
    Dict of useful signal metadata.
useful_signals : list, optional
    List of useful signal IDs.
useful_signal_pool : optional
    Pool of useful signal arrays.
found_signal_pool : optional
    Pool of found signal PnL arrays.
load_found_signal_pnl : optional
    Callable(signal_id, pool_name=...) returning a PnL array.
signal_dir : optional
    Path to signal data directory.
network_client : optional
    Network client for server communication.
server_client : optional
    Server API client.
BatchOrchestrator_cls : optional
    BatchOrchestrator class for construction.
set_phase : optional
    Phase tracking callback.
correlate_per_pool : optional
    Per-pool correlation callable.
compute_mi_per_pool : optional
    Per-pool MI computation callable.
vocabulary : FunctionStore, optional
    The runtime function store, when it is built already.
vocabulary_raw : dict, optional
    The raw vocabulary that it was built from.
runtime_freshness_guard : optional
    Guard that keeps synced data fresh; by default the sync manager's.)";

// The module variables that wiring binds, in the order of the parameters.
constexpr std::array wired_variables{"_auth"_name,
                                     "_sync_manager"_name,
                                     "_vault"_name,
                                     "_backtester"_name,
                                     "_search_tracker"_name,
                                     "_era_thread"_name,
                                     "_graph_validator"_name,
                                     "_batch_orchestrator"_name,
                                     "_compute_search_plan"_name,
                                     "_era_config"_name,
                                     "_load_vocabulary"_name,
                                     "_useful_signal_metadata"_name,
                                     "_useful_signals"_name,
                                     "_useful_signal_pool"_name,
                                     "_found_signal_pool"_name,
                                     "_load_found_signal_pnl"_name,
                                     "_signal_dir"_name,
                                     "_network_client"_name,
                                     "_server_client"_name,
                                     "_BatchOrchestrator"_name,
                                     "_set_phase"_name,
                                     "_correlate_per_pool"_name,
                                     "_compute_mi_per_pool"_name,
                                     "_vocabulary"_name,
                                     "_vocabulary_raw"_name};
constexpr std::size_t sync_manager_parameter = 1;
constexpr std::size_t backtester_parameter = 3;
constexpr std::size_t guard_parameter = wired_variables.size();

// The order in which the variables appear in the module.
constexpr std::array collaborator_variables{"_auth"_name,
                                            "_sync_manager"_name,
                                            "_graph_validator"_name,
                                            "_batch_orchestrator"_name,
                                            "_backtester"_name,
                                            "_search_tracker"_name,
                                            "_era_thread"_name,
                                            "_vault"_name,
                                            "_compute_search_plan"_name,
                                            "_era_config"_name,
                                            "_vocabulary"_name,
                                            "_load_vocabulary"_name,
                                            "_useful_signal_metadata"_name,
                                            "_useful_signals"_name,
                                            "_useful_signal_pool"_name,
                                            "_found_signal_pool"_name,
                                            "_load_found_signal_pnl"_name,
                                            "_signal_dir"_name,
                                            "_network_client"_name,
                                            "_server_client"_name,
                                            "_BatchOrchestrator"_name,
                                            "_set_phase"_name,
                                            "_correlate_per_pool"_name,
                                            "_compute_mi_per_pool"_name,
                                            "_runtime_freshness_guard"_name,
                                            "_vocabulary_raw"_name};

Object wire(const View* arguments) {
    for (std::size_t index = 0; index < wired_variables.size(); ++index) {
        set_global(wired_variables.at(index), arguments[index]);
    }
    Object guard = arguments[guard_parameter];
    if (guard.is_none()) {
        guard = attr_or(arguments[sync_manager_parameter], "runtime_freshness_guard"_name, none());
    }
    set_global("_runtime_freshness_guard"_name, guard);
    const View backtester = arguments[backtester_parameter];
    if (!guard.is_none() && attr_or(backtester, "raw_backtester"_name, View()).exists()) {
        method(guard, "register_module_consumer"_name, "backtester"_name, backtester, "raw_backtester"_name);
    }
    return none();
}

Object graph_validator_runtime() {
    constexpr Name engine = "quillstone.simulator_engine.graph_validator"_name;
    Object module = loaded_module(engine);
    if (module.is_none()) {
        try {
            module = import_module(engine);
        } catch (Raised& raised) {
            // A sibling that is just being replaced can fail once.
            const Caught<ImportError> first_failure(raised);
            module = import_module(engine);
        }
    }
    const Object validator = attr(module, "GraphValidator"_name);
    const Object config = attr(module, "ValidatorConfig"_name);
    return tuple_of(validator, config);
}

Object factory_from_catalog(View module_path, View class_name) {
    if (!truth(module_path) || !truth(class_name)) {
        return none();
    }
    const Object module_name = text(module_path);
    // A module of the function library that is not found is tried a second time.
    const bool in_function_library = truth(method(module_name, "startswith"_name, "quillstone.functions."_name));
    for (int tries_left = in_function_library ? 2 : 1; tries_left > 0; --tries_left) {
        Object module;
        try {
            module = import_module(module_name);
        } catch (Raised& raised) {
            const Caught<ModuleNotFoundError> not_found(raised);
            continue;
        }
        return attr_or(module, class_name, none());
    }
    return none();
}

constexpr Definition functions[] = {
    {"init_simulate_signal(auth, sync_manager, vault, backtester, search_tracker, era_thread, graph_validator=None, "
     "batch_orchestrator=None, compute_search_plan=None, era_config=None, load_vocabulary=None, "
     "useful_signal_metadata=None, useful_signals=None, useful_signal_pool=None, found_signal_pool=None, "
     "load_found_signal_pnl=None, signal_dir=None, network_client=None, server_client=None, "
     "BatchOrchestrator_cls=None, set_phase=None, correlate_per_pool=None, compute_mi_per_pool=None, "
     "vocabulary=None, vocabulary_raw=None, runtime_freshness_guard=None)",
     wiring_doc, wire, guard_parameter + 1},
    function<graph_validator_runtime>("_import_graph_validator_runtime()",
                                      "Return the engine's pair (GraphValidator, ValidatorConfig)."),
    function<factory_from_catalog>(
        "_factory_from_catalog_path(module_path, class_name)",
        "Return the class that a catalog entry names by its module and its own name, or None."),
};

void bind_from(Name module, Name name, Name bound_as) {
    set_global(bound_as, import_from(module, name));
}
void bind_from(Name module, Name name) {
    bind_from(module, name, name);
}

void import_primitives() {
    constexpr Name metaparameters = "quillstone.simulate_primitives.metaparameters"_name;
    bind_from(metaparameters, "canonicalize"_name, "_canonicalize_metaparameters"_name);
    bind_from(metaparameters, "resolve_metaparameters"_name, "_resolve_metaparameters"_name);
    bind_from(metaparameters, "resolve_metaparameters_per_pool"_name, "_resolve_metaparameters_per_pool"_name);
    bind_from("quillstone.simulate_primitives.graph_shape"_name, "has_filtration_node"_name,
              "_has_filtration_node"_name);
}

void import_fallback_primitives() {
    constexpr Name primitives = "quillstone._simulate_primitives"_name;
    bind_from(primitives, "canonicalize"_name, "_canonicalize_metaparameters"_name);
    bind_from(primitives, "has_filtration_node"_name, "_has_filtration_node"_name);
    bind_from(primitives, "resolve_metaparameters"_name, "_resolve_metaparameters"_name);
    bind_from(primitives, "resolve_metaparameters_per_pool"_name, "_resolve_metaparameters_per_pool"_name);
}

} // namespace

std::span<const Definition> wiring_functions() {
    return functions;
}

void import_siblings() {
    for (const Name standard : {"logging"_name, "importlib"_name, "inspect"_name, "math"_name, "os"_name, "sys"_name,
                                "threading"_name, "time"_name}) {
        set_global(standard, import_top_level(standard));
    }
    bind_from("dataclasses"_name, "dataclass"_name);
    set_global("logger"_name, method(global("logging"_name), "getLogger"_name, "quillstone.simulate_signal"_name));

    bind_from("quillstone.auth"_name, "AuthError"_name);
    bind_from("quillstone.errors"_name, "SdkRuntimeNotReadyError"_name);
    bind_from("quillstone._vault_init"_name, "vault_already_initialized_is_ready"_name);
    bind_from("quillstone._threshold_gates"_name, "SCALAR_THRESHOLD_FIELDS"_name);
    bind_from("quillstone._threshold_gates"_name, "evaluate_threshold_gates"_name);
    for (const Name error : {"DiskSpaceError"_name, "IntegrityError"_name, "EraError"_name, "SyncError"_name}) {
        bind_from("quillstone.sync"_name, error);
    }
    bind_from("quillstone.search_tracking"_name, "BacktestStats"_name, "_TrackingStats"_name);
    set_global("_function_store"_name, import_from("quillstone"_name, "function_store"_name));
    bind_from("quillstone.function_store"_name, "FunctionEntry"_name);
    bind_from("quillstone.function_store"_name, "FunctionStore"_name);
    try {
        import_primitives();
    } catch (Raised& raised) {
        const Caught<ImportError> older_kit(raised);
        import_fallback_primitives();
    }
}

void create_module_variables() {
    set_global("SIGNAL"_name, "SIGNAL"_name);
    set_global("STRATEGY"_name, "STRATEGY"_name);
    set_global("_POOL_METRIC_THRESHOLD_SET"_name,
               dict_of("bypassed_thresholds"_kw = global("SCALAR_THRESHOLD_FIELDS"_name)));
    for (const Name variable : collaborator_variables) {
        set_global(variable, none());
    }
    const Object threading = global("threading"_name);
    set_global("_simulation_lock"_name, method(threading, "Lock"_name));
    set_global("_sync_lock"_name, method(threading, "Lock"_name));
    set_global("_sync_in_progress"_name, false);
    set_global("_sync_result_cache"_name, none());
    set_global("_sync_exception_cache"_name, none());
    set_global("_sync_event"_name, method(threading, "Event"_name));
}

} // namespace quillstone::simulate_signal
