#include "quillstone/simulate_signal/runtime/door.hpp"

#include <unistd.h>

namespace quillstone::runtime {

void park() noexcept {
    for (;;) {
        pause();
    }
}

} // namespace quillstone::runtime
