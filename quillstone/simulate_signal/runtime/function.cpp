#include "quillstone/simulate_signal/runtime/function.hpp"

#include <structmember.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace quillstone::runtime {

namespace {

constexpr std::size_t most_parameters = 32;

// The parameter list is read by the interpreter itself: each function object keeps a plain Python function of the same
// declaration. Its code object tells the parameters, its signature is the published one, and calling it with arguments
// that do not bind raises the interpreter's own words.
struct FunctionObject {
    PyObject_HEAD vectorcallfunc vectorcall;
    Native native;
    PyObject* pattern;         // the plain Python function
    PyObject* parameter_names; // co_varnames
    PyObject* defaults;        // a tuple parallel to the names
    Py_ssize_t positional_only;
    Py_ssize_t positional; // the positional-only ones included
    Py_ssize_t named;      // the keyword-only ones included
    bool takes_rest;       // *args
    bool takes_keywords;   // **kwargs
    PyObject* name;
    PyObject* qualname;
    PyObject* module;
    PyObject* doc;
    PyObject* signature;
    PyObject* dict;
    PyObject* weak_references;
};

FunctionObject& function_of(PyObject* object) noexcept {
    return *reinterpret_cast<FunctionObject*>(object);
}

PyTypeObject* function_type = nullptr;

/// Stands in the tuple of defaults where a parameter has none.
View no_default() noexcept {
    return {reinterpret_cast<PyObject*>(function_type)};
}

/// The arguments of one call, bound to the parameters.
class Binding {
  public:
    explicit Binding(const FunctionObject& function) noexcept : function_(function) {}

    /// False when the arguments do not fit; nothing is raised yet.
    bool bind(PyObject* const* arguments, Py_ssize_t given, PyObject* keyword_names) {
        if (!take_positional(arguments, given)) {
            return false;
        }
        const Py_ssize_t taken = std::min(given, function_.positional);
        if (keyword_names != nullptr) {
            std::uninitialized_fill(bound_ + taken, bound_ + function_.named, View());
            if (!take_keywords(arguments + given, keyword_names)) {
                return false;
            }
        }
        if (function_.takes_rest && !rest_.exists()) {
            rest_ = tuple_of();
        }
        if (function_.takes_keywords && !keywords_.exists()) {
            keywords_ = new_dict();
        }
        Py_ssize_t next = function_.named;
        if (function_.takes_rest) {
            bound_[next++] = rest_;
        }
        if (function_.takes_keywords) {
            bound_[next++] = keywords_;
        }
        return fill_defaults(taken, keyword_names != nullptr);
    }

    [[nodiscard]] const View* arguments() const noexcept { return bound_; }

  private:
    bool take_positional(PyObject* const* arguments, Py_ssize_t given) {
        const Py_ssize_t taken = std::min(given, function_.positional);
        std::uninitialized_copy_n(arguments, taken, bound_);
        if (given == taken) {
            return true;
        }
        if (!function_.takes_rest) {
            return false;
        }
        rest_ = owned(PyTuple_New(given - taken), Here::current());
        for (Py_ssize_t index = taken; index < given; ++index) {
            PyTuple_SET_ITEM(rest_.get(), index - taken, Py_NewRef(arguments[index]));
        }
        return true;
    }

    bool take_keywords(PyObject* const* values, PyObject* keyword_names) {
        const Py_ssize_t count = PyTuple_GET_SIZE(keyword_names);
        for (Py_ssize_t index = 0; index < count; ++index) {
            PyObject* keyword = PyTuple_GET_ITEM(keyword_names, index);
            const Py_ssize_t place = place_of(keyword);
            if (place >= 0) {
                if (bound_[place].exists()) {
                    return false;
                }
                bound_[place] = values[index];
            } else if (function_.takes_keywords) {
                if (!keywords_.exists()) {
                    keywords_ = new_dict();
                }
                set_item(keywords_, keyword, values[index]);
            } else {
                return false;
            }
        }
        return true;
    }

