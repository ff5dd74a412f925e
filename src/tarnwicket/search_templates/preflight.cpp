// The probes that search() runs before it touches anything: authentication,
// memory and disk; and the lock-out of the management commands.
#include "core/module.hpp"

namespace tw {

namespace {

[[noreturn]] void raise_search_error(const char* code, const char* advice, const std::string& message) {
    object status = call_kw(global(ID("SearchStatus")), {}, {{ID("running"), handle(Py_False)}});
    raise_obj(call(global(ID("SearchError")), {str_of(code), str_of(advice), str_of(message), status}));
}

std::string format_number(double value, const char* spec) {
    object v = float_of(value), s = str_of(spec);
    return utf8(steal(PyObject_Format(v.ptr(), s.ptr())));
}

object is_authed(Args& a) {
    object runtime = get_attr_or_none(a[0], ID("_library_runtime"));
    if (is_none(runtime)) return bool_of(false);
    object auth = get_attr_or_none(runtime, ID("auth_proxy"));
    if (is_none(auth)) return bool_of(false);
    try {
        call_method(auth, ID("get_token"));
    } catch (py::error_already_set& e) {
        object caught = tuple_of({handle(PyExc_AttributeError), handle(PyExc_TypeError), handle(PyExc_RuntimeError),
                                  handle(PyExc_OSError), handle(PyExc_ValueError)});
        if (!matches(e, caught)) throw;
        log_debug("auth probe get_token() raised: %s", {exc_value(e)});
        return bool_of(false);
    }
    return bool_of(true);
}

object check_memory(Args&) {
    object psutil;
    try {
        psutil = import_module("psutil");
    } catch (py::error_already_set& e) {
        if (!matches(e, PyExc_ImportError)) throw;
        log_warning("psutil not installed \xE2\x80\x94 memory check skipped");
        return none();
    }
    object vm = call(get_attr(psutil, ID("virtual_memory")));
    double available_gb = as_double(get_attr(vm, ID("available"))) / 1073741824.0;
    if (available_gb < 4.0)
        raise_search_error("OUT_OF_MEMORY", "Run get_db_info() then delete_evaluations(). Reduce n_jobs if needed.",
                           "Not enough memory: requires 4.0 GB, available " + format_number(available_gb, ".1f") +
                               " GB");
    return none();
}

object check_disk(Args&) {
    try {
        object home = call(import_attr("os.path", ID("expanduser")), {str_of("~")});
        object usage = call(import_attr("shutil", ID("disk_usage")), {home});
        double available_mb = as_double(get_attr(usage, ID("free"))) / 1048576.0;
        if (available_mb < 500)
            raise_search_error("DISK_FULL",
                               "Run get_db_info() then delete_evaluations() or delete_failed_evaluations().",
                               "Disk space critically low: " + format_number(available_mb, ".0f") + " MB remaining");
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        if (matches(e, global(ID("SearchError")))) throw;
        log_warning("Disk check failed: %s", {exc_value(e)});
    }
    return none();
}

object raise_if_management_blocked(Args&) {
    object lock = global(ID("_search_active_lock"));
    call_method(lock, ID("acquire"));
    bool active;
    try {
        active = truthy(global(ID("_search_active")));
    } catch (...) {
        call_method(lock, ID("release"));
        throw;
    }
    call_method(lock, ID("release"));
    if (active) raise(PyExc_RuntimeError, utf8(global(ID("_MANAGEMENT_ACTIVE_ERROR"))));
    return none();
}

}  // namespace

void register_preflight(handle m) {
    def_function<is_authed>(m, "_is_authed(mod)");
    def_function<check_memory>(m, "_check_memory()", "Check available memory. Raises SearchError if insufficient.");
    def_function<check_disk>(m, "_check_disk()", "Check available disk space. Raises SearchError if insufficient.");
    def_function<raise_if_management_blocked>(m, "_raise_if_management_blocked()");
}

}  // namespace tw
