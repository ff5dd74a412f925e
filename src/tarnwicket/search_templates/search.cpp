// search(): the one operation that starts a search, in its fixed order of steps.
#include "operations.hpp"

namespace tw {

namespace ops {

// A module global assigned under the module's `_search_active_lock`.
void set_under_module_lock(const char* name, handle value) {
    with_lock(global(ID("_search_active_lock")), [&] { set_global(name, value); });
}

void set_search_active(bool value) { set_under_module_lock("_search_active", bool_of(value)); }

[[noreturn]] void raise_search_error(const char* code, const char* advice, const char* message) {
    raise_obj(startup_error(code, advice, str_of(message)));
}

object runtime_attr(handle runtime, handle name) {
    if (is_none(runtime)) return none();
    return get_attr_or_none(runtime, name);
}

// Step 8: every earlier handle is stopped or aborted before the new one starts.
void replace_earlier_handles() {
    object active = global(ID("_active_handles"));
    object snapshot = list_from(active);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(snapshot.ptr()); ++i) {
        object h = borrow(PyList_GET_ITEM(snapshot.ptr(), i));
        try {
            if (truthy(get_attr_or(h, ID("_stopped"), Py_False))) {
                call_method(active, ID("discard"), {h});
                continue;
            }
            object abort = get_attr_or_none(h, ID("_abort_for_replacement"));
            if (PyCallable_Check(abort.ptr()))
                call(abort);
            else
                call_method_kw(h, ID("stop"), {}, {{ID("join_timeout"), float_of(2.0)}});
            call_method(active, ID("discard"), {h});
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to stop previous search handle: %s", {exc_value(e)});
            try {
                event_set(get_attr(h, ID("_stop_event")));
            } catch (py::error_already_set& e2) {
                if (!ordinary(e2)) throw;
                log_warning("Failed to signal previous search handle: %s", {exc_value(e2)});
            }
        }
    }
}

// Step 11: returns the sync progress for the handle, or None without a sync stage.
object run_sync_stage(handle sync_mgr) {
    if (is_none(sync_mgr)) return none();
    try {
        if (!truthy(call_method(sync_mgr, ID("needs_sync")))) return float_of(1.0);
        object sync_error = import_attr("tarnwicket.sync", ID("SyncError"));
        for (int attempt = 0; attempt < 11; ++attempt) {
            try {
                call_method(sync_mgr, ID("sync"));
                return float_of(1.0);
            } catch (py::error_already_set& e) {
                if (!matches(e, PyExc_ConnectionError)) throw;
            }
        }
        raise_obj(call(sync_error, {str_of("Data sync failed after multiple retries. Check network and try again.")}));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        object sync_error = import_attr("tarnwicket.sync", ID("SyncError"));
        if (matches(e, sync_error)) throw;
        object wrapped =
            call(sync_error, {str_of("Data sync failed before search startup. Check network and try again.")});
        raise_from(wrapped, exc_value(e));
    }
}

// Step 12: the raw vocabulary as JSON text, or None.
object lookup_vocabulary(handle runtime, handle data_dir, handle universe_id) {
    object vocab_dir = call(import_attr("os.path", ID("expanduser")), {data_dir});
    object raw = runtime_attr(runtime, ID("vocabulary_raw"));
    object vocab_data = is_dict(raw) ? raw : none();
    try {
        object obf_mod = import_module("tarnwicket.obfuscation");
        if (is_none(vocab_data)) {
            object loaded = call(get_attr(obf_mod, ID("load_vocabulary")), {vocab_dir, universe_id});
            if (is_dict(loaded))
                vocab_data = loaded;
            else
                log_warning("load_vocabulary returned non-dict payload: %s",
                            {get_attr(borrow(reinterpret_cast<PyObject*>(Py_TYPE(loaded.ptr()))), ID("__name__"))});
        }
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("Failed to load vocabulary via load_vocabulary: %s", {exc_value(e)});
    }
    if (is_none(vocab_data)) return none();
    return call(import_attr("json", ID("dumps")), {vocab_data});
}

object search(handle template_, handle n_jobs_arg) {
    object n_jobs = borrow(n_jobs_arg.ptr());
    // Threads started now would never be stopped: the host has already shut
    // its threads down and is about to finalise.
    if (g_interpreter_exiting.load()) raise(PyExc_RuntimeError, "cannot start a search after interpreter shutdown");

