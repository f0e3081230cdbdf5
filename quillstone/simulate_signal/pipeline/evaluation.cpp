#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/pipeline.hpp"
#include "quillstone/simulate_signal/pipeline/run.hpp"
#include "quillstone/simulate_signal/vocabulary.hpp"
#include "quillstone/simulate_signal/weights.hpp"

namespace quillstone::simulate_signal {

namespace {

/// What stands in for the backtester's search-plan factory: whatever it is asked, the run's plan.
Object plan_of_run(View plan, View /*args*/, View /*kwargs*/) {
    return plan;
}
constexpr Name plan_of_run_name = "_search_plan_of_run"_name;

Object current_manifest() {
    const Object sync_manager = global("_sync_manager"_name);
    if (sync_manager.is_none()) {
        return none();
    }
    try {
        return method(sync_manager, "get_manifest"_name);
    } catch (Raised& raised) {
        const Caught<Exception> no_manifest(raised);
        return none();
    }
}

Object compute_search_plan(const Run& run) {
    const Object compute = global("_compute_search_plan"_name);
    if (compute.is_none()) {
        return none();
    }
    const Object graph = run.own("_graph"_name);
    const Object expression_type = run.own("_expression_type"_name);
    return call(compute, graph, expression_type, "requested_n_jobs"_kw = number(1L));
}

void choose_orchestrator(Run& run) {
    run.search_plan = none();
    run.orchestrator = global("_batch_orchestrator"_name);
    if (!run.orchestrator.is_none()) {
        run.search_plan = compute_search_plan(run);
        return;
    }
    const Object orchestrator_class = global("_BatchOrchestrator"_name);
    if (orchestrator_class.is_none()) {
        return;
    }
    run.search_plan = compute_search_plan(run);
    run.orchestrator =
        call(orchestrator_class, "search_plan"_kw = run.search_plan, "feature_dir"_kw = run.feature_dir,
             "signal_dir"_kw = run.signal_dir, "manifest"_kw = run.manifest,
             "backtester"_kw = global("_backtester"_name), "named_universe"_kw = run.own("_named_universe"_name));
}

/// Lets the guard bring the data up to date; a vocabulary that came with it is taken into use.
void refresh_vocabulary(const Run& run) {
    const Object guard = global("_runtime_freshness_guard"_name);
    const Object ensure_fresh = attr_or(guard, "ensure_fresh_before_evaluation"_name, none());
    if (ensure_fresh.is_none()) {
        return;
    }
    const Object named_universe = run.own("_named_universe"_name);
    const Object before = runtime_vocabulary_freshness_state(guard);
    call_guard(ensure_fresh, named_universe);
    const Object after = runtime_vocabulary_freshness_state(guard);
    if (truth(runtime_vocabulary_refreshed(before, after, named_universe))) {
        reload_runtime_vocabulary_after_freshness(named_universe);
        // The reload leaves things as they are when there is nothing to load from.
        if (const Object raw = global("_vocabulary_raw"_name); !raw.is_none()) {
            set_global("_vocabulary"_name, build_obfuscated_store(raw));
        }
    }
}

/// The universe rule ids of the useful signals that a strategy may refer to.
Object signal_universe_rule_ids(const Run& run) {
    Object rule_ids = new_dict();
    if (!run.is_strategy) {
        return rule_ids;
    }
    const Object metadata_by_signal = global("_useful_signal_metadata"_name);
    for (const Object ref : each(global("_useful_signals"_name))) {
        const Object metadata = metadata_for_signal_ref(ref, metadata_by_signal);
        if (metadata.is_none()) {
            continue;
        }
        if (const Object rule_id = get(metadata, "universe_rule_id"_name); !rule_id.is_none()) {
            set_item(rule_ids, ref, rule_id);
        }
    }
    return rule_ids;
}

Object evaluation_keywords(const Run& run) {
    const Object registry = global("_vocabulary"_name);
    Object useful_signals = global("_useful_signals"_name);
    if (!truth(useful_signals)) {
        useful_signals = new_dict();
    }
    Object keywords = new_dict();
    set_item(keywords, "graph"_name, run.own("_graph"_name));
    set_item(keywords, "expression_type"_name, run.own("_expression_type"_name));
    set_item(keywords, "registry"_name, registry);
    set_item(keywords, "useful_signals"_name, useful_signals);
    set_item(keywords, "universe"_name, universe_mask(run));
    set_item(keywords, "metaparameters"_name, run.metaparameters);
    set_item(keywords, "transform_pipeline"_name, run.transform_pipeline);
    set_item(keywords, "stage_data"_name, empty_runtime_stage_data());
    set_item(keywords, "column_labels"_name, required_runtime_data_shape_value(run.era_config, "column_labels"_name));
    set_item(keywords, "signal_universe_rule_ids"_name, signal_universe_rule_ids(run));
    set_item(keywords, "search_plan"_name, run.search_plan);
    set_item(keywords, "feature_dir"_name, run.feature_dir);
    set_item(keywords, "signal_dir"_name, run.signal_dir);
    set_item(keywords, "manifest"_name, run.manifest);
    set_item(keywords, "backtester"_name, global("_backtester"_name));
    return keywords;
}

struct Evaluation {
    Object output;
    Object started;
};

Evaluation evaluate_fresh(Run& run) {
    run.check_cancelled();
    refresh_vocabulary(run);
    Evaluation evaluation;
    if (run.orchestrator.is_none()) {
        const Object graph = run.own("_graph"_name);
        const Object named_universe = run.own("_named_universe"_name);
        evaluation.started = monotonic();
        evaluation.output = call(run.evaluate_expression, graph, "metaparameters"_kw = run.metaparameters,
                                 "named_universe"_kw = named_universe);
    } else {
        const Object keywords = evaluation_keywords(run);
        const Object evaluate = attr(run.orchestrator, "evaluate"_name);
        evaluation.started = monotonic();
        evaluation.output = call_with_keywords(evaluate, keywords);
    }
    return evaluation;
}

/// Evaluates with the run's own evaluator and search-plan factory on the shared backtester, which has its previous ones
/// back as soon as the evaluation has ended.
Evaluation evaluate_with_adapters(Run& run) {
    const Object backtester = global("_backtester"_name);
    Evaluation evaluation;
    const auto adapter = [&](View previous) {
        const Object extra = dict_of("search_plan"_kw = run.search_plan, "feature_dir"_kw = run.feature_dir,
                                     "signal_dir"_kw = run.signal_dir, "manifest"_kw = run.manifest);
        return call(global("_SimulationOrchestratorEvaluator"_name), previous, extra);
    };
    const auto factory = [&](View /*previous*/) { return bind_method(global(plan_of_run_name), run.search_plan); };
    with_replaced(backtester, "evaluator"_name, adapter, [&] {
        with_replaced(backtester, "search_plan_factory"_name, factory,
                      [&] { evaluation = in_frame("_evaluate_expression"_name, [&] { return evaluate_fresh(run); }); });
    });
    return evaluation;
}

Object weights_of(const Run& run, View output) {
    const Object per_pool = attr_or(output, "per_pool_weights"_name, none());
    if (is_mapping(per_pool)) {
        return get(per_pool, run.pool_name);
    }
    return attr_or(output, "weights"_name, none());
}

constexpr Definition functions[] = {
    function<plan_of_run>("_search_plan_of_run(plan, /, *args, **kwargs)",
                          "Return the search plan of a run, whatever else is asked."),
};

} // namespace

std::span<const Definition> pipeline_functions() {
    return functions;
}

Object universe_mask(const Run& run) {
    Object mask = attr_or(global("_vault"_name), "universe_mask"_name, none());
    return is_callable(mask) ? call(mask, run.own("_named_universe"_name)) : mask;
}

void set_up_evaluation(Run& run) {
    run.report("evaluating"_name, "Evaluating expression... batch 0/?"_name);
    run.check_cancelled();
    const Object backtester = global("_backtester"_name);
    run.evaluate_expression = attr_or(backtester, "evaluate_expression"_name, none());
    run.run_backtest = attr_or(backtester, "run_backtest"_name, none());
    run.backtest = attr_or(backtester, "backtest"_name, none());
    run.manifest = current_manifest();
    run.feature_dir = attr_or(global("_sync_manager"_name), "feature_dir"_name, none());
    run.signal_dir = global("_signal_dir"_name);
    choose_orchestrator(run);
    if (run.orchestrator.is_none() && run.evaluate_expression.is_none()) {
        raise<RuntimeError>("RuntimeEvaluationAdapter is required for simulation. Call register()/login() so the "
                            "synced evaluation runtime is initialized.");
    }
}

void evaluate_and_finalize(Run& run) {
    const Evaluation evaluation = evaluate_with_adapters(run);
    run.weights = weights_of(run, evaluation.output);
    if (truth(pipeline_applies_rescale(run.transform_pipeline, run.metaparameters))) {
        run.weights = finalize_rescaled_weights(run.weights);
        install_finalized_weights(global("_backtester"_name), run.own("_graph"_name), run.metaparameters,
                                  run.own("_named_universe"_name), run.weights);
    }
    run.elapsed_seconds = subtract(monotonic(), evaluation.started);
}

} // namespace quillstone::simulate_signal
