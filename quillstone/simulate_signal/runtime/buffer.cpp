#include "quillstone/simulate_signal/runtime/buffer.hpp"

#include <string_view>

namespace quillstone::runtime {

FloatBuffer::FloatBuffer(View array, Access access, Here where) {
    const int flags = PyBUF_FORMAT | (access == Access::write ? PyBUF_WRITABLE | PyBUF_C_CONTIGUOUS : PyBUF_STRIDES);
    checked(enter([&] { return PyObject_GetBuffer(array.get(), &view_, flags); }), where);
    const std::string_view format = view_.format != nullptr ? view_.format : "B";
    if (view_.itemsize != sizeof(double) || !format.ends_with('d')) {
        enter([this] { PyBuffer_Release(&view_); });
        raise_with_message(TypeError::type(), runtime::format("an array of 64-bit floats is required"), where);
    }
}

FloatBuffer::~FloatBuffer() {
    enter([this] { PyBuffer_Release(&view_); });
}

} // namespace quillstone::runtime
