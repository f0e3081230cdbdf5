#pragma once

#include "quillstone/simulate_signal/runtime/runtime.hpp"

namespace quillstone::simulate_signal {

/// The body of a handle's thread: runs one simulation from data sync to its outcome. Nothing that goes wrong leaves it;
/// the handle holds exactly one outcome afterwards.
void run_pipeline(runtime::View handle);

std::span<const runtime::Definition> pipeline_functions();

} // namespace quillstone::simulate_signal
