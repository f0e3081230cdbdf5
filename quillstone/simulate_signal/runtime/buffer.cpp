#include "quillstone/simulate_signal/runtime/buffer.hpp"

namespace quillstone::runtime {

FloatBuffer::FloatBuffer(View array, Access access, Here where) {
    const int flags = access == Access::write ? PyBUF_STRIDED : PyBUF_STRIDED_RO;
    checked(enter([&] { return PyObject_GetBuffer(array.get(), &view_, flags); }), where);
    if (view_.itemsize != sizeof(double)) {
        enter([this] { PyBuffer_Release(&view_); });
        raise_with_message(TypeError::type(), format("an array of 64-bit floats is required"), where);
    }
}

FloatBuffer::~FloatBuffer() {
    enter([this] { PyBuffer_Release(&view_); });
}

} // namespace quillstone::runtime
