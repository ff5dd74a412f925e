// Construction of a handle and the per-era initialisation that feeds the
// private evaluation runtime.
#include "handle/handle.hpp"

namespace tw::hnd {

static object host_new(const char* module, handle cls_name, std::initializer_list<handle> args = {}) {
    return call(import_attr(module, cls_name), args);
}

static void raise_runtime_not_ready() { raise_obj(call(global(ID("SdkRuntimeNotReadyError")))); }

// Per-step metaparameters from the era's transform pipeline.
static object derive_metaparameters(handle era_cfg) {
    object params = new_dict();
    object pipeline = get_attr(era_cfg, ID("transform_pipeline"));
    object thresholds = get_attr(era_cfg, ID("thresholds"));
    object it = steal(PyObject_GetIter(pipeline.ptr()));
    object none_text = str_of("none");
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object step = steal(raw);
        object value = call_method(thresholds, ID("get"), {step, none_text});
        object lowered = call_method(py_str(value), ID("lower"));
        setitem(params, step, lowered);
    }
    if (PyErr_Occurred()) throw_py();
    if (PyDict_GET_SIZE(params.ptr()) == 0) {
        dict_set(params, str_of("demean"), str_of("cross_sectional"));
        dict_set(params, str_of("resize"), str_of("none"));
        dict_set(params, str_of("normalise"), str_of("z_score"));
    }
    return params;
}

object handle_init(handle self, handle template_, handle n_jobs, handle tracker, handle sync_mgr, handle bt, handle obf, handle era_cfg, handle auth_mock, handle data_dir) {
    if (is_none(era_cfg)) raise_runtime_not_ready();

    set_field(self, ID("_template"), template_);
    set_field(self, ID("_n_jobs"), n_jobs);
    set_field(self, ID("_tracker"), tracker);
    set_field(self, ID("_sync_mgr"), sync_mgr);
    set_field(self, ID("_backtester"), bt);
    set_field(self, ID("_obfuscation"), obf);
    set_field(self, ID("_era_config"), era_cfg);
    set_field(self, ID("_auth"), auth_mock);
    set_field(self, ID("_data_dir"), data_dir);
    set_field(self, ID("_running"), bool_of(true));
    set_field(self, ID("_stopped"), bool_of(false));
    set_field(self, ID("_era_failures"), int_of(0));
    set_field(self, ID("_sync_failures"), int_of(0));

    set_field(self, ID("_era_data_mod"), st_attr_or_none(ID("era_data")));
    set_field(self, ID("_start_time"), float_of(monotonic()));
    set_field(self, ID("_total_evaluated"), int_of(0));

    try {
        object getter = get_attr_or_none(tracker, ID("get_evaluation_count"));
        if (PyCallable_Check(getter.ptr())) {
            object count = call(getter);
            if (is_int(count)) set_field(self, ID("_total_evaluated"), count);
        }
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        log_warning("Failed to load persisted evaluation count: %s", {exc_value(e)});
    }

    object empty_exc = import_attr("queue", ID("Empty"));
    set_field(self, ID("_total_found"), int_of(0));
    set_field(self, ID("_crash_count"), int_of(0));
    set_field(self, ID("_errors"), new_list());
    set_field(self, ID("_fatal_error"), none());
    set_field(self, ID("_lock"), host_new("threading", ID("Lock")));
    set_field(self, ID("_stop_event"), host_new("threading", ID("Event")));
    set_field(self, ID("_queue_empty"), empty_exc);
    set_field(self, ID("_submission_queue"), host_new("queue", ID("Queue")));
    set_field(self, ID("_submission_wakeup"), host_new("threading", ID("Event")));
    set_field(self, ID("_retry_queue"), new_list());
    set_field(self, ID("_pending_submissions"), new_dict());
    set_field(self, ID("_finished_queue_ids"), steal(PySet_New(nullptr)));
    set_field(self, ID("_pending_receipts_by_queue_id"), new_dict());
    set_field(self, ID("_tracker_write_lock"), host_new("threading", ID("RLock")));
    set_field(self, ID("_tracker_uses_persistent_store"),
              call(global(ID("_tracker_uses_persistent_store")), {tracker}));
    set_field(self, ID("_submission_owner"), py_str(host_new("uuid", ID("uuid4"))));
    set_field(self, ID("_replacement_abort_event"), host_new("threading", ID("Event")));
    set_field(self, ID("_submission_start_lock"), host_new("threading", ID("Lock")));
    set_field(self, ID("_poll_start_lock"), host_new("threading", ID("Lock")));
    set_field(self, ID("_submission_claim_columns_ready"), bool_of(false));
    set_field(self, ID("_retry_claim_columns_ready"), bool_of(false));
    set_field(self, ID("_submission_backoff_seconds"), float_of(5.0));
    set_field(self, ID("_submission_backoff_until"), float_of(0.0));
    set_field(self, ID("_polling_backoff_seconds"), float_of(5.0));
    set_field(self, ID("_polling_backoff_until"), float_of(0.0));
    set_field(self, ID("_submission_failures"), int_of(0));
    set_field(self, ID("_polling_failures"), int_of(0));
    set_field(self, ID("_submission_degraded"), bool_of(false));
    set_field(self, ID("_polling_degraded"), bool_of(false));

