#pragma once

// The words in which the units are written. A unit includes this header and no other of the folder.

#include "quillstone/simulate_signal/runtime/buffer.hpp"    // IWYU pragma: export
#include "quillstone/simulate_signal/runtime/classes.hpp"   // IWYU pragma: export
#include "quillstone/simulate_signal/runtime/function.hpp"  // IWYU pragma: export
#include "quillstone/simulate_signal/runtime/generator.hpp" // IWYU pragma: export
#include "quillstone/simulate_signal/runtime/namespace.hpp" // IWYU pragma: export
#include "quillstone/simulate_signal/runtime/protocol.hpp"  // IWYU pragma: export
#include "quillstone/simulate_signal/runtime/visited.hpp"   // IWYU pragma: export
