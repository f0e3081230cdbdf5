#pragma once

#include <Python.h>

#include <type_traits>
#include <utility>

namespace quillstone::runtime {

/// Stops the calling thread for good. Only for a thread that the ending interpreter has told to exit.
[[noreturn]] void park() noexcept;

/// Parks the thread when the call that it watches over is left by an unwind instead of returning.
class Doorkeeper {
  public:
    Doorkeeper() noexcept = default;
    Doorkeeper(const Doorkeeper&) = delete;
    Doorkeeper& operator=(const Doorkeeper&) = delete;
    Doorkeeper(Doorkeeper&&) = delete;
    Doorkeeper& operator=(Doorkeeper&&) = delete;
    ~Doorkeeper() {
        if (!returned_) {
            park();
        }
    }
    void call_returned() noexcept { returned_ = true; }

  private:
    bool returned_ = false;
};

/// The one door to the interpreter: every call that may run Python code, release an object or wait for the
/// interpreter's lock goes through here. The call itself throws nothing.
///
/// While the process ends, the interpreter finishes a daemon thread that asks for its lock with `pthread_exit`, a
/// forced unwind. Left alone it would run the destructors above this frame, which release references without the lock,
/// and abort at the first `noexcept`. Here it meets a destructor that never returns, so no frame above is ever unwound,
/// and the process ends around the thread. (A destructor and no handler: entering one aborts while another exception is
/// being handled.)
template <class Call>
inline auto enter(Call&& call) -> decltype(std::forward<Call>(call)()) {
    Doorkeeper doorkeeper;
    if constexpr (std::is_void_v<decltype(std::forward<Call>(call)())>) {
        std::forward<Call>(call)();
        doorkeeper.call_returned();
    } else {
        auto result = std::forward<Call>(call)();
        doorkeeper.call_returned();
        return result;
    }
}

} // namespace quillstone::runtime
