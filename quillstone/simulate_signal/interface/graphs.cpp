#include "quillstone/simulate_signal/interface.hpp"

#include <vector>

namespace quillstone::simulate_signal {

namespace {

// The engine modules that may hold the graph class in use, in the order in which they are asked.
constexpr std::array engine_modules{"quillstone.simulator_engine.expression_evaluator"_name,
                                    "quillstone.simulator_engine.batch_orchestrator"_name,
                                    "quillstone.simulator_engine.graph_validator"_name};
constexpr Name fallback_module = "quillstone.functions._typed_shapes"_name;

/// The pair of classes in a module; empty when the module cannot be imported.
Object shapes_of(View module_name) {
    try {
        const Object module = import_module(module_name);
        const Object graph_node = attr(module, "FunctionGraphNode"_name);
        const Object stage_data = attr(module, "StageData"_name);
        return tuple_of(graph_node, stage_data);
    } catch (Raised& raised) {
        const Caught<ImportError> not_there(raised);
        return {};
    }
}

Object find_typed_shapes() {
    // The class must be the very one that a loaded engine uses; an engine that is not loaded is not imported for it.
    for (const Name engine : engine_modules) {
        const Object graph_node = attr_or(loaded_module(engine), "FunctionGraphNode"_name, none());
        const Object defining_module = attr_or(graph_node, "__module__"_name, none());
        if (!truth(defining_module)) {
            continue;
        }
        if (Object shapes = shapes_of(defining_module); shapes.exists()) {
            return shapes;
        }
    }
    if (Object shapes = shapes_of(fallback_module); shapes.exists()) {
        return shapes;
    }
    raise<RuntimeError>("Typed graph runtime is required for direct simulation evaluation");
}

Object graph_node_class() {
    return unpack<2>(import_typed_shapes())[0];
}

Object to_typed(View graph) {
    const Object graph_node = graph_node_class();
    Object typed = is_instance(graph, graph_node) ? Object(graph) : method(graph_node, "from_raw"_name, graph);
    reject_public_aggregation_graph(typed);
    return typed;
}

bool has_type(View node, Name type) {
    return equals(attr_or(node, "type"_name, none()), type);
}

/// `node.children`; empty when missing or false.
Object children_of(View node) {
    Object children = attr_or(node, "children"_name, none());
    return truth(children) ? children : Object();
}

/// The nodes whose children were looked at, as far as they can be met again: a node that nobody but its parent's
/// children refers to, and these nobody but the parent, is met once.
class Expanded {
  public:
    /// False when the children were looked at before.
    bool add(const Object& node, const Object& children) {
        return (!is_shared(node) || visited_.add(node)) && (!is_shared(children) || visited_.add(children));
    }

  private:
    Visited visited_;
};

void reject_aggregation(View graph) {
    std::vector<Object> stack{graph};
    Expanded expanded;
    Steps steps;
    while (!stack.empty()) {
        steps.step();
        const Object node = std::move(stack.back());
        stack.pop_back();
        if (has_type(node, "aggregation"_name)) {
            raise<ValueError>("graph node type 'aggregation' is not allowed");
        }
        // Children that were looked at once need no second look, and a cycle ends.
        if (const Object children = children_of(node); children.exists() && expanded.add(node, children)) {
            for (Object child : each(children)) {
                stack.push_back(std::move(child));
            }
        }
    }
}

Object require_typed(View graph) {
    const Object graph_node = graph_node_class();
    if (!is_instance(graph, graph_node)) {
        raise<TypeError>("graph must be FunctionGraphNode at the simulation runtime boundary; got {}",
                         attr(type_of(graph), "__name__"_name));
    }
    reject_public_aggregation_graph(graph);
    return graph;
}

bool has_filtration(View graph) {
    constexpr Name own_name = "_has_filtration_runtime_graph"_name;
    const Object graph_node = graph_node_class();
    std::vector<Each> branches;
    Expanded expanded;
    Steps steps;
    const auto found_in = [&](const Object& node) {
        if (!is_instance(node, graph_node)) {
            return truth(call(global("_has_filtration_node"_name), node));
        }
        if (has_type(node, "filtration"_name)) {
            return true;
        }
        if (const Object children = children_of(node); children.exists() && expanded.add(node, children)) {
            branches.push_back(each(children));
        }
        return false;
    };
    if (found_in(graph)) {
        return true;
    }
    while (!branches.empty()) {
        steps.step();
        const Object child = branches.back().next();
        if (!child.exists()) {
            branches.pop_back();
        } else if (is_bound_to<has_filtration>(own_name) ? found_in(child) : truth(call(global(own_name), child))) {
            return true;
        }
    }
    return false;
}

constexpr Definition functions[] = {
    function<find_typed_shapes>("_import_typed_shapes()",
                                "Return the pair (FunctionGraphNode, StageData) that the loaded engine uses."),
    function<to_typed>("_typed_runtime_graph(graph)",
                       "Return the graph in its typed form, which must hold no aggregation node."),
    function<reject_aggregation>("_reject_public_aggregation_graph(graph)",
                                 "Raise ValueError when any node of the graph is an aggregation."),
    function<require_typed>("_require_typed_runtime_graph(graph)",
                            "Return the graph, which must be typed and hold no aggregation node."),
    function<has_filtration>("_has_filtration_runtime_graph(graph)",
                             "Tell whether the graph holds a filtration node, and so is a strategy graph."),
};

} // namespace

std::span<const Definition> graph_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
