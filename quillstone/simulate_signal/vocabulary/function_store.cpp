#include "quillstone/simulate_signal/vocabulary.hpp"

#include <memory>
#include <vector>

namespace quillstone::simulate_signal {

namespace {

// Looks up an entry's factory; the interface defines it.
constexpr ModuleFunction<2> factory_from_catalog_path{"_factory_from_catalog_path"_name};

constexpr Name store_module = "quillstone.function_store"_name;
constexpr Name walk_name = "_walk_synced_function_payloads"_name;

struct Section {
    Name key;
    Name default_type;
};
constexpr std::array sections{
    Section{"rotations"_name, "rotation"_name},
    Section{"filtrations"_name, "filtration"_name},
    Section{"reductions"_name, "reduction"_name},
    Section{"aggregations"_name, "aggregation"_name},
};

bool is_registry(View value) {
    if (is_instance(value, global("FunctionStore"_name))) {
        return true;
    }
    // The class of now: it is another one after the sibling module was reloaded.
    Object current;
    try {
        current = import_from(store_module, "FunctionStore"_name);
    } catch (Raised& raised) {
        const Caught<ModuleNotFoundError> error(raised);
        if (differs(attr(error, "name"_name), store_module)) {
            throw;
        }
        return false;
    }
    return is_instance(value, current);
}

Object walk_payloads(View node, View default_type, View path);

/// The depth-first walk through one section's tree.
class TreeWalk final : public Producer {
  public:
    TreeWalk(Object root, View default_type, View path)
        : root_(std::move(root)), root_path_(path), default_type_(default_type) {}

    Object next() override {
        if (root_.exists()) {
            if (Object found = visit(std::exchange(root_, Object()), root_path_); found.exists()) {
                return found;
            }
        }
        while (!levels_.empty()) {
            steps_.step();
            if (Object found = advance(levels_.back()); found.exists()) {
                return found;
            }
        }
        return {};
    }

    void show(const References& references) const override {
        references(root_);
        references(root_path_);
        references(default_type_);
        for (const Level& level : levels_) {
            references(level.nodes.source());
            references(level.path);
        }
    }

  private:
    struct Level {
        enum class Kind { list, grouping, rebound };
        Kind kind;
        Each nodes;
        Object path;
    };

    [[nodiscard]] Object walk_item(View payload, View path) const { return tuple_of(payload, path, default_type_); }

    /// Yields a record, or goes down into a list or grouping.
    Object visit(const Object& node, const Object& path) {
        if (is_list(node)) {
            go_down(Level::Kind::list, node, path);
        } else if (is_dict(node)) {
            if (truth(get(node, "name"_name))) {
                return walk_item(node, path);
            }
            go_down(Level::Kind::grouping, method(node, "items"_name), path);
        }
        return {};
    }

    void go_down(Level::Kind kind, View nodes, const Object& path) {
        check_depth(std::ssize(levels_) + 1);
        levels_.push_back({kind, each(nodes), path});
    }

    Object advance(Level& level) {
        Object node = level.nodes.next();
        if (!node.exists()) {
            levels_.pop_back();
            return {};
        }
        switch (level.kind) {
        case Level::Kind::list:
            return is_dict(node) ? walk_item(node, level.path) : Object();
        case Level::Kind::rebound:
            return node;
        case Level::Kind::grouping:
            break;
        }
        const auto [key, value] = unpack<2>(node);
        const Object path = add(level.path, tuple_of(key));
        if (is_bound_to<walk_payloads>(walk_name)) {
            return visit(value, path);
        }
        go_down(Level::Kind::rebound, call(global(walk_name), value, default_type_, path), path);
        return {};
    }

    Object root_;
    Object root_path_;
    Object default_type_;
    std::vector<Level> levels_;
    Steps steps_;
};

Object walk_payloads(View node, View default_type, View path) {
    return make_generator(std::make_unique<TreeWalk>(node, default_type, path), walk_name);
}

/// The walks through a vocabulary's sections, one after the other.
class VocabularyWalk final : public Producer {
  public:
    explicit VocabularyWalk(View vocabulary) : vocabulary_(vocabulary) {}

    Object next() override {
        for (;;) {
            if (Object found = next_of_section(); found.exists()) {
                return found;
            }
            if (section_ == sections.size()) {
                return {};
            }
            const Section& section = sections.at(section_++);
            const Object tree = get(vocabulary_, section.key);
            if (is_bound_to<walk_payloads>(walk_name)) {
                walk_ = std::make_unique<TreeWalk>(tree, section.default_type, tuple_of());
            } else {
                rebound_ =
                    std::make_unique<Each>(each(call(global(walk_name), tree, section.default_type, tuple_of())));
            }
        }
    }

    void show(const References& references) const override {
        references(vocabulary_);
        if (walk_ != nullptr) {
            walk_->show(references);
        }
        if (rebound_ != nullptr) {
            references(rebound_->source());
        }
    }