    set_field(self, ID("_discovery_rate_declining_nudge_active"), bool_of(false));
    set_field(self, ID("_submission_queued"), int_of(0));
    set_field(self, ID("_submission_pending"), int_of(0));
    set_field(self, ID("_submission_accepted"), int_of(0));
    set_field(self, ID("_submission_rejected"), int_of(0));
    set_field(self, ID("_submission_retrying"), int_of(0));
    set_field(self, ID("_submission_discarded"), int_of(0));
    set_field(self, ID("_submission_backoff"), bool_of(false));
    set_field(self, ID("_last_poll_time"), float_of(wall_time()));
    set_field(self, ID("_era_transition_triggered"), bool_of(false));

    set_field(self, ID("_era"), py_str(get_attr(era_cfg, ID("era_id"))));
    set_field(self, ID("_sync_progress"), float_of(0.0));
    set_field(self, ID("_batch_tier"), str_of("full"));
    set_field(self, ID("_t_batch"), int_of(1000));

    object raw_vocab = call_method(obf, ID("get_vocabulary"));
    set_field(self, ID("_vocab"), call(global(ID("_normalize_template_vocabulary")), {raw_vocab}));
    set_field(self, ID("_metaparameters"), derive_metaparameters(era_cfg));
    set_field(self, ID("_max_depth"), get_attr(era_cfg, ID("max_depth")));
    set_field(self, ID("_thresholds"), get_attr(era_cfg, ID("thresholds")));

    call_method(self, ID("_do_per_era_init"));

    set_field(self, ID("_worker_threads"), new_list());
    set_field(self, ID("_worker_start_event"), host_new("threading", ID("Event")));
    set_field(self, ID("_worker_start_count"), int_of(0));
    set_field(self, ID("_supervisor_thread"), none());
    set_field(self, ID("_sync_thread"), none());
    set_field(self, ID("_era_thread"), none());
    set_field(self, ID("_submission_thread"), none());
    set_field(self, ID("_polling_thread"), none());

    call_method(self, ID("_start_all_threads"));
    return none();
}

// The two words of a permanent failure turn into a fatal state; the rest is
// swallowed here and surfaces in evaluation.
// `err_msg` is str(e), kept as the host's str: it may hold anything a str can.
static bool says(handle err_msg, const char* words) { return contains(err_msg, str_of(words)); }

static bool permanent_failure(handle self, handle err_msg) {
    if (!says(err_msg, "era mismatch") && !says(err_msg, "invalid credentials")) return false;
    object msg = ftext({str_of("Background infrastructure failed permanently: "), err_msg});
    call_method(self, ID("_set_fatal_error"), {str_of("INFRASTRUCTURE_FAILURE"), str_of("register()"), msg});
    return true;
}

object do_per_era_init(handle self) {
    object era_config = field(self, ID("_era_config"));
    object auth = field(self, ID("_auth"));
    if (is_none(era_config) || is_none(auth)) raise_runtime_not_ready();
    try {
        object os_path = import_module("os.path");
        object data_dir = field(self, ID("_data_dir"));
        object base;
        if (!is_none(data_dir) && truthy(data_dir))
            base = data_dir;
        else
            base = call(get_attr(os_path, ID("expanduser")), {str_of("~/.tarnwicket")});
        object seed_path = call(get_attr(os_path, ID("join")), {base, str_of("shuffle_seed.enc")});
        if (!truthy(call(get_attr(os_path, ID("exists")), {seed_path})))
            raise_obj(call(handle(PyExc_ValueError), {ftext({str_of("Shuffle seed file not found: "), seed_path})}));
        object builtins_open = import_attr("builtins", ID("open"));
        object fh = call(builtins_open, {seed_path, str_of("rb")});
        object shuffle_blob = closing(fh, [&] { return call_method(fh, ID("read")); });
        Py_ssize_t blob_len = PyObject_Length(shuffle_blob.ptr());
        if (blob_len < 0) throw_py();
        if (blob_len != 60) raise(PyExc_ValueError, "Shuffle seed must be 60 bytes, got " + std::to_string(blob_len));

        object wallet_secret = get_attr(auth, ID("wallet_secret"));
        if (!PyBytes_Check(wallet_secret.ptr()) || PyBytes_GET_SIZE(wallet_secret.ptr()) != 32) {
            object type = borrow(reinterpret_cast<PyObject*>(Py_TYPE(wallet_secret.ptr())));
            raise_obj(call(handle(PyExc_ValueError), {ftext({str_of("wallet_secret must be 32 bytes, got "), type})}));
        }
        object era_id = get_attr(era_config, ID("era_id"));

        object era_data = field(self, ID("_era_data_mod"));
        if (!is_none(era_data)) {
            try {
                call_method(era_data, ID("initialize"), {shuffle_blob, wallet_secret, era_id});
            } catch (py::error_already_set& e) {
                if (!ordinary(e)) throw;
                object err_msg = py_str(exc_value(e));
                if (!says(err_msg, "vault already initialized")) {
                    if (permanent_failure(self, err_msg)) return none();
                    throw;
                }
            }
        }

        object bt = field(self, ID("_backtester"));
        if (!is_none(bt)) {
            try {
                call_method_kw(bt, ID("init_reconstruction"), {},
                               {{ID("shuffle_blob"), shuffle_blob},
                                {ID("wallet_secret"), wallet_secret},
                                {ID("era_id"), era_id}});
            } catch (py::error_already_set& e) {
                if (!ordinary(e)) throw;
                log_warning("Backtester init_reconstruction failed: %s", {exc_value(e)});
            }
        }
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        if (matches(e, global(ID("SearchError")))) throw;
        object err_msg = py_str(exc_value(e));
        if (says(err_msg, "vault already initialized")) return none();
        permanent_failure(self, err_msg);
    }
    return none();
}

}  // namespace tw::hnd
