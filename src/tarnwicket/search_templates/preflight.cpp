// Probes that search() runs before it touches anything (auth, memory, disk),
// and the lock-out of the management commands while a search is active.
#include "operations.hpp"

namespace tw {

namespace ops {


object is_authed(handle mod) {
    object runtime = get_attr_or_none(mod, ID("_library_runtime"));
    if (is_none(runtime)) return bool_of(false);
    object auth_proxy = get_attr_or_none(runtime, ID("auth_proxy"));
    if (is_none(auth_proxy)) return bool_of(false);
    try {
        // The token itself is not looked at: any return means authenticated.
        call_method(auth_proxy, ID("get_token"));
    } catch (py::error_already_set& e) {
        static PyObject* probe_failures[] = {PyExc_AttributeError, PyExc_TypeError, PyExc_RuntimeError,
                                             PyExc_OSError, PyExc_ValueError};
        bool expected = false;
        for (PyObject* t : probe_failures) expected = expected || matches(e, t);
        if (!expected) throw;
        log_debug("auth probe get_token() raised: %s", {exc_value(e)});
        return bool_of(false);
    }
    return bool_of(true);
}

object check_memory() {
    object psutil;
    try {
        psutil = import_module("psutil");
    } catch (py::error_already_set& e) {
        if (!matches(e, PyExc_ImportError)) throw;
        log_warning("psutil not installed \xe2\x80\x94 memory check skipped");
        return none();
    }
    object available = get_attr(call_method(psutil, ID("virtual_memory")), ID("available"));
    object gib = int_of(1073741824);
    object available_gb = steal(PyNumber_TrueDivide(available.ptr(), gib.ptr()));
    object floor = float_of(4.0);
    if (check_int(PyObject_RichCompareBool(available_gb.ptr(), floor.ptr(), Py_LT)) == 1) {
        object spec = str_of(".1f");
        object shown = steal(PyObject_Format(available_gb.ptr(), spec.ptr()));
        object msg = steal(PyUnicode_FromFormat("Not enough memory: requires 4.0 GB, available %U GB", shown.ptr()));
        raise_obj(startup_error("OUT_OF_MEMORY",
                                "Run get_db_info() then delete_evaluations(). Reduce n_jobs if needed.", msg));
    }
    return none();
}

object check_disk() {
    try {
        object os_path = import_module("os.path");
        object home = call_method(os_path, ID("expanduser"), {str_of("~")});
        object usage = call_method(import_module("shutil"), ID("disk_usage"), {home});
        object mib = int_of(1048576);
        object available_mb = steal(PyNumber_TrueDivide(get_attr(usage, ID("free")).ptr(), mib.ptr()));
        object floor = int_of(500);
        if (check_int(PyObject_RichCompareBool(available_mb.ptr(), floor.ptr(), Py_LT)) == 1) {
            object spec = str_of(".0f");
            object shown = steal(PyObject_Format(available_mb.ptr(), spec.ptr()));
            object msg = steal(PyUnicode_FromFormat("Disk space critically low: %U MB remaining", shown.ptr()));
            raise_obj(startup_error(
                "DISK_FULL", "Run get_db_info() then delete_evaluations() or delete_failed_evaluations().", msg));
        }
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        if (matches(e, global(ID("SearchError")))) throw;
        log_warning("Disk check failed: %s", {exc_value(e)});
    }
    return none();
}

object raise_if_management_blocked() {
    object lock = global(ID("_search_active_lock"));
    with_lock(lock, [&] {
        if (truthy(global(ID("_search_active"))))
            raise_obj(call(handle(PyExc_RuntimeError), {global(ID("_MANAGEMENT_ACTIVE_ERROR"))}));
    });
    return none();
}

}  // namespace ops

}  // namespace tw