    object st_mod = import_module("tarnwicket");
    st_mod = get_attr(st_mod, ID("search_templates"));
    if (!truthy(call(global(ID("_is_authed")), {st_mod})))
        raise_obj(startup_error("AUTH_ERROR", "Run register() or login(private_key) first.",
                                global(ID("_NOT_AUTHENTICATED_MESSAGE"))));
    call(get_attr(st_mod, ID("_check_memory")));
    call(get_attr(st_mod, ID("_check_disk")));
    if (!PyCallable_Check(template_.ptr())) raise(PyExc_TypeError, "Template must be callable accepting SearchContext");
    object one = int_of(1);
    if (check_int(PyObject_RichCompareBool(n_jobs.ptr(), one.ptr(), Py_LT)))
        raise(PyExc_ValueError, "n_jobs must be >= 1");
    object data_dir = call(global(ID("_agent_onboarding_data_dir")));
    if (is_none(data_dir))
        raise_search_error("DATA_DIR_REQUIRED",
                           "Set tarnwicket.agent_onboarding._config['data_dir'] before calling search().",
                           "data_dir is required to start a search.");
    object runtime = get_attr_or_none(st_mod, ID("_library_runtime"));

    replace_earlier_handles();

    object cpu_count = call(import_attr("os", ID("cpu_count")));
    if (!is_none(cpu_count) && check_int(PyObject_RichCompareBool(n_jobs.ptr(), cpu_count.ptr(), Py_GT))) {
        log_warning("%s", {ftext({str_of("n_jobs="), n_jobs, str_of(" exceeds available cores ("), cpu_count,
                                  str_of("). Using n_jobs="), cpu_count, str_of(".")})});
        n_jobs = cpu_count;
    }

    try {
        call(global(ID("inject_heartbeat")));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("%s", {ftext({str_of("Heartbeat injection failed: "), exc_value(e)})});
    }

    object sync_mgr = runtime_attr(runtime, ID("sync_manager"));
    object sync_progress = run_sync_stage(sync_mgr);

    object universe_id = runtime_attr(runtime, ID("valid_universe_id"));
    if (!truthy(universe_id))
        raise_search_error("VALID_UNIVERSE_UNAVAILABLE", "Configure valid_universe_id before searching.",
                           "search() requires a target valid_universe_id so vocabulary lookup is scoped to one "
                           "universe.");
    object vocab_json = lookup_vocabulary(runtime, data_dir, universe_id);

    object tracker = runtime_attr(runtime, ID("search_tracker"));
    if (is_none(tracker))
        raise_search_error("SEARCH_TRACKER_UNAVAILABLE",
                           "Run get_db_info() and reinitialize the database before searching.",
                           "SearchTracker unavailable: runtime did not provide a tracker. Run get_db_info() and "
                           "reinitialize the database before searching.");
    try {
        call_method(tracker, ID("set_search_active"), {handle(Py_True)});
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("Failed to set search active: %s", {exc_value(e)});
    }
    set_search_active(true);

    if (is_none(get_attr(runtime, ID("search_era_config")))) {
        set_search_active(false);
        try {
            call_method(tracker, ID("set_search_active"), {handle(Py_False)});
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to clear search active after missing era config: %s", {exc_value(e)});
        }
        raise_search_error("ERA_CONFIG_UNAVAILABLE",
                           "Run register() or login(private_key) again after data sync completes.",
                           "search() requires synced era config before expressions can be generated.");
    }
    object era_cfg = get_attr(runtime, ID("search_era_config"));
    object obf = none();
    object obf_cls = get_attr_or_none(st_mod, ID("ObfuscationManager"));
    if (!is_none(obf_cls)) {
        try {
            obf = call(obf_cls, {vocab_json, get_attr(era_cfg, ID("era_id")), universe_id});
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            log_warning("Failed to instantiate ObfuscationManager: %s", {exc_value(e)});
            obf = none();
        }
    }
    if (is_none(obf)) {
        set_search_active(false);
        raise_search_error("VOCABULARY_UNAVAILABLE",
                           "Vocabulary data not found. Run search() after data sync completes, or ensure the "
                           "per-universe vocabulary.json exists in your data directory.",
                           "search() requires vocabulary data to validate and generate expressions.");
    }
    object bt = get_attr_or_none(runtime, ID("evaluator"));
    if (is_none(bt)) {
        set_search_active(false);
        raise_search_error("BACKTESTER_UNAVAILABLE",
                           "Run register() or login(private_key) again after data sync completes.",
                           "search() requires a usable private evaluation runtime/backtester.");
    }
    object auth_obj = get_attr_or_none(runtime, ID("auth_proxy"));

    object handle_obj = call_kw(global(ID("_SearchHandleImpl")), {},
                                {{ID("template"), template_},
                                 {ID("n_jobs"), n_jobs},
                                 {ID("tracker"), tracker},
                                 {ID("sync_mgr"), sync_mgr},
                                 {ID("bt"), bt},
                                 {ID("obf"), obf},
                                 {ID("era_cfg"), era_cfg},
                                 {ID("auth_mock"), auth_obj},
                                 {ID("data_dir"), data_dir}});
    if (!is_none(sync_progress)) set_attr(handle_obj, ID("_sync_progress"), sync_progress);
    set_under_module_lock("_active_search_handle", handle_obj);
    call_method(global(ID("_active_handles")), ID("add"), {handle_obj});
    return handle_obj;
}

}  // namespace ops

}  // namespace tw
