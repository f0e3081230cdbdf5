#pragma once

#include "quillstone/simulate_signal/runtime/protocol.hpp"

#include <memory>

namespace quillstone::runtime {

/// Takes the references that an object keeps, one by one.
class References {
  public:
    References(visitproc visit, void* argument) noexcept : visit_(visit), argument_(argument) {}
    void operator()(View reference) const {
        if (result_ == 0 && reference.exists()) {
            result_ = visit_(reference.get(), argument_);
        }
    }
    [[nodiscard]] int result() const noexcept { return result_; }

  private:
    visitproc visit_;
    void* argument_;
    mutable int result_ = 0;
};

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
    /// Shows every reference that it keeps, so that the interpreter can find cycles through the generator.
    virtual void show(const References& references) const = 0;
};

/// A generator object over the producer, with the interface of Python's own. `name` is the function that made it.
Object make_generator(std::unique_ptr<Producer> producer, Name name);

/// Makes the generator type; once, at load.
void prepare_generator_type();

} // namespace quillstone::runtime