    /// The parameter of that name; keyword names are nearly always interned, so identity is tried first.
    [[nodiscard]] Py_ssize_t place_of(PyObject* keyword) const {
        for (Py_ssize_t place = function_.positional_only; place < function_.named; ++place) {
            if (PyTuple_GET_ITEM(function_.parameter_names, place) == keyword) {
                return place;
            }
        }
        for (Py_ssize_t place = function_.positional_only; place < function_.named; ++place) {
            if (PyUnicode_Check(keyword) != 0 &&
                PyUnicode_Compare(PyTuple_GET_ITEM(function_.parameter_names, place), keyword) == 0) {
                return place;
            }
        }
        return -1;
    }

    /// Fills the places from `first` on, all of them unless some were taken by keywords.
    bool fill_defaults(Py_ssize_t first, bool some_taken) noexcept {
        for (Py_ssize_t place = first; place < function_.named; ++place) {
            if (some_taken && bound_[place].exists()) {
                continue;
            }
            bound_[place] = PyTuple_GET_ITEM(function_.defaults, place);
            if (bound_[place].is(no_default())) {
                return false;
            }
        }
        return true;
    }

    const FunctionObject& function_;
    union {
        View bound_[most_parameters]; // as many as the function has
    };
    Object rest_;
    Object keywords_;
};

/// Lets the plain Python function of the same declaration refuse the arguments.
[[noreturn]] void refuse(const FunctionObject& function, PyObject* const* arguments, std::size_t flags,
                         PyObject* keyword_names) {
    const Here where = Here::current();
    const Object unexpected =
        owned(enter([&] { return PyObject_Vectorcall(function.pattern, arguments, flags, keyword_names); }), where);
    raise<TypeError>("{}() does not take these arguments", View(function.qualname));
}

PyObject* call_function(PyObject* self, PyObject* const* arguments, std::size_t flags, PyObject* keyword_names) {
    const FunctionObject& function = function_of(self);
    PyObject* result = nullptr;
    try {
        const RecursionLevel level(calls_under_way);
        const Py_ssize_t given = PyVectorcall_NARGS(flags);
        static_assert(sizeof(View) == sizeof(PyObject*));
        if (keyword_names == nullptr && given == function.positional && given == function.named &&
            !function.takes_rest && !function.takes_keywords) {
            // Every argument stands where the parameters stand.
            result = function.native(reinterpret_cast<const View*>(arguments)).release();
        } else {
            Binding binding(function);
            if (!binding.bind(arguments, given, keyword_names)) {
                refuse(function, arguments, flags, keyword_names);
            }
            result = function.native(binding.arguments()).release();
        }
    } catch (Raised& raised) {
        raised.add_traceback(function.name);
        raised.restore();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    }
    return result;
}

PyObject* function_repr(PyObject* self) {
    return PyUnicode_FromFormat("<function %U at %p>", function_of(self).qualname, self);
}

PyObject* function_get(PyObject* self, PyObject* instance, PyObject* /*type*/) {
    if (instance == nullptr || instance == Py_None) {
        return Py_NewRef(self);
    }
    return PyMethod_New(self, instance);
}

int function_traverse(PyObject* self, visitproc visit, void* arg) {
    FunctionObject& function = function_of(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(function.pattern);
    Py_VISIT(function.defaults);
    Py_VISIT(function.module);
    Py_VISIT(function.doc);
    Py_VISIT(function.signature);
    Py_VISIT(function.dict);
    return 0;
}

int function_clear(PyObject* self) {
    // What a call needs stays: another object of a dying cycle may still call the function.
    FunctionObject& function = function_of(self);
    Py_CLEAR(function.doc);
    Py_CLEAR(function.signature);
    Py_CLEAR(function.dict);
    return 0;
}

void function_dealloc(PyObject* self) {
    FunctionObject& function = function_of(self);
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    enter([&] {
        PyObject_ClearWeakRefs(self);
        function_clear(self);
        Py_CLEAR(function.pattern);
        Py_CLEAR(function.parameter_names);
        Py_CLEAR(function.defaults);
        Py_CLEAR(function.name);
        Py_CLEAR(function.qualname);
        Py_CLEAR(function.module);
        type->tp_free(self);
        Py_DECREF(type);
    });
}

/// `__signature__`: the one that was set, else that of the declaration.
PyObject* get_signature(PyObject* self, void* /*closure*/) {
    FunctionObject& function = function_of(self);
    try {
        if (function.signature == nullptr) {
            Object made = call(import_from("inspect"_name, "signature"_name), View(function.pattern));
            if (function.signature == nullptr) {
                function.signature = made.release();
            }
        }
        return Py_NewRef(function.signature);
    } catch (Raised& raised) {
        raised.restore();
        return nullptr;
    }
}

/// `__text_signature__`: the signature as a text.
PyObject* get_text_signature(PyObject* self, void* /*closure*/) {
    const Object signature = Object::steal(get_signature(self, nullptr));
    return signature.exists() ? enter([&] { return PyObject_Str(signature.get()); }) : nullptr;
}

int set_signature(PyObject* self, PyObject* value, void* /*closure*/) {
    enter([&] { Py_XSETREF(function_of(self).signature, Py_XNewRef(value)); });
    return 0;
}

/// Attributes that are those of the plain function of the same declaration.
PyObject* get_from_pattern(PyObject* self, void* attribute) {
    return enter(
        [&] { return PyObject_GetAttrString(function_of(self).pattern, static_cast<const char*>(attribute)); });
}

/// Pickles and copies by name, as functions do.
PyObject* function_reduce(PyObject* self, PyObject* /*none*/) {
    return Py_NewRef(function_of(self).qualname);
}

char attribute_defaults[] = "__defaults__";
char attribute_kwdefaults[] = "__kwdefaults__";
char attribute_annotations[] = "__annotations__";

PyGetSetDef function_attributes[] = {
    {"__signature__", get_signature, set_signature, nullptr, nullptr},
    {"__text_signature__", get_text_signature, nullptr, nullptr, nullptr},
    {"__defaults__", get_from_pattern, nullptr, nullptr, attribute_defaults},
    {"__kwdefaults__", get_from_pattern, nullptr, nullptr, attribute_kwdefaults},
    {"__annotations__", get_from_pattern, nullptr, nullptr, attribute_annotations},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef function_members[] = {
    {"__name__", Py_T_OBJECT_EX, offsetof(FunctionObject, name), Py_READONLY, nullptr},
    {"__qualname__", Py_T_OBJECT_EX, offsetof(FunctionObject, qualname), Py_READONLY, nullptr},
    {"__module__", _Py_T_OBJECT, offsetof(FunctionObject, module), 0, nullptr},
    {"__doc__", _Py_T_OBJECT, offsetof(FunctionObject, doc), 0, nullptr},
    {"__dictoffset__", Py_T_PYSSIZET, offsetof(FunctionObject, dict), Py_READONLY, nullptr},
    {"__weaklistoffset__", Py_T_PYSSIZET, offsetof(FunctionObject, weak_references), Py_READONLY, nullptr},
    {"__vectorcalloffset__", Py_T_PYSSIZET, offsetof(FunctionObject, vectorcall), Py_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyMethodDef function_methods[] = {
    {"__reduce__", function_reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot function_slots[] = {
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_repr, reinterpret_cast<void*>(function_repr)},
    {Py_tp_descr_get, reinterpret_cast<void*>(function_get)},
    {Py_tp_traverse, reinterpret_cast<void*>(function_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(function_clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(function_dealloc)},
    {Py_tp_getset, function_attributes},
    {Py_tp_members, function_members},
    {Py_tp_methods, function_methods},
    {0, nullptr},
};

PyType_Spec function_spec = {
    .name = "quillstone.simulate_signal.function",
    .basicsize = sizeof(FunctionObject),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
             Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    .slots = function_slots,
};

Py_ssize_t count(View code, Name field) {
    const Here where = Here::current();
    const Py_ssize_t value = PyLong_AsSsize_t(attr(code, field, where).get());
    if (value < 0) {
        raise_current(where);
    }
    return value;
}

/// The plain Python function of a declaration.
Object make_pattern(const char* declaration, View name) {
    const Here where = Here::current();
    const Object scope = dict_of("__name__"_kw = item(Namespace::dict(), "__name__"_name));
    const std::string source = std::string("def ") + declaration + ": pass\n";
    const Object done =
        owned(enter([&] { return PyRun_String(source.c_str(), Py_file_input, scope.get(), scope.get()); }), where);
    return item(scope, name);
}

/// The default of every named parameter.
Object make_defaults(View pattern, View names, Py_ssize_t positional, Py_ssize_t named) {
    const Object positional_defaults = attr(pattern, "__defaults__"_name);
    const Object keyword_defaults = attr(pattern, "__kwdefaults__"_name);
    const Py_ssize_t count = positional_defaults.is_none() ? 0 : length(positional_defaults);
    Object defaults = owned(PyTuple_New(named), Here::current());
    for (Py_ssize_t place = 0; place < named; ++place) {
        Object value = no_default();
        if (place >= positional && !keyword_defaults.is_none()) {
            value = get(keyword_defaults, PyTuple_GET_ITEM(names.get(), place), no_default());
        } else if (place < positional && place >= positional - count) {
            value = item_at(positional_defaults, place - (positional - count));
        }
        PyTuple_SET_ITEM(defaults.get(), place, value.release());
    }
    return defaults;
}

} // namespace

void prepare_function_type() {
    if (function_type == nullptr) {
        function_type =
            reinterpret_cast<PyTypeObject*>(owned(PyType_FromSpec(&function_spec), Here::current()).release());
    }
}

Object make_function(const Definition& definition, const char* owner) {
    const Here where = Here::current();
    const char* declaration = definition.declaration;
    Object name = owned(PyUnicode_FromStringAndSize(declaration, std::strchr(declaration, '(') - declaration), where);
    PyUnicode_InternInPlace(reinterpret_cast<PyObject**>(&name));
    Object qualname = name;
    if (owner != nullptr) {
        qualname = format("{}.{}", owned(PyUnicode_FromString(owner), where), name);
    }
    const Object pattern = make_pattern(declaration, name);
    set_attr(pattern, "__qualname__"_name, qualname);

    const Object code = attr(pattern, "__code__"_name);
    const Object names = attr(code, "co_varnames"_name);
    const Py_ssize_t positional = count(code, "co_argcount"_name);
    const Py_ssize_t named = positional + count(code, "co_kwonlyargcount"_name);
    const Py_ssize_t code_flags = count(code, "co_flags"_name);

    Object made = owned(PyType_GenericAlloc(function_type, 0), where);
    FunctionObject& function = function_of(made.get());
    function.vectorcall = call_function;
    function.native = definition.native;
    function.positional_only = count(code, "co_posonlyargcount"_name);
    function.positional = positional;
    function.named = named;
    function.takes_rest = (code_flags & CO_VARARGS) != 0;
    function.takes_keywords = (code_flags & CO_VARKEYWORDS) != 0;
    function.defaults = make_defaults(pattern, names, positional, named).release();
    function.pattern = Object(pattern).release();
    function.parameter_names = Object(names).release();
    function.name = name.release();
    function.qualname = qualname.release();
    function.module = item(Namespace::dict(), "__name__"_name).release();
    function.doc = owned(PyUnicode_FromString(definition.doc), where).release();

    const std::size_t declared =
        static_cast<std::size_t>(named) + (function.takes_rest ? 1 : 0) + (function.takes_keywords ? 1 : 0);
    if (declared != definition.parameter_count || declared > most_parameters) {
        raise<TypeError>("{} is declared with other parameters than it takes", View(function.qualname));
    }
    return made;
}

namespace detail {

Object call_bound(View function, std::span<PyObject*> stack, Here where) {
    PyObject* const* arguments = stack.data() + 1;
    const std::size_t given = stack.size() - 1;
    if (Py_IS_TYPE(function.get(), function_type)) {
        const FunctionObject& own = function_of(function.get());
        if (own.named == std::ssize(stack) - 1 && !own.takes_rest && !own.takes_keywords) {
            const RecursionLevel level(calls_under_way, where);
            return in_frame(
                View(own.name), [&] { return own.native(reinterpret_cast<const View*>(arguments)); }, where);
        }
    }
    return owned(enter([&] {
                     return PyObject_Vectorcall(function.get(), arguments, given | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                                nullptr);
                 }),
                 where);
}

} // namespace detail

Native native_of(View function) noexcept {
    return Py_IS_TYPE(function.get(), function_type) ? function_of(function.get()).native : nullptr;
}

void define_functions(View dict, std::span<const Definition> table, const char* owner) {
    for (const Definition& definition : table) {
        const Object made = make_function(definition, owner);
        set_item(dict, attr(made, "__name__"_name), made);
    }
}

Object bind_method(View function, View first_argument) {
    return owned(PyMethod_New(function.get(), first_argument.get()), Here::current());
}

} // namespace quillstone::runtime
