#include "submission/binding.hpp"

#include "submission/payload.hpp"

namespace tw::binding {

static const LateFn k_build_signal_service_client("_build_signal_service_client");
static const LateFn k_details_from_body("_details_from_body");
static const LateFn k_first_signal_pool_id_from_era_config("_first_signal_pool_id_from_era_config");
static const LateFn k_get_submission_token("_get_submission_token");
static const LateFn k_poll_status_internal("_poll_status_internal");
static const LateFn k_pool_id_from_config_entry("_pool_id_from_config_entry");
static const LateFn k_resolve_signal_service_url("_resolve_signal_service_url");
static const LateFn k_result_to_receipt("_result_to_receipt");
static const LateFn k_submission_auth_obj("_submission_auth_obj");
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
    if (object f = k_pool_id_from_config_entry.replaced()) return call(f, {pool});
    return pool_id_from_config_entry(pool);
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
    if (object f = k_first_signal_pool_id_from_era_config.replaced())
        return call(f, {era_config});
    return first_signal_pool_id_from_era_config(era_config);
}

// ---------------------------------------------------------------- configuration and auth

// The onboarding module, or a null object when it is not installed at all.
static object onboarding_module() {
    try {
        return import_module("tarnwicket.agent_onboarding");
    } catch (py::error_already_set& e) {
        if (!matches(e, PyExc_ModuleNotFoundError)) throw;
        object name = get_attr_or_none(e.value(), ID("name"));
        object expected = str_of("tarnwicket.agent_onboarding");
        if (check_int(PyObject_RichCompareBool(name.ptr(), expected.ptr(), Py_EQ)) == 1) return object();
        throw;
    }
}

static object resolve_signal_service_url() {
    object mod = onboarding_module();
    if (!mod) return none();
    object empty = new_dict();
    object config = get_attr_or(mod, ID("_config"), empty);
    object url = mapping_get(config, ID("server_url"), handle(Py_None));
    if (is_str(url)) {
        object suffix = str_of(".invalid");
        Py_ssize_t ends = PyUnicode_Tailmatch(url.ptr(), suffix.ptr(), 0, PY_SSIZE_T_MAX, 1);
        if (ends < 0) throw_py();
        if (ends) return none();
    }
    if (is_nonempty_str(url)) return url;
    return none();
}

static object submission_auth_obj() {
    object runtime = global_or_none(ID("_library_runtime"));
    if (!is_none(runtime)) {
        object proxy = get_attr_or_none(runtime, ID("auth_proxy"));
        if (!is_none(proxy)) return proxy;
    }
    object auth = global_or_none(ID("_auth"));
    if (!is_none(auth)) return auth;
    object mod = onboarding_module();
    if (!mod) return none();
    return get_attr_or_none(mod, ID("_auth_manager"));
}

[[noreturn]] static void raise_not_authenticated(handle auth_error, handle cause) {
    object exc = call(auth_error, {global(ID("_NOT_AUTHENTICATED_MESSAGE"))});
    if (cause) raise_from(exc, cause);
    raise_obj(exc);
}

static object get_submission_token() {
    object auth_error = import_attr("tarnwicket.auth", ID("AuthError"));
    object auth_obj;
    if (object f = k_submission_auth_obj.replaced())
        auth_obj = call(f);
    else
        auth_obj = submission_auth_obj();
    if (is_none(auth_obj)) raise_not_authenticated(auth_error, handle());
    object token;
    try {
        token = call_method(auth_obj, ID("get_token"));
    } catch (py::error_already_set& e) {
        if (!ordinary(e)) throw;
        if (matches(e, auth_error)) {
            object empty = str_of("");
            object reason = get_attr_or(e.value(), ID("reason"), empty);
            object wanted = str_of("not_authenticated");
            if (check_int(PyObject_RichCompareBool(reason.ptr(), wanted.ptr(), Py_EQ)) == 1)
                raise_not_authenticated(auth_error, e.value());
        }
        throw;
    }
    if (!truthy(token)) raise_not_authenticated(auth_error, handle());
    return token;
}

static object build_client(handle timeout) {
    object client_cls = import_attr("tarnwicket.submit", ID("SignalServiceClient"));
    object url;
    if (object f = k_resolve_signal_service_url.replaced())
        url = call(f);
    else
        url = resolve_signal_service_url();
    if (!truthy(url)) raise(PyExc_ConnectionError, "No submission server configured");
    object token;
    if (object f = k_get_submission_token.replaced())
        token = call(f);
    else
        token = get_submission_token();
    return call_kw(client_cls, {url, token}, {{ID("timeout"), timeout}});
}

