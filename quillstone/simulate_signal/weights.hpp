#pragma once

#include "quillstone/simulate_signal/runtime/runtime.hpp"

// Transform stages, the finalisation of rescaled weights, and the evaluator adapter.

namespace quillstone::simulate_signal {

using namespace runtime;

// Transform stages (weights/stages.cpp).
inline constexpr ModuleFunction<3> stage_value{"_stage_value"_name};
inline constexpr ModuleFunction<2> resolved_stage_option{"_resolved_stage_option"_name};
inline constexpr ModuleFunction<2> option_uses_rescale{"_option_uses_rescale"_name};
inline constexpr ModuleFunction<2> pipeline_applies_rescale{"_pipeline_applies_rescale"_name};
inline constexpr ModuleFunction<0> empty_runtime_stage_data{"_empty_runtime_stage_data"_name};

// Finalised weights (weights/finalize.cpp, weights/install.cpp).
inline constexpr ModuleFunction<1> finalize_rescaled_weights{"_finalize_rescaled_weights"_name};
inline constexpr ModuleFunction<5> install_finalized_weights{"_install_finalized_weights"_name};

/// A field of a dictionary or attribute object, or the fallback: how stages, backtest outputs and engine definitions
/// are read.
Object read_field(View source, View name, View fallback, Here where = Here::current());

/// The same as a module function.
Object stage_field(View stage, View name, View fallback);

std::span<const Definition> stage_functions();
std::span<const Definition> finalize_functions();
std::span<const Definition> install_functions();

/// The class `_SimulationOrchestratorEvaluator`.
Object make_evaluator_adapter_class();

} // namespace quillstone::simulate_signal
