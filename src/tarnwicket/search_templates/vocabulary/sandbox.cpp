// The template sandbox: a per-thread guard on the host's `open`,
// `sqlite3.connect` and `urllib.request.urlopen`. The entry points are
// replaced once per process; threads outside a sandboxed section pass straight
// through to the real operation.
#include "core/module.hpp"

#include <pythread.h>

namespace tw {

namespace {

// `with _template_sandbox_lock:` without allocating.
class HostLock {
public:
    HostLock() : lock_(global(ID("_template_sandbox_lock"))) {
        PyObject* argv[1] = {lock_.ptr()};
        object r = steal(PyObject_VectorcallMethod(ID("acquire").ptr(), argv, 1 | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                                   nullptr));
    }
    ~HostLock() {
        PyObject* argv[1] = {lock_.ptr()};
        PyObject* r =
            PyObject_VectorcallMethod(ID("release").ptr(), argv, 1 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
        if (!r) PyErr_WriteUnraisable(lock_.ptr());
        Py_XDECREF(r);
    }

private:
    object lock_;
};

object current_ident() { return steal(PyLong_FromUnsignedLong(PyThread_get_thread_ident())); }

bool sandbox_active() {
    object ident = current_ident();
    HostLock guard;
    object threads = global(ID("_template_sandbox_threads"));
    return check_int(PySequence_Contains(threads.ptr(), ident.ptr())) == 1;
}

object f_sandbox_active(Args&);
object f_raise_violation(Args&);
object f_install_hooks(Args&);

[[noreturn]] void raise_violation(const char* operation) {
    object exc = call(global(ID("TemplateSandboxViolation")),
                      {str_of(std::string("forbidden ") + operation + " access from search template")});
    raise_obj(exc);
}

// The module's own `_template_sandbox_active`, unless a host replaced it.
PyObject* g_active_fn = nullptr;

bool active_through_namespace() {
    object fn = global(ID("_template_sandbox_active"));
    if (fn.ptr() == g_active_fn) return sandbox_active();
    return truthy(call(fn));
}

PyObject* forward(const char* operation, handle original_name, PyObject* const* args, Py_ssize_t nargs,
                  PyObject* kwnames) {
    try {
        if (active_through_namespace()) {
            call(global(ID("_raise_template_sandbox_violation")), {str_of(operation)});
            raise_violation(operation);
        }
        object original = global(original_name);
        return PyObject_Vectorcall(original.ptr(), args, (size_t)nargs, kwnames);
    } catch (py::error_already_set& e) {
        e.restore();
        return nullptr;
    } catch (...) {
        detail::translate_current_cpp_exception();
        return nullptr;
    }
}

PyObject* sandboxed_open(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return forward("filesystem", ID("_original_open"), args, nargs, kwnames);
}
PyObject* sandboxed_sqlite_connect(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return forward("sqlite", ID("_original_sqlite_connect"), args, nargs, kwnames);
}
PyObject* sandboxed_urlopen(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return forward("network", ID("_original_urllib_urlopen"), args, nargs, kwnames);
}

#define TW_FASTCALL(fn) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(fn))
PyMethodDef g_hook_defs[] = {
    {"_sandboxed_open", TW_FASTCALL(sandboxed_open), METH_FASTCALL | METH_KEYWORDS,
     "_sandboxed_open(*args, **kwargs)\n--\n\nThe host's open, refused inside a template sandbox."},
    {"_sandboxed_sqlite_connect", TW_FASTCALL(sandboxed_sqlite_connect), METH_FASTCALL | METH_KEYWORDS,
     "_sandboxed_sqlite_connect(*args, **kwargs)\n--\n\nsqlite3.connect, refused inside a template sandbox."},
    {"_sandboxed_urllib_urlopen", TW_FASTCALL(sandboxed_urlopen), METH_FASTCALL | METH_KEYWORDS,
     "_sandboxed_urllib_urlopen(*args, **kwargs)\n--\n\nurllib.request.urlopen, refused inside a template "
     "sandbox."},
};
#undef TW_FASTCALL

object f_sandbox_active(Args&) { return bool_of(sandbox_active()); }

object f_raise_violation(Args& a) { raise_violation(to_std(a[0]).c_str()); }

object f_install_hooks(Args&) {
    HostLock guard;
    object request = import_module("urllib.request");
    object builtins = import_module("builtins");
    object sqlite3 = import_module("sqlite3");
    object hooked_open = global(ID("_sandboxed_open"));
    object hooked_connect = global(ID("_sandboxed_sqlite_connect"));
    object hooked_urlopen = global(ID("_sandboxed_urllib_urlopen"));
    if (truthy(global(ID("_template_sandbox_hooks_installed")))) {
        set_attr(builtins, ID("open"), hooked_open);
        set_attr(sqlite3, ID("connect"), hooked_connect);
        if (get_attr(request, ID("urlopen")).ptr() != hooked_urlopen.ptr())
            set_attr(request, ID("urlopen"), hooked_urlopen);
        return none();
    }
    set_attr(builtins, ID("open"), hooked_open);
    set_attr(sqlite3, ID("connect"), hooked_connect);
    set_global("_original_urllib_urlopen", get_attr(request, ID("urlopen")));
    set_attr(request, ID("urlopen"), hooked_urlopen);
    set_global("_template_sandbox_hooks_installed", bool_of(true));
    return none();
}

// ---------------------------------------------------------------- the scoped guard

object guard_enter(Args& a) {
    call(global(ID("_install_template_sandbox_hooks")));
    object ident = current_ident();
    HostLock guard;
    check_int(PySet_Add(global(ID("_template_sandbox_threads")).ptr(), ident.ptr()));
    (void)a;
    return none();
}

object guard_exit(Args&) {
    object ident = current_ident();
    HostLock guard;
    object threads = global(ID("_template_sandbox_threads"));
    call_method(threads, ID("discard"), {ident});
    return bool_of(false);
}

object f_template_sandbox(Args&) { return call(global(ID("_TemplateSandboxGuard"))); }

}  // namespace

void register_sandbox(handle m) {
    object threading = import_module("threading");
    set_global("_template_sandbox_lock", call(get_attr(threading, ID("Lock"))));
    set_global("_template_sandbox_threads", steal(PySet_New(nullptr)));
    set_global("_template_sandbox_hooks_installed", bool_of(false));
    set_global("_original_open", import_attr("builtins", ID("open")));
    set_global("_original_sqlite_connect", import_attr("sqlite3", ID("connect")));
    set_global("_original_urllib_urlopen", none());

    object modname = str_of("tarnwicket.search_templates");
    for (auto& def : g_hook_defs) {
        object fn = steal(PyCFunction_NewEx(&def, nullptr, modname.ptr()));
        set_global(def.ml_name, fn);
    }
    object active = def_function<f_sandbox_active>(m, "_template_sandbox_active()");
    g_active_fn = active.ptr();
    def_function<f_raise_violation>(m, "_raise_template_sandbox_violation(operation)");
    def_function<f_install_hooks>(m, "_install_template_sandbox_hooks()");

    object guard_cls = make_class("_TemplateSandboxGuard", handle(reinterpret_cast<PyObject*>(&PyBaseObject_Type)),
                                  "Marks the calling thread as running template code while entered.");
    def_method<guard_enter>(guard_cls, "__enter__($self)");
    def_method<guard_exit>(guard_cls, "__exit__($self, exc_type, exc_value, traceback)");
    set_global("_TemplateSandboxGuard", guard_cls);
    def_function<f_template_sandbox>(m, "_template_sandbox()",
                                     "Scoped guard: entering marks the calling thread, leaving unmarks it.");
}

}  // namespace tw