static object default_client() {
    if (object f = k_build_signal_service_client.replaced()) return call(f);
    object timeout = float_of(30.0);
    return build_client(timeout);
}

// ---------------------------------------------------------------- results

static object details_from_body(handle body) {
    if (is_dict(body)) return borrow(body.ptr());
    return none();
}

static object details_of(handle body) {
    if (object f = k_details_from_body.replaced()) return call(f, {body});
    return details_from_body(body);
}

static bool code_is(handle code, long v, int op) {
    object other = int_of(v);
    return check_int(PyObject_RichCompareBool(code.ptr(), other.ptr(), op)) == 1;
}

// The shared part of a submit or a poll answer: transport failures and server
// errors are retryable, any other non-2xx is a definite refusal.
static void check_status(handle result, handle rejected_error, handle transport_text, handle during) {
    object code = get_attr(result, ID("status_code"));
    if (code_is(code, 0, Py_EQ)) {
        object error = get_attr(result, ID("error"));
        object exc = truthy(error) ? call(handle(PyExc_ConnectionError), {error})
                                   : call(handle(PyExc_ConnectionError), {transport_text});
        raise_obj(exc);
    }
    if (code_is(code, 500, Py_GE))
        raise_text(PyExc_ConnectionError, ftext({str_of("Server error "), code, str_of(" "), during}));
    if (!(code_is(code, 200, Py_GE) && code_is(code, 300, Py_LT))) {
        object error = get_attr(result, ID("error"));
        if (!truthy(error)) error = str_of("unknown");
        object body = get_attr(result, ID("body"));
        object details = details_of(body);
        raise_obj(call_kw(rejected_error, {code, error, details}, {{ID("body"), body}}));
    }
}

