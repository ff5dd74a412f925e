// The signal service as the module meets it: the server URL and the token from
// the onboarding configuration, a short-lived client per call, and the mapping
// of the client's plain results to receipts, statuses and errors.
#include "collaborators/signal_service.hpp"

#include "collaborators/onboarding.hpp"

namespace tw::service {

static const LateFn k_poll_status_internal("_poll_status_internal");
static const LateFn k_build_signal_service_client("_build_signal_service_client");
static const LateFn k_details_from_body("_details_from_body");
static const LateFn k_get_submission_token("_get_submission_token");
static const LateFn k_resolve_signal_service_url("_resolve_signal_service_url");
static const LateFn k_submission_auth_obj("_submission_auth_obj");

// ---------------------------------------------------------------- configuration and auth

object resolve_signal_service_url() {
    object mod = onboarding::module_or_null();
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

object submission_auth_obj() {
    object runtime = global_or_none(ID("_library_runtime"));
    if (!is_none(runtime)) {
        object proxy = get_attr_or_none(runtime, ID("auth_proxy"));
        if (!is_none(proxy)) return proxy;
    }
    object auth = global_or_none(ID("_auth"));
    if (!is_none(auth)) return auth;
    object mod = onboarding::module_or_null();
    if (!mod) return none();
    return get_attr_or_none(mod, ID("_auth_manager"));
}

[[noreturn]] static void raise_not_authenticated(handle auth_error, handle cause) {
    object exc = call(auth_error, {global(ID("_NOT_AUTHENTICATED_MESSAGE"))});
    if (cause) raise_from(exc, cause);
    raise_obj(exc);
}

object get_submission_token() {
    object auth_error = import_attr("tarnwicket.auth", ID("AuthError"));
    object auth_obj = k_submission_auth_obj.run<submission_auth_obj>();
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

object build_client(handle timeout) {
    object client_cls = import_attr("tarnwicket.submit", ID("SignalServiceClient"));
    object url = k_resolve_signal_service_url.run<resolve_signal_service_url>();
    if (!truthy(url)) raise(PyExc_ConnectionError, "No submission server configured");
    object token = k_get_submission_token.run<get_submission_token>();
    return call_kw(client_cls, {url, token}, {{ID("timeout"), timeout}});
}

object default_client() {
    if (object f = k_build_signal_service_client.replaced()) return call(f);
    object timeout = float_of(30.0);
    return build_client(timeout);
}

// ---------------------------------------------------------------- results

object details_from_body(handle body) {
    if (is_dict(body)) return borrow(body.ptr());
    return none();
}

object details_of(handle body) {
    return k_details_from_body.run<details_from_body>(body);
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

object result_to_receipt(handle result, handle submission_type, handle receipt_cls, handle rejected_error) {
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

object poll_status_internal(handle submission_id) {
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

object poll_status(handle submission_id) {
    return k_poll_status_internal.run<poll_status_internal>(submission_id);
}

}  // namespace tw::service
