// The interpreter's headers and pybind11, included by every file of the module
// (and precompiled), with one change to how references are dropped.
//
// At interpreter exit the host ends daemon threads that still want the
// interpreter lock by unwinding their stacks (abi::__forced_unwind). Such a
// thread runs the destructors of the C++ frames it unwinds while another
// thread holds the lock and is tearing the interpreter down. A reference
// dropped there would race with that teardown, and a dealloc would run Python
// code without the lock; so once exit has begun, a thread that does not hold
// the lock leaks the reference instead. The process is ending: nothing is lost.
#pragma once

#include <Python.h>

#include <atomic>
#include <cstdint>
#include <cxxabi.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace tw {

// Set when the module's exit hook runs, before the host starts finalising.
extern std::atomic<bool> g_interpreter_exiting;

// True when this thread holds the interpreter lock. Not PyGILState_Check: at
// the end of finalisation the host deletes its thread-state key, and from then
// on that answers yes on every thread, so a daemon thread ended late (one
// that came back from a long call without the lock) would drop references
// while nobody holds the lock.
inline bool holds_interpreter_lock() {
    PyThreadState* mine = PyGILState_GetThisThreadState();
    return mine != nullptr && mine == _PyThreadState_UncheckedGet();
}

// True when this thread may touch Python objects: always before exit, and
// after it only while holding the interpreter lock.
inline bool may_touch_objects() {
    return !g_interpreter_exiting.load(std::memory_order_relaxed) || holds_interpreter_lock();
}

inline void drop_ref(PyObject* op) {
    if (__builtin_expect(g_interpreter_exiting.load(std::memory_order_relaxed), 0) && !holds_interpreter_lock()) return;
    Py_DECREF(op);
}
inline void drop_xref(PyObject* op) {
    if (op) drop_ref(op);
}

// The forced unwinding of a thread ended by the host. A catch-all either
// rethrows, skipping its clean-up when !may_touch_objects(), or goes through
// detail::translate_current_cpp_exception, the one handler that lets it through.
using forced_unwind = abi::__forced_unwind;

// That unwinding starts in the host's own code, which the address sanitizer
// does not instrument: an instrumented frame it pops without running any
// clean-up keeps its stack redzones, and the runtime's own stack check in the
// next clean-up above lands in them and reports an overflow that is not
// there. A frame that calls where the host may end the thread, and keeps an
// array on its stack, holds an ExitUnwindPad: its clean-up clears the shadow
// of the dead stack below the frame. Outside that build it is nothing.
#if defined(__SANITIZE_ADDRESS__)
struct ExitUnwindPad {
    [[gnu::noinline]] ~ExitUnwindPad() {
        if (may_touch_objects()) return;
        constexpr std::uintptr_t window = 256 * 1024;
        auto frame = reinterpret_cast<std::uintptr_t>(__builtin_dwarf_cfa());  // the holder's stack pointer
        __asan_unpoison_memory_region(reinterpret_cast<void*>(frame - window), window);
    }
};
#else
struct ExitUnwindPad {};
#endif

}  // namespace tw

#undef Py_DECREF
#define Py_DECREF(op) ::tw::drop_ref(_PyObject_CAST(op))
#undef Py_XDECREF
#define Py_XDECREF(op) ::tw::drop_xref(_PyObject_CAST(op))

#include <pybind11/pybind11.h>