static object result_to_receipt(handle result, handle submission_type, handle receipt_cls, handle rejected_error) {
    object kind = ftext({submission_type});
    check_status(result, rejected_error, ftext({str_of("transport error during "), kind, str_of(" submission")}),
                 ftext({str_of("during "), kind, str_of(" submission")}));
    object sid = get_attr(result, ID("submission_id"));
    if (!truthy(sid)) {
        object protocol_error = global(ID("SubmissionProtocolError"));
        raise_obj(call(protocol_error,
                       {ftext({kind, str_of(" submission response missing required submission_id")})}));
    }
    return call(receipt_cls, {sid});
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

static object submit_signal_payload(handle payload) {
    object receipt_cls = import_attr("tarnwicket.submit", ID("SubmissionReceipt"));
    object rejected_error = import_attr("tarnwicket.submit", ID("SubmissionRejectedError"));
    object client = default_client();
    return closing(client, [&] {
        object kwargs = payload::call_submit_kwargs(payload, global(ID("_SIGNAL_SUBMIT_KWARGS")));
        object submit = get_attr(client, ID("submit_signal"));
        object empty = steal(PyTuple_New(0));
        object result = call_star(submit, empty, keyword_dict(kwargs));
        object kind = str_of("signal");
        if (object f = k_result_to_receipt.replaced())
            return call(f, {result, kind, receipt_cls, rejected_error});
        return result_to_receipt(result, kind, receipt_cls, rejected_error);
    });
}

static object poll_status_internal(handle submission_id) {
    object status_cls = import_attr("tarnwicket.submit", ID("SubmissionStatus"));
    object rejected_error = import_attr("tarnwicket.submit", ID("SubmissionRejectedError"));
    object client = default_client();
    object result = closing(client, [&] { return call_method(client, ID("get_signal_status"), {submission_id}); });
    object sid = ftext({submission_id});
    check_status(result, rejected_error, ftext({str_of("transport error while polling "), sid}),
                 ftext({str_of("while polling "), sid}));
    object body = get_attr(result, ID("body"));
    if (!is_dict(body)) body = new_dict();
    auto key = [&](handle name, handle dflt) { return mapping_get(body, name, dflt); };
    object status_default = str_of("is_validating");
    object stats_default = new_dict();
    handle nil = Py_None;
    object status = key(ID("status"), status_default);
    object is_stats = key(ID("is_stats"), stats_default);
    object payment = key(ID("payment"), nil);
    object rejection_reason = key(ID("rejection_reason"), nil);
    object signal_pool_id = key(ID("signal_pool_id"), nil);
    object is_correlation = key(ID("is_correlation"), nil);
    object is_pnl_mi = key(ID("is_pnl_mi"), nil);
    object agent_is_pnl_mi = key(ID("agent_is_pnl_mi"), nil);
    object is_weights_mi = key(ID("is_weights_mi"), nil);
    object failure_reason = key(ID("failure_reason"), nil);
    object failure_detail = key(ID("failure_detail"), nil);
    return call_kw(status_cls, {submission_id, status, is_stats, payment, rejection_reason},
                   {{ID("signal_pool_id"), signal_pool_id},
                    {ID("is_correlation"), is_correlation},
                    {ID("is_pnl_mi"), is_pnl_mi},
                    {ID("agent_is_pnl_mi"), agent_is_pnl_mi},
                    {ID("is_weights_mi"), is_weights_mi},
                    {ID("failure_reason"), failure_reason},
                    {ID("failure_detail"), failure_detail}});
}

// ---------------------------------------------------------------- bindings

static object f_entry(handle pool) { return pool_id_from_config_entry(pool); }
static object f_first_pool(handle era_config) { return first_signal_pool_id_from_era_config(era_config); }
static object f_url() { return resolve_signal_service_url(); }
static object f_auth_obj() { return submission_auth_obj(); }
static object f_token() { return get_submission_token(); }
static object f_client(handle timeout) { return build_client(timeout); }

static object f_submit_signal(handle graph, handle universe_id, handle signal_pool_id, handle is_stats, handle is_pnl_mi, handle expression_elapsed_seconds, handle metaparameters, handle search_state) {
    object payload = new_dict();
    dict_set(payload, ID("graph"), graph);
    dict_set(payload, ID("universe_id"), universe_id);
    dict_set(payload, ID("signal_pool_id"), signal_pool_id);
    dict_set(payload, ID("is_stats"), is_stats);
    dict_set(payload, ID("is_pnl_mi"), is_pnl_mi);
    dict_set(payload, ID("expression_elapsed_seconds"), expression_elapsed_seconds);
    dict_set(payload, ID("metaparameters"), metaparameters);
    dict_set(payload, ID("search_state"), search_state);
    if (object f = k_submit_signal_payload.replaced()) return call(f, {payload});
    return submit_signal_payload(payload);
}

static object f_poll_status(handle submission_id) {
    if (object f = k_poll_status_internal.replaced()) return call(f, {submission_id});
    return poll_status_internal(submission_id);
}

static object f_submit_payload(handle payload) { return submit_signal_payload(payload); }
static object f_details(handle body) { return details_from_body(body); }
static object f_to_receipt(handle result, handle submission_type, handle SubmissionReceipt, handle SubmissionRejectedError) { return result_to_receipt(result, submission_type, SubmissionReceipt, SubmissionRejectedError); }
static object f_poll_internal(handle submission_id) { return poll_status_internal(submission_id); }

}  // namespace tw::binding

namespace tw {

void register_binding(handle m) {
    using namespace binding;
    def_function<f_entry>(m, "_pool_id_from_config_entry(pool)");
    def_function<f_first_pool>(m, "_first_signal_pool_id_from_era_config(era_config)");
    def_function<f_url>(m, "_resolve_signal_service_url()");
    def_function<f_auth_obj>(m, "_submission_auth_obj()");
    def_function<f_token>(m, "_get_submission_token()");
    def_function<f_client>(m, "_build_signal_service_client(timeout=30.0)");
    def_function<f_submit_signal>(m,
                                  "submit_signal(graph, universe_id, signal_pool_id, is_stats, is_pnl_mi, "
                                  "expression_elapsed_seconds, *, metaparameters=None, search_state=None)",
                                  "Submit one signal to the signal service; returns a SubmissionReceipt.");
    def_function<f_poll_status>(m, "poll_status(submission_id)",
                                "Poll the signal service for a submission's status; returns a SubmissionStatus.");
    def_function<f_submit_payload>(m, "_submit_signal_payload(payload)");
    def_function<f_details>(m, "_details_from_body(body)");
    def_function<f_to_receipt>(
        m, "_result_to_receipt(result, submission_type, SubmissionReceipt, SubmissionRejectedError)");
    def_function<f_poll_internal>(m, "_poll_status_internal(submission_id)");
}

}  // namespace tw
