#pragma once

#include "quillstone/simulate_signal/runtime/errors.hpp"

#include <cstddef>
#include <span>

namespace quillstone::runtime {

/// The memory of an array of 64-bit floats, for as long as this object lives.
class FloatBuffer {
  public:
    enum class Access { read, write };
    FloatBuffer(View array, Access access, Here where = Here::current());
    FloatBuffer(const FloatBuffer&) = delete;
    FloatBuffer& operator=(const FloatBuffer&) = delete;
    FloatBuffer(FloatBuffer&&) = delete;
    FloatBuffer& operator=(FloatBuffer&&) = delete;
    ~FloatBuffer();

    [[nodiscard]] std::byte* data() const noexcept { return static_cast<std::byte*>(view_.buf); }
    [[nodiscard]] std::span<const Py_ssize_t> shape() const noexcept { return {view_.shape, rank()}; }
    /// In bytes, one per dimension; they may be negative.
    [[nodiscard]] std::span<const Py_ssize_t> strides() const noexcept { return {view_.strides, rank()}; }
    [[nodiscard]] std::size_t rank() const noexcept { return static_cast<std::size_t>(view_.ndim); }
    [[nodiscard]] std::size_t size() const noexcept { return static_cast<std::size_t>(view_.len) / sizeof(double); }

  private:
    Py_buffer view_{};
};

/// Runs a computation that touches no Python object, letting other threads run meanwhile.
template <class Computation>
void without_interpreter(Computation&& computation) {
    enter([&] {
        PyThreadState* state = PyEval_SaveThread();
        computation();
        PyEval_RestoreThread(state);
    });
}

} // namespace quillstone::runtime
