#include "quillstone/simulate_signal/weights.hpp"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>

namespace quillstone::simulate_signal {

namespace {

// Below this many weights a computation is over before another thread could make use of the interpreter.
constexpr std::size_t worth_letting_others_run = 1U << 15U;

double finite_or_zero(double value) noexcept {
    return std::abs(value) <= std::numeric_limits<double>::max() ? value : 0.0;
}

/// A weight of the source, which need not be aligned.
double weight_at(const std::byte* place) noexcept {
    double weight = 0.0;
    std::memcpy(&weight, place, sizeof(weight));
    return weight;
}

/// The sum of the absolute values, in the order in which NumPy adds up a contiguous row: pairwise over blocks of at
/// most 128, with eight running sums in a block. Any other order would differ in the last bits.
double gross_of(const double* weights, std::size_t count) noexcept {
    constexpr std::size_t lanes = 8;
    constexpr std::size_t block = 128;
    if (count < lanes) {
        double sum = 0.0;
        for (std::size_t index = 0; index < count; ++index) {
            sum += std::abs(weights[index]);
        }
        return sum;
    }
    if (count > block) {
        const std::size_t half = count / 2 - (count / 2) % lanes;
        return gross_of(weights, half) + gross_of(weights + half, count - half);
    }
    double sums[lanes];
    for (std::size_t lane = 0; lane < lanes; ++lane) {
        sums[lane] = std::abs(weights[lane]);
    }
    std::size_t index = lanes;
    for (; index + lanes <= count; index += lanes) {
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            sums[lane] += std::abs(weights[index + lane]);
        }
    }
    double sum = ((sums[0] + sums[1]) + (sums[2] + sums[3])) + ((sums[4] + sums[5]) + (sums[6] + sums[7]));
    for (; index < count; ++index) {
        sum += std::abs(weights[index]);
    }
    return sum;
}

void normalize_row(double* weights, std::size_t count) noexcept {
    const double gross = gross_of(weights, count);
    if (gross > 0.0) {
        for (std::size_t index = 0; index < count; ++index) {
            weights[index] /= gross;
        }
    }
}

/// Copies an array of any memory order into rows that lie one after the other, cleaning every value on the way. Each
/// row of a one- or two-dimensional array is normalised while it is still in the cache.
class Finalizer {
  public:
    Finalizer(const FloatBuffer& source, const FloatBuffer& target) noexcept
        : shape_(source.shape()), strides_(source.strides()), normalizes_(source.rank() <= 2),
          target_(reinterpret_cast<double*>(target.data())) {}

    void copy(const std::byte* source, std::size_t dimension = 0) noexcept {
        const auto count = static_cast<std::size_t>(shape_[dimension]);
        const Py_ssize_t stride = strides_[dimension];
        if (dimension + 1 < shape_.size()) {
            for (std::size_t index = 0; index < count; ++index, source += stride) {
                copy(source, dimension + 1);
            }
            return;
        }
        copy_row(source, stride, count);
        if (normalizes_) {
            normalize_row(target_, count);
        }
        target_ += count;
    }

  private:
    void copy_row(const std::byte* source, Py_ssize_t stride, std::size_t count) noexcept {
        if (stride == sizeof(double)) {
            for (std::size_t index = 0; index < count; ++index) {
                target_[index] = finite_or_zero(weight_at(source + index * sizeof(double)));
            }
            return;
        }
        for (std::size_t index = 0; index < count; ++index, source += stride) {
            target_[index] = finite_or_zero(weight_at(source));
        }
    }

    std::span<const Py_ssize_t> shape_;
    std::span<const Py_ssize_t> strides_;
    bool normalizes_;
    double* target_;
};

Object finalized(View weights) {
    const Object numpy = import_module("numpy"_name);
    const Object float64 = attr(numpy, "float64"_name);
    Object array = method(numpy, "asarray"_name, weights, "dtype"_kw = float64);
    const FloatBuffer source(array, FloatBuffer::Access::read);
    if (source.rank() == 0) {
        return array;
    }
    Object result = method(numpy, "empty"_name, attr(array, "shape"_name), "dtype"_kw = float64);
    const FloatBuffer target(result, FloatBuffer::Access::write);
    if (target.size() != source.size()) {
        raise<ValueError>("numpy.empty returned an array of another shape");
    }
    if (source.size() == 0) {
        return result;
    }
    Finalizer finalizer(source, target);
    const auto run = [&]() noexcept { finalizer.copy(source.data()); };
    if (source.size() < worth_letting_others_run) {
        run();
    } else {
        without_interpreter(run);
    }
    return result;
}

constexpr Definition functions[] = {
    function<finalized>("_finalize_rescaled_weights(weights)",
                        "Return the weights as a new float64 array, non-finite values replaced by 0.0 and, in one or "
                        "two dimensions, every row with any exposure scaled to a gross exposure of 1."),
};

} // namespace

std::span<const Definition> finalize_functions() {
    return functions;
}

} // namespace quillstone::simulate_signal
