#include "submission/binding.hpp"

#include "submission/payload.hpp"
#include "collaborators/signal_service.hpp"

namespace tw::binding {

static const LateFn k_first_signal_pool_id_from_era_config("_first_signal_pool_id_from_era_config");
static const LateFn k_pool_id_from_config_entry("_pool_id_from_config_entry");
static const LateFn k_result_to_receipt("_result_to_receipt");
static const LateFn k_submit_signal_payload("_submit_signal_payload");

// ---------------------------------------------------------------- pools

object pool_id_from_config_entry(handle pool) {
    object value;
    if (is_dict(pool)) {
        value = dict_get(pool, ID("signal_pool_id"));
        if (!truthy(value)) value = dict_get(pool, ID("name"));
    } else {
        value = get_attr_or_none(pool, ID("signal_pool_id"));
        if (!truthy(value)) value = get_attr_or_none(pool, ID("name"));
    }
    if (is_nonempty_str(value)) return value;
    return none();
}

static object entry_pool_id(handle pool) {
    return k_pool_id_from_config_entry.run<pool_id_from_config_entry>(pool);
}

static bool is_seq(handle o) { return is_list(o) || is_tuple(o); }

object first_signal_pool_id_from_era_config(handle era_config) {
    object pools = none();
    if (is_dict(era_config))
        pools = dict_get(era_config, ID("signal_pools"));
    else if (!is_none(era_config))
        pools = get_attr_or_none(era_config, ID("signal_pools"));
    bool have_pools = false;
    if (is_seq(pools)) {
        Py_ssize_t n = PyObject_Length(pools.ptr());
        if (n < 0) throw_py();
        have_pools = n > 0;
    }
    if (!have_pools) {
        object data = get_attr_or_none(era_config, ID("_data"));
        if (is_dict(data)) pools = dict_get(data, ID("signal_pools"));
    }
    if (!is_seq(pools)) return none();
    object seq = steal(PySequence_Fast(pools.ptr(), ""));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(seq.ptr()); ++i) {
        object pool = borrow(PySequence_Fast_GET_ITEM(seq.ptr(), i));
        object pid = entry_pool_id(pool);
        if (!is_none(pid)) return pid;
    }
    return none();
}

object call_first_signal_pool_id(handle era_config) {
    return k_first_signal_pool_id_from_era_config.run<first_signal_pool_id_from_era_config>(era_config);
}

// The dict that `f(**kwargs)` would pass: a replaced `_submit_kwargs_from_payload`
// may hand back any mapping, or something that is none.
static object keyword_dict(handle kwargs) {
    if (is_dict(kwargs)) return borrow(kwargs.ptr());
    if (!has_attr(kwargs, ID("keys"))) {
        PyErr_Format(PyExc_TypeError, "argument after ** must be a mapping, not %.200s", Py_TYPE(kwargs.ptr())->tp_name);
        throw_py();
    }
    object d = new_dict();
    check_int(PyDict_Merge(d.ptr(), kwargs.ptr(), 1));
    return d;
}

object submit_signal_payload(handle payload) {
    object receipt_cls = import_attr("tarnwicket.submit", ID("SubmissionReceipt"));
    object rejected_error = import_attr("tarnwicket.submit", ID("SubmissionRejectedError"));
    object client = service::default_client();
    return closing(client, [&] {
        object kwargs = payload::call_submit_kwargs(payload, global(ID("_SIGNAL_SUBMIT_KWARGS")));
        object submit = get_attr(client, ID("submit_signal"));
        object empty = steal(PyTuple_New(0));
        object result = call_star(submit, empty, keyword_dict(kwargs));
        object kind = str_of("signal");
        return k_result_to_receipt.run<service::result_to_receipt>(result, kind, receipt_cls, rejected_error);
    });
}

// ---------------------------------------------------------------- bindings


object f_submit_signal(handle graph, handle universe_id, handle signal_pool_id, handle is_stats, handle is_pnl_mi, handle expression_elapsed_seconds, handle metaparameters, handle search_state) {
    object payload = new_dict();
    dict_set(payload, ID("graph"), graph);
    dict_set(payload, ID("universe_id"), universe_id);
    dict_set(payload, ID("signal_pool_id"), signal_pool_id);
    dict_set(payload, ID("is_stats"), is_stats);
    dict_set(payload, ID("is_pnl_mi"), is_pnl_mi);
    dict_set(payload, ID("expression_elapsed_seconds"), expression_elapsed_seconds);
    dict_set(payload, ID("metaparameters"), metaparameters);
    dict_set(payload, ID("search_state"), search_state);
    return k_submit_signal_payload.run<submit_signal_payload>(payload);
}


}  // namespace tw::binding

