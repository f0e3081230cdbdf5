#include "quillstone/simulate_signal/weights.hpp"

namespace quillstone::simulate_signal {

Object read_field(View source, View name, View fallback, Here where) {
    return is_dict(source, where) ? get(source, name, fallback, where) : attr_or(source, name, fallback, where);
}

Object stage_field(View stage, View name, View fallback) {
    return read_field(stage, name, fallback);
}

namespace {

// Finds the typed graph classes; the interface defines it.
constexpr ModuleFunction<0> import_typed_shapes{"_import_typed_shapes"_name};

constexpr std::array rescaling_transforms{"rescale"_name, "latitudinal_fill_c3d683"_name, "l1_resize"_name};

bool is_rescaling(View transform) {
    return std::ranges::any_of(rescaling_transforms, [&](Name name) { return equals(transform, name); });
}

Object option_in_force(View stage, View metaparameters) {
    const Object name = stage_value(stage, "name"_name, none());
    if (is_dict(metaparameters) && contains(metaparameters, name)) {
        return item(metaparameters, name);
    }
    return stage_value(stage, "default"_name, none());
}

/// A part of a composite option: the name of a transform, or a dictionary that names one.
bool part_rescales(View part) {
    if (is_str(part)) {
        return is_rescaling(part);
    }
    if (!is_dict(part)) {
        return false;
    }
    Object transform = get(part, "name"_name);
    for (const Name key : {"rotation"_name, "transform"_name}) {
        if (!truth(transform)) {
            transform = get(part, key);
        }
    }
    return is_rescaling(transform);
}

bool uses_rescale(View option, View option_config) {
    if (is_rescaling(option)) {
        return true;
    }
    if (!is_dict(option_config)) {
        return false;
    }
    Object transform = get(option_config, "rotation"_name);
    if (!truth(transform)) {
        transform = get(option_config, "transform"_name);
    }
    if (is_rescaling(transform)) {
        return true;
    }
    const Object composite = get(option_config, "composite"_name);
    if (!is_list(composite) && !is_tuple(composite)) {
        return false;
    }
    for (const Object part : each(composite)) {
        if (part_rescales(part)) {
            return true;
        }
    }
    return false;
}

bool applies_rescale(View transform_pipeline, View metaparameters) {
    if (!truth(transform_pipeline)) {
        return false;
    }
    for (const Object stage : each(transform_pipeline)) {
        const Object option = resolved_stage_option(stage, metaparameters);
        const Object configs = stage_value(stage, "option_configs"_name, none());
        const Object config = is_dict(configs) ? get(configs, option) : Object(none());
        if (truth(option_uses_rescale(option, config))) {
            return true;
        }
    }
    return false;
}

Object empty_stage_data() {
    const auto [graph_node, stage_data] = unpack<2>(import_typed_shapes());
    return call(stage_data);
}

constexpr Definition functions[] = {
    function<stage_field>("_stage_value(stage, name, default=None)",
                          "Return a field of a stage, which is a dict or an object with attributes."),
    function<option_in_force>("_resolved_stage_option(stage, metaparameters)",
                              "Return the option in force for a stage: the metaparameters' choice, else its default."),
    function<uses_rescale>("_option_uses_rescale(option, option_config=None)",
                           "Tell whether an option of a transform stage applies a rescaling transform."),
    function<applies_rescale>("_pipeline_applies_rescale(transform_pipeline, metaparameters)",
                              "Tell whether any stage, as resolved for a run, applies a rescaling transform."),
    function<empty_stage_data>("_empty_runtime_stage_data()", "Return a new, empty StageData."),
};

} // namespace

std::span<const Definition> stage_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