  private:
    /// The next payload of the section under way; empty at its end.
    Object next_of_section() {
        if (walk_ != nullptr) {
            if (Object found = walk_->next(); found.exists()) {
                return found;
            }
            walk_ = nullptr;
        } else if (rebound_ != nullptr) {
            if (Object found = rebound_->next(); found.exists()) {
                return found;
            }
            rebound_ = nullptr;
        }
        return {};
    }

    Object vocabulary_;
    std::size_t section_ = 0;
    std::unique_ptr<TreeWalk> walk_;
    std::unique_ptr<Each> rebound_; // in place of the module's own walk
};

Object iterate_payloads(View raw_vocabulary) {
    return make_generator(std::make_unique<VocabularyWalk>(raw_vocabulary), "_iter_synced_function_payloads"_name);
}

/// `payload.get(key) or fallback`
Object value_or(View payload, Name key, View fallback) {
    Object value = get(payload, key);
    return truth(value) ? value : Object(fallback);
}

/// A name of the record's place in the catalog: its own, else the grouping key at that depth of its path.
Object place_name(View payload, Name key, Name short_key, View path, Py_ssize_t depth) {
    Object name = value_or(payload, key, none());
    if (!truth(name)) {
        name = get(payload, short_key);
    }
    if (!truth(name) && length(path) > depth) {
        name = item_at(path, depth);
    }
    return truth(name) ? text(name) : Object(""_name);
}

Object integer_or(View payload, Name key, long fallback) {
    const Object missing = number(fallback);
    const Object value = get(payload, key, missing);
    return to_int(truth(value) ? value : missing);
}

void register_entry(View store, View entry_class, View payload, View path, View default_type) {
    const Object name = get(payload, "name"_name);
    if (!truth(name) || truth(method(store, "has"_name, name))) {
        return;
    }
    const Name none_given = ""_name;
    const Object function_type = value_or(payload, "function_type"_name, default_type);
    const Object family = place_name(payload, "function_family"_name, "family"_name, path, 0);
    const Object subfamily = place_name(payload, "function_subfamily"_name, "subfamily"_name, path, 1);
    const Object module_path = text(value_or(payload, "module_path"_name, none_given));
    const Object class_name = text(value_or(payload, "class_name"_name, none_given));
    try {
        const Object param_schema = value_or(payload, "param_schema"_name, View());
        const bool stateful = truth(get(payload, "stateful"_name));
        const Object arity = integer_or(payload, "arity"_name, 0);
        const Object status = text(value_or(payload, "status"_name, "approved"_name));
        const Object creator_wallet = text(value_or(payload, "creator_wallet"_name, none_given));
        const Object function_version = integer_or(payload, "function_version"_name, 1);
        const bool engine_only = truth(get(payload, "engine_only"_name));
        const Object factory = factory_from_catalog_path(module_path, class_name);
        const Object entry =
            call(entry_class, "name"_kw = name, "function_type"_kw = function_type, "family"_kw = family,
                 "subfamily"_kw = subfamily, "param_schema"_kw = param_schema.exists() ? param_schema : new_dict(),
                 "stateful"_kw = stateful, "arity"_kw = arity, "module_path"_kw = module_path,
                 "class_name"_kw = class_name, "status"_kw = status, "creator_wallet"_kw = creator_wallet,
                 "function_version"_kw = function_version, "engine_only"_kw = engine_only, "factory"_kw = factory);
        method(store, "add"_name, entry);
    } catch (Raised& raised) {
        const Caught<Exception> error(raised);
        log_warning("Failed to register tokenized entry '%s': %s"_name, name, error);
    }
}

Object build_store(View vocabulary) {
    const Object siblings = import_module(store_module);
    const Object store_class = attr(siblings, "FunctionStore"_name);
    const Object entry_class = attr(siblings, "FunctionEntry"_name);
    Object store = call(store_class);
    for (const Object walk_item : each(iter_synced_function_payloads(vocabulary))) {
        const auto [payload, path, default_type] = unpack<3>(walk_item);
        register_entry(store, entry_class, payload, path, default_type);
    }
    return store;
}

constexpr Definition functions[] = {
    function<is_registry>("_is_function_store_registry(value)", "Tell whether `value` is a runtime function store."),
    function<iterate_payloads>("_iter_synced_function_payloads(raw_vocabulary)",
                               "Yield `(payload, path, default_type)` for every function record of a vocabulary."),
    function<walk_payloads>("_walk_synced_function_payloads(node, default_type, path)",
                            "Yield `(payload, path, default_type)` for every function record of one subtree."),
    function<build_store>("_build_obfuscated_store(vocabulary_dict)",
                          "Build a FunctionStore keyed only by token/clear vocabulary names."),
};

} // namespace

std::span<const Definition> function_store_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
