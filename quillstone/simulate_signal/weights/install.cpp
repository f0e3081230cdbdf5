#include "quillstone/simulate_signal/weights.hpp"

namespace quillstone::simulate_signal {

namespace {

/// Runs one step of a best-effort update; its failure is only logged.
template <class Step, class... Arguments>
bool best_effort(Step&& step, Name format, const Arguments&... arguments) {
    try {
        step();
        return true;
    } catch (Raised& raised) {
        const Caught<Exception> error(raised);
        log_debug(format, arguments..., error);
        return false;
    }
}

/// The backtester's cache entry of this evaluation; empty when there is none or the backtester cannot tell.
Object cached_entry(View backtester, View graph, View metaparameters, View named_universe) {
    try {
        const Object cache = attr_or(backtester, "_cache"_name, none());
        const Object cache_key = attr_or(backtester, "_cache_key"_name, none());
        if (!is_dict(cache) || !is_callable(cache_key)) {
            return {};
        }
        const Object key =
            call(cache_key, graph, "metaparameters"_kw = metaparameters, "named_universe"_kw = named_universe);
        Object entry = get(cache, key);
        return entry.is_none() ? Object() : entry;
    } catch (Raised& raised) {
        const Caught<Exception> no_entry(raised);
        return {};
    }
}

void install(View backtester, View graph, View metaparameters, View named_universe, View weights) {
    best_effort([&] { set_attr(backtester, "_last_weights"_name, weights); },
                "failed to cache finalized weights on backtester: %s"_name);

    for (const Name holder : {"last_eval_result"_name, "_last_eval_result"_name}) {
        best_effort(
            [&] {
                const Object evaluation = attr_or(backtester, holder, none());
                if (!evaluation.is_none()) {
                    set_attr(evaluation, "weights"_name, weights);
                }
            },
            "failed to cache finalized weights on %s: %s"_name, holder);
    }

    const Object entry = cached_entry(backtester, graph, metaparameters, named_universe);
    if (!entry.exists()) {
        return;
    }
    const bool is_set = best_effort([&] { set_attr(entry, "weights"_name, weights); },
                                    "failed to cache finalized weights on cache entry attribute: %s"_name);
    if (!is_set && is_dict(entry)) {
        best_effort([&] { set_item(entry, "weights"_name, weights); },
                    "failed to cache finalized weights on cache entry mapping: %s"_name);
    }
}

void adapter_init(View self, View delegate, View extra_kwargs) {
    set_attr(self, "_delegate"_name, delegate);
    set_attr(self, "_extra_kwargs"_name, to_dict(extra_kwargs));
}

Object adapter_evaluate(View self, View kwargs) {
    Items extra = items(attr(self, "_extra_kwargs"_name));
    for (Object key, value; extra.next(key, value);) {
        set_default(kwargs, key, value);
    }
    return call_with_keywords(attr(attr(self, "_delegate"_name), "evaluate"_name), kwargs);
}

constexpr Definition functions[] = {
    function<install>("_install_finalized_weights(backtester, graph, metaparameters, named_universe, weights)",
                      "Best-effort update for adapters that cache evaluated weights internally."),
};

constexpr Definition adapter_methods[] = {
    function<adapter_init>("__init__(self, delegate, extra_kwargs)",
                           "Wrap `delegate`, an evaluator; `extra_kwargs` are added to each call of `evaluate`."),
    function<adapter_evaluate>("evaluate(self, **kwargs)",
                               "Call the delegate's `evaluate`; a keyword given here wins over an added one."),
};

} // namespace

std::span<const Definition> install_functions() {
    return functions;
}

Object make_evaluator_adapter_class() {
    const Object attributes = class_body("Evaluator that adds a simulation's fixed keyword arguments to every call.");
    define_functions(attributes, adapter_methods, "_SimulationOrchestratorEvaluator");
    return make_class("_SimulationOrchestratorEvaluator"_name, object_type(), attributes);
}

} // namespace quillstone::simulate_signal
