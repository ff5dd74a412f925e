// Building the module's exceptions, and the two ways an error meets another
// on its way out (a failing clean-up, a failing close).
#pragma once

#include "core/state.hpp"

namespace tw {

// SearchError(error_code, recovery_advice, message, status), the class read
// from the namespace at the moment of use.
object search_error(handle code, handle advice, handle message, handle status);
// A SearchError raised at the caller before a search runs: its status is
// SearchStatus(running=False).
object startup_error(const char* code, const char* advice, handle message);

// `newer.__context__ = older`, as the interpreter sets it when `newer` is
// raised while `older` is being handled; an exception is never its own context.
void set_context(handle newer, handle older);

// The raw form of set_context for code that runs without C++ exceptions: the
// error now set gets the fetched error (type, value, traceback; references
// taken over) as its context. Nothing is set when nothing was fetched.
void chain_fetched_error(PyObject* type, PyObject* value, PyObject* traceback);

// Runs `body` and hands back the ordinary Python exception it raised (the
// exception object), or a null object:
//
//     if (object exc = caught([&] { ... })) record_failure(self, "claim", exc);
//
// What handles the error then runs after the C++ exception is gone. A thread
// that the host ends at exit while a handler calls into Python must not
// unwind through a pending C++ exception: destroying it takes the interpreter
// lock, which a thread being ended cannot, and the process would abort.
template <class F>
object caught(F&& body) {
    try {
        body();
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        return e.value();
    }
    return object();
}

// True when the exception object `exc` is an instance of `type`.
inline bool is_a(handle exc, handle type) { return PyErr_GivenExceptionMatches(exc.ptr(), type.ptr()) != 0; }

// Raises the exception object `exc` again, with its traceback.
[[noreturn]] void reraise(handle exc);

// `close = getattr(resource, "close", None); if callable(close): close()`.
void close_resource(handle resource);

// Runs `body`, then closes `resource` on every way out, as try/finally does:
// an error raised by close() replaces the one in flight, which becomes its context.
template <class F>
auto closing(handle resource, F&& body) -> decltype(body()) {
    try {
        if constexpr (std::is_void_v<decltype(body())>) {
            body();
        } else {
            auto result = body();
            close_resource(resource);
            return result;
        }
    } catch (py::error_already_set& e) {
        if (!may_touch_objects()) throw;  // a thread unwound at exit
        try {
            close_resource(resource);
        } catch (py::error_already_set& close_error) {
            set_context(close_error.value(), e.value());
            throw;
        }
        throw;
    }
    if constexpr (std::is_void_v<decltype(body())>) close_resource(resource);
}

}  // namespace tw
