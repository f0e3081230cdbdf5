#pragma once

#include "quillstone/simulate_signal/runtime/runtime.hpp"

// The catalog of simulation options of an era.

namespace quillstone::simulate_signal {

using namespace runtime;

inline constexpr ModuleFunction<1> universe_options{"_universe_options"_name};
inline constexpr ModuleFunction<2> engine_definitions_from_agent_payload{"_engine_definitions_from_agent_payload"_name};
inline constexpr ModuleFunction<1> plain_engine_definition_payload{"_plain_engine_definition_payload"_name};

std::span<const Definition> option_functions();

} // namespace quillstone::simulate_signal
