#pragma once

#include "quillstone/simulate_signal/runtime/runtime.hpp"

// The synced vocabulary: building the runtime function store from it and keeping it fresh.

namespace quillstone::simulate_signal {

using namespace runtime;

// The function store (vocabulary/function_store.cpp).
inline constexpr ModuleFunction<1> is_function_store_registry{"_is_function_store_registry"_name};
inline constexpr ModuleFunction<1> iter_synced_function_payloads{"_iter_synced_function_payloads"_name};
inline constexpr ModuleFunction<1> build_obfuscated_store{"_build_obfuscated_store"_name};

// Freshness and synced runtime data (vocabulary/freshness.cpp).
inline constexpr ModuleFunction<1> runtime_vocabulary_freshness_state{"_runtime_vocabulary_freshness_state"_name};
inline constexpr ModuleFunction<2> is_vocabulary_artifact_path{"_is_vocabulary_artifact_path"_name};
inline constexpr ModuleFunction<3> runtime_vocabulary_refreshed{"_runtime_vocabulary_refreshed"_name};
inline constexpr ModuleFunction<1> reload_runtime_vocabulary_after_freshness{
    "_reload_runtime_vocabulary_after_freshness"_name};
inline constexpr ModuleFunction<1> load_runtime_shuffle_blob{"_load_runtime_shuffle_blob"_name};
inline constexpr ModuleFunction<1> validate_shuffle_blob{"_validate_shuffle_blob"_name};

std::span<const Definition> function_store_functions();
std::span<const Definition> freshness_functions();

} // namespace quillstone::simulate_signal
