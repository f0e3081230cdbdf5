#include "quillstone/simulate_signal/era_config.hpp"
#include "quillstone/simulate_signal/pipeline/run.hpp"
#include "quillstone/simulate_signal/vocabulary.hpp"
#include "quillstone/simulate_signal/weights.hpp"

namespace quillstone::simulate_signal {

namespace {

/// The function that stands in for the backtester's search-plan factory: whatever it is asked, the run's plan.
Object the_plan(View plan, View /*args*/, View /*kwargs*/) {
    return plan;
}
constexpr Definition search_plan_factory =
    function<the_plan>("search_plan_factory(plan, /, *args, **kwargs)", "Return the search plan of this simulation.");

/// The run's own evaluator and search-plan factory on the shared backtester, for the length of the evaluation.
class Installation {
  public:
    explicit Installation(const Run& run) : backtester_(global("_backtester"_name)) {
        evaluator_ = attr_or(backtester_, "evaluator"_name, View());
        if (evaluator_.exists()) {
            const Object extra = dict_of("search_plan"_kw = run.search_plan, "feature_dir"_kw = run.feature_dir,
                                         "signal_dir"_kw = run.signal_dir, "manifest"_kw = run.manifest);
            set_attr(backtester_, "evaluator"_name,
                     call(global("_SimulationOrchestratorEvaluator"_name), evaluator_, extra));
        }
        // From here on a failure must undo what stands already.
        try {
            install_factory(run);
        } catch (Raised& raised) {
            const Handling handling(raised.error);
            undo();
            throw;
        }
    }

    /// Puts the previous objects back, the second also when the first cannot be.
    void undo() {
        try {
            restore("evaluator"_name, evaluator_);
        } catch (Raised& raised) {
            const Handling handling(raised.error);
            restore("search_plan_factory"_name, factory_);
            throw;
        }
        restore("search_plan_factory"_name, factory_);
    }

  private:
    void install_factory(const Run& run) {
        Object previous = attr_or(backtester_, "search_plan_factory"_name, View());
        if (previous.exists()) {
            set_attr(backtester_, "search_plan_factory"_name,
                     bind_method(make_function(search_plan_factory), run.search_plan));
            factory_ = std::move(previous);
        }
    }

    void restore(Name attribute, View previous) const {
        if (previous.exists()) {
            set_attr(backtester_, attribute, previous);
        }
    }

    Object backtester_;
    Object evaluator_; // the previous ones; empty where the backtester has none
    Object factory_;
};

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
    return call(compute, run.own("_graph"_name), run.own("_expression_type"_name), "requested_n_jobs"_kw = number(1L));
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
    call_in_falling_arity(ensure_fresh, "named_universe"_kw = named_universe);
    const Object after = runtime_vocabulary_freshness_state(guard);
    if (truth(runtime_vocabulary_refreshed(before, after, named_universe))) {
        reload_runtime_vocabulary_after_freshness(named_universe);
        set_global("_vocabulary"_name, build_obfuscated_store(global("_vocabulary_raw"_name)));
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

Object evaluation_keywords(Run& run) {
    const Object registry = global("_vocabulary"_name);
    Object useful_signals = global("_useful_signals"_name);
    if (!truth(useful_signals)) {
        useful_signals = new_dict();
    }
    const View universe = universe_of(run);
    const Object stage_data = empty_runtime_stage_data();
    const Object column_labels = required_runtime_data_shape_value(run.era_config, "column_labels"_name);
    return dict_of("graph"_kw = run.own("_graph"_name), "expression_type"_kw = run.own("_expression_type"_name),
                   "registry"_kw = registry, "useful_signals"_kw = useful_signals, "universe"_kw = universe,
                   "metaparameters"_kw = run.metaparameters, "transform_pipeline"_kw = run.transform_pipeline,
                   "stage_data"_kw = stage_data, "column_labels"_kw = column_labels,
                   "signal_universe_rule_ids"_kw = signal_universe_rule_ids(run), "search_plan"_kw = run.search_plan,
                   "feature_dir"_kw = run.feature_dir, "signal_dir"_kw = run.signal_dir, "manifest"_kw = run.manifest,
                   "backtester"_kw = global("_backtester"_name));
}

struct Evaluation {
    Object output;
    Object started;
};

Object monotonic() {
    return method(global("time"_name), "monotonic"_name);
}

Evaluation evaluate(Run& run) {
    run.check_cancelled();
    refresh_vocabulary(run);
    Evaluation evaluation;
    if (run.orchestrator.is_none()) {
        evaluation.started = monotonic();
        evaluation.output =
            call(run.evaluate_expression, run.own("_graph"_name), "metaparameters"_kw = run.metaparameters,
                 "named_universe"_kw = run.own("_named_universe"_name));
    } else {
        const Object keywords = evaluation_keywords(run);
        const Object evaluate = attr(run.orchestrator, "evaluate"_name);
        evaluation.started = monotonic();
        evaluation.output = call_with_keywords(evaluate, keywords);
    }
    return evaluation;
}

Evaluation evaluate_with_installation(Run& run) {
    Installation installation(run);
    Evaluation evaluation;
    try {
        evaluation = in_frame("_evaluate_expression"_name, [&] { return evaluate(run); });
    } catch (Raised& raised) {
        const Handling handling(raised.error);
        installation.undo();
        throw;
    }
    installation.undo();
    return evaluation;
}

Object weights_of(const Run& run, View output) {
    const Object per_pool = attr_or(output, "per_pool_weights"_name, none());
    if (is_mapping(per_pool)) {
        return get(per_pool, run.pool_name);
    }
    return attr_or(output, "weights"_name, none());
}

} // namespace

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

void evaluate_expression(Run& run) {
    const Evaluation evaluation = evaluate_with_installation(run);
    run.weights = weights_of(run, evaluation.output);
    if (truth(pipeline_applies_rescale(run.transform_pipeline, run.metaparameters))) {
        run.weights = finalize_rescaled_weights(run.weights);
        install_finalized_weights(global("_backtester"_name), run.own("_graph"_name), run.metaparameters,
                                  run.own("_named_universe"_name), run.weights);
    }
    run.elapsed_seconds = subtract(monotonic(), evaluation.started);
}

} // namespace quillstone::simulate_signal
