// Per-thread guard that keeps template code away from files, SQLite and the
// network.
//
// `open`, `sqlite3.connect` and `urllib.request.urlopen` are replaced once for
// the whole process. Each replacement asks whether the calling thread is inside
// a sandboxed section; threads outside pass straight through to the real
// operation with their arguments forwarded as they came (vectorcall, no copy).
// The replacements are plain METH_FASTCALL functions so that an unsandboxed call
// costs one thread-id read, one round trip on `_template_sandbox_lock` and one
// set lookup.
#include "vocabulary/sandbox.hpp"

#include <pythread.h>

namespace tw {

namespace {

// The hooked entry points run without C++ exceptions: they read these names
// with global_ref() and test them with own().
const LateFn k_active("_template_sandbox_active");
const LateFn k_raise_violation("_raise_template_sandbox_violation");
const LateFn k_install_hooks("_install_template_sandbox_hooks");

// The three real operations as the namespace held them when the hooks went in:
// the way through once the host, finalising, has emptied the namespace (a
// finaliser may still open a file; no template runs any more). Kept for the
// life of the process.
struct KeptOriginal {
    const char* name;
    PyObject* object;
};
KeptOriginal g_kept_open{"_original_open", nullptr};
KeptOriginal g_kept_sqlite_connect{"_original_sqlite_connect", nullptr};
KeptOriginal g_kept_urlopen{"_original_urllib_urlopen", nullptr};

// Module global as a borrowed reference, or null with NameError set.
PyObject* global_ref(handle name) {
    PyObject* v = PyDict_GetItemWithError(module_state().globals, name.ptr());
    if (!v && !PyErr_Occurred()) PyErr_Format(PyExc_NameError, "name '%U' is not defined", name.ptr());
    return v;
}

// The calling thread's identifier as a Python int (the value of
// threading.get_ident()), made once per OS thread; borrowed, or null on error.
thread_local PyObject* t_ident_obj = nullptr;
thread_local unsigned long t_ident_val = 0;

PyObject* current_thread_ident_raw() {
    unsigned long id = PyThread_get_thread_ident();
    if (t_ident_obj && t_ident_val == id) return t_ident_obj;
    PyObject* o = PyLong_FromUnsignedLong(id);
    if (!o) return nullptr;
    Py_XDECREF(t_ident_obj);
    t_ident_obj = o;
    t_ident_val = id;
    return o;
}

PyObject* current_thread_ident() { return check(current_thread_ident_raw()); }

object sandbox_lock() { return global(ID("_template_sandbox_lock")); }

// ---------------------------------------------------------------- thread set

void thread_set_add(PyObject* ident) {
    object threads = global(ID("_template_sandbox_threads"));
    if (PySet_CheckExact(threads.ptr()))
        check_int(PySet_Add(threads.ptr(), ident));
    else
        call_method(threads, ID("add"), {handle(ident)});
}

void thread_set_discard(PyObject* ident) {
    object threads = global(ID("_template_sandbox_threads"));
    if (PySet_CheckExact(threads.ptr()))
        check_int(PySet_Discard(threads.ptr(), ident));
    else
        call_method(threads, ID("discard"), {handle(ident)});
}

// Whether the calling thread is in `_template_sandbox_threads`, asked under
// `_template_sandbox_lock`: 1 or 0, or -1 with the error set. Written against
// the raw API since every hooked call on every thread goes through it.
int sandbox_active_raw() {
    PyObject* ident = current_thread_ident_raw();  // taken before the lock
    if (!ident) return -1;
    PyObject* lock = global_ref(ID("_template_sandbox_lock"));
    if (!lock) return -1;
    if (host_lock_is_free(lock)) {
        // The lookup of a thread's own int in a set of ints runs no Python code.
        PyObject* threads = global_ref(ID("_template_sandbox_threads"));
        if (!threads) return -1;
        if (PySet_CheckExact(threads)) return PySet_Contains(threads, ident);
    }
    Py_INCREF(lock);
    PyObject* r = host_lock_acquire_raw(lock);
    if (!r) {
        Py_DECREF(lock);
        return -1;
    }
    Py_DECREF(r);
    int found = -1;
    if (PyObject* threads = global_ref(ID("_template_sandbox_threads"))) {
        Py_INCREF(threads);
        found = PySet_CheckExact(threads) ? PySet_Contains(threads, ident) : PySequence_Contains(threads, ident);
        Py_DECREF(threads);
    }
    PyObject *et = nullptr, *ev = nullptr, *etb = nullptr;
    if (found < 0) PyErr_Fetch(&et, &ev, &etb);
    r = host_lock_release_raw(lock);
    Py_DECREF(lock);
    if (!r) {
        if (found < 0) chain_fetched_error(et, ev, etb);
        return -1;
    }
    Py_DECREF(r);
    if (found < 0) PyErr_Restore(et, ev, etb);
    return found;
}

bool sandbox_active_impl() { return check_int(sandbox_active_raw()) == 1; }

[[noreturn]] void raise_violation_impl(handle operation) {
    object text = steal(PyObject_Format(operation.ptr(), nullptr));
    object msg = steal(PyUnicode_FromFormat("forbidden %U access from search template", text.ptr()));
    object exc = call(global(ID("TemplateSandboxViolation")), {msg});
    raise_obj(exc);
}

// ---------------------------------------------------------------- installation

void install_hooks_impl() {
    object lock = sandbox_lock();
    with_lock(lock, [&] {
        object urllib_request = import_module("urllib.request");
        object builtins = import_module("builtins");
        object sqlite3 = import_module("sqlite3");
        if (truthy(global(ID("_template_sandbox_hooks_installed")))) {
            // Re-assert: other code may have put its own functions in place.
            set_attr(builtins, ID("open"), global(ID("_sandboxed_open")));
            set_attr(sqlite3, ID("connect"), global(ID("_sandboxed_sqlite_connect")));
            object current = get_attr(urllib_request, ID("urlopen"));
            object mine = global(ID("_sandboxed_urllib_urlopen"));
            if (current.ptr() != mine.ptr()) set_attr(urllib_request, ID("urlopen"), mine);
            return;
        }
        set_attr(builtins, ID("open"), global(ID("_sandboxed_open")));
        set_attr(sqlite3, ID("connect"), global(ID("_sandboxed_sqlite_connect")));
        set_global(ID("_original_urllib_urlopen"), get_attr(urllib_request, ID("urlopen")));
        set_attr(urllib_request, ID("urlopen"), global(ID("_sandboxed_urllib_urlopen")));
        for (KeptOriginal* kept : {&g_kept_open, &g_kept_sqlite_connect, &g_kept_urlopen})
            if (!kept->object) kept->object = global(str_of(kept->name)).release().ptr();
        set_global(ID("_template_sandbox_hooks_installed"), bool_of(true));
    });
}

void install_hooks() {
    k_install_hooks.run<install_hooks_impl>();
}

// ---------------------------------------------------------------- hooked entry points

void set_violation(handle operation) {
    detail::returns_to_host([&] { raise_violation_impl(operation); });
}

// The one shape of the three replacements: refuse on a sandboxed thread,
// otherwise forward the caller's arguments untouched to the saved operation.
PyObject* forward_unless_sandboxed(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, handle original_name,
                                   handle operation, const KeptOriginal& kept) {
    PyObject* active_fn = global_ref(ID("_template_sandbox_active"));
    if (!active_fn) return nullptr;
    if (__builtin_expect(g_interpreter_exiting.load(std::memory_order_relaxed), 0) && !PyCallable_Check(active_fn) &&
        kept.object)
        return PyObject_Vectorcall(kept.object, args, (size_t)nargs, kwnames);
    int active;
    if (k_active.own(handle(active_fn))) {
        active = sandbox_active_raw();
    } else {
        Py_INCREF(active_fn);
        PyObject* r = PyObject_CallNoArgs(active_fn);
        Py_DECREF(active_fn);
        if (!r) return nullptr;
        active = PyObject_IsTrue(r);
        Py_DECREF(r);
    }
    if (active < 0) return nullptr;
    if (active) {
        PyObject* raise_fn = global_ref(ID("_raise_template_sandbox_violation"));
        if (!raise_fn) return nullptr;
        if (k_raise_violation.own(handle(raise_fn))) {
            set_violation(operation);
            return nullptr;
        }
        Py_INCREF(raise_fn);
        PyObject* r = PyObject_CallOneArg(raise_fn, operation.ptr());
        Py_DECREF(raise_fn);
        if (!r) return nullptr;
        Py_DECREF(r);
    }
    PyObject* original = global_ref(original_name);
    if (!original) return nullptr;
    Py_INCREF(original);
    PyObject* result = PyObject_Vectorcall(original, args, (size_t)nargs, kwnames);
    Py_DECREF(original);
    return result;
}

}  // namespace

namespace vocab {

// What `_template_sandbox()` returns: entering installs (or re-asserts) the hooks
// and marks the thread; leaving unmarks it, also on an exception, which goes on.
struct GuardObject {
    PyObject_HEAD PyObject* ident;
};
PyTypeObject* g_guard_type = nullptr;

PyObject* sandboxed_open(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return forward_unless_sandboxed(args, nargs, kwnames, ID("_original_open"), ID("filesystem"), g_kept_open);
}

PyObject* sandboxed_sqlite_connect(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return forward_unless_sandboxed(args, nargs, kwnames, ID("_original_sqlite_connect"), ID("sqlite"), g_kept_sqlite_connect);
}

PyObject* sandboxed_urllib_urlopen(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return forward_unless_sandboxed(args, nargs, kwnames, ID("_original_urllib_urlopen"), ID("network"), g_kept_urlopen);
}

// ---------------------------------------------------------------- scoped guard

void guard_dealloc(PyObject* self) {
    PyTypeObject* tp = Py_TYPE(self);
    Py_CLEAR(reinterpret_cast<GuardObject*>(self)->ident);
    tp->tp_free(self);
    Py_DECREF(tp);
}

PyObject* guard_enter(PyObject* self, PyObject*) {
    bool entered = detail::returns_to_host([&] {
        install_hooks();
        object ident = borrow(current_thread_ident());
        object lock = sandbox_lock();
        with_lock(lock, [&] { thread_set_add(ident.ptr()); });
        Py_XSETREF(reinterpret_cast<GuardObject*>(self)->ident, ident.release().ptr());
    });
    return entered ? Py_NewRef(Py_None) : nullptr;
}

PyObject* guard_exit(PyObject* self, PyObject* const*, Py_ssize_t nargs) {
    if (nargs != 3) {
        PyErr_Format(PyExc_TypeError, "__exit__ expected 3 arguments, got %zd", nargs);
        return nullptr;
    }
    bool left = detail::returns_to_host([&] {
        object ident = borrow(reinterpret_cast<GuardObject*>(self)->ident);
        if (ident) {
            object lock = sandbox_lock();
            with_lock(lock, [&] { thread_set_discard(ident.ptr()); });
        }
    });
    return left ? Py_NewRef(Py_False) : nullptr;
}

void init_guard_type() {
    static PyMethodDef methods[] = {
        {"__enter__", guard_enter, METH_NOARGS, nullptr},
        {"__exit__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(guard_exit)), METH_FASTCALL, nullptr},
        {nullptr, nullptr, 0, nullptr},
    };
    static PyType_Slot slots[] = {
        {Py_tp_dealloc, reinterpret_cast<void*>(guard_dealloc)},
        {Py_tp_methods, methods},
        {Py_tp_doc, const_cast<char*>("Scoped template sandbox for the calling thread.")},
        {0, nullptr},
    };
    // Made only by _template_sandbox().
    static PyType_Spec spec = {"tarnwicket.search_templates._TemplateSandbox", sizeof(GuardObject), 0,
                               Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};
    g_guard_type = reinterpret_cast<PyTypeObject*>(check(PyType_FromSpec(&spec)));
}

// ---------------------------------------------------------------- module functions

object template_sandbox() {
    PyObject* g = PyType_GenericAlloc(g_guard_type, 0);
    if (!g) throw_py();
    reinterpret_cast<GuardObject*>(g)->ident = nullptr;
    return steal(g);
}

bool template_sandbox_active() { return sandbox_active_impl(); }

[[noreturn]] void raise_violation(handle operation) { raise_violation_impl(operation); }

void install_template_hooks() { install_hooks_impl(); }

}  // namespace vocab

}  // namespace tw
