#pragma once

#include "quillstone/simulate_signal/runtime/protocol.hpp"

#include <memory>

namespace quillstone::runtime {

/// What a generator object draws its values from.
class Producer {
  public:
    Producer() = default;
    Producer(const Producer&) = delete;
    Producer& operator=(const Producer&) = delete;
    Producer(Producer&&) = delete;
    Producer& operator=(Producer&&) = delete;
    virtual ~Producer() = default;

    /// The next value; empty at the end.
    virtual Object next() = 0;
};

/// A generator object over the producer, with the interface of Python's own. `name` is the function that made it.
Object make_generator(std::unique_ptr<Producer> producer, Name name);

/// Makes the generator type; once, at load.
void prepare_generator_type();

} // namespace quillstone::runtime
