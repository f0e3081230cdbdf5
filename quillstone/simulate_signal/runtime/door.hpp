#pragma once

#include <Python.h>
#include <cxxabi.h>

#include <utility>

namespace quillstone::runtime {

/// Stops the calling thread for good. Only for a thread that the ending interpreter has told to exit.
[[noreturn]] void park() noexcept;

/// The one door to the interpreter: every call that may run Python code, release a reference or wait for the
/// interpreter's lock goes through here.
///
/// While the process ends, the interpreter finishes a daemon thread that asks for its lock with `pthread_exit`, a
/// forced unwind. Left alone it would run the destructors above this frame, which release references without the lock,
/// and abort at the first `noexcept`. It is caught here and the thread is parked, so no frame above is ever unwound;
/// the process ends around it.
template <class Action>
inline auto enter(Action&& action) -> decltype(std::forward<Action>(action)()) {
    try {
        return std::forward<Action>(action)();
    } catch (abi::__forced_unwind&) {
        park();
    }
}

} // namespace quillstone::runtime
