#pragma once

#include "quillstone/simulate_signal/runtime/runtime.hpp"

// The public calls, the handle that runs a simulation in the background, and the wiring of collaborators.

namespace quillstone::simulate_signal {

using namespace runtime;

// Graph kinds (interface/graphs.cpp).
inline constexpr ModuleFunction<0> import_typed_shapes{"_import_typed_shapes"_name};
inline constexpr ModuleFunction<1> typed_runtime_graph{"_typed_runtime_graph"_name};
inline constexpr ModuleFunction<1> reject_public_aggregation_graph{"_reject_public_aggregation_graph"_name};
inline constexpr ModuleFunction<1> require_typed_runtime_graph{"_require_typed_runtime_graph"_name};

// Entry points (interface/entry_points.cpp).
inline constexpr ModuleFunction<1> pool_v2_signature{"_pool_v2_signature"_name};

std::span<const Definition> graph_functions();
std::span<const Definition> entry_point_functions();
std::span<const Definition> wiring_functions();

/// Binds the names that the module takes from the standard library and from the kit's sibling modules.
void import_siblings();
/// Creates the collaborator variables, all None, and the process-wide synchronisation state.
void create_module_variables();
/// Publishes the signatures that introspection shows for the entry points.
void publish_signatures();

/// The classes `CancelledError`, `SimulationStatus`, `SimulationResult` (interface/results.cpp) and `SimulationHandle`
/// (interface/handle.cpp).
Object make_cancelled_error();
Object make_simulation_status();
Object make_simulation_result();
Object make_simulation_handle();

} // namespace quillstone::simulate_signal
