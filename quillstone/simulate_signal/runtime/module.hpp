#pragma once

#include "quillstone/simulate_signal/runtime/function.hpp"

namespace quillstone::runtime {

/// What a process makes its one module object from.
struct ModuleSource {
    const char* name;
    const char* doc;
    /// Fills the module's namespace.
    void (*define)(View dict);
};

/// The module definition that the loader asks for. It makes one module object in the main interpreter of the process:
/// a second import is handed the same object as it stands, another interpreter is refused.
PyObject* module_definition(const ModuleSource& source);

} // namespace quillstone::runtime
